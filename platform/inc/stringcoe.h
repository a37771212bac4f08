// cStringCoeImpl: the infrastructure's string, as taken by the logging and exception services.
#ifndef COLLOQUY_STRINGCOE_H
#define COLLOQUY_STRINGCOE_H

#include "cplatformdefs.h"

#include <string>
#include <string_view>

// A byte string with an explicit length (NUL bytes allowed).
class COLLOQUY_EXPORT cStringCoeImpl {
  public:
    cStringCoeImpl() = default;
    cStringCoeImpl(char const* text) : mText(text ? text : "") {}
    cStringCoeImpl(char const* bytes, size_t length) : mText(bytes, length) {}
    cStringCoeImpl(std::string text) : mText(std::move(text)) {}

    char const* data() const { return mText.c_str(); }
    size_t length() const { return mText.size(); }
    std::string_view view() const { return mText; }
    std::string const& stdString() const { return mText; }

  private:
    std::string mText;
};

#endif
