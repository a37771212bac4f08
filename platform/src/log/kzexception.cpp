#include "kzexception.h"

#include <cstdarg>
#include <cstring>

iKZException::~iKZException() = default;

namespace {

struct cMessage {
    char const* file;
    int number;
    char const* text;
};

// The message texts this process knows. Other message files live with their own programs.
constexpr cMessage kMessages[] = {
    {"loadengine.frm", 10, "Illegal associative array syntax: %1"},
    {"loadengine.frm", 11, "Key '%1' does not exist in: %2"},
};

char const* lookUp(std::string const& file, int number) {
    for (cMessage const& m : kMessages)
        if (m.number == number && file == m.file) return m.text;
    return nullptr;
}

}  // namespace

KZErrorException::KZErrorException(char const* messageFile, int messageNumber, ...)
    : mMessageFile(messageFile ? messageFile : ""), mMessageNumber(messageNumber) {
    va_list args;
    va_start(args, messageNumber);
    while (char const* argument = va_arg(args, char const*)) mArguments.emplace_back(argument);
    va_end(args);
    format();
}

KZErrorException::KZErrorException(char const* messageFile, int messageNumber, std::vector<std::string> arguments)
    : mMessageFile(messageFile ? messageFile : ""), mMessageNumber(messageNumber), mArguments(std::move(arguments)) {
    format();
}

KZErrorException::~KZErrorException() = default;

// Replaces %1 ... %9 by the arguments; a placeholder without an argument stays as it is.
void KZErrorException::format() {
    char const* text = lookUp(mMessageFile, mMessageNumber);
    if (!text) {
        mText = mMessageFile + " message " + std::to_string(mMessageNumber);
        for (std::string const& a : mArguments) mText += ": " + a;
        return;
    }
    mText.clear();
    for (char const* p = text; *p; ++p) {
        if (p[0] == '%' && p[1] >= '1' && p[1] <= '9') {
            size_t const i = static_cast<size_t>(p[1] - '1');
            if (i < mArguments.size()) {
                mText += mArguments[i];
                ++p;
                continue;
            }
        }
        mText += *p;
    }
}

char const* KZErrorException::what() const noexcept { return mText.c_str(); }

RWCString KZErrorException::vGetErrorMsg_iKZException() const { return RWCString(mText); }

void KZErrorException::vStackTrace_iKZException(RWCString& out) const {
    out.append(mMessageFile.c_str()).append("(").append(std::to_string(mMessageNumber).c_str()).append(")");
}

namespace n_debug {

nCoreError::cPosition nCoreError::gPosition(char const* file, int line) { return cPosition{file, line}; }

cBrokenModuleException::cBrokenModuleException(nCoreError::cPosition position, char const* message)
    : mPosition(position), mText(message ? message : "") {}

cBrokenModuleException::~cBrokenModuleException() = default;

char const* cBrokenModuleException::what() const noexcept { return mText.c_str(); }

RWCString cBrokenModuleException::vGetErrorMsg_iKZException() const { return RWCString(mText); }

void cBrokenModuleException::vStackTrace_iKZException(RWCString& out) const {
    out.append(mPosition.file ? mPosition.file : "?").append(":").append(std::to_string(mPosition.line).c_str());
}

}  // namespace n_debug
