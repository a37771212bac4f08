// Static-lifetime services: the tag types that select special constructors, and once-only
// construction of process-wide values.
#ifndef COLLOQUY_STATICLIFE_H
#define COLLOQUY_STATICLIFE_H

// Selects a constructor by type, e.g. CAssociativeArray(_typer_c<zc_move__deprecate>(), &source).
template <class T>
struct _typer_c {};
struct zc_move__deprecate {};

namespace nStatic {

// A process-wide constant, identified by `Tag` and built on first use by `Init()`. Concurrent
// first users all wait for the one construction (function-local static initialisation); an
// exception thrown by Init() reaches the user that triggered it, and the next use tries again.
template <class Tag, class T, T (*Init)()>
struct tConstant {
    static T const& get() {
        static T const value = Init();
        return value;
    }
};

}  // namespace nStatic

#endif
