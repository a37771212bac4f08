// The record workloads (bench/record_workload.h) written and read by the library and by each
// established serialisation library found at build time, behind one interface:
//   Codec(pairs)   holds the pairs in the library's own in-memory form (not measured);
//   write()        serialises them; the output buffer is reused where the library's API
//                  allows it (our record's text cache, RapidJSON's StringBuffer, msgpack's
//                  sbuffer), nlohmann::json's dump() returns a new string each time;
//   read(text)     parses the library's own serialised form into a fresh in-memory form
//                  (record, DOM or object handle) that owns copies of the strings;
//   text()         that serialised form, the input of read().
// Both return a figure that depends on the work (size or count), to keep it from being
// optimised away. "memcpy" copies the record's text form into a buffer allocated once: the
// floor for the large value.
#ifndef COLLOQUY_BENCH_PEERS_RECORD_CODECS_H
#define COLLOQUY_BENCH_PEERS_RECORD_CODECS_H

#include "associativearray.h"
#include "record_workload.h"

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#ifdef COLLOQUY_PEER_NLOHMANN
#include <nlohmann/json.hpp>
#endif
#ifdef COLLOQUY_PEER_RAPIDJSON
#define RAPIDJSON_SSE2  // every x86-64 has it: the library's fastest portable scanning
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif
#ifdef COLLOQUY_PEER_MSGPACK
#include <msgpack.hpp>
#endif

namespace benchpeers {

using tPairs = std::vector<std::pair<std::string, std::string>>;

inline tPairs const& smallPairs() {
    static tPairs const pairs = [] {
        tPairs p;
        benchrecord::cSmall const& s = benchrecord::small();
        for (size_t i = 0; i < s.keys.size(); ++i) p.emplace_back(s.keys[i], s.values[i]);
        return p;
    }();
    return pairs;
}

inline tPairs const& bigPairs() {
    static tPairs const pairs{{"body", benchrecord::bigValue()}};
    return pairs;
}

// ---- the library ---------------------------------------------------------------------

inline void addAll(CAssociativeArray& record, tPairs const& pairs) {
    for (auto const& [key, value] : pairs) record.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
}

class cOurs {
  public:
    static constexpr char const* kName = "ours";
    static std::string version() { return "this build"; }
    explicit cOurs(tPairs const& pairs) { addAll(mRecord, pairs); }
    size_t write() {
        char const* text = nullptr;
        int length = 0;
        mRecord.ToString(text, length, false, false);
        return static_cast<size_t>(length);
    }
    static size_t read(std::string const& text) {
        CAssociativeArray record;
        record.FromString(text.data(), static_cast<int>(text.size()));
        return record.entries();
    }
    std::string text() const { return mRecord.ToStringRef(false, false).stdString(); }

  private:
    CAssociativeArray mRecord;
};

// ---- the floor: the record's text form copied --------------------------------------------

class cMemcpy {
  public:
    static constexpr char const* kName = "memcpy";
    static std::string version() { return "libc"; }
    explicit cMemcpy(tPairs const& pairs) : mText(cOurs(pairs).text()), mTarget(mText.size()) {}
    size_t write() { return copy(mText); }
    size_t read(std::string const& text) { return copy(text); }
    std::string text() const { return mText; }

  private:
    size_t copy(std::string const& from) {
        std::memcpy(mTarget.data(), from.data(), from.size());
        return static_cast<size_t>(mTarget[from.size() / 2]);
    }
    std::string mText;
    std::vector<char> mTarget;
};

// ---- the established libraries -------------------------------------------------------

#ifdef COLLOQUY_PEER_NLOHMANN
class cNlohmann {
  public:
    static constexpr char const* kName = "nlohmann_json";
    static std::string version() {
        return std::to_string(NLOHMANN_JSON_VERSION_MAJOR) + "." + std::to_string(NLOHMANN_JSON_VERSION_MINOR) + "." +
               std::to_string(NLOHMANN_JSON_VERSION_PATCH);
    }
    explicit cNlohmann(tPairs const& pairs) : mDocument(nlohmann::json::object()) {
        for (auto const& [key, value] : pairs) mDocument[key] = value;
    }
    size_t write() {
        mText = mDocument.dump();
        return mText.size();
    }
    static size_t read(std::string const& text) { return nlohmann::json::parse(text).size(); }
    std::string text() const { return mDocument.dump(); }

  private:
    nlohmann::json mDocument;
    std::string mText;
};
#endif

#ifdef COLLOQUY_PEER_RAPIDJSON
class cRapidJson {
  public:
    static constexpr char const* kName = "rapidjson";
    static std::string version() { return RAPIDJSON_VERSION_STRING; }
    explicit cRapidJson(tPairs const& pairs) {
        mDocument.SetObject();
        auto& allocator = mDocument.GetAllocator();
        for (auto const& [key, value] : pairs)
            mDocument.AddMember(
                rapidjson::Value(key.data(), static_cast<rapidjson::SizeType>(key.size()), allocator),
                rapidjson::Value(value.data(), static_cast<rapidjson::SizeType>(value.size()), allocator), allocator);
    }
    size_t write() {
        mBuffer.Clear();
        rapidjson::Writer<rapidjson::StringBuffer> writer(mBuffer);
        mDocument.Accept(writer);
        return mBuffer.GetSize();
    }
    static size_t read(std::string const& text) {
        rapidjson::Document document;
        document.Parse(text.data(), text.size());
        return document.HasParseError() ? 0 : document.MemberCount();
    }
    std::string text() {
        write();
        return std::string(mBuffer.GetString(), mBuffer.GetSize());
    }

  private:
    rapidjson::Document mDocument;
    rapidjson::StringBuffer mBuffer;
};
#endif

#ifdef COLLOQUY_PEER_MSGPACK
class cMsgpack {
  public:
    static constexpr char const* kName = "msgpack";
    static std::string version() { return msgpack_version(); }
    explicit cMsgpack(tPairs const& pairs) : mMap(pairs.begin(), pairs.end()) {}
    size_t write() {
        mBuffer.clear();
        msgpack::pack(mBuffer, mMap);
        return mBuffer.size();
    }
    // The strings are copied into the handle's zone (no reference into the input is kept).
    static size_t read(std::string const& text) {
        msgpack::object_handle const handle = msgpack::unpack(text.data(), text.size());
        return handle.get().via.map.size;
    }
    std::string text() {
        write();
        return std::string(mBuffer.data(), mBuffer.size());
    }

  private:
    std::map<std::string, std::string> mMap;
    msgpack::sbuffer mBuffer;
};
#endif

template <class Codec>
struct tCodec {
    using type = Codec;
};

// Calls visit(tCodec<Codec>()) for each codec built into this program, the library first;
// the memcpy floor only when asked (it is the floor of the large value only).
template <class Visit>
void forEachCodec(bool withFloor, Visit&& visit) {
    visit(tCodec<cOurs>());
    if (withFloor) visit(tCodec<cMemcpy>());
#ifdef COLLOQUY_PEER_NLOHMANN
    visit(tCodec<cNlohmann>());
#endif
#ifdef COLLOQUY_PEER_RAPIDJSON
    visit(tCodec<cRapidJson>());
#endif
#ifdef COLLOQUY_PEER_MSGPACK
    visit(tCodec<cMsgpack>());
#endif
}

}  // namespace benchpeers

#endif
