// The calls that read single fields: the read mark, cursors, lengths, counts.
#include "fields/fixture.h"

#include "fields/fbapim.h"

using namespace fld;

namespace {

using FieldGet = FieldTest;
using FieldCursor = FieldTest;
using FieldLook = FieldTest;

const int32_t A = key(INT, 1), B = key(INT, 2), S = key(STRING, 3), C = key(CARRAY, 4);

list marked(list fields, std::vector<size_t> which)
{
    for (size_t i : which)
        fields[i].key |= READ;
    return fields;
}

list mixture()
{
    return {an_int(1, 10),     a_string(3, "s0"), an_int(2, 20), an_int(1, 11),
            a_string(3, "s1"), a_carray(4, "c0"), an_int(1, 12)};
}

// What a reader has written into an area of bytes that were 'u' before.
struct Area {
    char bytes[64];
    Area() { memset(bytes, 'u', sizeof bytes); }
    operator char *() { return bytes; }
    bool holds(const std::string &value) const
    {
        return std::string(bytes, sizeof bytes) == value + std::string(sizeof bytes - value.size(), 'u');
    }
};

}  // namespace

// ---- fbget

TEST_F(FieldGet, DeliversEachTypeAtItsWidth)
{
    for (const field &one : one_of_each()) {
        SCOPED_TRACE(testing::Message() << one);
        Buffer fbuf(one_of_each());
        Area area;
        bool text = type_of(one.key) >= STRING;
        int len = text ? 0 : -77;
        EXPECT_CALL(fbget(fbuf, one.key, area, &len), 1, 0);
        EXPECT_TRUE(area.holds(handed_over(one)));
        EXPECT_EQ(len, text ? (int)handed_over(one).size() : -77);
        if (type_of(one.key) == CARRAY)
            continue;
        Buffer again(one_of_each());
        Area second;
        EXPECT_CALL(fbget(again, one.key, second, nullptr), 1, 0);
        EXPECT_TRUE(second.holds(handed_over(one)));
    }
}

TEST_F(FieldGet, MarksWhatItDelivered)
{
    Buffer fbuf(mixture());
    int32_t value = 0;
    const int32_t expected[] = {10, 11, 12};
    const size_t places[] = {0, 3, 6};
    std::vector<size_t> read;
    for (int i = 0; i < 3; i++) {
        EXPECT_CALL(fbget(fbuf, A, chars(&value), nullptr), 1, 0);
        EXPECT_EQ(value, expected[i]);
        read.push_back(places[i]);
        EXPECT_TRUE(equal(fbuf, marked(mixture(), read)));
        EXPECT_CALL(fbkeyoccur(fbuf, A), 2 - i, 0);
        EXPECT_CALL(fbfldcount(fbuf), 7, 0);
    }
    EXPECT_CALL(fbget(fbuf, A, chars(&value), nullptr), -1, FBENOENT);
    EXPECT_EQ(value, 12);
    EXPECT_TRUE(equal(fbuf, marked(mixture(), read)));
}

TEST_F(FieldGet, MissingField)
{
    Buffer fbuf(mixture());
    Area area;
    int len = 5;
    EXPECT_CALL(fbget(fbuf, key(INT, 9), area, &len), -1, FBENOENT);
    EXPECT_CALL(fbget(fbuf, key(SHORT, 1), area, &len), -1, FBENOENT);
    EXPECT_EQ(len, 5);
    EXPECT_TRUE(area.holds(""));
}

TEST_F(FieldGet, WithoutALengthAllIsDelivered)
{
    for (const char *mode : {"OLD", "TRU", "ERR"}) {
        length_mode(mode);
        Buffer fbuf(mixture());
        Area area, second;
        EXPECT_CALL(fbget(fbuf, C, area, nullptr), 1, 0);
        EXPECT_TRUE(area.holds("c0"));
        int from = 0;
        EXPECT_CALL(fbgetf(fbuf, S, second, nullptr, &from), 1, 0);
        EXPECT_TRUE(second.holds(std::string("s0\0", 3)));
        EXPECT_TRUE(equal(fbuf, marked(mixture(), {1, 5})));
    }
}

TEST_F(FieldGet, DeliveryOfACarrayNeedsALength)
{
    std::string bytes = entry(a_carray(4, "c0")), text = entry(a_string(3, "s0"));
    Area area;
    EXPECT_CALL(_get_fbval_to_usrloc(bytes.data(), area, nullptr), -1, FBEINVAL);
    EXPECT_TRUE(area.holds(""));
    EXPECT_EQ(_get_fbval_to_usrloc(text.data(), area, nullptr), 1);
    EXPECT_TRUE(area.holds(std::string("s0\0", 3)));
}

TEST_F(FieldGet, UnknownTypesAreRefused)
{
    for (int type : {0, 9, 31, -1, -32}) {
        int32_t unknown = key(type, 5);
        list fields = mixture();
        std::string content = image(fields) + raw(unknown) + "abcd";
        content.replace(4, 4, raw((int32_t)content.size()));
        Buffer fbuf;
        memcpy(fbuf.bytes(), content.data(), content.size());
        Area area;
        int len = 60, from = 0;
        EXPECT_CALL(fbget(fbuf, unknown, area, &len), -1, FBETYPE);
        EXPECT_CALL(fbgetf(fbuf, unknown, area, &len, &from), -1, FBETYPE);
        from = 0;
        EXPECT_CALL(fbgetc(fbuf, unknown, area, &len, &from, INT), -1, FBETYPE);
        EXPECT_CALL(fbgetlen(fbuf, unknown, 0), -1, FBEBADFLD);
        EXPECT_EQ(std::string(fbuf.bytes(), content.size()), content) << type;
        EXPECT_CALL(fbkeyoccur(fbuf, unknown), 1, 0);
        EXPECT_CALL(fbfldcount(fbuf), 8, 0);
        EXPECT_CALL(fbdelete(fbuf, unknown, 0), 1, 0);
        EXPECT_TRUE(equal(fbuf, fields));
    }
}

TEST_F(FieldGet, NullAreaTakesTheLengthAlone)
{
    Buffer fbuf(one_of_each());
    int len = 0;
    EXPECT_EQ(fbget(fbuf, key(STRING, 7), nullptr, &len), 1);
    EXPECT_EQ(len, 6);
    len = 0;
    EXPECT_EQ(fbget(fbuf, key(CARRAY, 8), nullptr, &len), 1);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(fbget(fbuf, key(INT, 3), nullptr, nullptr), 1);
}

// ---- FDL_LEN

TEST_F(FieldGet, TextInEachLengthMode)
{
    const struct {
        const char *mode;
        int given, result, len;
        std::string value;
    } rows[] = {
        {nullptr, 0, 1, 7, std::string("abcdef\0", 7)},
        {nullptr, 4, 1, 7, std::string("abcdef\0", 7)},
        {nullptr, -3, 1, 7, std::string("abcdef\0", 7)},
        {nullptr, 100, 1, 7, std::string("abcdef\0", 7)},
        {"OLD", 1, 1, 7, std::string("abcdef\0", 7)},
        {"OLD", 0, 1, 7, std::string("abcdef\0", 7)},
        {"TRU", 0, 1, 7, std::string("abcdef\0", 7)},
        {"TRU", 7, 1, 7, std::string("abcdef\0", 7)},
        {"TRU", 50, 1, 7, std::string("abcdef\0", 7)},
        {"TRU", 6, 1, 6, std::string("abcde\0", 6)},
        {"TRU", 4, 1, 4, std::string("abc\0", 4)},
        {"TRU", 1, 1, 1, std::string("\0", 1)},
        {"ERR", 0, 1, 7, std::string("abcdef\0", 7)},
        {"ERR", 7, 1, 7, std::string("abcdef\0", 7)},
        {"ERR", 8, 1, 7, std::string("abcdef\0", 7)},
        {"ERR", 6, -1, 7, ""},
        {"ERR", 4, -1, 7, ""},
        {"ERR", 1, -1, 7, ""},
        {"tru", 4, 1, 7, std::string("abcdef\0", 7)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << (row.mode == nullptr ? "unset" : row.mode) << " " << row.given);
        length_mode(row.mode);
        Buffer fbuf({a_string(3, "abcdef"), an_int(1, 5)});
        int error = row.result == 1 ? 0 : FBENOSPACE, len = row.given, from = 0;
        Area area, second;
        EXPECT_CALL(fbget(fbuf, S, area, &len), row.result, error);
        EXPECT_EQ(len, row.len);
        EXPECT_TRUE(area.holds(row.value));
        EXPECT_EQ(fbkeyoccur(fbuf, S), row.result == 1 ? 0 : 1);
        fbuf.fill({a_string(3, "abcdef"), an_int(1, 5)});
        len = row.given;
        EXPECT_CALL(fbgetf(fbuf, S, second, &len, &from), row.result, error);
        EXPECT_EQ(len, row.len);
        EXPECT_TRUE(second.holds(row.value));
        EXPECT_TRUE(equal(fbuf, {{S | (row.result == 1 ? READ : 0), "abcdef"}, an_int(1, 5)}));
    }
}

TEST_F(FieldGet, BytesInEachLengthMode)
{
    const struct {
        const char *mode;
        int given, result, len;
        std::string value;
    } rows[] = {
        {nullptr, 0, 1, 5, "12345"},  {nullptr, 3, 1, 5, "12345"}, {nullptr, 9, 1, 5, "12345"},
        {nullptr, -3, 1, 5, "12345"}, {"OLD", 3, 1, 5, "12345"},   {"TRU", 0, 1, 5, "12345"},
        {"TRU", 5, 1, 5, "12345"},    {"TRU", 6, 1, 5, "12345"},   {"TRU", 4, 1, 4, "1234"},
        {"TRU", 1, 1, 1, "1"},        {"ERR", 0, 1, 5, "12345"},   {"ERR", 5, 1, 5, "12345"},
        {"ERR", 6, 1, 5, "12345"},    {"ERR", 4, -1, 5, ""},       {"ERR", 1, -1, 5, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << (row.mode == nullptr ? "unset" : row.mode) << " " << row.given);
        length_mode(row.mode);
        Buffer fbuf({a_carray(4, "12345"), an_int(1, 5)});
        int error = row.result == 1 ? 0 : FBENOSPACE, len = row.given;
        Area area;
        EXPECT_CALL(fbget(fbuf, C, area, &len), row.result, error);
        EXPECT_EQ(len, row.len);
        EXPECT_TRUE(area.holds(row.value));
        EXPECT_TRUE(equal(fbuf, {{C | (row.result == 1 ? READ : 0), "12345"}, an_int(1, 5)}));
    }
}

TEST_F(FieldGet, NegativeRoomIsNotTakenForAHugeOne)
{
    for (const char *mode : {"TRU", "ERR"})
        for (int32_t k : {S, C}) {
            length_mode(mode);
            Buffer fbuf({{k, "abcdef"}});
            Area area;
            for (int given : {-1, -100, INT_MIN}) {
                int len = given;
                fbget(fbuf, k, area, &len);
                EXPECT_TRUE(std::string(area.bytes + 8, 56) == std::string(56, 'u'));
            }
        }
}

TEST_F(FieldGet, NumbersIgnoreTheLengthInEveryMode)
{
    for (const char *mode : {"OLD", "TRU", "ERR"})
        for (const field &one : one_of_each()) {
            if (type_of(one.key) >= STRING)
                continue;
            length_mode(mode);
            Buffer fbuf({one});
            Area area;
            int len = 1;
            EXPECT_CALL(fbget(fbuf, one.key, area, &len), 1, 0);
            EXPECT_EQ(len, 1);
            EXPECT_TRUE(area.holds(handed_over(one)));
        }
}

TEST_F(FieldGet, SwitchesAreReadAtTheFirstValue)
{
    setenv("VORN_SEMANTICS", "FDL_LEN=TRU", 1);
    Buffer fbuf({a_string(3, "abcdef"), a_string(3, "ghijkl")});
    char area[16];
    int len = 4;
    EXPECT_CALL(fbget(fbuf, S, area, &len), 1, 0);
    EXPECT_STREQ(area, "abc");
    setenv("VORN_SEMANTICS", "FDL_LEN=ERR", 1);
    len = 4;
    EXPECT_CALL(fbget(fbuf, S, area, &len), 1, 0);
    EXPECT_STREQ(area, "ghi");
}

// ---- cursors

TEST_F(FieldCursor, GoesThroughTheOccurrences)
{
    Buffer fbuf(mixture());
    int from = 0, len = 0;
    int32_t value = 0;
    const int32_t values[] = {10, 11, 12};
    const int offsets[] = {0, 24, 56};
    for (int i = 0; i < 3; i++) {
        EXPECT_CALL(fbgetf(fbuf, A, chars(&value), &len, &from), 1, 0);
        EXPECT_EQ(value, values[i]);
        EXPECT_EQ(from, offsets[i]);
        EXPECT_EQ(fbkeyoccur(fbuf, A), 2 - i);
    }
    EXPECT_CALL(fbgetf(fbuf, A, chars(&value), &len, &from), -1, FBENOENT);
    EXPECT_CALL(fbget(fbuf, A, chars(&value), &len), -1, FBENOENT);
    EXPECT_TRUE(equal(fbuf, marked(mixture(), {0, 3, 6})));
}

TEST_F(FieldCursor, ServesSeveralKeysInTurn)
{
    Buffer fbuf(mixture());
    int from = 0, len = 0;
    char area[16];
    int32_t value = 0;
    EXPECT_EQ(fbgetf(fbuf, A, chars(&value), &len, &from), 1);
    EXPECT_EQ(fbgetf(fbuf, S, area, &len, &from), 1);  // the cursor stands at another key: it starts over
    EXPECT_STREQ(area, "s0");
    EXPECT_EQ(fbgetf(fbuf, A, chars(&value), &len, &from), 1);
    EXPECT_EQ(value, 11);
}

TEST_F(FieldCursor, SurvivesTheDeletionOfItsEntry)
{
    Buffer fbuf(mixture());
    int from = 0, len = 0;
    int32_t value = 0;
    EXPECT_EQ(fbgetf(fbuf, A, chars(&value), &len, &from), 1);
    EXPECT_EQ(fbgetf(fbuf, A, chars(&value), &len, &from), 1);
    EXPECT_EQ(from, 24);
    EXPECT_EQ(fbdelete(fbuf, A | READ, 1), 1);
    EXPECT_CALL(fbgetf(fbuf, A, chars(&value), &len, &from), 1, 0);
    EXPECT_EQ(value, 12);
}

TEST_F(FieldCursor, WithoutACursorTheCallIsRefused)
{
    Buffer fbuf(mixture());
    int32_t value = 0;
    EXPECT_CALL(fbgetf(fbuf, A, chars(&value), nullptr, nullptr), -1, FBEINVAL);
    EXPECT_CALL(fbgetc(fbuf, A, chars(&value), nullptr, nullptr, INT), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, mixture()));
}

TEST_F(FieldCursor, HostileCursorsReadNothingOutside)
{
    Guarded fbuf(image(mixture()), (int32_t)image(mixture()).size());
    for (int hostile : {-1, -8, -136, INT_MIN, INT_MAX, 1, 4, 60, 63, 64}) {
        fbuf.put(image(mixture()));
        Area area;
        int from = hostile, len = 0;
        fbgetf(fbuf, A, area, &len, &from);
        from = hostile;
        fbgetc(fbuf, A, area, &len, &from, STRING);
    }
}

TEST_F(FieldCursor, DeliversAsAnotherType)
{
    Buffer fbuf({an_int(1, 65), an_int(1, 66), a_string(3, "77")});
    int from = 0, len = 0;
    Area text;
    EXPECT_CALL(fbgetc(fbuf, A, text, &len, &from, STRING), 1, 0);
    EXPECT_TRUE(text.holds(std::string("65\0", 3)));
    EXPECT_EQ(len, 3);
    double number = 0;
    EXPECT_CALL(fbgetc(fbuf, A, chars(&number), nullptr, &from, DOUBLE), 1, 0);
    EXPECT_EQ(number, 66.0);
    from = 0;
    int64_t wide = 0;
    EXPECT_CALL(fbgetc(fbuf, S, chars(&wide), &len, &from, LONG), 1, 0);
    EXPECT_EQ(wide, 77);
    EXPECT_EQ(len, 8);
    EXPECT_TRUE(equal(fbuf, {{A | READ, raw(65)}, {A | READ, raw(66)}, {S | READ, "77"}}));
}

TEST_F(FieldCursor, FailedConversionLeavesMarkAndLength)
{
    Buffer fbuf({an_int(1, 12345)});
    int from = 0, len = 3;
    Area area;
    EXPECT_CALL(fbgetc(fbuf, A, area, &len, &from, 9), -1, FBEBADFLD);
    EXPECT_EQ(len, 3);
    length_mode("ERR");
    from = 0;
    EXPECT_CALL(fbgetc(fbuf, A, area, &len, &from, STRING), -1, FBENOSPACE);
    EXPECT_EQ(len, 3);
    EXPECT_TRUE(area.holds(""));
    EXPECT_TRUE(equal(fbuf, {an_int(1, 12345)}));
    from = 0;
    EXPECT_CALL(fbgetc(fbuf, key(INT, 9), area, &len, &from, INT), -1, FBENOENT);
}

// ---- reading without a mark

TEST_F(FieldLook, AddressOfAValueInTheBuffer)
{
    list fields = one_of_each();
    Buffer fbuf(fields);
    const int lengths[] = {1, 2, 4, 4, 4, 8, 5, 3};
    int at = 8;
    for (size_t i = 0; i < fields.size(); i++) {
        int len = -1;
        bool wide = type_of(fields[i].key) == DOUBLE || type_of(fields[i].key) == CARRAY;
        stale();
        char *value = fbgetval(fbuf, fields[i].key, 0, &len);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(value - fbuf.bytes(), at + (wide ? 8 : 4)) << i;
        EXPECT_EQ(len, lengths[i]);
        EXPECT_EQ(fbgetval(fbuf, fields[i].key, 0, nullptr), value);
        EXPECT_CALL(fbgetlen(fbuf, fields[i].key, 0), lengths[i], 0);
        at += size_of(fields[i]);
    }
    EXPECT_TRUE(equal(fbuf, fields));
}

TEST_F(FieldLook, MissingOccurrences)
{
    Buffer fbuf(marked(mixture(), {0, 2}));
    int len = 55;
    for (int nth : {2, 3, INT_MAX, -1, INT_MIN}) {
        EXPECT_CALL(fbgetval(fbuf, A, nth, &len), nullptr, FBENOENT);
        EXPECT_CALL(fbgetlen(fbuf, A, nth), -1, FBENOENT);
        EXPECT_CALL(fbispres(fbuf, A, nth), 0, 0);
        EXPECT_CALL(fbgetvals(fbuf, A, nth), nullptr, FBENOENT);
        EXPECT_CALL(fbgetvali(fbuf, A, nth), 0, FBENOENT);
    }
    EXPECT_CALL(fbgetval(fbuf, B, 0, &len), nullptr, FBENOENT);
    EXPECT_CALL(fbgetlen(fbuf, B, 0), -1, FBENOENT);
    EXPECT_CALL(fbispres(fbuf, B, 0), 0, 0);
    EXPECT_CALL(fbkeyoccur(fbuf, B), 0, 0);
    EXPECT_EQ(len, 55);
}

TEST_F(FieldLook, MarkedOccurrencesAreSkippedByEveryCall)
{
    Buffer fbuf(marked({an_int(1, 10), an_int(1, 11), an_int(1, 12), an_int(1, 13)}, {0, 2}));
    int32_t values[] = {10, 11, 12, 13};
    EXPECT_CALL(fbkeyoccur(fbuf, A), 2, 0);
    EXPECT_CALL(fbfldcount(fbuf), 4, 0);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 0, nullptr), 11);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 1, nullptr), 13);
    EXPECT_CALL(fbispres(fbuf, A, 1), 1, 0);
    EXPECT_CALL(fbispres(fbuf, A, 2), 0, 0);
    EXPECT_CALL(fbgetlen(fbuf, A, 1), 4, 0);
    EXPECT_CALL(fbgetvali(fbuf, A, 1), 13, 0);
    EXPECT_CALL(fbgetnth(fbuf, A, chars(&values[0]), 0), -1, 0);
    EXPECT_CALL(fbgetnth(fbuf, A, chars(&values[1]), 0), 0, 0);
    EXPECT_CALL(fbgetnth(fbuf, A, chars(&values[2]), 0), -1, 0);
    EXPECT_CALL(fbgetnth(fbuf, A, chars(&values[3]), 0), 1, 0);
    // The key with its mark is a key of its own.
    EXPECT_CALL(fbkeyoccur(fbuf, A | READ), 2, 0);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A | READ, 1, nullptr), 12);
    int32_t value = 0, from = 0;
    EXPECT_CALL(fbgetf(fbuf, A, chars(&value), nullptr, &from), 1, 0);
    EXPECT_EQ(value, 11);
    EXPECT_CALL(fbget(fbuf, A, chars(&value), nullptr), 1, 0);
    EXPECT_EQ(value, 13);
}

TEST_F(FieldLook, AsTextAndAsInt)
{
    Buffer fbuf({a_string(3, "42 and more"), number<int32_t>(key(LONG, 5), -1),
                 number<int16_t>(key(SHORT, 6), -9), number<double>(key(DOUBLE, 7), 2.5), a_carray(4, "77")});
    EXPECT_STREQ(fbgetvals(fbuf, S, 0), "42 and more");
    EXPECT_CALL(fbgetvali(fbuf, S, 0), 42, 0);
    EXPECT_STREQ(fbgetvals(fbuf, key(LONG, 5), 0), "-1");
    EXPECT_CALL(fbgetvali(fbuf, key(LONG, 5), 0), -1, 0);
    EXPECT_STREQ(fbgetvals(fbuf, key(SHORT, 6), 0), "-9");
    EXPECT_CALL(fbgetvali(fbuf, key(SHORT, 6), 0), -9, 0);
    EXPECT_STREQ(fbgetvals(fbuf, key(DOUBLE, 7), 0), "2.500000");
    EXPECT_CALL(fbgetvali(fbuf, key(DOUBLE, 7), 0), 2, 0);
    EXPECT_STREQ(fbgetvals(fbuf, C, 0), "77");
    EXPECT_CALL(fbgetvali(fbuf, C, 0), 77, 0);
    EXPECT_EQ(fbkeyoccur(fbuf, S), 1);
}

TEST_F(FieldLook, OccurrenceByItsValue)
{
    list fields = one_of_each(), all;
    for (int round = 0; round < 3; round++)
        for (field one : fields) {
            one.value[0] = (char)(one.value[0] ^ round);
            all.push_back(one);
        }
    Buffer fbuf(all);
    for (int round = 0; round < 3; round++)
        for (field one : fields) {
            one.value[0] = (char)(one.value[0] ^ round);
            std::string value = handed_over(one);
            EXPECT_CALL(fbgetnth(fbuf, one.key, value.data(), (int)one.value.size()), round, 0);
        }
    for (field one : fields) {
        one.value[0] = (char)(one.value[0] ^ 0x40);
        std::string value = handed_over(one);
        EXPECT_CALL(fbgetnth(fbuf, one.key, value.data(), (int)one.value.size()), -1, 0);
    }
    EXPECT_TRUE(equal(fbuf, all));
}

TEST_F(FieldLook, NegativeLongIsNotFoundByItself)
{
    Buffer fbuf({number<int32_t>(key(LONG, 5), -1)});
    int64_t value = -1;
    EXPECT_CALL(fbgetnth(fbuf, key(LONG, 5), chars(&value), 0), -1, 0);
    value = 4294967295;
    EXPECT_CALL(fbgetnth(fbuf, key(LONG, 5), chars(&value), 0), 0, 0);
}

TEST_F(FieldLook, BytesCompareByTheirCommonBeginning)
{
    Buffer fbuf({a_carray(4, "xyz"), a_carray(4, "abcdef")});
    EXPECT_CALL(fbgetnth(fbuf, C, chars("abc"), 3), 1, 0);
    EXPECT_CALL(fbgetnth(fbuf, C, chars("abcdefgh"), 8), 1, 0);
    EXPECT_CALL(fbgetnth(fbuf, C, chars("abd"), 3), -1, 0);
    for (int len : {0, -1, INT_MIN})
        EXPECT_CALL(fbgetnth(fbuf, C, chars("abc"), len), -1, FBEINVAL);
}

TEST_F(FieldLook, NullValueIsFoundNowhere)
{
    Buffer fbuf(one_of_each());
    for (const field &one : one_of_each()) {
        stale();
        EXPECT_EQ(fbgetnth(fbuf, one.key, nullptr, 3), -1);
        EXPECT_TRUE(getfberror() == FBEINVAL || getfberror() == 0);
    }
}

TEST_F(FieldLook, CountsOfAnEmptyBuffer)
{
    Buffer fbuf;
    EXPECT_CALL(fbfldcount(fbuf), 0, 0);
    EXPECT_CALL(fbkeyoccur(fbuf, A), 0, 0);
    EXPECT_CALL(fbispres(fbuf, A, 0), 0, 0);
    EXPECT_CALL(fbdelete(fbuf, A, 0), -1, FBENOENT);
    EXPECT_CALL(fbfldcount(nullptr), 0, FBEINVAL);
}
