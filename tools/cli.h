// Shared pieces of the colloquy tool: argument parsing, byte escapes, JSON text, errors.
#ifndef COLLOQUY_TOOLS_CLI_H
#define COLLOQUY_TOOLS_CLI_H

#include <cstddef>
#include <cstdio>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace colloquy {

// The most bytes a text form, a body or a packed message can have: the library counts them in ints.
constexpr size_t kMaxLength = 0x7fffffff;

// Bad command line: one line on standard error, exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The command could not do its work: one line on standard error, exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The options and positional arguments of one command. Options are "--name value" or
// "--name" alone (a flag); `valued` names the options that take a value.
class Args {
  public:
    Args(std::vector<std::string> const& words, std::vector<std::string> const& valued,
         std::vector<std::string> const& flags);
    bool flag(std::string const& name) const { return mFlags.count(name) != 0; }
    std::optional<std::string> option(std::string const& name) const;
    std::vector<std::string> const& positional() const { return mPositional; }
    // An integer option in [min, max], or `fallback` when absent.
    long long number(std::string const& name, long long fallback, long long min, long long max) const;

  private:
    std::map<std::string, std::string> mValues;
    std::map<std::string, bool> mFlags;
    std::vector<std::string> mPositional;
};

// Parses a whole decimal integer in [min, max]; `what` names it in the error.
long long parseNumber(std::string const& text, long long min, long long max, std::string const& what);

// Bytes as text: printable ASCII stays, a backslash and every other byte become \xNN.
std::string escapeBytes(std::string_view bytes);
// Bytes as two hex digits each, separated by blanks ("00 01 ff").
std::string hexBytes(void const* data, size_t n);
// The reverse: \xNN (two hex digits) and \\ are decoded; any other backslash is an error.
std::string unescapeBytes(std::string_view text);
// A JSON string literal: well-formed UTF-8 is kept, any other byte outside printable ASCII is
// written as \u00NN (one per byte).
std::string jsonString(std::string_view bytes);

// The tool's error line for `command` ("colloquy COMMAND: WHAT", "colloquy: WHAT" without a
// command): the bytes of `what` escaped, so that whatever arguments or peers put in it, it is one
// line of printable text; cut short when long.
std::string errorLine(std::string const& command, std::string_view what);

// One key=value pair (the key ends at the first '='), escapes decoded.
std::pair<std::string, std::string> parsePair(std::string const& text);
// Pairs from the arguments, or from standard input (one per line) when there are none.
std::vector<std::pair<std::string, std::string>> pairsFromArgsOrStdin(std::vector<std::string> const& args);

std::string readAll(std::FILE* in);
std::string readFile(std::string const& path);
void writeAll(std::FILE* out, std::string_view bytes);

// "address:port" of the far end of a connected socket, for report lines ("a peer" when the
// socket has none).
std::string peerName(int fd);

// Splits "NAME@HOST" with the library's address rules (name and host both required).
std::pair<std::string, std::string> splitAddress(std::string const& text, std::string const& what);

}  // namespace colloquy

#endif
