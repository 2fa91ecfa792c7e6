// The layout of a field buffer to the byte; making, measuring and ending one; the arithmetic on entries.
#include "fields/fixture.h"

#include "vorn/buffers.h"

#include <unistd.h>

using namespace fld;

namespace {

using FieldFormat = FieldTest;
using FieldBuffer = FieldTest;
using FieldHelper = FieldTest;

}  // namespace

// ---- the format

TEST_F(FieldFormat, NewBufferHasItsMarkAndEightBytesInUse)
{
    FBUF *fbuf = fballoc(0, 0);
    ASSERT_NE(fbuf, nullptr);
    const unsigned char expected[8] = {0xb8, 0x22, 0, 0, 8, 0, 0, 0};
    EXPECT_EQ(memcmp(fbuf, expected, 8), 0);
    EXPECT_EQ(std::string(chars(fbuf) + 8, 1024), std::string(1024, '\0'));
    EXPECT_EQ(tpgettype(chars(fbuf)), 2);
    EXPECT_CALL(fbget_used(fbuf), 8, 0);
    EXPECT_CALL(fbget_fbsize(fbuf), 1032, 0);
    EXPECT_CALL(fbget_unused(fbuf), 1024, 0);
    EXPECT_CALL(fbfree(fbuf), 1, 0);
}

TEST_F(FieldFormat, EntryOfEachTypeByteForByte)
{
    int16_t a_short = 0x1122;
    int32_t an_int = 0x11223344;
    int64_t a_long = 0x5566778811223344, negative = -1;
    float a_float = 1.5f;     // 3fc00000
    double a_double = -2.25;  // c002000000000000
    const struct {
        const char *what;
        int key;
        const void *value;
        int len;
        std::string entry;
    } rows[] = {
        {"char", fbmake_fldkey(1, 0x010203), "Z!!!", 9, std::string("\x03\x02\x01\x04Z\0\0\0", 8)},
        {"short", fbmake_fldkey(2, 1), &a_short, 0, std::string("\x01\0\0\x08\x22\x11\0\0", 8)},
        {"int", fbmake_fldkey(3, 1), &an_int, 0, std::string("\x01\0\0\x0c\x44\x33\x22\x11", 8)},
        {"long", fbmake_fldkey(4, 1), &a_long, 0, std::string("\x01\0\0\x10\x44\x33\x22\x11", 8)},
        {"long", fbmake_fldkey(4, 1), &negative, 0, std::string("\x01\0\0\x10\xff\xff\xff\xff", 8)},
        {"float", fbmake_fldkey(5, 1), &a_float, 0, std::string("\x01\0\0\x14\0\0\xc0\x3f", 8)},
        {"double", fbmake_fldkey(6, 1), &a_double, 0,
         std::string("\x01\0\0\x18\0\0\0\0\0\0\0\0\0\0\x02\xc0", 16)},
        {"string", fbmake_fldkey(7, 1), "", 5, std::string("\x01\0\0\x1c\0\0\0\0", 8)},
        {"string", fbmake_fldkey(7, 1), "abc", 1,
         std::string("\x01\0\0\x1c"
                     "abc\0",
                     8)},
        {"string", fbmake_fldkey(7, 1), "abcd", 0,
         std::string("\x01\0\0\x1c"
                     "abcd\0\0\0\0\0\0\0\0",
                     16)},
        {"carray", fbmake_fldkey(8, 1), "x\0y", 3, std::string("\x01\0\0\x20\x03\0\0\0x\0y\0\0\0\0\0", 16)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Buffer fbuf;
        EXPECT_CALL(fbput(fbuf, row.key, chars(row.value), row.len), 1, 0);
        EXPECT_EQ(used_bytes(fbuf).substr(8), row.entry);
    }
}

TEST_F(FieldFormat, LongValuesFillMultiplesOfEight)
{
    const struct {
        int length, size;
    } strings[] = {{0, 8}, {2, 8}, {3, 8}, {4, 16}, {11, 16}, {12, 24}, {19, 24}, {20, 32}},
      carrays[] = {{1, 16}, {7, 16}, {8, 16}, {9, 24}, {16, 24}, {17, 32}};
    for (const auto &row : strings) {
        Buffer fbuf;
        std::string text((size_t)row.length, 's');
        EXPECT_EQ(fbput(fbuf, key(STRING, 1), text.data(), 0), 1);
        EXPECT_EQ(fbget_used(fbuf), 8 + row.size) << row.length;
        EXPECT_EQ(fbget_unused(fbuf), 1024 - row.size) << row.length;
        EXPECT_TRUE(equal(fbuf, {a_string(1, text)})) << row.length;
    }
    for (const auto &row : carrays) {
        Buffer fbuf;
        std::string bytes((size_t)row.length, '\0');
        EXPECT_EQ(fbput(fbuf, key(CARRAY, 1), bytes.data(), row.length), 1);
        EXPECT_EQ(fbget_used(fbuf), 8 + row.size) << row.length;
        EXPECT_TRUE(equal(fbuf, {a_carray(1, bytes)})) << row.length;
    }
}

TEST_F(FieldFormat, PaddingBehindAValueIsNotTouched)
{
    Buffer fbuf;
    memset(fbuf.bytes() + 8, 0x77, 64);
    int16_t value = 5;
    ASSERT_EQ(fbput(fbuf, key(SHORT, 1), chars(&value), 0), 1);
    ASSERT_EQ(fbput(fbuf, key(STRING, 2), chars("a"), 0), 1);
    ASSERT_EQ(fbput(fbuf, key(CHAR, 3), chars("c"), 0), 1);
    double number = 1;
    ASSERT_EQ(fbput(fbuf, key(DOUBLE, 4), chars(&number), 0), 1);
    ASSERT_EQ(fbput(fbuf, key(CARRAY, 5), chars("b"), 1), 1);
    EXPECT_EQ(std::string(fbuf.bytes() + 14, 2), "ww");
    EXPECT_EQ(std::string(fbuf.bytes() + 22, 2), "ww");
    EXPECT_EQ(std::string(fbuf.bytes() + 29, 3), "www");
    EXPECT_EQ(std::string(fbuf.bytes() + 36, 4), "wwww");
    EXPECT_EQ(std::string(fbuf.bytes() + 57, 7), "wwwwwww");
}

TEST_F(FieldFormat, EntriesStandInTheOrderOfInsertion)
{
    Buffer fbuf;
    list fields = {an_int(9, 1), an_int(2, 2), an_int(9, 3), a_string(1, "x"), an_int(2, 4), an_int(9, 5)};
    for (const field &one : fields)
        ASSERT_EQ(put(fbuf, one), 1);
    EXPECT_TRUE(equal(fbuf, fields));
}

TEST_F(FieldFormat, KeysHoldTypeAndNumber)
{
    EXPECT_EQ(fbmake_fldkey(7, 100), 469762148);
    EXPECT_EQ(fbget_fldno(469762148), 100);
    EXPECT_EQ(fbget_fldtype(469762148), 7);
    EXPECT_EQ(fbmake_fldkey(1, 0), 0x04000000);
    EXPECT_EQ(fbmake_fldkey(0, 5), 5);
    EXPECT_EQ(fbmake_fldkey(8, 0xffffff), 0x20ffffff);
    EXPECT_EQ(fbmake_fldkey(3, 0x01000000), 0x0d000000);  // numbers are added, not masked
    EXPECT_EQ(fbget_fldno(0x21000007), 7);                // the read mark is no part of the number
    EXPECT_EQ(fbget_fldno(-1), 0xffffff);
    EXPECT_EQ(fbget_fldtype(-1), -1);
    EXPECT_EQ(fbget_fldtype(0x7fffffff), 31);
    EXPECT_EQ(fbget_fldtype(INT_MIN), -32);
    // Keys out of range neither trap nor crash: the arithmetic wraps.
    EXPECT_EQ((uint32_t)fbmake_fldkey(32, 0), 0x80000000u);
    EXPECT_EQ(fbmake_fldkey(64, 1), 1);
}

TEST_F(FieldFormat, ArithmeticOnKeysLeavesTheErrorAlone)
{
    stale();
    fbmake_fldkey(7, 100);
    fbget_fldno(469762148);
    fbget_fldtype(469762148);
    fbget_strfldtype(469762148);
    EXPECT_EQ(getfberror(), STALE);
}

TEST_F(FieldFormat, TypesHaveNames)
{
    const char *names[] = {"", "char", "short", "int", "long", "float", "double", "string", "carray", ""};
    for (int type = 0; type < 10; type++)
        EXPECT_STREQ(fbget_strfldtype(key(type, 12)), names[type]) << type;
}

TEST_F(FieldFormat, TypeNamesOfHostileKeysStayInsideTheTable)
{
    for (int32_t hostile : {key(10, 1), key(31, 1), INT_MIN, -1, key(17, 0xffffff)}) {
        char *name = fbget_strfldtype(hostile);
        ASSERT_NE(name, nullptr);
        EXPECT_STREQ(name, "");
    }
}

// ---- making and ending

TEST_F(FieldBuffer, MarkTellsAFieldBuffer)
{
    Buffer fbuf;
    EXPECT_CALL(fbisfbuf(fbuf), 1, 0);
    int32_t words[2] = {8888, 0};
    EXPECT_CALL(fbisfbuf((FBUF *)words), 1, 0);
    words[0] = 8889;
    EXPECT_CALL(fbisfbuf((FBUF *)words), 0, 0);
    words[0] = 0;
    EXPECT_CALL(fbisfbuf((FBUF *)words), 0, 0);
    EXPECT_EQ(fbisfbuf(nullptr), 0);
}

TEST_F(FieldBuffer, SizeIsReckonedInSixtyFourBits)
{
    EXPECT_CALL(fbcalcsize(0, 0), 8, 0);
    EXPECT_EQ(fbcalcsize(1, 0), 16);
    EXPECT_EQ(fbcalcsize(20, 300), 468);
    EXPECT_EQ(fbcalcsize(INT_MAX, INT_MAX), 8 + 9L * INT_MAX);
    EXPECT_EQ(fbcalcsize(-1, -1), -1);
    EXPECT_EQ(fbcalcsize(INT_MIN, 0), 8 + 8L * INT_MIN);
}

TEST_F(FieldBuffer, InitEmptiesTheWholeCapacity)
{
    Buffer fbuf;
    for (int size : {0, 1, 8, 1031, 1032, -1}) {
        memset(fbuf.bytes(), 0x55, 1032);
        EXPECT_CALL(fbinit(fbuf, size), 1, 0);
        EXPECT_EQ(std::string(fbuf.bytes(), 1032), image({}) + std::string(1024, '\0')) << size;
        EXPECT_EQ(fbget_fbsize(fbuf), 1032) << size;
    }
}

TEST_F(FieldBuffer, InitRefusesMoreThanTheCapacity)
{
    Buffer fbuf(one_of_each());
    std::string before(fbuf.bytes(), 1032);
    EXPECT_CALL(fbinit(fbuf, 1033), -1, FBENOSPACE);
    EXPECT_CALL(fbinit(fbuf, INT_MAX), -1, FBENOSPACE);
    EXPECT_EQ(std::string(fbuf.bytes(), 1032), before);
    EXPECT_CALL(fbinit(nullptr, 0), -1, FBEINVAL);
}

TEST_F(FieldBuffer, AllocationFollowsTheEstimate)
{
    const struct {
        int count, datalen;
        long size;
    } rows[] = {{0, 0, 1032},   {1, 1, 1032},    {126, 8, 1032},       {127, 0, 1032}, {127, 1, 1033},
                {128, 0, 1040}, {0, 5000, 5016}, {1000, 24000, 32016}, {-5, 10, 1032}, {0, -100, 1032}};
    for (const auto &row : rows) {
        stale();
        FBUF *fbuf = fballoc(row.count, row.datalen);
        ASSERT_NE(fbuf, nullptr);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(fbget_fbsize(fbuf), row.size) << row.count << " " << row.datalen;
        EXPECT_EQ(fbget_used(fbuf), 8);
        EXPECT_EQ(fbfree(fbuf), 1);
    }
}

TEST_F(FieldBuffer, EstimateThatNoBlockCanHaveGivesNoBrokenBuffer)
{
    for (auto [count, datalen] : {std::pair(INT_MAX, INT_MAX),
                                  {0x20000000, 0},
                                  {0x0fffffff, 100},
                                  {INT_MIN, INT_MIN},
                                  {0x1fffffff, -1}}) {
        stale();
        faults::limit_allocation(64 << 20);
        FBUF *fbuf = fballoc(count, datalen);
        faults::limit_allocation(0);
        if (fbuf == nullptr) {
            EXPECT_EQ(getfberror(), FBEMALLOC) << count;
            continue;
        }
        EXPECT_GE(fbget_fbsize(fbuf), 1032) << count;
        EXPECT_TRUE(equal(fbuf, {}));
        EXPECT_EQ(fbfree(fbuf), 1);
    }
}

TEST_F(FieldBuffer, NoMemoryAtAnyPointGivesNull)
{
    fbisfbuf(nullptr);  // tables are made
    for (int nth = 1;; nth++) {
        faults::fail_allocation(nth);
        stale();
        FBUF *fbuf = fballoc(10, 100);
        faults::disarm_allocations();
        if (!faults::allocation_failed()) {
            ASSERT_NE(fbuf, nullptr);
            EXPECT_GT(nth, 1);
            EXPECT_EQ(fbfree(fbuf), 1);
            break;
        }
        EXPECT_EQ(fbuf, nullptr) << nth;
        EXPECT_EQ(getfberror(), FBEMALLOC) << nth;
    }
}

TEST_F(FieldBuffer, FreeRefusesWhatIsNoFieldBuffer)
{
    alignas(8) char block[200] = {};
    int32_t magic = 8888, used = 16;
    EXPECT_CALL(fbfree(nullptr), -1, FBEINVAL);
    EXPECT_CALL(fbfree((FBUF *)(block + 136)), -1, FBEINVAL);
    for (int offset : {1, 2, 3}) {
        memcpy(block + 136 + offset, &magic, 4);
        EXPECT_CALL(fbfree((FBUF *)(block + 136 + offset)), -1, FBEINVAL);
    }
    // A multiple of 4 with the mark is taken; what isn't a typed buffer isn't freed, but its mark is gone.
    memset(block, 0, sizeof block);
    memcpy(block + 140, &magic, 4);
    memcpy(block + 144, &used, 4);
    EXPECT_CALL(fbfree((FBUF *)(block + 140)), 1, 0);
    EXPECT_EQ(std::string(block, sizeof block), std::string(sizeof block, '\0'));
}

TEST_F(FieldBuffer, FreeTakesBuffersOfAllThreeNames)
{
    for (const char *name : {"FIELD", "FML", "FML32"}) {
        FBUF *fbuf = (FBUF *)tpalloc(chars(name), nullptr, 0);
        ASSERT_NE(fbuf, nullptr);
        EXPECT_TRUE(equal(fbuf, {})) << name;
        EXPECT_CALL(fbget_fbsize(fbuf), 1032, 0);
        EXPECT_CALL(fbfree(fbuf), 1, 0);
    }
}

TEST_F(FieldBuffer, ReallocationKeepsTheFields)
{
    FBUF *fbuf = fballoc(0, 0);
    list fields = one_of_each();
    for (const field &one : fields)
        ASSERT_EQ(put(fbuf, one), 1);
    stale();
    fbuf = fbrealloc(fbuf, 1000, 100000);
    ASSERT_NE(fbuf, nullptr);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(fbget_fbsize(fbuf), 8 + 8000 + 100000 + 8);
    EXPECT_TRUE(equal(fbuf, fields));
    std::string rest(chars(fbuf) + 1032, (size_t)(108016 - 1032));
    EXPECT_EQ(rest, std::string(rest.size(), '\0'));
    fbuf = fbrealloc(fbuf, 0, 0);
    ASSERT_NE(fbuf, nullptr);
    EXPECT_EQ(fbget_fbsize(fbuf), 1032);
    EXPECT_TRUE(equal(fbuf, fields));
    EXPECT_EQ(fbfree(fbuf), 1);
}

TEST_F(FieldBuffer, ReallocationThatFailsLeavesTheOldBuffer)
{
    EXPECT_CALL(fbrealloc(nullptr, 1, 1), nullptr, FBEINVAL);
    FBUF *fbuf = fballoc(0, 0), *larger = nullptr;
    for (const field &one : one_of_each())
        ASSERT_EQ(put(fbuf, one), 1);
    for (int nth = 1; larger == nullptr; nth++) {
        faults::fail_allocation(nth);
        stale();
        larger = fbrealloc(fbuf, 1000, 0);
        faults::disarm_allocations();
        ASSERT_EQ(larger == nullptr, faults::allocation_failed()) << nth;
        ASSERT_TRUE(nth > 1 || larger == nullptr);
        if (larger == nullptr) {
            EXPECT_EQ(getfberror(), FBEOS) << nth;
            EXPECT_TRUE(equal(fbuf, one_of_each()));
            EXPECT_EQ(fbget_fbsize(fbuf), 1032);
        }
    }
    EXPECT_TRUE(equal(larger, one_of_each()));
    fbfree(larger);
}

TEST_F(FieldBuffer, ReallocationOfWhatIsNoTypedBufferFails)
{
    alignas(8) char block[400] = {};
    EXPECT_CALL(fbrealloc((FBUF *)(block + 136), 1, 1), nullptr, FBEOS);
}

TEST_F(FieldBuffer, ShrinkingBelowTheContentLosesTheLastFields)
{
    FBUF *fbuf = fballoc(0, 4000);
    for (int i = 0; i < 400; i++)
        ASSERT_EQ(put(fbuf, an_int(1, i)), 1);
    fbuf = fbrealloc(fbuf, 0, 0);
    ASSERT_NE(fbuf, nullptr);
    ASSERT_EQ(fbget_fbsize(fbuf), 1032);
    EXPECT_EQ(fbfldcount(fbuf), 128);
    EXPECT_EQ(fbkeyoccur(fbuf, key(INT, 1)), 128);
    EXPECT_EQ(fbispres(fbuf, key(INT, 1), 128), 0);
    int32_t value = 7;
    EXPECT_CALL(fbput(fbuf, key(INT, 1), chars(&value), 0), -1, FBENOSPACE);
    fbfree(fbuf);
}

TEST_F(FieldBuffer, MeasuresAreThoseOfTheWords)
{
    Buffer fbuf(one_of_each());
    long size = (long)image(one_of_each()).size();
    EXPECT_CALL(fbget_used(fbuf), size, 0);
    EXPECT_CALL(fbget_unused(fbuf), 1032 - size, 0);
    EXPECT_CALL(fbget_fbsize(fbuf), 1032, 0);
    EXPECT_CALL(fbget_used(nullptr), -1, FBEINVAL);
    EXPECT_CALL(fbget_unused(nullptr), -1, FBEINVAL);
    EXPECT_CALL(fbget_fbsize(nullptr), -1, FBEINVAL);
}

TEST_F(FieldBuffer, NullBufferIsRefusedByEveryCall)
{
    int len = 0, from = 0, keys[] = {1, 0};
    char value[8] = {};
    int k = key(INT, 1);
    EXPECT_CALL(fbput(nullptr, k, value, 0), -1, FBEINVAL);
    EXPECT_CALL(fbinsert(nullptr, k, 0, value, 0), -1, FBEINVAL);
    EXPECT_CALL(fbupdate(nullptr, k, 0, value, 0), -1, FBEINVAL);
    EXPECT_CALL(fbdelete(nullptr, k, 0), -1, FBEINVAL);
    EXPECT_CALL(fbdelall(nullptr, k), -1, FBEINVAL);
    EXPECT_CALL(fbget(nullptr, k, value, &len), -1, FBEINVAL);
    EXPECT_CALL(fbgetf(nullptr, k, value, &len, &from), -1, FBEINVAL);
    EXPECT_CALL(fbgetc(nullptr, k, value, &len, &from, INT), -1, FBEINVAL);
    EXPECT_CALL(fbgetval(nullptr, k, 0, &len), nullptr, FBEINVAL);
    EXPECT_CALL(fbgetvals(nullptr, k, 0), nullptr, FBEINVAL);
    EXPECT_CALL(fbgetvali(nullptr, k, 0), 0, FBEINVAL);
    EXPECT_CALL(fbgetnth(nullptr, k, value, 0), -1, FBEINVAL);
    EXPECT_CALL(fbkeyoccur(nullptr, k), -1, FBEINVAL);
    EXPECT_CALL(fbgetlen(nullptr, k, 0), -1, FBEINVAL);
    EXPECT_CALL(fbfldcount(nullptr), 0, FBEINVAL);
    EXPECT_CALL(fbispres(nullptr, k, 0), -1, FBEINVAL);
    EXPECT_CALL(fbgett(nullptr, k, value, &len, INT), -1, FBEINVAL);
    EXPECT_CALL(fbputt(nullptr, k, value, 4, INT), -1, FBEINVAL);
    EXPECT_CALL(fbgetvalt(nullptr, k, 0, &len, INT), nullptr, FBEINVAL);
    EXPECT_CALL(fbgetntht(nullptr, k, value, 4, INT), -1, FBEINVAL);
    EXPECT_CALL(fbbufop(nullptr, nullptr, 3), -1, FBEINVAL);
    EXPECT_CALL(fbbufop_proj(nullptr, nullptr, keys), -1, FBEINVAL);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(from, 0);
}

TEST_F(FieldBuffer, ErrorsAreReadInBothNumberings)
{
    const struct {
        int native, mapped;
    } rows[] = {{FBEINVAL, FEINVAL}, {FBENOSPACE, FNOSPACE}, {FBENOENT, FNOTPRES}, {FBETYPE, FTYPERR}};
    Buffer fbuf;
    fbuf.tighten();
    int32_t value = 1;
    for (const auto &row : rows) {
        switch (row.native) {
        case FBEINVAL:
            fbput(nullptr, key(INT, 1), chars(&value), 0);
            break;
        case FBENOSPACE:
            fbput(fbuf, key(INT, 1), chars(&value), 0);
            break;
        case FBENOENT:
            fbdelete(fbuf, key(INT, 1), 0);
            break;
        default:
            set_capacity(fbuf, 1032);
            fbput(fbuf, key(9, 1), chars(&value), 0);
        }
        EXPECT_EQ(getfberror(), row.native);
        EXPECT_EQ(getfberrno(), row.native);
        EXPECT_EQ(getFerror(), row.native);
        EXPECT_EQ(getFerror2(), row.mapped);
    }
    fbfldcount(fbuf);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(getFerror2(), 0);
}

TEST_F(FieldBuffer, ErrorsLeaveTheOtherCellAlone)
{
    Buffer fbuf;
    *_tmget_tperrno_addr() = 77;
    EXPECT_CALL(fbput(fbuf, key(9, 1), chars("1234567"), 0), -1, FBETYPE);
    EXPECT_CALL(fbfldcount(fbuf), 0, 0);
    EXPECT_EQ(gettperrno(), 77);
}

TEST(FieldTablesDeathTest, NoMemoryForThemEndsTheProcess)
{
    for (int nth : {1, 2, 3})
        EXPECT_EXIT(
            {
                faults::fail_allocation(nth);
                fballoc(1, 1);
                _exit(0);
            },
            testing::ExitedWithCode(1), "0005 memory allocation error : size = ");
}

// ---- arithmetic on entries

TEST_F(FieldHelper, LengthsAreRoundedWithTheKey)
{
    const int rows[][2] = {{0, 8}, {1, 8}, {3, 8}, {4, 8}, {5, 16}, {12, 16}, {13, 24}};
    for (const auto &row : rows)
        EXPECT_EQ(_calc_falign_len(row[0]), row[1]) << row[0];
}

TEST_F(FieldHelper, EntrySizeFromTypeAndValue)
{
    for (int type : {1, 2, 3, 4, 5, 0, 9, 31, -1, -32, 100})
        EXPECT_EQ(_get_alen_from_type(type, "some value", 50), 8) << type;
    EXPECT_EQ(_get_alen_from_type(6, nullptr, 50), 16);
    EXPECT_EQ(_get_alen_from_type(7, "", 50), 8);
    EXPECT_EQ(_get_alen_from_type(7, "abc", 0), 8);
    EXPECT_EQ(_get_alen_from_type(7, "abcd", 0), 16);
    EXPECT_EQ(_get_alen_from_type(8, nullptr, 0), 8);
    EXPECT_EQ(_get_alen_from_type(8, nullptr, 1), 16);
    EXPECT_EQ(_get_alen_from_type(8, nullptr, 8), 16);
    EXPECT_EQ(_get_alen_from_type(8, nullptr, 9), 24);
}

TEST_F(FieldHelper, EntrySizeAndLengthFromAnEntry)
{
    const int lengths[] = {1, 2, 4, 4, 4, 8, 5, 3};
    list fields = one_of_each();
    for (size_t i = 0; i < fields.size(); i++) {
        std::string bytes = entry(fields[i]);
        stale();
        EXPECT_EQ(_get_alen_from_curpos(bytes.data()), (int)bytes.size()) << i;
        EXPECT_EQ(_get_fldlen_from_curpos(bytes.data()), lengths[i]) << i;
        EXPECT_EQ(getfberror(), STALE);
        EXPECT_EQ(_get_valuep_from_curpos(bytes.data()) - bytes.data(),
                  type_of(fields[i].key) == DOUBLE || type_of(fields[i].key) == CARRAY ? 8 : 4)
            << i;
    }
    for (int type : {0, 9, 31, -1, -32}) {
        std::string bytes = entry({key(type, 1), "abc"});
        EXPECT_EQ(_get_alen_from_curpos(bytes.data()), 8) << type;
        EXPECT_CALL(_get_fldlen_from_curpos(bytes.data()), -1, FBEBADFLD);
        EXPECT_EQ(_get_valuep_from_curpos(bytes.data()), bytes.data() + 4) << type;
    }
}

TEST_F(FieldHelper, RoomThatAValueNeedsAsAnotherType)
{
    const int widths[] = {1, 2, 4, 4, 4, 8};
    for (const field &one : one_of_each()) {
        std::string bytes = entry(one);
        for (int type = 1; type <= 6; type++)
            EXPECT_EQ(_get_fldlen_from_type(type, bytes.data()), widths[type - 1]);
        int text = type_of(one.key) == STRING ? 6 : type_of(one.key) == CARRAY ? 4 : 100;
        EXPECT_EQ(_get_fldlen_from_type(7, bytes.data()), text) << one;
        EXPECT_EQ(_get_fldlen_from_type(8, bytes.data()), text) << one;
        for (int type : {0, 9, -1, 31})
            EXPECT_CALL(_get_fldlen_from_type(type, bytes.data()), -1, FBEBADFLD);
    }
}

TEST_F(FieldHelper, NullValuesAreZeros)
{
    const size_t widths[] = {1, 2, 4, 8, 4, 8, 1, 1};
    const void *rows[] = {&ncv, &nsv, &niv, &nlv, &nfv, &ndv, &nstv, &ncav};
    for (int type = 1; type <= 8; type++) {
        const char *null = _get_null_value(type);
        ASSERT_EQ((const void *)null, rows[type - 1]) << type;
        EXPECT_EQ(std::string(null, widths[type - 1]), std::string(widths[type - 1], '\0')) << type;
    }
    for (int type : {0, 9, -1, 31, INT_MAX, INT_MIN})
        EXPECT_EQ(_get_null_value(type), nullptr) << type;
}

TEST_F(FieldHelper, ZeroValuesAreNull)
{
    const struct {
        field one;
        bool null;
    } rows[] = {
        {number<int8_t>(key(CHAR, 1), 0), true},
        {number<int8_t>(key(CHAR, 1), -1), false},
        {number<int16_t>(key(SHORT, 1), 0), true},
        {number<int16_t>(key(SHORT, 1), 0x100), false},
        {an_int(1, 0), true},
        {an_int(1, 0x1000000), false},
        {number<int32_t>(key(LONG, 1), 0), true},
        {number<int32_t>(key(LONG, 1), INT_MIN), false},
        {number<float>(key(FLOAT, 1), 0), true},
        {number<float>(key(FLOAT, 1), -0.0f), true},
        {number<float>(key(FLOAT, 1), 1e-30f), false},
        {number<double>(key(DOUBLE, 1), 0), true},
        {number<double>(key(DOUBLE, 1), -0.0), true},
        {number<double>(key(DOUBLE, 1), 1e-300), false},
        {a_string(1, ""), true},
        {a_string(1, " "), false},
        {a_carray(1, ""), true},
        {a_carray(1, std::string(1, '\0')), false},
        {{key(0, 1), "abc"}, true},
        {{key(9, 1), "abc"}, true},
        {{key(-1, 1), "abc"}, true},
    };
    for (const auto &row : rows)
        EXPECT_EQ(_is_value_null(entry(row.one).data()) != 0, row.null) << row.one;
}

TEST_F(FieldHelper, ValuesAreComparedByType)
{
    auto sign = [](int value) { return (value > 0) - (value < 0); };
    const struct {
        field stored;
        std::string value;
        int len, result;
    } rows[] = {
        {number<int8_t>(key(CHAR, 1), -1), raw<int8_t>(1), 0, -1},
        {number<int8_t>(key(CHAR, 1), 'a'), "aZ", 0, 0},
        {number<int16_t>(key(SHORT, 1), -1), raw<int16_t>(0), 0, -1},
        {number<int16_t>(key(SHORT, 1), 300), raw<int16_t>(300), 0, 0},
        {an_int(1, INT_MAX), raw<int32_t>(INT_MIN), 0, 1},
        {an_int(1, INT_MIN), raw<int32_t>(INT_MAX), 0, -1},
        {number<int32_t>(key(LONG, 1), -1), raw<int64_t>(-1), 0, 1},
        {number<int32_t>(key(LONG, 1), -1), raw<int64_t>(4294967295), 0, 0},
        {number<int32_t>(key(LONG, 1), 5), raw<int64_t>(0x100000005), 0, -1},
        {number<int32_t>(key(LONG, 1), 5), raw<int64_t>(LONG_MIN), 0, 1},
        {number<float>(key(FLOAT, 1), -1.5f), raw<float>(1), 0, -1},
        {number<float>(key(FLOAT, 1), 0.0f), raw<float>(-0.0f), 0, 0},
        {number<double>(key(DOUBLE, 1), 1e300), raw<double>(1e299), 0, 1},
        {a_string(1, "abc"), std::string("abc\0", 4), 1, 0},
        {a_string(1, "abc"), std::string("abcd\0", 5), 0, -1},
        {a_string(1, "b"), std::string("abcd\0", 5), 0, 1},
        {a_carray(1, "abc"), "ab", 2, 0},
        {a_carray(1, "ab"), "abc", 3, 0},
        {a_carray(1, "abc"), "abd", 3, -1},
        {a_carray(1, std::string("a\0c", 3)), std::string("a\0b", 3), 3, 1},
        {{key(0, 1), "abc"}, "abc", 3, 1},
        {{key(9, 1), "abc"}, "abc", 3, 1},
    };
    for (const auto &row : rows)
        EXPECT_EQ(sign(_value_comp(entry(row.stored).data(), row.value.data(), row.len)), row.result)
            << row.stored;
}

TEST_F(FieldHelper, OccurrenceNumberOfAnEntry)
{
    list fields = {
        an_int(1, 1), a_string(2, "text"), an_int(1, 2), {key(INT, 1) | READ, raw(3)}, an_int(1, 4)};
    Buffer fbuf(fields);
    const int numbers[] = {0, 0, 1, 0, 2};
    char *at = fbuf.bytes() + 8;
    for (size_t i = 0; i < fields.size(); i++) {
        EXPECT_EQ(_getnth_from_curpos(fbuf, at), numbers[i]) << i;
        at += size_of(fields[i]);
    }
    EXPECT_EQ(_getnth_from_curpos(fbuf, at), -1);
    EXPECT_EQ(_getnth_from_curpos(fbuf, fbuf.bytes() + 12), -1);
}
