// The wire form of struct data: records one after the other, trailers, and decoding in place. Also the
// turning of a single floating-point number.
#include "buffers/dencode.h"
#include "buffers/double.h"
#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"

#include <algorithm>
#include <limits.h>
#include <string.h>

namespace {

constexpr size_t HOST = sizeof(person_record), WIRE = PERSON_WIRE;

struct StructWire : testing::Test {
    LogFile log;

    StructWire()
    {
        _check_node();
        for (const char *name : {"SDLFILE64", "SDLFILE", "FDLFILE"})
            unsetenv(name);
        EXPECT_EQ(load_structs(definitions()), 1);
    }

    static std::string encode(msg_header *message)
    {
        int length = -1;
        char *block = _hton_data_sdl(message, &length);
        EXPECT_NE(block, nullptr);
        return block == nullptr ? "" : Encoded(block, length).data();
    }
};

// `count` records, each with its number in `id`.
std::string people(int count)
{
    std::string all;
    for (int i = 0; i < count; i++) {
        person_record person = sample_person();
        person.id = i;
        all += bytes_of(person);
    }
    return all;
}

std::string people_wire(int count)
{
    std::string all;
    for (int i = 0; i < count; i++)
        all += sample_person_wire().replace(7, 4, wire::word((uint32_t)i));
    return all;
}

}  // namespace

// ---- out

TEST_F(StructWire, RecordsFollowEachOther)
{
    for (int count : {1, 2, 3, 100}) {
        SCOPED_TRACE(count);
        Message message(BUF_STRUCT, people(count), 0, "person");
        EXPECT_EQ(encode(message), people_wire(count));
        EXPECT_EQ(message.text(people(count).size()), people(count));
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(StructWire, PartOfARecordStays)
{
    for (size_t more : {(size_t)1, HOST / 2, HOST - 1}) {
        Message message(BUF_STRUCT, people(2) + std::string(more, 'x'), 0, "person");
        EXPECT_EQ(encode(message), people_wire(2)) << more;
    }
    Message less(BUF_STRUCT, std::string(HOST - 1, 'x'), HOST, "person");
    EXPECT_EQ(encode(less), "");
}

TEST_F(StructWire, SubtypeOfSixteenCharactersIsFound)
{
    _sdlfile_loadsw = 0;
    free(_sdl_table);
    free(_sdl_field_table);
    _sdl_table = nullptr;
    _sdl_field_table = nullptr;
    _sdl_table_size = _sdl_field_table_size = 0;
    sdl::record named = pair_definition();
    named.name = "abcdefghijklmnop";
    ASSERT_EQ(load_structs({named}), 1);
    Message message(BUF_STRUCT, "abcdefgh", 0, "abcdefghijklmnop");
    memset(message->svcname, 's', sizeof message->svcname);
    EXPECT_EQ(encode(message), "dcbahgfe");
}

TEST_F(StructWire, BlockHasRoomForTheHeaderAndAReserve)
{
    Message message(BUF_STRUCT, people(2), 0, "person");
    int length = 0;
    char *block = _hton_data_sdl(message, &length);
    ASSERT_NE(block, nullptr);
    memset(block, 1, (size_t)length + 200);
    free(block);
}

TEST_F(StructWire, TrailerGoesOutBehindTheRecords)
{
    Message message(BUF_STRUCT, people(2) + "\1\12trailbytes", 0, "person");
    message.mark_trailer(12);
    EXPECT_EQ(encode(message), people_wire(2) + "\1\12trailbytes");
    // A trailer isn't counted as a record, however long.
    Message pairs(BUF_STRUCT, "abcdefgh" + std::string(64, 't'), 0, "pair");
    pairs.mark_trailer(64);
    EXPECT_EQ(encode(pairs), "dcbahgfe" + std::string(64, 't'));
    // Without the mark it is data.
    pairs->xflags = XFLAG_TRAILER_ROOM | 64;
    EXPECT_EQ(encode(pairs), "dcbahgfe" + std::string(64, 't'));
}

TEST_F(StructWire, TrailerLongerThanTheDataDoesNoHarm)
{
    for (int length : {9, 64, 255}) {
        Message message(BUF_STRUCT, "abcdefgh", 0, "pair");
        message.mark_trailer(length);
        int out = 0;
        free(_hton_data_sdl(message, &out));
        _ntoh_data_sdl(message, message.data(), message.data(), &out);
    }
}

TEST_F(StructWire, RecordsBehindAControlRecordMoveAlong)
{
    std::string data = std::string(168, 'r') + people(2);
    Message message(BUF_RQ_STRUCT, data, 2048, "person");
    int length = 0;
    char *block = _hton_data_sdl(message, &length);
    ASSERT_NE(block, nullptr);
    std::string wire(block + HEADER_SIZE + 168, 2 * WIRE);
    EXPECT_EQ(wire, people_wire(2));
    EXPECT_EQ(message.text(data.size()), data);
    free(block);
}

TEST_F(StructWire, ControlRecordThatIsCutIsNeverReadBeyond)
{
    for (size_t length : {1, 8, 96, 167, 168, 169, 168 + 96, 168 + 100, 168 + 192}) {
        SCOPED_TRACE(length);
        Message message(BUF_RQ_STRUCT, std::string(length, 'x'), 0, "person");
        int out = 0;
        free(_hton_data_sdl(message, &out));
        Message pair(BUF_RQ_STRUCT, std::string(length, 'x'), 0, "pair");
        char *block = _hton_data_sdl(pair, &out);
        if (block != nullptr)
            memset(block, 1, (size_t)out + HEADER_SIZE);  // what will be sent
        free(block);
    }
}

TEST_F(StructWire, UnknownStructIsSilent)
{
    for (const char *name : {"", "nobody", "perso"}) {
        Message message(BUF_STRUCT, people(1), 0, name);
        int length = 0;
        EXPECT_EQ(_hton_data_sdl(message, &length), nullptr);
        EXPECT_EQ(_ntoh_data_sdl(message, message.data(), message.data(), &length), nullptr);
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(StructWire, WithoutMemoryNothingLeaves)
{
    Message message(BUF_STRUCT, people(2), 0, "person");
    int length = 0;
    faults::fail_allocation(1);
    char *block = _hton_data_sdl(message, &length);
    faults::disarm_allocations();
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(log.has("(E) CLI 0003 memory allocation error : size = " + std::to_string(2 * WIRE + 200) +
                        " [CSC6402]"))
        << log.text();
    EXPECT_EQ(log.lines(), 1);
}

TEST_F(StructWire, LengthThatLiesDoesNoHarm)
{
    for (int32_t datalen : {-1, INT_MIN, INT_MAX, 1 << 20, 1000}) {
        SCOPED_TRACE(datalen);
        Message message(BUF_STRUCT, people(1), 0, "person");
        message->datalen = datalen;
        int length = 0;
        faults::limit_allocation(1 << 28);
        free(_hton_data_sdl(message, &length));
    }
}

TEST_F(StructWire, DoublesFollowTheOrderOfTheHost)
{
    _endian = 1;
    Message message(BUF_STRUCT, people(1), 0, "person");
    std::string wanted = people_wire(1);
    std::swap_ranges(wanted.begin() + 19, wanted.begin() + 23, wanted.begin() + 23);
    EXPECT_EQ(encode(message), wanted);
}

// ---- in

TEST_F(StructWire, RecordsComeInBeside)
{
    for (int count : {1, 2, 50}) {
        SCOPED_TRACE(count);
        std::string wire = people_wire(count), host((size_t)count * HOST, '\0');
        Message message(BUF_STRUCT, wire, 0, "person");
        int length = -1;
        EXPECT_EQ(_ntoh_data_sdl(message, message.data(), &host[0], &length), host.data());
        EXPECT_EQ(length, (int)((size_t)count * HOST));
        for (int i = 0; i < count; i++) {
            person_record person;
            memcpy((void *)&person, &host[(size_t)i * HOST], HOST);
            EXPECT_EQ(person.id, i);
            EXPECT_EQ(person.salary, 0x55667788);
            EXPECT_EQ(person.items[1].price, 0xfffffffeL);
        }
        EXPECT_EQ(message.text(wire.size()), wire);
    }
}

TEST_F(StructWire, RecordsComeInPlaceThoughTheyGrow)
{
    Message message(BUF_STRUCT, people_wire(3), 3 * HOST, "person");
    int length = -1;
    EXPECT_EQ(_ntoh_data_sdl(message, message.data(), message.data(), &length), message.data());
    EXPECT_EQ(length, (int)(3 * HOST));
    std::string host = message.text(3 * HOST);
    message->datalen = length;
    EXPECT_EQ(encode(message), people_wire(3));
    person_record person;
    memcpy((void *)&person, &host[2 * HOST], HOST);
    EXPECT_EQ(person.id, 2);
}

TEST_F(StructWire, PartOfARecordDoesntComeIn)
{
    for (size_t more : {(size_t)1, WIRE - 1}) {
        Message message(BUF_STRUCT, people_wire(2) + std::string(more, 'x'), 3 * HOST, "person");
        std::string host(2 * HOST, '\0');
        int length = -1;
        EXPECT_EQ(_ntoh_data_sdl(message, message.data(), &host[0], &length), host.data());
        EXPECT_EQ(length, (int)(2 * HOST));
    }
    Message less(BUF_STRUCT, std::string(WIRE - 1, 'x'), HOST, "person");
    int length = -1;
    EXPECT_EQ(_ntoh_data_sdl(less, less.data(), less.data(), &length), less.data());
    EXPECT_EQ(length, 0);
}

TEST_F(StructWire, InPlaceNeedsMemoryAndBesideDoesnt)
{
    Message message(BUF_STRUCT, people_wire(2), 2 * HOST, "person");
    int length = -1;
    faults::fail_allocation(1, true);
    EXPECT_EQ(_ntoh_data_sdl(message, message.data(), message.data(), &length), nullptr);
    std::string host(2 * HOST, '\0');
    char *beside = _ntoh_data_sdl(message, message.data(), &host[0], &length);
    faults::disarm_allocations();
    EXPECT_EQ(beside, host.data());
    EXPECT_EQ(length, (int)(2 * HOST));
}

TEST_F(StructWire, NegativeLengthComesInAsNothing)
{
    for (int32_t datalen : {-1, -1000, INT_MIN}) {
        Message message(BUF_STRUCT, people_wire(1), HOST, "person");
        message->datalen = datalen;
        int length = 0;
        std::string host(HOST, '\0');
        _ntoh_data_sdl(message, message.data(), &host[0], &length);
        EXPECT_LE(length, 0);
        EXPECT_EQ(host, std::string(HOST, '\0'));
    }
}

// ---- a number

namespace {

template <typename Turn> std::string turned(Turn turn, uint64_t bits)
{
    char from[8], to[8];
    memcpy(from, &bits, 8);
    EXPECT_EQ(turn(from, to), 1);
    EXPECT_EQ(memcmp(from, &bits, 8), 0);
    return std::string(to, 8);
}

}  // namespace

TEST(Double, LittleEndianHostReversesTheWhole)
{
    _endian = 2;
    const double one = 1.0;
    char wire[8];
    EXPECT_EQ(_double_encode((char *)&one, wire), 1);
    EXPECT_EQ(std::string(wire, 8), std::string("\x3f\xf0\0\0\0\0\0\0", 8));
    double back = 0;
    EXPECT_EQ(_double_decode(wire, (char *)&back), 1);
    EXPECT_EQ(back, 1.0);
    EXPECT_EQ(turned(_double_encode, 0x0102030405060708), "\1\2\3\4\5\6\7\10");
    EXPECT_EQ(turned(_double_decode, 0x0102030405060708), "\1\2\3\4\5\6\7\10");
}

TEST(Double, AnyOtherOrderReversesTheHalves)
{
    for (int order : {0, 1, 3, -1}) {
        SCOPED_TRACE(order);
        _endian = order;
        EXPECT_EQ(turned(_double_encode, 0x0102030405060708), "\5\6\7\10\1\2\3\4");
        EXPECT_EQ(turned(_double_decode, 0x0102030405060708), "\5\6\7\10\1\2\3\4");
    }
}
