// The record's text form, and the steps that write and read it. Shared by the record's writer
// (text_writer.cpp) and reader (text_reader.cpp), the code-page converters and the hub key
// dump. Not installed: the public interface is associativearray.h.
//
//   text form:  <count> then, per pair, " " <key piece> " " <value piece>, then " "
//   piece:      "'" <length> " " <length bytes>
//
// The writer writes exactly that. The reader also takes a number as strtol reads it (a sign,
// leading zeros) up to kMaxDigits characters, and any byte where a blank follows a piece; the
// very last one may be missing.
#ifndef COLLOQUY_RECORD_TEXT_FORMAT_H
#define COLLOQUY_RECORD_TEXT_FORMAT_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace nAssoText {

// The log module of the records about text forms.
inline constexpr char const kModule[] = "associativearray";

inline constexpr char kBlank = ' ';       // ends every number and follows every piece
inline constexpr char kPieceMark = '\'';  // starts every piece

// ---- writing ----

// The number of decimal digits of `n`.
inline size_t decimalDigits(size_t n) {
    size_t digits = 1;
    for (; n >= 10; n /= 10) ++digits;
    return digits;
}

// Writes the `digits` decimal digits of `n` at `out` and returns the end.
inline char* writeDecimal(char* out, size_t n, size_t digits) {
    char* const end = out + digits;
    for (char* p = end; p != out; n /= 10) *--p = static_cast<char>('0' + n % 10);
    return end;
}

// The blank and the length in front of a piece of `n` bytes, " '<n> ", written at `out`
// (returning the end).
inline char* writePrefix(char* out, size_t n) {
    *out++ = kBlank;
    *out++ = kPieceMark;
    out = writeDecimal(out, n, decimalDigits(n));
    *out++ = kBlank;
    return out;
}

// A piece with the blank in front of it, " '<n> <bytes>": its size, and writing it at `out`
// (returning the end).
inline size_t pieceSize(std::string_view bytes) { return decimalDigits(bytes.size()) + 3 + bytes.size(); }
inline char* writePiece(char* out, std::string_view bytes) {
    out = writePrefix(out, bytes.size());
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());  // an empty view may have no data
    return out + bytes.size();
}

// The same, appended: a number in decimal, a piece.
void appendDecimal(std::string& out, long long n);
void appendPiece(std::string& out, std::string_view bytes);

// ---- reading ----

// The longest number token the reader takes: the blank ending it is among the first
// kMaxDigits + 1 bytes.
constexpr size_t kMaxDigits = 18;

// The text of the exception for the errors found in a number.
inline constexpr std::string_view kSyntaxError = "Error";

namespace nDetail {
// strtol of a token of at most kMaxDigits characters, clamped to int.
long long tokenValue(char const* token, size_t n);
}  // namespace nDetail

// Reads one decimal number of 1 to kMaxDigits characters ended by a blank and moves `p` past
// the blank (also when the number is then refused). Reads only bytes in [p, limit). On a
// syntax error it returns false and sets `error` to the text the CIllegalAssoSyntaxException
// carries ("Error").
inline bool readInt(char const*& p, char const* limit, int& value, std::string_view& error) {
    error = kSyntaxError;
    char const* const token = p;
    size_t const window = static_cast<size_t>(limit - token);
    // The writer's numbers (up to 9 digits, no needless leading zero, then a blank) are read
    // in one pass; anything else goes the general way below, which decides as strtol would.
    size_t const digits = std::min(window, size_t{9});
    int number = 0;
    size_t i = 0;
    for (; i < digits && static_cast<unsigned>(token[i] - '0') <= 9u; ++i) number = number * 10 + (token[i] - '0');
    if (i > 0 && i < window && token[i] == kBlank && (token[0] != '0' || i == 1)) {
        p = token + i + 1;
        value = number;
        return true;
    }
    size_t const reach = std::min(window, kMaxDigits + 1);
    size_t n = 0;
    while (n < reach && token[n] != kBlank) ++n;
    if (n == 0 || n == reach) return false;  // empty, or no blank in reach
    p = token + n + 1;
    long long const general = nDetail::tokenValue(token, n);
    // strtol gives 0 for any text without digits: only the token "0" really means zero.
    if (general == 0 && !(n == 1 && token[0] == '0')) return false;
    value = static_cast<int>(general);
    return true;
}

// Reads one piece "'<length> <bytes>" and steps over the byte after it, when there is one.
// Reads only bytes in [p, limit); the bytes stay in the input. On a syntax error it returns
// false with `error` set: the rest of the input when the mark is missing, "Error" for a bad,
// negative or too large length.
inline bool readPiece(char const*& p, char const* limit, std::string_view& piece, std::string_view& error) {
    if (p == limit || *p != kPieceMark) {
        error = std::string_view(p, static_cast<size_t>(limit - p));
        return false;
    }
    ++p;
    int length = 0;
    if (!readInt(p, limit, length, error)) return false;
    auto const n = static_cast<size_t>(length);
    if (length < 0 || n > static_cast<size_t>(limit - p)) return false;
    piece = std::string_view(p, n);
    p += n;
    if (p < limit) ++p;  // the blank from the writer, skipped unread
    return true;
}

// The bytes up to the first NUL: a key as a NUL-terminated key holds it, a text as read by NUL.
inline std::string_view upToNul(std::string_view piece) {
    size_t n = 0;
    while (n < piece.size() && piece[n] != '\0') ++n;  // pieces are short: a plain loop beats memchr
    return piece.substr(0, n);
}

}  // namespace nAssoText

#endif
