// CAssociativeArray: the record, its exceptions and its accessors. Its text form is written in
// text_writer.cpp and read in text_reader.cpp.
#include "associativearray.h"

#include "record/pairs.h"
#include "record/string_blocks.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// ---- exceptions ----

namespace {

char const kMessageFile[] = "loadengine.frm";
constexpr int kIllegalSyntax = 10;
constexpr int kKeyDoesNotExist = 11;

std::string stringOf(char const* text) { return text ? std::string(text) : std::string(); }

}  // namespace

CAssociativeArrayException::CAssociativeArrayException(KZErrorException const& error) : KZErrorException(error) {}
CAssociativeArrayException::~CAssociativeArrayException() = default;

CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(char const* text)
    : CAssociativeArrayException(KZErrorException(kMessageFile, kIllegalSyntax, {stringOf(text)})) {}
CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(std::string_view text)
    : CAssociativeArrayException(KZErrorException(kMessageFile, kIllegalSyntax, {std::string(text)})) {}
CIllegalAssoSyntaxException::~CIllegalAssoSyntaxException() = default;

CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(char const* key, char const* recordText)
    : CAssociativeArrayException(
          KZErrorException(kMessageFile, kKeyDoesNotExist, {stringOf(key), stringOf(recordText)})) {}
CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(char const* key, std::string_view recordText)
    : CAssociativeArrayException(
          KZErrorException(kMessageFile, kKeyDoesNotExist, {stringOf(key), std::string(recordText)})) {}
CAssoKeyDoesNotExistException::~CAssoKeyDoesNotExistException() = default;

// ---- keys and values ----

namespace nAssoText {

RWCollectableString* storedValue(CAssociativeArray const& record, std::string_view key) {
    RWCollectable* value = record.findValueIf(RWCollectableString::hash(key.data(), key.size()), cKeyMatch{key});
    return value && value->isA() == __RWCOLLECTABLESTRING ? static_cast<RWCollectableString*>(value) : nullptr;
}

std::string_view foreignBytes(RWCollectable const* item) {
    if (!item || item->isA() != __RWCOLLECTABLESTRING) return std::string_view();
    return static_cast<RWCollectableString const*>(item)->view();
}

void addPair(CAssociativeArray& record, std::string_view key, std::string_view value) {
    cStringMaker maker(2);
    addPair(record, key, value, maker);
}

}  // namespace nAssoText

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
    // The record's own objects go back to their blocks in bulk.
    nAssoText::cDestroyer destroyer;
    clearAndDestroyWith([&destroyer](RWCollectable* object) { destroyer.destroy(object); });
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
