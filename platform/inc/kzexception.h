// The infrastructure's exceptions: iKZException, KZErrorException and the n_debug family.
#ifndef COLLOQUY_KZEXCEPTION_H
#define COLLOQUY_KZEXCEPTION_H

#include "cplatformdefs.h"
#include "rwcstring.h"

#include <exception>
#include <string>
#include <vector>

// The interface of the infrastructure's exceptions.
class COLLOQUY_EXPORT iKZException : public std::exception {
  public:
    ~iKZException() override;
    char const* what() const noexcept override = 0;
    // The message text.
    virtual RWCString vGetErrorMsg_iKZException() const = 0;
    // Appends the text describing where the exception was raised.
    virtual void vStackTrace_iKZException(RWCString& out) const = 0;
};

// An error that names a message of a message file, with string arguments: message N of the
// file is looked up and its placeholders %1 ... %9 are replaced by the arguments. The
// messages of "loadengine.frm" are built in:
//   10 "Illegal associative array syntax: %1"
//   11 "Key '%1' does not exist in: %2"
// An unknown message is shown as the file, the number and the arguments.
class COLLOQUY_EXPORT KZErrorException : public iKZException {
  public:
    // Further arguments are `char const*`, ended by a null pointer.
    KZErrorException(char const* messageFile, int messageNumber, ...);
    // The same with the arguments given as strings (which may hold any bytes).
    KZErrorException(char const* messageFile, int messageNumber, std::vector<std::string> arguments);
    KZErrorException(KZErrorException const&) = default;
    KZErrorException& operator=(KZErrorException const&) = default;
    ~KZErrorException() override;

    char const* messageFile() const { return mMessageFile.c_str(); }
    int messageNumber() const { return mMessageNumber; }
    std::vector<std::string> const& arguments() const { return mArguments; }

    char const* what() const noexcept override;
    RWCString vGetErrorMsg_iKZException() const override;
    void vStackTrace_iKZException(RWCString& out) const override;

  private:
    void format();

    std::string mMessageFile;
    int mMessageNumber;
    std::vector<std::string> mArguments;
    std::string mText;
};

namespace n_debug {

namespace nCoreError {
// A source position, as error reports carry it.
struct cPosition {
    char const* file;
    int line;
};
COLLOQUY_EXPORT cPosition gPosition(char const* file, int line);
}  // namespace nCoreError

// Raised when a module finds itself in a state it cannot continue from.
class COLLOQUY_EXPORT cBrokenModuleException : public iKZException {
  public:
    cBrokenModuleException(nCoreError::cPosition position, char const* message);
    ~cBrokenModuleException() override;
    char const* what() const noexcept override;
    RWCString vGetErrorMsg_iKZException() const override;
    void vStackTrace_iKZException(RWCString& out) const override;
    nCoreError::cPosition position() const { return mPosition; }

  private:
    nCoreError::cPosition mPosition;
    std::string mText;
};

}  // namespace n_debug

#endif
