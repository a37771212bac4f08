// encode, decode and convert: the record's text form from and to a shell.
#include "cli.h"
#include "codepage.h"
#include "commands.h"
#include "record_io.h"
#include "send2hub.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

namespace colloquy {

std::string textFormOf(Pairs const& pairs) {
    CAssociativeArray record(static_cast<int>(pairs.size() * 2 + 8));
    for (auto const& [key, value] : pairs) record.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
    char const* text = nullptr;
    int length = 0;
    record.ToString(text, length, false, false);
    return std::string(text, static_cast<size_t>(length));
}

Pairs pairsOf(CAssociativeArray& record) {
    Pairs pairs;
    RWHashDictionaryIterator next(record);
    while (RWCollectable* key = next()) {
        auto const* k = static_cast<RWCollectableString const*>(key);
        auto const* v = static_cast<RWCollectableString const*>(next.value());
        pairs.emplace_back(std::string(k->data(), k->length()), std::string(v->data(), v->length()));
    }
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

bool tryReadTextForm(std::string_view text, Pairs& pairs) {
    CAssociativeArray record(64);
    try {
        record.FromString(text.data(), static_cast<int>(text.size()));
    } catch (CIllegalAssoSyntaxException const&) {
        return false;
    }
    pairs = pairsOf(record);
    return true;
}

Pairs readTextForm(std::string_view text) {
    Pairs pairs;
    if (text.size() > 0x7fffffff || !tryReadTextForm(text, pairs))
        throw Failure("input is not a well-formed text form (" + std::to_string(text.size()) + " bytes)");
    return pairs;
}

std::string pairLines(Pairs const& pairs, std::string const& indent) {
    std::string out;
    for (auto const& [key, value] : pairs) out += indent + escapeBytes(key) + "\t" + escapeBytes(value) + "\n";
    return out;
}

std::string pairsJson(Pairs const& pairs) {
    std::string out = "{";
    for (auto const& [key, value] : pairs) {
        if (out.size() > 1) out += ",";
        out += jsonString(key) + ":" + jsonString(value);
    }
    return out + "}";
}

namespace {

constexpr size_t kMaxHubPairs = 64;

// DumpHubArray takes its pairs as C variable arguments; this calls it with the first N pairs
// of `v` (keys and values alternating) followed by the ending null key.
template <size_t... I>
char* callDumpHub(char const* from, char const* const* v, std::index_sequence<I...>) {
    return DumpHubArray(from, v[I]..., static_cast<char const*>(nullptr));
}
template <size_t N>
char* dumpHubN(char const* from, char const* const* v) {
    return callDumpHub(from, v, std::make_index_sequence<2 * N>());
}
template <size_t... N>
constexpr auto makeHubTable(std::index_sequence<N...>) {
    return std::array<char* (*)(char const*, char const* const*), sizeof...(N)>{&dumpHubN<N>...};
}

std::string hubDumpOf(std::string const& from, Pairs const& pairs) {
    static constexpr auto kTable = makeHubTable(std::make_index_sequence<kMaxHubPairs + 1>());
    if (pairs.size() > kMaxHubPairs) throw UsageError("--hub takes at most " + std::to_string(kMaxHubPairs) + " pairs");
    std::vector<char const*> v;
    for (auto const& [key, value] : pairs) {
        if (value.find('\0') != std::string::npos)
            throw UsageError("a hub dump cannot carry NUL bytes (key '" + escapeBytes(key) + "')");
        v.push_back(key.c_str());
        v.push_back(value.c_str());
    }
    std::unique_ptr<char, void (*)(char*)> text(kTable[pairs.size()](from.c_str(), v.data()),
                                                [](char* p) { FreeHubDumpArray(p); });
    if (!text) throw Failure("the hub dump was refused");
    return std::string(text.get());
}

}  // namespace

int cmdEncode(Words const& words) {
    Args const args(words, {"--hub"}, {});
    Pairs const pairs = pairsFromArgsOrStdin(args.positional());
    if (auto from = args.option("--hub")) {
        if (from->find('\0') != std::string::npos) throw UsageError("--hub takes a name without NUL bytes");
        writeAll(stdout, hubDumpOf(*from, pairs));
        return 0;
    }
    if (pairs.empty())
        throw UsageError("encode needs at least one key=value pair (an empty record does not read back)");
    writeAll(stdout, textFormOf(pairs));
    return 0;
}

int cmdDecode(Words const& words) {
    Args const args(words, {}, {"--json"});
    if (!args.positional().empty()) throw UsageError("decode reads standard input and takes no arguments");
    Pairs const pairs = readTextForm(readAll(stdin));
    writeAll(stdout, args.flag("--json") ? pairsJson(pairs) + "\n" : pairLines(pairs));
    return 0;
}

int cmdConvert(Words const& words) {
    Args const args(words, {"--from", "--to"}, {});
    auto from = args.option("--from"), to = args.option("--to");
    if (!from || !to) throw UsageError("convert needs --from CP and --to CP");
    auto const fromCp = static_cast<unsigned>(parseNumber(*from, 0, 0xffffffffLL, "--from"));
    auto const toCp = static_cast<unsigned>(parseNumber(*to, 0, 0xffffffffLL, "--to"));
    // An unknown code page makes every conversion report size 0.
    if (ANSIToANSI(fromCp, toCp, "", -1, nullptr, 0) == 0)
        throw Failure("cannot convert from code page " + *from + " to " + *to);
    std::string const input = readAll(stdin);
    if (input.size() > 0x7fffffff) throw Failure("input too large");
    RWCString converted;
    if (!gConvertX1_patch(fromCp, toCp, input.data(), static_cast<int>(input.size()), converted))
        throw Failure("conversion failed");
    writeAll(stdout, converted.view());
    return 0;
}

}  // namespace colloquy
