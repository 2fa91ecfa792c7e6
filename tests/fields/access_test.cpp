// The calls that write and delete single fields: what they put where, and what they refuse.
#include "fields/fixture.h"

#include "fields/fbapim.h"

using namespace fld;

namespace {

using FieldPut = FieldTest;
using FieldInsert = FieldTest;
using FieldUpdate = FieldTest;
using FieldDelete = FieldTest;

const int32_t A = key(INT, 1), B = key(INT, 2), S = key(STRING, 3), C = key(CARRAY, 4);
const std::vector<int32_t> UNKNOWN_TYPES = {key(0, 1),  key(9, 1), key(10, 2), key(31, 1),
                                            key(-1, 1), INT_MIN,   -1};

list ints(int32_t key, std::vector<int32_t> values)
{
    list fields;
    for (int32_t value : values)
        fields.push_back({key, raw(value)});
    return fields;
}

list join(list first, const list &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace

// ---- put

TEST_F(FieldPut, AppendsEachType)
{
    Buffer fbuf;
    list expected;
    for (int round = 0; round < 3; round++)
        for (const field &one : one_of_each()) {
            stale();
            EXPECT_EQ(put(fbuf, one), 1);
            EXPECT_EQ(getfberror(), 0);
            expected.push_back(one);
            ASSERT_TRUE(equal(fbuf, expected));
        }
}

TEST_F(FieldPut, TakesValuesThatAreNotAligned)
{
    alignas(8) char area[32] = {};
    for (const field &one : one_of_each()) {
        std::string value = handed_over(one);
        Buffer fbuf;
        memcpy(area + 1, value.data(), value.size());
        EXPECT_EQ(fbput(fbuf, one.key, area + 1, (int)one.value.size()), 1);
        EXPECT_TRUE(equal(fbuf, {one})) << one;
    }
}

TEST_F(FieldPut, LongKeepsTheLowThirtyTwoBits)
{
    const int64_t values[] = {0, -1, INT_MAX, INT_MIN, 0x123456789abcdef0, LONG_MIN, LONG_MAX};
    for (int64_t value : values) {
        Buffer fbuf;
        int64_t back = 0x7777777777777777;
        EXPECT_EQ(fbput(fbuf, key(LONG, 1), chars(&value), 0), 1);
        EXPECT_TRUE(equal(fbuf, {{key(LONG, 1), raw((int32_t)value)}}));
        EXPECT_EQ(fbget(fbuf, key(LONG, 1), chars(&back), nullptr), 1);
        EXPECT_EQ(back, value & 0xffffffff);
    }
}

TEST_F(FieldPut, ValueFromABufferHasALongOfFourBytes)
{
    Buffer fbuf;
    struct {
        int32_t value = -5;
        int32_t behind = 0x55555555;
    } stored;
    EXPECT_EQ(_fbput(fbuf, key(LONG, 1), chars(&stored), 0), 1);
    list expected = {{key(LONG, 1), raw(-5)}};
    for (const field &one : one_of_each())
        if (type_of(one.key) != LONG) {
            std::string value = handed_over(one);
            EXPECT_EQ(_fbput(fbuf, one.key, value.data(), (int)one.value.size()), 1);
            expected.push_back(one);
        }
    EXPECT_TRUE(equal(fbuf, expected));
}

TEST_F(FieldPut, ValueFromABufferIsCheckedAlike)
{
    Buffer fbuf(ints(A, {1}));
    EXPECT_CALL(_fbput(fbuf, C, chars("x"), 0), -1, FBEINVAL);
    EXPECT_CALL(_fbput(fbuf, key(9, 1), chars("xyz"), 0), -1, FBETYPE);
    EXPECT_CALL(_fbput(nullptr, A, chars("xyz"), 0), -1, FBEINVAL);
    fbuf.tighten(7);
    EXPECT_CALL(_fbput(fbuf, A, chars("xyz"), 0), -1, FBENOSPACE);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
    fbuf.tighten(8);
    EXPECT_CALL(_fbput(fbuf, A, chars("\2\0\0"), 0), 1, 0);
    EXPECT_TRUE(equal(fbuf, ints(A, {1, 2})));
}

TEST_F(FieldPut, FillsABufferToTheLastByte)
{
    for (const field &one : one_of_each())
        for (int spare : {0, -1, -7, -8, 7, 8}) {
            SCOPED_TRACE(testing::Message() << one << " spare " << spare);
            int32_t room = 8 + size_of(one) + spare;
            if (room < 8)
                continue;
            Guarded fbuf(image({}), room);
            bool fits = spare >= 0;
            stale();
            EXPECT_EQ(put(fbuf, one), fits ? 1 : -1);
            EXPECT_EQ(getfberror(), fits ? 0 : FBENOSPACE);
            EXPECT_TRUE(equal(fbuf, fits ? list{one} : list{}));
            EXPECT_EQ(fbget_unused(fbuf), fits ? spare : room - 8);
        }
}

TEST_F(FieldPut, OversizeValuesAreRefused)
{
    Buffer fbuf(ints(A, {1}));
    std::string text(2000, 't');
    EXPECT_CALL(fbput(fbuf, S, text.data(), 3), -1, FBENOSPACE);
    EXPECT_CALL(fbput(fbuf, C, text.data(), 1100), -1, FBENOSPACE);
    EXPECT_CALL(fbput(fbuf, C, text.data(), INT_MAX), -1, FBENOSPACE);
    EXPECT_CALL(fbput(fbuf, C, text.data(), INT_MAX - 7), -1, FBENOSPACE);
    EXPECT_CALL(fbput(fbuf, C, text.data(), INT_MAX - 16), -1, FBENOSPACE);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
}

TEST_F(FieldPut, CarrayNeedsALength)
{
    Buffer fbuf(ints(A, {1}));
    for (int len : {0, -1, -8, -100, INT_MIN})
        EXPECT_CALL(fbput(fbuf, C, chars("bytes"), len), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
}

TEST_F(FieldPut, UnknownTypesAreRefused)
{
    Buffer fbuf(ints(A, {1}));
    for (int32_t unknown : UNKNOWN_TYPES)
        EXPECT_CALL(fbput(fbuf, unknown, chars("12345678"), 8), -1, FBETYPE);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
    // Room is asked for first.
    fbuf.tighten();
    EXPECT_CALL(fbput(fbuf, key(9, 1), chars("12345678"), 8), -1, FBENOSPACE);
    EXPECT_CALL(fbput(fbuf, C, chars("12345678"), 0), -1, FBENOSPACE);
}

TEST_F(FieldPut, NullValueIsRefused)
{
    Buffer fbuf(ints(A, {1}));
    for (const field &one : one_of_each())
        EXPECT_CALL(fbput(fbuf, one.key, nullptr, 4), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
}

TEST_F(FieldPut, MarkOfTheBufferIsNotAsked)
{
    Buffer fbuf(ints(A, {1}));
    memset(fbuf.bytes(), 0, 4);
    EXPECT_CALL(put(fbuf, an_int(1, 2)), 1, 0);
    EXPECT_CALL(fbkeyoccur(fbuf, A), 2, 0);
    int32_t value = 0;
    EXPECT_CALL(fbget(fbuf, A, chars(&value), nullptr), 1, 0);
    EXPECT_CALL(fbdelete(fbuf, A, 0), 1, 0);
    EXPECT_EQ(fbget_used(fbuf), 16);
}

// ---- insert

TEST_F(FieldInsert, PushesTheOccurrenceBack)
{
    for (int nth : {0, 1, 2}) {
        Buffer fbuf({a_string(3, "front"), an_int(1, 10), an_int(2, 20), an_int(1, 11), an_int(1, 12)});
        EXPECT_CALL(insert(fbuf, nth, an_int(1, 99)), 1, 0);
        list expected = {a_string(3, "front"), an_int(1, 10), an_int(2, 20), an_int(1, 11), an_int(1, 12)};
        const int places[] = {1, 3, 4};
        expected.insert(expected.begin() + places[nth], an_int(1, 99));
        EXPECT_TRUE(equal(fbuf, expected)) << nth;
        EXPECT_EQ(fbgetvali(fbuf, A, nth), 99);
        EXPECT_EQ(fbgetvali(fbuf, A, nth + 1), 10 + nth);
    }
}

TEST_F(FieldInsert, EachTypeInFrontOfItself)
{
    for (const field &one : one_of_each()) {
        field longer = one;
        if (type_of(one.key) >= STRING)
            longer.value += std::string(30, 'l');
        Buffer fbuf(one_of_each());
        EXPECT_CALL(insert(fbuf, 0, longer), 1, 0);
        list expected;
        for (const field &other : one_of_each()) {
            if (other.key == one.key)
                expected.push_back(longer);
            expected.push_back(other);
        }
        EXPECT_TRUE(equal(fbuf, expected)) << one;
    }
}

TEST_F(FieldInsert, BehindTheLastOccurrenceItAppends)
{
    Buffer fbuf(join(ints(A, {1, 2}), ints(B, {3})));
    EXPECT_CALL(insert(fbuf, 2, an_int(1, 4)), 1, 0);
    EXPECT_CALL(insert(fbuf, 0, a_string(3, "s")), 1, 0);
    EXPECT_CALL(insert(fbuf, 0, a_carray(4, "c")), 1, 0);
    EXPECT_TRUE(equal(
        fbuf, join(join(ints(A, {1, 2}), ints(B, {3})), {an_int(1, 4), a_string(3, "s"), a_carray(4, "c")})));
}

TEST_F(FieldInsert, PadsWithNullOccurrences)
{
    for (const field &one : one_of_each()) {
        Buffer fbuf(join({one}, {an_int(99, 1)}));
        if (type_of(one.key) == CARRAY) {
            EXPECT_CALL(insert(fbuf, 3, one), -1, FBEINVAL);
            EXPECT_TRUE(equal(fbuf, {one, an_int(99, 1)}));
            continue;
        }
        EXPECT_CALL(insert(fbuf, 3, one), 1, 0);
        field null = {one.key, std::string(type_of(one.key) == STRING ? 0 : one.value.size(), '\0')};
        EXPECT_TRUE(equal(fbuf, {one, an_int(99, 1), null, null, one})) << one;
        EXPECT_EQ(fbkeyoccur(fbuf, one.key), 4);
    }
}

TEST_F(FieldInsert, PadsInAnEmptyBuffer)
{
    Buffer fbuf;
    EXPECT_CALL(insert(fbuf, 2, an_int(1, 7)), 1, 0);
    EXPECT_TRUE(equal(fbuf, ints(A, {0, 0, 7})));
}

TEST_F(FieldInsert, CarrayThatNeedsNoPadsGoesIn)
{
    Buffer fbuf({a_carray(4, "one")});
    EXPECT_CALL(insert(fbuf, 1, a_carray(4, "two")), 1, 0);
    EXPECT_CALL(insert(fbuf, 0, a_carray(4, "zero")), 1, 0);
    EXPECT_TRUE(equal(fbuf, {a_carray(4, "zero"), a_carray(4, "one"), a_carray(4, "two")}));
    EXPECT_CALL(fbinsert(fbuf, C, 0, chars("x"), 0), -1, FBEINVAL);
    EXPECT_CALL(fbinsert(fbuf, C, 0, chars("x"), -9), -1, FBEINVAL);
    EXPECT_CALL(fbinsert(fbuf, C, 3, chars("x"), 0), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, {a_carray(4, "zero"), a_carray(4, "one"), a_carray(4, "two")}));
}

TEST_F(FieldInsert, NegativeNumbersAreRefused)
{
    Buffer fbuf(ints(A, {1}));
    for (int nth : {-1, -2, INT_MIN})
        EXPECT_CALL(insert(fbuf, nth, an_int(1, 2)), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
}

TEST_F(FieldInsert, RoomForThePadsIsReckonedAtTheSizeOfTheValue)
{
    // A long text with a pad: two entries of 24 bytes are wanted although the pad takes 8.
    field text = a_string(3, "a text of 19 letters");
    ASSERT_EQ(size_of(text), 32);
    Guarded tight(image({}), 8 + 2 * 32 - 1);
    EXPECT_CALL(insert(tight, 2, text), -1, FBENOSPACE);
    EXPECT_TRUE(equal(tight, {}));
    // The reckoning counts the pads and not the value itself; what doesn't fit then is the value.
    Guarded enough(image({}), 8 + 2 * 32);
    EXPECT_CALL(insert(enough, 2, text), 1, 0);
    EXPECT_TRUE(equal(enough, {a_string(3, ""), a_string(3, ""), text}));
}

TEST_F(FieldInsert, PadsStayWhenTheValueDoesNotFit)
{
    Guarded fbuf(image({}), 8 + 2 * 8);
    EXPECT_CALL(insert(fbuf, 2, an_int(1, 7)), -1, FBENOSPACE);
    EXPECT_TRUE(equal(fbuf, ints(A, {0, 0})));
    Guarded none(image({}), 8 + 2 * 8 - 1);
    EXPECT_CALL(insert(none, 2, an_int(1, 7)), -1, FBENOSPACE);
    EXPECT_TRUE(equal(none, {}));
}

TEST_F(FieldInsert, HugeNumbersDoNotOverflow)
{
    Guarded fbuf(image(ints(A, {1})), 1032);
    for (int nth : {INT_MAX, INT_MAX - 1, 0x10000000, 0x20000001, 1000})
        EXPECT_CALL(insert(fbuf, nth, an_int(1, 7)), -1, FBENOSPACE);
    std::string text(1000, 't');
    EXPECT_CALL(fbinsert(fbuf, S, INT_MAX, text.data(), 0), -1, FBENOSPACE);
    EXPECT_CALL(fbinsert(fbuf, C, 0, text.data(), INT_MAX), -1, FBENOSPACE);
    EXPECT_TRUE(equal(fbuf, ints(A, {1})));
}

TEST_F(FieldInsert, InFrontFillsABufferToTheLastByte)
{
    for (int spare : {0, 7, -1}) {
        Guarded fbuf(image({an_int(1, 1), a_string(3, "tail")}), 8 + 8 + 16 + 8 + spare);
        EXPECT_CALL(insert(fbuf, 0, an_int(1, 2)), spare < 0 ? -1 : 1, spare < 0 ? FBENOSPACE : 0);
        list expected = {an_int(1, 1), a_string(3, "tail")};
        if (spare >= 0)
            expected.insert(expected.begin(), an_int(1, 2));
        EXPECT_TRUE(equal(fbuf, expected));
    }
}

TEST_F(FieldInsert, ReadOccurrencesDoNotCount)
{
    list fields = ints(A, {10, 11, 12});
    fields[0].key |= READ;
    Buffer fbuf(fields);
    EXPECT_CALL(insert(fbuf, 0, an_int(1, 99)), 1, 0);
    EXPECT_TRUE(equal(fbuf, {{A | READ, raw(10)}, an_int(1, 99), an_int(1, 11), an_int(1, 12)}));
    EXPECT_CALL(insert(fbuf, 3, an_int(1, 13)), 1, 0);
    EXPECT_TRUE(
        equal(fbuf, {{A | READ, raw(10)}, an_int(1, 99), an_int(1, 11), an_int(1, 12), an_int(1, 13)}));
}

TEST_F(FieldInsert, UnknownTypesAreRefused)
{
    Buffer fbuf(ints(A, {1}));
    for (int32_t unknown : UNKNOWN_TYPES)
        for (int nth : {0, 2}) {
            stale();
            EXPECT_EQ(fbinsert(fbuf, unknown, nth, chars("12345678"), 8), -1);
            EXPECT_TRUE(getfberror() == FBETYPE || (nth > 0 && getfberror() == FBEINVAL)) << unknown;
            EXPECT_TRUE(equal(fbuf, ints(A, {1}))) << unknown;
        }
}

// ---- update

TEST_F(FieldUpdate, ReplacesEachTypeInPlace)
{
    const list others = {number<int8_t>(key(CHAR, 1), 'x'),
                         number<int16_t>(key(SHORT, 2), 77),
                         number<int32_t>(key(INT, 3), -1),
                         number<int32_t>(key(LONG, 4), 1234),
                         number<float>(key(FLOAT, 5), -9.5f),
                         number<double>(key(DOUBLE, 6), 1e100),
                         a_string(7, "other"),
                         a_carray(8, "xyz")};
    for (size_t i = 0; i < others.size(); i++) {
        Buffer fbuf(one_of_each());
        EXPECT_CALL(update(fbuf, 0, others[i]), 1, 0);
        list expected = one_of_each();
        expected[i] = others[i];
        EXPECT_TRUE(equal(fbuf, expected)) << others[i];
    }
}

TEST_F(FieldUpdate, NeighboursMoveWithTheSize)
{
    const int lengths[] = {0, 1, 2, 3, 4, 11, 12, 20, 100};
    for (int from : lengths)
        for (int to : lengths) {
            SCOPED_TRACE(testing::Message() << from << " to " << to);
            std::string before((size_t)from, 'b'), after((size_t)to, 'a');
            Buffer fbuf({an_int(1, 1), a_string(3, before), an_int(1, 2), a_string(3, "last")});
            EXPECT_CALL(update(fbuf, 0, a_string(3, after)), 1, 0);
            EXPECT_TRUE(equal(fbuf, {an_int(1, 1), a_string(3, after), an_int(1, 2), a_string(3, "last")}));
            if (from == 0 || to == 0)
                continue;
            Buffer bytes({a_carray(4, before), an_int(1, 2)});
            EXPECT_CALL(update(bytes, 0, a_carray(4, after)), 1, 0);
            EXPECT_TRUE(equal(bytes, {a_carray(4, after), an_int(1, 2)}));
        }
}

TEST_F(FieldUpdate, ShorterTextOfTheSameSizeLeavesItsTail)
{
    Buffer fbuf({a_string(3, "abcdefghij")});  // 16 bytes
    EXPECT_CALL(update(fbuf, 0, a_string(3, "wxyz")), 1, 0);
    EXPECT_EQ(std::string(fbuf.bytes() + 12, 12), std::string("wxyz\0fghij\0\0", 12));
    EXPECT_EQ(fbget_used(fbuf), 24);
}

TEST_F(FieldUpdate, TakesTheOccurrenceByItsNumber)
{
    list fields = ints(A, {10, 11, 12, 13});
    fields[1].key |= READ;
    Buffer fbuf(fields);
    EXPECT_CALL(update(fbuf, 1, an_int(1, 99)), 1, 0);
    EXPECT_TRUE(equal(fbuf, {an_int(1, 10), {A | READ, raw(11)}, an_int(1, 99), an_int(1, 13)}));
}

TEST_F(FieldUpdate, MissingOccurrenceIsNotMade)
{
    Buffer fbuf(ints(A, {1, 2}));
    EXPECT_CALL(update(fbuf, 2, an_int(1, 3)), -1, FBENOENT);
    EXPECT_CALL(update(fbuf, INT_MAX, an_int(1, 3)), -1, FBENOENT);
    EXPECT_CALL(update(fbuf, -1, an_int(1, 3)), -1, FBENOENT);
    EXPECT_CALL(update(fbuf, 0, an_int(9, 3)), -1, FBENOENT);
    EXPECT_CALL(fbupdate(fbuf, C, 0, chars("x"), 0), -1, FBENOENT);
    EXPECT_TRUE(equal(fbuf, ints(A, {1, 2})));
}

TEST_F(FieldUpdate, GrowsToTheLastByteAndNoFurther)
{
    for (int spare : {8, 15, 7, 0}) {
        Guarded fbuf(image({a_string(3, "abc"), an_int(1, 5)}), 8 + 16 + spare);
        bool fits = spare >= 8;
        EXPECT_CALL(update(fbuf, 0, a_string(3, "abcd")), fits ? 1 : -1, fits ? 0 : FBENOSPACE);
        EXPECT_TRUE(equal(fbuf, {a_string(3, fits ? "abcd" : "abc"), an_int(1, 5)}));
    }
    for (int spare : {8, 7}) {
        Guarded fbuf(image({a_carray(4, "12345678"), an_int(1, 5)}), 8 + 24 + spare);
        bool fits = spare >= 8;
        EXPECT_CALL(update(fbuf, 0, a_carray(4, "123456789")), fits ? 1 : -1, fits ? 0 : FBENOSPACE);
        EXPECT_TRUE(equal(fbuf, {a_carray(4, fits ? "123456789" : "12345678"), an_int(1, 5)}));
        EXPECT_CALL(fbupdate(fbuf, C, 0, chars("x"), INT_MAX), -1, FBENOSPACE);
    }
}

TEST_F(FieldUpdate, CarrayWithoutALengthIsResizedAndRefused)
{
    for (int len : {0, -1, -4}) {
        Buffer fbuf({a_carray(4, "1234567890123456"), an_int(1, 5)});  // 24 bytes
        EXPECT_CALL(fbupdate(fbuf, C, 0, chars("x"), len), -1, FBEINVAL);
        // The entry has its new size and its old key and length word.
        EXPECT_EQ(fbget_used(fbuf), 8 + 8 + 8) << len;
        EXPECT_EQ(std::string(fbuf.bytes() + 8, 8), raw(C) + raw(16));
        EXPECT_EQ(std::string(fbuf.bytes() + 16, 8), raw(A) + raw(5));
        EXPECT_EQ(fbkeyoccur(fbuf, A) + fbfldcount(fbuf) >= 0, true);  // walks end inside
    }
}

TEST_F(FieldUpdate, HostileLengthsDoNotLeaveTheBuffer)
{
    for (int len : {INT_MIN, INT_MIN + 1, -1000000, -9, -16, -17, -100}) {
        Guarded fbuf(image({an_int(1, 4), a_carray(4, "1234567890123456"), an_int(1, 5)}), 64);
        EXPECT_CALL(fbupdate(fbuf, C, 0, chars("x"), len), -1, FBEINVAL);
        EXPECT_GE(used(fbuf), 16);
        EXPECT_LE(used(fbuf), 64);
        EXPECT_EQ(std::string(fbuf.bytes() + 8, 8), raw(A) + raw(4));
    }
}

TEST_F(FieldUpdate, ValueInsideTheBufferItself)
{
    // What fbgetval gave is a value like any other, as long as nothing moves.
    Buffer fbuf({an_int(1, 5), an_int(2, 6)});
    EXPECT_CALL(fbupdate(fbuf, A, 0, fbgetval(fbuf, B, 0, nullptr), 0), 1, 0);
    EXPECT_TRUE(equal(fbuf, {an_int(1, 6), an_int(2, 6)}));
    EXPECT_CALL(fbput(fbuf, A, fbgetval(fbuf, A, 0, nullptr), 0), 1, 0);
    EXPECT_TRUE(equal(fbuf, {an_int(1, 6), an_int(2, 6), an_int(1, 6)}));
}

TEST_F(FieldUpdate, TextThatStandsInTheOldOneReplacesIt)
{
    std::string text(40, 't'), tail(17, 'u');
    for (size_t from : {1u, 12u, 20u, 39u, 40u}) {
        Buffer fbuf({a_string(3, text + tail), an_int(1, -1), a_string(5, std::string(30, 'v'))});
        EXPECT_CALL(fbupdate(fbuf, S, 0, fbgetval(fbuf, S, 0, nullptr) + from, 0), 1, 0);
        EXPECT_TRUE(equal(
            fbuf, {a_string(3, text.substr(from) + tail), an_int(1, -1), a_string(5, std::string(30, 'v'))}));
        Buffer bytes({a_carray(4, text + tail), an_int(1, -1), a_string(5, std::string(30, 'v'))});
        EXPECT_CALL(fbupdate(bytes, C, 0, fbgetval(bytes, C, 0, nullptr) + from, 17), 1, 0);
        EXPECT_TRUE(equal(bytes, {a_carray(4, (text + tail).substr(from, 17)), an_int(1, -1),
                                  a_string(5, std::string(30, 'v'))}));
    }
}

TEST_F(FieldUpdate, TextBehindTheOldOneReplacesIt)
{
    Buffer fbuf({a_string(3, "abc"), an_int(1, -1), a_string(3, "a longer text")});
    EXPECT_CALL(fbupdate(fbuf, S, 0, fbgetval(fbuf, S, 1, nullptr), 0), 1, 0);
    EXPECT_TRUE(equal(fbuf, {a_string(3, "a longer text"), an_int(1, -1), a_string(3, "a longer text")}));
    EXPECT_CALL(fbinsert(fbuf, S, 0, fbgetval(fbuf, S, 1, nullptr) + 9, 0), 1, 0);
    EXPECT_TRUE(equal(fbuf, {a_string(3, "text"), a_string(3, "a longer text"), an_int(1, -1),
                             a_string(3, "a longer text")}));
}

TEST_F(FieldUpdate, NullValueIsRefused)
{
    Buffer fbuf(one_of_each());
    for (const field &one : one_of_each())
        EXPECT_CALL(fbupdate(fbuf, one.key, 0, nullptr, 3), -1, FBEINVAL);
    EXPECT_TRUE(equal(fbuf, one_of_each()));
}

// ---- delete

TEST_F(FieldDelete, TakesOneOccurrenceOut)
{
    for (size_t i = 0; i < 8; i++) {
        Buffer fbuf(one_of_each());
        list expected = one_of_each();
        EXPECT_CALL(fbdelete(fbuf, expected[i].key, 0), 1, 0);
        expected.erase(expected.begin() + (long)i);
        EXPECT_TRUE(equal(fbuf, expected)) << i;
    }
    for (int nth : {0, 1, 2}) {
        Buffer fbuf(ints(A, {10, 11, 12}));
        list expected = ints(A, {10, 11, 12});
        EXPECT_CALL(fbdelete(fbuf, A, nth), 1, 0);
        expected.erase(expected.begin() + nth);
        EXPECT_TRUE(equal(fbuf, expected));
    }
}

TEST_F(FieldDelete, MissingOccurrence)
{
    Buffer fbuf(join(ints(A, {1, 2}), {{B | READ, raw(3)}}));
    std::string before = used_bytes(fbuf);
    for (int nth : {2, 3, INT_MAX, -1, INT_MIN})
        EXPECT_CALL(fbdelete(fbuf, A, nth), -1, FBENOENT);
    EXPECT_CALL(fbdelete(fbuf, S, 0), -1, FBENOENT);
    EXPECT_CALL(fbdelete(fbuf, B, 0), -1, FBENOENT);
    EXPECT_CALL(fbdelall(fbuf, S), -1, FBENOENT);
    EXPECT_CALL(fbdelall(fbuf, B), -1, FBENOENT);
    EXPECT_EQ(used_bytes(fbuf), before);
}

TEST_F(FieldDelete, ReadOccurrencesAreKept)
{
    list fields = ints(A, {10, 11, 12, 13});
    fields[1].key |= READ;
    Buffer fbuf(fields);
    EXPECT_CALL(fbdelete(fbuf, A, 1), 1, 0);
    EXPECT_TRUE(equal(fbuf, {an_int(1, 10), {A | READ, raw(11)}, an_int(1, 13)}));
    EXPECT_CALL(fbdelall(fbuf, A), 2, 0);
    EXPECT_TRUE(equal(fbuf, {{A | READ, raw(11)}}));
    EXPECT_CALL(fbdelete(fbuf, A | READ, 0), 1, 0);  // the whole key word counts, the mark too
    EXPECT_TRUE(equal(fbuf, {}));
}

TEST_F(FieldDelete, AllOfAKeyAreCounted)
{
    Buffer fbuf({an_int(1, 1), a_string(3, "x"), an_int(1, 2), an_int(2, 3), an_int(1, 4)});
    EXPECT_CALL(fbdelall(fbuf, A), 3, 0);
    EXPECT_TRUE(equal(fbuf, {a_string(3, "x"), an_int(2, 3)}));
    EXPECT_CALL(fbdelall(fbuf, A), -1, FBENOENT);
    EXPECT_CALL(fbdelall(fbuf, B), 1, 0);
    EXPECT_CALL(fbdelall(fbuf, S), 1, 0);
    EXPECT_TRUE(equal(fbuf, {}));
}

TEST_F(FieldDelete, FullBufferHasRoomAgain)
{
    Guarded fbuf(image({}), 8 + 800);
    for (int round = 0; round < 5; round++) {
        for (int i = 0; i < 100; i++)
            ASSERT_EQ(put(fbuf, an_int(1 + i % 3, i)), 1);
        EXPECT_CALL(put(fbuf, an_int(1, 1)), -1, FBENOSPACE);
        EXPECT_CALL(fbdelete(fbuf, A, 33), 1, 0);
        EXPECT_CALL(put(fbuf, an_int(1, 1)), 1, 0);
        EXPECT_EQ(fbdelall(fbuf, A) + fbdelall(fbuf, B) + fbdelall(fbuf, key(INT, 3)), 100);
        ASSERT_TRUE(equal(fbuf, {}));
    }
}
