// Each public header compiles alone, in both languages, without help from the build's own settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "toolbox.h"

namespace fs = std::filesystem;

static std::vector<std::string> public_headers()
{
    std::vector<std::string> names = {"vorn.h"};
    for (const auto &entry : fs::directory_iterator(PROJECT_DIR "/include/vorn")) {
        names.push_back("vorn/" + entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Compiles a source that holds nothing but the include, twice, so that the guard is tried too.
static void expect_each_compiles(const std::string &compiler, const std::string &suffix)
{
    temp_dir dir;
    for (const std::string &name : public_headers()) {
        const fs::path source = dir.path / ("alone" + suffix);
        write_file(source, "#include <" + name + ">\n#include <" + name + ">\ntypedef int nothing_else;\n");
        const outcome result = run(compiler + " -fsyntax-only -pedantic -Wall -Wextra -Werror -I" +
                                   PROJECT_DIR "/include " + source.string());
        EXPECT_EQ(result.status, 0) << name << "\n" << result.output;
    }
}

TEST(PublicHeaders, AreThere)
{
    EXPECT_GE(public_headers().size(), 6u);
    EXPECT_TRUE(fs::exists(PROJECT_DIR "/include/vorn.h"));
}

TEST(PublicHeaders, EachCompilesAloneInC99)
{
    expect_each_compiles(setting("CMAKE_C_COMPILER") + " -std=c99", ".c");
}

TEST(PublicHeaders, EachCompilesAloneInC17)
{
    expect_each_compiles(setting("CMAKE_C_COMPILER") + " -std=c17", ".c");
}

TEST(PublicHeaders, EachCompilesAloneInCxx11)
{
    expect_each_compiles(setting("CMAKE_CXX_COMPILER") + " -std=c++11", ".cpp");
}

TEST(PublicHeaders, EachCompilesAloneInCxx20)
{
    expect_each_compiles(setting("CMAKE_CXX_COMPILER") + " -std=c++20", ".cpp");
}

TEST(PublicHeaders, TheUmbrellaNamesEachFamily)
{
    const std::string umbrella = read_file(PROJECT_DIR "/include/vorn.h");
    // What is for programs written to other monitors stays out, as do other names that could clash.
    const std::set<std::string> apart = {"vorn.h", "vorn/acl.h", "vorn/codeconv.h", "vorn/compat.h",
                                         "vorn/ffields.h"};
    for (const std::string &name : public_headers()) {
        if (!apart.count(name)) {
            EXPECT_NE(umbrella.find(name), std::string::npos) << name;
        }
    }
}

// A function without linkage to C would carry a decorated name, and the application wouldn't link.
TEST(PublicHeaders, DeclareEveryFunctionWithLinkageToC)
{
    for (const std::string &name : public_headers()) {
        const std::string text = read_file(fs::path(PROJECT_DIR "/include") / name);
        if (text.find(");") != std::string::npos) {
            EXPECT_NE(text.find("extern \"C\""), std::string::npos) << name;
        }
    }
}

TEST(PublicHeaders, TheErrorCellsAreAssignable)
{
    temp_dir dir;
    const fs::path source = dir.path / "cells.c";
    write_file(source, "#include <vorn.h>\n"
                       "int cells(void)\n{\n    tperrno = 0;\n    tpurcode = 0;\n    fberror = 0;\n"
                       "    return tperrno + (int)tpurcode + fberror;\n}\n");
    const outcome result = run(setting("CMAKE_C_COMPILER") +
                               " -std=c99 -fsyntax-only -pedantic -Wall -Wextra -Werror -I" PROJECT_DIR "/include " +
                               source.string());
    EXPECT_EQ(result.status, 0) << result.output;
}
