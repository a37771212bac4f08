// Switches a log tag for one scope and restores its previous state.
#ifndef COLLOQUY_TESTS_TAG_SCOPE_H
#define COLLOQUY_TESTS_TAG_SCOPE_H

#include "nlog.h"

class TagScope {
public:
    TagScope(char const* tag, bool on) : mTag(tag), mWas(nLog::gIsEnabled(tag)) { nLog::gEnable(tag, on); }
    ~TagScope() { nLog::gEnable(mTag, mWas); }
    TagScope(TagScope const&) = delete;
    TagScope& operator=(TagScope const&) = delete;

private:
    char const* mTag;
    bool mWas;
};

#endif
