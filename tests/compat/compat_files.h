// Small file and process helpers of the compat suite.
#ifndef COLLOQUY_TESTS_COMPAT_FILES_H
#define COLLOQUY_TESTS_COMPAT_FILES_H

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace compat {

inline std::vector<std::string> gLines(std::istream& in) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The lines of a text file; throws when it cannot be read, so a missing input never passes.
inline std::vector<std::string> gReadLines(std::string const& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    return gLines(in);
}

// The standard output lines of a shell command; throws when it cannot run or fails.
inline std::vector<std::string> gCommandLines(std::string const& command) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot run " + command);
    std::string output;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    if (pclose(pipe) != 0) throw std::runtime_error("command failed: " + command);
    std::istringstream in(output);
    return gLines(in);
}

// Leading and trailing blanks removed.
inline std::string gTrim(std::string const& text) {
    auto const first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace compat

#endif
