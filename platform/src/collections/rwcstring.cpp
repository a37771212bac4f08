#include "rwcstring.h"

#include <cstring>

RWCString::RWCString(char const* text) : mText(text ? text : "") {}

RWCString::RWCString(char const* bytes, size_t length) : mText(bytes, length) {}

RWCString& RWCString::operator=(char const* text) {
    mText.assign(text ? text : "");
    return *this;
}

RWCString& RWCString::append(char const* text) {
    if (text) mText.append(text);
    return *this;
}

size_t RWCString::index(char const* pattern, size_t start) const { return mText.find(pattern ? pattern : "", start); }

// FNV-1a: short keys dominate, and it needs no alignment or length preconditions.
unsigned RWCString::hash(char const* bytes, size_t length) {
    uint32_t h = 2166136261u;
    auto const* p = reinterpret_cast<unsigned char const*>(bytes);
    for (size_t i = 0; i < length; ++i) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

RWCString RWCTokenizer::operator()(char const* delimiters) {
    std::string_view const delims(delimiters ? delimiters : "");
    size_t const begin = mText.find_first_not_of(delims, mPos);
    if (begin == std::string_view::npos) {
        mPos = mText.size();
        return RWCString();
    }
    size_t end = mText.find_first_of(delims, begin);
    if (end == std::string_view::npos) end = mText.size();
    mPos = end;
    return RWCString(mText.substr(begin, end - begin));
}
