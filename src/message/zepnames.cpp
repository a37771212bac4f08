#include "zepnames.h"

#include "rwcstring.h"

#include <stdexcept>

namespace {

char const kSeparator[] = "@";

// A copy of a caller's text; null is refused with a clear error rather than left to the
// string constructor.
std::string copyPart(char const* text, char const* what) {
    if (text == nullptr) throw std::invalid_argument(std::string("CColloquyAddress: null ") + what);
    return text;
}

}  // namespace

CColloquyAddress::CColloquyAddress(char const* fullText) : fullAddress(copyPart(fullText, "address")) {
    RWCTokenizer next(fullAddress);
    namePart = next(kSeparator).stdString();
    hostPart = next(kSeparator).stdString();
}

CColloquyAddress::CColloquyAddress(char const* name, char const* host)
    : namePart(copyPart(name, "name part")),
      hostPart(copyPart(host, "host part")),
      fullAddress(namePart + kSeparator + hostPart) {}

CColloquyAddress::~CColloquyAddress() = default;
