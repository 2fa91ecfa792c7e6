// Typed buffers: the table of types, and making, growing, naming and freeing a buffer.
#include "buffers/tbuffer.h"

#include "buffers/sdli.h"
#include "fields/fbcommon.h"
#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED 1
#endif
#endif

namespace {

char *alloc(const char *type, const char *subtype, long size)
{
    return tpalloc((char *)type, (char *)subtype, size);
}

msg_header *head(char *data)
{
    return message_of(data);
}

// New heap memory is full of a pattern, so that a byte that nobody cleared shows.
void dirty_heap(void)
{
    mallopt(M_PERTURB, 0x5a);
}

struct TypedBuffer : testing::Test {
    void SetUp() override
    {
        unsetenv("VORN_STRING_NULL");
        unsetenv("SDLFILE64");
        unsetenv("SDLFILE");
        dirty_heap();
    }
};

}  // namespace

// ---- the table of types

TEST(TypeTable, HoldsTheseRowsInThisOrder)
{
    const tmtype rows[TYPE_ROWS] = {
        {"STRUCT", 1, 1, 1024},  {"FIELD", 2, 0, 1024},    {"FML", 2, 0, 1024},      {"STRING", 3, 0, 1024},
        {"VIEW", 1, 1, 1024},    {"FML32", 2, 0, 1024},    {"TPSTART", 5, 0, 76},    {"TPINIT", 5, 0, 108},
        {"HEADER", 9, 0, 136},   {"X_C_TYPE", 1, 1, 1024}, {"X_COMMON", 1, 1, 1024}, {"CARRAY", 4, 0, 1024},
        {"X_OCTET", 4, 0, 1024}, {"", -1, 0, 1024},
    };
    for (int i = 0; i < TYPE_ROWS; i++) {
        SCOPED_TRACE(i);
        EXPECT_STREQ(_tmtypetab[i].name, rows[i].name);
        EXPECT_EQ(_tmtypetab[i].typeno, rows[i].typeno);
        EXPECT_EQ(_tmtypetab[i].needs_subtype, rows[i].needs_subtype);
        EXPECT_EQ(_tmtypetab[i].default_size, rows[i].default_size);
    }
}

TEST_F(TypedBuffer, NameIsLookedUpExactlyAndLeavesTheStructSizeAlone)
{
    const struct {
        const char *name;
        int row;
    } names[] = {
        {"FIELD", 1},  {"FML", 2},      {"STRING", 3},  {"FML32", 5},    {"TPSTART", 6},
        {"TPINIT", 7}, {"HEADER", 8},   {"CARRAY", 11}, {"X_OCTET", 12}, {"string", -1},
        {"STRIN", -1}, {"STRINGS", -1}, {"", -1},       {" STRING", -1}, {"FML16", -1},
    };
    for (const auto &name : names) {
        int size = 77;
        EXPECT_EQ(_get_type_idx(name.name, "", &size), name.row) << name.name;
        EXPECT_EQ(size, 77) << name.name;
    }
}

TEST_F(TypedBuffer, StructNamesWithoutADefinitionAreUnknown)
{
    for (const char *name : {"STRUCT", "VIEW", "X_C_TYPE", "X_COMMON"}) {
        int size = 0;
        EXPECT_EQ(_get_type_idx(name, "person", &size), -1) << name;
        EXPECT_EQ(_get_type_idx(name, "", &size), -1) << name;
    }
    int word = 0;
    EXPECT_EQ(_get_subtype_len("person", &word), -1);
    EXPECT_EQ(_get_subtype_len("", &word), -1);
}

TEST_F(TypedBuffer, NumberGivesTheFirstRowThatBearsIt)
{
    const struct {
        int number;
        int row;
    } numbers[] = {
        {1, 0},  {2, 1},  {3, 3},  {4, 11},  {5, 6},   {9, 8},   {0, -1},          {-1, -1},
        {6, -1}, {7, -1}, {8, -1}, {10, -1}, {11, -1}, {12, -1}, {0x7fffffff, -1},
    };
    for (const auto &number : numbers)
        EXPECT_EQ(_get_idx_from_typeno(number.number), number.row) << number.number;
}

// ---- tpalloc

TEST_F(TypedBuffer, SizeIsRaisedToTheSmallestOfTheType)
{
    const struct {
        const char *type;
        int number;
        long smallest;
        long extra;
    } types[] = {
        {"STRING", 3, 1024, 0}, {"CARRAY", 4, 1024, 0}, {"X_OCTET", 4, 1024, 0},
        {"FIELD", 2, 1024, 8},  {"FML", 2, 1024, 8},    {"FML32", 2, 1024, 8},
        {"TPSTART", 5, 76, 0},  {"TPINIT", 5, 108, 0},  {"HEADER", 9, 136, 0},
    };
    for (const auto &type : types) {
        const long below = type.smallest - 1, at = type.smallest, above = type.smallest + 1;
        const struct {
            long asked, given;
        } sizes[] = {
            {0, at}, {-1, at}, {-100000, at}, {1, at}, {below, at}, {at, at}, {above, above}, {5000, 5000},
        };
        for (const auto &size : sizes) {
            SCOPED_TRACE(std::string(type.type) + " " + std::to_string(size.asked));
            char *data = alloc(type.type, nullptr, size.asked);
            ASSERT_NE(data, nullptr);
            EXPECT_EQ(head(data)->bufsize, size.given + type.extra);
            EXPECT_EQ(head(data)->buftype, type.number);
            EXPECT_EQ(tpgetasize(data), size.given + type.extra);
            EXPECT_EQ(tpgettype(data), type.number);
            tpfree(data);
        }
    }
}

TEST_F(TypedBuffer, HeaderAndDataAreClearedAndMarked)
{
    for (const char *type : {"STRING", "CARRAY", "X_OCTET", "TPSTART", "TPINIT", "HEADER"}) {
        SCOPED_TRACE(type);
        char *data = alloc(type, nullptr, 3000);
        ASSERT_NE(data, nullptr);
        msg_header wanted = {};
        wanted.magic = 0x90352082;
        wanted.buftype = head(data)->buftype;
        wanted.bufsize = 3000;
        wanted.xflags = 0x02000000;
        EXPECT_EQ(memcmp(head(data), &wanted, sizeof wanted), 0);
        EXPECT_EQ(std::string(data, 3000), std::string(3000, '\0'));
        EXPECT_TRUE(is_typed_buffer(data));
        // The reserve behind the data belongs to the block.
        memset(data + 3000, 1, TRAILER_ROOM);
        tpfree(data);
    }
}

TEST_F(TypedBuffer, FieldBufferIsMadeEmpty)
{
    for (const char *type : {"FIELD", "FML", "FML32"}) {
        SCOPED_TRACE(type);
        char *data = alloc(type, "", 0);
        ASSERT_NE(data, nullptr);
        fb_head start;
        memcpy(&start, data, sizeof start);
        EXPECT_EQ(start.magic, 8888u);
        EXPECT_EQ(start.used, 8);
        EXPECT_EQ(head(data)->bufsize, 1032);
        EXPECT_EQ(std::string(data + 8, 1024), std::string(1024, '\0'));
        tpfree(data);
    }
}

TEST_F(TypedBuffer, OnlyABigStringGetsTheTerminatorsByte)
{
    const struct {
        const char *value;
        long asked, given;
    } cases[] = {
        {nullptr, 0, 1024},    {"y", 0, 1024},    {"y", 1023, 1024},   {"y", 1024, 1025},
        {"y", 2000, 2001},     {"Y", 2000, 2001}, {"yes", 2000, 2001}, {"Yonder", 1500, 1501},
        {nullptr, 2000, 2000}, {"", 2000, 2000},  {"n", 2000, 2000},   {"1", 2000, 2000},
        {" y", 2000, 2000},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.value ? row.value : "(unset)") + " " + std::to_string(row.asked));
        if (row.value != nullptr)
            setenv("VORN_STRING_NULL", row.value, 1);
        else
            unsetenv("VORN_STRING_NULL");
        char *data = alloc("STRING", nullptr, row.asked);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(head(data)->bufsize, row.given);
        tpfree(data);
    }
    setenv("VORN_STRING_NULL", "y", 1);
    for (const char *other : {"CARRAY", "X_OCTET", "HEADER", "TPSTART"}) {
        char *data = alloc(other, nullptr, 2000);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(head(data)->bufsize, 2000) << other;
        tpfree(data);
    }
}

TEST_F(TypedBuffer, SizeIsTakenAsASigned32BitValue)
{
    char *data = alloc("CARRAY", nullptr, 0x100000000L + 3000);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(head(data)->bufsize, 3000);
    tpfree(data);
    data = alloc("CARRAY", nullptr, 0x80000000L);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(head(data)->bufsize, 1024);
    tpfree(data);
}

TEST_F(TypedBuffer, SizeThatLeavesNoRoomForTheHeaderIsRefused)
{
    setenv("VORN_STRING_NULL", "y", 1);
    for (const char *type : {"FIELD", "STRING"}) {
        set_tperrno(0);
        EXPECT_EQ(alloc(type, nullptr, 0x7fffffffL), nullptr) << type;
        EXPECT_EQ(get_tperrno(), TPEOS) << type;
    }
    char *data = alloc("STRING", nullptr, 2000);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(tprealloc(data, 0x7fffffffL), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(head(data)->bufsize, 2001);
    tpfree(data);
}

TEST_F(TypedBuffer, SubtypeOfATypeWithoutOneIsDropped)
{
    for (const char *subtype : {"person", "a subtype of well over sixteen characters", ""}) {
        char *data = alloc("STRING", subtype, 10);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(head(data)->subtype[0], 0);
        EXPECT_EQ(tpgetsubtype(data), head(data)->subtype);
        tpfree(data);
    }
}

TEST_F(TypedBuffer, AllocationRefusesUnknownTypesAndStructs)
{
    EXPECT_EQ(alloc("NOTYPE", nullptr, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    EXPECT_EQ(alloc("", nullptr, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    for (const char *type : {"STRUCT", "VIEW", "X_C_TYPE", "X_COMMON"})
        for (const char *subtype : {"person", "", "a subtype of twenty.", (const char *)nullptr}) {
            set_tperrno(0);
            EXPECT_EQ(alloc(type, subtype, 100), nullptr) << type;
            EXPECT_EQ(get_tperrno(), TPENOENT) << type;
        }
}

TEST_F(TypedBuffer, AllocationWithoutATypeIsInvalidWhateverElseIsWrong)
{
    EXPECT_EQ(alloc(nullptr, nullptr, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(alloc(nullptr, "person", -1), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(TypedBuffer, AllocationClearsTheErrorOfAnEarlierCall)
{
    set_tperrno(TPETIME);
    char *data = alloc("CARRAY", nullptr, 10);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(get_tperrno(), 0);
    set_tperrno(TPETIME);
    data = tprealloc(data, 2000);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(get_tperrno(), 0);
    tpfree(data);
}

// ---- tprealloc

TEST_F(TypedBuffer, GrowingKeepsTheDataAndClearsTheRest)
{
    char *data = alloc("CARRAY", nullptr, 1500);
    ASSERT_NE(data, nullptr);
    memset(data, 'x', 1500);
    memset(data + 1500, 'r', TRAILER_ROOM);
    head(data)->xflags = 0;
    head(data)->seqno = 4711;
    data = tprealloc(data, 6000);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(head(data)->bufsize, 6000);
    EXPECT_EQ(head(data)->xflags, 0x02000000u);
    EXPECT_EQ(head(data)->seqno, 4711);
    EXPECT_EQ(std::string(data, 1500), std::string(1500, 'x'));
    EXPECT_EQ(std::string(data + 1500, 4500), std::string(4500, '\0'));
    tpfree(data);
}

TEST_F(TypedBuffer, ReallocationFitsTheSizeByTheFirstRowOfTheNumber)
{
    const struct {
        const char *type;
        long first, asked, given;
    } cases[] = {
        {"CARRAY", 5000, 0, 1024},    {"CARRAY", 5000, 1023, 1024}, {"CARRAY", 5000, 1024, 1024},
        {"CARRAY", 5000, 1025, 1025}, {"CARRAY", 5000, -7, 1024},   {"X_OCTET", 0, 5000, 5000},
        {"FIELD", 5000, 0, 1032},     {"FIELD", 0, 2000, 2008},     {"FML32", 0, 1025, 1033},
        {"TPINIT", 0, 0, 76},         {"TPINIT", 0, 75, 76},        {"TPINIT", 0, 77, 77},
        {"TPSTART", 500, 0, 76},      {"HEADER", 500, 1, 136},      {"STRING", 5000, 1, 1024},
        {"STRING", 0, 2000, 2000},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.type) + " " + std::to_string(row.first) + " " +
                     std::to_string(row.asked));
        char *data = alloc(row.type, nullptr, row.first);
        ASSERT_NE(data, nullptr);
        data = tprealloc(data, row.asked);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(head(data)->bufsize, row.given);
        EXPECT_TRUE(is_typed_buffer(data));
        memset(data, 1, (size_t)row.given + TRAILER_ROOM);
        tpfree(data);
    }
}

TEST_F(TypedBuffer, ShrinkingKeepsTheFront)
{
    char *data = alloc("CARRAY", nullptr, 5000);
    ASSERT_NE(data, nullptr);
    memset(data, 'x', 5000);
    data = tprealloc(data, 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(head(data)->bufsize, 1024);
    EXPECT_EQ(std::string(data, 1024), std::string(1024, 'x'));
    tpfree(data);
}

TEST_F(TypedBuffer, StringIsEndedWhereTheCallerAskedAndAtTheEnd)
{
    setenv("VORN_STRING_NULL", "y", 1);
    char *data = alloc("STRING", nullptr, 3000);
    ASSERT_NE(data, nullptr);
    memset(data, 'x', 3001);
    data = tprealloc(data, 2000);
    ASSERT_NE(data, nullptr);
    ASSERT_EQ(head(data)->bufsize, 2001);
    EXPECT_EQ(std::string(data, 1999), std::string(1999, 'x'));
    EXPECT_EQ(data[1999], 0);
    EXPECT_EQ(data[2000], 0);

    memset(data, 'y', 2001);
    data = tprealloc(data, 500);
    ASSERT_NE(data, nullptr);
    ASSERT_EQ(head(data)->bufsize, 1024);
    EXPECT_EQ(data[498], 'y');
    EXPECT_EQ(data[499], 0);
    EXPECT_EQ(data[500], 'y');
    EXPECT_EQ(data[1022], 'y');
    EXPECT_EQ(data[1023], 0);
    tpfree(data);
}

TEST_F(TypedBuffer, StringOfSizeZeroTouchesTheLastByteOfTheHeader)
{
    char *data = alloc("STRING", nullptr, 3000);
    ASSERT_NE(data, nullptr);
    memset(data, 'x', 3000);
    head(data)->callid[2] = 0xffffffff;
    data = tprealloc(data, 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(((unsigned char *)data)[-1], 0);
    EXPECT_EQ(((unsigned char *)data)[-2], 0xff);
    EXPECT_EQ(data[0], 'x');
    EXPECT_EQ(data[1023], 0);
    tpfree(data);
}

TEST_F(TypedBuffer, StringOfNegativeSizeTouchesNothingInFrontOfTheBlock)
{
    for (long size : {-1L, -135L, -136L, -137L, -5000L, -0x7fffffffL, -0x80000000L}) {
        char *data = alloc("STRING", nullptr, 3000);
        ASSERT_NE(data, nullptr);
        data = tprealloc(data, size);
        ASSERT_NE(data, nullptr) << size;
        EXPECT_EQ(head(data)->magic, 0x90352082u) << size;
        EXPECT_EQ(head(data)->bufsize, 1024) << size;
        EXPECT_EQ(head(data)->buftype, 3) << size;
        tpfree(data);
    }
}

TEST_F(TypedBuffer, ReallocationRefusesWhatIsNoBuffer)
{
    EXPECT_EQ(tprealloc(nullptr, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    alignas(8) char foreign[400] = {};
    EXPECT_EQ(tprealloc(foreign + 136, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(TypedBuffer, ReallocationRefusesNumbersWithoutARow)
{
    char *data = alloc("CARRAY", nullptr, 2000);
    ASSERT_NE(data, nullptr);
    for (int number : {0, -1, 6, 7, 8, 10, 11, 12, 99}) {
        head(data)->buftype = number;
        set_tperrno(0);
        EXPECT_EQ(tprealloc(data, 100), nullptr) << number;
        EXPECT_EQ(get_tperrno(), TPENOENT) << number;
        EXPECT_EQ(head(data)->bufsize, 2000) << number;
    }
    // Both wrong: the magic is looked at first.
    head(data)->magic = 1;
    EXPECT_EQ(tprealloc(data, 100), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    head(data)->magic = 0x90352082;
    tpfree(data);
}

TEST_F(TypedBuffer, WithoutMemoryTheOldBufferStands)
{
    char *data = alloc("CARRAY", nullptr, 2000);
    ASSERT_NE(data, nullptr);
    memset(data, 'k', 2000);
    faults::fail_allocation(1);
    char *grown = tprealloc(data, 50000);
    faults::disarm_allocations();
    EXPECT_EQ(grown, nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(head(data)->bufsize, 2000);
    EXPECT_EQ(std::string(data, 2000), std::string(2000, 'k'));
    data = tprealloc(data, 50000);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(get_tperrno(), 0);
    tpfree(data);
}

TEST_F(TypedBuffer, WithoutMemoryAllocationFailsAndTheNextOneWorks)
{
    char *first = alloc("CARRAY", nullptr, 10);  // the tables are there from here on
    ASSERT_NE(first, nullptr);
    faults::fail_allocation(1);
    char *data = alloc("CARRAY", nullptr, 10);
    faults::disarm_allocations();
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    data = alloc("CARRAY", nullptr, 10);
    EXPECT_NE(data, nullptr);
    tpfree(data);
    tpfree(first);
}

// ---- tptypes and the plain readers

TEST_F(TypedBuffer, TypesNamesTheFirstRowOfTheNumber)
{
    const struct {
        const char *made, *named;
        long size;
    } types[] = {
        {"STRING", "STRING", 1024}, {"CARRAY", "CARRAY", 1024}, {"X_OCTET", "CARRAY", 1024},
        {"FIELD", "FIELD", 1032},   {"FML", "FIELD", 1032},     {"FML32", "FIELD", 1032},
        {"TPSTART", "TPSTART", 76}, {"TPINIT", "TPSTART", 108}, {"HEADER", "HEADER", 136},
    };
    for (const auto &row : types) {
        SCOPED_TRACE(row.made);
        char *data = alloc(row.made, nullptr, 0);
        ASSERT_NE(data, nullptr);
        char type[16], subtype[17];
        memset(type, '#', sizeof type);
        memset(subtype, '#', sizeof subtype);
        EXPECT_EQ(tptypes(data, type, subtype), row.size);
        EXPECT_STREQ(type, row.named);
        EXPECT_STREQ(subtype, "");
        EXPECT_EQ(subtype[16], '#');
        EXPECT_EQ(tptypes(data, nullptr, nullptr), row.size);
        tpfree(data);
    }
}

TEST_F(TypedBuffer, TypesNamesStructsByTheirFirstName)
{
    char *data = alloc("CARRAY", nullptr, 0);
    ASSERT_NE(data, nullptr);
    head(data)->buftype = 1;
    memcpy(head(data)->subtype, "person", 7);
    char type[16], subtype[17];
    memset(subtype, '#', sizeof subtype);
    EXPECT_EQ(tptypes(data, type, subtype), 1024);
    EXPECT_STREQ(type, "STRUCT");
    EXPECT_EQ(std::string(subtype, 17), std::string("person") + std::string(10, '\0') + "#");
    EXPECT_EQ(tpgetsubtype(data), head(data)->subtype);
    tpfree(data);
}

TEST_F(TypedBuffer, FullSubtypeIsCopiedWithoutATerminator)
{
    char *data = alloc("CARRAY", nullptr, 0);
    ASSERT_NE(data, nullptr);
    memcpy(head(data)->subtype, "0123456789abcdef", 16);
    char subtype[18];
    memset(subtype, '#', sizeof subtype);
    EXPECT_EQ(tptypes(data, nullptr, subtype), 1024);
    EXPECT_EQ(std::string(subtype, 18), "0123456789abcdef##");
    tpfree(data);
}

TEST_F(TypedBuffer, TypesRefusesWhatItCannotName)
{
    char *data = alloc("CARRAY", nullptr, 0);
    ASSERT_NE(data, nullptr);
    char type[16] = "as before", subtype[16] = "as before";
    for (int number : {0, -1, 10, 11, 12}) {
        head(data)->buftype = number;
        set_tperrno(0);
        EXPECT_EQ(tptypes(data, type, subtype), -1) << number;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << number;
        EXPECT_STREQ(type, "as before");
    }
    // Without a place for the name nobody asks for it.
    EXPECT_EQ(tptypes(data, nullptr, nullptr), 1024);
    head(data)->buftype = 4;
    head(data)->magic = 0;
    set_tperrno(0);
    EXPECT_EQ(tptypes(data, type, subtype), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    head(data)->magic = 0x90352082;
    tpfree(data);
}

TEST_F(TypedBuffer, PlainReadersCheckNothing)
{
    alignas(8) char block[200] = {};
    msg_header *header = (msg_header *)block;
    header->bufsize = 12345;
    header->buftype = 77;
    EXPECT_EQ(tpgetasize(block + 136), 12345);
    EXPECT_EQ(tpgettype(block + 136), 77);
    EXPECT_EQ(tpgetsubtype(block + 136), block + 52);
}

// ---- tpfree

TEST_F(TypedBuffer, FreeIgnoresWhatIsNoBuffer)
{
    tpfree(nullptr);
    alignas(8) char foreign[400];
    memset(foreign, 7, sizeof foreign);
    tpfree(foreign + 136);
    EXPECT_EQ(std::string(foreign, 400), std::string(400, '\7'));
    // A right magic on an address that no header can have.
    for (int shift = 1; shift < 4; shift++) {
        uint32_t magic = 0x90352082;
        memcpy(foreign + shift, &magic, 4);
        tpfree(foreign + shift + 136);
        EXPECT_EQ(memcmp(foreign + shift, &magic, 4), 0) << shift;
    }
}

TEST_F(TypedBuffer, FreeWithoutAMagicLeavesTheBlockAlive)
{
    char *data = alloc("CARRAY", nullptr, 10);
    ASSERT_NE(data, nullptr);
    head(data)->magic = 0x12345678;
    tpfree(data);
    memset(data, 'x', 1024);  // still ours
    EXPECT_EQ(head(data)->bufsize, 1024);
    head(data)->magic = 0x90352082;
    tpfree(data);
}

#ifndef SANITIZED
TEST_F(TypedBuffer, FreeingTwiceDoesNothing)
{
    char *volatile data = alloc("CARRAY", nullptr, 10);
    ASSERT_NE(data, nullptr);
    tpfree(data);
    tpfree(data);
}
#endif

TEST_F(TypedBuffer, IsToldByTheWordInFront)
{
    EXPECT_FALSE(is_typed_buffer(nullptr));
    alignas(8) char block[200] = {};
    EXPECT_FALSE(is_typed_buffer(block + 136));
    uint32_t magic = 0x90352082;
    memcpy(block, &magic, 4);
    EXPECT_TRUE(is_typed_buffer(block + 136));
    memcpy(block + 1, &magic, 4);
    EXPECT_FALSE(is_typed_buffer(block + 137));
}

TEST_F(TypedBuffer, ManyBuffersOfAllTypesComeAndGo)
{
    std::vector<char *> all;
    const char *types[] = {"STRING", "CARRAY", "FIELD", "TPSTART", "TPINIT", "HEADER"};
    for (int i = 0; i < 600; i++) {
        char *data = alloc(types[i % 6], nullptr, i * 13);
        ASSERT_NE(data, nullptr);
        all.push_back(data);
    }
    for (size_t i = 0; i < all.size(); i++) {
        all[i] = tprealloc(all[i], (long)(all.size() - i) * 17);
        ASSERT_NE(all[i], nullptr);
    }
    for (char *data : all)
        tpfree(data);
}
