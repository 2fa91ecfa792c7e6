// Conversion: how text is delivered under the three length modes, the scratch block behind it, and the calls
// that convert.
#include "fields/values.h"

#include "fields/fbtconv.h"
#include "support/faults.h"

using namespace fv;

namespace {

const int NO_CHANGE = -1000;
const int32_t MODES[] = {FLEN_UNSET, FLEN_OLD, FLEN_TRUNCATE, FLEN_ERROR};

// The area behind what a call delivered must keep this.
const char PATTERN = '\xA5';

void expect_delivery(const typed &from, int to, const std::string &whole, int given, int32_t mode)
{
    SCOPED_TRACE(testing::Message() << "from " << from.type << " to " << to << " room " << given << " mode "
                                    << mode);
    set_length_mode(mode);
    Buffer buffer({{key_of(from.type, 3), from.bytes}});
    std::string area(200, PATTERN), wanted = whole;
    int full = (int)whole.size(), length = given;
    bool fits = given == 0 || given >= full;
    int result = _typcvt_update(&area[0], to, &length, (char *)buffer.fbuf + 8);
    if (mode == FLEN_ERROR && !fits) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(getfberror(), FBENOSPACE);
        EXPECT_EQ(length, full);
        return;
    }
    EXPECT_EQ(result, 1);
    if (mode == FLEN_TRUNCATE && !fits) {
        wanted.resize((size_t)given);
        if (to == FB_STRING)
            wanted.back() = '\0';
    }
    EXPECT_EQ(length, (int)wanted.size());
    EXPECT_EQ(area.substr(0, wanted.size()), wanted);
    EXPECT_EQ(area.find_first_not_of(PATTERN, wanted.size()), std::string::npos);
}

void expect_deliveries(const typed &from, int to, const std::string &whole)
{
    int full = (int)whole.size();
    for (int32_t mode : MODES)
        for (int given : {0, 1, 2, full - 2, full - 1, full, full + 1, full + 50})
            if (given >= 0)
                expect_delivery(from, to, whole, given, mode);
}

std::string ended(const std::string &text)
{
    return text + '\0';
}

wthr_var *scratch(void)
{
    return current_block();
}

char *convert(const typed &from, int to, int *length)
{
    return fbtypecvt(length, to, from.data(), from.type, from.length());
}

}  // namespace

// ---- room

TEST(ConvertedText, FormattedNumbersFollowTheLengthMode)
{
    expect_deliveries(i(-12345), FB_STRING, ended("-12345"));
    expect_deliveries(i(-12345), FB_CARRAY, "-12345");
    expect_deliveries(l(77), FB_STRING, ended("77"));
    expect_deliveries(l(77), FB_CARRAY, "77");
    expect_deliveries(s(-1), FB_STRING, ended("65535"));
    expect_deliveries(s(-1), FB_CARRAY, "65535");
    expect_deliveries(f(2.5), FB_STRING, ended("2.5"));
    expect_deliveries(f(2.5), FB_CARRAY, "2.500000");
    expect_deliveries(d(1000), FB_STRING, ended("1000"));
    expect_deliveries(d(1000), FB_CARRAY, "1000.000000");
    expect_deliveries(c('q'), FB_STRING, ended("q"));
    expect_deliveries(c('q'), FB_CARRAY, "q");
}

TEST(ConvertedText, StoredTextsFollowTheLengthMode)
{
    std::string inner("a\0b\0c", 5);
    expect_deliveries(t("abcdef"), FB_STRING, ended("abcdef"));
    expect_deliveries(t("abcdef"), FB_CARRAY, "abcdef");
    expect_deliveries(a("12345"), FB_STRING, ended("12345"));
    expect_deliveries(a("12345"), FB_CARRAY, "12345");
    expect_deliveries(a(inner), FB_STRING, ended(inner));
    expect_deliveries(a(inner), FB_CARRAY, inner);
    expect_deliveries(t(""), FB_STRING, ended(""));
}

TEST(ConvertedText, NumbersIgnoreTheRoom)
{
    Buffer buffer({stored(1, t("258"))});
    const int widths[] = {1, 2, 4, 8, 4, 8};
    for (int32_t mode : MODES)
        for (int to = FB_CHAR; to <= FB_DOUBLE; to++) {
            set_length_mode(mode);
            int length = 1;
            int64_t area = 0;
            EXPECT_EQ(fbget_tut(buffer, key_of(FB_STRING, 1), 0, (char *)&area, &length, to), 1);
            EXPECT_EQ(length, widths[to - 1]);
        }
}

TEST(ConvertedText, NegativeRoomWritesNothingBehindTheText)
{
    for (int32_t mode : MODES)
        for (int to : {FB_STRING, FB_CARRAY}) {
            set_length_mode(mode);
            Buffer buffer({stored(1, t("abcdef")), stored(1, a("abcdef")), stored(1, i(123))});
            for (int type : {FB_STRING, FB_CARRAY, FB_INT}) {
                char area[64];
                memset(area, PATTERN, sizeof area);
                int length = -3;
                fbget_tut(buffer, key_of(type, 1), 0, area + 16, &length, to);
                EXPECT_EQ(std::string(area, 16), std::string(16, PATTERN));
                EXPECT_EQ(std::string(area + 24, 40), std::string(40, PATTERN));
            }
        }
}

TEST(ConvertedText, TheEnvironmentChoosesTheMode)
{
    setenv("VORN_SEMANTICS", "FDL_LEN=TRU", 1);
    Buffer buffer({stored(1, a("12345"))});
    char area[16];
    memset(area, PATTERN, sizeof area);
    int length = 3;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, area, &length, FB_CARRAY), 1);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(std::string(area, 4), std::string("123") + PATTERN);
}

TEST(ConvertedText, TheEnvironmentCanRefuse)
{
    setenv("VORN_SEMANTICS", "FDL_LEN=ERR", 1);
    Buffer buffer({stored(1, a("12345"))});
    char area[16];
    int length = 3;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, area, &length, FB_CARRAY), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(length, 3);  // fbget_tut gives the length back on success only
    length = 5;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, area, &length, FB_CARRAY), 1);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(getfberror(), 0);
}

// ---- the scratch block

TEST(ConversionScratch, FirstTextTakes65535Bytes)
{
    int length = 0;
    ASSERT_NE(convert(i(1), FB_STRING, &length), nullptr);
    EXPECT_EQ(scratch()->cvt_buf_size, 65535);
    EXPECT_NE(scratch()->cvt_buf, nullptr);
}

TEST(ConversionScratch, SizeFollowsTheCarray)
{
    const struct {
        std::vector<int> sizes;
        int block;
    } cases[] = {
        {{10}, 65535},           {{65534}, 65535},     {{65535}, 65536},       {{10, 65534}, 65535},
        {{10, 65535}, 65536},    {{70000}, 70001},     {{70000, 10}, 70001},   {{70000, 70000}, 70001},
        {{70000, 70001}, 70002}, {{2000000}, 2000001}, {{10, 100000}, 100001},
    };
    for (const auto &each : cases) {
        free(scratch() == nullptr ? nullptr : scratch()->cvt_buf);
        if (scratch() != nullptr) {
            scratch()->cvt_buf = nullptr;
            scratch()->cvt_buf_size = 0;
        }
        std::string last;
        for (int size : each.sizes) {
            std::string bytes((size_t)size, '7');
            int length = 0;
            char *text = convert(a(bytes), FB_STRING, &length);
            ASSERT_NE(text, nullptr);
            EXPECT_EQ(length, size + 1);
            EXPECT_EQ(text, bytes);
            last += ' ' + std::to_string(size);
        }
        EXPECT_EQ(scratch()->cvt_buf_size, each.block) << last;
    }
}

TEST(ConversionScratch, StoredCarraysGrowItToo)
{
    std::string bytes(70000, '1');
    Buffer buffer(1, 80000);
    buffer.add(stored(1, a(bytes)));
    int value = 0, length = 0;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, (char *)&value, &length, FB_INT), 1);
    EXPECT_EQ(value, -1);  // the largest number of 64 bits, cut
    EXPECT_EQ(scratch()->cvt_buf_size, 70001);
}

TEST(ConversionScratch, MoreThanAMegabyteIsNotKept)
{
    int key = key_of(FB_INT, 1);
    Buffer buffer;
    const struct {
        int size, kept;
    } cases[] = {{0xfffff, 0x100000}, {0x100000, 0}, {2 << 20, 0}, {100, 65535}};
    for (const auto &each : cases) {
        std::string bytes((size_t)each.size, ' ');
        bytes.replace(0, 2, "12");
        EXPECT_EQ(fbputt(buffer, key, &bytes[0], each.size, FB_CARRAY), 1);
        EXPECT_EQ(scratch()->cvt_buf_size, each.kept) << each.size;
        EXPECT_EQ(scratch()->cvt_buf == nullptr, each.kept == 0) << each.size;
    }
    EXPECT_EQ(fbgetvali(buffer, key, 3), 12);
}

TEST(ConversionScratch, EachConvertingCallGivesItBack)
{
    std::string bytes(2 << 20, ' ');
    bytes[0] = '5';
    int key = key_of(FB_INT, 1), size = (int)bytes.size();
    Buffer buffer({stored(1, i(5))});
    EXPECT_EQ(fbgetntht(buffer, key, &bytes[0], size, FB_CARRAY), 0);
    EXPECT_EQ(scratch()->cvt_buf_size, 0);
    EXPECT_EQ(fbchg_tut(buffer, key, 0, &bytes[0], size, FB_CARRAY), 1);
    EXPECT_EQ(scratch()->cvt_buf_size, 0);
    Buffer large(1, 3 << 20);
    large.add(stored(2, a(bytes)));
    int length = 0;
    char *number = fbgetvalt(large, key_of(FB_CARRAY, 2), 0, &length, FB_INT);
    ASSERT_NE(number, nullptr);
    EXPECT_EQ(*(int *)number, 5);
    EXPECT_EQ(scratch()->cvt_buf_size, 0);
    EXPECT_EQ(scratch()->cvt_buf, nullptr);
}

// What is left of a large text is a valid result or none.
TEST(ConversionScratch, LargeResultsAreNotReadAfterTheirEnd)
{
    Buffer large(1, 3 << 20);
    large.add(stored(1, a(std::string(2 << 20, 'x')))).add(stored(1, a("short")));
    int length = 0;
    char *text = fbgetvalt(large, key_of(FB_CARRAY, 1), 0, &length, FB_STRING);
    EXPECT_TRUE(text == nullptr || strlen(text) == 2u << 20);
    EXPECT_EQ(getfberror(), text == nullptr ? FBENOSPACE : 0);
    text = convert(a(std::string(2 << 20, 'y')), FB_STRING, &length);  // grows the block and leaves it
    ASSERT_NE(text, nullptr);
    text = fbgetvalt(large, key_of(FB_CARRAY, 1), 1, &length, FB_STRING);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "short");
    EXPECT_EQ(length, 6);
    EXPECT_EQ(scratch()->cvt_buf_size, 65535);
}

TEST(ConversionScratch, FailedPutGivesItBackToo)
{
    std::string bytes(2 << 20, 'x');
    Buffer buffer;
    std::string before = whole(buffer);
    EXPECT_EQ(fbputt(buffer, key_of(FB_STRING, 1), &bytes[0], (int)bytes.size(), FB_CARRAY), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(scratch()->cvt_buf_size, 0);
    EXPECT_EQ(whole(buffer), before);
}

TEST(ConversionScratch, FreeingLeavesASmallBlockAlone)
{
    int length = 0;
    char *text = convert(i(1), FB_STRING, &length);
    _free_large_carray_buf();
    EXPECT_EQ(scratch()->cvt_buf, text);
    EXPECT_EQ(scratch()->cvt_buf_size, 65535);
    convert(a(std::string(0x100000, 'x')), FB_STRING, &length);
    EXPECT_EQ(scratch()->cvt_buf_size, 0x100001);
    _free_large_carray_buf();
    EXPECT_EQ(scratch()->cvt_buf, nullptr);
    EXPECT_EQ(scratch()->cvt_buf_size, 0);
    _free_large_carray_buf();
    EXPECT_EQ(scratch()->cvt_buf, nullptr);
}

TEST(ConversionScratch, NoMemoryIsNoSpace)
{
    Buffer buffer({stored(1, i(5)), stored(1, a("123"))});  // the tables of the library are there
    int length = 0;
    char area[100];
    faults::fail_allocation(1, true);
    EXPECT_EQ(convert(i(5), FB_STRING, &length), nullptr);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_TRUE(faults::allocation_failed());
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_CARRAY, 1), 0, area, &length, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(fbgetvalt(buffer, key_of(FB_INT, 1), 0, &length, FB_STRING), nullptr);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    faults::reset();
    ASSERT_NE(convert(i(5), FB_STRING, &length), nullptr);
    EXPECT_EQ(scratch()->cvt_buf_size, 65535);
    EXPECT_EQ(getfberror(), 0);
}

TEST(ConversionScratch, NoMemoryToGrowIsNoSpace)
{
    int length = 0;
    ASSERT_NE(convert(i(5), FB_STRING, &length), nullptr);
    std::string bytes(70000, '3');
    faults::fail_allocation(1);
    EXPECT_EQ(convert(a(bytes), FB_STRING, &length), nullptr);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_TRUE(faults::allocation_failed());
    faults::reset();
    EXPECT_STREQ(convert(i(6), FB_STRING, &length), "6");
    char *text = convert(a(bytes), FB_STRING, &length);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text, bytes);
}

TEST(ConversionScratch, IsKeptFromCallToCall)
{
    int length = 0;
    ASSERT_NE(convert(i(5), FB_STRING, &length), nullptr);
    faults::arm_allocations();
    for (int n = 0; n < 100; n++)
        ASSERT_NE(convert(d(n), n % 2 == 0 ? FB_STRING : FB_LONG, &length), nullptr);
    EXPECT_EQ(faults::count(faults::ALLOCATE), 0);
}

// ---- the calls

TEST(ConvertingGet, LooksAtOccurrenceZeroWithoutAMark)
{
    int key = key_of(FB_INT, 1), length = 0;
    Buffer buffer({stored(1, i(10)), stored(1, i(20))});
    char area[20];
    for (int n = 0; n < 2; n++) {
        EXPECT_EQ(fbgett(buffer, key, area, &length, FB_STRING), 1);
        EXPECT_STREQ(area, "10");
        EXPECT_EQ(length, 3);
    }
    EXPECT_EQ(content(buffer), (fields{stored(1, i(10)), stored(1, i(20))}));
    buffer.mark(0);
    EXPECT_EQ(fbgett(buffer, key, area, nullptr, FB_STRING), 1);
    EXPECT_STREQ(area, "20");
    length = NO_CHANGE;
    EXPECT_EQ(fbgett(buffer, key_of(FB_INT, 2), area, &length, FB_STRING), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(length, NO_CHANGE);
    EXPECT_EQ(fbgett(nullptr, key, area, &length, FB_STRING), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(ConvertingGet, UnlikeThatOfTheCallerTrimsAFraction)
{
    Buffer buffer({stored(1, f(2.5)), stored(1, d(100))});
    char area[40];
    int length = 0;
    EXPECT_EQ(fbgett(buffer, key_of(FB_FLOAT, 1), area, &length, FB_STRING), 1);
    EXPECT_STREQ(area, "2.5");
    EXPECT_EQ(length, 4);
    EXPECT_STREQ(fbgetvalt(buffer, key_of(FB_FLOAT, 1), 0, &length, FB_STRING), "2.500000");
    EXPECT_EQ(length, 9);
}

TEST(ConvertingPut, StoresTheValueAsTheKeySays)
{
    const struct {
        typed from;
        typed stored_as;
    } cases[] = {
        {t("12"), c('1')},  {t("12"), s(12)},          {t("12"), i(12)},
        {t("-12"), l(-12)}, {t("1.25"), f(1.25)},      {t("1.25"), d(1.25)},
        {t("12"), t("12")}, {t("12"), a("12")},        {s(-1), i(-1)},
        {s(-1), l(-1)},     {l(-1), t("-1")},          {c('x'), t("x")},
        {c('x'), a("x")},   {f(2.5), t("2.500000")},   {d(7.9), i(7)},
        {a("34x"), s(34)},  {l(1LL << 40), i(0)},      {a("abc"), t("abc")},
        {i(5), a("5")},     {d(1e10), l(10000000000)}, {l(0x11223344AABBCCDD), l(0x11223344AABBCCDD)},
    };
    for (const auto &each : cases) {
        SCOPED_TRACE(testing::Message() << each.from.type << " to " << each.stored_as.type);
        Buffer buffer;
        EXPECT_EQ(fbputt(buffer, key_of(each.stored_as.type, 4), each.from.data(), each.from.length(),
                         each.from.type),
                  1);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(content(buffer), fields{stored(4, each.stored_as)});
    }
}

TEST(ConvertingPut, ReportsWhatFailed)
{
    int64_t value = 5;
    char *place = (char *)&value;
    Buffer buffer;
    std::string before = whole(buffer);
    const struct {
        int key, len, type, error;
    } cases[] = {
        {key_of(FB_INT, 1), 0, 9, FBETYPE},          {key_of(9, 1), 0, FB_INT, FBEBADFLD},
        {key_of(0, 1), 0, FB_INT, FBEBADFLD},        {key_of(9, 1), 0, 9, FBEBADFLD},
        {key_of(FB_INT, 1), 0, FB_CARRAY, FBEINVAL}, {key_of(9, 1), 0, FB_CARRAY, FBEINVAL},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(fbputt(buffer, each.key, place, each.len, each.type), -1);
        EXPECT_EQ(getfberror(), each.error) << each.key << ' ' << each.type;
    }
    char empty[] = "";
    EXPECT_EQ(fbputt(buffer, key_of(FB_CARRAY, 1), empty, 0, FB_STRING), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);  // a carray holds one byte at least
    EXPECT_EQ(used(buffer), 8);
    EXPECT_EQ(whole(buffer).substr(0, 8), before.substr(0, 8));
    EXPECT_EQ(fbputt(nullptr, key_of(FB_INT, 1), place, 0, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(ConvertingPut, FillsTheBufferToItsLastByte)
{
    Buffer buffer;
    buffer.room(8 + 16 + 8);
    char text[] = "1234567.5";
    EXPECT_EQ(fbputt(buffer, key_of(FB_DOUBLE, 1), text, 0, FB_STRING), 1);
    std::string before = used_part(buffer);
    EXPECT_EQ(fbputt(buffer, key_of(FB_STRING, 1), text, 0, FB_STRING), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(used_part(buffer), before);
    EXPECT_EQ(fbputt(buffer, key_of(FB_FLOAT, 1), text, 0, FB_STRING), 1);
    EXPECT_EQ(used(buffer), 32);
    EXPECT_EQ(fbputt(buffer, key_of(FB_CHAR, 1), text, 0, FB_STRING), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
}

TEST(ConvertingFind, TakesNumbersAsSigned)
{
    Buffer buffer({stored(1, l(-1)), stored(1, s(-1)), stored(1, i(-1)), stored(1, c(-1))});
    const struct {
        int type;
        const char *text;
    } cases[] = {{FB_LONG, "-1"}, {FB_SHORT, "-1"}, {FB_INT, "-1"}};
    int length = 0;
    for (const auto &each : cases) {
        EXPECT_STREQ(fbgetvalt(buffer, key_of(each.type, 1), 0, &length, FB_STRING), each.text);
        EXPECT_EQ(length, 3);
        int64_t value = 0;
        memcpy(&value, fbgetvalt(buffer, key_of(each.type, 1), 0, &length, FB_LONG), 8);
        EXPECT_EQ(value, -1) << each.type;
        EXPECT_EQ(length, 8);
        double number = 0;
        memcpy(&number, fbgetvalt(buffer, key_of(each.type, 1), 0, &length, FB_DOUBLE), 8);
        EXPECT_EQ(number, -1.0);
    }
    int64_t value = 0;
    EXPECT_EQ(fbget_tut(buffer, key_of(FB_LONG, 1), 0, (char *)&value, &length, FB_LONG), 1);
    EXPECT_EQ(value, 4294967295);
    EXPECT_EQ(fbget_tu(buffer, key_of(FB_LONG, 1), 0, (char *)&value, &length), 1);
    EXPECT_EQ(value, 4294967295);
}

TEST(ConvertingFind, GivesTextInTheBufferItself)
{
    Buffer buffer({stored(1, t("abc")), stored(2, a("xyz"))});
    int length = 0, plain = 0;
    char *inside = fbgetval(buffer, key_of(FB_STRING, 1), 0, &plain);
    EXPECT_EQ(plain, 3);
    EXPECT_EQ(fbgetvalt(buffer, key_of(FB_STRING, 1), 0, &length, FB_STRING), inside);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(fbgetvalt(buffer, key_of(FB_STRING, 1), 0, &length, FB_CARRAY), inside);
    EXPECT_EQ(length, 3);
    inside = fbgetval(buffer, key_of(FB_CARRAY, 2), 0, &plain);
    EXPECT_EQ(fbgetvalt(buffer, key_of(FB_CARRAY, 2), 0, &length, FB_CARRAY), inside);
    EXPECT_EQ(length, 3);
    EXPECT_STREQ(fbgetvalt(buffer, key_of(FB_CARRAY, 2), 0, nullptr, FB_STRING), "xyz");
    EXPECT_EQ(content(buffer), (fields{stored(1, t("abc")), stored(2, a("xyz"))}));
}

TEST(ConvertingFind, ReportsWhatFailed)
{
    Buffer buffer({stored(1, i(5))});
    buffer.add_raw(key_of(9, 1), 5).add_raw(key_of(FB_CARRAY, 1), 0);
    const struct {
        int key, nth, type, error;
    } cases[] = {
        {key_of(FB_INT, 1), 1, FB_INT, FBENOENT}, {key_of(FB_INT, 2), 0, FB_INT, FBENOENT},
        {key_of(FB_INT, 2), 0, 9, FBENOENT},      {key_of(FB_INT, 1), 0, 9, FBEBADFLD},
        {key_of(FB_CARRAY, 1), 0, 7, FBEINVAL},
    };
    for (const auto &each : cases) {
        int length = NO_CHANGE;
        EXPECT_EQ(fbgetvalt(buffer, each.key, each.nth, &length, each.type), nullptr);
        EXPECT_EQ(getfberror(), each.error) << each.key << ' ' << each.type;
        EXPECT_EQ(length, NO_CHANGE);
    }
    int length = 0;
    EXPECT_EQ(fbgetvalt(nullptr, key_of(FB_INT, 1), 0, &length, FB_INT), nullptr);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(fbgetvalt(buffer, key_of(9, 1), 0, &length, FB_INT), nullptr);
    EXPECT_NE(getfberror(), 0);
}

TEST(ConvertingSearch, ComparesWithTheConvertedValue)
{
    Buffer buffer({stored(1, i(10)), stored(1, i(20)), stored(1, s(20)), stored(1, t("30")), stored(1, i(30)),
                   stored(1, a("30")), stored(1, d(1.5)), stored(1, l(40))});
    const struct {
        int key;
        typed value;
        int occurrence;
    } cases[] = {
        {key_of(FB_INT, 1), t("20"), 1},   {key_of(FB_INT, 1), a("30"), 2},
        {key_of(FB_INT, 1), d(10.9), 0},   {key_of(FB_INT, 1), t("11"), -1},
        {key_of(FB_SHORT, 1), l(20), 0},   {key_of(FB_STRING, 1), i(30), 0},
        {key_of(FB_CARRAY, 1), i(30), 0},  {key_of(FB_CARRAY, 1), i(3), 0},
        {key_of(FB_CARRAY, 1), i(31), -1}, {key_of(FB_DOUBLE, 1), t("1.5"), 0},
        {key_of(FB_LONG, 1), s(40), 0},    {key_of(FB_LONG, 1), s(-40), -1},
        {key_of(FB_INT, 2), i(10), -1},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(fbgetntht(buffer, each.key, each.value.data(), each.value.length(), each.value.type),
                  each.occurrence)
            << each.key << ' ' << each.value.type;
        EXPECT_EQ(getfberror(), 0);
    }
    int value = 5;
    char *place = (char *)&value;
    EXPECT_EQ(fbgetntht(buffer, key_of(FB_INT, 1), place, 0, 9), -1);
    EXPECT_EQ(getfberror(), FBETYPE);
    EXPECT_EQ(fbgetntht(buffer, key_of(9, 1), place, 0, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBEBADFLD);
    EXPECT_EQ(fbgetntht(buffer, key_of(FB_INT, 1), place, 0, FB_CARRAY), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(fbgetntht(nullptr, key_of(FB_INT, 1), place, 0, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

// The readers by name are the converting find: signed.
TEST(ConvertingFind, StringsAndIntsByName)
{
    Buffer buffer({stored(1, s(-5)), stored(1, t("12x")), stored(1, d(2.5)), stored(1, l(-9))});
    EXPECT_STREQ(fbgetvals(buffer, key_of(FB_SHORT, 1), 0), "-5");
    EXPECT_EQ(fbgetvali(buffer, key_of(FB_SHORT, 1), 0), -5);
    EXPECT_STREQ(fbgetvals(buffer, key_of(FB_STRING, 1), 0), "12x");
    EXPECT_EQ(fbgetvali(buffer, key_of(FB_STRING, 1), 0), 12);
    EXPECT_STREQ(fbgetvals(buffer, key_of(FB_DOUBLE, 1), 0), "2.500000");
    EXPECT_EQ(fbgetvali(buffer, key_of(FB_DOUBLE, 1), 0), 2);
    EXPECT_EQ(fbgetvali(buffer, key_of(FB_LONG, 1), 0), -9);
    EXPECT_EQ(fbgetvals(buffer, key_of(FB_INT, 1), 0), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(fbgetvali(buffer, key_of(FB_INT, 1), 0), 0);
    EXPECT_EQ(getfberror(), FBENOENT);
}

// A cursor that converts: the mark is set where the value is delivered, and only there.
TEST(ConvertingCursor, MarksWhatItDelivers)
{
    int key = key_of(FB_STRING, 1), from = 0, length = 0, value = 0;
    Buffer buffer({stored(1, t("10")), stored(2, i(1)), stored(1, t("20"))});
    EXPECT_EQ(fbgetc(buffer, key, (char *)&value, &length, &from, 9), -1);
    EXPECT_EQ(getfberror(), FBEBADFLD);
    EXPECT_EQ(fbkeyoccur(buffer, key), 2);
    EXPECT_EQ(fbgetc(buffer, key, (char *)&value, &length, &from, FB_INT), 1);
    EXPECT_EQ(value, 10);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(fbgetc(buffer, key, (char *)&value, &length, &from, FB_INT), 1);
    EXPECT_EQ(value, 20);
    length = NO_CHANGE;
    EXPECT_EQ(fbgetc(buffer, key, (char *)&value, &length, &from, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(length, NO_CHANGE);
    EXPECT_EQ(fbkeyoccur(buffer, key), 0);
}
