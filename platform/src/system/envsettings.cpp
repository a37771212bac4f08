#include "envsettings.h"

#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace {

std::string trimmed(std::string const& text) {
    static char const kBlanks[] = " \t\r\n\f\v";
    size_t const begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos) return std::string();
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// The directory of the running executable, or "." when it cannot be found.
std::string executableDirectory() {
    char path[PATH_MAX];
    ssize_t const n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    std::string const executable(path, static_cast<size_t>(n));
    size_t const slash = executable.rfind('/');
    return slash == std::string::npos ? "." : (slash == 0 ? "/" : executable.substr(0, slash));
}

std::string macroValue(std::string const& name) {
    if (char const* value = std::getenv(name.c_str())) return value;
    return name == "QR_BIN" ? executableDirectory() : std::string();
}

bool readFile(std::string const& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream content;
    content << in.rdbuf();
    text = content.str();
    return true;
}

// Handles of live tables. A handle is never reused, so a stale one finds nothing.
class cTableHandles {
  public:
    int add(QREnvContainerClass const* table) {
        std::lock_guard<std::mutex> lock(mMutex);
        mTables[++mLast] = table;
        return mLast;
    }
    void remove(QREnvContainerClass const* table) {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto i = mTables.begin(); i != mTables.end();) i = i->second == table ? mTables.erase(i) : std::next(i);
    }
    RWCString lookUp(int handle, std::string const& key) {
        std::lock_guard<std::mutex> lock(mMutex);
        auto const found = mTables.find(handle);
        if (found == mTables.end()) return RWCString();
        std::string const* value = found->second->find(key);
        return value ? RWCString(*value) : RWCString();
    }

  private:
    std::mutex mMutex;
    std::map<int, QREnvContainerClass const*> mTables;
    int mLast = 0;
};

cTableHandles& tableHandles() {
    static cTableHandles r;
    return r;
}

}  // namespace

QREnvContainerClass::QREnvContainerClass() = default;

QREnvContainerClass::~QREnvContainerClass() { tableHandles().remove(this); }

RWCString QREnvContainerClass::QRERuntimeResolve(char const* text) const {
    std::string const in(text ? text : "");
    std::string out;
    size_t pos = 0;
    for (;;) {
        size_t const open = in.find("#(", pos);
        size_t const close = open == std::string::npos ? open : in.find(')', open + 2);
        if (close == std::string::npos) break;
        out.append(in, pos, open - pos).append(macroValue(in.substr(open + 2, close - open - 2)));
        pos = close + 1;
    }
    out.append(in, pos, std::string::npos);
    return RWCString(std::move(out));
}

std::string const* QREnvContainerClass::find(std::string const& key) const {
    for (auto const& setting : mSettings)
        if (setting.first == key) return &setting.second;
    return nullptr;
}

void QREnvContainerClass::load(std::string const& iniText) {
    std::istringstream lines(iniText);
    std::string line;
    while (std::getline(lines, line)) {
        std::string const text = trimmed(line);
        if (text.empty() || text[0] == ';' || text[0] == '#' || text[0] == '[') continue;
        size_t const equals = text.find('=');
        if (equals == std::string::npos) continue;
        std::string key = trimmed(text.substr(0, equals));
        if (!key.empty()) mSettings.emplace_back(std::move(key), trimmed(text.substr(equals + 1)));
    }
}

namespace nEnvSettings {

bool gFileInitTable(QREnvContainerClass& table, char const* fileName, int& handle) {
    handle = tableHandles().add(&table);
    std::string const name = table.QRERuntimeResolve(fileName).stdString();
    std::string text;
    bool const found =
        name.find('/') == std::string::npos
            ? readFile(name, text) || readFile(table.QRERuntimeResolve("#(QR_BIN)/").stdString() + name, text)
            : readFile(name, text);
    if (found) table.load(text);
    return found;
}

RWCString gGetPropertyStream(int handle, char const* key) { return tableHandles().lookUp(handle, key ? key : ""); }

}  // namespace nEnvSettings
