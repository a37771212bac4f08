// Drop-in checks of what host processes are compiled and linked against: the dynamic symbols of
// libColloquyUtil.so against exported_interface.txt, the virtual slot orders of the public
// classes (from g++'s class-layout dump of a unit including every public header) against
// virtual_order.txt, and the member layouts of the public classes.
#include "associativearray.h"
#include "clntsrv.h"
#include "filesassociationarchive.h"
#include "netmsg.h"
#include "packmsg.h"
#include "processgroupmanager.h"
#include "zepnames.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace {

std::vector<std::string> linesOf(std::istream& in) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// The lines of a file or of a command's output; throws when either cannot be read, so that a
// missing input never passes.
std::vector<std::string> readLines(std::string const& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    return linesOf(in);
}

std::vector<std::string> commandLines(std::string const& command) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) throw std::runtime_error("cannot run " + command);
    std::string output;
    char buffer[4096];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    if (pclose(pipe) != 0) throw std::runtime_error("command failed: " + command);
    std::istringstream in(output);
    return linesOf(in);
}

std::string trim(std::string const& text) {
    auto const first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The meaningful lines of a checked-in list.
std::vector<std::string> listLines(char const* name) {
    std::vector<std::string> lines;
    for (std::string const& raw : readLines(std::string(COLLOQUY_COMPAT_SOURCE_DIR "/") + name))
        if (std::string const line = trim(raw); !line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}

// ---- exported symbols ----

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

// Symbols the compiler emits for any C++ library: standard template instantiations, type
// information, virtual tables, guards, thunks and sanitizer bookkeeping.
bool isToolchainNoise(std::string const& name) {
    static std::regex const noise(
        R"(^(typeinfo |vtable for |VTT for |construction vtable for |guard variable for |(non-)?virtual thunk to |)"
        R"(covariant return thunk to |transaction clone for |__odr_asan|__asan|__ubsan).*)");
    // A standard-library entity, possibly behind the return type of a template instantiation.
    static std::regex const library(R"(^(.* )?(std|__gnu_cxx)::.*)");
    return std::regex_match(name, noise) || std::regex_match(name.substr(0, name.find('(')), library);
}

TEST(ExportedInterface, MatchesTheListBothWays) {
    std::set<std::string> exported;
    for (std::string const& line :
         commandLines(std::string(COLLOQUY_COMPAT_NM) + " -D --defined-only -C '" + COLLOQUY_COMPAT_LIBRARY + "'")) {
        // "<address> <kind> <demangled name>"; kind 'u' is the one shared copy of an entity
        // defined in a header, which hosts take from the header and which depends on optimisation.
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
    std::set<std::string> named, additions, missing, unlisted;
    for (std::string line : listLines("exported_interface.txt")) {
        line = std::regex_replace(line, std::regex(R"(\bva_list\b)"), vaList.get());
        bool const added = line.rfind("+ ", 0) == 0;
        auto const dash = line.find(" -- ");
        EXPECT_TRUE(!added || (dash != std::string::npos && !trim(line.substr(dash + 4)).empty()))
            << "an addition without a reason: " << line;
        std::string const name = added ? trim(line.substr(2, dash == std::string::npos ? dash : dash - 2)) : line;
        EXPECT_TRUE(named.insert(name).second) << "listed twice: " << name;
        if (!exported.count(name)) missing.insert((added ? "(addition) " : "") + name);
    }
    ASSERT_FALSE(named.empty());
    for (auto const& name : exported)
        if (!named.count(name)) unlisted.insert(name);
    EXPECT_EQ(missing, std::set<std::string>{}) << "listed but not exported";
    EXPECT_EQ(unlisted, std::set<std::string>{})
        << "exported but not listed (hide them or list as \"+ name -- reason\")";
}

// ---- virtual slot orders ----

struct Slot {
    std::string owner;  // class whose definition fills the slot
    std::string name;   // operation name; "~" for both destructor slots
    bool operator==(Slot const& other) const { return owner == other.owner && name == other.name; }
};
std::ostream& operator<<(std::ostream& out, Slot const& slot) { return out << slot.owner << "::" << slot.name; }
using Table = std::vector<Slot>;

// The primary virtual table of every class in the dump: the function slots after the offset
// to top and the type information, up to the first secondary table.
std::map<std::string, Table> primaryTables(std::vector<std::string> const& dump) {
    static std::regex const title(R"(^Vtable for (.+)$)"), entry(R"(^\d+\s+\(int \(\*\)\(\.\.\.\)\)(.*)$)"),
        notAFunction(R"(^(-?\d+|\(& _ZTI.*\))$)");
    std::map<std::string, Table> tables;
    std::smatch match;
    for (std::size_t i = 0; i < dump.size(); ++i) {
        if (!std::regex_match(dump[i], match, title)) continue;
        Table& table = tables[match[1]];
        for (std::size_t j = i + 4; j < dump.size() && std::regex_match(dump[j], match, entry); ++j) {
            std::string const value = match[1];
            if (std::regex_match(value, notAFunction)) break;
            auto const separator = value.rfind("::");
            std::string const name = separator == std::string::npos ? value : value.substr(separator + 2);
            table.push_back({separator == std::string::npos ? "" : value.substr(0, separator),
                             !name.empty() && name[0] == '~' ? "~" : name});
        }
    }
    return tables;
}

std::vector<std::string> words(std::string const& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

TEST(VirtualOrder, EveryListedClassKeepsItsSlots) {
#ifndef COLLOQUY_COMPAT_CLASS_DUMP
    GTEST_SKIP() << "the class-layout dump needs g++";
#else
    auto const tables = primaryTables(readLines(COLLOQUY_COMPAT_CLASS_DUMP));
    auto const tableOf = [&](std::string const& name) {
        auto const found = tables.find(name);
        EXPECT_NE(found, tables.end()) << "no virtual table for " << name << " in the dump";
        return found == tables.end() ? Table{} : found->second;
    };
    // "Class : Base | declared | overridden": the base's table with the overridden slots taken
    // over, then the declared ones ("-": no base). "Class = op op ...": the whole table by name.
    static std::regex const derived(R"(^(\S+) : (\S+) \|([^|]*)\|(.*)$)"), whole(R"(^(\S+) = (.*)$)");
    int checked = 0;
    for (std::string const& line : listLines("virtual_order.txt")) {
        std::smatch match;
        if (std::regex_match(line, match, derived)) {
            std::string const owner = match[1];
            Table expected = match[2] == "-" ? Table{} : tableOf(match[2]);
            for (auto const& name : words(match[4])) {
                bool found = false;
                for (Slot& slot : expected)
                    if (slot.name == name) slot.owner = owner, found = true;
                EXPECT_TRUE(found) << owner << " overrides " << name << ", which its base does not declare";
            }
            for (auto const& name : words(match[3]))
                expected.insert(expected.end(), name == "~" ? 2 : 1, Slot{owner, name});  // two destructor slots
            EXPECT_EQ(tableOf(owner), expected) << "slot order of " << owner;
        } else if (std::regex_match(line, match, whole)) {
            std::vector<std::string> names;
            for (Slot const& slot : tableOf(match[1]))
                if (names.empty() || slot.name != "~" || names.back() != "~") names.push_back(slot.name);
            EXPECT_EQ(names, words(match[2])) << "slot order of " << match[1];
        } else {
            ADD_FAILURE() << "unreadable line in virtual_order.txt: " << line;
        }
        ++checked;
    }
    EXPECT_GT(checked, 0);
#endif
}

// ---- member layouts ----

// Pointers to protected and private members, taken through an explicit instantiation (where
// access is not checked) so the test reads the real layout without widening the headers.
template <class Class, class Type>
using MemberOf = Type Class::*;
template <class Tag, typename Tag::type Pointer>
struct Expose {
    friend constexpr typename Tag::type member(Tag) { return Pointer; }
};
#define COMPAT_MEMBER(Class, Type, name)              \
    struct Class##_##name {                           \
        using type = MemberOf<Class, Type>;           \
        friend constexpr type member(Class##_##name); \
    };                                                \
    template struct Expose<Class##_##name, &Class::name>

COMPAT_MEMBER(CAssociativeArray, RWCString, mLastText);
COMPAT_MEMBER(RWCollectableInt, int, mValue);
COMPAT_MEMBER(ValidateObject, int, validFlag);
COMPAT_MEMBER(ClientObj, ClientHandler[ClientObj::kMaxHandlerIndex + 1], handlerTable);
COMPAT_MEMBER(ClientObj, int, highestIndex);
COMPAT_MEMBER(ClientObj, int, handlerCount);
COMPAT_MEMBER(ServerObj, std::unique_ptr<RWHashTable>, eventTable);
COMPAT_MEMBER(FilesAssociationArchive, std::string, mDefualtDestinationDirectory);
COMPAT_MEMBER(FilesAssociationArchive, std::unique_ptr<RWHashDictionaryIterator>, mIterator);

// Byte offset of a member (possibly of a base class) inside the complete object `object`.
template <class Object, class Base, class Type>
std::ptrdiff_t at(Object const& object, Type Base::*pointer) {
    Base const& base = object;
    return reinterpret_cast<char const*>(&(base.*pointer)) - reinterpret_cast<char const*>(&object);
}

// Each offset lies after the previous one, the first after `after` (the end of the base part).
void expectInOrder(char const* what, std::ptrdiff_t after, std::vector<std::ptrdiff_t> const& offsets) {
    for (std::size_t i = 0; i < offsets.size(); ++i)
        EXPECT_GT(offsets[i], i ? offsets[i - 1] : after - 1) << what << ": member " << i << " out of order";
}

// A mirror lays out the documented members in the documented order (polymorphic classes with
// no data in their bases: the virtual table pointer first): the same size and offsets mean no
// member moved, changed type or was added.
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
struct ValidateMirror {
    void* vptr;
    int validFlag;
};
// The name of the member when it lies elsewhere than in the mirror, else "".
#define COMPAT_EXACT(object, Mirror, name)                                                                   \
    (at(object, &std::remove_const_t<decltype(object)>::name) == std::ptrdiff_t(offsetof(Mirror, name)) ? "" \
                                                                                                        : " " #name)

TEST(Layout, MessageRecordsMatchTheirMirrors) {
    static_assert(std::is_standard_layout_v<c_Pack> && sizeof(c_Pack) == sizeof(PackMirror));
    static_assert(offsetof(c_Pack, theFields) == offsetof(PackMirror, theFields) &&
                  offsetof(c_Pack, theLengths) == offsetof(PackMirror, theLengths) &&
                  offsetof(c_Pack, theCount) == offsetof(PackMirror, theCount) &&
                  offsetof(c_Pack, thePackedLength) == offsetof(PackMirror, thePackedLength));
    static_assert(sizeof(QType) == sizeof(int) && sizeof(cColloquyMessage) == sizeof(MessageMirror));
    cColloquyMessage const m;
    EXPECT_EQ(std::string() + COMPAT_EXACT(m, MessageMirror, userValue) + COMPAT_EXACT(m, MessageMirror, formatStamp) +
                  COMPAT_EXACT(m, MessageMirror, toHost) + COMPAT_EXACT(m, MessageMirror, toName) +
                  COMPAT_EXACT(m, MessageMirror, fromHost) + COMPAT_EXACT(m, MessageMirror, fromName) +
                  COMPAT_EXACT(m, MessageMirror, qType) + COMPAT_EXACT(m, MessageMirror, messageType) +
                  COMPAT_EXACT(m, MessageMirror, messageSubType) + COMPAT_EXACT(m, MessageMirror, body) +
                  COMPAT_EXACT(m, MessageMirror, bodyLen) + COMPAT_EXACT(m, MessageMirror, packedBuffer) +
                  COMPAT_EXACT(m, MessageMirror, packedLen),
              "")
        << "members moved";
    // RWCollectable carries nothing but its virtual table pointer, so the typed message is exact too.
    static_assert(sizeof(cTypedMessageObject) == sizeof(TypedMessageMirror));
    cTypedMessageObject const typed(1, 2, nullptr, 0);
    EXPECT_EQ(std::string() + COMPAT_EXACT(typed, TypedMessageMirror, type) +
                  COMPAT_EXACT(typed, TypedMessageMirror, subType) + COMPAT_EXACT(typed, TypedMessageMirror, data) +
                  COMPAT_EXACT(typed, TypedMessageMirror, length),
              "")
        << "members moved";
}

TEST(Layout, OtherPublicClassesKeepTheirMemberOrder) {
    // The serial number (the collectable integer), the validity flag of the mixin, the handler
    // table and its counters, then the server's event table.
    ServerObj const server(4);
    expectInOrder("ServerObj", 0,
                  {at(server, member(RWCollectableInt_mValue{})), at(server, member(ValidateObject_validFlag{})),
                   at(server, member(ClientObj_handlerTable{})), at(server, member(ClientObj_highestIndex{})),
                   at(server, member(ClientObj_handlerCount{})), at(server, member(ServerObj_eventTable{}))});
    // The table holds a handler for every index signOn can issue.
    EXPECT_GE(at(server, member(ClientObj_highestIndex{})) - at(server, member(ClientObj_handlerTable{})),
              std::ptrdiff_t(256 * sizeof(ClientHandler)));
    BaseEvent const event(7, nullptr, 3);
    expectInOrder("BaseEvent", 0,
                  {at(event, member(RWCollectableInt_mValue{})), at(event, &BaseEvent::eventClient),
                   at(event, &BaseEvent::handlerIndex)});
    static_assert(sizeof(ValidateObject) == sizeof(ValidateMirror));
    EXPECT_EQ(at(ValidateObject(), member(ValidateObject_validFlag{})),
              std::ptrdiff_t(offsetof(ValidateMirror, validFlag)));

    CAssociativeArray const record(8);
    EXPECT_EQ(at(record, member(CAssociativeArray_mLastText{})), std::ptrdiff_t(sizeof(RWHashDictionary)));
    static_assert(sizeof(CAssociativeArray) == sizeof(RWHashDictionary) + sizeof(RWCString));
    FilesAssociationArchive const archive;
    expectInOrder("FilesAssociationArchive", sizeof(CAssociativeArray),
                  {at(archive, member(FilesAssociationArchive_mDefualtDestinationDirectory{})),
                   at(archive, member(FilesAssociationArchive_mIterator{}))});
    static_assert(sizeof(FilesAssociationArchive) == sizeof(CAssociativeArray) + sizeof(std::string) + sizeof(void*));
    CColloquyAddress const address("name@host");
    expectInOrder("CColloquyAddress", sizeof(void*),
                  {at(address, &CColloquyAddress::namePart), at(address, &CColloquyAddress::hostPart),
                   at(address, &CColloquyAddress::fullAddress)});
    static_assert(sizeof(CColloquyAddress) == sizeof(void*) + 3 * sizeof(std::string));
    ProcessGroup const group;
    expectInOrder("ProcessGroup", sizeof(RWOrdered), {at(group, &ProcessGroup::mGroupFlag)});
    static_assert(sizeof(ProcessInfo::pid) == 4);
}

}  // namespace
