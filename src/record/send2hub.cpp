// The hub key dump: key/value pairs written directly in the associative array's text form
// (count, then per pair " '<length> <key> '<length> <value>"), the sender first as "$FROM".
#include "send2hub.h"

#include "record/text_format.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

char const kSenderKey[] = "$FROM";
// Fixed room for the head (count, separators, "$FROM") and for each pair's separators and
// digits; the text's buffer is at least this big.
constexpr size_t kHeadRoom = 30;
constexpr size_t kPairRoom = 25;
// Room beyond the key for the missing-value message.
constexpr size_t kScratchRoom = 80;
char const kMissingValue[] = "Key %s has no value in call to function SendMessageToHUB";

// The missing-value report hands printf a fresh scratch buffer as its format, with the
// message and the key as arguments that the format never asks for. The buffer is cleared,
// so nothing is printed, and it is deliberately never released. Kept out of line so that
// the leak checker's suppression can name it.
__attribute__((noinline)) char* unreleasedHubScratch(size_t size) {
    char* const scratch = new char[size];
    std::memset(scratch, 0, size);
    return scratch;
}

void reportMissingValue(char const* key) {
    char* const scratch = unreleasedHubScratch(std::strlen(key) + kScratchRoom);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    std::printf(scratch, kMissingValue, key);
#pragma GCC diagnostic pop
}

// First walk over the pairs: the buffer size and the pair count, or false (after the
// missing-value report) when a key has a null value.
bool measure(va_list args, size_t& room, int& count) {
    for (;;) {
        char const* const key = va_arg(args, char const*);
        if (key == nullptr) return true;
        char const* const value = va_arg(args, char const*);
        if (value == nullptr) {
            reportMissingValue(key);
            return false;
        }
        ++count;
        room += std::strlen(key) + std::strlen(value) + kPairRoom;
    }
}

}  // namespace

char* DumpHubVArray(char const* from, va_list args) {
    if (from == nullptr) return nullptr;
    size_t room = std::strlen(from) + kHeadRoom;
    int count = 1;  // the sender pair
    va_list sizing;
    va_copy(sizing, args);
    bool const complete = measure(sizing, room, count);
    va_end(sizing);
    if (!complete) return nullptr;

    std::string text;
    nAssoText::appendDecimal(text, count);
    nAssoText::appendPiece(text, kSenderKey);
    nAssoText::appendPiece(text, from);
    while (char const* const key = va_arg(args, char const*)) {
        nAssoText::appendPiece(text, key);
        nAssoText::appendPiece(text, va_arg(args, char const*));
    }
    // The fixed room covers any realistic text; only lengths of a billion bytes and more
    // could need one byte beyond it.
    size_t const size = std::max(room, text.size() + 1);
    char* const result = new char[size];
    std::memcpy(result, text.c_str(), text.size() + 1);
    return result;
}

char* DumpHubArray(char const* from, ...) {
    va_list args;
    va_start(args, from);
    char* const result = DumpHubVArray(from, args);
    va_end(args);
    return result;
}

void FreeHubDumpArray(char const* text) { delete[] text; }
