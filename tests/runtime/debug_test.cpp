// Dumps, and what is left of the trace.
#include "runtime/debug.h"

#include "runtime/capture.h"
#include "runtime/trace.h"
#include "support/gtest.h"

#include <string.h>

namespace {

std::string dumped(const std::function<void()> &action)
{
    return output_of(action).out;
}

// Number of rows, that is of lines with an offset, and the offsets of the first and last.
struct Rows {
    int count = 0;
    std::string first, last;
};

Rows rows_of(const std::string &text)
{
    Rows rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        size_t colon = line.find(": ");
        if (colon == std::string::npos)
            continue;
        rows.last = line.substr(0, colon);
        if (rows.count++ == 0)
            rows.first = rows.last;
    }
    return rows;
}

TEST(Dump, RowHasOffsetBytesAndCharacters)
{
    EXPECT_EQ(dumped([] { _vorn_dump2("0123456789abcdef", 0, 16); }),
              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 0123456789abcdef\n");
    EXPECT_EQ(dumped([] { _vorn_dump2("A\n\xff", 0x1230, 3); }),
              "1230: 41 0A FF " + std::string(13 * 3, ' ') + "A.." + std::string(13, ' ') + "\n");
    EXPECT_EQ(dumped([] { _vorn_dump2("x", 0, 0); }), "");
    EXPECT_EQ(dumped([] { _vorn_dump2("x", 0, -5); }), "");
}

TEST(Dump, OffsetsCountFromTheBase)
{
    std::string data(20, 'z');
    Rows rows = rows_of(dumped([&] { _vorn_dump2(data.data(), 0x20, 20); }));
    EXPECT_EQ(rows.count, 2);
    EXPECT_EQ(rows.first, "0020");
    EXPECT_EQ(rows.last, "0030");
}

TEST(Dump, UpToTheLimitEverythingIsShown)
{
    std::string data(0x400, 'z');
    std::string text = dumped([&] { _vorn_dump(data.data(), 0x400); });
    EXPECT_EQ(text[0], '\n');
    Rows rows = rows_of(text);
    EXPECT_EQ(rows.count, 0x40);
    EXPECT_EQ(rows.last, "03F0");
}

TEST(Dump, BeyondTheLimitHeadAndTail)
{
    std::string data(0x401, 'z');
    std::string text = dumped([&] { _vorn_dump(data.data(), 0x401); });
    Rows rows = rows_of(text);
    EXPECT_EQ(rows.count, 0x20 + 0x20);
    EXPECT_EQ(rows.first, "0000");
    EXPECT_EQ(rows.last, "0400");
    EXPECT_NE(text.find("\n\n0210: "), std::string::npos);
    EXPECT_EQ(text.find("0200: "), std::string::npos);
}

TEST(Dump, LogFormLeavesOnePieceOfEachRow)
{
    unsetenv("VORN_DEBUG");
    Output both = output_of([] { dump_data2("0123456789abcdefXYZ", 0, 19); });
    EXPECT_EQ(without_time(both.out), ":(D4) CLI 0\n");
    EXPECT_EQ(both.err, "");
    EXPECT_EQ(without_time(dumped([] { dump_data2("%s%n%n%n", 0xFFF0, 8); })), ":(D4) CLI F\n");
    EXPECT_EQ(without_time(dumped([] { dump_data2("x", 0, 0); })), ":(D4) CLI ");
}

TEST(Dump, LogFormHasLargerLimits)
{
    unsetenv("VORN_DEBUG");
    std::string data(0x2801, 'z');
    auto parts = [&](int length) {
        std::string text = dumped([&] { dump_data(data.data(), length); });
        int count = 0;
        for (size_t at = text.find("(D4)"); at != std::string::npos; at = text.find("(D4)", at + 1))
            count++;
        return count;
    };
    EXPECT_EQ(parts(0x2800), 1);
    EXPECT_EQ(parts(0x2801), 2);
    EXPECT_EQ(dumped([&] { dump_data(data.data(), 0x2801); })[0], '\n');
}

TEST(DataValue, EscapesWhatIsNotPrintable)
{
    EXPECT_EQ(dumped([] { EXPECT_EQ(_print_data_value("a\\b\n\x01\xff z", 8), 1); }),
              "a\\\\b\\a\\1\\ffffffff z\n");
    EXPECT_EQ(dumped([] { _print_data_value("", 0); }), "\n");
}

TEST(Trace, HookAndItsKinDoNothing)
{
    Output both = output_of([] {
        EXPECT_EQ(_vorn_trace("tpcall", 1, TRACE_ENTRY, "tpcall(\"%s\")", "X"), 1);
        EXPECT_EQ(_trace_dbg(), 1);
        EXPECT_EQ(_chk_trace(), 1);
        EXPECT_EQ(_parse_trace(), 1);
        EXPECT_EQ(_spel_chk(), 1);
        EXPECT_EQ(_internal_call_chk(), 1);
        EXPECT_EQ(_get_spec(), 0);
    });
    EXPECT_EQ(both.out + both.err, "");
}

struct Fields {
    explicit Fields(const char *trace)
    {
        snprintf(text, sizeof text, "%s", trace);
        fields[3] = text;  // must stay as it is
        EXPECT_EQ(split_trcfld(text, fields), 1);
        EXPECT_EQ(fields[3], text);
    }
    std::string operator[](int i) const { return fields[i] == nullptr ? "(null)" : fields[i]; }

    char text[64];
    char *fields[4] = {text, text, text, text};
};

TEST(TraceSpecification, SplitsAtColons)
{
    Fields plain("a:b:c");
    EXPECT_EQ(plain[0], "a");
    EXPECT_EQ(plain[1], "b");
    EXPECT_EQ(plain[2], "c");
    Fields blanks("  a : b:c");
    EXPECT_EQ(blanks[0], "a ");
    EXPECT_EQ(blanks[1], "b");
}

TEST(TraceSpecification, EmptyAndMissingFieldsAreNull)
{
    Fields empty(":b");
    EXPECT_EQ(empty[0], "(null)");
    EXPECT_EQ(empty[1], "b");
    EXPECT_EQ(empty[2], "(null)");
    Fields nothing("");
    EXPECT_EQ(nothing[0], "(null)");
    EXPECT_EQ(nothing[2], "(null)");
    EXPECT_EQ(Fields(" : : ")[2], "(null)");
}

TEST(TraceSpecification, BracketRunsToTheEnd)
{
    Fields fields("a:f(b:c):d");
    EXPECT_EQ(fields[0], "a");
    EXPECT_EQ(fields[1], "f(b:c):d");
    EXPECT_EQ(fields[2], "(null)");
}

TEST(TraceSpecification, FurtherFieldsAreLeftOut)
{
    Fields fields("a:b:c:d:e");
    EXPECT_EQ(fields[2], "c");
}

TEST(TraceSpecification, AdvanceOverBracketRunsToTheEnd)
{
    char text[] = "(a)bc";
    char *p = text;
    EXPECT_EQ(advbrace(&p), 5);
    EXPECT_EQ(p, text + 5);
    EXPECT_EQ(advbrace(&p), 0);
}

}
