#include "cli.h"

#include "zepnames.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace colloquy {

Args::Args(std::vector<std::string> const& words, std::vector<std::string> const& valued,
           std::vector<std::string> const& flags) {
    auto isIn = [](std::vector<std::string> const& list, std::string const& w) {
        for (auto const& x : list)
            if (x == w) return true;
        return false;
    };
    for (size_t i = 0; i < words.size(); ++i) {
        std::string const& w = words[i];
        if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
            if (isIn(valued, w)) {
                if (i + 1 >= words.size()) throw UsageError(w + " needs a value");
                mValues[w] = words[++i];
            } else if (isIn(flags, w)) {
                mFlags[w] = true;
            } else {
                throw UsageError("unknown option " + w);
            }
        } else {
            mPositional.push_back(w);
        }
    }
}

std::optional<std::string> Args::option(std::string const& name) const {
    auto it = mValues.find(name);
    if (it == mValues.end()) return std::nullopt;
    return it->second;
}

long long Args::number(std::string const& name, long long fallback, long long min, long long max) const {
    auto value = option(name);
    return value ? parseNumber(*value, min, max, name) : fallback;
}

long long parseNumber(std::string const& text, long long min, long long max, std::string const& what) {
    errno = 0;
    char* end = nullptr;
    long long const v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || v < min || v > max)
        throw UsageError(what + " must be a whole number from " + std::to_string(min) + " to " + std::to_string(max) +
                         ", not '" + text + "'");
    return v;
}

namespace {

// Appends the two lowercase hex digits of `byte`: every hex form the tool prints is made here.
void appendHex(std::string& out, unsigned char byte) {
    static char const kDigits[] = "0123456789abcdef";
    out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 15]);
}

}  // namespace

std::string escapeBytes(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (char const ch : bytes) {
        auto const c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            out += "\\x";
            appendHex(out, c);
        }
    }
    return out;
}

std::string hexBytes(void const* data, size_t n) {
    std::string out;
    auto const* p = static_cast<unsigned char const*>(data);
    for (size_t i = 0; i < n; ++i) {
        if (i) out.push_back(' ');
        appendHex(out, p[i]);
    }
    return out;
}

std::string errorLine(std::string const& command, std::string_view what) {
    std::string text = escapeBytes(what);
    if (text.size() > 300) text = text.substr(0, 300) + "...";
    return "colloquy" + (command.empty() ? "" : " " + command) + ": " + text + "\n";
}

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

std::string unescapeBytes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out.push_back(text[i]);
        } else if (i + 1 < text.size() && text[i + 1] == '\\') {
            out.push_back('\\');
            ++i;
        } else if (i + 3 < text.size() && text[i + 1] == 'x' && hexValue(text[i + 2]) >= 0 &&
                   hexValue(text[i + 3]) >= 0) {
            out.push_back(static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3])));
            i += 3;
        } else {
            throw UsageError("bad escape in '" + std::string(text) +
                             "': a backslash starts either x and two hex digits or a second backslash");
        }
    }
    return out;
}

namespace {
// Length of the well-formed UTF-8 sequence of two to four bytes at the start of `s`, or 0.
size_t utf8SequenceAt(std::string_view s) {
    auto const b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    auto const cont = [&](size_t i) { return i < s.size() && (b(i) & 0xC0) == 0x80; };
    unsigned char const c = b(0);
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if ((c == 0xE0 && b(1) < 0xA0) || (c == 0xED && b(1) >= 0xA0)) return 0;  // overlong, surrogate
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if ((c == 0xF0 && b(1) < 0x90) || (c == 0xF4 && b(1) >= 0x90)) return 0;  // overlong, too high
        return 4;
    }
    return 0;
}
}  // namespace

std::string jsonString(std::string_view bytes) {
    std::string out = "\"";
    for (size_t i = 0; i < bytes.size(); ++i) {
        auto const c = static_cast<unsigned char>(bytes[i]);
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c >= 0x20 && c < 0x7F) {
            out.push_back(static_cast<char>(c));
        } else if (size_t const n = c >= 0x80 ? utf8SequenceAt(bytes.substr(i)) : 0) {
            out.append(bytes.substr(i, n));  // well-formed UTF-8 stays as it is
            i += n - 1;
        } else {
            out += "\\u00";
            appendHex(out, c);
        }
    }
    out.push_back('"');
    return out;
}

std::pair<std::string, std::string> parsePair(std::string const& text) {
    size_t const eq = text.find('=');
    if (eq == std::string::npos) throw UsageError("expected key=value, got '" + text + "'");
    std::string key = unescapeBytes(std::string_view(text).substr(0, eq));
    if (key.find('\0') != std::string::npos) throw UsageError("a key cannot hold a NUL byte");
    return {std::move(key), unescapeBytes(std::string_view(text).substr(eq + 1))};
}

std::vector<std::pair<std::string, std::string>> pairsFromArgsOrStdin(std::vector<std::string> const& args) {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (!args.empty()) {
        for (auto const& a : args) pairs.push_back(parsePair(a));
        return pairs;
    }
    std::istringstream lines(readAll(stdin));
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) pairs.push_back(parsePair(line));
    }
    return pairs;
}

std::string readAll(std::FILE* in) {
    std::string out;
    char buffer[65536];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, in)) out.append(buffer, n);
    if (std::ferror(in)) throw Failure("cannot read standard input");
    return out;
}

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure("cannot open " + path + ": " + std::strerror(errno));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeAll(std::FILE* out, std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() || std::fflush(out) != 0)
        throw Failure("cannot write output");
}

std::pair<std::string, std::string> splitAddress(std::string const& text, std::string const& what) {
    CColloquyAddress const address(text.c_str());
    if (address.namePart.empty() || address.hostPart.empty() || text.find('@') == std::string::npos)
        throw UsageError(what + " must be NAME@HOST, not '" + text + "'");
    return {address.namePart, address.hostPart};
}

std::string peerName(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char text[INET6_ADDRSTRLEN] = "";
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "a peer";
    if (address.ss_family == AF_INET) {
        auto const& in4 = reinterpret_cast<sockaddr_in const&>(address);
        ::inet_ntop(AF_INET, &in4.sin_addr, text, sizeof text);
        return std::string(text) + ":" + std::to_string(ntohs(in4.sin_port));
    }
    auto const& in6 = reinterpret_cast<sockaddr_in6 const&>(address);
    std::string const port = std::to_string(ntohs(in6.sin6_port));
    if (IN6_IS_ADDR_V4MAPPED(&in6.sin6_addr)) {  // an IPv4 peer of the dual-stack listener
        ::inet_ntop(AF_INET, in6.sin6_addr.s6_addr + 12, text, sizeof text);
        return std::string(text) + ":" + port;
    }
    ::inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + port;
}

}  // namespace colloquy
