// fdlc: the text, its errors, the binary file to the byte, and the library finding everything in it.
#include <algorithm>

#include "fields/fbapi.h"
#include "support/fdlfile.h"
#include "tools/process.h"
#include "vorn/errors.h"
#include "vorn/fields.h"

using Fdlc = Toolbox;

static const char *const TYPES[] = {"",      "char",   "short",  "int",   "long",
                                    "float", "double", "string", "carray"};

static std::string text_of(const std::vector<fdl::field> &fields)
{
    std::string text;
    for (const fdl::field &field : fields)
        text += field.name + " " + std::to_string(field.key & 0xffffff) + " " + TYPES[field.key >> 26] + "\n";
    return text;
}

// So many fields of all types, with names and numbers that crowd on few rows in both ways of hashing.
static std::vector<fdl::field> many_fields(int count, const std::string &stem = "FIELD_")
{
    std::vector<fdl::field> fields;
    for (int i = 0; i < count; i++) {
        int number = i % 3 == 0 ? 1 + i : 70000 + 256 * i;
        fields.push_back({stem + std::to_string(i), (1 + i % 8) * 0x4000000 + number});
    }
    return fields;
}

static std::vector<fdl::field> by_key(std::vector<fdl::field> fields)
{
    std::sort(fields.begin(), fields.end(),
              [](const fdl::field &a, const fdl::field &b) { return a.key < b.key; });
    return fields;
}

TEST_F(Fdlc, WritesHeadNamesAndKeys)
{
    write("a.fdl", "ORDER 100 string\n");
    outcome result = fdlc("-o a.fdb --rows 2 a.fdl");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "");

    int32_t key = 469762148;
    std::string key_bytes(reinterpret_cast<char *>(&key), 4);
    std::string name = "ORDER" + std::string(43, '\0') + key_bytes;  // 79 + 82 + 68 + 69 + 82 is even
    std::string expected = std::string("\xb8\x22\0\0\2\0\0\0\0\0\0\0", 12);
    expected += name + std::string(52, '\0');
    expected += key_bytes + std::string("\0\0\0\0", 4) + std::string("\0\0\0\0\xff\xff\xff\xff", 8);
    EXPECT_EQ(read("a.fdb"), expected);
}

TEST_F(Fdlc, EveryTypeHasItsKey)
{
    std::vector<fdl::field> fields;
    for (int type = 1; type <= 8; type++)
        fields.push_back({"F" + std::to_string(type), fbmake_fldkey(type, 7)});
    write("a.fdl", text_of(fields));
    ASSERT_EQ(fdlc("-o a.fdb --rows 8 a.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"), fdl::file_bytes(by_key(fields)));
}

TEST_F(Fdlc, BaseIsAddedUpToTheEndOfItsText)
{
    write("a.fdl", "base 100 # a hundred\nA 1 int\nB -99 int\nbase 0x10\n\nC 0x10 int # 32\n");
    write("b.fdl", "D 4 int\n");
    ASSERT_EQ(fdlc("-o a.fdb --rows 4 a.fdl b.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"), fdl::file_bytes({{"B", fbmake_fldkey(3, 1)},
                                              {"D", fbmake_fldkey(3, 4)},
                                              {"C", fbmake_fldkey(3, 32)},
                                              {"A", fbmake_fldkey(3, 101)}}));
}

TEST_F(Fdlc, LimitsAreInclusive)
{
    std::string longest(47, 'n');
    write("a.fdl", longest + " 0xffffff carray\nA 1 char\n");
    ASSERT_EQ(fdlc("-o a.fdb --rows 2 a.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"),
              fdl::file_bytes({{"A", fbmake_fldkey(1, 1)}, {longest, fbmake_fldkey(8, 0xffffff)}}));
}

TEST_F(Fdlc, NamesInQuotesHoldAnything)
{
    write("a.fdl", "\"base\" 1 int\n\"a b\\\"\\\\\\x7f\\xe4\" 2 int\n");
    ASSERT_EQ(fdlc("-o a.fdb --rows 2 a.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"),
              fdl::file_bytes({{"base", fbmake_fldkey(3, 1)}, {"a b\"\\\x7f\xe4", fbmake_fldkey(3, 2)}}));
    EXPECT_EQ(fdlc("--dump a.fdb").output, "rows 2\n\"base\" 1 int\n\"a b\\\"\\\\\\x7f\\xe4\" 2 int\n");
}

TEST_F(Fdlc, UsualTablesArePowersOfTwoWithAQuarterFree)
{
    struct {
        int fields, rows;
    } cases[] = {{1, 2}, {3, 4}, {4, 8}, {6, 8}, {7, 16}, {384, 512}, {385, 1024}, {2000, 4096}};
    for (auto [fields, rows] : cases) {
        write("a.fdl", text_of(many_fields(fields)));
        ASSERT_EQ(fdlc("-o a.fdb a.fdl").status, 0);
        EXPECT_EQ(word_at(read("a.fdb"), 4), rows) << fields;
    }
}

TEST_F(Fdlc, RowsComeFromTheOptionOrTheText)
{
    write("a.fdl", "rows 12\nA 1 int\n");
    ASSERT_EQ(fdlc("-o a.fdb a.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"), fdl::file_bytes({{"A", fbmake_fldkey(3, 1)}}, 12));
    ASSERT_EQ(fdlc("-o a.fdb --rows=5 a.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"), fdl::file_bytes({{"A", fbmake_fldkey(3, 1)}}, 5));
}

TEST_F(Fdlc, TheOrderOfTheTextDoesNotMatter)
{
    std::vector<fdl::field> fields = many_fields(700);
    write("a.fdl", text_of(fields));
    std::reverse(fields.begin(), fields.end());
    write("b.fdl", text_of(fields));
    ASSERT_EQ(fdlc("-o a.fdb a.fdl && " FDLC_PATH " -o b.fdb b.fdl").status, 0);
    EXPECT_EQ(read("a.fdb"), read("b.fdb"));
}

TEST_F(Fdlc, ErrorsNameFileLineAndCause)
{
    static const std::string long_name = std::string(48, 'x') + " 1 int";
    const mistake mistakes[] = {
        {"A 1", "a.fdl:1: a line is: NAME NUMBER TYPE, or base NUMBER, or rows NUMBER"},
        {"# one\n\nA 1 int int", "a.fdl:3: a line is: NAME NUMBER TYPE"},
        {"7 1 int", "a.fdl:1: a line is: NAME NUMBER TYPE"},
        {long_name.c_str(), "a.fdl:1: name of 48 characters; it has 1 to 47"},
        {"\"\" 1 int", "a.fdl:1: name of 0 characters; it has 1 to 47"},
        {"A 0 int", "a.fdl:1: number 0 with base 0 isn't within 1 to 16777215"},
        {"A 0x1000000 int", "a.fdl:1: number 0x1000000 with base 0 isn't within 1 to 16777215"},
        {"base 16777215\nA 1 int", "a.fdl:2: number 1 with base 16777215 isn't within 1 to 16777215"},
        {"A -1 int", "a.fdl:1: number -1 with base 0 isn't within"},
        {"A 1x int", "a.fdl:1: number 1x with base 0 isn't within"},
        {"A 99999999999999999999 int", "a.fdl:1: number 99999999999999999999 with base 0 isn't within"},
        {"A one int", "a.fdl:1: number one with base 0 isn't within"},
        {"A 1 integer", "a.fdl:1: unknown type integer"},
        {"A 1 struct", "a.fdl:1: unknown type struct"},
        {"A 1 int\nB 2 int\nA 3 int", "a.fdl:3: name A is taken since a.fdl:1"},
        {"A 1 int\nB 1 int", "a.fdl:2: B has the type and number of A at a.fdl:1"},
        {"base", "a.fdl:1: base needs a number up to 16777215 and nothing else"},
        {"base 1 2", "a.fdl:1: base needs a number up to 16777215 and nothing else"},
        {"base -1", "a.fdl:1: base needs a number"},
        {"rows 0", "a.fdl:1: rows needs a number up to 16777216 and nothing else"},
        {"A 1 int\nrows 16777217", "a.fdl:2: rows needs a number up to 16777216"},
        {"rows 1\nA 1 int\nB 2 int", "a.fdl: 1 rows don't hold 2 fields"},
        {"A 1 int ?", "a.fdl:1: '?' doesn't belong here"},
        {"A 1 int\n\001", "a.fdl:2: byte 0x01 doesn't belong here"},
        {"\"A 1 int", "a.fdl:1: text without its closing quote"},
        {"\"A\\q\" 1 int", "a.fdl:1: unknown escape"},
        {"\"A\\x00\" 1 int", "a.fdl:1: unknown escape"},
        {"# nothing\n", "a.fdl: no field in it"},
        {"", "a.fdl: no field in it"},
    };
    for (const mistake &each : mistakes) {
        write("a.fdl", each.text);
        outcome result = fdlc("-o a.fdb a.fdl");
        EXPECT_EQ(result.status, 1) << each.text;
        EXPECT_EQ(result.output.compare(0, strlen(each.error), each.error), 0) << each.text << "\n"
                                                                               << result.output;
        EXPECT_FALSE(exists("a.fdb")) << each.text;
    }
}

TEST_F(Fdlc, NulBytesDoNotBelongThere)
{
    write("a.fdl", std::string("A 1 int\0\n\"\0\" 2 int", 18));
    EXPECT_EQ(fdlc("-o a.fdb a.fdl").output,
              "a.fdl:1: byte 0x00 doesn't belong here\na.fdl:2: a text must not hold a NUL\n"
              "a.fdl:2: name of 0 characters; it has 1 to 47\n");
}

TEST_F(Fdlc, AllErrorsOfATextAreToldUpToTwenty)
{
    write("a.fdl", "A 0 int\nB 1 int\nC 2 what\n");
    EXPECT_EQ(fdlc("-o a.fdb a.fdl").output, "a.fdl:1: number 0 with base 0 isn't within 1 to 16777215\n"
                                             "a.fdl:3: unknown type what\n");
    std::string wrong;
    for (int i = 0; i < 50; i++)
        wrong += "A\n";
    write("a.fdl", wrong);
    std::string output = fdlc("-o a.fdb a.fdl").output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 21);
    EXPECT_NE(output.find("a.fdl: and more errors\n"), std::string::npos);
}

TEST_F(Fdlc, NamesOfTwoTextsMeet)
{
    write("a.fdl", "A 1 int\n");
    write("b.fdl", "B 2 int\nA 3 int\n");
    EXPECT_EQ(fdlc("-o a.fdb a.fdl b.fdl").output, "b.fdl:2: name A is taken since a.fdl:1\n");
}

TEST_F(Fdlc, WrongCommandLinesEndWithTwo)
{
    write("a.fdl", "A 1 int\n");
    const mistake lines[] = {
        {"", "fdlc: no text to compile\ntry fdlc --help\n"},
        {"a.fdl", "fdlc: nothing to write: give -o or --c-header\n"},
        {"-o", "fdlc: -o needs FILE\n"},
        {"-x a.fdl", "fdlc: unknown option -x\n"},
        {"--dump a.fdb a.fdl", "fdlc: --dump stands alone\n"},
        {"--rows 0 -o a.fdb a.fdl", "fdlc: --rows: 0 isn't within 1 to 16777216\n"},
        {"--rows=many -o a.fdb a.fdl", "fdlc: --rows: many isn't within"},
    };
    for (const mistake &each : lines) {
        outcome result = fdlc(each.text);
        EXPECT_EQ(result.status, 2) << each.text;
        EXPECT_EQ(result.output.compare(0, strlen(each.error), each.error), 0) << result.output;
    }
    outcome help = fdlc("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("--c-header FILE"), std::string::npos);
}

TEST_F(Fdlc, FilesThatCannotBeReadOrWritten)
{
    write("a.fdl", "A 1 int\n");
    outcome result = fdlc("-o a.fdb none.fdl");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "none.fdl: No such file or directory\n");
    result = fdlc("-o no/a.fdb a.fdl");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "no/a.fdb: No such file or directory\n");
    EXPECT_EQ(fdlc("--dump a.fdl").output, "a.fdl: no field table file\n");
}

TEST_F(Fdlc, AnErrorLeavesTheOldFile)
{
    write("a.fdb", "old");
    write("a.fdl", "A 0 int\n");
    EXPECT_EQ(fdlc("-o a.fdb a.fdl").status, 1);
    EXPECT_EQ(read("a.fdb"), "old");
    write("a.fdl", "A 1 int\n\"not c\" 2 int\n");
    EXPECT_EQ(fdlc("-o a.fdb --c-header a.h a.fdl").output,
              "a.fdl:2: \"not c\" can't be a name in the C header\n");
    EXPECT_EQ(read("a.fdb"), "old");
    EXPECT_EQ(files(), 2u);
}

TEST_F(Fdlc, WritingLeavesNothingElseBehind)
{
    write("a.fdl", "A 1 int\n");
    ASSERT_EQ(in_dir("umask 027; ln -s real.fdb a.fdb; touch real.fdb; " FDLC_PATH " -o a.fdb a.fdl").status,
              0);
    EXPECT_EQ(files(), 3u);
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "a.fdb"));
    EXPECT_EQ(read("real.fdb").size(), 12u + 2 * 60);
    EXPECT_EQ(static_cast<int>(std::filesystem::status(dir / "real.fdb").permissions()), 0640);
    // What is no plain file isn't replaced.
    EXPECT_EQ(fdlc("-o /dev/stdout a.fdl").output, read("real.fdb"));
}

TEST_F(Fdlc, HeaderHasTheKeysInTheOrderOfTheText)
{
    std::vector<fdl::field> fields = many_fields(20);
    write("a.fdl", text_of(fields));
    ASSERT_EQ(fdlc("--c-header 1st-keys.h a.fdl").status, 0);
    std::string program =
        "#include \"1st-keys.h\"\n#include \"1st-keys.h\"\n#include <stdio.h>\nint main(void)\n{\n";
    std::string expected;
    for (const fdl::field &field : fields) {
        program += "    printf(\"%d\\n\", " + field.name + ");\n";
        expected += std::to_string(field.key) + "\n";
    }
    EXPECT_EQ(print_of("keys", program + "    return 0;\n}\n"), expected);
    std::string header = read("1st-keys.h");
    EXPECT_LT(header.find("#define FIELD_0 "), header.find("#define FIELD_19 "));
    EXPECT_NE(header.find(" /* char 1 */"), std::string::npos);
}

TEST_F(Fdlc, HeaderRefusesWordsOfCAndItsOwnGuard)
{
    write("a.fdl", "int 1 int\nA_H 2 int\ntemplate 3 int\nfine 4 int\n");
    EXPECT_EQ(fdlc("--c-header a.h a.fdl").output, "a.fdl:1: \"int\" can't be a name in the C header\n"
                                                   "a.fdl:2: \"A_H\" can't be a name in the C header\n"
                                                   "a.fdl:3: \"template\" can't be a name in the C header\n");
    EXPECT_EQ(fdlc("-o a.fdb a.fdl").status, 0);
}

TEST_F(Fdlc, DumpsCompileToTheSameBytes)
{
    for (int count : {1, 3, 12, 600}) {
        for (const char *rows : {"", "--rows 612"}) {
            write("a.fdl", text_of(many_fields(count)));
            outcome result =
                fdlc(std::string("-o a.fdb ") + rows +
                     " a.fdl && " FDLC_PATH " --dump a.fdb >b.fdl && " FDLC_PATH " -o b.fdb b.fdl");
            ASSERT_EQ(result.status, 0) << result.output;
            EXPECT_EQ(read("a.fdb"), read("b.fdb")) << count << rows;
        }
    }
}

TEST_F(Fdlc, DumpsOfFilesPlacedOtherwiseKeepTheFields)
{
    std::vector<fdl::field> fields = many_fields(40);
    write("a.fdb", fdl::file_bytes(fields, 100));
    ASSERT_EQ(fdlc("--dump a.fdb >b.fdl").status, 0);
    EXPECT_EQ(read("b.fdl"), "rows 100\n" + text_of(by_key(fields)));
}

TEST_F(Fdlc, DumpRefusesDamagedFiles)
{
    const std::string good = fdl::file_bytes({{"A", fbmake_fldkey(3, 1)}, {"B", fbmake_fldkey(3, 2)}});
    const size_t names = 12, keys = 12 + 2 * 52;
    struct {
        size_t offset;
        int32_t word;
        const char *error;
    } damages[] = {
        {0, 7777, "a.fdb: no field table file\n"},
        {4, 0, "a.fdb: 132 bytes don't hold two tables of 0 rows\n"},
        {4, -1, "a.fdb: 132 bytes don't hold two tables of -1 rows\n"},
        {4, 3, "a.fdb: 132 bytes don't hold two tables of 3 rows\n"},
        {keys + 4, 2, "a.fdb: row 0 of the key table names a row 2\n"},
        {keys + 4, -2, "a.fdb: row 0 of the key table names a row -2\n"},
        {keys + 4, -1, " of the name table has no row in the key table\n"},
        {keys, fbmake_fldkey(4, 1), " of the two tables make no field\n"},
        {names, 0, " of the two tables make no field\n"},
    };
    for (auto [offset, word, error] : damages) {
        std::string bytes = good;
        memcpy(&bytes[offset], &word, sizeof word);
        write("a.fdb", bytes);
        outcome result = fdlc("--dump a.fdb");
        EXPECT_EQ(result.status, 1) << offset;
        EXPECT_NE(result.output.find(error), std::string::npos) << result.output;
    }
    for (size_t size = 0; size < good.size(); size++) {
        write("a.fdb", good.substr(0, size));
        ASSERT_EQ(fdlc("--dump a.fdb").status, 1) << size;
    }
}

// Each name and key stands at its hash or behind it, with no free row between. The sizes change the way of
// hashing (513 rows and more) and are no powers of two, so that some rows are never a start.
TEST_F(Fdlc, RowsAreReachedFromTheirHashes)
{
    struct {
        int fields, rows;
    } cases[] = {{1, 1},     {2, 2},     {3, 3},     {12, 12},   {9, 12},
                 {511, 511}, {512, 512}, {513, 513}, {400, 513}, {2000, 2000}};
    for (auto [count, rows] : cases) {
        std::vector<fdl::field> fields = many_fields(count);
        write("a.fdl", text_of(fields));
        ASSERT_EQ(fdlc("-o a.fdb --rows " + std::to_string(rows) + " a.fdl").status, 0);
        std::string bytes = read("a.fdb");
        ASSERT_EQ(bytes, fdl::file_bytes(by_key(fields), rows)) << rows;
        size_t keys_at = 12 + 52 * static_cast<size_t>(rows);
        for (const fdl::field &field : fields) {
            int32_t row = fdl::name_slot(field.name, rows);
            auto name = [&] { return bytes.c_str() + 12 + 52 * static_cast<size_t>(row); };
            while (*name() != 0 && field.name != name())
                row = (row + 1) % rows;
            ASSERT_EQ(field.name, name());
            ASSERT_EQ(word_at(bytes, 12 + 52 * static_cast<size_t>(row) + 48), field.key);
            int32_t key_row = fdl::key_slot(field.key, rows);
            auto key = [&](size_t at) {
                return word_at(bytes, keys_at + 8 * static_cast<size_t>(key_row) + at);
            };
            while (key(4) != -1 && key(0) != field.key)
                key_row = (key_row + 1) % rows;
            ASSERT_EQ(key(0), field.key);
            ASSERT_EQ(key(4), row);
        }
    }
}

// The library translates all of the fields, both ways, and nothing else.
static void expect_found(const std::vector<fdl::field> &fields)
{
    for (const fdl::field &field : fields) {
        std::string name = field.name;
        ASSERT_EQ(fbget_fldkey(name.data()), field.key) << name;
        const char *found = fbget_fldname(field.key);
        ASSERT_NE(found, nullptr) << name;
        ASSERT_EQ(found, name);
    }
    char other[] = "NO_SUCH_FIELD";
    EXPECT_EQ(fbget_fldkey(other), 0);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(fbget_fldname(fbmake_fldkey(3, 0xfffffe)), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
}

struct FdlcRows : Toolbox, testing::WithParamInterface<int> {};

TEST_P(FdlcRows, LibraryFindsEveryNameAndKey)
{
    std::vector<fdl::field> fields = many_fields(GetParam());
    write("a.fdl", text_of(fields));
    ASSERT_EQ(fdlc("-o a.fdb --rows " + std::to_string(GetParam()) + " a.fdl").status, 0);
    setenv("FDLFILE", (dir / "a.fdb").c_str(), 1);
    expect_found(fields);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FdlcRows, testing::Values(1, 2, 3, 12, 511, 512, 513, 2000));

TEST_F(Fdlc, LibraryFindsEveryNameOfTablesWithFreeRows)
{
    std::vector<fdl::field> fields = many_fields(600);
    write("a.fdl", text_of(fields));
    ASSERT_EQ(fdlc("-o a.fdb a.fdl").status, 0);
    setenv("FDLFILE", (dir / "a.fdb").c_str(), 1);
    expect_found(fields);
}

TEST_F(Fdlc, LibraryFindsEveryNameOfSeveralFiles)
{
    const int counts[] = {5, 300, 12, 600};
    std::vector<fdl::field> all;
    std::string list;
    for (int i = 0; i < 4; i++) {
        std::string name(1, static_cast<char>('a' + i));
        std::vector<fdl::field> fields = many_fields(counts[i], name);
        for (fdl::field &field : fields)
            field.key += 1000000 * i;
        write(name + ".fdl", text_of(fields));
        ASSERT_EQ(fdlc("-o " + name + ".fdb " + name + ".fdl").status, 0);
        list += (i ? "," : "") + (dir / (name + ".fdb"));
        all.insert(all.end(), fields.begin(), fields.end());
    }
    setenv("FDLFILE", list.c_str(), 1);
    expect_found(all);
}
