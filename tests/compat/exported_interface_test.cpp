// The dynamic symbols that libColloquyUtil.so defines, compared with the checked-in list of the
// interface host processes link against (exported_interface.txt).
#include "compat_files.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <cstdarg>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <typeinfo>

namespace {

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
    static char const* const prefixes[] = {"typeinfo ",
                                           "vtable for ",
                                           "VTT for ",
                                           "construction vtable for ",
                                           "guard variable for ",
                                           "non-virtual thunk to ",
                                           "virtual thunk to ",
                                           "covariant return thunk to ",
                                           "transaction clone for ",
                                           "__odr_asan",
                                           "__asan",
                                           "__ubsan"};
    for (char const* prefix : prefixes)
        if (name.rfind(prefix, 0) == 0) return true;
    // A standard-library entity, possibly behind the return type of a template instantiation.
    std::string const head = name.substr(0, name.find('('));
    return head.rfind("std::", 0) == 0 || head.find(" std::") != std::string::npos ||
           head.rfind("__gnu_cxx::", 0) == 0 || head.find(" __gnu_cxx::") != std::string::npos;
}

// How `nm -C` spells a va_list argument on this platform (a pointer on both x86 ABIs).
std::string vaListSpelling() {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(typeid(std::decay_t<va_list>).name(), nullptr, nullptr, &status), std::free);
    if (status != 0 || !name) throw std::runtime_error("cannot demangle the va_list type");
    return name.get();
}

std::set<std::string> exportedNames() {
    std::set<std::string> names;
    auto const lines = compat::gCommandLines(std::string(COLLOQUY_COMPAT_NM) + " -D --defined-only -C '" +
                                             COLLOQUY_COMPAT_LIBRARY + "'");
    for (std::string const& line : lines) {
        // "<address> <kind> <demangled name>"
        auto const kind = line.find(' ');
        if (kind == std::string::npos || line.size() < kind + 3) throw std::runtime_error("odd nm line: " + line);
        // Kind 'u' is the one shared copy of an entity defined in a header (an inline constant
        // the compiler needed the address of, a static of an inline function): hosts take it
        // from the header, and whether it appears depends on the optimisation level.
        if (line[kind + 1] == 'u') continue;
        std::string const name = line.substr(kind + 3);
        if (!isToolchainNoise(name)) names.insert(normalised(name));
    }
    return names;
}

struct Listed {
    std::set<std::string> named;                   // the host interface
    std::map<std::string, std::string> additions;  // name -> reason (our own exports)
};

Listed listedNames() {
    Listed listed;
    std::string const vaList = vaListSpelling();
    for (std::string const& raw : compat::gReadLines(COLLOQUY_COMPAT_SOURCE_DIR "/exported_interface.txt")) {
        std::string line = compat::gTrim(raw);
        if (line.empty() || line[0] == '#') continue;
        line = std::regex_replace(line, std::regex(R"(\bva_list\b)"), vaList);
        if (line.rfind("+ ", 0) != 0) {
            if (!listed.named.insert(line).second) ADD_FAILURE() << "listed twice: " << line;
            continue;
        }
        auto const dash = line.find(" -- ");
        std::string const name = compat::gTrim(line.substr(2, dash == std::string::npos ? dash : dash - 2));
        std::string const reason = dash == std::string::npos ? "" : compat::gTrim(line.substr(dash + 4));
        if (reason.empty()) ADD_FAILURE() << "an addition without a reason: " << line;
        if (!listed.additions.emplace(name, reason).second) ADD_FAILURE() << "listed twice: " << name;
    }
    return listed;
}

std::string joined(std::vector<std::string> const& names) {
    std::string text;
    for (auto const& name : names) text += "\n  " + name;
    return text;
}

TEST(ExportedInterface, MatchesTheListBothWays) {
    std::set<std::string> const exported = exportedNames();
    Listed const listed = listedNames();
    ASSERT_FALSE(listed.named.empty());

    std::vector<std::string> missing, stale, unlisted;
    for (auto const& name : listed.named)
        if (!exported.count(name)) missing.push_back(name);
    for (auto const& [name, reason] : listed.additions)
        if (!exported.count(name)) stale.push_back(name);
    for (auto const& name : exported)
        if (!listed.named.count(name) && !listed.additions.count(name)) unlisted.push_back(name);

    EXPECT_TRUE(missing.empty()) << "host operations not exported:" << joined(missing);
    EXPECT_TRUE(unlisted.empty()) << "exported but not listed (hide them or list them as \"+ name -- reason\"):"
                                  << joined(unlisted);
    EXPECT_TRUE(stale.empty()) << "listed additions no longer exported:" << joined(stale);
}

}  // namespace
