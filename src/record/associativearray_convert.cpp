// Code-page conversion of text forms and the process-wide switch that selects the converter.
#include "associativearray.h"

#include "Log.h"
#include "codepage.h"
#include "envsettings.h"
#include "record/text_format.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

using nAssoText::kModule;

// ---- the switch ----

int gColloquyAnsiConversionInit__patch::_() {
    QREnvContainerClass table;
    int handle = 0;
    nEnvSettings::gFileInitTable(table, "vantage.ini", handle);
    std::istringstream setting(nEnvSettings::gGetPropertyStream(handle, "ColloquyAnsiConversion_patch").stdString());
    int mode = 0;  // a missing, empty or non-numeric setting means no conversion
    setting >> mode;
    return mode;
}

int gColloquyAnsiConversion__patch() {
    return nStatic::tConstant<zuColloquyAnsiConversion__patch, int, &gColloquyAnsiConversionInit__patch::_>::get();
}

// ---- the converters ----

namespace {

// Nested text forms deeper than this are converted as plain text: real records nest a few
// levels, and a hostile input must not run the recursion out of stack.
constexpr int kMaxDepth = 64;

// `length`, or the bytes before the NUL when it is negative.
size_t lengthOrToNul(char const* text, int length) {
    return length < 0 ? std::strlen(text) : static_cast<size_t>(length);
}

// One conversion: the code pages, which converter's rules apply, and the outermost input
// (shown in the record of a failure that escapes).
struct cConversion {
    unsigned from;
    unsigned to;
    bool old;  // gConvertOld_patch: no pairs and no record for a count <= 0
    std::string_view whole;

    char const* name() const { return old ? "gConvertOld_patch" : "gConvertX1Internal_patch"; }
};

// Converts plain text up to its first NUL with ANSIToANSI: a size query, then the conversion.
// False, with `out` emptied, when the code pages are unknown.
bool convertLeaf(cConversion const& c, std::string_view text, RWCString& out) {
    std::string_view const leaf = nAssoText::upToNul(text);
    int const sourceLength = static_cast<int>(std::min<size_t>(leaf.size(), INT_MAX));
    int const size = ANSIToANSI(c.from, c.to, leaf.data(), sourceLength, nullptr, 0);
    if (size > 0) {
        std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(size)]);
        if (ANSIToANSI(c.from, c.to, leaf.data(), sourceLength, buffer.get(), size) == size) {
            out.assign(buffer.get(), static_cast<size_t>(size - 1));  // the source holds no NUL: neither does this
            return true;
        }
    }
    out = RWCString();
    return false;
}

bool convertText(cConversion const& c, std::string_view text, RWCString& out, size_t offset, int depth);

struct cForm {
    std::string text;              // the converted text form
    bool allConverted = true;      // false when a value could not be converted
    std::string_view syntaxError;  // why the text is not a text form
};

// Converts `text` as a text form: keys kept, values converted recursively, lengths rewritten.
// False, with form.syntaxError set, when `text` is not a text form. Syntax errors are results
// here, not exceptions: plain values are the common case, and each would otherwise cost a throw.
bool convertForm(cConversion const& c, std::string_view text, size_t offset, int depth, cForm& form) {
    char const* p = text.data();
    char const* const limit = p + text.size();
    int count = 0;
    if (!nAssoText::readInt(p, limit, count, form.syntaxError)) return false;
    if (count < 0 && !c.old) {
        // Carried on: the pieces that follow will not parse, and the text becomes a leaf.
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "Negative number of arguments: ", count,
                     " input : ", std::string_view(p, static_cast<size_t>(limit - p)));
    }
    nAssoText::appendDecimal(form.text, count);
    // Reading a piece allocates nothing, so a syntax error is the only way it can fail.
    for (int pair = 0; c.old ? pair < count : pair != count; ++pair) {
        std::string_view key, value;
        if (!nAssoText::readPiece(p, limit, key, form.syntaxError)) return false;
        nAssoText::appendPiece(form.text, key);
        if (!nAssoText::readPiece(p, limit, value, form.syntaxError)) return false;
        RWCString converted;
        size_t const valueOffset = offset + static_cast<size_t>(value.data() - text.data());
        form.allConverted &= convertText(c, value, converted, valueOffset, depth + 1);
        nAssoText::appendPiece(form.text, converted.view());
    }
    form.text.push_back(' ');
    return true;
}

// Logs a failure other than a syntax error that stopped `text` from being read as a text
// form; it is then converted as a leaf.
void logNotAForm(cConversion const& c) {
    try {
        throw;
    } catch (n_debug::cBrokenModuleException const& e) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, e.what());
    } catch (std::exception const& e) {
        if (c.old)
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, e.what());
        else
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "gConvertX1Internal_patch std::exception", e.what());
    } catch (...) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule,
                     c.old ? "gConvertOld_patch ..." : "gConvertX1Internal_patch ...");
    }
}

// `whole` with the marker "~~" where the failure lay.
std::string marked(std::string_view whole, size_t offset) {
    offset = std::min(offset, whole.size());
    return std::string(whole.substr(0, offset)).append("~~").append(whole.substr(offset));
}

bool convertText(cConversion const& c, std::string_view text, RWCString& out, size_t offset, int depth) {
    try {
        if (depth > kMaxDepth) {
            COLLOQUY_LOG(nLog::nBasic::sTraceTag_, kModule, c.name(), "nested deeper than", kMaxDepth,
                         "levels: converted as plain text");
            return convertLeaf(c, text, out);
        }
        try {
            cForm form;
            if (convertForm(c, text, offset, depth, form)) {
                out = RWCString(std::move(form.text));
                return form.allConverted;
            }
            // The ordinary case of a plain value, logged as its exception would show it.
            COLLOQUY_LOG(nLog::nBasic::sTraceTag_, kModule, c.name(),
                         CIllegalAssoSyntaxException(form.syntaxError).what());
        } catch (...) {
            logNotAForm(c);
        }
        return convertLeaf(c, text, out);
    } catch (...) {
        // A failure of the leaf conversion or of a handler: show where in the whole input it lay.
        if (!c.old) {
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "gConvertX1Internal_patch X12", c.from, c.to, offset,
                         marked(c.whole, offset));
        }
        throw;
    }
}

}  // namespace

bool gConvertX1Internal_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                              RWCString& out, char const* wholeText, int wholeLength, int offset) {
    if (!text) return false;
    std::string_view const whole =
        wholeText ? std::string_view(wholeText, lengthOrToNul(wholeText, wholeLength)) : std::string_view();
    cConversion const c{fromCodePage, toCodePage, false, whole};
    return convertText(c, std::string_view(text, lengthOrToNul(text, length)), out,
                       offset > 0 ? static_cast<size_t>(offset) : 0, 0);
}

bool gConvertX1_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                      RWCString& out) {
    return gConvertX1Internal_patch(fromCodePage, toCodePage, text, length, out, text, length, 0);
}

// The text ends at its first NUL, so no piece of it holds one.
bool gConvertOld_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text, RWCString& out) {
    if (!text) return false;
    std::string_view const whole(text);
    cConversion const c{fromCodePage, toCodePage, true, whole};
    return convertText(c, whole, out, 0, 0);
}

bool gConvert_patch(int mode, unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                    RWCString& out) {
    switch (mode) {
        case 0:
            if (!text) return false;
            out.assign(text, lengthOrToNul(text, length));
            return true;
        case 1:
            // The old converter knows no length: the text ends at its first NUL, whatever
            // `length` says.
            return gConvertOld_patch(fromCodePage, toCodePage, text, out);
        case 2:
            return gConvertX1_patch(fromCodePage, toCodePage, text, length, out);
        default:
            COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule);
            return false;
    }
}

bool CAssociativeArray::ConvertX0(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                                  RWCString& out) {
    return gConvert_patch(gColloquyAnsiConversion__patch(), fromCodePage, toCodePage, text, length, out);
}

bool CAssociativeArray::ConvertZ38(unsigned int fromCodePage, unsigned int toCodePage, char const* text,
                                   RWCString& out) {
    return gConvert_patch(2, fromCodePage, toCodePage, text, -1, out);
}

void CAssociativeArray::FromStringConvert(unsigned int fromCodePage, unsigned int toCodePage, char const* text,
                                          int length) {
    int const mode = gColloquyAnsiConversion__patch();
    if (mode == 0) {
        FromString(text, length);
        return;
    }
    RWCString converted;
    if (!gConvert_patch(mode, fromCodePage, toCodePage, text, length, converted)) {
        COLLOQUY_LOG(nLog::nBasic::sErrorTag_, kModule, "FromStringConvert: conversion failed, mode", mode,
                     fromCodePage, toCodePage);
    }
    FromString(converted.data(), static_cast<int>(std::min<size_t>(converted.length(), INT_MAX)));
}
