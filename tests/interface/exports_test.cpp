// What the shared library is called, asks for and binds. What it shows is held against abi/ (abi_test.cpp).
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "toolbox.h"


struct symbol {
    std::string name, kind;  // kind as readelf tells it: FUNC, OBJECT
};

// The defined names of the dynamic symbol table, without the version nodes themselves.
static std::vector<symbol> exported_symbols()
{
    std::vector<symbol> symbols;
    for (const std::string &line : lines_of(run(setting("CMAKE_READELF") + " --wide --dyn-syms " VORNTHR_FILE).output)) {
        std::istringstream words(line);
        std::string number, value, size, kind, binding, visibility, section, name;
        words >> number >> value >> size >> kind >> binding >> visibility >> section >> name;
        const size_t at = name.find('@');
        if (section == "UND" || section == "ABS" || binding != "GLOBAL" || at == std::string::npos) {
            continue;
        }
        symbols.push_back({name.substr(0, at), kind});
    }
    return symbols;
}

static std::vector<std::string> dynamic_entries(const std::string &tag)
{
    std::vector<std::string> values;
    for (const std::string &line : lines_of(run(setting("CMAKE_READELF") + " --wide -d " VORNTHR_FILE).output)) {
        const size_t open = line.find('[');
        if (line.find("(" + tag + ")") != std::string::npos && open != std::string::npos) {
            values.push_back(line.substr(open + 1, line.find(']') - open - 1));
        }
    }
    return values;
}

TEST(Library, HasTheSonameThatProgramsAskFor)
{
    EXPECT_EQ(dynamic_entries("SONAME"), std::vector<std::string>{"libvornthr"});
    EXPECT_EQ(std::filesystem::canonical(LIBRARY_DIR + "/libvornthr"),
              std::filesystem::canonical(VORNTHR_FILE));
}

TEST(Library, NeedsItsTwoReplaceableLibrariesAndTheLanguageOnly)
{
    const std::set<std::string> allowed = {"libsqz.so", "libkexcli.so", "libstdc++.so.6", "libgcc_s.so.1",
                                           "libc.so.6", "libm.so.6",    "libpthread.so.0"};
    const std::vector<std::string> needed = dynamic_entries("NEEDED");
    EXPECT_FALSE(needed.empty());
    for (const std::string &name : needed) {
        const bool of_sanitizer = setting("VORN_SANITIZE") != "" && name.find("san.so") != std::string::npos;
        EXPECT_TRUE(of_sanitizer || allowed.count(name)) << name;
    }
}

// Relocations by name are what an application's own symbols can capture: of functions only the trace hook has
// any, and every exported word has one where the library uses it.
TEST(Library, BindsItsCallsInsideButForTheTraceHook)
{
    std::set<std::string> functions;
    for (const symbol &one : exported_symbols()) {
        if (one.kind == "FUNC") {
            functions.insert(one.name);
        }
    }
    ASSERT_FALSE(functions.empty());
    std::set<std::string> captured;
    for (const std::string &line : lines_of(run(setting("CMAKE_READELF") + " --wide -r " VORNTHR_FILE).output)) {
        std::istringstream words(line);
        std::string offset, info, type, value, name;
        words >> offset >> info >> type >> value >> name;
        name = name.substr(0, name.find('@'));
        if (functions.count(name)) {
            captured.insert(name);
        }
    }
    EXPECT_EQ(captured, std::set<std::string>{"_vorn_trace"});
}

// A missing function shows when the program starts, not in the middle of a call.
TEST(Library, BindsAllAtStart)
{
    const std::string entries = run(setting("CMAKE_READELF") + " --wide -d " VORNTHR_FILE).output;
    EXPECT_NE(entries.find("NOW"), std::string::npos) << entries;
}
