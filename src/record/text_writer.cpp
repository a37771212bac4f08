// The record's writer: its pairs in the text form, sized exactly and written in one pass.
#include "associativearray.h"

#include "record/pairs.h"
#include "record/text_format.h"

#include <charconv>
#include <string>

namespace nAssoText {

void appendDecimal(std::string& out, long long n) {
    char digits[24];
    auto const result = std::to_chars(digits, digits + sizeof digits, n);
    out.append(digits, static_cast<size_t>(result.ptr - digits));
}

void appendPiece(std::string& out, std::string_view bytes) {
    char prefix[32];
    out.append(prefix, static_cast<size_t>(writePrefix(prefix, bytes.size()) - prefix));
    out.append(bytes);
}

}  // namespace nAssoText

namespace {

// The value as written: bulky values are left out (written as empty) when the flags ask.
std::string_view writtenValue(std::string_view key, RWCollectable const* value, bool skipResponseBody,
                              bool skipProxyPostData) {
    if (skipResponseBody && (key == "$RESPONSEBODY" || (skipProxyPostData && key == "$PROXYPOSTDATA")))
        return std::string_view();
    return nAssoText::bytesOf(value);
}

}  // namespace

void CAssociativeArray::ToStringInternal(bool skipResponseBody, bool skipProxyPostData) const {
    using namespace nAssoText;
    // The pairs as written, in the table's order (the iterator's).
    auto const forEachWritten = [&](auto&& visit) {
        forEachPair([&](RWCollectable const* k, RWCollectable const* v) {
            std::string_view const key = bytesOf(k);
            visit(key, writtenValue(key, v, skipResponseBody, skipProxyPostData));
        });
    };
    // The exact size is computed first, so that the text is sized once and each value copied
    // once, straight into the cache when it is large enough (nothing can fail then).
    size_t size = 1;
    size_t const countDigits = decimalDigits(entries());
    if (!isEmpty()) {
        size += countDigits;
        forEachWritten([&size](std::string_view k, std::string_view v) { size += pieceSize(k) + pieceSize(v); });
    }
    std::string fresh;
    std::string& cache = mLastText.stdString();
    std::string& text = cache.capacity() >= size ? cache : fresh;
    text.resize(size);  // may fail only for `fresh`: the cache is then left as it was
    char* out = text.data();
    if (!isEmpty()) {
        out = writeDecimal(out, entries(), countDigits);
        forEachWritten([&out](std::string_view k, std::string_view v) {
            out = writePiece(out, k);
            out = writePiece(out, v);
        });
    }
    *out = kBlank;
    if (&text == &fresh) cache.swap(fresh);
}

char const* CAssociativeArray::ToString(bool skipResponseBody, bool skipProxyPostData) const {
    return ToStringRef(skipResponseBody, skipProxyPostData).data();
}

RWCString const& CAssociativeArray::ToStringRef(bool skipResponseBody, bool skipProxyPostData) const {
    ToStringInternal(skipResponseBody, skipProxyPostData);
    return mLastText;
}

void CAssociativeArray::ToString(char const*& text, int& length, bool skipResponseBody, bool skipProxyPostData) const {
    RWCString const& written = ToStringRef(skipResponseBody, skipProxyPostData);
    text = written.data();
    length = static_cast<int>(written.length());
}
