// The interface is the one that abi/ has written down, and the check that says so would notice if it weren't.
#include <gtest/gtest.h>

#include <sstream>

#include "toolbox.h"

namespace fs = std::filesystem;

// What the check looks at; a test may put a changed copy in the place of any of them.
struct subject {
    fs::path library = VORNTHR_FILE;
    fs::path headers = PROJECT_DIR "/include";
    fs::path lists = PROJECT_DIR "/abi";
};

static outcome check(const std::string &list, const subject &what = {})
{
    return run("python3 " PROJECT_DIR "/tools/abi/abi.py check " + list + " --library " +
               what.library.string() + " --headers " + what.headers.string() + " --lists " +
               what.lists.string() + " --compiler " + setting("CMAKE_C_COMPILER") + " --readelf " +
               setting("CMAKE_READELF"));
}

static void expect_unchanged(const std::string &list)
{
    const outcome result = check(list);
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(Abi, ExportsAreThoseOfTheList)
{
    expect_unchanged("exports");
}

TEST(Abi, VariablesKeepTheirSizes)
{
    expect_unchanged("variables");
}

TEST(Abi, FunctionsKeepTheirTypes)
{
    expect_unchanged("functions");
}

TEST(Abi, RecordsKeepTheirLayout)
{
    expect_unchanged("records");
}

TEST(Abi, ConstantsKeepTheirValues)
{
    expect_unchanged("constants");
}

// Copies of the headers and the lists, for a test to change.
struct AbiCheck : testing::Test {
    temp_dir dir;
    subject copy;

    AbiCheck()
    {
        copy.headers = dir.path / "include";
        copy.lists = dir.path / "abi";
        fs::copy(PROJECT_DIR "/include", copy.headers, fs::copy_options::recursive);
        fs::copy(PROJECT_DIR "/abi", copy.lists, fs::copy_options::recursive);
    }

    static void replace(const fs::path &file, const std::string &before, const std::string &after)
    {
        std::string text = read_file(file);
        const size_t at = text.find(before);
        ASSERT_NE(at, std::string::npos) << file << " has no " << before;
        write_file(file, text.replace(at, before.size(), after));
    }

    // Puts a declaration before the end of a header.
    void declare(const std::string &header, const std::string &text)
    {
        const std::string whole = read_file(copy.headers / header);
        const size_t end = whole.rfind("#endif");
        ASSERT_NE(end, std::string::npos) << header;
        write_file(copy.headers / header, whole.substr(0, end) + text + "\n" + whole.substr(end));
    }

    void expect_named(const std::string &list, const std::string &complaint)
    {
        const outcome result = check(list, copy);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.output.find(complaint), std::string::npos) << result.output;
    }
};

TEST_F(AbiCheck, NamesAnExportThatTheLibraryLacks)
{
    replace(copy.lists / "exports.list", "\ntpcall\n", "\ntpcall\ntpcall_me\n");
    expect_named("exports", "exports.list: missing: tpcall_me\n");
}

TEST_F(AbiCheck, NamesAnExportThatNobodyListed)
{
    replace(copy.lists / "exports.list", "\ntpcall\n", "\n");
    expect_named("exports", "exports.list: too many: tpcall\n");
}

TEST_F(AbiCheck, NamesAVariableOfAnotherSize)
{
    replace(copy.lists / "variables.list", "\nebcdic  256\n", "\nebcdic  128\n");
    expect_named("variables", "variables.list: changed: ebcdic  128  ->  256\n");
}

TEST_F(AbiCheck, NamesAFunctionThatIsListedAsAVariable)
{
    replace(copy.lists / "variables.list", "\nebcdic  256\n", "\nebcdic  256\ntpcall  8\n");
    expect_named("variables", "variables.list: missing: tpcall  8\n");
}

TEST_F(AbiCheck, NamesAFunctionOfAnotherType)
{
    replace(copy.headers / "vorn/calls.h", "int tpcancel(int", "int tpcancel(long");
    expect_named("functions",
                 "functions.list: changed: tpcancel  int tpcancel (int)  ->  int tpcancel (long int)\n");
}

TEST_F(AbiCheck, NamesADeclarationWithoutAFunction)
{
    declare("vorn/calls.h", "int tpcall_me(void);");
    expect_named("functions", "tpcall_me: declared in a public header, but not in exports.list\n");
}

TEST_F(AbiCheck, NamesAFieldOfAnotherType)
{
    replace(copy.headers / "vorn/keystore.h", "long attr;", "unsigned long attr;");
    expect_named("records", "records.list: changed: struct vorn_key.attr  offset 16  size 8  long int  ->  "
                            "offset 16  size 8  long unsigned int\n");
}

TEST_F(AbiCheck, NamesEveryFieldThatMoved)
{
    replace(copy.headers / "vorn/keystore.h", "long attr;", "int attr[4];");
    const outcome result = check("records", copy);
    EXPECT_EQ(result.status, 1);
    for (const char *name :
         {"struct vorn_key  size 32  ->  size 40", "struct vorn_key.attr ", "struct vorn_key.key "}) {
        EXPECT_NE(result.output.find(std::string("changed: ") + name), std::string::npos) << result.output;
    }
}

TEST_F(AbiCheck, FindsNewTypesWithoutBeingToldOfThem)
{
    write_file(copy.headers / "vorn/news.h",
               "#ifndef NEWS_H\n#define NEWS_H\n"
               "struct tagged { int a; union { long b; char c[3]; } u; unsigned d : 3; };\n"
               "typedef struct { short e; } untagged;\n"
               "typedef int (*handler)(const char *, ...);\n#endif\n");
    const outcome result = check("records", copy);
    EXPECT_EQ(result.status, 1);
    for (const char *line :
         {"struct tagged  size 24", "struct tagged.u.c  offset 8  size 3  char[3]",
          "struct tagged.d  offset 16  size 4  bit_size 3", "typedef untagged.e  offset 0  size 2",
          "typedef handler  int (const char *, ...) *"}) {
        EXPECT_NE(result.output.find(std::string("too many: ") + line), std::string::npos) << result.output;
    }
}

TEST_F(AbiCheck, NamesAMacroOfAnotherValue)
{
    replace(copy.lists / "constants.list", "\nTPEINVAL  4\n", "\nTPEINVAL  5\n");
    expect_named("constants", "constants.list: changed: TPEINVAL  5  ->  4\n");
}

TEST_F(AbiCheck, NamesAMacroOnlyIfItsValueChanges)
{
    declare("vorn/errors.h", "#undef TPEINVAL\n#define TPEINVAL (0x2L << 1)");
    const outcome same = check("constants", copy);
    EXPECT_EQ(same.status, 0) << same.output;
    declare("vorn/errors.h", "#undef TPEINVAL\n#define TPEINVAL (TPEBLOCK + 2)");
    expect_named("constants", "constants.list: too many: TPEINVAL  5\n");
}

TEST_F(AbiCheck, NamesAMacroThatIsGone)
{
    replace(copy.headers / "vorn/errors.h", "#define TPEINVAL", "#define TPEINVALID");
    const outcome result = check("constants", copy);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.output.find("missing: TPEINVAL  4\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("too many: TPEINVALID  4\n"), std::string::npos) << result.output;
}

TEST_F(AbiCheck, NamesEnumeratorsAndWhatIsDefinedBehindASwitch)
{
    declare("vorn/calls.h", "enum shape { SHAPE_ROUND = -3, SHAPE_FLAT };\n"
                            "#ifdef VORN_MORE_SHAPES\n#define SHAPE_ODD 7\n#endif");
    const outcome result = check("constants", copy);
    EXPECT_EQ(result.status, 1);
    for (const char *line : {"SHAPE_ROUND  -3\n", "SHAPE_FLAT  -2\n", "SHAPE_ODD  7\n"}) {
        EXPECT_NE(result.output.find(std::string("too many: ") + line), std::string::npos) << result.output;
    }
}

// A library with whatever an interface in C must not have, and with names in the wrong places.
TEST_F(AbiCheck, NamesSymbolsThatNoListCanAllow)
{
    write_file(dir.path / "odd.c", "int _hidden(void) { return 1; }\n"
                                   "int shown(void) { return 1; }\n"
                                   "int _Z5shownv(void) { return 1; }\n"
                                   "__attribute__((weak)) int weak(void) { return 1; }\n"
                                   "__thread int local;\n");
    write_file(dir.path / "odd.map", "VORNTHR_5.0 { global: _hidden; weak; local; local: nothing; };\n"
                                     "VORNTHR_PRIVATE { global: shown; _Z5shownv; };\n");
    copy.library = dir.path / "odd.so";
    const outcome built = run(setting("CMAKE_C_COMPILER") +
                              " -shared -fPIC -Wl,--version-script=" + (dir.path / "odd.map").string() +
                              " -o " + copy.library.string() + " " + (dir.path / "odd.c").string());
    ASSERT_EQ(built.status, 0) << built.output;
    const outcome result = check("exports", copy);
    EXPECT_EQ(result.status, 1);
    for (const char *complaint : {"_hidden: is in the version node VORNTHR_5.0, not in VORNTHR_PRIVATE",
                                  "shown: is in the version node VORNTHR_PRIVATE, not in VORNTHR_5.0",
                                  "_Z5shownv: has no linkage to C", "weak: has the binding WEAK, not GLOBAL",
                                  "local: is TLS, neither function nor object"}) {
        EXPECT_NE(result.output.find(complaint), std::string::npos) << result.output;
    }
}

// The lines of `readelf OPTIONS` on the library that hold `word`.
static std::vector<std::string> lines_with(const std::string &options, const std::string &word)
{
    std::vector<std::string> found;
    for (const std::string &line :
         lines_of(run(setting("CMAKE_READELF") + " --wide " + options + " " VORNTHR_FILE).output)) {
        std::istringstream words(line);
        for (std::string one; words >> one;) {
            if (one == word) {
                found.push_back(line);
                break;
            }
        }
    }
    return found;
}

TEST(LibraryFile, RunsNothingOnItsStackAndHasNoSegmentToBeBothWrittenAndRun)
{
    const std::vector<std::string> stack = lines_with("--segments", "GNU_STACK");
    ASSERT_EQ(stack.size(), 1u);
    EXPECT_NE(stack[0].find(" RW "), std::string::npos) << stack[0];
    for (const std::string &line : lines_with("--segments", "LOAD")) {
        EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
    }
}

TEST(LibraryFile, IsNotPatchedInItsCode)
{
    EXPECT_FALSE(lines_with("--dynamic", "(SONAME)").empty());
    EXPECT_TRUE(lines_with("--dynamic", "(TEXTREL)").empty());
    EXPECT_TRUE(lines_with("--dynamic", "TEXTREL").empty());
}

// The table through which calls leave the library can't be written once the program runs.
TEST(LibraryFile, SealsItsRelocationsBeforeTheProgramRuns)
{
    EXPECT_EQ(lines_with("--segments", "GNU_RELRO").size(), 1u);
    EXPECT_FALSE(lines_with("--dynamic", "BIND_NOW").empty());
}
