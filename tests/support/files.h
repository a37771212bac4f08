// Whole-file reads and writes, and scratch directories, for tests of what a program left on disk.
#ifndef COLLOQUY_TESTS_FILES_H
#define COLLOQUY_TESTS_FILES_H
#include "testing.h"

#include <sys/stat.h>

#include <filesystem>

inline std::string gReadFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void gWriteFile(std::string const& path, std::string const& text, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

// A new empty directory /tmp/<name>_XXXXXX; "" when it could not be made.
inline std::string gScratchDirectory(std::string const& name) {
    std::string pattern = "/tmp/" + name + "_XXXXXX";
    return mkdtemp(pattern.data()) ? pattern : std::string();
}

// A scratch directory for one scope: removed with its contents at the end, and the working
// directory restored, also when the test fails half-way.
struct ScratchScope {
    explicit ScratchScope(std::string const& name) : path(gScratchDirectory(name)) {}
    ~ScratchScope() {
        std::filesystem::current_path(mOld);
        if (!path.empty()) std::filesystem::remove_all(path);
    }
    ScratchScope(ScratchScope const&) = delete;
    ScratchScope& operator=(ScratchScope const&) = delete;
    std::string const path;

  private:
    std::filesystem::path const mOld = std::filesystem::current_path();
};

#endif
