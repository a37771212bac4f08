// Settings: INI files loaded into a table and read by handle, and the expansion of path
// macros such as "#(QR_BIN)".
//
// INI text: "key=value" lines, optional "[section]" lines (a key is looked up in every
// section, the first match wins), comment lines starting with ";" or "#", blanks around keys
// and values trimmed. A bare file name is looked up in the current directory, then in
// "#(QR_BIN)". "#(NAME)" expands to the environment variable NAME; QR_BIN defaults to the
// directory of the running executable.
#ifndef COLLOQUY_ENVSETTINGS_H
#define COLLOQUY_ENVSETTINGS_H

#include "cplatformdefs.h"
#include "rwcstring.h"

#include <string>
#include <utility>
#include <vector>

// A table of settings, filled from files by nEnvSettings::gFileInitTable. The handles given
// out for it are valid while it lives.
class COLLOQUY_EXPORT QREnvContainerClass {
  public:
    QREnvContainerClass();
    ~QREnvContainerClass();
    QREnvContainerClass(QREnvContainerClass const&) = delete;
    QREnvContainerClass& operator=(QREnvContainerClass const&) = delete;

    // `text` with every "#(NAME)" replaced by the value of NAME (empty when unset; QR_BIN
    // defaults to the executable's directory). An unterminated "#(" is kept as it stands.
    RWCString QRERuntimeResolve(char const* text) const;

    // The value of `key` (the first in file order), or null when no loaded file sets it.
    std::string const* find(std::string const& key) const;
    // Adds the settings of one INI text after those already loaded.
    void load(std::string const& iniText);

  private:
    std::vector<std::pair<std::string, std::string>> mSettings;
};

namespace nEnvSettings {

// Loads the settings file `fileName` into `table` and sets `handle` to a handle of the table.
// Returns false, leaving the table as it was, when the file cannot be read; the handle is
// valid either way (lookups then find nothing).
COLLOQUY_EXPORT bool gFileInitTable(QREnvContainerClass& table, char const* fileName, int& handle);

// The text of `key` in the table of `handle`: empty when it is not set or the handle is unknown.
COLLOQUY_EXPORT RWCString gGetPropertyStream(int handle, char const* key);

}  // namespace nEnvSettings

#endif
