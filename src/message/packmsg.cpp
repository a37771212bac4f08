// Packed buffers and the pack format (see packmsg.h for the layout).
#include "packmsg.h"

#include "log_records.h"
#include "message/packread.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

char const kModule[] = "packmsg";

constexpr int kMaxFields = 10;
constexpr int kHeaderRoom = 100;       // bytes reserved for the header text, whatever the count
constexpr std::size_t kMaxToken = 11;  // "-2147483648": the longest "%d" of an int

// Appends "%d " of `value` at `out`; returns the end of the item.
char* appendItem(char* out, int value) {
    out = std::to_chars(out, out + kMaxToken, value).ptr;
    *out++ = ' ';
    return out;
}

// The unbounded reader's token: at most kMaxToken non-blank bytes at `pos`, converted as
// "%d" would (0 when there are no digits). Advances `pos` and `packedLength` past the token
// and the one separator byte that follows it.
int readToken(char const*& pos, int& packedLength) {
    char scratch[kMaxToken + 1];
    std::size_t n = 0;
    while (n < kMaxToken && pos[n] != '\0' && pos[n] != ' ' && pos[n] != '\t' && pos[n] != '\n' && pos[n] != '\r' &&
           pos[n] != '\v' && pos[n] != '\f') {
        scratch[n] = pos[n];
        ++n;
    }
    scratch[n] = '\0';
    pos += n + 1;
    packedLength += static_cast<int>(n + 1);
    long const value = std::strtol(scratch, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

// The bounded reader's token: 1 to 10 decimal digits (at most INT_MAX) and exactly one blank,
// all before `end`. Advances `pos` past them on success.
bool readBoundedToken(char const*& pos, char const* end, int& value) {
    std::size_t n = 0;
    long long v = 0;
    while (n < 10 && pos + n < end && pos[n] >= '0' && pos[n] <= '9') {
        v = v * 10 + (pos[n] - '0');
        ++n;
    }
    if (n == 0 || pos + n >= end || pos[n] != ' ' || v > INT_MAX) return false;
    value = static_cast<int>(v);
    pos += n + 1;
    return true;
}

// Points field i at field i-1's end, for the first `count` fields starting at `start`.
void chainFields(c_Pack& pack, char const* start, int count) {
    for (int i = 0; i < count; ++i) {
        pack.theFields[i] = start;
        start += pack.theLengths[i];
    }
}

}  // namespace

char* PCKAlloc(unsigned int size) {
    if (size == 0) nLogRecords::logError(kModule, __LINE__);
    return new char[size];
}

int PCKFreeData(char const* handle) {
    if (handle == nullptr)
        nLogRecords::logError(kModule, __LINE__);
    else
        delete[] handle;
    return 1;
}

char const* PCKGetData(char const* handle) { return handle; }

char* PCKGetDataVar(char* handle) { return handle; }

c_Pack::c_Pack(char const* data0, int len0, ...) {
    if (data0 == nullptr || len0 == 0) nLogRecords::logError(kModule, __LINE__);
    theFields[0] = data0;
    theLengths[0] = len0;
    theCount = 1;

    bool tooMany = false;
    va_list args;
    va_start(args, len0);
    for (char const* next = va_arg(args, char const*); next != nullptr; next = va_arg(args, char const*)) {
        int const length = va_arg(args, int);
        if (theCount == kMaxFields) {  // more than ten fields: reported once, the rest dropped
            tooMany = true;
            continue;
        }
        theFields[theCount] = next;
        theLengths[theCount] = length;
        ++theCount;
    }
    va_end(args);
    if (tooMany) nLogRecords::logError(kModule, __LINE__);

    long long sum = 0;
    for (int i = 0; i < theCount; ++i) {
        if (theLengths[i] < 0) throw std::invalid_argument("c_Pack: negative field length");
        sum += theLengths[i];
    }
    // Header: the count and each length, as "%d " items (at most 3 + 10 * 12 bytes).
    char header[kMaxToken + 1 + kMaxFields * (kMaxToken + 1)];
    char* itemEnd[kMaxFields + 1];
    itemEnd[0] = appendItem(header, theCount);
    for (int i = 0; i < theCount; ++i) itemEnd[i + 1] = appendItem(itemEnd[i], theLengths[i]);
    std::size_t const headerLength = static_cast<std::size_t>(itemEnd[theCount] - header);
    if (sum + static_cast<long long>(std::max<std::size_t>(headerLength, kHeaderRoom)) > INT_MAX)
        throw std::length_error("c_Pack: packed size exceeds the int range");

    // The nominal end is sum + 100; a longer header still gets room but is reported.
    thePackedLength = static_cast<int>(sum);
    theBuffer = PCKAlloc(
        static_cast<unsigned int>(sum + std::max<long long>(static_cast<long long>(headerLength), kHeaderRoom)));
    char* write = PCKGetDataVar(theBuffer);
    char const* const limit = write + sum + kHeaderRoom;
    std::memcpy(write, header, headerLength);
    thePackedLength += static_cast<int>(headerLength);
    for (int i = 0; i < theCount; ++i)
        if (write + (itemEnd[i + 1] - header) > limit) nLogRecords::logError(kModule, __LINE__);
    write += headerLength;

    for (int i = 0; i < theCount; ++i) {
        if (theLengths[i] > 0) std::memcpy(write, theFields[i], static_cast<std::size_t>(theLengths[i]));
        theFields[i] = write;
        write += theLengths[i];
        if (write > limit) nLogRecords::logError(kModule, __LINE__);
    }
}

c_Pack::c_Pack(char const* buffer) {
    theBuffer = const_cast<char*>(buffer);
    char const* pos = PCKGetData(buffer);
    if (pos == nullptr) {
        theBuffer = nullptr;
        return;
    }
    theCount = readToken(pos, thePackedLength);
    int const mapped = std::clamp(theCount, 0, kMaxFields);
    for (int i = 0; i < mapped; ++i) {
        theLengths[i] = readToken(pos, thePackedLength);
        thePackedLength += theLengths[i];
    }
    chainFields(*this, pos, mapped);
}

int c_Pack::thePackedMsgLen() const { return thePackedLength; }

namespace nPack {

std::optional<c_Pack> readBounded(char const* buffer, std::size_t length) {
    if (buffer == nullptr) return std::nullopt;
    c_Pack pack(static_cast<char const*>(nullptr));
    pack.theBuffer = const_cast<char*>(buffer);
    char const* pos = PCKGetData(buffer);
    char const* const end = pos + length;
    if (!readBoundedToken(pos, end, pack.theCount) || pack.theCount < 1 || pack.theCount > kMaxFields)
        return std::nullopt;
    std::size_t sum = 0;
    for (int i = 0; i < pack.theCount; ++i) {
        if (!readBoundedToken(pos, end, pack.theLengths[i])) return std::nullopt;
        sum += static_cast<std::size_t>(pack.theLengths[i]);
    }
    std::size_t const headerLength = static_cast<std::size_t>(pos - buffer);
    if (sum > static_cast<std::size_t>(end - pos) || sum > static_cast<std::size_t>(INT_MAX) - headerLength)
        return std::nullopt;
    pack.thePackedLength = static_cast<int>(headerLength + sum);
    chainFields(pack, pos, pack.theCount);
    return pack;
}

}  // namespace nPack
