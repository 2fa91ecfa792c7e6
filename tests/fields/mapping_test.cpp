// Records to field buffers and back, by the members of a struct definition.
#include "fields/values.h"

#include "support/faults.h"
#include "support/sdlfile.h"
#include "vorn/structs.h"

#include <stddef.h>

using namespace fv;

namespace {

// A member of each type whose key has the same type.
struct plain_record {
    char letters[3];
    int16_t small[2];
    int32_t number[3];
    int64_t wide[2];
    float single[2];
    double twice[2];
    char name[24];  // 3 of 8
    char raw[12];   // 2 of 6
};

// Members whose keys have other types, and null values of their own.
struct mixed_record {
    int32_t from_text;
    int64_t from_int;
    double from_bytes;
    char text_of_number[12];
    char bytes_of_text[8];
    char text_of_bytes[8];
    int16_t from_long;
    float from_double;
    char from_string;
};

struct null_record {
    char letter;
    int16_t small;
    int32_t number;
    int64_t wide;
    float single;
    double twice;
    char name[8];
    char raw[8];
    int32_t behind;
};

struct nested_record {
    int32_t first;
    plain_record inner;
    int32_t nameless;
    int32_t last;
};

// Members that take the fields of longs.
struct long_record {
    double number;
    int64_t text_like;
    char text[16];
    int32_t whole;
    char narrow[2][4];  // less room than its null value has
};

#define PLACE(record, member) (int32_t) offsetof(record, member)

sdl::member member(const char *name, int key, int type, const char *null, int place, int count = 1,
                   int element = 0)
{
    sdl::member made;
    made.name = name;
    made.key = key;
    made.type = type;
    made.null = null;
    made.count = count;
    made.element = element;
    made.host_offset = made.wire_offset = place;
    return made;
}

sdl::record record(const char *name, int64_t size, std::vector<sdl::member> members)
{
    return {name, std::move(members), size, size, 0};
}

sdl::record plain(void)
{
    using r = plain_record;
    return record("plain", sizeof(r),
                  {
                      member("letters", key_of(1, 1), 1, "", PLACE(r, letters), 3, 1),
                      member("small", key_of(2, 2), 2, "0", PLACE(r, small), 2),
                      member("number", key_of(3, 3), 3, "0", PLACE(r, number), 3),
                      member("wide", key_of(4, 4), 4, "0", PLACE(r, wide), 2),
                      member("single", key_of(5, 5), 5, "0", PLACE(r, single), 2),
                      member("twice", key_of(6, 6), 6, "0", PLACE(r, twice), 2),
                      member("name", key_of(7, 7), 7, "", PLACE(r, name), 24, 8),
                      member("raw", key_of(8, 8), 8, "", PLACE(r, raw), 12, 6),
                  });
}

sdl::record mixed(void)
{
    using r = mixed_record;
    return record("mixed", sizeof(r),
                  {
                      member("from_text", key_of(7, 1), 3, "-1", PLACE(r, from_text)),
                      member("from_int", key_of(3, 2), 4, "-1", PLACE(r, from_int)),
                      member("from_bytes", key_of(8, 3), 6, "-1", PLACE(r, from_bytes)),
                      member("text_of_number", key_of(6, 4), 7, "none", PLACE(r, text_of_number), 12, 12),
                      member("bytes_of_text", key_of(7, 5), 8, "none", PLACE(r, bytes_of_text), 8, 8),
                      member("text_of_bytes", key_of(8, 6), 7, "none", PLACE(r, text_of_bytes), 8, 8),
                      member("from_long", key_of(4, 7), 2, "-1", PLACE(r, from_long)),
                      member("from_double", key_of(6, 8), 5, "-1", PLACE(r, from_double)),
                      member("from_string", key_of(7, 9), 1, "-", PLACE(r, from_string), 1, 1),
                  });
}

sdl::record nulls(void)
{
    using r = null_record;
    return record("nulls", sizeof(r),
                  {
                      member("letter", key_of(1, 1), 1, "xyz", PLACE(r, letter), 1, 1),
                      member("small", key_of(2, 1), 2, "-12", PLACE(r, small)),
                      member("number", key_of(3, 1), 3, "77 cents", PLACE(r, number)),
                      member("wide", key_of(4, 1), 4, "-5000000000", PLACE(r, wide)),
                      member("single", key_of(5, 1), 5, "0.1", PLACE(r, single)),
                      member("twice", key_of(6, 1), 6, "1e3", PLACE(r, twice)),
                      member("name", key_of(7, 1), 7, "none", PLACE(r, name), 8, 8),
                      member("raw", key_of(8, 1), 8, "empty", PLACE(r, raw), 8, 8),
                      member("behind", key_of(3, 2), 3, "0", PLACE(r, behind)),
                  });
}

sdl::record longs(void)
{
    using r = long_record;
    return record("longs", sizeof(r),
                  {
                      member("number", key_of(4, 1), 6, "0", PLACE(r, number)),
                      member("text_like", key_of(7, 1), 4, "0", PLACE(r, text_like)),
                      member("text", key_of(4, 2), 7, "", PLACE(r, text), 16, 16),
                      member("whole", key_of(4, 1), 3, "0", PLACE(r, whole)),
                      member("narrow", key_of(7, 9), 7, "abcdefgh", PLACE(r, narrow), 8, 4),
                  });
}

sdl::record nested(void)
{
    using r = nested_record;
    std::vector<sdl::member> members = {
        member("first", key_of(3, 31), 3, "9", PLACE(r, first)),
        member("inner", 0, 9, "", PLACE(r, inner)),
        member("nameless", 0, 3, "5", PLACE(r, nameless)),
        member("last", key_of(3, 32), 3, "9", PLACE(r, last)),
    };
    members[1].nested = 0;
    return record("sixteen_letters_and_more", sizeof(r), members);
}

struct StructMapping : testing::Test {
    StructMapping()
    {
        unsetenv("SDLFILE");
        std::string path = write_definition(sdl::file_bytes({plain(), mixed(), nulls(), nested(), longs()}));
        setenv("SDLFILE64", path.c_str(), 1);
        fbfree(fballoc(1, 1));  // the definitions are there
    }
};

char *name_of(const char *text)
{
    return (char *)text;
}

template <typename T> T dirty(void)
{
    T made;
    memset(&made, 0x5a, sizeof made);
    return made;
}

int to_record(FBUF *fbuf, void *to, const char *name)
{
    return fbftos(fbuf, (char *)to, name_of(name));
}

int to_fields(FBUF *fbuf, const void *from, int mode, const char *name)
{
    return fbstof(fbuf, (char *)from, mode, name_of(name));
}

int is_null(const void *from, const char *which, int occurrence, const char *name)
{
    return fbsnull((char *)from, name_of(which), occurrence, name_of(name));
}

std::string bytes_at(const void *place, size_t count)
{
    return std::string((const char *)place, count);
}

// A record that holds no null value anywhere, and its fields in the order of the members.
plain_record full_record(void)
{
    plain_record r;
    memset(&r, 0, sizeof r);
    memcpy(r.letters, "abc", 3);
    r.small[0] = 1, r.small[1] = -2;
    r.number[0] = 5, r.number[1] = -6, r.number[2] = 7;
    r.wide[0] = 8, r.wide[1] = -9;
    r.single[0] = 1.5f, r.single[1] = -2.5f;
    r.twice[0] = 3.25, r.twice[1] = -1e200;
    memcpy(r.name, "one\0    two\0    1234567", 24);
    memcpy(r.raw, "raw123raw456", 12);
    return r;
}

fields full_fields(void)
{
    return {stored(1, c('a')),       stored(1, c('b')),      stored(1, c('c')),     stored(2, s(1)),
            stored(2, s(-2)),        stored(3, i(5)),        stored(3, i(-6)),      stored(3, i(7)),
            stored(4, l(8)),         stored(4, l(-9)),       stored(5, f(1.5)),     stored(5, f(-2.5)),
            stored(6, d(3.25)),      stored(6, d(-1e200)),   stored(7, t("one")),   stored(7, t("two")),
            stored(7, t("1234567")), stored(8, a("raw123")), stored(8, a("raw456"))};
}

}  // namespace

// ---- a buffer into a record

TEST_F(StructMapping, EveryMemberTakesItsOccurrences)
{
    Buffer buffer(200);
    for (const field &one : full_fields())
        buffer.add(one);
    std::string before = whole(buffer);
    auto r = dirty<plain_record>();
    EXPECT_EQ(to_record(buffer, &r, "plain"), 1);
    EXPECT_EQ(getfberror(), 0);
    plain_record wanted = full_record();
    EXPECT_EQ(bytes_at(r.letters, 3), "abc");
    EXPECT_EQ(r.small[0], 1);
    EXPECT_EQ(r.small[1], -2);
    EXPECT_EQ(r.number[1], -6);
    EXPECT_EQ(r.number[2], 7);
    EXPECT_EQ(r.wide[0], 8);
    EXPECT_EQ(r.wide[1], 4294967287);  // 32 bits, taken as unsigned
    EXPECT_EQ(r.single[1], -2.5f);
    EXPECT_EQ(r.twice[1], -1e200);
    EXPECT_EQ(bytes_at(r.name, 8), std::string("one\0\0\0\0\0", 8));
    EXPECT_EQ(bytes_at(r.name + 16, 8), std::string("1234567\0", 8));
    EXPECT_EQ(bytes_at(r.raw, 12), bytes_at(wanted.raw, 12));
    EXPECT_EQ(whole(buffer), before);
}

TEST_F(StructMapping, OrderOfTheBufferIsThatOfTheOccurrencesOnly)
{
    Buffer buffer({stored(3, i(1)), stored(7, t("x")), stored(2, s(4)), stored(3, i(2)), stored(9, i(99)),
                   stored(7, t("y")), stored(3, i(3)), stored(3, i(4))});
    auto r = dirty<plain_record>();
    EXPECT_EQ(to_record(buffer, &r, "plain"), 1);
    EXPECT_EQ(r.number[0], 1);
    EXPECT_EQ(r.number[1], 2);
    EXPECT_EQ(r.number[2], 3);
    EXPECT_EQ(r.small[0], 4);
    EXPECT_EQ(r.small[1], 0);
    EXPECT_STREQ(r.name, "x");
    EXPECT_STREQ(r.name + 8, "y");
    EXPECT_STREQ(r.name + 16, "");
}

TEST_F(StructMapping, ReadFieldsAreNoOccurrences)
{
    Buffer buffer({stored(3, i(1)), stored(3, i(2))});
    buffer.mark(0);
    auto r = dirty<plain_record>();
    EXPECT_EQ(to_record(buffer, &r, "plain"), 1);
    EXPECT_EQ(r.number[0], 2);
    EXPECT_EQ(r.number[1], 0);
}

TEST_F(StructMapping, AbsentFieldsGiveTheNullValue)
{
    Buffer buffer;
    auto r = dirty<null_record>();
    EXPECT_EQ(to_record(buffer, &r, "nulls"), 1);
    EXPECT_EQ(getfberror(), FBENOENT);  // of the last one that was missed
    EXPECT_EQ(r.letter, 'x');
    EXPECT_EQ(r.small, -12);
    EXPECT_EQ(r.number, 77);
    EXPECT_EQ(r.wide, -5000000000);
    EXPECT_EQ(r.single, 0.1f);
    EXPECT_EQ(r.twice, 1000.0);
    EXPECT_STREQ(r.name, "none");
    EXPECT_STREQ(r.raw, "empty");
    EXPECT_EQ(r.behind, 0);
}

TEST_F(StructMapping, LongTextsAreCutToTheirElement)
{
    Buffer buffer({stored(7, t("123456789 and more")), stored(7, t("12345678")), stored(7, t("z")),
                   stored(8, a("1234567890")), stored(8, a("xy"))});
    auto r = dirty<plain_record>();
    EXPECT_EQ(to_record(buffer, &r, "plain"), 1);
    EXPECT_EQ(bytes_at(r.name, 8), "12345678");  // no room for a NUL, so none
    EXPECT_EQ(bytes_at(r.name + 8, 8), "12345678");
    EXPECT_EQ(bytes_at(r.name + 16, 8), std::string("z\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(bytes_at(r.raw, 6), "123456");
    EXPECT_EQ(bytes_at(r.raw + 6, 6), "xyZZZZ");  // the rest keeps what was there
}

TEST_F(StructMapping, KeysOfOtherTypesAreConverted)
{
    Buffer buffer({stored(1, t("42 and more")), stored(2, i(-7)), stored(3, a("2.5")), stored(4, d(1.25)),
                   stored(5, t("text")), stored(6, a("abc")), stored(7, l(-3)), stored(8, d(0.1)),
                   stored(9, t("word"))});
    mixed_record r;
    memset(&r, 0, sizeof r);
    EXPECT_EQ(to_record(buffer, &r, "mixed"), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(r.from_text, 42);
    EXPECT_EQ(r.from_int, -7);  // the sign stands
    EXPECT_EQ(r.from_bytes, 2.5);
    EXPECT_EQ(bytes_at(r.text_of_number, 12), std::string("1.250000\0\0\0\0", 12));
    EXPECT_EQ(bytes_at(r.bytes_of_text, 8), std::string("text\0\0\0\0", 8));
    EXPECT_EQ(bytes_at(r.text_of_bytes, 8), std::string("abc\0\0\0\0\0", 8));
    EXPECT_EQ(r.from_long, -3);
    EXPECT_EQ(r.from_double, 0.1f);
    EXPECT_EQ(r.from_string, 'w');
}

// A long has 4 bytes in the buffer, whatever stands behind them, and is signed on this way.
TEST_F(StructMapping, LongsAreConvertedWithTheirSign)
{
    Buffer buffer({stored(1, l(-5)), stored(9, i(77)), stored(2, l(-1234567)), stored(1, t("-5000000000"))});
    auto r = dirty<long_record>();
    EXPECT_EQ(to_record(buffer, &r, "longs"), 1);
    EXPECT_EQ(r.number, -5.0);
    EXPECT_EQ(r.whole, -5);
    EXPECT_STREQ(r.text, "-1234567");
    EXPECT_EQ(r.text_like, (int32_t)-5000000000);  // a number in text has 32 bits
}

TEST_F(StructMapping, ConvertedTextsAreCutToo)
{
    Buffer buffer({stored(4, d(123456789.5)), stored(5, t("much too long")), stored(6, a("123456789012"))});
    mixed_record r;
    memset(&r, 0x5a, sizeof r);
    EXPECT_EQ(to_record(buffer, &r, "mixed"), 1);
    EXPECT_EQ(bytes_at(r.text_of_number, 12), "123456789.50");
    EXPECT_EQ(bytes_at(r.bytes_of_text, 8), "much too");
    EXPECT_EQ(bytes_at(r.text_of_bytes, 8), "12345678");
    EXPECT_EQ(r.from_int, -1);
}

TEST_F(StructMapping, NestedMembersTakeNoPart)
{
    Buffer buffer({stored(31, i(1)), stored(32, i(2)), stored(3, i(3))});
    auto r = dirty<nested_record>();
    EXPECT_EQ(to_record(buffer, &r, "sixteen_letters_and_more"), 1);
    EXPECT_EQ(r.first, 1);
    EXPECT_EQ(r.last, 2);
    EXPECT_EQ(r.nameless, 5);  // without a field it is always absent
    EXPECT_EQ(bytes_at(&r.inner, sizeof r.inner), std::string(sizeof r.inner, 'Z'));
    r.first = 3;
    memset(&r.inner, 0, sizeof r.inner);
    Buffer filled;
    EXPECT_EQ(to_fields(filled, &r, FB_CONCAT, "sixteen_letters_and_more"), 1);
    EXPECT_EQ(content(filled), (fields{stored(31, i(3)), stored(32, i(2))}));
    r.nameless = 6;  // a value that has nowhere to go
    EXPECT_EQ(to_fields(filled, &r, FB_CONCAT, "sixteen_letters_and_more"), 1);
    EXPECT_EQ(content(filled).size(), 4u);
}

TEST_F(StructMapping, SixteenCharactersNameAStruct)
{
    Buffer buffer;
    auto r = dirty<nested_record>();
    EXPECT_EQ(to_record(buffer, &r, "sixteen_letters_"), 1);
    EXPECT_EQ(r.first, 9);
    EXPECT_EQ(to_record(buffer, &r, "sixteen_letters_or_less"), 1);
    for (const char *name : {"sixteen_letters", "sixteen_lettersX", "", "plai", "plain_", "PLAIN"}) {
        EXPECT_EQ(to_record(buffer, &r, name), -1) << name;
        EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    }
}

TEST_F(StructMapping, Refusals)
{
    auto r = dirty<plain_record>();
    Buffer buffer({stored(3, i(5))});
    EXPECT_EQ(to_record(nullptr, &r, "plain"), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(to_record(nullptr, &r, "nobody"), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(to_record(buffer, &r, "nobody"), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    EXPECT_EQ(bytes_at(&r, sizeof r), std::string(sizeof r, 'Z'));
    EXPECT_EQ(to_fields(nullptr, &r, FB_CONCAT, "plain"), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    for (int mode = FB_CONCAT; mode <= FB_UPDATE; mode++) {
        EXPECT_EQ(to_fields(buffer, &r, mode, "nobody"), -1);
        EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    }
    for (int mode : {0, 1, 2, 3, 8, -1, 100}) {
        EXPECT_EQ(to_fields(buffer, &r, mode, "plain"), -1);
        EXPECT_EQ(getfberror(), FBEINVAL) << mode;
    }
    EXPECT_EQ(content(buffer), fields{stored(3, i(5))});
    EXPECT_EQ(is_null(&r, "number", 0, "nobody"), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    EXPECT_EQ(fbstinit((char *)&r, name_of("nobody")), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    EXPECT_EQ(fbstelinit((char *)&r, name_of("number"), name_of("nobody")), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
}

// ---- a record into a buffer

TEST_F(StructMapping, EveryElementBecomesAField)
{
    plain_record r = full_record();
    Buffer buffer(200);
    buffer.add(stored(99, i(1)));
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "plain"), 1);
    fields wanted = full_fields();
    wanted.insert(wanted.begin(), stored(99, i(1)));
    EXPECT_EQ(content(buffer), wanted);
    EXPECT_EQ(bytes_at(&r, sizeof r), bytes_at(&r, sizeof r));
}

TEST_F(StructMapping, NullElementsAddNothing)
{
    plain_record r = full_record();
    r.letters[1] = 0;
    r.small[0] = r.small[1] = 0;
    r.number[1] = 0;
    r.wide[0] = 0;
    r.single[0] = -0.0f;
    r.twice[1] = 0;
    r.name[8] = 0;
    r.raw[0] = 0;
    Buffer buffer(200);
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "plain"), 1);
    EXPECT_EQ(content(buffer),
              (fields{stored(1, c('a')), stored(1, c('c')), stored(3, i(5)), stored(3, i(7)),
                      stored(4, l(-9)), stored(5, f(-2.5)), stored(6, d(3.25)), stored(7, t("one")),
                      stored(7, t("1234567")), stored(8, a("raw456"))}));
}

TEST_F(StructMapping, EachMemberHasItsOwnNullValue)
{
    null_record r;
    memset(&r, 0, sizeof r);
    EXPECT_EQ(fbstinit((char *)&r, name_of("nulls")), 1);
    Buffer buffer;
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "nulls"), 1);
    EXPECT_EQ(content(buffer), fields{});
    memset(&r, 0, sizeof r);  // nothing of this is a null value, but the last
    memcpy(r.name, "non", 4);
    memcpy(r.raw, "empty!", 7);
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "nulls"), 1);
    EXPECT_EQ(content(buffer),
              (fields{stored(1, c(0)), stored(1, s(0)), stored(1, i(0)), stored(1, l(0)), stored(1, f(0)),
                      stored(1, d(0)), stored(1, t("non")), stored(1, a(std::string("empty!\0\0", 8)))}));
}

// A long is compared whole, though its field keeps 32 bits; a float as the float that the text makes.
TEST_F(StructMapping, NullValuesAreComparedAtTheMembersWidth)
{
    null_record r;
    memset(&r, 0, sizeof r);
    EXPECT_EQ(fbstinit((char *)&r, name_of("nulls")), 1);
    r.wide += 1LL << 32;
    r.single = 0.1f;
    r.twice = 1000.0000000001;
    Buffer buffer;
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "nulls"), 1);
    EXPECT_EQ(content(buffer), (fields{stored(1, l(r.wide)), stored(1, d(r.twice))}));
}

TEST_F(StructMapping, ValuesAreConvertedToTheirKeys)
{
    mixed_record r;
    memset(&r, 0, sizeof r);
    r.from_text = 42, r.from_int = -7, r.from_bytes = 2.5;
    memcpy(r.text_of_number, "1.25", 5);
    memcpy(r.bytes_of_text, "12345678", 8);
    memcpy(r.text_of_bytes, "abc", 4);
    r.from_long = -3, r.from_double = 0.5f, r.from_string = 'w';
    Buffer buffer;
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "mixed"), 1);
    EXPECT_EQ(content(buffer), (fields{stored(1, t("42")), stored(2, i(-7)), stored(3, a("2.500000")),
                                       stored(4, d(1.25)), stored(5, t("12345678")), stored(6, a("abc")),
                                       stored(7, l(-3)), stored(8, d(0.5)), stored(9, t("w"))}));
}

TEST_F(StructMapping, TextsWithoutANulEndWithTheirElement)
{
    plain_record r = full_record();
    memset(r.name, 'n', sizeof r.name);
    memset(r.raw, 'r', sizeof r.raw);
    Buffer buffer(200);
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "plain"), 1);
    fields found = content(buffer);
    ASSERT_EQ(found.size(), full_fields().size());
    EXPECT_EQ(found[14], stored(7, t("nnnnnnnn")));
    EXPECT_EQ(found[16], stored(7, t("nnnnnnnn")));
    EXPECT_EQ(found[18], stored(8, a("rrrrrr")));
}

TEST_F(StructMapping, WhatDoesNotFitIsMissing)
{
    plain_record r = full_record();
    Buffer buffer;
    buffer.room(8 + 8 * 12 + 8);  // no room for the first double
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "plain"), 1);
    fields wanted = full_fields();
    wanted.erase(wanted.begin() + 12, wanted.begin() + 14);
    fields found = content(buffer);
    ASSERT_EQ(found.size(), 13u);
    wanted.resize(13);
    EXPECT_EQ(found, wanted);  // a short string took the room
}

TEST_F(StructMapping, ModesJoinAsWholeBuffersDo)
{
    plain_record r;
    memset(&r, 0, sizeof r);
    r.number[0] = 10, r.number[2] = 30;
    r.small[0] = 4;
    const fields start = {stored(3, i(1)), stored(9, i(2)), stored(3, i(3)), stored(3, i(5))};
    const struct {
        int mode;
        fields wanted;
    } cases[] = {
        {FB_CONCAT,
         {start[0], start[1], start[2], start[3], stored(2, s(4)), stored(3, i(10)), stored(3, i(30))}},
        {FB_JOIN, {stored(3, i(10)), stored(3, i(30))}},
        {FB_OUTER_JOIN, {stored(3, i(10)), start[1], stored(3, i(30)), start[3]}},
        {FB_UPDATE, {stored(3, i(10)), start[1], stored(3, i(30)), start[3], stored(2, s(4))}},
    };
    for (const auto &each : cases) {
        Buffer buffer;
        for (const field &one : start)
            buffer.add(one);
        EXPECT_EQ(to_fields(buffer, &r, each.mode, "plain"), 1);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(content(buffer), each.wanted) << each.mode;
    }
}

TEST_F(StructMapping, JoinsReportWhatTheyFailWith)
{
    plain_record r = full_record();
    Buffer small({stored(3, i(1)), stored(50, d(1))});
    small.room(32);
    std::string before = used_part(small);
    EXPECT_EQ(to_fields(small, &r, FB_UPDATE, "plain"), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(used_part(small), before);
    for (int mode : {FB_JOIN, FB_OUTER_JOIN, FB_UPDATE}) {
        faults::fail_allocation(1);
        EXPECT_EQ(to_fields(small, &r, mode, "plain"), -1);
        EXPECT_EQ(getfberror(), FBEMALLOC);
        EXPECT_TRUE(faults::allocation_failed());
        EXPECT_EQ(used_part(small), before);
        faults::reset();
    }
}

// ---- null tests and null values

TEST_F(StructMapping, NullTestsCompareWithZero)
{
    plain_record r;
    memset(&r, 0, sizeof r);
    const struct {
        const char *name;
        int elements;
        char *first;
        size_t width;
    } members[] = {
        {"letters", 3, r.letters, 1},
        {"small", 2, (char *)r.small, 2},
        {"number", 3, (char *)r.number, 4},
        {"wide", 2, (char *)r.wide, 8},
        {"single", 2, (char *)r.single, 4},
        {"twice", 2, (char *)r.twice, 8},
        {"name", 24, r.name, 1},
        {"raw", 12, r.raw, 1},  // bytes, not elements
    };
    for (const auto &each : members)
        for (int nth = 0; nth < each.elements; nth++) {
            SCOPED_TRACE(testing::Message() << each.name << ' ' << nth);
            EXPECT_EQ(is_null(&r, each.name, nth, "plain"), 1);
            EXPECT_EQ(getfberror(), 0);
            char *place = each.first + each.width * (size_t)nth + each.width - 1;
            *place = 0x3f;
            EXPECT_EQ(is_null(&r, each.name, nth, "plain"), 0);
            EXPECT_EQ(getfberror(), 0);
            *place = 0;
        }
}

TEST_F(StructMapping, NullTestsKnowNothingOfNullValues)
{
    null_record r;
    memset(&r, 0, sizeof r);
    EXPECT_EQ(fbstinit((char *)&r, name_of("nulls")), 1);
    EXPECT_EQ(is_null(&r, "number", 0, "nulls"), 0);
    EXPECT_EQ(is_null(&r, "name", 0, "nulls"), 0);
    EXPECT_EQ(is_null(&r, "name", 4, "nulls"), 1);
    EXPECT_EQ(is_null(&r, "behind", 0, "nulls"), 1);
    r.single = -0.0f;
    r.twice = -0.0;
    EXPECT_EQ(is_null(&r, "single", 0, "nulls"), 1);
    EXPECT_EQ(is_null(&r, "twice", 0, "nulls"), 1);
}

TEST_F(StructMapping, NullTestsRefuseOccurrencesAboveTheCount)
{
    plain_record r = full_record();
    EXPECT_EQ(is_null(&r, "number", 4, "plain"), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    EXPECT_EQ(is_null(&r, "name", 25, "plain"), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
    // One behind the last is let through: it is what stands there in the record.
    r.name[0] = 'x';
    EXPECT_EQ(is_null(&r, "letters", 3, "plain"), 1);  // the gap behind it
    EXPECT_EQ(is_null(&r, "name", 24, "plain"), 0);    // the first byte of raw
    r.raw[0] = 0;
    EXPECT_EQ(is_null(&r, "name", 24, "plain"), 1);
    EXPECT_EQ(getfberror(), 0);
}

// Nothing is read behind the record, or in front of it.
TEST_F(StructMapping, NullTestsEndWithTheRecord)
{
    nested_record r[2];
    memset(r, 0x5a, sizeof r);
    EXPECT_EQ(is_null(&r[0], "last", 0, "sixteen_letters_and_more"), 0);
    EXPECT_EQ(is_null(&r[0], "last", 1, "sixteen_letters_and_more"), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(is_null(&r[1], "first", -1, "sixteen_letters_and_more"), -1);
    EXPECT_EQ(getfberror(), FBEBADSTRUCT);
}

TEST_F(StructMapping, NullTestsOfUnknownMembersGiveNoReason)
{
    nested_record r;
    memset(&r, 0, sizeof r);
    for (const char *name : {"nobody", "FIRST", "firs", "first ", "", "inner"}) {
        EXPECT_EQ(is_null(&r, name, 0, "sixteen_letters_and_more"), -1) << name;
        EXPECT_EQ(getfberror(), 0) << name;
    }
}

TEST_F(StructMapping, NullValuesFillEveryElement)
{
    auto r = dirty<plain_record>();
    EXPECT_EQ(fbstinit((char *)&r, name_of("plain")), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(bytes_at(r.letters, 3), std::string(3, '\0'));
    for (int n = 0; n < 2; n++) {
        EXPECT_EQ(r.small[n], 0);
        EXPECT_EQ(r.wide[n], 0);
        EXPECT_EQ(r.single[n], 0.0f);
        EXPECT_EQ(r.twice[n], 0.0);
        EXPECT_EQ(bytes_at(r.raw + 6 * n, 6), std::string("\0ZZZZZ", 6));
    }
    for (int n = 0; n < 3; n++) {
        EXPECT_EQ(r.number[n], 0);
        EXPECT_EQ(bytes_at(r.name + 8 * n, 8), std::string("\0ZZZZZZZ", 8));
    }
    auto named = dirty<null_record>();
    EXPECT_EQ(fbstinit((char *)&named, name_of("nulls")), 1);
    EXPECT_EQ(named.letter, 'x');
    EXPECT_EQ(named.small, -12);
    EXPECT_EQ(named.number, 77);
    EXPECT_EQ(named.wide, -5000000000);
    EXPECT_EQ(named.single, 0.1f);
    EXPECT_EQ(named.twice, 1000.0);
    EXPECT_EQ(bytes_at(named.name, 8), std::string("none\0ZZZ", 8));
    EXPECT_EQ(bytes_at(named.raw, 8), std::string("empty\0ZZ", 8));
}

TEST_F(StructMapping, NullTextsAreCutToTheirElement)
{
    auto r = dirty<long_record>();
    EXPECT_EQ(fbstelinit((char *)&r, name_of("narrow"), name_of("longs")), 1);
    EXPECT_EQ(bytes_at(r.narrow, 8), std::string("abc\0abc\0", 8));
    memset(&r, 0, offsetof(long_record, narrow));
    Buffer buffer;
    EXPECT_EQ(to_fields(buffer, &r, FB_CONCAT, "longs"), 1);
    EXPECT_EQ(content(buffer), fields{});  // what was filled in is null
}

TEST_F(StructMapping, OneMemberCanBeFilledAlone)
{
    auto r = dirty<plain_record>();
    EXPECT_EQ(fbstelinit((char *)&r, name_of("number"), name_of("plain")), 1);
    EXPECT_EQ(r.number[0], 0);
    EXPECT_EQ(r.number[2], 0);
    EXPECT_EQ(r.small[0], 0x5a5a);
    EXPECT_EQ(r.wide[0], 0x5a5a5a5a5a5a5a5a);
    auto untouched = dirty<plain_record>();
    EXPECT_EQ(fbstelinit((char *)&untouched, name_of("nobody"), name_of("plain")), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(bytes_at(&untouched, sizeof untouched), std::string(sizeof untouched, 'Z'));
    EXPECT_EQ(fbstelinit((char *)&untouched, nullptr, name_of("plain")), 1);  // all of them
    EXPECT_EQ(untouched.small[1], 0);
    EXPECT_EQ(untouched.twice[1], 0.0);
}
