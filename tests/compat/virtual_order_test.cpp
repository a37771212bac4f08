// Virtual slot orders of the public classes, read from g++'s class-layout dump of a unit that
// includes every public header (made at build time with -fdump-lang-class) and compared with
// virtual_order.txt. A host compiled against other headers would call the wrong operation
// through any slot that moved.
#include "compat_files.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

namespace {

struct Slot {
    std::string owner;  // class whose definition fills the slot
    std::string name;   // operation name; "~" for both destructor slots
    bool operator==(Slot const& other) const { return owner == other.owner && name == other.name; }
};

std::ostream& operator<<(std::ostream& out, Slot const& slot) { return out << slot.owner << "::" << slot.name; }

using Table = std::vector<Slot>;

// "Class::operation" (or a pure-virtual marker) as the dump writes a slot.
Slot slotOf(std::string const& entry) {
    auto const separator = entry.rfind("::");
    if (separator == std::string::npos) return {"", entry};
    std::string name = entry.substr(separator + 2);
    if (!name.empty() && name[0] == '~') name = "~";
    return {entry.substr(0, separator), name};
}

// The primary virtual table of every class in the dump: the function slots after the offset
// to top and the type information, up to the first secondary table.
std::map<std::string, Table> primaryTables(std::vector<std::string> const& dump) {
    static std::regex const title(R"(^Vtable for (.+)$)");
    static std::regex const entry(R"(^\d+\s+\(int \(\*\)\(\.\.\.\)\)(.*)$)");
    static std::regex const notAFunction(R"(^(-?\d+|\(& _ZTI.*\))$)");
    std::map<std::string, Table> tables;
    for (std::size_t i = 0; i < dump.size(); ++i) {
        std::smatch match;
        if (!std::regex_match(dump[i], match, title)) continue;
        Table& table = tables[match[1]];
        std::size_t index = 0;
        for (std::size_t j = i + 2; j < dump.size() && std::regex_match(dump[j], match, entry); ++j, ++index) {
            std::string const value = match[1];
            bool const header = index < 2;
            if (!header && std::regex_match(value, notAFunction)) break;
            if (!header) table.push_back(slotOf(value));
        }
    }
    return tables;
}

std::vector<std::string> words(std::string const& text) {
    std::istringstream in(text);
    std::vector<std::string> result;
    for (std::string word; in >> word;) result.push_back(word);
    return result;
}

// The table a class must have: its base's with the overridden slots taken over, then its own.
Table expectedTable(std::string const& owner, Table const& base, std::vector<std::string> const& declared,
                    std::vector<std::string> const& overridden) {
    Table expected = base;
    for (auto const& name : overridden) {
        bool found = false;
        for (Slot& slot : expected)
            if (slot.name == name) slot.owner = owner, found = true;
        EXPECT_TRUE(found) << owner << " overrides " << name << ", which its base does not declare";
    }
    for (auto const& name : declared) {
        expected.push_back({owner, name});
        if (name == "~") expected.push_back({owner, name});  // complete and deleting destructor
    }
    return expected;
}

std::string const kDumpPath =
#ifdef COLLOQUY_COMPAT_CLASS_DUMP
    COLLOQUY_COMPAT_CLASS_DUMP;
#else
    "";
#endif

TEST(VirtualOrder, EveryListedClassKeepsItsSlots) {
    if (kDumpPath.empty()) GTEST_SKIP() << "the class-layout dump needs g++";
    auto const tables = primaryTables(compat::gReadLines(kDumpPath));
    ASSERT_FALSE(tables.empty()) << "no virtual table in " << kDumpPath;
    auto tableOf = [&](std::string const& name) -> Table const* {
        auto const found = tables.find(name);
        if (found == tables.end()) ADD_FAILURE() << "no virtual table for " << name << " in the dump";
        return found == tables.end() ? nullptr : &found->second;
    };

    static std::regex const derived(R"(^(\S+) : (\S+) \|([^|]*)\|(.*)$)");
    static std::regex const whole(R"(^(\S+) = (.*)$)");
    int checked = 0;
    for (std::string const& raw : compat::gReadLines(COLLOQUY_COMPAT_SOURCE_DIR "/virtual_order.txt")) {
        std::string const line = compat::gTrim(raw);
        if (line.empty() || line[0] == '#') continue;
        std::smatch match;
        if (std::regex_match(line, match, derived)) {
            std::string const owner = match[1], baseName = match[2];
            Table const* actual = tableOf(owner);
            Table const* base = baseName == "-" ? nullptr : tableOf(baseName);
            if (!actual || (baseName != "-" && !base)) continue;
            EXPECT_EQ(*actual, expectedTable(owner, base ? *base : Table{}, words(match[3]), words(match[4])))
                << "slot order of " << owner;
        } else if (std::regex_match(line, match, whole)) {
            Table const* actual = tableOf(match[1]);
            if (!actual) continue;
            std::vector<std::string> names;
            for (Slot const& slot : *actual)
                if (names.empty() || slot.name != "~" || names.back() != "~") names.push_back(slot.name);
            EXPECT_EQ(names, words(match[2])) << "slot order of " << match[1];
        } else {
            ADD_FAILURE() << "unreadable line in virtual_order.txt: " << line;
            continue;
        }
        ++checked;
    }
    EXPECT_GT(checked, 0);
}

}  // namespace
