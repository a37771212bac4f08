// Whole-file reads and writes, and scratch directories, for tests of what a program left on disk.
#ifndef COLLOQUY_TESTS_FILES_H
#define COLLOQUY_TESTS_FILES_H
#include "testing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>

inline std::string gReadFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void gWriteFile(std::string const& path, std::string const& text, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
}

// A new empty directory /tmp/<name>_XXXXXX; "" when it could not be made. It stays locked (flock)
// while this process lives, and is locked before it takes its name. A directory of that name whose
// lock is free was left by a process that died before its clean-up (a crash), and is removed.
inline std::string gScratchDirectory(std::string const& name) {
    std::error_code ignored;
    for (auto const& entry : std::filesystem::directory_iterator("/tmp", ignored)) {
        std::string const found = entry.path().filename();
        if (found.size() != name.size() + 7 || found.rfind(name + "_", 0) != 0) continue;
        int const fd = open(entry.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) std::filesystem::remove_all(entry.path(), ignored);
        if (fd >= 0) close(fd);
    }
    std::string hidden = "/tmp/." + name + "_XXXXXX";
    if (!mkdtemp(hidden.data())) return "";
    int const fd = open(hidden.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);  // held until the process ends
    std::string const path = "/tmp/" + hidden.substr(6);
    return fd >= 0 && flock(fd, LOCK_EX) == 0 && rename(hidden.c_str(), path.c_str()) == 0 ? path : "";
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
    std::filesystem::path const mOld = std::filesystem::current_path();
};

#endif
