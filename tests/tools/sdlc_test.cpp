// sdlc: the text, its errors, the binary file against what a C compiler makes of the header, and the library
// making use of it.
#include <arpa/inet.h>

#include "buffers/sdli.h"
#include "session/cliapi.h"
#include "support/fdlfile.h"
#include "support/sdlfile.h"
#include "tools/process.h"
#include "vorn/buffers.h"
#include "vorn/fields.h"
#include "vorn/structs.h"

using Sdlc = Toolbox;

static sdl::member member_of(const std::string &name, int32_t type, int32_t count, int32_t element,
                             int32_t host, int32_t wire, const std::string &null = "")
{
    sdl::member member;
    member.name = name;
    member.type = type;
    member.count = count;
    member.element = element;
    member.host_offset = host;
    member.wire_offset = wire;
    member.null = null;
    return member;
}

static const char ALL_TYPES[] = "# all types, with gaps before most on the host\n"
                                "struct all {\n"
                                "    char c;\n"
                                "    short s;\n"
                                "    char c5[5];\n"
                                "    int i[3];\n"
                                "    char d;\n"
                                "    long l;\n"
                                "    float f;\n"
                                "    double g[2];\n"
                                "    string t[7];\n"
                                "    string u[3][5];\n"
                                "    carray b[2][3];\n"
                                "    long m[2];\n"
                                "    char e;\n"
                                "};\n";

static sdl::record all_types()
{
    return {"all",
            {member_of("c", sdl::CHAR, 1, 1, 0, 0), member_of("s", sdl::SHORT, 1, 0, 2, 1, "0"),
             member_of("c5", sdl::CHAR, 5, 1, 4, 3), member_of("i", sdl::INT, 3, 0, 12, 8, "0"),
             member_of("d", sdl::CHAR, 1, 1, 24, 20), member_of("l", sdl::LONG, 1, 0, 32, 21, "0"),
             member_of("f", sdl::FLOAT, 1, 0, 40, 25, "0"), member_of("g", sdl::DOUBLE, 2, 0, 48, 29, "0"),
             member_of("t", sdl::STRING, 7, 7, 64, 45), member_of("u", sdl::STRING, 15, 5, 71, 52),
             member_of("b", sdl::CARRAY, 6, 3, 86, 67), member_of("m", sdl::LONG, 2, 0, 96, 73, "0"),
             member_of("e", sdl::CHAR, 1, 1, 112, 81)},
            120,
            82};
}

TEST_F(Sdlc, WritesEveryTypeToTheByte)
{
    write("a.sdl", ALL_TYPES);
    outcome result = sdlc("-o a.sdb a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(read("a.sdb"), sdl::file_bytes({all_types()}));
}

TEST_F(Sdlc, MembersAreNumberedOverTheFile)
{
    write("a.sdl", "struct a { int x; int y; }; struct b { char z; }");
    write("b.sdl", "struct c { struct a pair[3]; struct b one; short s; };\n");
    ASSERT_EQ(sdlc("-o a.sdb a.sdl b.sdl").status, 0);
    sdl::member pair = member_of("pair", sdl::NESTED, 3, 0, 0, 0),
                one = member_of("one", sdl::NESTED, 1, 0, 24, 24);
    one.nested = 1;
    EXPECT_EQ(read("a.sdb"),
              sdl::file_bytes(
                  {{"a",
                    {member_of("x", sdl::INT, 1, 0, 0, 0, "0"), member_of("y", sdl::INT, 1, 0, 4, 4, "0")},
                    8,
                    8},
                   {"b", {member_of("z", sdl::CHAR, 1, 1, 0, 0)}, 1, 1},
                   {"c", {pair, one, member_of("s", sdl::SHORT, 1, 0, 26, 25, "0")}, 28, 27}}));
}

TEST_F(Sdlc, KeysComeByNumberTypeAndName)
{
    write("a.fdl", "NAME 1 string\nint 2 int\nbig 0xffffff carray\n");
    write("b.fdb", fdl::file_bytes({{"OTHER", fbmake_fldkey(6, 5)}, {"MORE", fbmake_fldkey(5, 6)}}));
    write("a.sdl",
          "struct a {\n int a key 469762148;\n int b key 0x1c000064;\n int c key string 100;\n"
          " int d key NAME;\n int e key \"int\";\n int f key big;\n int g key OTHER;\n int h;\n};\n");
    outcome result = sdlc("-o a.sdb --fields a.fdl --fields=b.fdb a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    sdl::record record{"a", {}, 32, 32};
    int32_t keys[] = {469762148,           469762148,
                      469762148,           fbmake_fldkey(7, 1),
                      fbmake_fldkey(3, 2), fbmake_fldkey(8, 0xffffff),
                      fbmake_fldkey(6, 5), 0};
    for (int i = 0; i < 8; i++) {
        record.members.push_back(
            member_of(std::string(1, static_cast<char>('a' + i)), sdl::INT, 1, 0, 4 * i, 4 * i, "0"));
        record.members.back().key = keys[i];
    }
    EXPECT_EQ(read("a.sdb"), sdl::file_bytes({record}));
}

TEST_F(Sdlc, NullValuesAreKeptAsText)
{
    write("a.sdl",
          "struct a {\n char a null \"-\";\n char b null \"\";\n short c null -32768;\n int d null \"007\";\n"
          " long e null -9223372036854775808;\n float f null 1.5e3;\n double g null \"-0.25\";\n"
          " string h[4] null \"abc\";\n carray i[40] null \"1234567890123456789012345678901\";\n"
          " int j null \"\";\n double k null -.5;\n};\n");
    outcome result = sdlc("-o a.sdb a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    const char *const nulls[] = {"-",
                                 "",
                                 "-32768",
                                 "007",
                                 "-9223372036854775808",
                                 "1.5e3",
                                 "-0.25",
                                 "abc",
                                 "1234567890123456789012345678901",
                                 "",
                                 "-.5"};
    std::string bytes = read("a.sdb");
    for (size_t i = 0; i < 11; i++) {
        std::string text = bytes.substr(sdl::member_word(1, i, 40), 32);
        EXPECT_EQ(text, nulls[i] + std::string(32 - strlen(nulls[i]), '\0')) << i;
    }
}

TEST_F(Sdlc, GivenLayoutsStand)
{
    write("a.sdl", "struct a size 64, 0x20 word -7 {\n int x at 8, 4;\n char c;\n long l at 48, 28;\n int z "
                   "at 0, 0;\n};\n");
    outcome result = sdlc("-o a.sdb a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(read("a.sdb"),
              sdl::file_bytes(
                  {{"a",
                    {member_of("x", sdl::INT, 1, 0, 8, 4, "0"), member_of("c", sdl::CHAR, 1, 1, 12, 8),
                     member_of("l", sdl::LONG, 1, 0, 48, 28, "0"), member_of("z", sdl::INT, 1, 0, 0, 0, "0")},
                    64,
                    32,
                    -7}}));
    ASSERT_EQ(sdlc("--dump a.sdb >b.sdl").status, 0);
    EXPECT_EQ(read("b.sdl"), "struct a size 64, 32 word -7 {\n    int x at 8, 4;\n    char c;\n"
                             "    long l at 48, 28;\n    int z at 0, 0;\n};\n");
}

TEST_F(Sdlc, ErrorsNameFileLineAndCause)
{
    const mistake mistakes[] = {
        {"", "a.sdl: no struct in it"},
        {"int x;", "a.sdl:1: expected struct, but here is int"},
        {"struct {", "a.sdl:1: expected the name of a struct, but here is {"},
        {"struct a\nint x;", "a.sdl:2: expected size, word or {, but here is int"},
        {"struct a { };", "a.sdl:1: struct a has no member"},
        {"struct a {\nint x;\n", "a.sdl:3: struct a has no } at its end"},
        {"struct a {\ninteger x;\n};", "a.sdl:2: unknown type integer"},
        {"struct a {\nint 5;\n};", "a.sdl:2: expected the name of a member, but here is 5"},
        {"struct a {\nint x\n};", "a.sdl:3: expected key, null, at or ;, but here is }"},
        {"struct a { int x; int y;\nchar x; };", "a.sdl:2: struct a has a member x since line 1"},
        {"struct a { int x; };\nstruct a { int x; };", "a.sdl:2: struct a is defined at a.sdl:1"},
        {"struct a1234567890123456 { int x; };\nstruct a1234567890123457 { int x; };",
         "a.sdl:2: structs a1234567890123457 and a1234567890123456 (a.sdl:1) agree in the 16 characters that "
         "count"},
        {"struct a12345678901234567890123456789012 { int x; };",
         "a.sdl:1: name of 33 characters; it has at most 31"},
        {"struct a { int\na12345678901234567890123456789012; };",
         "a.sdl:2: name of 33 characters; it has at most 31"},
        {"struct a { int x[0]; };", "a.sdl:1: a count is a number of 1 to 2147483647, and not 0"},
        {"struct a { int x[2147483648]; };",
         "a.sdl:1: a count is a number of 1 to 2147483647, and not 2147483648"},
        {"struct a { int x[-1]; };", "a.sdl:1: a count is a number of 1 to 2147483647, and not -1"},
        {"struct a { int x[n]; };", "a.sdl:1: a count is a number of 1 to 2147483647, and not n"},
        {"struct a { int x[2][2]; };", "a.sdl:1: only strings and carrays have two counts"},
        {"struct a { string x; };", "a.sdl:1: a string or carray needs its bytes in []"},
        {"struct a { int x[3; };", "a.sdl:1: expected ], but here is ;"},
        {"struct a {\nstruct b x; };\nstruct b { int x; };", "a.sdl:2: struct b isn't defined up to here"},
        {"struct a {\nint n; struct a x; };", "a.sdl:2: struct a can't hold itself"},
        {"struct b1234567890123456 { int x; };\nstruct a { struct b1234567890123457 x; };",
         "a.sdl:2: struct b1234567890123457 isn't defined up to here"},
        {"struct a { char x;\nint y[536870911]; };",
         "a.sdl:2: with y the struct is larger than 2147483647 bytes"},
        {"struct a { int x[500000000];\n};\nstruct b { struct a y[2147483647]; int z; };",
         "a.sdl:3: with y the struct is larger than 2147483647 bytes"},
        {"struct a { string s[2147483647][2147483647]; int z; };",
         "a.sdl:1: with s the struct is larger than 2147483647 bytes"},
        {"struct a { char x[2147483647]; int y at 0, 0; };",
         "a.sdl:1: struct a is larger than 2147483647 bytes"},
        {"struct a { int x key 5; };", "a.sdl:1: 5 is no field key"},
        {"struct a { int x key 0x0c000000; };", "a.sdl:1: 0x0c000000 is no field key"},
        {"struct a { int x key 0x0d000001; };", "a.sdl:1: 0x0d000001 is no field key"},
        {"struct a { int x key 0x0e000001; };", "a.sdl:1: 0x0e000001 is no field key"},
        {"struct a { int x key 0x24000001; };", "a.sdl:1: 0x24000001 is no field key"},
        {"struct a { int x key 99999999999; };", "a.sdl:1: 99999999999 is no field key"},
        {"struct a { int x key int 16777216; };",
         "a.sdl:1: the number of a field is a number of 1 to 16777215"},
        {"struct a { int x key int; };",
         "a.sdl:1: the number of a field is a number of 1 to 16777215, and not ;"},
        {"struct a { int x key NAME; };", "a.sdl:1: unknown field NAME; name the field table with --fields"},
        {"struct a { int x key ; };", "a.sdl:1: expected a field's key or name, but here is ;"},
        {"struct a { int x null ; };",
         "a.sdl:1: expected a null value, a number or a quoted text, but here is ;"},
        {"struct b { int x; };\nstruct a { struct b x key 5; };", "a.sdl:2: a nested struct has no key"},
        {"struct b { int x; };\nstruct a { struct b x null 5; };",
         "a.sdl:2: a nested struct has no null value"},
        {"struct a { int x null 1x; };", "a.sdl:1: null value \"1x\" is no int"},
        {"struct a { int x null 0x10; };", "a.sdl:1: null value \"0x10\" is no int"},
        {"struct a { int x null 2147483648; };", "a.sdl:1: null value \"2147483648\" is no int"},
        {"struct a { short x null 32768; };", "a.sdl:1: null value \"32768\" is no short"},
        {"struct a { long x null 9223372036854775808; };",
         "a.sdl:1: null value \"9223372036854775808\" is no long"},
        {"struct a { float x null \"one\"; };", "a.sdl:1: null value \"one\" is no float"},
        {"struct a { double x null 1e999; };", "a.sdl:1: null value \"1e999\" is no double"},
        {"struct a { char x null 0; };", "a.sdl:1: the null value of a char is a quoted text"},
        {"struct a { char x null \"ab\"; };", "a.sdl:1: null value \"ab\" is more than a character"},
        {"struct a { string x[3] null \"abc\"; };",
         "a.sdl:1: null value \"abc\" with its NUL doesn't fit into 3 bytes"},
        {"struct a { carray x[9][3] null \"abc\"; };",
         "a.sdl:1: null value \"abc\" with its NUL doesn't fit into 3 bytes"},
        {"struct a { string x[99] null \"12345678901234567890123456789012\"; };",
         "a.sdl:1: null value of 32 characters; it has at most 31"},
        {"struct a { int x at 4; };", "a.sdl:1: expected ,, but here is ;"},
        {"struct a { int x at -4, 0; };", "a.sdl:1: an offset is a number of 0 to 2147483647, and not -4"},
        {"struct a { int x at 2147483644, 0; };",
         "a.sdl:1: with x the struct is larger than 2147483647 bytes"},
        {"struct a size 8, 8 {\nint x; int y; int z; };", "a.sdl:2: z doesn't fit into the size of struct a"},
        {"struct a size 16, 8 {\nint x; int y; int z; };",
         "a.sdl:2: z doesn't fit into the size of struct a"},
        {"struct a size 0, 8 { int x; };", "a.sdl:1: a size is a number of 1 to 2147483647, and not 0"},
        {"struct a word 2147483648 { int x; };",
         "a.sdl:1: the word is a number of -2147483648 to 2147483647"},
        {"struct a { int x;\nint y at 3, 4; };", "a.sdl:2: x and y overlap on the host"},
        {"struct a { int x at 4, 3;\nint y at 0, 0; };", "a.sdl:1: y and x overlap on the wire"},
        {"struct a { int x; } @", "a.sdl:1: '@' doesn't belong here"},
    };
    for (const mistake &each : mistakes) {
        write("a.sdl", each.text);
        outcome result = sdlc("-o a.sdb a.sdl");
        EXPECT_EQ(result.status, 1) << each.text;
        EXPECT_EQ(result.output.compare(0, strlen(each.error), each.error), 0) << each.text << "\n"
                                                                               << result.output;
        EXPECT_FALSE(exists("a.sdb")) << each.text;
    }
}

TEST_F(Sdlc, ErrorsDoNotHideTheNext)
{
    write("a.sdl", "struct a {\n    what x;\n    int y null z;\n    struct q r;\n    int n[2][2];\n    int m "
                   "null \"x\";\n"
                   "};\nstruct b c {\n    int x;\n};\nstruct d {\n    struct a y;\n    int x key 1;\n};\n");
    EXPECT_EQ(sdlc("-o a.sdb a.sdl").output,
              "a.sdl:2: unknown type what\n"
              "a.sdl:3: expected a null value, a number or a quoted text, but here is z\n"
              "a.sdl:4: struct q isn't defined up to here\n"
              "a.sdl:5: only strings and carrays have two counts\n"
              "a.sdl:6: null value \"x\" is no int\n"
              "a.sdl:8: expected size, word or {, but here is c\n"
              "a.sdl:13: 1 is no field key\n");
}

TEST_F(Sdlc, ErrorsOfTheFieldTableAreItsOwn)
{
    write("a.sdl", "struct a { int x key B; };\n");
    write("a.fdl", "A 1 int\nA 2 int\n");
    EXPECT_EQ(sdlc("-o a.sdb --fields a.fdl a.sdl").output, "a.fdl:2: name A is taken since a.fdl:1\n"
                                                            "a.sdl:1: unknown field B\n");
    EXPECT_EQ(sdlc("-o a.sdb --fields none a.sdl").status, 1);
}

TEST_F(Sdlc, WrongCommandLinesEndWithTwo)
{
    write("a.sdl", "struct a { int x; };\n");
    const mistake lines[] = {
        {"", "sdlc: no text to compile\ntry sdlc --help\n"},
        {"a.sdl", "sdlc: nothing to write: give -o or --c-header\n"},
        {"--rows 5 -o a.sdb a.sdl", "sdlc: unknown option --rows\n"},
        {"--fields", "sdlc: --fields needs FILE\n"},
        {"--dump a.sdb -o b.sdb", "sdlc: --dump stands alone\n"},
    };
    for (const mistake &each : lines) {
        outcome result = sdlc(each.text);
        EXPECT_EQ(result.status, 2) << each.text;
        EXPECT_EQ(result.output.compare(0, strlen(each.error), each.error), 0) << result.output;
    }
    EXPECT_EQ(sdlc("--help").status, 0);
    EXPECT_EQ(sdlc("-o a.sdb none.sdl").output, "none.sdl: No such file or directory\n");
}

// What a C compiler makes of the header: size, then name, offset and size of each member.
static std::string layout_program(const std::string &header, const std::string &name,
                                  const std::vector<std::string> &members)
{
    std::string text = "#include <stddef.h>\n#include <stdio.h>\n#include \"" + header + "\"\n#include \"" +
                       header + "\"\nint main(void)\n{\n    printf(\"%d\\n\", (int)sizeof(struct " + name +
                       "));\n";
    for (const std::string &member : members)
        text += "    printf(\"" + member + " %d %d\\n\", (int)offsetof(struct " + name + ", " + member +
                "), (int)sizeof(((struct " + name + " *)0)->" + member + "));\n";
    return text + "    return 0;\n}\n";
}

// The same, from the binary file.
static std::string layout_in(const std::string &bytes, int row)
{
    static const int UNITS[] = {0, 1, 2, 4, 8, 4, 8, 1, 1, 0};
    size_t structs = static_cast<size_t>(word_at(bytes, 4));
    auto host_size = [&](int32_t index) {
        return word_at(bytes, sdl::struct_word(static_cast<size_t>(index), 48));
    };
    std::string text = std::to_string(host_size(row)) + "\n";
    int32_t first = word_at(bytes, sdl::struct_word(static_cast<size_t>(row), 32));
    int32_t last = word_at(bytes, sdl::struct_word(static_cast<size_t>(row), 36));
    for (int32_t i = first; i <= last; i++) {
        auto word = [&](size_t offset) {
            return word_at(bytes, sdl::member_word(structs, static_cast<size_t>(i), offset));
        };
        int unit = word(36) == sdl::NESTED ? host_size(word(72)) : UNITS[word(36)];
        text += bytes.c_str() + sdl::member_word(structs, static_cast<size_t>(i), 0) +
                (" " + std::to_string(word(84))) + " " + std::to_string(unit * word(76)) + "\n";
    }
    return text;
}

TEST_F(Sdlc, OffsetsAreThoseOfTheCCompiler)
{
    write("a.sdl", std::string(ALL_TYPES) + "struct odd { char a[3]; };\n"
                                            "struct two { short s; struct odd o[3]; char c; };\n"
                                            "struct deep { char c; struct two t[2]; char d; struct all a[2]; "
                                            "char e; double f; float g; };\n");
    outcome result = sdlc("-o a.sdb --c-header a.h a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    const std::vector<std::pair<std::string, std::vector<std::string>>> structs = {
        {"all", {"c", "s", "c5", "i", "d", "l", "f", "g", "t", "u", "b", "m", "e"}},
        {"odd", {"a"}},
        {"two", {"s", "o", "c"}},
        {"deep", {"c", "t", "d", "a", "e", "f", "g"}}};
    for (size_t i = 0; i < structs.size(); i++)
        EXPECT_EQ(
            print_of("p" + std::to_string(i), layout_program("a.h", structs[i].first, structs[i].second)),
            layout_in(read("a.sdb"), static_cast<int>(i)))
            << structs[i].first;
}

// Random members in random order; each struct may hold those before it.
TEST_F(Sdlc, OffsetsOfRandomStructsAreThoseOfTheCCompiler)
{
    static const char *const TYPES[] = {"char",  "short",  "int",    "long",
                                        "float", "double", "string", "carray"};
    unsigned seed = 1;
    auto random = [&](unsigned below) { return (seed = seed * 1103515245 + 12345) / 65536 % below; };
    std::string text,
        program = "#include <stddef.h>\n#include <stdio.h>\n#include \"a.h\"\nint main(void)\n{\n";
    for (unsigned i = 0; i < 40; i++) {
        std::string name = "s" + std::to_string(i);
        text += "struct " + name + " {\n";
        program += "    printf(\"%d\\n\", (int)sizeof(struct " + name + "));\n";
        for (unsigned m = 0, members = 1 + random(8); m < members; m++) {
            std::string member = "m" + std::to_string(m), count = "[" + std::to_string(1 + random(9)) + "]";
            unsigned type = random(i > 0 ? 9 : 8);
            text += type == 8 ? "struct s" + std::to_string(random(i)) : TYPES[type];
            text += " " + member + (type >= 6 && type < 8 && random(2) ? "[3]" + count : count) + ";\n";
            program += "    printf(\"" + member + " %d %d\\n\", (int)offsetof(struct " + name + ", " +
                       member + "), (int)sizeof(((struct " + name + " *)0)->" + member + "));\n";
        }
        text += "};\n";
    }
    write("a.sdl", text);
    outcome result = sdlc("-o a.sdb --c-header a.h a.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    std::string expected, bytes = read("a.sdb");
    for (int i = 0; i < 40; i++)
        expected += layout_in(bytes, i);
    EXPECT_EQ(print_of("random", program + "    return 0;\n}\n"), expected);
    ASSERT_EQ(sdlc("--dump a.sdb >b.sdl && " SDLC_PATH " -o b.sdb b.sdl").status, 0);
    EXPECT_EQ(read("b.sdb"), bytes);
}

TEST_F(Sdlc, HeaderRefusesWhatCCannotSay)
{
    write("a.sdl",
          "struct class {\n    int x;\n};\nstruct a {\n    int int;\n};\nstruct b {\n    int x at 4, 0;\n};\n"
          "struct c size 12, 8 {\n    int x;\n};\nstruct d size 16, 40 {\n    int x at 0, 9;\n};\n");
    ASSERT_EQ(sdlc("-o a.sdb a.sdl").status, 0);
    EXPECT_EQ(sdlc("-o b.sdb --c-header a.h a.sdl").output,
              "a.sdl:1: class can't be a name in the C header\n"
              "a.sdl:5: int can't be a name in the C header\n"
              "a.sdl:7: struct b isn't laid out as in C, so the C header can't have it\n"
              "a.sdl:10: struct c isn't laid out as in C, so the C header can't have it\n"
              "a.sdl:13: struct d isn't laid out as in C, so the C header can't have it\n");
    EXPECT_FALSE(exists("b.sdb") || exists("a.h"));
}

TEST_F(Sdlc, DumpsCompileToTheSameBytes)
{
    write("a.sdl",
          std::string(ALL_TYPES) +
              "struct b { char c key char 5 null \"\\\"\"; string s[2][9] key carray 77 null "
              "\"a\\\\\\x01\\xff\"; "
              "int i null 5; int j null \"\"; struct all a; };\n"
              "struct c size 100, 50 word 9 { long l at 8, 4; int x; double d at 90, 40; int y at 0, 36; };\n"
              "struct d { short s at 6, 0; };\n");
    outcome result =
        sdlc("-o a.sdb a.sdl && " SDLC_PATH " --dump a.sdb >b.sdl && " SDLC_PATH " -o b.sdb b.sdl");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(read("a.sdb"), read("b.sdb"));
}

TEST_F(Sdlc, DumpRefusesDamagedFiles)
{
    const std::string good = sdl::file_bytes(
        {{"a", {member_of("x", sdl::INT, 1, 0, 0, 0)}, 4, 4},
         {"b", {member_of("n", sdl::NESTED, 1, 0, 0, 0), member_of("s", sdl::STRING, 6, 3, 4, 4)}, 12, 10}});
    struct {
        size_t offset;
        int32_t word;
        const char *error;
    } damages[] = {
        {0, 8888, "a.sdb: no struct definition file\n"},
        {4, 1, "a.sdb: 416 bytes don't hold 1 structs and 3 members\n"},
        {4, -1, "a.sdb: 416 bytes don't hold -1 structs and 3 members\n"},
        {8, 4, "a.sdb: 416 bytes don't hold 2 structs and 4 members\n"},
        {sdl::struct_word(0, 0), 0, "a.sdb: struct 0 has a name that is no word\n"},
        {sdl::struct_word(1, 32), -1, "a.sdb: struct 1 has members or sizes that can't be\n"},
        {sdl::struct_word(1, 36), 3, "a.sdb: struct 1 has members or sizes that can't be\n"},
        {sdl::struct_word(1, 36), 0, "a.sdb: struct 1 has members or sizes that can't be\n"},
        {sdl::struct_word(0, 48), 0, "a.sdb: struct 0 has members or sizes that can't be\n"},
        {sdl::struct_word(0, 60), 1, "a.sdb: struct 0 has members or sizes that can't be\n"},
        {sdl::member_word(2, 0, 0), 32, "a.sdb: member 0, in struct a, has a name that is no word\n"},
        {sdl::member_word(2, 0, 32), 5, "a.sdb: member 0, in struct a, has a key that no field has\n"},
        {sdl::member_word(2, 0, 36), 0, "a.sdb: member 0, in struct a, has an unknown type\n"},
        {sdl::member_word(2, 0, 36), 10, "a.sdb: member 0, in struct a, has an unknown type\n"},
        {sdl::member_word(2, 1, 72), 1,
         "a.sdb: member 1, in struct b, has a nested struct that doesn't stand in front"},
        {sdl::member_word(2, 1, 72), -1,
         "a.sdb: member 1, in struct b, has a nested struct that doesn't stand"},
        {sdl::member_word(2, 0, 76), 0,
         "a.sdb: member 0, in struct a, has a count that isn't made of whole elements\n"},
        {sdl::member_word(2, 2, 80), 4,
         "a.sdb: member 2, in struct b, has a count that isn't made of whole elements\n"},
        {sdl::member_word(2, 2, 80), 0,
         "a.sdb: member 2, in struct b, has a count that isn't made of whole elements\n"},
        {sdl::member_word(2, 2, 84), -4, "a.sdb: member 2, in struct b, has a negative offset\n"},
    };
    for (auto [offset, word, error] : damages) {
        std::string bytes = good;
        sdl::set_word(bytes, offset, word);
        write("a.sdb", bytes);
        outcome result = sdlc("--dump a.sdb");
        EXPECT_EQ(result.status, 1) << offset;
        EXPECT_EQ(result.output.compare(0, strlen(error), error), 0) << result.output;
    }
    for (size_t size = 0; size < good.size(); size++) {
        write("a.sdb", good.substr(0, size));
        ASSERT_EQ(sdlc("--dump a.sdb").status, 1) << size;
    }
}

TEST_F(Sdlc, NestsAsDeepAsTheLibraryTakes)
{
    std::string text = "struct s1 { long l; };\n";
    for (int i = 2; i <= 64; i++)
        text += "struct s" + std::to_string(i) + " { struct s" + std::to_string(i - 1) + " x; };\n";
    write("a.sdl", text);
    ASSERT_EQ(sdlc("-o a.sdb a.sdl").status, 0);
    setenv("SDLFILE", (dir / "a.sdb").c_str(), 1);
    ASSERT_EQ(_sdlfile_load(), 1);
    EXPECT_EQ(_get_host_stsize("s64"), 8);
    write("a.sdl", text + "struct s65 { int i; struct s64 x; };\n");
    EXPECT_EQ(sdlc("-o a.sdb a.sdl").output, "a.sdl:65: struct s65 nests more than 64 deep\n");
}

struct pair_of_longs {
    int32_t id;
    int64_t value;
};

TEST_F(Sdlc, LibraryKnowsTheStructs)
{
    write("a.sdl", "struct inner { int id; long value; };\n"
                   "struct outer_with_a_long_name { char c; struct inner pairs[2]; string s[6]; };\n");
    write("b.sdl", "struct other { long l[3]; };\n");
    ASSERT_EQ(sdlc("-o a.sdb a.sdl && " SDLC_PATH " -o b.sdb b.sdl").status, 0);
    setenv("SDLFILE", (dir / "a.sdb" + "," + (dir / "b.sdb")).c_str(), 1);
    char type[] = "STRUCT", inner[] = "inner", outer[] = "outer_with_a_longer_name", other[] = "other",
         none[] = "none";
    for (char *name : {inner, outer, other}) {
        char *data = tpalloc(type, name, 0);
        EXPECT_NE(data, nullptr) << name;
        tpfree(data);
    }
    EXPECT_EQ(tpalloc(type, none, 0), nullptr);
    EXPECT_EQ(_get_host_stsize("inner"), 16);
    EXPECT_EQ(_get_host_stsize("outer_with_a_lo"), -1);
    int host = 0, wire = 0;
    ASSERT_EQ(_get_host_nw_stsize("outer_with_a_long_name", &host, &wire), 1);
    EXPECT_EQ(host, 48);
    EXPECT_EQ(wire, 1 + 2 * 8 + 6);

    // The second file's members stand behind the first's.
    EXPECT_EQ(_get_host_nw_stsize("other", &host, &wire), 1);
    EXPECT_EQ(host, 24);
    EXPECT_EQ(wire, 12);
    int64_t longs[3] = {1, 2, -1};
    uint32_t encoded[3] = {};
    _sdl_encode(2, reinterpret_cast<char *>(longs), reinterpret_cast<char *>(encoded));
    EXPECT_EQ(ntohl(encoded[0]), 1u);
    EXPECT_EQ(ntohl(encoded[1]), 2u);
    EXPECT_EQ(ntohl(encoded[2]), 0xffffffffu);
}

TEST_F(Sdlc, RecordsOfTheHeaderTravelWholeAndWithoutGaps)
{
    write("a.sdl", "struct inner { int id; long value; };\n"
                   "struct outer { char c; struct inner pairs[2]; double d; string s[5]; };\n");
    ASSERT_EQ(sdlc("-o a.sdb a.sdl").status, 0);
    setenv("SDLFILE", (dir / "a.sdb").c_str(), 1);
    ASSERT_EQ(_sdlfile_load(), 1);
    _check_node();
    struct {
        char c;
        pair_of_longs pairs[2];
        double d;
        char s[5];
    } record = {'x', {{1, 2}, {-3, 0x11223344}}, 1.0, "text"}, back = {};
    ASSERT_EQ(_get_host_stsize("outer"), static_cast<int>(sizeof record));
    std::string wire(1 + 16 + 8 + 5, '\x55');
    _sdl_encode(1, reinterpret_cast<char *>(&record), wire.data());
    EXPECT_EQ(wire, std::string("x"
                                "\0\0\0\1\0\0\0\2\xff\xff\xff\xfd\x11\x22\x33\x44"
                                "\x3f\xf0\0\0\0\0\0\0"
                                "text\0",
                                30));
    _sdl_decode(1, wire.data(), reinterpret_cast<char *>(&back));
    EXPECT_EQ(back.c, 'x');
    EXPECT_EQ(back.pairs[0].id, 1);
    EXPECT_EQ(back.pairs[1].id, -3);
    EXPECT_EQ(back.pairs[1].value, 0x11223344);
    EXPECT_EQ(back.d, 1.0);
    EXPECT_STREQ(back.s, "text");
}

// Members with a key become fields unless they hold their null value; those without one don't.
TEST_F(Sdlc, LibraryMapsByKeysAndNullValues)
{
    write("a.fdl", "COUNTS 1 int\nNAMES 2 string\nFLAG 3 char\n");
    write("a.sdl", "struct a { int n[3] key COUNTS null -1; string s[2][6] key NAMES null \"none\";\n"
                   "char c key FLAG null \"-\"; long unmapped null 7; };\n");
    ASSERT_EQ(sdlc("-o a.sdb --fields a.fdl a.sdl").status, 0);
    setenv("SDLFILE", (dir / "a.sdb").c_str(), 1);
    ASSERT_EQ(_sdlfile_load(), 1);
    struct {
        int32_t n[3];
        char s[2][6];
        char c;
        int64_t unmapped;
    } record = {{5, -1, 6}, {"none", "text"}, '-', 8};
    char name[] = "a";
    FBUF *fbuf = fballoc(16, 256);
    ASSERT_EQ(fbstof(fbuf, reinterpret_cast<char *>(&record), 4, name), 1);
    EXPECT_EQ(fbkeyoccur(fbuf, fbmake_fldkey(3, 1)), 2);
    EXPECT_EQ(fbkeyoccur(fbuf, fbmake_fldkey(7, 2)), 1);
    EXPECT_EQ(fbkeyoccur(fbuf, fbmake_fldkey(1, 3)), 0);
    EXPECT_EQ(fbget_used(fbuf), 8 + 2 * 8 + 16);
    ASSERT_EQ(fbftos(fbuf, reinterpret_cast<char *>(&record), name), 1);
    EXPECT_EQ(record.n[0], 5);
    EXPECT_EQ(record.n[1], 6);
    EXPECT_EQ(record.n[2], -1);
    EXPECT_STREQ(record.s[0], "text");
    EXPECT_STREQ(record.s[1], "none");
    EXPECT_EQ(record.c, '-');
    EXPECT_EQ(record.unmapped, 7);
    fbfree(fbuf);
}
