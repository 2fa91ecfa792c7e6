// The trailer: what an entry does to the numbers of its message, and what a hostile one can't do.
#include <stdlib.h>
#include <string.h>

#include "support/fixtures.h"
#include "wire/trailer.h"

namespace {

struct Trailer : testing::Test {
    LogFile log;
    msg_header *message = new_message(MSG_TPCALL, "DATA", 16);

    ~Trailer() override { free(message); }
    unsigned total() const { return message->xflags & XFLAG_TRAILER_LENGTH; }
    bool has_room() const { return (message->xflags & XFLAG_TRAILER_ROOM) != 0; }
    bool has_trailer() const { return (message->xflags & XFLAG_TRAILER) != 0; }
    std::string bytes() { return data_of(message); }
    // A trailer as it came off the wire, entries as they stand.
    void receive(const std::string &entries, unsigned told)
    {
        free(message);
        message = new_message(MSG_TPCALL, "DATA" + entries, 128);
        message->xflags = XFLAG_TRAILER | told;
    }
    std::string find(int type, int room = 64)
    {
        char content[64];
        int found = _vorn_find_trailer(message, content, type, &room);
        return found == 1 ? std::string(content, (size_t)room) : "none";
    }
    std::string take(int type, int room = 64)
    {
        char content[64];
        int found = _vorn_del_trailer(message, content, type, &room);
        return found == 1 ? std::string(content, (size_t)room) : "none";
    }
};

TEST_F(Trailer, FirstEntryOpensTheRoom)
{
    message->xflags |= 0x00100000;
    EXPECT_EQ(_vorn_add_trailer(message, "xyz", 7, 3), 1);
    EXPECT_EQ(bytes(), std::string("DATA\x07\x03xyz", 9));
    EXPECT_EQ(message->xflags, 0x04100000u | 5);
    EXPECT_EQ(message->bufsize, 16 + 64);
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Trailer, LaterEntriesAreAppended)
{
    EXPECT_EQ(_vorn_add_trailer(message, "xyz", 7, 3), 1);
    EXPECT_EQ(_vorn_add_trailer(message, "pq", 8, 2), 1);
    EXPECT_EQ(bytes(), std::string("DATA\x07\x03xyz\x08\x02pq", 13));
    EXPECT_EQ(total(), 9u);
    EXPECT_EQ(message->bufsize, 16 + 64);
    EXPECT_TRUE(has_trailer());
    EXPECT_FALSE(has_room());
}

TEST_F(Trailer, SixtyTwoBytesFillIt)
{
    std::string most(62, 'm');
    EXPECT_EQ(_vorn_add_trailer(message, most.data(), 1, 62), 1);
    EXPECT_EQ(total(), 64u);
    EXPECT_EQ(message->datalen, 4 + 64);
    EXPECT_EQ(_vorn_add_trailer(message, "a", 1, 1), -1);
    EXPECT_EQ(find(1), most);
    EXPECT_EQ(log.lines(), 1);
    EXPECT_TRUE(log.has("0209 internal error : trailer error [COM0050]")) << log.text();
}

TEST_F(Trailer, SixtyThreeBytesDontFit)
{
    std::string more(63, 'm');
    EXPECT_EQ(_vorn_add_trailer(message, more.data(), 1, 63), -1);
    EXPECT_EQ(_vorn_add_trailer(message, more.data(), 1, INT32_MAX), -1);
    EXPECT_TRUE(has_room());
    EXPECT_EQ(bytes(), "DATA");
    EXPECT_EQ(message->bufsize, 16);
}

TEST_F(Trailer, TwoEntriesFillItExactly)
{
    std::string half(30, 'h');
    EXPECT_EQ(_vorn_add_trailer(message, half.data(), 1, 30), 1);
    EXPECT_EQ(_vorn_add_trailer(message, std::string(31, 'x').data(), 2, 31), -1);
    EXPECT_EQ(_vorn_add_trailer(message, half.data(), 2, 30), 1);
    EXPECT_EQ(total(), 64u);
    EXPECT_EQ(find(2), half);
}

TEST_F(Trailer, NothingToAddIsAnError)
{
    EXPECT_EQ(_vorn_add_trailer(nullptr, "a", 1, 1), -1);
    EXPECT_EQ(_vorn_add_trailer(message, nullptr, 1, 1), -1);
    EXPECT_EQ(_vorn_add_trailer(message, "a", 1, 0), -1);
    EXPECT_EQ(_vorn_add_trailer(message, "a", 1, -1), -1);
    message->xflags = 0;
    EXPECT_EQ(_vorn_add_trailer(message, "a", 1, 1), -1);
    EXPECT_EQ(log.lines(), 5);
    EXPECT_EQ(bytes(), "DATA");
}

TEST_F(Trailer, DataThatClaimsMoreThanItsBufferTakesNoEntry)
{
    message->bufsize = 2;
    message->datalen = 65;
    EXPECT_EQ(_vorn_add_trailer(message, "abc", 1, 3), -1);
    message->datalen = -4;
    EXPECT_EQ(_vorn_add_trailer(message, "abc", 1, 3), -1);
    EXPECT_EQ(message->bufsize, 2);
    EXPECT_TRUE(has_room());
}

TEST_F(Trailer, FindGivesTheFirstOfItsType)
{
    _vorn_add_trailer(message, "one", 5, 3);
    _vorn_add_trailer(message, "two", 6, 3);
    _vorn_add_trailer(message, "three", 5, 5);
    EXPECT_EQ(find(5), "one");
    EXPECT_EQ(find(6), "two");
    EXPECT_EQ(find(9), "none");
    EXPECT_EQ(total(), 17u) << "finding changes nothing";
}

TEST_F(Trailer, FindReportsContentThatDoesntFitAsZero)
{
    _vorn_add_trailer(message, "four", 5, 4);
    EXPECT_EQ(find(5, 4), "four");
    EXPECT_EQ(find(5, 3), "");
    int room = 0;
    char content[8];
    EXPECT_EQ(_vorn_find_trailer(message, content, 5, &room), 1);
    EXPECT_EQ(room, 0);
    room = -1;
    EXPECT_EQ(_vorn_find_trailer(message, content, 5, &room), 1);
    EXPECT_EQ(room, -1) << "without room nothing is stored";
    room = 8;
    EXPECT_EQ(_vorn_find_trailer(message, nullptr, 5, &room), 1);
    EXPECT_EQ(room, 8);
    EXPECT_EQ(_vorn_find_trailer(message, content, 5, nullptr), 1);
}

TEST_F(Trailer, TypeIsReadAsSigned)
{
    _vorn_add_trailer(message, "hi", 200, 2);
    EXPECT_EQ(find(200), "none");
    EXPECT_EQ(find(200 - 256), "hi");
}

TEST_F(Trailer, NoMessageAndNoTrailerFindNothing)
{
    int room = 8;
    char content[8];
    EXPECT_EQ(_vorn_find_trailer(nullptr, content, 5, &room), 0);
    EXPECT_EQ(_vorn_del_trailer(nullptr, content, 5, &room), 0);
    EXPECT_EQ(_vorn_find_trailer(message, content, 5, &room), 0);
    EXPECT_EQ(_vorn_del_trailer(message, content, 5, &room), 0);
    EXPECT_EQ(room, 8);
}

TEST_F(Trailer, TakingAnEntryClosesTheGap)
{
    _vorn_add_trailer(message, "one", 1, 3);
    _vorn_add_trailer(message, "two", 2, 3);
    _vorn_add_trailer(message, "six", 3, 3);
    EXPECT_EQ(take(2), "two");
    EXPECT_EQ(bytes(), std::string("DATA\x01\x03one\x03\x03six", 14));
    EXPECT_EQ(total(), 10u);
    EXPECT_EQ(take(3), "six");
    EXPECT_EQ(bytes(), std::string("DATA\x01\x03one", 9));
    EXPECT_TRUE(has_trailer());
    EXPECT_EQ(message->bufsize, 16 + 64);
}

TEST_F(Trailer, TakingTheLastEntryGivesTheRoomBack)
{
    _vorn_add_trailer(message, "one", 1, 3);
    EXPECT_EQ(take(1), "one");
    EXPECT_EQ(bytes(), "DATA");
    EXPECT_EQ(message->xflags, (uint32_t)XFLAG_TRAILER_ROOM);
    EXPECT_EQ(message->bufsize, 16);
    EXPECT_EQ(_vorn_add_trailer(message, "again", 2, 5), 1);
    EXPECT_EQ(find(2), "again");
}

TEST_F(Trailer, AnEntryIsTakenOutEvenIfItsContentDoesntFit)
{
    _vorn_add_trailer(message, "one", 1, 3);
    _vorn_add_trailer(message, "two", 2, 3);
    _vorn_add_trailer(message, "six", 3, 3);
    int room = 2;
    char content[8];
    EXPECT_EQ(_vorn_del_trailer(message, content, 1, &room), 1);
    EXPECT_EQ(room, 0);
    room = 8;
    EXPECT_EQ(_vorn_del_trailer(message, nullptr, 2, &room), 1);
    EXPECT_EQ(room, 0);
    EXPECT_EQ(_vorn_del_trailer(message, content, 3, nullptr), 1);
    EXPECT_EQ(bytes(), "DATA");
}

TEST_F(Trailer, EntriesFromTheWireEndWhereTheyLie)
{
    struct {
        const char *what;
        std::string entries;
        unsigned told;
    } const rows[] = {
        {"length beyond the end", std::string("\x05\x09xy", 4), 4},
        {"negative length", std::string("\x01\xfe\x05\x01x", 5), 5},
        {"most negative length", std::string("\x05\x80", 2), 2},
        {"a lone type byte", std::string("\x05", 1), 1},
        {"total beyond the data", std::string("\x05\x01x", 3), 200},
        {"total of nothing", std::string("\x05\x01x", 3), 0},
    };
    for (auto &row : rows) {
        receive(row.entries, row.told);
        std::string before = bytes();
        EXPECT_EQ(find(5), "none") << row.what;
        EXPECT_EQ(take(5), "none") << row.what;
        EXPECT_EQ(bytes(), before) << row.what;
    }
    receive(std::string("\x05\x01x", 3), 3);
    message->datalen = -1;
    EXPECT_EQ(find(5), "none");
}

TEST_F(Trailer, AnEmptyEntryFromTheWireIsFound)
{
    receive(std::string("\x05\x00\x06\x01x", 5), 5);
    EXPECT_EQ(find(5), "");
    EXPECT_EQ(find(6), "x");
    EXPECT_EQ(take(5), "");
    EXPECT_EQ(bytes(), std::string("DATA\x06\x01x", 7));
}

TEST_F(Trailer, HooksGiveTheirArgumentBack)
{
    std::string before((const char *)message, HEADER_SIZE + 16);
    EXPECT_EQ(_cs_add_trailer(message), message);
    EXPECT_EQ(_cs_del_trailer(message), message);
    EXPECT_EQ(_cs_add_trailer(nullptr), nullptr);
    EXPECT_EQ(before, std::string((const char *)message, HEADER_SIZE + 16));
}

}
