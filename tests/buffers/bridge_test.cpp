// Records and field buffers as text: pieces, values, rows, blocks, and files.
#include "buffers/bridge.h"

using namespace bridge;

namespace {

struct TextPieces : Bridge {};
struct RecordText : Bridge {};
struct FieldText : Bridge {};
struct FieldRows : Bridge {};

}

TEST_F(TextPieces, ValuesEndAtATabOrANewline)
{
    char text[] = "one\ttwo\n\tend", separator = '?';
    EXPECT_EQ(_get_value_from_pbsdata(text, &separator), 4);
    EXPECT_EQ(separator, '\t');
    EXPECT_STREQ(text, "one");
    EXPECT_EQ(_get_value_from_pbsdata(text + 4, &separator), 4);
    EXPECT_EQ(separator, '\n');
    EXPECT_EQ(_get_value_from_pbsdata(text + 8, &separator), 1);
    EXPECT_EQ(_get_value_from_pbsdata(text + 9, &separator), 3) << "the end of the text has no separator";
}

TEST_F(TextPieces, LinesHaveANameAndAValue)
{
    char text[] = "NAME\ta\tb\r\nc\nrest";
    int value = 0;
    EXPECT_EQ(_get_name_value_from_pbfdata(text, &value), 12);
    EXPECT_STREQ(text, "NAME");
    EXPECT_EQ(value, 5);
    EXPECT_STREQ(text + value, "a\tb\r\nc");
    EXPECT_STREQ(text + 12, "rest");
}

TEST_F(TextPieces, FormsHaveANameALine)
{
    char form[] = "ONE\n\nTWO";
    EXPECT_EQ(_get_name_from_form(form), 4);
    EXPECT_STREQ(form, "ONE");
    EXPECT_EQ(_get_name_from_form(form + 4), 1);
    EXPECT_EQ(_get_name_from_form(form + 5), 3);
}

TEST_F(TextPieces, OnlyTheWholeNameStandsForAFile)
{
    EXPECT_EQ(chk_name((char *)"FILENAM"), 1);
    EXPECT_EQ(chk_name((char *)"FILENAME"), -1);
    EXPECT_EQ(chk_name((char *)"FILENA"), -1);
}

TEST_F(RecordText, NumberAndTextBothWays)
{
    ASSERT_EQ(load_records({short_record()}), 1);
    std::string text = "7\tab\t-1\tcde\n", record(16, '?');
    ASSERT_EQ(_make_struct_from_pbindata((char *)"pair", record.data(), 16, text.data()), 1);
    EXPECT_EQ(text, "7\tab\t-1\tcde\n");
    EXPECT_EQ(record, std::string("\7\0\0\0ab\0?\xff\xff\xff\xff"
                                  "cde\0",
                                  16));
    char out[64];
    memset(out, '?', sizeof out);
    ASSERT_EQ(_make_pbodata_from_struct((char *)"pair", out, 16, record.data()), 1);
    EXPECT_EQ(std::string(out, 19), "7\tab\r\n-1\tcde\r\n\x7f????");
}

TEST_F(RecordText, EachTypeOfNumber)
{
    ASSERT_EQ(
        load_records({record_of("all",
                                {{.name = "s", .type = sdl::SHORT, .count = 2},
                                 {.name = "l", .type = sdl::LONG, .host_offset = 8, .wire_offset = 8},
                                 {.name = "f", .type = sdl::FLOAT, .host_offset = 16, .wire_offset = 16},
                                 {.name = "d", .type = sdl::DOUBLE, .host_offset = 24, .wire_offset = 24}},
                                32)}),
        1);
    std::string text = "65535\t12x\n4294967295\t0.1\t1e300", record(32, '\0');
    ASSERT_EQ(_make_struct_from_pbindata((char *)"all", record.data(), 32, text.data()), 1);
    EXPECT_EQ(fld::raw<int16_t>(-1) + fld::raw<int16_t>(12), record.substr(0, 4)) << "the low 16 bits";
    EXPECT_EQ(fld::raw<int64_t>(-1), record.substr(8, 8)) << "32 bits and their sign";
    EXPECT_EQ(fld::raw<float>(0.1f), record.substr(16, 4));
    EXPECT_EQ(fld::raw<double>(1e300), record.substr(24, 8));
    std::vector<char> out(1024, '?');
    ASSERT_EQ(_make_pbodata_from_struct((char *)"all", out.data(), 32, record.data()), 1);
    std::string got(out.data(), out.size());
    EXPECT_EQ(got.substr(0, 18), "-1\t12\t-1\t0.100000\t");
    size_t end = got.find("\r\n\x7f");
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(strtod(got.c_str() + 18, nullptr), 1e300);
    EXPECT_EQ(got[end + 3], '?') << "no NUL";
}

TEST_F(RecordText, TextsHaveElementsOfTheirOwn)
{
    auto row = [](const std::string &name, int32_t type) {
        return record_of(name, {{.name = "t", .type = type, .count = 7, .element = 3}}, 7);
    };
    ASSERT_EQ(load_records({row("chars", sdl::CHAR), row("strings", sdl::STRING), row("bytes", sdl::CARRAY)}),
              1);
    for (const char *name : {"chars", "strings", "bytes"}) {
        std::string text = "ab\tc\t", record(7, '?');
        EXPECT_EQ(_make_struct_from_pbindata((char *)name, record.data(), 7, text.data()), 1) << name;
        EXPECT_EQ(record, std::string("ab\0c\0??", 7)) << name;
        char out[32];
        memset(out, '!', sizeof out);
        ASSERT_EQ(_make_pbodata_from_struct((char *)name, out, 7, record.data()), 1);
        std::string wanted = *name == 'b' ? std::string("ab\0\tc\0?\r\n\x7f!", 11) : "ab\tc\r\n\x7f!";
        EXPECT_EQ(std::string(out, wanted.size()), wanted) << name;
    }
}

TEST_F(RecordText, ATextAndItsNulMustFit)
{
    ASSERT_EQ(load_records({short_record()}), 1);
    for (std::string text : {"1\tabcd\t2\tx\t", "1\tabcd"}) {
        std::string record(16, '?'), before = text;
        EXPECT_EQ(_make_struct_from_pbindata((char *)"pair", record.data(), 16, text.data()), -1);
        EXPECT_EQ(text, before) << "the separator is back";
        EXPECT_EQ(record.substr(4), std::string(12, '?'));
    }
}

TEST_F(RecordText, WhatTheTextDoesntHaveIsEmpty)
{
    ASSERT_EQ(load_records({short_record()}), 1);
    std::string text = "5", record(20, '?');
    ASSERT_EQ(_make_struct_from_pbindata((char *)"pair", record.data(), 20, text.data()), 1);
    EXPECT_EQ(record, std::string("\5\0\0\0\0???\0\0\0\0\0???????", 20)) << "whole records only";
}

TEST_F(RecordText, UnknownAndNestedStructsHaveNone)
{
    ASSERT_EQ(load_records({short_record(),
                            record_of("outer", {{.name = "in", .type = sdl::NESTED, .nested = 0}}, 8)}),
              1);
    std::string text = "1\ta", record(8, '?');
    char out[64];
    for (const char *name : {"nobody", "outer"}) {
        *_tmget_fberror_addr() = 0;
        EXPECT_EQ(_make_struct_from_pbindata((char *)name, record.data(), 8, text.data()), -1);
        EXPECT_EQ(_make_pbodata_from_struct((char *)name, out, 8, record.data()), -1);
        EXPECT_EQ(getfberror(), 0);
    }
    EXPECT_EQ(_insert_value_to_pbodata(9, out, record.data(), 1, 1), -1);
    EXPECT_EQ(_insert_value_to_pbodata(0, out, record.data(), 1, 1), -1);
}

TEST_F(FieldText, TheEmptyLineEndsIt)
{
    fld::list fields;
    EXPECT_EQ(fields_from("A\tx\n\nB\ty\n", &fields), 1);
    EXPECT_EQ(fields, (fld::list{fld::a_string(A, "x")}));
}

TEST_F(FieldText, ValuesAreConverted)
{
    fld::list fields;
    EXPECT_EQ(fields_from("COUNT\t12\nPRICE\t2.5\nBYTES\tabc\nA\t", &fields), 1);
    EXPECT_EQ(fields, (fld::list{fld::an_int(COUNT, 12), fld::number(price_key, 2.5),
                                 fld::a_carray(BYTES, "abc"), fld::a_string(A, "")}));
}

TEST_F(FieldText, CarriageReturnAndNewlineBelongToTheValue)
{
    fld::list fields;
    EXPECT_EQ(fields_from("A\tone\r\ntwo\tthree\nB\tlast\r", &fields), 1);
    EXPECT_EQ(fields, (fld::list{fld::a_string(A, "one\r\ntwo\tthree"), fld::a_string(B, "last\r")}));
}

TEST_F(FieldText, AnUnknownNameEndsIt)
{
    fld::list fields;
    for (const char *text : {"A\tx\nNOBODY\ty\nB\tz\n", "A\tx\nB\nCOUNT\t1\n", "A\tx\n\tvalue\n"}) {
        EXPECT_EQ(fields_from(text, &fields), -1) << text;
        EXPECT_EQ(getfberror(), FBENOENT) << text;
        EXPECT_EQ(fields, (fld::list{fld::a_string(A, "x")})) << text;
    }
}

TEST_F(FieldText, AFullBufferRefuses)
{
    fld::list fields;
    EXPECT_EQ(fields_from("A\t" + std::string(2000, 'x') + "\nB\ty\n", &fields), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_TRUE(fields.empty());
}

TEST_F(FieldText, AFileBecomesTheBitmap)
{
    std::string bytes("\0\1\t\n\xff", 5);
    fld::list fields;
    EXPECT_EQ(fields_from("FILENAM\t" + write_definition(bytes) + "\nA\tx\nFILENAM\t" + write_definition("2"),
                          &fields),
              1);
    EXPECT_EQ(fields,
              (fld::list{fld::a_carray(BITMAP, bytes), fld::a_string(A, "x"), fld::a_carray(BITMAP, "2")}));
    EXPECT_EQ(fields_from("FILENAM\t" + log.directory + "/nowhere\n", &fields), -1);
    EXPECT_EQ(getfberror(), 0);
}

TEST_F(FieldText, OnlyALargeFileMakesTheBufferGrow)
{
    for (size_t size : {5u << 20, 0x400001u}) {
        std::string bytes(size, 'b');
        FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", nullptr, 0);
        int before = tpgetasize((char *)fbuf);
        EXPECT_EQ(from_text(&fbuf, "FILENAM\t" + write_definition(bytes) + "\n"), 1);
        EXPECT_GE(tpgetasize((char *)fbuf), before + (int)size + 136);
        EXPECT_TRUE(fld::equal(fbuf, {fld::a_carray(BITMAP, bytes)}));
        tpfree((char *)fbuf);
    }
    fld::list fields;
    EXPECT_EQ(fields_from("FILENAM\t" + write_definition(std::string(2 << 20, 'b')), &fields), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(fields_from("FILENAM\t" + write_definition(std::string(0x400000, 'b')), &fields), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE) << "4 MiB are not more than 4 MiB";
}

TEST_F(FieldRows, ARowForEachOccurrence)
{
    fld::Buffer buffer({fld::a_string(A, "1"), fld::a_string(B, "x"), fld::a_string(A, "2"),
                        fld::an_int(COUNT, -3), fld::number(price_key, 1.5)});
    EXPECT_EQ(to_text("A\nCOUNT\nPRICE\nB\n\n", buffer), "1\t-3\t1.5\tx\r\n2\t\t\t\r\n\x7f\n");
    EXPECT_EQ(to_file("A\nCOUNT\nPRICE\nB\n\n", new_path(), buffer), "1\t-3\t1.5\tx\r\n2\t\t\t\r\n\n\n");
}

TEST_F(FieldRows, EachBlockHasItsOwnRows)
{
    fld::Buffer buffer({fld::a_string(A, "a"), fld::a_string(B, "1"), fld::a_string(B, "2")});
    EXPECT_EQ(to_text("A\n\nB\nA\n\n", buffer), "a\r\n\x7f"
                                                "1\ta\r\n2\t\r\n\x7f\n");
    EXPECT_EQ(to_file("A\n\nB\nA\n\n", new_path(), buffer), "a\r\n\n1\ta\r\n2\t\r\n\n\n");
    EXPECT_EQ(to_text("COUNT\n\nB\n\nCOUNT\n\n", buffer), "\n\x7f"
                                                          "1\r\n2\r\n\x7f\n\x7f\n")
        << "a newline in front of a block's end where no row has ended";
    EXPECT_EQ(to_file("COUNT\n\nB\n\nCOUNT\n\n", new_path(), buffer), "\n1\r\n2\r\n\n\n\n");
}

TEST_F(FieldRows, TheLastLineBeginsNoBlock)
{
    fld::Buffer buffer({fld::a_string(A, "a"), fld::a_string(B, "b")});
    EXPECT_EQ(to_text("A\n", buffer), "\n");
    EXPECT_EQ(to_text("A\nB\n", buffer), "a\tb\r\n\x7f\n");
    EXPECT_EQ(to_text("A\n\nB\n", buffer), "a\r\n\x7f\n");
    EXPECT_EQ(to_text("", buffer), "\n");
    EXPECT_EQ(to_file("A\n", new_path(), buffer), "\n");
}

TEST_F(FieldRows, AnEmptyValueIsAValue)
{
    fld::Buffer buffer({fld::a_string(A, ""), fld::a_string(A, "2")});
    EXPECT_EQ(to_text("A\n\n", buffer), "\r\n2\r\n\x7f\n");
}

TEST_F(FieldRows, AnUnknownNameOfTheForm)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    EXPECT_EQ(to_text("A\nNOBODY\nB\n\n", buffer), "-1");
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(to_file("A\nNOBODY\nB\n\n", new_path(), buffer), "-1");
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(read_file(new_path()), "no file");
}

TEST_F(FieldRows, ManyColumns)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    std::string form, row;
    for (int i = 0; i < 75; i++) {
        form += "A\n";
        row += "a\t";
    }
    row.back() = '\r';
    EXPECT_EQ(to_text(form + "\n", buffer), row + "\n\x7f\n");
}

TEST_F(FieldRows, TheBitmapGoesToItsFile)
{
    fld::Buffer buffer({fld::a_carray(BITMAP, "first, the longer"), fld::a_string(A, "a"),
                        fld::a_string(PATH, new_path()), fld::a_carray(BITMAP, std::string("2\0d", 3))});
    EXPECT_EQ(to_text("A\nTP_BITMAP\nB\n\n", buffer), "a\t\t\r\n\t\t\r\n\x7f\n");
    EXPECT_EQ(read_file(new_path()), std::string("2\0d", 3));
    EXPECT_EQ(to_file("TP_BITMAP\n\n", log.directory + "/text", buffer),
              std::string("first, the longer\r\n2\0d\r\n\n\n", 26))
        << "a plain column in a file";
}

TEST_F(FieldRows, ABitmapNeedsAFile)
{
    fld::Buffer none({fld::a_carray(BITMAP, "bytes"), fld::a_string(A, "a")});
    EXPECT_EQ(to_text("TP_BITMAP\n\n", none), "-1");
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(to_text("A\n\n", none), "a\r\n\x7f\n") << "a missing path is no failure";
    fld::Buffer empty({fld::a_string(PATH, ""), fld::a_string(A, "a")});
    EXPECT_EQ(to_text("A\n\n", empty), "-1");
    EXPECT_EQ(to_file("A\n\n", new_path(), empty), "a\r\n\n\n");
    char out[128];
    EXPECT_EQ(get_file_name(none, out), -1);
    fld::Buffer path({fld::a_string(PATH, "/some/where")});
    EXPECT_EQ(get_file_name(path, out), 1);
    EXPECT_STREQ(out, "/some/where");
}

TEST_F(FieldRows, AFileThatCantBeOpened)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    EXPECT_EQ(to_file("A\n\n", log.directory + "/no/where", buffer), "-1");
    EXPECT_EQ(getfberror(), FBEINVAL);
}
