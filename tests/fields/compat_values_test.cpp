// What the compatible calls do otherwise than the native ones: no marks, null pads, the walk over all fields,
// blocks for the caller.
#include "fields/values.h"

#include "support/faults.h"
#include "vorn/ffields.h"

#include <malloc.h>

using namespace fv;

namespace {

const int KEY = key_of(FB_INT, 1), TEXT = key_of(FB_STRING, 1), BYTES = key_of(FB_CARRAY, 1);
const int32_t MODES[] = {FLEN_UNSET, FLEN_OLD, FLEN_TRUNCATE, FLEN_ERROR};
const char PATTERN = '\xA5';

char *data(const char *text)
{
    return (char *)text;
}

int put_int(FBUF *fbuf, int nth, int value)
{
    return Fchg(fbuf, KEY, nth, (char *)&value, 0);
}

// A walk with an area of its own.
struct Walk {
    int key = 0, nth = 0, len = 0;
    char area[200];

    int step(FBUF *fbuf)
    {
        memset(area, PATTERN, sizeof area);
        len = sizeof area;
        return Fnext(fbuf, &key, &nth, area, &len);
    }
    bool untouched() const { return std::string(area, sizeof area) == std::string(sizeof area, PATTERN); }
};

}  // namespace

// ---- writing

TEST(CompatibleWrite, AddAndAppendGoToTheEnd)
{
    Buffer buffer({stored(1, i(1)), stored(2, i(2))});
    int value = 3;
    EXPECT_EQ(Fadd(buffer, KEY, (char *)&value, 0), 1);
    value = 4;
    EXPECT_EQ(Fappend(buffer, KEY, (char *)&value, 0), 1);
    EXPECT_EQ(put_int(buffer, -1, 5), 1);
    EXPECT_EQ(content(buffer),
              (fields{stored(1, i(1)), stored(2, i(2)), stored(1, i(3)), stored(1, i(4)), stored(1, i(5))}));
}

TEST(CompatibleWrite, ChangeReplacesWhatIsThere)
{
    Buffer buffer({stored(1, t("one")), stored(1, i(1)), stored(1, t("two")), stored(1, i(2))});
    EXPECT_EQ(Fchg(buffer, TEXT, 0, data("a much longer text"), 0), 1);
    EXPECT_EQ(put_int(buffer, 1, -2), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(content(buffer), (fields{stored(1, t("a much longer text")), stored(1, i(1)),
                                       stored(1, t("two")), stored(1, i(-2))}));
}

TEST(CompatibleWrite, ChangePadsUpToTheOccurrence)
{
    Buffer buffer({stored(2, i(9))});
    EXPECT_EQ(put_int(buffer, 5, 7), 1);
    field zero = stored(1, i(0));
    EXPECT_EQ(content(buffer), (fields{stored(2, i(9)), zero, zero, zero, zero, zero, stored(1, i(7))}));
    EXPECT_EQ(Fchg(buffer, TEXT, 1, data("abc"), 0), 1);
    EXPECT_EQ(content(buffer)[7], stored(1, t("")));
    EXPECT_EQ(content(buffer)[8], stored(1, t("abc")));
    EXPECT_EQ(Fchg(buffer, BYTES, 1, data("abc"), 3), -1);  // no carray is empty
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(Fchg(buffer, BYTES, 0, data("abc"), 3), 1);
}

TEST(CompatibleWrite, ChangeToNothingDeletes)
{
    Buffer buffer({stored(1, i(1)), stored(1, i(2))});
    EXPECT_EQ(Fchg(buffer, KEY, 0, nullptr, 0), 1);
    EXPECT_EQ(content(buffer), fields{stored(1, i(2))});
    EXPECT_EQ(Fchg(buffer, KEY, 1, nullptr, 0), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(content(buffer), fields{stored(1, i(2))});
}

TEST(CompatibleWrite, ChangeRefusals)
{
    Buffer buffer({stored(1, i(1))});
    EXPECT_EQ(put_int(buffer, -2, 5), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(put_int(nullptr, 0, 5), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(put_int(nullptr, -1, 5), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(Fchg(nullptr, KEY, 0, nullptr, 0), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(put_int(buffer, 1000, 5), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(put_int(buffer, 0x7fffffff, 5), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(content(buffer), fields{stored(1, i(1))});
    buffer.room(8 + 8 + 16);
    EXPECT_EQ(put_int(buffer, 3, 5), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(put_int(buffer, 2, 5), 1);
    EXPECT_EQ(content(buffer), (fields{stored(1, i(1)), stored(1, i(0)), stored(1, i(5))}));
    EXPECT_EQ(put_int(buffer, 2, 6), 1);  // replacing needs no room
}

TEST(CompatibleWrite, ConvertingChange)
{
    Buffer buffer;
    EXPECT_EQ(CFchg(buffer, KEY, 0, data("12"), 0, FB_STRING), 1);
    EXPECT_EQ(CFchg(buffer, KEY, 2, data("345"), 2, FB_CARRAY), 1);
    EXPECT_EQ(CFchg(buffer, KEY, -1, data("56"), 0, FB_STRING), 1);
    EXPECT_EQ(CFchg(buffer, KEY, 1, data("7"), 0, FB_STRING), 1);
    EXPECT_EQ(content(buffer),
              (fields{stored(1, i(12)), stored(1, i(7)), stored(1, i(34)), stored(1, i(56))}));
    int value = -5;
    EXPECT_EQ(CFchg(buffer, BYTES, 0, (char *)&value, 0, FB_INT), 1);
    EXPECT_EQ(content(buffer).back(), stored(1, a("-5")));
    std::string before = whole(buffer);
    EXPECT_EQ(CFchg(buffer, KEY, 0, (char *)&value, 0, 9), -1);
    EXPECT_EQ(getfberror(), FBETYPE);
    EXPECT_EQ(CFchg(buffer, KEY, 0, (char *)&value, 0, FB_CARRAY), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(CFchg(buffer, key_of(9, 1), 0, (char *)&value, 0, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBEBADFLD);
    EXPECT_EQ(whole(buffer), before);
    EXPECT_EQ(CFchg(nullptr, KEY, 0, (char *)&value, 0, FB_INT), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(CompatibleWrite, DeleteOfAListSums)
{
    const fields start = {stored(1, i(1)), stored(1, t("x")), stored(1, i(2)), stored(2, i(3)),
                          stored(1, i(4))};
    const struct {
        std::vector<int> keys;
        int sum;
        int error;
        fields left;
    } cases[] = {
        {{KEY, 0}, 3, 0, {start[1], start[3]}},
        {{KEY, TEXT, 0}, 4, 0, {start[3]}},
        {{0}, 0, 0, start},
        {{0, KEY}, 0, 0, start},
        {{BYTES, 0}, 0, FBENOENT, start},
        {{KEY, BYTES, 0}, 3, FBENOENT, {start[1], start[3]}},
        {{KEY, KEY, 0}, 3, FBENOENT, {start[1], start[3]}},
    };
    for (const auto &each : cases) {
        Buffer buffer;
        for (const field &one : start)
            buffer.add(one);
        std::vector<int> keys = each.keys;
        EXPECT_EQ(Fdelete(buffer, &keys[0]), each.sum);
        EXPECT_EQ(getfberror(), each.error);
        EXPECT_EQ(content(buffer), each.left);
    }
    int keys[] = {KEY, 0};
    EXPECT_EQ(Fdelete(nullptr, keys), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

// ---- reading

TEST(CompatibleRead, LeavesNoMark)
{
    Buffer buffer({stored(1, i(5)), stored(1, i(6))});
    std::string before = whole(buffer);
    for (int round = 0; round < 3; round++)
        for (int nth = 0; nth < 2; nth++) {
            int value = 0;
            EXPECT_EQ(Fget(buffer, KEY, nth, (char *)&value, nullptr), 1);
            EXPECT_EQ(value, 5 + nth);
        }
    EXPECT_EQ(whole(buffer), before);
    int value = 0;
    EXPECT_EQ(fbget(buffer, KEY, (char *)&value, nullptr), 1);
    EXPECT_EQ(Fget(buffer, KEY, 0, (char *)&value, nullptr), 1);
    EXPECT_EQ(value, 6);  // what has been consumed is no occurrence here either
    EXPECT_EQ(Fget(buffer, KEY, 1, (char *)&value, nullptr), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
}

TEST(CompatibleRead, RoomCountsAsTheModeSays)
{
    for (int32_t mode : MODES)
        for (int given : {0, 1, 5, 6, 7, 50}) {
            SCOPED_TRACE(testing::Message() << "mode " << mode << " given " << given);
            set_length_mode(mode);
            Buffer buffer({stored(1, t("abcdef")), stored(1, a("abcdef"))});
            std::string area(100, PATTERN), wanted("abcdef\0", 7);
            int length = given, result = Fget(buffer, TEXT, 0, &area[0], &length);
            bool fits = given == 0 || given > 6;
            if (mode == FLEN_ERROR && !fits) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(getfberror(), FBENOSPACE);
                EXPECT_EQ(length, 7);  // tells the room that is needed
                wanted = "";
            } else {
                EXPECT_EQ(result, 1);
                if (mode == FLEN_TRUNCATE && !fits)
                    wanted = wanted.substr(0, (size_t)given - 1) + '\0';
                EXPECT_EQ(length, (int)wanted.size());
            }
            EXPECT_EQ(area, wanted + std::string(100 - wanted.size(), PATTERN));

            area.assign(100, PATTERN), wanted = "abcdef";
            length = given, result = Fget(buffer, BYTES, 0, &area[0], &length);
            fits = given == 0 || given >= 6;
            if (mode == FLEN_ERROR && !fits) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(getfberror(), FBENOSPACE);
                EXPECT_EQ(length, 6);
                wanted = "";
            } else {
                EXPECT_EQ(result, 1);
                if (mode == FLEN_TRUNCATE && !fits)
                    wanted.resize((size_t)given);
                EXPECT_EQ(length, (int)wanted.size());
            }
            EXPECT_EQ(area, wanted + std::string(100 - wanted.size(), PATTERN));
        }
}

TEST(CompatibleRead, WithoutALengthDeliversAll)
{
    for (int32_t mode : MODES) {
        set_length_mode(mode);
        Buffer buffer({stored(1, t("abc")), stored(1, a("abc")), stored(1, l(-1)), stored(1, d(2.5))});
        std::string area(20, PATTERN);
        EXPECT_EQ(Fget(buffer, TEXT, 0, &area[0], nullptr), 1);
        EXPECT_EQ(area.substr(0, 5), std::string("abc\0", 4) + PATTERN);
        area.assign(20, PATTERN);
        EXPECT_EQ(Fget(buffer, BYTES, 0, &area[0], nullptr), 1);
        EXPECT_EQ(area.substr(0, 4), std::string("abc") + PATTERN);
        int64_t wide = 0;
        int length = 3;
        EXPECT_EQ(Fget(buffer, key_of(FB_LONG, 1), 0, (char *)&wide, &length), 1);
        EXPECT_EQ(wide, 4294967295);
        EXPECT_EQ(length, 3);  // numbers don't touch it
        double number = 0;
        EXPECT_EQ(Fget(buffer, key_of(FB_DOUBLE, 1), 0, (char *)&number, nullptr), 1);
        EXPECT_EQ(number, 2.5);
    }
}

TEST(CompatibleRead, Refusals)
{
    Buffer buffer({stored(1, i(5))});
    buffer.add_raw(key_of(9, 1), 3);
    int value = 77, length = 40;
    EXPECT_EQ(Fget(buffer, KEY, 1, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(Fget(buffer, TEXT, 0, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(Fget(buffer, key_of(9, 1), 0, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBETYPE);
    EXPECT_EQ(Fget(nullptr, KEY, 0, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(length, 40);
}

TEST(CompatibleRead, TheLastOccurrence)
{
    Buffer buffer(
        {stored(1, i(5)), stored(1, t("x")), stored(1, i(6)), stored(1, i(7)), stored(1, t("last"))});
    int nth = -1, length = 0, value = 0;
    EXPECT_EQ(Fgetlast(buffer, KEY, &nth, (char *)&value, nullptr), 1);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(nth, 2);
    char *place = Ffindlast(buffer, TEXT, &nth, &length);
    EXPECT_EQ(place, fbgetval(buffer, TEXT, 1, nullptr));
    EXPECT_STREQ(place, "last");
    EXPECT_EQ(nth, 1);
    EXPECT_EQ(length, 4);
    EXPECT_NE(Ffindlast(buffer, KEY, nullptr, nullptr), nullptr);
    EXPECT_EQ(Fgetlast(buffer, KEY, nullptr, (char *)&value, nullptr), 1);
    nth = 55;
    EXPECT_EQ(Ffindlast(buffer, BYTES, &nth, &length), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(Fgetlast(buffer, BYTES, &nth, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(nth, 55);
    EXPECT_EQ(Ffindlast(nullptr, KEY, &nth, &length), nullptr);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(Fgetlast(nullptr, KEY, &nth, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    set_length_mode(FLEN_ERROR);
    char area[10];
    length = 2;
    EXPECT_EQ(Fgetlast(buffer, TEXT, &nth, area, &length), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(nth, 1);
}

TEST(CompatibleRead, StringsInTheBuffer)
{
    Buffer buffer({stored(1, t("one")), stored(1, i(5)), stored(1, t("two")), stored(1, a("abc"))});
    EXPECT_EQ(Fvals(buffer, TEXT, 1), fbgetval(buffer, TEXT, 1, nullptr));
    EXPECT_STREQ(Fvals(buffer, TEXT, 1), "two");
    for (int key : {KEY, BYTES, key_of(9, 1), 0}) {
        EXPECT_STREQ(Fvals(buffer, key, 0), "");
        EXPECT_EQ(getfberror(), 0) << key;
    }
    EXPECT_STREQ(Fvals(buffer, TEXT, 2), "");
    EXPECT_EQ(getfberror(), 0);
    EXPECT_STREQ(Fvals(nullptr, TEXT, 0), "");
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST(CompatibleRead, NumbersAsUnsigned)
{
    Buffer buffer({stored(1, s(-1)), stored(1, i(-1)), stored(1, l(-1)), stored(1, c('a')), stored(1, t("5")),
                   stored(1, d(5)), stored(1, f(5)), stored(1, a("5")), stored(1, i(7)),
                   stored(1, l(1LL << 33))});
    const struct {
        int key, nth;
        long value;
        int error;
    } cases[] = {
        {key_of(FB_SHORT, 1), 0, 65535, 0},
        {KEY, 0, 4294967295, 0},
        {KEY, 1, 7, 0},
        {key_of(FB_LONG, 1), 0, 4294967295, 0},
        {key_of(FB_LONG, 1), 1, 0, 0},
        {KEY, 2, 0, FBENOENT},
        {key_of(FB_SHORT, 2), 0, 0, FBENOENT},
        {key_of(FB_CHAR, 1), 0, 0, FBETYPE},
        {TEXT, 0, 0, FBETYPE},
        {BYTES, 0, 0, FBETYPE},
        {key_of(FB_DOUBLE, 1), 0, 0, FBETYPE},
        {key_of(FB_FLOAT, 1), 0, 0, FBETYPE},
        {0, 0, 0, FBETYPE},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(Fvall(buffer, each.key, each.nth), each.value) << each.key;
        EXPECT_EQ(getfberror(), each.error) << each.key;
    }
    EXPECT_EQ(Fvall(nullptr, KEY, 0), 0);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

// ---- the walk over all fields

TEST(CompatibleWalk, VisitsEveryFieldInOrder)
{
    const fields start = {stored(1, i(5)),     stored(1, t("one")), stored(1, i(6)),   stored(2, i(7)),
                          stored(1, a("xyz")), stored(1, t("two")), stored(1, d(1.5)), stored(1, i(8)),
                          stored(1, l(-1)),    stored(1, c('c')),   stored(1, s(-3)),  stored(1, f(2.5))};
    const int numbers[] = {0, 0, 1, 0, 0, 1, 0, 2, 0, 0, 0, 0};
    Buffer buffer;
    for (const field &one : start)
        buffer.add(one);
    std::string before = whole(buffer);
    for (int round = 0; round < 2; round++) {
        Walk walk;
        for (size_t n = 0; n < start.size(); n++) {
            ASSERT_EQ(walk.step(buffer), 1) << n;
            EXPECT_EQ(getfberror(), 0);
            EXPECT_EQ(walk.key, start[n].key);
            EXPECT_EQ(walk.nth, numbers[n]) << n;
            EXPECT_EQ(walk.len, (int)start[n].value.size());
            EXPECT_EQ(std::string(walk.area, start[n].value.size()), start[n].value);
        }
        int key = walk.key, nth = walk.nth;
        EXPECT_EQ(walk.step(buffer), 0);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(walk.key, key);
        EXPECT_EQ(walk.nth, nth);
        EXPECT_EQ(walk.len, (int)sizeof walk.area);
        EXPECT_TRUE(walk.untouched());
    }
    EXPECT_EQ(whole(buffer), before);
}

TEST(CompatibleWalk, ManyOccurrencesKeepTheirNumbers)
{
    Buffer buffer(2000);
    for (int n = 0; n < 1000; n++)
        buffer.add(stored(n % 3, i(n + 1)));
    Walk walk;
    for (int n = 0; n < 1000; n++) {
        ASSERT_EQ(walk.step(buffer), 1);
        ASSERT_EQ(walk.key, key_of(FB_INT, n % 3));
        ASSERT_EQ(walk.nth, n / 3);
        ASSERT_EQ(word_at(walk.area), n + 1);
    }
    EXPECT_EQ(walk.step(buffer), 0);
}

TEST(CompatibleWalk, LongsAreDeliveredInEightBytes)
{
    Buffer buffer({stored(1, l(-1))});
    int64_t value = -7;
    int key = 0, nth = 0, length = 4;
    EXPECT_EQ(Fnext(buffer, &key, &nth, (char *)&value, &length), 1);
    EXPECT_EQ(value, 4294967295);
    EXPECT_EQ(length, 4);
}

TEST(CompatibleWalk, ZeroesLeaveTheAreaAlone)
{
    Buffer buffer({stored(1, i(0)), stored(1, c(0)), stored(1, s(0)), stored(1, l(0)), stored(1, f(0)),
                   stored(1, d(-0.0)), stored(1, t("")), stored(1, i(1))});
    Walk walk;
    const int lengths[] = {4, 1, 2, 4, 4, 8, 0};
    for (int length : lengths) {
        EXPECT_EQ(walk.step(buffer), 1);
        EXPECT_TRUE(walk.untouched()) << walk.key;
        EXPECT_EQ(walk.len, length);
    }
    EXPECT_EQ(walk.step(buffer), 1);
    EXPECT_EQ(word_at(walk.area), 1);
    Buffer empty;
    empty.add_raw(BYTES, 0);
    Walk again;
    EXPECT_EQ(again.step(empty), 1);
    EXPECT_EQ(again.key, BYTES);
    EXPECT_EQ(again.len, 0);
    EXPECT_TRUE(again.untouched());
}

TEST(CompatibleWalk, TooLittleRoomIsRefusedInEveryMode)
{
    for (int32_t mode : MODES) {
        set_length_mode(mode);
        for (const typed &value : {i(5), l(5), s(5), c(5), d(5), t("abcde"), a("abcde"), t("")}) {
            Buffer buffer({stored(1, value)});
            int full = (int)stored(1, value).value.size(), key = 0, nth = 77;
            char area[20];
            memset(area, PATTERN, sizeof area);
            int length = full - 1;
            EXPECT_EQ(Fnext(buffer, &key, &nth, area, &length), -1);
            EXPECT_EQ(getfberror(), FBENOSPACE);
            EXPECT_EQ(key, 0);
            EXPECT_EQ(nth, 77);
            EXPECT_EQ(length, full - 1);
            EXPECT_EQ(std::string(area, 20), std::string(20, PATTERN));
            EXPECT_EQ(Fnext(buffer, &key, &nth, nullptr, &length), 1);  // without an area there is no room
            EXPECT_EQ(length, full);
            EXPECT_EQ(nth, 0);
        }
    }
}

// Room for the characters of a string but not for its NUL passes the walk's own test; the mode decides.
TEST(CompatibleWalk, RoomForAStringWithoutItsNul)
{
    for (int32_t mode : MODES) {
        SCOPED_TRACE(mode);
        set_length_mode(mode);
        Buffer buffer({stored(1, t("abcde"))});
        int key = 0, nth = 77, length = 5;
        std::string area(10, PATTERN);
        int result = Fnext(buffer, &key, &nth, &area[0], &length);
        EXPECT_EQ(key, TEXT);
        EXPECT_EQ(nth, 0);
        EXPECT_EQ(length, 5);
        if (mode == FLEN_ERROR) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(getfberror(), FBENOSPACE);
            EXPECT_EQ(area, std::string(10, PATTERN));
            continue;
        }
        EXPECT_EQ(result, 1);
        EXPECT_EQ(std::string(area.c_str()), mode == FLEN_TRUNCATE ? "abcd" : "abcde");
    }
}

TEST(CompatibleWalk, AreaAndLengthMayBeMissing)
{
    Buffer buffer({stored(1, t("abc")), stored(1, i(5)), stored(1, a("xyz"))});
    int key = 0, nth = 0, length = 0;
    EXPECT_EQ(Fnext(buffer, &key, &nth, nullptr, nullptr), 1);
    EXPECT_EQ(key, TEXT);
    EXPECT_EQ(Fnext(buffer, &key, &nth, nullptr, &length), 1);
    EXPECT_EQ(key, KEY);
    EXPECT_EQ(length, 4);
    key = 0;
    char area[10] = "";
    EXPECT_EQ(Fnext(buffer, &key, &nth, area, nullptr), 1);
    EXPECT_STREQ(area, "abc");
}

TEST(CompatibleWalk, APositionThatIsNotThereIsInvalid)
{
    Buffer buffer({stored(1, i(5)), stored(1, i(6))});
    const struct {
        int key, nth;
    } cases[] = {{KEY, 2}, {KEY, -1}, {TEXT, 0}, {KEY, 0x7fffffff}};
    for (const auto &each : cases) {
        int key = each.key, nth = each.nth, value = 9, length = 4;
        EXPECT_EQ(Fnext(buffer, &key, &nth, (char *)&value, &length), -1);
        EXPECT_EQ(getfberror(), FBEINVAL) << each.key << ' ' << each.nth;
        EXPECT_EQ(key, each.key);
        EXPECT_EQ(nth, each.nth);
        EXPECT_EQ(value, 9);
    }
    int key = 0, nth = 0, value = 0, length = 4;
    EXPECT_EQ(Fnext(nullptr, &key, &nth, (char *)&value, &length), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    Buffer empty;
    nth = 33;
    EXPECT_EQ(Fnext(empty, &key, &nth, (char *)&value, &length), 0);
    EXPECT_EQ(key, 0);
    EXPECT_EQ(nth, 33);
    nth = 99;  // with key 0 the number doesn't count
    EXPECT_EQ(Fnext(buffer, &key, &nth, (char *)&value, &length), 1);
    EXPECT_EQ(nth, 0);
    EXPECT_EQ(value, 5);
}

TEST(CompatibleWalk, MarkedKeysAreGivenAsTheyStand)
{
    Buffer buffer({stored(1, i(5)), stored(1, i(6)), stored(1, i(7)), stored(1, i(8))});
    buffer.mark(0).mark(2);
    const struct {
        int key, nth;
    } wanted[] = {{KEY | READ_MARK, 0}, {KEY, 0}, {KEY | READ_MARK, 1}, {KEY, 1}};
    Walk walk;
    for (int n = 0; n < 4; n++) {
        ASSERT_EQ(walk.step(buffer), 1);
        EXPECT_EQ(walk.key, wanted[n].key) << n;
        EXPECT_EQ(walk.nth, wanted[n].nth) << n;
        EXPECT_EQ(word_at(walk.area), 5 + n);
    }
    EXPECT_EQ(walk.step(buffer), 0);
}

// ---- blocks for the caller

TEST(CompatibleBlock, HasTheFieldLengthAndTheExtra)
{
    const struct {
        typed value;
        int extra, size;
    } cases[] = {
        {t("abcde"), 1, 6}, {t("abcde"), 20, 25}, {a("abcde"), 0, 5}, {a("abcde"), 3, 8},
        {c('x'), 0, 1},     {s(5), 0, 2},         {i(5), 0, 4},       {i(5), 10, 14},
        {l(-1), 4, 8},      {f(1.5), 0, 4},       {d(1.5), 0, 8},     {t(""), 1, 1},
    };
    for (int32_t mode : MODES)
        for (const auto &each : cases) {
            SCOPED_TRACE(testing::Message()
                         << each.value.type << " extra " << each.extra << " mode " << mode);
            set_length_mode(mode);
            Buffer buffer({stored(1, each.value)});
            int extra = each.extra;
            char *block = Fgetalloc(buffer, key_of(each.value.type, 1), 0, &extra);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(getfberror(), 0);
            EXPECT_EQ(extra, each.size);
            EXPECT_GE(malloc_usable_size(block), (size_t)each.size);
            std::string wanted = each.value.bytes;
            if (each.value.type == FB_LONG)
                wanted = bytes_of<int64_t>(4294967295);
            EXPECT_EQ(std::string(block, wanted.size()), wanted);
            free(block);
        }
}

// Without room for its NUL a string is cut or refused where the mode asks for it.
TEST(CompatibleBlock, WithoutExtraAStringHasNoRoomForItsNul)
{
    for (int32_t mode : MODES) {
        SCOPED_TRACE(mode);
        set_length_mode(mode);
        Buffer buffer({stored(1, t("abcde"))});
        int none = 0;
        for (int *extra : {&none, (int *)nullptr}) {
            none = 0;
            char *block = Fgetalloc(buffer, TEXT, 0, extra);
            if (mode == FLEN_ERROR) {
                EXPECT_EQ(block, nullptr);
                EXPECT_EQ(getfberror(), FBENOSPACE);
                EXPECT_EQ(none, 0);
                continue;
            }
            ASSERT_NE(block, nullptr);
            EXPECT_STREQ(block, mode == FLEN_TRUNCATE ? "abcd" : "abcde");
            EXPECT_EQ(none, extra == nullptr ? 0 : 5);
            free(block);
        }
    }
}

TEST(CompatibleBlock, IsNeverOverrun)
{
    for (int32_t mode : MODES)
        for (int given : {-1000, -5, -4, -1, 0, 1, (int)0x80000000, 0x7fffffff})
            for (const typed &value : {t("abcde"), t(""), l(-1), i(5), d(5), a("abcde"), c('x')}) {
                set_length_mode(mode);
                Buffer buffer({stored(1, value)});
                faults::limit_allocation(1 << 20);
                for (int to : {0, FB_CHAR, FB_LONG, FB_DOUBLE, FB_STRING, FB_CARRAY}) {
                    int extra = given;
                    char *block = to == 0 ? Fgetalloc(buffer, key_of(value.type, 1), 0, &extra)
                                          : CFgetalloc(buffer, key_of(value.type, 1), 0, to, &extra);
                    EXPECT_TRUE(block != nullptr || getfberror() != 0);
                    free(block);
                }
                faults::limit_allocation(0);
            }
}

TEST(CompatibleBlock, Refusals)
{
    Buffer buffer({stored(1, i(5))});
    int extra = 3;
    EXPECT_EQ(Fgetalloc(buffer, KEY, 1, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(CFgetalloc(buffer, KEY, 1, FB_INT, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(CFgetalloc(buffer, KEY, 0, 9, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBEBADFLD);
    EXPECT_EQ(Fgetalloc(nullptr, KEY, 0, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(CFgetalloc(nullptr, KEY, 0, FB_INT, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBEINVAL);
    faults::fail_allocation(1);
    EXPECT_EQ(Fgetalloc(buffer, KEY, 0, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBEMALLOC);
    faults::fail_allocation(1);
    EXPECT_EQ(CFgetalloc(buffer, KEY, 0, FB_INT, &extra), nullptr);
    EXPECT_EQ(getfberror(), FBEMALLOC);
    EXPECT_EQ(extra, 3);
    faults::reset();
    free(CFgetalloc(buffer, KEY, 0, FB_INT, &extra));
    EXPECT_EQ(extra, 7);
}

TEST(CompatibleBlock, ConvertedHasRoomForTheType)
{
    const struct {
        typed value;
        int to, extra, size;
        std::string bytes;
    } cases[] = {
        {t("12345"), FB_CHAR, 0, 1, "1"},
        {t("12345"), FB_SHORT, 0, 2, bytes_of<int16_t>(12345)},
        {t("12345"), FB_INT, 5, 9, bytes_of<int32_t>(12345)},
        {t("-5"), FB_LONG, 4, 8, bytes_of<int64_t>(-5)},
        {t("1.5"), FB_FLOAT, 0, 4, bytes_of(1.5f)},
        {t("1.5"), FB_DOUBLE, 0, 8, bytes_of(1.5)},
        {t("abc"), FB_STRING, 0, 4, std::string("abc\0", 4)},
        {t("abc"), FB_CARRAY, 0, 4, "abc"},
        {a("abc"), FB_STRING, 0, 4, std::string("abc\0", 4)},
        {a("abc"), FB_CARRAY, 2, 6, "abc"},
        {i(-5), FB_STRING, 0, 100, std::string("-5\0", 3)},
        {d(2.5), FB_STRING, 1, 101, std::string("2.5\0", 4)},
        {d(2.5), FB_CARRAY, 0, 100, "2.500000"},
    };
    for (int32_t mode : MODES)
        for (const auto &each : cases) {
            SCOPED_TRACE(testing::Message() << each.value.type << " to " << each.to << " mode " << mode);
            set_length_mode(mode);
            Buffer buffer({stored(1, each.value)});
            int extra = each.extra;
            char *block = CFgetalloc(buffer, key_of(each.value.type, 1), 0, each.to, &extra);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(extra, each.size);
            EXPECT_EQ(std::string(block, each.bytes.size()), each.bytes);
            free(block);
            if (each.to != FB_LONG) {
                block = CFgetalloc(buffer, key_of(each.value.type, 1), 0, each.to, nullptr);
                ASSERT_NE(block, nullptr);
                EXPECT_EQ(std::string(block, each.bytes.size()), each.bytes);
                free(block);
            }
        }
}

// 100 bytes are the estimate for a number as text; some doubles need 300 and more.
TEST(CompatibleBlock, TextsLongerThanTheEstimate)
{
    for (int32_t mode : MODES)
        for (int to : {FB_STRING, FB_CARRAY}) {
            set_length_mode(mode);
            Buffer buffer({stored(1, d(1e300))});
            int extra = 0;
            char *block = CFgetalloc(buffer, key_of(FB_DOUBLE, 1), 0, to, &extra);
            if (mode == FLEN_ERROR) {
                EXPECT_EQ(block, nullptr);
                EXPECT_EQ(getfberror(), FBENOSPACE);
                continue;
            }
            ASSERT_TRUE(block != nullptr || getfberror() == FBENOSPACE);
            EXPECT_EQ(block == nullptr ? "10000000000000000525" : std::string(block, 20),
                      "10000000000000000525");
            free(block);
        }
}
