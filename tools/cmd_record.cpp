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

namespace {

// One decimal number ended by a blank at `at`, written as the writer writes it ("%d": no sign,
// no leading zero); moves `at` past the blank. False when the bytes there are not one.
bool plainNumber(std::string_view text, size_t& at, long long& value) {
    size_t const blank = text.find(' ', at);
    if (blank == std::string_view::npos || blank == at || blank - at > 10) return false;
    if (text[at] == '0' && blank - at > 1) return false;
    value = 0;
    for (size_t i = at; i < blank; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    at = blank + 1;
    return value <= static_cast<long long>(kMaxLength);
}

// What keeps `text` from being exactly one text form as the writer writes it: a count of at
// least 1, then each key and value behind a " '%d " length prefix, then at most one blank and
// nothing more. Empty when it is one; `count` is then its count.
std::string textFormProblem(std::string_view text, long long& count) {
    size_t at = 0;
    if (!plainNumber(text, at, count)) return "it does not start with a count and a blank";
    // The writer gives a record without pairs as a lone blank, which does not read back: a
    // count of 0 comes from no writer.
    if (count == 0) return "its count is 0";
    for (long long piece = 0; piece < 2 * count; ++piece) {
        auto which = [&] { return (piece % 2 ? "value " : "key ") + std::to_string(piece / 2 + 1); };
        long long length = 0;
        if (at >= text.size() || text[at] != '\'' || !plainNumber(text, ++at, length))
            return which() + " has no length prefix at byte " + std::to_string(at);
        if (static_cast<unsigned long long>(length) > text.size() - at)
            return which() + " runs past the end of the input";
        if (piece % 2 == 0 && text.substr(at, static_cast<size_t>(length)).find('\0') != std::string_view::npos)
            return which() + " holds a NUL byte";
        at += static_cast<size_t>(length);
        // A blank follows every piece: before the next length prefix, and once at the very end,
        // where a hub key dump leaves it out.
        bool const last = piece + 1 == 2 * count;
        if (last && at == text.size()) return "";
        if (at >= text.size() || text[at] != ' ') return which() + " is not followed by a blank";
        ++at;
    }
    if (at != text.size()) return std::to_string(text.size() - at) + " bytes follow the last pair";
    return "";
}

}  // namespace

bool tryDecodeTextForm(std::string_view text, Pairs& pairs, std::string* problem) {
    long long count = 0;
    std::string why = text.size() > kMaxLength ? "it is too large" : textFormProblem(text, count);
    if (why.empty()) {
        CAssociativeArray record(64);
        try {
            record.FromString(text.data(), static_cast<int>(text.size()));
            pairs = pairsOf(record);
            if (static_cast<long long>(pairs.size()) != count)
                why = std::to_string(count - static_cast<long long>(pairs.size())) + " pair(s) repeat an earlier key";
        } catch (CIllegalAssoSyntaxException const&) {
            why = "the reader refused it";
        }
    }
    if (problem) *problem = why;
    return why.empty();
}

Pairs decodeTextForm(std::string_view text) {
    Pairs pairs;
    std::string problem;
    if (!tryDecodeTextForm(text, pairs, &problem))
        throw Failure("input is not one text form (" + std::to_string(text.size()) + " bytes): " + problem);
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
            throw UsageError("a hub dump cannot carry NUL bytes (key '" + key + "')");
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
    Pairs const pairs = decodeTextForm(readAll(stdin));
    writeAll(stdout, args.flag("--json") ? pairsJson(pairs) + "\n" : pairLines(pairs));
    return 0;
}

int cmdConvert(Words const& words) {
    Args const args(words, {"--from", "--to"}, {});
    auto from = args.option("--from"), to = args.option("--to");
    if (!from || !to) throw UsageError("convert needs --from CP and --to CP");
    if (!args.positional().empty()) throw UsageError("convert reads standard input and takes only --from and --to");
    auto const fromCp = static_cast<unsigned>(parseNumber(*from, 0, 0xffffffffLL, "--from"));
    auto const toCp = static_cast<unsigned>(parseNumber(*to, 0, 0xffffffffLL, "--to"));
    // An unknown code page makes every conversion report size 0.
    if (ANSIToANSI(fromCp, toCp, "", -1, nullptr, 0) == 0)
        throw Failure("cannot convert from code page " + *from + " to " + *to);
    std::string const input = readAll(stdin);
    if (input.size() > kMaxLength) throw Failure("input too large");
    RWCString converted;
    if (!gConvertX1_patch(fromCp, toCp, input.data(), static_cast<int>(input.size()), converted))
        throw Failure("conversion failed");
    writeAll(stdout, converted.view());
    return 0;
}

}  // namespace colloquy
