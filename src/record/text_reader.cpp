// The record's reader: the pairs of a text form added to the record, and the two cursor-only
// steps (gParseInt, gLoadString) that trust the lengths they are given.
#include "associativearray.h"

#include "Log.h"
#include "record/pairs.h"
#include "record/string_blocks.h"
#include "record/text_format.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>

using nAssoText::kModule;

namespace nAssoText {
namespace nDetail {

// strtol of the token (at most kMaxDigits characters); results beyond int are clamped, as
// strtol does where long has 32 bits.
long long tokenValue(char const* token, size_t n) {
    // Plain digit strings (all the writer makes) are read directly.
    if (n <= 9) {
        long long value = 0;
        size_t i = 0;
        for (; i < n && token[i] >= '0' && token[i] <= '9'; ++i) value = value * 10 + (token[i] - '0');
        if (i == n) return value;
    }
    char copy[kMaxDigits + 1];
    std::memcpy(copy, token, n);
    copy[n] = '\0';
    long long const value = std::strtol(copy, nullptr, 10);
    return std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, value));
}

}  // namespace nDetail
}  // namespace nAssoText

namespace {

using nAssoText::readInt;
using nAssoText::readPiece;

[[noreturn]] void throwSyntaxError(std::string_view error) { throw CIllegalAssoSyntaxException(error); }

// The fewest bytes a pair takes: "'0 " and the byte after it, twice (the very last byte of
// the input may be missing).
constexpr size_t kMinPairBytes = 8;

// readInt and readPiece throwing CIllegalAssoSyntaxException(error) on a syntax error.
int parseInt(char const*& p, char const* limit) {
    int value = 0;
    std::string_view error;
    if (!readInt(p, limit, value, error)) throwSyntaxError(error);
    return value;
}

std::string_view loadPiece(char const*& p, char const* limit) {
    std::string_view piece, error;
    if (!readPiece(p, limit, piece, error)) throwSyntaxError(error);
    return piece;
}

void readPairs(CAssociativeArray& record, char const* p, char const* limit) {
    int const count = parseInt(p, limit);
    if (count <= 0) return;
    // Room for the pairs announced, as far as the input can hold them: a false count makes
    // no allocation larger than the input's own pairs could.
    size_t const fitting = (static_cast<size_t>(limit - p) + 1) / kMinPairBytes;
    size_t const expected = std::min(static_cast<size_t>(count), fitting);
    record.reserve(record.entries() + expected);
    nAssoText::cStringMaker maker(2 * expected);
    for (int i = 0; i < count; ++i) {
        std::string_view const key = loadPiece(p, limit);
        std::string_view const value = loadPiece(p, limit);
        nAssoText::addPair(record, nAssoText::upToNul(key), value, maker);
    }
}

// Reads the `size` bytes at `text`. Every failure is logged, first by kind and then with the
// first `shownLength` bytes of the input, and ends as a CIllegalAssoSyntaxException carrying
// the whole input. Pairs read before the failure stay.
void readTextForm(CAssociativeArray& record, char const* text, size_t size, long shownLength) {
    if (!text) {
        text = "";  // read as empty
        size = 0;
    }
    try {
        try {
            readPairs(record, text, text + size);
        } catch (std::exception const& e) {
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, e.what());
            throw;
        } catch (...) {
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "Unexpected error in CAssociativeArray::FromString");
            throw;
        }
    } catch (...) {
        size_t const shown = shownLength > 0 ? std::min(size, static_cast<size_t>(shownLength)) : 0;
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, shownLength, std::string_view(text, shown));
        throw CIllegalAssoSyntaxException(std::string_view(text, size));
    }
}

// The bytes before the NUL of `text`, none for null.
size_t nulTerminatedSize(char const* text) { return text ? std::strlen(text) : 0; }

}  // namespace

void CAssociativeArray::FromString(char const* text, int length) {
    readTextForm(*this, text, length > 0 ? static_cast<size_t>(length) : 0, length);
}

// The forms taking a bare char const* read up to the NUL; their failure log shows at most
// the first 14 bytes, as it always has.
void CAssociativeArray::FromStringX2_deprecate(char const* text) {
    readTextForm(*this, text, nulTerminatedSize(text), 14);
}

void CAssociativeArray::FromStringZTS(char const* text) { readTextForm(*this, text, nulTerminatedSize(text), 14); }

void CAssociativeArray::FromStringZ1(std::string const& text) {
    readTextForm(*this, text.data(), text.size(), static_cast<long>(text.size()));
}

void CAssociativeArray::FromStringZ1(RWCString const& text) {
    readTextForm(*this, text.data(), text.length(), static_cast<long>(text.length()));
}

void CAssociativeArray::FromStringRef(RWCString const& text) {
    readTextForm(*this, text.data(), text.length(), static_cast<long>(text.length()));
}

// ---- the reader's steps for callers that hold only a cursor ----

namespace {

// readInt and readPiece for a cursor without an end, whose callers vouch for the lengths: a
// number is read up to a NUL at most, a piece's bytes are taken as its length says, and the
// byte after the piece is always skipped.
bool readIntUnbounded(char const*& p, int& value, std::string_view& error) {
    return readInt(p, p + strnlen(p, nAssoText::kMaxDigits + 1), value, error);
}

bool readPieceUnbounded(char const*& p, std::string_view& piece, std::string_view& error) {
    if (*p != nAssoText::kPieceMark) {
        error = std::string_view(p);  // the rest of the input, up to its NUL
        return false;
    }
    ++p;
    int length = 0;
    if (!readIntUnbounded(p, length, error)) return false;
    if (length < 0) return false;
    piece = std::string_view(p, static_cast<size_t>(length));
    p += piece.size() + 1;
    return true;
}

}  // namespace

int gParseInt(char const*& cursor) {
    int value = 0;
    std::string_view error;
    // The cursor moves past the blank even when the number is refused.
    if (!readIntUnbounded(cursor, value, error)) throwSyntaxError(error);
    return value;
}

char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out, bool /*flag*/) {
    char const* p = cursor;
    std::string_view piece, error;
    if (!readPieceUnbounded(p, piece, error)) throwSyntaxError(error);
    auto const n = static_cast<int>(piece.size());
    try {
        if (bufferSize < n || !buffer) {
            delete[] buffer;
            buffer = nullptr;
            buffer = new char[piece.size() + 1];
            bufferSize = n;
        }
        std::memcpy(buffer, piece.data(), piece.size());
        buffer[n] = '\0';
        out.assign(buffer, piece.size());
    } catch (...) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "gLoadString ...", n,
                     std::string_view(cursor, static_cast<size_t>(piece.data() - cursor)));
        throw;
    }
    return p;
}

char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out) {
    return gLoadString(cursor, buffer, bufferSize, out, false);
}
