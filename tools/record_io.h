// Records on the tool's standard streams: building one from pairs, reading a text form, and
// printing the pairs as escaped lines or JSON.
#ifndef COLLOQUY_TOOLS_RECORD_IO_H
#define COLLOQUY_TOOLS_RECORD_IO_H

#include "associativearray.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace colloquy {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// The text form of a record holding `pairs`.
std::string textFormOf(Pairs const& pairs);
// The pairs of a text form, sorted by key; throws Failure when the text does not read.
Pairs decodeTextForm(std::string_view text);
// True when `text` is exactly one text form, as the writer writes it, with nothing after it
// (then `pairs` holds its pairs); otherwise `problem`, when given, says what is wrong.
bool tryDecodeTextForm(std::string_view text, Pairs& pairs, std::string* problem = nullptr);
// The pairs of a record, sorted by key.
Pairs pairsOf(CAssociativeArray& record);
// "key<TAB>value" lines with escapes, each line prefixed by `indent`.
std::string pairLines(Pairs const& pairs, std::string const& indent = "");
// A JSON object {"key":"value",...}.
std::string pairsJson(Pairs const& pairs);

}  // namespace colloquy

#endif
