# Compiler flags shared by every target of the project. The warnings live here and only here.

add_compile_options(-Wall -Wextra)
# 64-bit file offsets and inode numbers in the 32-bit build too: without them open() refuses a log
# file past 2 GiB and readdir() stops at the first 64-bit inode number. No exported header carries
# off_t, ino_t or struct stat, so hosts built without the flag link against the same interface.
add_compile_definitions(_FILE_OFFSET_BITS=64)
# The libraries and the tool are held to stricter warnings than tests and benchmarks.
set(COLLOQUY_STRICT_WARNINGS -Wshadow -Wconversion -Wold-style-cast -Wmissing-declarations -Wcast-qual
    -Wnon-virtual-dtor)
if(COLLOQUY_WERROR)
  add_compile_options(-Werror)
endif()

if(COLLOQUY_M32 AND NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
  message(FATAL_ERROR "COLLOQUY_M32 is set but the compiler builds ${CMAKE_SIZEOF_VOID_P}-byte pointers: use a fresh build directory")
endif()

if(COLLOQUY_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "COLLOQUY_FUZZ needs clang (libFuzzer)")
  endif()
  # Everything is instrumented for coverage; only the fuzz targets link the fuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(COLLOQUY_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(COLLOQUY_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# The flags a consumer project needs to link against this build (used by the package test).
set(COLLOQUY_CONSUMER_FLAGS "")
if(COLLOQUY_M32)
  string(APPEND COLLOQUY_CONSUMER_FLAGS " -m32")
endif()
if(COLLOQUY_SANITIZE OR COLLOQUY_FUZZ)
  string(APPEND COLLOQUY_CONSUMER_FLAGS " -fsanitize=address,undefined")
elseif(COLLOQUY_TSAN)
  string(APPEND COLLOQUY_CONSUMER_FLAGS " -fsanitize=thread")
endif()
