// The text form's out-of-line pieces: number formatting, the rare paths of the reader, the
// lookup and the pair insertion that the reader and AddCouple share.
#include "record/associativearray_text.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <typeinfo>

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

void throwSyntaxError(std::string_view error) { throw CIllegalAssoSyntaxException(error); }

void appendDecimal(std::string& out, long long n) {
    char digits[24];
    auto const result = std::to_chars(digits, digits + sizeof digits, n);
    out.append(digits, static_cast<size_t>(result.ptr - digits));
}

void appendPrefix(std::string& out, size_t length) {
    char prefix[32];
    out.append(prefix, static_cast<size_t>(writePrefix(prefix, length) - prefix));
}

RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key) {
    RWCollectable* value = record.findValueIf(RWCString::hash(key.data(), key.size()), cKeyMatch{key});
    return value && value->isA() == __RWCOLLECTABLESTRING ? static_cast<RWCollectableString*>(value) : nullptr;
}

std::string_view foreignText(RWCollectable const* item) {
    if (!item || item->isA() != __RWCOLLECTABLESTRING) return std::string_view();
    return static_cast<RWCollectableString const*>(item)->view();
}

// ---- blocks of key and value objects ----

void cStoredString::operator delete(void* object) {
    nDetail::cBlock::release(nDetail::blockOf(static_cast<cStoredString*>(object)), 1);
}

cStringMaker::cStringMaker(size_t expected) : mParts(std::min(std::max<size_t>(expected, 2), kMaxParts)) {}

cStringMaker::~cStringMaker() {
    if (mBlock) nDetail::cBlock::release(mBlock, mBlock->parts - mBlock->used + 1);
}

void cStringMaker::renew() {
    nDetail::cBlock* const fresh = nDetail::cBlock::make(mParts);
    if (mBlock) nDetail::cBlock::release(mBlock, 1);  // every part is used: only the maker's hold is left
    mBlock = fresh;
}

void cDestroyer::flush() {
    if (mBlock) nDetail::cBlock::release(mBlock, mCount);
    mBlock = nullptr;
    mCount = 0;
}

void addPair(CAssociativeArray& record, std::string_view key, std::string_view value) {
    cStringMaker maker(2);
    addPair(record, key, value, maker);
}

}  // namespace nAssoText
