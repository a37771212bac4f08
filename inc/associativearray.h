// CAssociativeArray: the key/value record of the messaging layer, its length-prefixed text
// form (writer and reader), the code-page conversion of text forms and its process-wide switch.
#ifndef COLLOQUY_ASSOCIATIVEARRAY_H
#define COLLOQUY_ASSOCIATIVEARRAY_H

#include "cplatformdefs.h"
#include "kzexception.h"
#include "rwcollect.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "staticlife.h"
#include "stringcoe.h"

#include <string>
#include <string_view>

// The base of the record's exceptions; it only wraps a KZErrorException.
class COLLOQUY_EXPORT CAssociativeArrayException : public KZErrorException {
  public:
    CAssociativeArrayException(KZErrorException const& error);
    ~CAssociativeArrayException() override;
};

// A text that is not a valid text form: message 10 of "loadengine.frm" with the offending text.
class COLLOQUY_EXPORT CIllegalAssoSyntaxException : public CAssociativeArrayException {
  public:
    CIllegalAssoSyntaxException(char const* text);
    // The same with an explicit length, so that texts holding NUL bytes are carried whole.
    explicit CIllegalAssoSyntaxException(std::string_view text);
    ~CIllegalAssoSyntaxException() override;
};

// A throwing reader found no value: message 11 of "loadengine.frm" with the key and the
// record's text form.
class COLLOQUY_EXPORT CAssoKeyDoesNotExistException : public CAssociativeArrayException {
  public:
    CAssoKeyDoesNotExistException(char const* key, char const* recordText);
    // The same with the record's text given by length (text forms may hold NUL bytes).
    CAssoKeyDoesNotExistException(char const* key, std::string_view recordText);
    ~CAssoKeyDoesNotExistException() override;
};

// A hash dictionary of owned RWCollectableString keys to owned RWCollectableString values.
// Numbers are stored as their decimal ("%d") or exponent ("%.40e") text; element i of the
// array "name" is the pair with the key "name" followed by i. Lookups by key never allocate.
class COLLOQUY_EXPORT CAssociativeArray : public RWHashDictionary {
  public:
    // `capacity` is the table's starting size; the default holds about 20 pairs before growing.
    explicit CAssociativeArray(int capacity = 32);
    // Takes over the pairs of `source` (the same key and value objects), leaving it empty.
    CAssociativeArray(_typer_c<zc_move__deprecate> const& tag, CAssociativeArray* source);
    CAssociativeArray(CAssociativeArray const&) = delete;
    CAssociativeArray& operator=(CAssociativeArray const&) = delete;
    // Destroys every key and value object.
    ~CAssociativeArray() override;

    // Adding: a new pair, or the value of an existing key replaced (the old value destroyed).
    void AddCouple(char const* key, char const* value, int length);
    void AddCouple(char const* key, char const* value);
    void AddCouple(char const* key, cStringCoeImpl const& value);
    void AddCouple(char const* key, long value);
    void AddCouple(char const* key, double value);
    void AddArrayCouple(char const* name, char const* value, int index);
    void AddArrayCouple(char const* name, long value, int index);
    void AddArrayCouple(char const* name, double value, int index);

    // Reading with a default: the default when the key is missing.
    char const* GetValueOfParameter(char const* key, char const* def) const;
    long GetInt32ValueOfParameter(char const* key, long def) const;
    double GetDoubleValueOfParameter(char const* key, double def) const;
    char const* GetValueOfParameterArray(char const* name, int index, char const* def) const;
    long GetInt32ValueOfParameterArray(char const* name, int index, long def) const;
    double GetDoubleValueOfParameterArray(char const* name, int index, double def) const;

    // Reading without a default: CAssoKeyDoesNotExistException when the key is missing.
    // Pointers and references point into the stored value object.
    char const* GetValueOfParameter(char const* key) const;
    void GetValueOfParameter(char const* key, char const*& data, int& length) const;
    RWCString const& GetStringValueOfParameter(char const* key) const;
    long GetInt32ValueOfParameter(char const* key) const;
    double GetDoubleValueOfParameter(char const* key) const;
    char const* GetValueOfParameterArray(char const* name, int index) const;
    long GetInt32ValueOfParameterArray(char const* name, int index) const;
    double GetDoubleValueOfParameterArray(char const* name, int index) const;
    // Percent-escapes the stored value in place when `encode` is true, and returns it.
    RWCString const& GetValueOfParameterAndDecodeIf(char const* key, bool encode) const;

    bool KeyExists(char const* key) const;
    // Forgets every pair without destroying the key and value objects.
    void Reset();

    // The writer: "N" then " 'len key 'len value" per pair, then one blank. The text is kept
    // in mLastText until the next writer call; skipResponseBody leaves out "$RESPONSEBODY",
    // both flags also "$PROXYPOSTDATA" (written as empty values).
    void ToStringInternal(bool skipResponseBody, bool skipProxyPostData) const;
    char const* ToString(bool skipResponseBody, bool skipProxyPostData) const;
    RWCString const& ToStringRef(bool skipResponseBody, bool skipProxyPostData) const;
    void ToString(char const*& text, int& length, bool skipResponseBody, bool skipProxyPostData) const;

    // The reader: adds the pairs of a text form; any syntax error ends in a
    // CIllegalAssoSyntaxException carrying the input. The forms taking a bare char const*
    // read up to its NUL; the others read `length` bytes.
    void FromString(char const* text, int length);
    void FromStringX2_deprecate(char const* text);
    void FromStringZTS(char const* text);
    void FromStringZ1(std::string const& text);
    void FromStringZ1(RWCString const& text);
    void FromStringRef(RWCString const& text);
    // Converts the text form between code pages as the process-wide mode says (mode 0: not at
    // all), then reads it with FromString.
    void FromStringConvert(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length);

    // Converts a text form as the process-wide mode says; mode 0 copies the `length` bytes.
    static bool ConvertX0(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                          RWCString& out);
    // Converts a NUL-terminated text form with the current converter, whatever the mode.
    static bool ConvertZ38(unsigned int fromCodePage, unsigned int toCodePage, char const* text, RWCString& out);

  private:
    mutable RWCString mLastText;  // the last text form written (a cache, also written by const readers)
};

// The reader's two steps. gParseInt reads a decimal number ended by a blank and moves `cursor`
// past the blank; gLoadString reads one piece "'len bytes" and the byte after it into `out`,
// growing the scratch `buffer` (made with new[]) as needed, and returns the cursor after it.
// Both read at most up to a NUL for the number; the piece's length is trusted (FromString
// checks every length against the end of its input).
COLLOQUY_EXPORT int gParseInt(char const*& cursor);
COLLOQUY_EXPORT char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out, bool flag);
COLLOQUY_EXPORT char const* gLoadString(char const* cursor, char*& buffer, int& bufferSize, RWCString& out);

// ---- code-page conversion of text forms ----

// The conversion switch: the process-wide mode, read once from the setting
// "ColloquyAnsiConversion_patch" of the settings file "vantage.ini" (0 when it is missing or
// not a number): 0 no conversion, 1 the old converter, 2 the current one, others fail.
struct COLLOQUY_EXPORT gColloquyAnsiConversionInit__patch {
    static int _();  // reads the setting (every call reads the file again)
};
struct zuColloquyAnsiConversion__patch {};  // the tag of the held mode
// The mode held for the process: read with gColloquyAnsiConversionInit__patch on first use.
COLLOQUY_EXPORT int gColloquyAnsiConversion__patch();

// Converts with the converter that `mode` names (0 copies `length` bytes of the text, 1 ignores
// `length` and reads up to the NUL); false for an unknown mode (with an Error record, `out`
// untouched) or when a piece could not be converted.
COLLOQUY_EXPORT bool gConvert_patch(int mode, unsigned int fromCodePage, unsigned int toCodePage, char const* text,
                                    int length, RWCString& out);
// The current converter: keys kept, values converted (nested text forms recursively, plain
// text with ANSIToANSI up to its first NUL), lengths rewritten. A text that is no text form is
// converted as plain text. `length` -1: NUL-terminated.
COLLOQUY_EXPORT bool gConvertX1_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text, int length,
                                      RWCString& out);
// The same for `text` found at `offset` in `wholeText`, which a failure record shows.
COLLOQUY_EXPORT bool gConvertX1Internal_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text,
                                              int length, RWCString& out, char const* wholeText, int wholeLength,
                                              int offset);
// The old converter: the text ends at its first NUL, and a count below one gives no pairs.
COLLOQUY_EXPORT bool gConvertOld_patch(unsigned int fromCodePage, unsigned int toCodePage, char const* text,
                                       RWCString& out);

#endif
