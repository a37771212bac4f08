// What hosts build against: exported symbols, virtual slot orders and member layouts of the public classes.
#include "associativearray.h"
#include "clntsrv.h"
#include "filesassociationarchive.h"
#include "netmsg.h"
#include "packmsg.h"
#include "processgroupmanager.h"
#include "testing.h"
#include "zepnames.h"

#include <cxxabi.h>
#include <cstdarg>
#include <iterator>
#include <regex>
#include <type_traits>
#include <typeinfo>

namespace {

// The lines a command writes (`cat` for a file); throws when it fails, so that a missing input never passes.
std::vector<std::string> readLines(std::string const& command) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot run " + command);
    std::stringstream text;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) text.write(buffer, n);
    if (pclose(pipe) != 0) throw std::runtime_error("command failed: " + command);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

// The meaningful lines of a checked-in list: trimmed, without comments and blank lines.
std::vector<std::string> listLines(std::string const& name) {
    return readLines("sed 's/^[[:space:]]*//; s/[[:space:]]*$//; /^#/d; /^$/d' '" COLLOQUY_COMPAT_SOURCE_DIR "/" +
                     name + "'");
}

// Spellings that differ between toolchains and word sizes, brought to one form.
std::string normalised(std::string name) {
    static std::pair<std::regex, char const*> const rules[] = {
        {std::regex(R"(\[abi:[a-z0-9]+\])"), ""},
        {std::regex(R"(std::(__cxx11::|__1::)?basic_string<char, std::char_traits<char>, std::allocator<char> ?>)"),
         "std::string"},
        {std::regex(R"(std::(__1::)?basic_string_view<char, std::char_traits<char> ?>)"), "std::string_view"},
        {std::regex(R"(std::(__1::)?basic_ofstream<char, std::char_traits<char> ?>)"), "std::ofstream"},
    };
    for (auto const& [pattern, replacement] : rules) name = std::regex_replace(name, pattern, replacement);
    return name;
}

// Symbols any C++ library emits: std instantiations, type information, virtual tables, guards, thunks, sanitizer data.
bool isToolchainNoise(std::string const& name) {
    static std::regex const noise(
        R"(^(typeinfo |vtable for |VTT for |construction vtable for |guard variable for |(non-)?virtual thunk to |)"
        R"(covariant return thunk to |transaction clone for |__odr_asan|__asan|__ubsan).*)");
    static std::regex const library(R"(^(.* )?(std|__gnu_cxx)::.*)");
    return std::regex_match(name, noise) || std::regex_match(name.substr(0, name.find('(')), library);
}

TEST(ExportedInterface, MatchesTheListBothWays) {
    std::set<std::string> exported;
    for (std::string const& line :
         readLines(COLLOQUY_COMPAT_NM " -D --defined-only -C '" COLLOQUY_COMPAT_LIBRARY "'")) {
        // "<address> <kind> <name>"; kind 'u' (a header entity's shared copy) depends on optimisation.
        auto const kind = line.find(' ');
        ASSERT_TRUE(kind != std::string::npos && line.size() >= kind + 3) << "odd nm line: " << line;
        if (line[kind + 1] != 'u' && !isToolchainNoise(line.substr(kind + 3)))
            exported.insert(normalised(line.substr(kind + 3)));
    }
    // How `nm -C` spells a va_list argument on this platform (a pointer on both x86 ABIs).
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> vaList(
        abi::__cxa_demangle(typeid(std::decay_t<va_list>).name(), nullptr, nullptr, &status), std::free);
    ASSERT_TRUE(status == 0 && vaList);
    // "name" or "+ name -- reason", an addition of our own beyond the host interface.
    static std::regex const entry(R"(^(\+ )?(.+?)( -- .*\S.*)?$)");
    std::set<std::string> named, missing, unlisted;
    for (std::string line : listLines("exported_interface.txt")) {
        std::smatch m;
        line = std::regex_replace(line, std::regex(R"(\bva_list\b)"), vaList.get());
        ASSERT_TRUE(std::regex_match(line, m, entry) && m[1].matched == m[3].matched)
            << "an addition needs a reason, and only an addition has one: " << line;
        EXPECT_TRUE(named.insert(m[2]).second) << "listed twice: " << m[2];
        if (!exported.count(m[2])) missing.insert((m[1].matched ? "(addition) " : "") + m[2].str());
    }
    ASSERT_FALSE(named.empty());
    for (auto const& name : exported)
        if (!named.count(name)) unlisted.insert(name);
    EXPECT_EQ(missing, std::set<std::string>{}) << "listed but not exported";
    EXPECT_EQ(unlisted, std::set<std::string>{})
        << "exported but not listed (hide them or list as \"+ name -- reason\")";
}

// Each primary virtual table's function slots as "Owner::operation" (destructors once, "Owner::~"), from the dump.
[[maybe_unused]] std::map<std::string, std::vector<std::string>> primaryTables(std::vector<std::string> const& dump) {
    static std::regex const title(R"(^Vtable for (.+)$)"), entry(R"(^\d+\s+\(int \(\*\)\(\.\.\.\)\)(.*)$)"),
        notAFunction(R"(^(-?\d+|\(& _ZTI.*\))$)"), destructor(R"(~.*$)");
    std::map<std::string, std::vector<std::string>> tables;
    std::smatch match;
    for (std::size_t i = 0; i < dump.size(); ++i) {
        if (!std::regex_match(dump[i], match, title)) continue;
        auto& table = tables[match[1]];
        for (std::size_t j = i + 4; j < dump.size() && std::regex_match(dump[j], match, entry); ++j) {
            if (std::regex_match(match[1].str(), notAFunction)) break;
            std::string const slot = std::regex_replace(match[1].str(), destructor, "~");
            if (table.empty() || slot.back() != '~' || table.back() != slot) table.push_back(slot);
        }
    }
    return tables;
}

// Each line of virtual_order.txt: "Class = Owner::operation ...", the class's whole primary table.
TEST(VirtualOrder, EveryListedClassKeepsItsSlots) {
#ifndef COLLOQUY_COMPAT_CLASS_DUMP
    GTEST_SKIP() << "the class-layout dump needs g++";
#else
    auto const tables = primaryTables(readLines("cat '" COLLOQUY_COMPAT_CLASS_DUMP "'"));
    static std::regex const form(R"(^(\S+) = (.*)$)");
    auto const lines = listLines("virtual_order.txt");
    ASSERT_FALSE(lines.empty());
    for (std::string const& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << "unreadable line in virtual_order.txt: " << line;
        auto const found = tables.find(match[1]);
        ASSERT_NE(found, tables.end()) << "no virtual table for " << match[1] << " in the dump";
        std::istringstream slots(match[2]);
        EXPECT_EQ(found->second, (std::vector<std::string>{std::istream_iterator<std::string>(slots), {}}))
            << "slot order of " << match[1];
    }
#endif
}

// Mirrors of the documented members in order: the same size and offsets mean none moved, changed type or was added.
struct PackMirror {
    char* theBuffer;
    char const* theFields[11];
    int theLengths[10];
    int theCount, thePackedLength;
};
struct MessageMirror {
    void* vptr;
    unsigned int userValue, formatStamp;
    char const *toHost, *toName, *fromHost, *fromName;
    int qType;
    short messageType, messageSubType;
    char const* body;
    unsigned int bodyLen;
    char* packedBuffer;
    unsigned int packedLen;
};
struct TypedMessageMirror {
    void* vptr;
    short type, subType;
    char* data;
    unsigned int length;
};
struct SerialMirror {  // the serial number (the collectable integer) first
    void* vptr;
    int serial;
};
struct EventMirror : SerialMirror {
    ClientObj* eventClient;
    int handlerIndex;
};
struct ServerMirror : SerialMirror {  // then the mixin's validity flag, the handler table and its counters
    void* mixinVptr;
    int validFlag;
    ClientHandler handlerTable[257];  // a handler for every index signOn can issue
    int highestIndex, handlerCount;
    void* eventTable;
};
struct AddressMirror {
    void* vptr;
    std::string namePart, hostPart, fullAddress;
};
struct ArchiveMirror {
    alignas(CAssociativeArray) char base[sizeof(CAssociativeArray)];
    std::string mDefualtDestinationDirectory;
    void* mIterator;
};
struct GroupMirror {
    alignas(RWOrdered) char base[sizeof(RWOrdered)];
    int mGroupFlag;
};

template <class Object, class... Member>
std::vector<std::ptrdiff_t> offsets(Object const& object, Member const*... members) {
    return {(reinterpret_cast<char const*>(members) - reinterpret_cast<char const*>(&object))...};
}
#define COMPAT_SAME_LAYOUT(object, Mirror, ...)                                \
    static_assert(sizeof(decltype(object)) == sizeof(Mirror), #Mirror);        \
    EXPECT_EQ([](auto const& o) { return offsets(o, __VA_ARGS__); }(object),   \
              [](auto const& o) { return offsets(o, __VA_ARGS__); }(Mirror{})) \
        << #Mirror

struct ServerProbe : ServerObj {
    ServerProbe() : ServerObj(4) {}
    void check() const {
        COMPAT_SAME_LAYOUT(*this, ServerMirror, &o.validFlag, &o.handlerTable, &o.highestIndex, &o.handlerCount,
                           &o.eventTable);
    }
};
struct ArchiveProbe : FilesAssociationArchive {
    void check() const { COMPAT_SAME_LAYOUT(*this, ArchiveMirror, &o.mDefualtDestinationDirectory, &o.mIterator); }
};

TEST(Layout, PublicClassesMatchTheirMirrors) {
    static_assert(std::is_standard_layout_v<c_Pack> && sizeof(QType) == sizeof(int));
    COMPAT_SAME_LAYOUT(c_Pack(static_cast<char const*>(nullptr)), PackMirror, &o.theFields, &o.theLengths, &o.theCount,
                       &o.thePackedLength);
    COMPAT_SAME_LAYOUT(cColloquyMessage(), MessageMirror, &o.userValue, &o.formatStamp, &o.toHost, &o.toName,
                       &o.fromHost, &o.fromName, &o.qType, &o.messageType, &o.messageSubType, &o.body, &o.bodyLen,
                       &o.packedBuffer, &o.packedLen);
    COMPAT_SAME_LAYOUT(cTypedMessageObject(1, 2, nullptr, 0), TypedMessageMirror, &o.type, &o.subType, &o.data,
                       &o.length);
    COMPAT_SAME_LAYOUT(BaseEvent(7, nullptr, 3), EventMirror, &o.eventClient, &o.handlerIndex);
    COMPAT_SAME_LAYOUT(CColloquyAddress("name@host"), AddressMirror, &o.namePart, &o.hostPart, &o.fullAddress);
    COMPAT_SAME_LAYOUT(ProcessGroup(), GroupMirror, &o.mGroupFlag);
    ServerProbe().check();
    ArchiveProbe().check();
    static_assert(sizeof(ValidateObject) == 2 * sizeof(void*) && sizeof(ProcessInfo::pid) == 4);
    // The text cache is the associative array's only member.
    static_assert(sizeof(CAssociativeArray) == sizeof(RWHashDictionary) + sizeof(RWCString));
}

}  // namespace
