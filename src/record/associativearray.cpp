// CAssociativeArray: the record, its accessors, its exceptions, the text form writer and reader.
#include "associativearray.h"

#include "Log.h"
#include "record/associativearray_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using nAssoText::kModule;

// ---- exceptions ----

namespace {

char const kMessageFile[] = "loadengine.frm";
constexpr int kIllegalSyntax = 10;
constexpr int kKeyDoesNotExist = 11;

std::string textOf(char const* text) { return text ? std::string(text) : std::string(); }

}  // namespace

CAssociativeArrayException::CAssociativeArrayException(KZErrorException const& error) : KZErrorException(error) {}
CAssociativeArrayException::~CAssociativeArrayException() = default;

CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(char const* text)
    : CAssociativeArrayException(KZErrorException(kMessageFile, kIllegalSyntax, {textOf(text)})) {}
CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(std::string_view text)
    : CAssociativeArrayException(KZErrorException(kMessageFile, kIllegalSyntax, {std::string(text)})) {}
CIllegalAssoSyntaxException::~CIllegalAssoSyntaxException() = default;

CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(char const* key, char const* recordText)
    : CAssociativeArrayException(KZErrorException(kMessageFile, kKeyDoesNotExist, {textOf(key), textOf(recordText)})) {}
CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(char const* key, std::string_view recordText)
    : CAssociativeArrayException(
          KZErrorException(kMessageFile, kKeyDoesNotExist, {textOf(key), std::string(recordText)})) {}
CAssoKeyDoesNotExistException::~CAssoKeyDoesNotExistException() = default;

// ---- keys and values ----

namespace {

std::string_view viewOf(char const* text) { return text ? std::string_view(text) : std::string_view(); }

// The key of element `index` of the array `name`: the name followed by the index in decimal.
// Short keys live on the stack, so that array lookups do not allocate either.
class cArrayKey {
  public:
    cArrayKey(char const* name, int index) {
        std::string_view const prefix = viewOf(name);
        char digits[16];
        auto const end = std::to_chars(digits, digits + sizeof digits, index).ptr;
        std::string_view const suffix(digits, static_cast<size_t>(end - digits));
        if (prefix.size() + suffix.size() < sizeof mShort) {
            std::memcpy(mShort, prefix.data(), prefix.size());
            std::memcpy(mShort + prefix.size(), suffix.data(), suffix.size());
            mShort[prefix.size() + suffix.size()] = '\0';
            mView = std::string_view(mShort, prefix.size() + suffix.size());
        } else {
            mLong.assign(prefix).append(suffix);
            mView = mLong;
        }
    }
    cArrayKey(cArrayKey const&) = delete;
    cArrayKey& operator=(cArrayKey const&) = delete;
    std::string_view view() const { return mView; }
    char const* c_str() const { return mView.data(); }  // NUL-terminated in both cases

  private:
    char mShort[96];
    std::string mLong;
    std::string_view mView;
};

// "%.40e": 40 digits after the point, enough for any double to read back exactly.
std::string_view formatDouble(double value, char (&buffer)[64]) {
    int const n = std::snprintf(buffer, sizeof buffer, "%.40e", value);
    return std::string_view(buffer, static_cast<size_t>(n));
}

std::string_view formatLong(long value, char (&buffer)[24]) {
    auto const end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string_view(buffer, static_cast<size_t>(end - buffer));
}

// The stored value of `key`; a missing key throws with the record's whole text form.
RWCollectableString& requiredValue(CAssociativeArray const& record, std::string_view key, char const* keyText) {
    if (RWCollectableString* value = nAssoText::storedValue(record, key)) return *value;
    throw CAssoKeyDoesNotExistException(keyText, record.ToStringRef(false, false).view());
}

RWCollectableString& requiredValue(CAssociativeArray const& record, char const* key) {
    return requiredValue(record, viewOf(key), key ? key : "");
}

long toLong(RWCString const& value) { return std::strtol(value.data(), nullptr, 10); }
double toDouble(RWCString const& value) { return std::strtod(value.data(), nullptr); }

}  // namespace

CAssociativeArray::CAssociativeArray(int capacity)
    : RWHashDictionary(capacity > 0 ? static_cast<size_t>(capacity) : 1) {}

CAssociativeArray::CAssociativeArray(_typer_c<zc_move__deprecate> const&, CAssociativeArray* source)
    : RWHashDictionary(source ? RWHashDictionary(*source) : RWHashDictionary()) {
    if (source) source->clear();
}

CAssociativeArray::~CAssociativeArray() {
    // What clearAndDestroy does, with the record's own objects given back to their blocks in
    // bulk. The table is detached first: no destructor sees half-deleted pairs.
    std::unique_ptr<cSlot[]> const slots = std::move(mSlots);
    size_t const capacity = mCapacity;
    clear();
    nAssoText::cDestroyer destroyer;
    for (size_t i = 0; i < capacity; ++i) {
        if (slots[i].state != kFull) continue;
        if (slots[i].value != slots[i].key) destroyer.destroy(slots[i].value);
        destroyer.destroy(slots[i].key);
    }
}

void CAssociativeArray::AddCouple(char const* key, char const* value, int length) {
    std::string_view const bytes =
        value && length > 0 ? std::string_view(value, static_cast<size_t>(length)) : std::string_view();
    nAssoText::addPair(*this, viewOf(key), bytes);
}

void CAssociativeArray::AddCouple(char const* key, char const* value) {
    nAssoText::addPair(*this, viewOf(key), viewOf(value));
}

void CAssociativeArray::AddCouple(char const* key, cStringCoeImpl const& value) {
    nAssoText::addPair(*this, viewOf(key), value.view());
}

void CAssociativeArray::AddCouple(char const* key, long value) {
    char buffer[24];
    nAssoText::addPair(*this, viewOf(key), formatLong(value, buffer));
}

void CAssociativeArray::AddCouple(char const* key, double value) {
    char buffer[64];
    nAssoText::addPair(*this, viewOf(key), formatDouble(value, buffer));
}

void CAssociativeArray::AddArrayCouple(char const* name, char const* value, int index) {
    nAssoText::addPair(*this, cArrayKey(name, index).view(), viewOf(value));
}

void CAssociativeArray::AddArrayCouple(char const* name, long value, int index) {
    char buffer[24];
    nAssoText::addPair(*this, cArrayKey(name, index).view(), formatLong(value, buffer));
}

void CAssociativeArray::AddArrayCouple(char const* name, double value, int index) {
    char buffer[64];
    nAssoText::addPair(*this, cArrayKey(name, index).view(), formatDouble(value, buffer));
}

// ---- readers with a default ----

char const* CAssociativeArray::GetValueOfParameter(char const* key, char const* def) const {
    RWCollectableString const* value = nAssoText::storedValue(*this, viewOf(key));
    return value ? value->data() : def;
}

long CAssociativeArray::GetInt32ValueOfParameter(char const* key, long def) const {
    RWCollectableString const* value = nAssoText::storedValue(*this, viewOf(key));
    return value ? toLong(*value) : def;
}

double CAssociativeArray::GetDoubleValueOfParameter(char const* key, double def) const {
    RWCollectableString const* value = nAssoText::storedValue(*this, viewOf(key));
    return value ? toDouble(*value) : def;
}

char const* CAssociativeArray::GetValueOfParameterArray(char const* name, int index, char const* def) const {
    return GetValueOfParameter(cArrayKey(name, index).c_str(), def);
}

long CAssociativeArray::GetInt32ValueOfParameterArray(char const* name, int index, long def) const {
    return GetInt32ValueOfParameter(cArrayKey(name, index).c_str(), def);
}

double CAssociativeArray::GetDoubleValueOfParameterArray(char const* name, int index, double def) const {
    return GetDoubleValueOfParameter(cArrayKey(name, index).c_str(), def);
}

// ---- throwing readers ----

char const* CAssociativeArray::GetValueOfParameter(char const* key) const { return requiredValue(*this, key).data(); }

void CAssociativeArray::GetValueOfParameter(char const* key, char const*& data, int& length) const {
    RWCollectableString const& value = requiredValue(*this, key);
    data = value.data();
    length = static_cast<int>(value.length());
}

RWCString const& CAssociativeArray::GetStringValueOfParameter(char const* key) const {
    return requiredValue(*this, key);
}

long CAssociativeArray::GetInt32ValueOfParameter(char const* key) const { return toLong(requiredValue(*this, key)); }

double CAssociativeArray::GetDoubleValueOfParameter(char const* key) const {
    return toDouble(requiredValue(*this, key));
}

char const* CAssociativeArray::GetValueOfParameterArray(char const* name, int index) const {
    return GetValueOfParameter(cArrayKey(name, index).c_str());
}

long CAssociativeArray::GetInt32ValueOfParameterArray(char const* name, int index) const {
    return GetInt32ValueOfParameter(cArrayKey(name, index).c_str());
}

double CAssociativeArray::GetDoubleValueOfParameterArray(char const* name, int index) const {
    return GetDoubleValueOfParameter(cArrayKey(name, index).c_str());
}

namespace {

// Bytes that GetValueOfParameterAndDecodeIf writes as "%xx": backslash, double quote,
// control characters and everything from 0x7F up.
bool needsHexEscape(unsigned char c) { return c == '\\' || c == '"' || c < 0x20 || c >= 0x7F; }

}  // namespace

RWCString const& CAssociativeArray::GetValueOfParameterAndDecodeIf(char const* key, bool encode) const {
    RWCollectableString& value = requiredValue(*this, key);
    if (!encode || value.isNull()) return value;
    static char const kHex[] = "0123456789abcdef";
    std::string escaped;
    escaped.reserve(value.length() + value.length() / 2);
    for (char const ch : value.view()) {
        auto const c = static_cast<unsigned char>(ch);
        if (needsHexEscape(c)) {
            char const code[3] = {'%', kHex[c >> 4], kHex[c & 15]};
            escaped.append(code, 3);
        } else {
            if (c == '%') escaped.push_back('%');  // a percent sign is doubled
            escaped.push_back(ch);
        }
    }
    // The stored value itself is rewritten: a second call escapes the escaped text again.
    value.stdString().swap(escaped);
    return value;
}

bool CAssociativeArray::KeyExists(char const* key) const {
    return nAssoText::storedValue(*this, viewOf(key)) != nullptr;
}

void CAssociativeArray::Reset() { clear(); }

// ---- writer ----

namespace {

// The value as written: bulky values are left out (written as empty) when the flags ask.
std::string_view writtenValue(std::string_view key, RWCollectable const* value, bool skipResponseBody,
                              bool skipProxyPostData) {
    if (skipResponseBody && (key == "$RESPONSEBODY" || (skipProxyPostData && key == "$PROXYPOSTDATA")))
        return std::string_view();
    return nAssoText::textOf(value);
}

}  // namespace

void CAssociativeArray::ToStringInternal(bool skipResponseBody, bool skipProxyPostData) const {
    using namespace nAssoText;
    // The pairs as written, in the table's order (the iterator's): the slots are walked
    // directly, as this runs for every message sent.
    auto const forEachWritten = [&](auto&& visit) {
        for (size_t i = 0; i < mCapacity; ++i) {
            cSlot const& slot = mSlots[i];
            if (slot.state != kFull) continue;
            std::string_view const key = textOf(slot.key);
            visit(key, writtenValue(key, slot.value, skipResponseBody, skipProxyPostData));
        }
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
    *out = ' ';
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

// ---- reader ----

namespace {

// The fewest bytes a pair takes: "'0 " and the byte after it, twice (the very last byte of
// the input may be missing).
constexpr size_t kMinPairBytes = 8;

void readPairs(CAssociativeArray& record, nAssoText::cCursor cursor) {
    int const count = nAssoText::parseInt(cursor);
    if (count <= 0) return;
    // Room for the pairs announced, as far as the input can hold them: a false count makes
    // no allocation larger than the input's own pairs could.
    size_t const fitting = (static_cast<size_t>(cursor.end - cursor.pos) + 1) / kMinPairBytes;
    size_t const expected = std::min(static_cast<size_t>(count), fitting);
    record.reserve(record.entries() + expected);
    nAssoText::cStringMaker maker(2 * expected);
    for (int i = 0; i < count; ++i) {
        std::string_view const key = nAssoText::loadPiece(cursor);
        std::string_view const value = nAssoText::loadPiece(cursor);
        nAssoText::addPair(record, nAssoText::upToNul(key), value, maker);
    }
}

// Reads the `size` bytes at `text`. Every failure is logged, first by kind and then with the
// first `shownLength` bytes of the input, and ends as a CIllegalAssoSyntaxException carrying
// the whole input. Pairs read before the failure stay.
void readTextForm(CAssociativeArray& record, char const* text, size_t size, long shownLength) {
    if (!text) {
        text = "";  // a cursor needs a real end: a null one means "lengths trusted"
        size = 0;
    }
    try {
        try {
            readPairs(record, nAssoText::cCursor{text, text + size});
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

size_t lengthOf(char const* text) { return text ? std::strlen(text) : 0; }

}  // namespace

void CAssociativeArray::FromString(char const* text, int length) {
    readTextForm(*this, text, length > 0 ? static_cast<size_t>(length) : 0, length);
}

// The forms taking a bare char const* read up to the NUL; their failure log shows at most
// the first 14 bytes, as it always has.
void CAssociativeArray::FromStringX2_deprecate(char const* text) { readTextForm(*this, text, lengthOf(text), 14); }

void CAssociativeArray::FromStringZTS(char const* text) { readTextForm(*this, text, lengthOf(text), 14); }

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

int gParseInt(char const*& cursor) {
    nAssoText::cCursor c{cursor, nullptr};
    try {
        int const value = nAssoText::parseInt(c);
        cursor = c.pos;
        return value;
    } catch (...) {
        cursor = c.pos;  // moved past the blank even when the number was refused
        throw;
    }
}

char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out, bool /*flag*/) {
    nAssoText::cCursor c{cursor, nullptr};
    std::string_view const piece = nAssoText::loadPiece(c);
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
    return c.pos;
}

char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out) {
    return gLoadString(cursor, buffer, bufferSize, out, false);
}
