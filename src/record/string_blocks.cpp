// The blocks of key and value objects: what is not inline in string_blocks.h.
#include "record/string_blocks.h"

namespace nAssoText {

void cStoredString::operator delete(void* object) {
    nDetail::cBlock::release(nDetail::blockOf(static_cast<cStoredString*>(object)), 1);
}

void cDestroyer::flush() {
    if (mBlock) nDetail::cBlock::release(mBlock, mCount);
    mBlock = nullptr;
    mCount = 0;
}

}  // namespace nAssoText
