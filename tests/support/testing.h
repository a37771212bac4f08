// What every test program uses: GoogleTest, the C and C++ standard headers the tests share, and
// std::string literals ("a\0b"s keeps its NUL).
#ifndef COLLOQUY_TESTS_TESTING_H
#define COLLOQUY_TESTS_TESTING_H

#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

using namespace std::string_literals;

#endif
