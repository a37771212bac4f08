// RWCString: a byte string with an explicit length (NUL bytes allowed), and RWCTokenizer.
#ifndef COLLOQUY_RWCSTRING_H
#define COLLOQUY_RWCSTRING_H

#include "cplatformdefs.h"

#include <cstddef>
#include <string>
#include <string_view>

class COLLOQUY_EXPORT RWCString {
  public:
    static constexpr size_t npos = std::string::npos;

    RWCString() = default;
    RWCString(char const* text);                  // up to the NUL; a null pointer gives ""
    RWCString(char const* bytes, size_t length);  // exactly `length` bytes
    RWCString(std::string text) : mText(std::move(text)) {}
    explicit RWCString(std::string_view bytes) : mText(bytes) {}
    RWCString(char c, size_t count) : mText(count, c) {}

    size_t length() const { return mText.size(); }
    bool isNull() const { return mText.empty(); }
    // The bytes, always followed by a NUL (values may hold NULs of their own).
    char const* data() const { return mText.c_str(); }
    size_t capacity() const { return mText.capacity(); }
    void capacity(size_t n) { mText.reserve(n); }

    char& operator[](size_t i) { return mText[i]; }
    char operator[](size_t i) const { return mText[i]; }
    char& operator()(size_t i) { return mText[i]; }
    char operator()(size_t i) const { return mText[i]; }

    RWCString& operator=(char const* text);
    RWCString& operator=(std::string const& text) {
        mText = text;
        return *this;
    }
    RWCString& assign(char const* bytes, size_t length) {
        mText.assign(bytes, length);
        return *this;
    }

    RWCString& append(char const* text);
    RWCString& append(char const* bytes, size_t length) {
        mText.append(bytes, length);
        return *this;
    }
    RWCString& append(RWCString const& other) {
        mText.append(other.mText);
        return *this;
    }
    RWCString& append(char c, size_t count = 1) {
        mText.append(count, c);
        return *this;
    }
    RWCString& operator+=(char const* text) { return append(text); }
    RWCString& operator+=(RWCString const& other) { return append(other); }
    RWCString& operator+=(char c) {
        mText.push_back(c);
        return *this;
    }
    RWCString& prepend(char const* bytes, size_t length) {
        mText.insert(0, bytes, length);
        return *this;
    }
    RWCString& insert(size_t pos, char const* bytes, size_t length) {
        mText.insert(pos, bytes, length);
        return *this;
    }
    RWCString& remove(size_t pos) {
        mText.erase(pos);
        return *this;
    }
    RWCString& remove(size_t pos, size_t count) {
        mText.erase(pos, count);
        return *this;
    }
    RWCString& replace(size_t pos, size_t count, char const* bytes, size_t length) {
        mText.replace(pos, count, bytes, length);
        return *this;
    }
    void resize(size_t n) { mText.resize(n); }

    // Position of the first occurrence at or after `start`, or npos.
    size_t index(char const* pattern, size_t start = 0) const;
    size_t first(char c) const { return mText.find(c); }
    bool contains(char const* pattern) const { return index(pattern) != npos; }

    // Byte-exact comparison: negative, zero or positive.
    int compareTo(RWCString const& other) const { return mText.compare(other.mText); }
    // The same value in every process (FNV-1a), so anyone can compute keys that collide: hash
    // tables of collectable strings place them by RWCollectableString::hash(), which is keyed.
    unsigned hash() const { return hash(mText.data(), mText.size()); }
    // The hash RWCString::hash() gives for these bytes (lets callers look up without a string).
    static unsigned hash(char const* bytes, size_t length);

    std::string_view view() const { return mText; }
    std::string const& stdString() const { return mText; }
    std::string& stdString() { return mText; }

  private:
    std::string mText;
};

inline bool operator==(RWCString const& a, RWCString const& b) { return a.view() == b.view(); }
inline bool operator!=(RWCString const& a, RWCString const& b) { return !(a == b); }
inline bool operator<(RWCString const& a, RWCString const& b) { return a.view() < b.view(); }
inline bool operator==(RWCString const& a, char const* b) { return a.view() == std::string_view(b ? b : ""); }
inline bool operator!=(RWCString const& a, char const* b) { return !(a == b); }

// Splits a string into tokens. Each call skips the delimiters in front of the next token and
// yields the following run of non-delimiter characters; once nothing is left it yields "".
class COLLOQUY_EXPORT RWCTokenizer {
  public:
    explicit RWCTokenizer(RWCString const& text) : mText(text.view()) {}
    explicit RWCTokenizer(std::string const& text) : mText(text) {}
    RWCString operator()(char const* delimiters = " \t\n");

  private:
    std::string_view mText;  // refers to the caller's string, which must outlive the tokenizer
    size_t mPos = 0;
};

#endif
