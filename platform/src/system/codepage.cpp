#include "codepage.h"

#include <iconv.h>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace {

// The iconv name of a code page, or "" when it is not one we know.
std::string iconvName(unsigned codePage) {
    switch (codePage) {
        case 65001:
            return "UTF-8";
        case 20127:
            return "US-ASCII";
        case 20866:
            return "KOI8-R";
        case 874:
        case 932:
        case 936:
        case 949:
        case 950:
            return "CP" + std::to_string(codePage);
        default:
            break;
    }
    if (codePage >= 1250 && codePage <= 1258) return "CP" + std::to_string(codePage);
    if (codePage >= 28591 && codePage <= 28606) return "ISO-8859-" + std::to_string(codePage - 28590);
    return std::string();
}

iconv_t const kNoDescriptor = reinterpret_cast<iconv_t>(-1);
size_t const kIconvError = static_cast<size_t>(-1);

// The descriptors of one pair of code pages, opened once: the direct conversion, and a decoder
// of the source code page that measures the character at which the direct conversion stops.
// iconv descriptors keep state, so a conversion holds the pair's lock.
class cConverter {
  public:
    static std::unique_ptr<cConverter> open(unsigned from, unsigned to) {
        std::string const source = iconvName(from), target = iconvName(to);
        if (source.empty() || target.empty()) return nullptr;
        std::unique_ptr<cConverter> converter(new cConverter);
        converter->mDirect = iconv_open(target.c_str(), source.c_str());
        converter->mDecoder = iconv_open("UTF-32LE", source.c_str());
        if (converter->mDirect == kNoDescriptor || converter->mDecoder == kNoDescriptor) return nullptr;
        return converter;
    }
    ~cConverter() {
        if (mDirect != kNoDescriptor) iconv_close(mDirect);
        if (mDecoder != kNoDescriptor) iconv_close(mDecoder);
    }
    cConverter(cConverter const&) = delete;
    cConverter& operator=(cConverter const&) = delete;

    std::string convert(std::string_view source) {
        std::lock_guard<std::mutex> lock(mMutex);
        iconv(mDirect, nullptr, nullptr, nullptr, nullptr);
        std::string out(source.size() + source.size() / 2 + 16, '\0');  // grown when a text needs more
        size_t used = 0;
        auto* in = const_cast<char*>(source.data());
        size_t inLeft = source.size();
        for (;;) {
            bool const flushing = inLeft == 0;
            char* outPos = out.data() + used;
            size_t outLeft = out.size() - used;
            size_t const result = flushing ? iconv(mDirect, nullptr, nullptr, &outPos, &outLeft)
                                           : iconv(mDirect, &in, &inLeft, &outPos, &outLeft);
            used = static_cast<size_t>(outPos - out.data());
            if (result != kIconvError) {
                if (flushing) break;
                continue;  // all input taken: flush the shift state next
            }
            if (errno == E2BIG || out.size() - used < 1) {
                out.resize(out.size() * 2);
                continue;
            }
            // No counterpart, invalid or cut short: one "?" for the whole character.
            out[used++] = '?';
            size_t const skip = characterLength(in, inLeft);
            in += skip;
            inLeft -= skip;
            iconv(mDirect, nullptr, nullptr, nullptr, nullptr);
        }
        out.resize(used);
        return out;
    }

  private:
    cConverter() = default;

    // The length of the source character at `at`: 1 when it is not a valid character.
    size_t characterLength(char* at, size_t left) {
        iconv(mDecoder, nullptr, nullptr, nullptr, nullptr);
        char decoded[4];
        char* out = decoded;
        size_t outLeft = sizeof decoded;  // room for exactly one character
        char* in = at;
        size_t inLeft = left;
        iconv(mDecoder, &in, &inLeft, &out, &outLeft);
        size_t const consumed = static_cast<size_t>(in - at);
        return consumed > 0 && out != decoded ? consumed : 1;
    }

    std::mutex mMutex;
    iconv_t mDirect = kNoDescriptor;
    iconv_t mDecoder = kNoDescriptor;
};

// The converter of a pair of code pages, opened on first use and kept; null for unknown ones.
cConverter* converterFor(unsigned from, unsigned to) {
    static std::mutex mutex;
    static std::map<uint64_t, std::unique_ptr<cConverter>> converters;
    uint64_t const key = (static_cast<uint64_t>(from) << 32) | to;
    std::lock_guard<std::mutex> lock(mutex);
    auto found = converters.find(key);
    if (found == converters.end()) found = converters.emplace(key, cConverter::open(from, to)).first;
    return found->second.get();
}

// The last text this thread converted, so that the conversion following a size query of the
// same text copies the result instead of converting again.
struct cLastConversion {
    bool valid = false;
    unsigned from = 0, to = 0;
    std::string source, result;

    bool matches(unsigned f, unsigned t, std::string_view s) const {
        return valid && from == f && to == t && source == s;
    }
    void release() {
        valid = false;
        std::string().swap(source);
        std::string().swap(result);
    }
};

thread_local cLastConversion tLast;

}  // namespace

int ANSIToANSI(unsigned int fromCodePage, unsigned int toCodePage, char const* source, int sourceLength, char* target,
               int targetSize) {
    if (!source) return 0;
    cConverter* const converter = converterFor(fromCodePage, toCodePage);
    if (!converter) return 0;
    std::string_view const text(source, sourceLength < 0 ? std::strlen(source) : static_cast<size_t>(sourceLength));
    cLastConversion& last = tLast;
    if (!last.matches(fromCodePage, toCodePage, text)) {
        last.release();
        last.result = converter->convert(text);
        last.source.assign(text);
        last.from = fromCodePage;
        last.to = toCodePage;
        last.valid = true;
    }
    if (last.result.size() >= static_cast<size_t>(INT_MAX)) return 0;
    int const needed = static_cast<int>(last.result.size() + 1);
    if (!target) return targetSize == 0 ? needed : 0;
    if (targetSize < needed) return 0;
    std::memcpy(target, last.result.data(), last.result.size());
    target[last.result.size()] = '\0';
    last.release();  // the pair of calls is done: keep no copy of a possibly large text
    return needed;
}
