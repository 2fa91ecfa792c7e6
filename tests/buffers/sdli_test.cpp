// Struct records: looked up by name, made into buffers, and turned into their wire form and back.
#include "buffers/payload.h"
#include "buffers/structs.h"
#include "buffers/tbuffer.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <string.h>

namespace {

enum rows { ITEM, PERSON, PAIR };

struct Structs : testing::Test {
    LogFile log;

    Structs()
    {
        _check_node();
        for (const char *name : {"SDLFILE64", "SDLFILE", "FDLFILE", "VORN_STRING_NULL"})
            unsetenv(name);
    }

    // A struct "one" of a single member, row 0.
    void load_member(const sdl::member &member, int64_t host_size, int64_t wire_size)
    {
        ASSERT_EQ(load_structs({{"one", {member}, host_size, wire_size, 0}}), 1);
    }

    std::string encode(int row, const std::string &host, size_t wire_size)
    {
        std::string from = host, to(wire_size, '\xEE');
        EXPECT_EQ((char *)_sdl_encode(row, &from[0], &to[0]), to.data());
        EXPECT_EQ(from, host);
        return to;
    }
    std::string decode(int row, const std::string &wire, size_t host_size)
    {
        std::string from = wire, to(host_size, '\xEE');
        EXPECT_EQ((char *)_sdl_decode(row, &from[0], &to[0]), to.data());
        EXPECT_EQ(from, wire);
        return to;
    }
};

template <size_t N> std::string raw(const unsigned char (&bytes)[N])
{
    return std::string((const char *)bytes, N);
}

}  // namespace

// ---- looked up by name

TEST_F(Structs, NamesGiveTheSizes)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    const struct {
        const char *name;
        int host, wire, word;
    } cases[] = {{"item", 16, 6, 77}, {"person", 96, 56, 78}, {"pair", 8, 8, 0}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        int host = 0, net = 0, word = -1;
        EXPECT_EQ(_get_host_stsize((char *)row.name), row.host);
        EXPECT_EQ(_get_host_nw_stsize((char *)row.name, &host, &net), 1);
        EXPECT_EQ(host, row.host);
        EXPECT_EQ(net, row.wire);
        EXPECT_EQ(_get_subtype_len((char *)row.name, &word), row.host);
        EXPECT_EQ(word, row.word);
    }
    for (const char *name : {"", "perso", "persons", "Person", "person ", "ite", " item"}) {
        SCOPED_TRACE(name);
        int one = 5, two = 6;
        EXPECT_EQ(_get_host_stsize((char *)name), -1);
        EXPECT_EQ(_get_host_nw_stsize((char *)name, &one, &two), -1);
        EXPECT_EQ(_get_subtype_len((char *)name, &one), -1);
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(Structs, SixteenCharactersOfANameCount)
{
    sdl::record sixteen = {"abcdefghijklmnop", {{.name = "x"}}, 4, 4, 0};
    sdl::record twenty = {"ABCDEFGHIJKLMNOPQRST", {{.name = "x"}}, 12, 12, 0};
    ASSERT_EQ(load_structs({sixteen, twenty}), 1);
    EXPECT_EQ(_get_host_stsize((char *)"abcdefghijklmnop"), 4);
    EXPECT_EQ(_get_host_stsize((char *)"abcdefghijklmnopqrst"), 4);
    EXPECT_EQ(_get_host_stsize((char *)"abcdefghijklmno"), -1);
    EXPECT_EQ(_get_host_stsize((char *)"ABCDEFGHIJKLMNOP"), 12);
    EXPECT_EQ(_get_host_stsize((char *)"ABCDEFGHIJKLMNOPxxxx"), 12);
    EXPECT_EQ(_get_host_stsize((char *)"ABCDEFGHIJKLMNOx"), -1);
    // The subtype of a header has no NUL behind 16 characters; what follows it doesn't count.
    msg_header header = {};
    memcpy(header.subtype, "abcdefghijklmnop", 16);
    memcpy(header.svcname, "SERVICE", 7);
    EXPECT_EQ(_get_host_stsize(header.subtype), 4);
}

// ---- buffers of structs

TEST_F(Structs, BufferHoldsARecordAtTheLeast)
{
    sdl::record large = {"large", {{.name = "x", .type = sdl::CARRAY, .count = 3000}}, 3000, 3000, 0};
    ASSERT_EQ(load_structs({large, pair_definition()}), 1);
    const struct {
        const char *type, *subtype;
        long asked, given;
    } cases[] = {
        {"STRUCT", "large", 0, 3000},    {"VIEW", "large", 1, 3000},       {"X_C_TYPE", "large", 2999, 3000},
        {"X_COMMON", "large", -1, 3000}, {"VIEW", "large", 3001, 3001},    {"STRUCT", "large", 9000, 9000},
        {"STRUCT", "pair", 0, 1024},     {"X_COMMON", "pair", 1025, 1025},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::string(row.type) + " " + row.subtype + " " + std::to_string(row.asked));
        char *data = tpalloc((char *)row.type, (char *)row.subtype, row.asked);
        ASSERT_NE(data, nullptr);
        char type[16], subtype[17] = {};
        EXPECT_EQ(tptypes(data, type, subtype), row.given);
        EXPECT_STREQ(type, "STRUCT");
        EXPECT_STREQ(subtype, row.subtype);
        EXPECT_EQ(tpgettype(data), TPBUF_STRUCT);
        EXPECT_EQ(std::string(data, (size_t)row.given), std::string((size_t)row.given, '\0'));
        tpfree(data);
    }
}

TEST_F(Structs, BufferOfAnUnknownStructIsRefused)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    for (const char *subtype : {(const char *)nullptr, "", "perso", "persons"}) {
        set_tperrno(0);
        EXPECT_EQ(tpalloc((char *)"STRUCT", (char *)subtype, 0), nullptr);
        EXPECT_EQ(get_tperrno(), TPENOENT);
    }
}

TEST_F(Structs, LongSubtypeIsCutBeforeTheLookup)
{
    ASSERT_EQ(load_structs({{"abcdefghijklmnop", {{.name = "x"}}, 4, 4, 0}}), 1);
    char *data = tpalloc((char *)"STRUCT", (char *)"abcdefghijklmnopqrst", 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(tpgetsubtype(data), 16), "abcdefghijklmnop");
    EXPECT_EQ(message_of(data)->svcname[0], 0);
    tpfree(data);
}

TEST_F(Structs, GrowingABufferDoesntMindTheStruct)
{
    sdl::record large = {"large", {{.name = "x", .type = sdl::CARRAY, .count = 3000}}, 3000, 3000, 0};
    ASSERT_EQ(load_structs({large}), 1);
    char *data = tpalloc((char *)"STRUCT", (char *)"large", 0);
    ASSERT_NE(data, nullptr);
    data = tprealloc(data, 1);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(tpgetasize(data), 1024);
    tpfree(data);
}

TEST_F(Structs, WholeRecordsLeave)
{
    sdl::record hundred = {"hundred", {{.name = "x", .type = sdl::CARRAY, .count = 100}}, 100, 100, 0};
    ASSERT_EQ(load_structs({hundred}), 1);
    char *data = tpalloc((char *)"STRUCT", (char *)"hundred", 1024);
    ASSERT_NE(data, nullptr);
    const struct {
        int len, sent, error;
    } cases[] = {
        {0, 100, 0},   {50, 100, 0},      {100, 100, 0},        {199, 100, 0},
        {200, 200, 0}, {250, 200, 0},     {1024, 1000, 0},      {1099, 1000, 0},
        {-1, 100, 0},  {INT_MIN, 100, 0}, {1100, -1, TPEINVAL}, {INT_MAX, -1, TPEINVAL},
    };
    for (const auto &row : cases) {
        set_tperrno(0);
        EXPECT_EQ(_data_itype_check(data, row.len, current_block()), row.sent) << row.len;
        EXPECT_EQ(get_tperrno(), row.error) << row.len;
    }
    memcpy(tpgetsubtype(data), "thousand", 8);
    EXPECT_EQ(_data_itype_check(data, 0, current_block()), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    tpfree(data);
}

// ---- one record, byte by byte

TEST_F(Structs, RecordOfAllTypesTravels)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    person_record person = sample_person();
    EXPECT_EQ(encode(PERSON, bytes_of(person), PERSON_WIRE), sample_person_wire());
    person_record back = {};
    std::string host = decode(PERSON, sample_person_wire(), sizeof back);
    memcpy((void *)&back, host.data(), sizeof back);
    EXPECT_EQ(back.letter, 'L');
    EXPECT_EQ(back.numbers[0], 0x0102);
    EXPECT_EQ(back.numbers[1], -2);
    EXPECT_EQ(back.numbers[2], 0x7f80);
    EXPECT_EQ(back.id, 0x11223344);
    EXPECT_EQ(back.salary, 0x55667788);
    EXPECT_EQ(back.share, 1.0f);
    EXPECT_EQ(back.factor, 1.0);
    EXPECT_EQ(memcmp(back.name, person.name, sizeof back.name), 0);
    EXPECT_EQ(memcmp(back.key, person.key, sizeof back.key), 0);
    EXPECT_EQ(back.items[0].number, 0x2122);
    EXPECT_EQ(back.items[0].price, 0x23242526);
    EXPECT_EQ(back.items[1].number, 0x3132);
    EXPECT_EQ(back.items[1].price, 0xfffffffeL);
    EXPECT_EQ(log.lines(), 0) << log.text();
}

// What stands between the members is nobody's.
TEST_F(Structs, GapsAreNotWritten)
{
    sdl::record gaps = {"gaps", {}, 24, 16, 0};
    gaps.members.push_back({.name = "a", .type = sdl::CHAR, .host_offset = 0, .wire_offset = 3});
    gaps.members.push_back({.name = "b", .type = sdl::LONG, .host_offset = 8, .wire_offset = 8});
    ASSERT_EQ(load_structs({gaps}), 1);
    const unsigned char host[24] = {
        'a', 9, 9, 9, 9, 9, 9, 9, 1, 2, 3, 4, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9,
    };
    const unsigned char wire[16] = {
        0xEE, 0xEE, 0xEE, 'a', 0xEE, 0xEE, 0xEE, 0xEE, 4, 3, 2, 1, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(encode(0, raw(host), sizeof wire), raw(wire));
    const unsigned char back[24] = {
        'a', 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 1,    2,    3,    4,
        0,   0,    0,    0,    0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(decode(0, raw(wire), sizeof back), raw(back));
}

TEST_F(Structs, LongLosesItsHighHalf)
{
    sdl::record one = {"one", {}, 16, 8, 0};
    one.members.push_back({.name = "id", .type = sdl::INT});
    one.members.push_back({.name = "x", .type = sdl::LONG, .host_offset = 8, .wire_offset = 4});
    ASSERT_EQ(load_structs({one}), 1);
    const struct {
        int64_t value;
        uint32_t wire;
        int64_t back;
    } cases[] = {
        {0x1122334455667788, 0x55667788, 0x55667788},
        {0, 0, 0},
        {1, 1, 1},
        {-1, 0xffffffff, 4294967295},
        {-2, 0xfffffffe, 4294967294},
        {INT64_MIN, 0, 0},
        {INT64_MAX, 0xffffffff, 4294967295},
        {INT32_MIN, 0x80000000, 2147483648},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.value);
        std::string wire = encode(0, std::string(8, '\0') + bytes_of(row.value), 8);
        EXPECT_EQ(wire.substr(4), wire::word(row.wire));
        EXPECT_EQ(decode(0, wire, 16).substr(8), bytes_of(row.back));
    }
}

TEST_F(Structs, EachTypeStepsThroughItsElements)
{
    const unsigned char bytes[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const struct {
        int32_t type, count;
        size_t host_size;
        std::vector<unsigned char> wire;
    } cases[] = {
        {sdl::CHAR, 3, 3, {0, 1, 2}},
        {sdl::SHORT, 3, 6, {1, 0, 3, 2, 5, 4}},
        {sdl::INT, 2, 8, {3, 2, 1, 0, 7, 6, 5, 4}},
        {sdl::LONG, 2, 16, {3, 2, 1, 0, 11, 10, 9, 8}},
        {sdl::FLOAT, 2, 8, {3, 2, 1, 0, 7, 6, 5, 4}},
        {sdl::DOUBLE, 2, 16, {7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8}},
        {sdl::STRING, 5, 5, {0, 1, 2, 3, 4}},
        {sdl::CARRAY, 4, 4, {0, 1, 2, 3}},
    };
    std::vector<sdl::record> records;
    for (const auto &row : cases)
        records.push_back({"t" + std::to_string(row.type),
                           {{.name = "x", .type = row.type, .count = row.count}},
                           (int64_t)row.host_size,
                           (int64_t)row.wire.size(),
                           0});
    ASSERT_EQ(load_structs(records), 1);
    for (int i = 0; i < (int)std::size(cases); i++) {
        SCOPED_TRACE("type " + std::to_string(cases[i].type));
        std::string host = raw(bytes).substr(0, cases[i].host_size);
        std::string wire(cases[i].wire.begin(), cases[i].wire.end());
        EXPECT_EQ(encode(i, host, wire.size()), wire);
        if (cases[i].type == sdl::LONG)
            host.replace(4, 4, 4, '\0').replace(12, 4, 4, '\0');
        EXPECT_EQ(decode(i, wire, host.size()), host);
    }
}

TEST_F(Structs, MemberOfNoElementsIsNothing)
{
    std::vector<sdl::record> records = {pair_definition()};
    for (int32_t type = 1; type <= 9; type++)
        records.push_back({"t" + std::to_string(type), {{.name = "x", .type = type, .count = 0}}, 8, 8, 0});
    ASSERT_EQ(load_structs(records), 1);
    for (int row = 1; row <= 9; row++) {
        EXPECT_EQ(encode(row, std::string(8, 'h'), 8), std::string(8, '\xEE')) << row;
        EXPECT_EQ(decode(row, std::string(8, 'w'), 8), std::string(8, '\xEE')) << row;
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(Structs, FloatingPointKeepsItsBits)
{
    sdl::record one = {"one", {}, 16, 12, 0};
    one.members.push_back({.name = "f", .type = sdl::FLOAT});
    one.members.push_back({.name = "d", .type = sdl::DOUBLE, .host_offset = 8, .wire_offset = 4});
    ASSERT_EQ(load_structs({one}), 1);
    const struct {
        uint32_t f;
        uint64_t d;
    } cases[] = {
        {0x3f800000, 0x3ff0000000000000},  // 1
        {0x80000000, 0x8000000000000000},  // -0
        {0x7f800001, 0x7ff0000000000001},  // signalling NaN
        {0xffc12345, 0xfff8123456789abc},  // NaN with a payload
        {0xff800000, 0xfff0000000000000},  // -infinity
        {0x00000001, 0x0000000000000001},  // denormal
    };
    for (const auto &row : cases) {
        std::string host = bytes_of(row.f) + std::string(4, '\xEE') + bytes_of(row.d);
        std::string wire =
            wire::word(row.f) + wire::word((uint32_t)(row.d >> 32)) + wire::word((uint32_t)row.d);
        EXPECT_EQ(encode(0, host, 12), wire);
        EXPECT_EQ(decode(0, wire, 16), host);
    }
}

TEST_F(Structs, NestedRecordsStepByTheirOwnSizes)
{
    sdl::record inner = {"inner", {}, 16, 5, 0}, middle = {"middle", {}, 40, 12, 0},
                outer = {"outer", {}, 88, 26, 0};
    inner.members.push_back({.name = "c", .type = sdl::CHAR});
    inner.members.push_back({.name = "l", .type = sdl::LONG, .host_offset = 8, .wire_offset = 1});
    middle.members.push_back({.name = "s", .type = sdl::SHORT});
    middle.members.push_back(
        {.name = "i", .type = sdl::NESTED, .nested = 0, .count = 2, .host_offset = 8, .wire_offset = 2});
    outer.members.push_back({.name = "m", .type = sdl::NESTED, .nested = 1, .count = 2});
    outer.members.push_back({.name = "t", .type = sdl::SHORT, .host_offset = 80, .wire_offset = 24});
    ASSERT_EQ(load_structs({inner, middle, outer}), 1);

    std::string host(88, '\0');
    for (size_t i = 0; i < host.size(); i++)
        host[i] = (char)i;
    const unsigned char wire[26] = {
        1,  0,  8,  19, 18, 17, 16, 24, 35, 34, 33, 32,  // s; c and l of i[0]; c and l of i[1]
        41, 40, 48, 59, 58, 57, 56, 64, 75, 74, 73, 72,  // the same, 40 bytes further on
        81, 80,
    };
    EXPECT_EQ(encode(2, host, sizeof wire), raw(wire));
    std::string back = decode(2, raw(wire), 88);
    EXPECT_EQ(encode(2, back, sizeof wire), raw(wire));
    EXPECT_EQ(back.substr(16, 8), std::string("\x10\x11\x12\x13\0\0\0\0", 8));
    EXPECT_EQ(back.substr(1 + 8, 7), std::string(7, '\xEE'));
}

TEST_F(Structs, MemberOfAnUnknownTypeIsToldAndPassedOver)
{
    std::vector<int32_t> types = {0, 10, 11, 99, -1, INT_MAX, INT_MIN};
    sdl::record odd = {"odd", {}, 64, 64, 0};
    for (size_t i = 0; i < types.size(); i++)
        odd.members.push_back({.name = "o" + std::to_string(i),
                               .type = types[i],
                               .host_offset = 8 * (int32_t)i,
                               .wire_offset = 8 * (int32_t)i});
    odd.members.push_back({.name = "end", .type = sdl::SHORT, .host_offset = 60, .wire_offset = 60});
    ASSERT_EQ(load_structs({odd}), 1);
    std::string host(64, '\1');
    host[60] = 3;
    host[61] = 4;
    std::string wire(64, '\xEE');
    wire[60] = 4;
    wire[61] = 3;
    EXPECT_EQ(encode(0, host, 64), wire);
    EXPECT_EQ(log.lines(), (int)types.size());
    for (int32_t type : types)
        EXPECT_TRUE(log.has("(E) CLI 0209 internal error : unknown type (" + std::to_string(type) +
                            ") found in struct [CLI0301]\n"))
            << log.text();
    EXPECT_FALSE(log.has("CLI0302"));
    EXPECT_EQ(decode(0, wire, 64).substr(60, 2), "\3\4");
    EXPECT_EQ(log.lines(), 2 * (int)types.size());
    for (int32_t type : types)
        EXPECT_TRUE(log.has("(E) CLI 0209 internal error : unknown type (" + std::to_string(type) +
                            ") found in struct [CLI0302]\n"));
}

TEST_F(Structs, MembersAreTakenInTheirOrder)
{
    // Two members on one place: the later one wins.
    sdl::record lap = {"lap", {}, 8, 4, 0};
    lap.members.push_back({.name = "a", .type = sdl::INT});
    lap.members.push_back({.name = "b", .type = sdl::INT, .host_offset = 4});
    ASSERT_EQ(load_structs({lap}), 1);
    EXPECT_EQ(encode(0, "abcdefgh", 4), "hgfe");
    EXPECT_EQ(decode(0, "1234", 8), "43214321");
}

TEST_F(Structs, UnalignedMembersAreFine)
{
    sdl::record crooked = {"crooked", {}, 24, 24, 0};
    const struct {
        int32_t type, offset;
    } members[] = {{sdl::SHORT, 1}, {sdl::INT, 3}, {sdl::LONG, 7}, {sdl::DOUBLE, 15}};
    for (const auto &one : members)
        crooked.members.push_back({.name = "m" + std::to_string(one.offset),
                                   .type = one.type,
                                   .host_offset = one.offset,
                                   .wire_offset = one.offset});
    ASSERT_EQ(load_structs({crooked}), 1);
    std::string host(24, '\0');
    for (size_t i = 0; i < host.size(); i++)
        host[i] = (char)i;
    std::string wire = encode(0, host, 24);
    EXPECT_EQ(wire.substr(1, 10), "\2\1\6\5\4\3\12\11\10\7");
    EXPECT_EQ(encode(0, decode(0, wire, 24), 24), wire);
}
