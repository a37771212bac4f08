// CColloquyAddress: one address of the messaging system, as its two parts (name and host)
// and as the whole text in which they are joined by "@".
#ifndef COLLOQUY_ZEPNAMES_H
#define COLLOQUY_ZEPNAMES_H

#include "cplatformdefs.h"

#include <string>

class COLLOQUY_EXPORT CColloquyAddress {
  public:
    // Splits `fullText` at "@": the first token is the name part, the second the host part,
    // anything further is ignored. Separators in front of a token are skipped, so "a@@b"
    // splits like "a@b" and "@host" puts host into the name part. `fullAddress` keeps the
    // text exactly as given.
    explicit CColloquyAddress(char const* fullText);
    // Joins the parts: `fullAddress` is name + "@" + host, the "@" written even when a part
    // is empty.
    CColloquyAddress(char const* namePart, char const* hostPart);
    virtual ~CColloquyAddress();

    // Host code reads (and may set) the parts directly. The texts must not be null: a null
    // pointer throws std::invalid_argument.
    std::string namePart;
    std::string hostPart;
    std::string fullAddress;
};

#endif
