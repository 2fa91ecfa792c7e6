// Conversion between the eight types, cell by cell, by both engines: values read out of a buffer, and values
// of the caller.
#include "fields/values.h"

#include "fields/fbtconv.h"
#include "support/faults.h"

#include <limits.h>
#include <math.h>

using namespace fv;

namespace {

// A value, and what it is as each of the eight types, in their order.
struct row {
    typed from;
    typed as[8];
};

std::string fixed(double value)
{
    char text[400];
    snprintf(text, sizeof text, "%f", value);
    return text;
}

std::string trimmed(double value)
{
    std::string text = fixed(value);
    text.erase(text.find_last_not_of('0') + 1);
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

const int32_t LOW = (int32_t)0xdeadbeef;

// What a call delivered to an area full of a pattern.
struct Area {
    char bytes[2000];

    Area() { memset(bytes, '\xA5', sizeof bytes); }
    std::string first(size_t count) const { return std::string(bytes, count); }
    bool untouched_from(size_t at) const
    {
        for (; at < sizeof bytes; at++)
            if (bytes[at] != '\xA5')
                return false;
        return true;
    }
};

void expect_read(const row &each, int to)
{
    SCOPED_TRACE(testing::Message() << "type " << each.from.type << " value "
                                    << testing::PrintToString(each.from.bytes) << " as " << to);
    const typed &wanted = each.as[to - 1];
    ASSERT_EQ(wanted.type, to);
    Buffer buffer({{key_of(each.from.type, 7), each.from.bytes}});
    Area area;
    int length = 0;
    EXPECT_EQ(fbget_tut(buffer, key_of(each.from.type, 7), 0, area.bytes, &length, to), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(length, wanted.length());
    EXPECT_EQ(testing::PrintToString(area.first(wanted.bytes.size())), testing::PrintToString(wanted.bytes));
    EXPECT_TRUE(area.untouched_from(wanted.bytes.size()));
}

void expect_all_read(const std::vector<row> &rows)
{
    for (const row &each : rows)
        for (int to = FB_CHAR; to <= FB_CARRAY; to++)
            expect_read(each, to);
}

void expect_converted(const row &each, int to)
{
    SCOPED_TRACE(testing::Message() << "type " << each.from.type << " value "
                                    << testing::PrintToString(each.from.bytes) << " as " << to);
    const typed &wanted = each.as[to - 1];
    ASSERT_EQ(wanted.type, to);
    int length = -7;
    char *result = fbtypecvt(&length, to, each.from.data(), each.from.type, each.from.length());
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(length, wanted.length());
    EXPECT_EQ(testing::PrintToString(std::string(result, wanted.bytes.size())),
              testing::PrintToString(wanted.bytes));
}

void expect_all_converted(const std::vector<row> &rows)
{
    for (const row &each : rows)
        for (int to = FB_CHAR; to <= FB_CARRAY; to++)
            expect_converted(each, to);
}

row same_integer(const typed &from, int64_t value)
{
    std::string text = std::to_string(value);
    return {from,
            {c((int)value), s((int)value), i(value), l(value), f((double)value), d((double)value), t(text),
             a(text)}};
}

}  // namespace

// ---- values out of a buffer

TEST(ReadAs, CharIsSigned)
{
    expect_all_read({
        {c('A'), {c('A'), s(65), i(65), l(65), f(65), d(65), t("A"), a("A")}},
        {c('0'), {c('0'), s(48), i(48), l(48), f(48), d(48), t("0"), a("0")}},
        {c(-1), {c(-1), s(-1), i(-1), l(-1), f(-1), d(-1), t("\xff"), a("\xff")}},
        {c(-128), {c(-128), s(-128), i(-128), l(-128), f(-128), d(-128), t("\x80"), a("\x80")}},
        {c(127), {c(127), s(127), i(127), l(127), f(127), d(127), t("\x7f"), a("\x7f")}},
    });
    for (int to = FB_CHAR; to <= FB_DOUBLE; to++)
        expect_read({c(0), {c(0), s(0), i(0), l(0), f(0), d(0), t(""), a("")}}, to);
}

TEST(ReadAs, ShortIsUnsigned)
{
    expect_all_read({
        same_integer(s(0), 0),
        same_integer(s(5), 5),
        {s(-1), {c(-1), s(-1), i(65535), l(65535), f(65535), d(65535), t("65535"), a("65535")}},
        {s(0x1234), {c(0x34), s(0x1234), i(4660), l(4660), f(4660), d(4660), t("4660"), a("4660")}},
        {s(INT16_MIN), {c(0), s(INT16_MIN), i(32768), l(32768), f(32768), d(32768), t("32768"), a("32768")}},
        {s(INT16_MAX), {c(-1), s(INT16_MAX), i(32767), l(32767), f(32767), d(32767), t("32767"), a("32767")}},
    });
}

TEST(ReadAs, IntIsUnsignedWhenWidenedAndSignedAsText)
{
    expect_all_read({
        same_integer(i(0), 0),
        same_integer(i(42), 42),
        {i(-1), {c(-1), s(-1), i(-1), l(4294967295), f(4294967295.0), d(4294967295.0), t("-1"), a("-1")}},
        {i(0x12345678),
         {c(0x78), s(0x5678), i(0x12345678), l(305419896), f(305419896), d(305419896), t("305419896"),
          a("305419896")}},
        {i(INT_MIN),
         {c(0), s(0), i(INT_MIN), l(2147483648), f(2147483648.0), d(2147483648.0), t("-2147483648"),
          a("-2147483648")}},
        {i(INT_MAX),
         {c(-1), s(-1), i(INT_MAX), l(INT_MAX), f(INT_MAX), d(INT_MAX), t("2147483647"), a("2147483647")}},
        {i(LOW),
         {c(0xef), s(0xbeef), i(LOW), l(0xdeadbeef), f(0xdeadbeef), d(0xdeadbeef), t("-559038737"),
          a("-559038737")}},
    });
}

TEST(ReadAs, LongHasTheLow32BitsAsUnsigned)
{
    expect_all_read({
        same_integer(l(0), 0),
        same_integer(l(99), 99),
        {l(-1), {c(-1), s(-1), i(-1), l(4294967295), f(4294967295.0), d(4294967295.0), t("-1"), a("-1")}},
        {l(0x1122334455667788),
         {c(0x88), s(0x7788), i(0x55667788), l(0x55667788), f(0x55667788), d(0x55667788), t("1432778632"),
          a("1432778632")}},
        {l(INT64_MIN), {c(0), s(0), i(0), l(0), f(0), d(0), t("0"), a("0")}},
        {l(0x80000000),
         {c(0), s(0), i(INT_MIN), l(0x80000000), f(0x80000000), d(0x80000000), t("-2147483648"),
          a("-2147483648")}},
    });
}

TEST(ReadAs, FloatIsTruncated)
{
    expect_all_read({
        {f(0), {c(0), s(0), i(0), l(0), f(0), d(0), t("0"), a("0.000000")}},
        {f(2.5), {c(2), s(2), i(2), l(2), f(2.5), d(2.5), t("2.5"), a("2.500000")}},
        {f(2), {c(2), s(2), i(2), l(2), f(2), d(2), t("2"), a("2.000000")}},
        {f(-2.75), {c(-2), s(-2), i(-2), l(-2), f(-2.75), d(-2.75), t("-2.75"), a("-2.750000")}},
        {f(100), {c(100), s(100), i(100), l(100), f(100), d(100), t("100"), a("100.000000")}},
        {f(-0.25), {c(0), s(0), i(0), l(0), f(-0.25), d(-0.25), t("-0.25"), a("-0.250000")}},
        {f(70000.5),
         {c(0x70), s(4464), i(70000), l(70000), f(70000.5), d(70000.5), t("70000.5"), a("70000.500000")}},
        {f(0.1f), {c(0), s(0), i(0), l(0), f(0.1f), d(0.1f), t("0.1"), a("0.100000")}},
    });
}

// Beyond the range of the integer there is the processor's answer: only the highest bit is set.
TEST(ReadAs, FloatsBeyondTheIntegersAreTheLowestOne)
{
    expect_all_read({
        {f(3e9),
         {c(0), s(0), i(INT_MIN), l(3000000000), f(3e9), d(3e9), t("3000000000"), a("3000000000.000000")}},
        {f(-3e9),
         {c(0), s(0), i(INT_MIN), l(-3000000000), f(-3e9), d(-3e9), t("-3000000000"),
          a("-3000000000.000000")}},
        {f(1e20f),
         {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(1e20f), d(1e20f), t(trimmed(1e20f)), a(fixed(1e20f))}},
        {f(INFINITY), {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(INFINITY), d(INFINITY), t("inf"), a("inf")}},
        {d(-1e300),
         {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(-INFINITY), d(-1e300), t(trimmed(-1e300)),
          a(fixed(-1e300))}},
        {d(2147483648.0),
         {c(0), s(0), i(INT_MIN), l(2147483648), f(2147483648.0), d(2147483648.0), t("2147483648"),
          a("2147483648.000000")}},
        {d(NAN), {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(NAN), d(NAN), t("nan"), a("nan")}},
        {d(9223372036854775808.0),
         {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(9223372036854775808.0), d(9223372036854775808.0),
          t("9223372036854775808"), a("9223372036854775808.000000")}},
    });
}

TEST(ReadAs, DoubleIsTruncated)
{
    expect_all_read({
        {d(0), {c(0), s(0), i(0), l(0), f(0), d(0), t("0"), a("0.000000")}},
        {d(1.5), {c(1), s(1), i(1), l(1), f(1.5), d(1.5), t("1.5"), a("1.500000")}},
        {d(100), {c(100), s(100), i(100), l(100), f(100), d(100), t("100"), a("100.000000")}},
        {d(-1), {c(-1), s(-1), i(-1), l(-1), f(-1), d(-1), t("-1"), a("-1.000000")}},
        {d(0.1), {c(0), s(0), i(0), l(0), f(0.1f), d(0.1), t("0.1"), a("0.100000")}},
        {d(1e-9), {c(0), s(0), i(0), l(0), f(1e-9f), d(1e-9), t("0"), a("0.000000")}},
        {d(-1e-9), {c(0), s(0), i(0), l(0), f(-1e-9f), d(-1e-9), t("-0"), a("-0.000000")}},
        {d(2147483647.5),
         {c(-1), s(-1), i(INT_MAX), l(INT_MAX), f(2147483647.5), d(2147483647.5), t("2147483647.5"),
          a("2147483647.500000")}},
        {d(-2147483648.9),
         {c(0), s(0), i(INT_MIN), l(INT_MIN), f(-2147483648.9), d(-2147483648.9), t("-2147483648.9"),
          a("-2147483648.900000")}},
        {d(4294967301.0),
         {c(0), s(0), i(INT_MIN), l(4294967301), f(4294967301.0), d(4294967301.0), t("4294967301"),
          a("4294967301.000000")}},
        {d(16777217.0),
         {c(1), s(1), i(16777217), l(16777217), f(16777216.0), d(16777217.0), t("16777217"),
          a("16777217.000000")}},
    });
}

static std::vector<row> texts()
{
    return {
        {t("12abc"), {c('1'), s(12), i(12), l(12), f(12), d(12), t("12abc"), a("12abc")}},
        {t("abc"), {c('a'), s(0), i(0), l(0), f(0), d(0), t("abc"), a("abc")}},
        {t("-7"), {c('-'), s(-7), i(-7), l(-7), f(-7), d(-7), t("-7"), a("-7")}},
        {t("  42"), {c(' '), s(42), i(42), l(42), f(42), d(42), t("  42"), a("  42")}},
        {t("70000"), {c('7'), s(4464), i(70000), l(70000), f(70000), d(70000), t("70000"), a("70000")}},
        {t("1.5e2"), {c('1'), s(1), i(1), l(1), f(150), d(150), t("1.5e2"), a("1.5e2")}},
        {t("010"), {c('0'), s(10), i(10), l(10), f(10), d(10), t("010"), a("010")}},
        {t("0x10"), {c('0'), s(0), i(0), l(0), f(16), d(16), t("0x10"), a("0x10")}},
        {t("4294967297"),
         {c('4'), s(1), i(1), l(1), f(4294967297.0), d(4294967297.0), t("4294967297"), a("4294967297")}},
        {t("3000000000"),
         {c('3'), s(0x5e00), i(-1294967296), l(-1294967296), f(3e9), d(3e9), t("3000000000"),
          a("3000000000")}},
        {t("99999999999999999999"),
         {c('9'), s(-1), i(-1), l(-1), f(1e20), d(1e20), t("99999999999999999999"),
          a("99999999999999999999")}},
        {t("-99999999999999999999"),
         {c('-'), s(0), i(0), l(0), f(-1e20), d(-1e20), t("-99999999999999999999"),
          a("-99999999999999999999")}},
        {t("1e400"), {c('1'), s(1), i(1), l(1), f(HUGE_VAL), d(HUGE_VAL), t("1e400"), a("1e400")}},
        {t("\xe9"), {c(0xe9), s(0), i(0), l(0), f(0), d(0), t("\xe9"), a("\xe9")}},
    };
}

static std::vector<row> byte_arrays()
{
    std::vector<row> rows = texts();
    for (row &each : rows) {
        each.from.type = FB_CARRAY;
        each.from.bytes.pop_back();
    }
    return rows;
}

TEST(ReadAs, StringIsTheNumberAtItsStart)
{
    expect_all_read(texts());
    expect_all_read({{t(""), {c(0), s(0), i(0), l(0), f(0), d(0), t(""), a("")}}});
}

TEST(ReadAs, CarrayIsReadLikeAStringOfItsBytes)
{
    expect_all_read(byte_arrays());
    std::string inner("1\0002", 3);
    expect_all_read({
        {a("12345"), {c('1'), s(12345), i(12345), l(12345), f(12345), d(12345), t("12345"), a("12345")}},
        {a(inner), {c('1'), s(1), i(1), l(1), f(1), d(1), t(inner), a(inner)}},
    });
}

// The bytes behind a carray aren't part of its number, and the next entry isn't either.
TEST(ReadAs, CarrayEndsWithItsLength)
{
    Buffer buffer({stored(1, a("12345678")), stored(2, a("9"))});
    int value = 0, length = 0;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, (char *)&value, &length, FB_INT), 1);
    EXPECT_EQ(value, 12345678);
    char *bytes = fbgetval(buffer, key_of(FB_CARRAY, 2), 0, &length);
    bytes[1] = '9';  // padding
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 2), 0, (char *)&value, &length, FB_INT), 1);
    EXPECT_EQ(value, 9);
}

// ---- values of the caller

TEST(TypeConversion, CharIsSigned)
{
    expect_all_converted({
        {c('A'), {c('A'), s(65), i(65), l(65), f(65), d(65), t("A"), a("A")}},
        {c(-1), {c(-1), s(-1), i(-1), l(-1), f(-1), d(-1), t("\xff"), a("\xff")}},
        {c(-128), {c(-128), s(-128), i(-128), l(-128), f(-128), d(-128), t("\x80"), a("\x80")}},
        {c(127), {c(127), s(127), i(127), l(127), f(127), d(127), t("\x7f"), a("\x7f")}},
    });
    for (int to = FB_CHAR; to <= FB_DOUBLE; to++)
        expect_converted({c(0), {c(0), s(0), i(0), l(0), f(0), d(0), t(""), a("")}}, to);
}

TEST(TypeConversion, ShortIsSigned)
{
    expect_all_converted({
        same_integer(s(0), 0),
        same_integer(s(-1), -1),
        same_integer(s(0x1234), 0x1234),
        same_integer(s(INT16_MIN), INT16_MIN),
        same_integer(s(INT16_MAX), INT16_MAX),
    });
}

TEST(TypeConversion, IntIsSigned)
{
    expect_all_converted({
        same_integer(i(0), 0),
        same_integer(i(-1), -1),
        same_integer(i(0x12345678), 0x12345678),
        same_integer(i(INT_MIN), INT_MIN),
        same_integer(i(INT_MAX), INT_MAX),
        same_integer(i(LOW), LOW),
    });
}

TEST(TypeConversion, LongIsSignedAndHas64Bits)
{
    expect_all_converted({
        same_integer(l(0), 0),
        same_integer(l(-1), -1),
        same_integer(l(0x1122334455667788), 0x1122334455667788),
        same_integer(l(INT64_MIN), INT64_MIN),
        same_integer(l(INT64_MAX), INT64_MAX),
        same_integer(l(4294967296), 4294967296),
        same_integer(l(-4294967297), -4294967297),
    });
}

TEST(TypeConversion, FloatsAreTruncatedAndTheirTextIsWhole)
{
    expect_all_converted({
        {f(0), {c(0), s(0), i(0), l(0), f(0), d(0), t("0.000000"), a("0.000000")}},
        {f(2.5), {c(2), s(2), i(2), l(2), f(2.5), d(2.5), t("2.500000"), a("2.500000")}},
        {f(-2.75), {c(-2), s(-2), i(-2), l(-2), f(-2.75), d(-2.75), t("-2.750000"), a("-2.750000")}},
        {f(70000.5),
         {c(0x70), s(4464), i(70000), l(70000), f(70000.5), d(70000.5), t("70000.500000"),
          a("70000.500000")}},
        {f(0.1f), {c(0), s(0), i(0), l(0), f(0.1f), d(0.1f), t("0.100000"), a("0.100000")}},
        {f(3e9),
         {c(0), s(0), i(INT_MIN), l(3000000000), f(3e9), d(3e9), t("3000000000.000000"),
          a("3000000000.000000")}},
        {d(100), {c(100), s(100), i(100), l(100), f(100), d(100), t("100.000000"), a("100.000000")}},
        {d(-1), {c(-1), s(-1), i(-1), l(-1), f(-1), d(-1), t("-1.000000"), a("-1.000000")}},
        {d(0.1), {c(0), s(0), i(0), l(0), f(0.1f), d(0.1), t("0.100000"), a("0.100000")}},
        {d(16777217.0),
         {c(1), s(1), i(16777217), l(16777217), f(16777216.0), d(16777217.0), t("16777217.000000"),
          a("16777217.000000")}},
        {d(-1e300),
         {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(-INFINITY), d(-1e300), t(fixed(-1e300)), a(fixed(-1e300))}},
        {d(4294967301.0),
         {c(0), s(0), i(INT_MIN), l(4294967301), f(4294967301.0), d(4294967301.0), t("4294967301.000000"),
          a("4294967301.000000")}},
        {d(NAN), {c(0), s(0), i(INT_MIN), l(INT64_MIN), f(NAN), d(NAN), t("nan"), a("nan")}},
    });
}

TEST(TypeConversion, StringIsTheNumberAtItsStart)
{
    expect_all_converted(texts());
    expect_all_converted({{t(""), {c(0), s(0), i(0), l(0), f(0), d(0), t(""), a("")}}});
}

TEST(TypeConversion, CarrayIsConvertedLikeAStringOfItsBytes)
{
    expect_all_converted(byte_arrays());
    std::string inner("1\0002", 3);
    // As a string the length is that of the text, which ends at the first NUL.
    expect_all_converted({{a(inner), {c('1'), s(1), i(1), l(1), f(1), d(1), t("1"), a(inner)}}});
}

TEST(TypeConversion, CarrayIsReadUpToItsLength)
{
    char digits[] = "123456";
    int length = 0;
    char *result = fbtypecvt(&length, FB_SHORT, digits, FB_CARRAY, 4);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(*(int16_t *)result, 1234);
    EXPECT_STREQ(fbtypecvt(&length, FB_STRING, digits, FB_CARRAY, 3), "123");
    EXPECT_EQ(length, 4);
}

TEST(TypeConversion, ResultsStandInTheSlotsOfTheContext)
{
    int32_t value = -2;
    int length = 0;
    char *results[6];
    for (int to = FB_CHAR; to <= FB_DOUBLE; to++)
        results[to - 1] = fbtypecvt(&length, to, (char *)&value, FB_INT, 0);
    wthr_var *block = current_block();
    ASSERT_NE(block, nullptr);
    char *slots[] = {(char *)&block->cvt_char, (char *)&block->cvt_short, (char *)&block->cvt_int,
                     (char *)&block->cvt_long, (char *)&block->cvt_float, (char *)&block->cvt_double};
    for (int to = 0; to < 6; to++)
        EXPECT_EQ(results[to], slots[to]) << to;
    EXPECT_EQ(block->cvt_char, -2);  // the whole word
    EXPECT_EQ(block->cvt_short, -2);
    EXPECT_EQ(block->cvt_int, -2);
    EXPECT_EQ(block->cvt_long, -2);
    EXPECT_EQ(block->cvt_float, -2.0f);
    EXPECT_EQ(block->cvt_double, -2.0);
    EXPECT_EQ(fbtypecvt(&length, FB_STRING, (char *)&value, FB_INT, 0), block->cvt_buf);
}

TEST(TypeConversion, TextToTextIsTheSourceItself)
{
    char text[] = "abc", bytes[] = {'1', '2', '3'};
    int length = 0;
    EXPECT_EQ(fbtypecvt(&length, FB_STRING, text, FB_STRING, 0), text);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(fbtypecvt(&length, FB_CARRAY, text, FB_STRING, 0), text);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(fbtypecvt(&length, FB_CARRAY, bytes, FB_CARRAY, 3), bytes);
    EXPECT_EQ(length, 3);
    char *copy = fbtypecvt(&length, FB_STRING, bytes, FB_CARRAY, 3);
    EXPECT_NE(copy, bytes);
    EXPECT_STREQ(copy, "123");
    EXPECT_EQ(length, 4);
}

TEST(TypeConversion, LengthOfTheSourceCountsForACarrayOnly)
{
    char text[] = "abcdef";
    int length = 0;
    for (int given : {-5, 0, 2, 100}) {
        EXPECT_EQ(fbtypecvt(&length, FB_CARRAY, text, FB_STRING, given), text);
        EXPECT_EQ(length, 6);
    }
    for (int given : {0, -1, INT_MIN}) {
        EXPECT_EQ(fbtypecvt(&length, FB_STRING, text, FB_CARRAY, given), nullptr);
        EXPECT_EQ(getfberror(), FBEINVAL);
    }
}

TEST(TypeConversion, EmptyCarrayIsRefusedBeforeAnythingElse)
{
    char byte = 'x';
    int length = 77;
    for (int to = 0; to <= 9; to++) {
        EXPECT_EQ(fbtypecvt(&length, to, &byte, FB_CARRAY, 0), nullptr);
        EXPECT_EQ(getfberror(), FBEINVAL) << to;
        EXPECT_EQ(length, 77) << to;
    }
}

TEST(TypeConversion, NeedsAValueButNoLength)
{
    int length = 0, value = 5;
    for (int from = FB_CHAR; from <= FB_CARRAY; from++) {
        EXPECT_EQ(fbtypecvt(&length, FB_INT, nullptr, from, 1), nullptr);
        EXPECT_EQ(getfberror(), FBEINVAL);
    }
    EXPECT_STREQ(fbtypecvt(nullptr, FB_STRING, (char *)&value, FB_INT, 0), "5");
}

TEST(TypeConversion, UnknownTypesAreTold)
{
    int64_t value = 1;
    int length = 0;
    const int unknown[] = {0, 9, -1, 31, 32, INT_MAX, INT_MIN};
    for (int type : unknown) {
        EXPECT_EQ(fbtypecvt(&length, type, (char *)&value, FB_INT, 0), nullptr);
        EXPECT_EQ(getfberror(), FBEBADFLD) << type;
        for (int to = FB_CHAR; to <= FB_CARRAY; to++) {
            EXPECT_EQ(fbtypecvt(&length, to, (char *)&value, type, 0), nullptr);
            EXPECT_EQ(getfberror(), FBETYPE) << type << " to " << to;
        }
        EXPECT_EQ(fbtypecvt(&length, type, (char *)&value, type, 0), nullptr);
        EXPECT_EQ(getfberror(), FBEBADFLD) << type;
    }
    EXPECT_NE(fbtypecvt(&length, FB_INT, (char *)&value, FB_INT, 0), nullptr);
    EXPECT_EQ(getfberror(), 0);
}

TEST(ReadAs, UnknownTypesAreTold)
{
    Buffer buffer({stored(1, i(5))});
    buffer.add_raw(key_of(9, 1), 5).add_raw(key_of(0, 1), 6);
    char area[100];
    int length = 50;
    for (int type : {0, 9, -1, 31, 32, INT_MAX, INT_MIN}) {
        length = 50;
        EXPECT_EQ(fbget_tut(buffer, key_of(FB_INT, 1), 0, area, &length, type), -1);
        EXPECT_EQ(getfberror(), FBEBADFLD) << type;
        EXPECT_EQ(length, 50);  // given back on success only
    }
    for (int key : {key_of(9, 1), key_of(0, 1)})
        for (int to = FB_CHAR; to <= FB_CARRAY; to++) {
            EXPECT_EQ(fbget_tut(buffer, key, 0, area, &length, to), -1);
            EXPECT_EQ(getfberror(), FBETYPE) << key << " to " << to;
            EXPECT_EQ(length, 50);
        }
    EXPECT_EQ(fbget_tut(buffer, key_of(9, 1), 0, area, &length, 9), -1);
    EXPECT_EQ(getfberror(), FBEBADFLD);
}
