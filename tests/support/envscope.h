// Sets (or unsets, for a null value) an environment variable for one scope and restores it.
#ifndef COLLOQUY_TESTS_ENVSCOPE_H
#define COLLOQUY_TESTS_ENVSCOPE_H

#include <cstdlib>
#include <string>

struct EnvScope {
    EnvScope(char const* name, char const* value) : mName(name) {
        if (char const* old = std::getenv(name)) mOld = old, mHad = true;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~EnvScope() { mHad ? setenv(mName, mOld.c_str(), 1) : unsetenv(mName); }
    EnvScope(EnvScope const&) = delete;
    EnvScope& operator=(EnvScope const&) = delete;
    char const* mName;
    std::string mOld;
    bool mHad = false;
};

#endif
