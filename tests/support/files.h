// Whole-file reads and writes for tests that check what a program left on disk.
#ifndef COLLOQUY_TESTS_FILES_H
#define COLLOQUY_TESTS_FILES_H

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

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

#endif
