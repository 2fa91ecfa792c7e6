// The messages of the process link and the node link.
#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "runtime/errlog.h"
#include "support/fixtures.h"
#include "vorn/errors.h"
#include "wire/tnetwork.h"

namespace {

// A word as it stands in this host's memory.
std::string host_word(uint32_t value)
{
    return std::string((const char *)&value, 4);
}

// The bytes of a message by hand: offset and bytes, all others zero.
struct piece {
    size_t offset;
    std::string bytes;
};
std::string image(const std::vector<piece> &pieces, const std::string &data = "")
{
    std::string bytes(136, '\0');
    for (const piece &one : pieces)
        bytes.replace(one.offset, one.bytes.size(), one.bytes);
    return bytes + data;
}

struct Link : testing::Test {
    LogFile log;
    int ends[2];  // the library's, and ours
    Conn peer;
    msg_header *message = nullptr;

    Link()
    {
        tcp_pair(ends);
        peer.fd = ends[1];
        free(_header_msg_make(1, 0));  // the tables are there from now on
    }
    ~Link() override
    {
        free(message);
        close(ends[0]);
    }

    int fd() const { return ends[0]; }
    wthr_var *block() const { return current_block(); }

    // The library's end is closed; all that it has sent.
    std::string all_sent()
    {
        shutdown(fd(), SHUT_WR);
        return peer.read_bytes(1 << 20);
    }
};

typedef std::string word_form(uint32_t value);

// A message from the other end, in the order of its link.
std::string link_bytes(word_form *word, uint32_t msgtype, int32_t datalen, const std::string &data, uint32_t magic)
{
    return image({{0, word(magic)},
                  {4, word(11)},
                  {16, word(msgtype)},
                  {68, "SVC"},
                  {100, word((uint32_t)datalen)},
                  {104, word(0x01020304)}},
                 data);
}

struct ProcessLink : Link {
    static std::string bytes(int32_t datalen, const std::string &data, uint32_t magic = 0x90352082)
    {
        return link_bytes(host_word, 101, datalen, data, magic);
    }
    void read() { message = _read_procmsg_sync(fd()); }
    int status() const { return block()->proc_read_status; }
    int status_of_the_other() const { return block()->node_read_status; }
};

struct NodeLink : Link {
    static std::string bytes(int32_t datalen, const std::string &data, uint32_t magic = 0x90352082)
    {
        return link_bytes(wire::word, 201, datalen, data, magic);
    }
    void read() { message = _read_nodemsg_sync(fd()); }
    int status() const { return block()->node_read_status; }
    int status_of_the_other() const { return block()->proc_read_status; }
};

template <typename L> void expect_failure(L *link, int awaited)
{
    link->read();
    EXPECT_EQ(link->message, nullptr);
    EXPECT_EQ(link->status(), awaited);
    EXPECT_EQ(link->status_of_the_other(), 0);
}

// ---- Reading.

TEST_F(ProcessLink, ReadsHeaderAndDataAsTheyStand)
{
    std::string sent = bytes(5, std::string("a\0b\0c", 5));
    block()->proc_read_status = -3;
    peer.send_raw(sent);
    read();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(std::string((char *)message, 141), sent);
    EXPECT_EQ(message->flags, 0x01020304u);
    EXPECT_EQ(status(), 0);
}

TEST_F(NodeLink, ReadsTheHeaderIntoHostOrder)
{
    block()->node_read_status = -3;
    peer.send_raw(bytes(3, "\1\2\3"));
    read();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->magic, 0x90352082u);
    EXPECT_EQ(message->seqno, 11);
    EXPECT_EQ(message->msgtype, 201);
    EXPECT_STREQ(message->svcname, "SVC");
    EXPECT_EQ(message->flags, 0x01020304u);
    EXPECT_EQ(data_of(message), "\1\2\3") << "the data isn't turned";
    EXPECT_EQ(status(), 0);
}

template <typename L> void read_one_at_a_time(L *link)
{
    link->peer.send_raw(link->bytes(0, "") + link->bytes(2, "ab") + link->bytes(0, ""));
    for (const char *data : {"", "ab", ""}) {
        link->read();
        ASSERT_NE(link->message, nullptr);
        EXPECT_EQ(data_of(link->message), data);
        free(link->message);
        link->message = nullptr;
    }
    link->peer.hang_up();
    expect_failure(link, -1);
}

TEST_F(ProcessLink, TakesOneMessageACall)
{
    read_one_at_a_time(this);
}

TEST_F(NodeLink, TakesOneMessageACall)
{
    read_one_at_a_time(this);
}

template <typename L> void read_cut(L *link)
{
    link->peer.send_raw(link->bytes(5, "abcd"));
    link->peer.half_close();
    expect_failure(link, -5);
}

TEST_F(ProcessLink, ShortDataIsMinusFive)
{
    read_cut(this);
}

TEST_F(NodeLink, ShortDataIsMinusFive)
{
    read_cut(this);
}

TEST_F(ProcessLink, AShortHeaderIsMinusTwo)
{
    peer.send_raw(bytes(0, "").substr(0, 135));
    peer.half_close();
    expect_failure(this, -2);
}

TEST_F(NodeLink, AShortHeaderIsMinusTwo)
{
    peer.send_raw(bytes(0, "").substr(0, 1));
    peer.half_close();
    expect_failure(this, -2);
}

TEST_F(ProcessLink, AFailedReadIsAShortHeader)
{
    faults::fail(faults::RECV, 1, EBADF);
    expect_failure(this, -2);
    fcntl(fd(), F_SETFL, O_NONBLOCK);
    expect_failure(this, -2);
}

TEST_F(ProcessLink, AWrongMagicIsMinusThree)
{
    peer.send_raw(bytes(0, "", 0x90352083));
    expect_failure(this, -3);
}

TEST_F(ProcessLink, DoesNotTakeANodesMessage)
{
    peer.send_raw(NodeLink::bytes(0, ""));
    expect_failure(this, -3);
}

TEST_F(NodeLink, DoesNotTakeAProcesssMessage)
{
    peer.send_raw(ProcessLink::bytes(0, ""));
    expect_failure(this, -3);
}

TEST_F(ProcessLink, TheFirstBlockHoldsADataLengthOf864)
{
    std::string data(865, 'd');
    peer.send_raw(bytes(864, data.substr(1)) + bytes(865, data));
    for (int32_t length : {864, 865}) {
        faults::reset();
        faults::arm_allocations();
        read();
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->datalen, length);
        EXPECT_EQ(data_of(message), data.substr(0, (size_t)length));
        EXPECT_EQ(faults::count(faults::ALLOCATE), length == 864 ? 1 : 2);
        free(message);
        message = nullptr;
    }
}

TEST_F(NodeLink, ALargeMessageComesWholeHoweverItIsCut)
{
    std::string data(200000, 'd');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (char)(i * 7);
    faults::limit(faults::RECV, 777);
    std::thread sender([&] { peer.send_raw(bytes((int32_t)data.size(), data)); });
    read();
    sender.join();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(data_of(message), data);
}

template <typename L> void read_without_memory(L *link)
{
    link->peer.send_raw(link->bytes(865, std::string(865, 'd')));
    faults::fail_allocation(1);
    expect_failure(link, -4);
    faults::fail_allocation(2);
    link->read();
    faults::disarm_allocations();
    EXPECT_EQ(link->message, nullptr);
    EXPECT_EQ(link->status(), -4);
}

TEST_F(NodeLink, WithoutMemoryIsMinusFour)
{
    read_without_memory(this);
}

TEST_F(ProcessLink, WithoutMemoryIsMinusFour)
{
    read_without_memory(this);
}

template <typename L> void read_impossible_lengths(L *link)
{
    for (int32_t length : {-1, -136, -137, INT32_MIN}) {
        link->peer.send_raw(link->bytes(length, ""));
        expect_failure(link, -5);
    }
}

TEST_F(NodeLink, ALengthThatCanNotBeIsShortData)
{
    read_impossible_lengths(this);
}

TEST_F(ProcessLink, ALengthThatCanNotBeIsShortData)
{
    read_impossible_lengths(this);
}

TEST_F(NodeLink, ALengthBeyondTheMemoryIsMinusFour)
{
    faults::limit_allocation(1 << 20);
    peer.send_raw(bytes(INT32_MAX, ""));
    expect_failure(this, -4);
    peer.send_raw(bytes(INT32_MAX - 135, ""));
    expect_failure(this, -4);
    faults::limit_allocation(0);
}

// ---- Writing.

TEST_F(ProcessLink, WritesAMessageAsItStands)
{
    msg_header *out = new_message(130, "abc");
    errno = EPIPE;
    EXPECT_EQ(_write_procmsg_sync(fd(), out), 1);
    EXPECT_EQ(errno, 0);
    std::string memory((char *)out, 139);
    free(out);
    EXPECT_EQ(all_sent(), memory);
}

TEST_F(NodeLink, WritingLeavesTheHeaderInWireOrder)
{
    msg_header *out = new_message(130, "abc");
    EXPECT_EQ(_write_nodemsg_sync(fd(), out), 1);
    std::string memory((char *)out, 139);
    free(out);
    EXPECT_EQ(memory.substr(0, 4), "\x90\x35\x20\x82");
    EXPECT_EQ(memory.substr(16, 4), wire::word(130));
    EXPECT_EQ(memory.substr(100, 4), wire::word(3));
    EXPECT_EQ(all_sent(), memory);
}

TEST_F(Link, WhatIsNotWrittenWholeIsMinusOne)
{
    for (auto *write : {_write_procmsg_sync, _write_nodemsg_sync}) {
        for (int error : {EPIPE, EAGAIN}) {
            msg_header *out = new_message(130, "abc");
            faults::limit(faults::SEND, 100);
            faults::fail(faults::SEND, 2, error);
            EXPECT_EQ(write(fd(), out), -1);
            free(out);
            faults::reset();
        }
    }
}

TEST_F(Link, AMessageWhoseLengthCanNotBeIsNotWritten)
{
    for (auto *write : {_write_procmsg_sync, _write_nodemsg_sync}) {
        msg_header *out = new_message(130, "abc");
        for (int32_t length : {-1, INT32_MIN, INT32_MAX, INT32_MAX - 135}) {
            out->datalen = length;
            errno = 0;
            EXPECT_EQ(write(fd(), out), -1);
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(out->magic, 0x90352082u) << "and stays in host order";
        }
        free(out);
        EXPECT_EQ(write(fd(), nullptr), -1);
    }
    EXPECT_EQ(all_sent(), "");
}

TEST_F(Link, AClosedPeerIsMinusOne)
{
    signal(SIGPIPE, SIG_IGN);
    peer.reset_connection();
    int results = 0;
    for (int i = 0; i < 100 && results == 0; i++)
        results += _send_procmsg_nodata(fd(), 1, 0, 0, 0) == -1;
    EXPECT_EQ(results, 1);
}

// ---- The forms.

// What all process messages without data have in common.
std::string process_image(std::vector<piece> pieces, const std::string &data = "")
{
    pieces.insert(pieces.begin(), {{0, host_word(0x90352082)},  // magic
                                   {8, host_word(8)},           // buftype: the kind of process
                                   {12, host_word((uint32_t)data.size())},
                                   {100, host_word((uint32_t)data.size())}});
    return image(pieces, data);
}

const piece TYPE = {16, host_word(106)}, RCODE = {20, host_word((uint32_t)-5)}, CD = {108, host_word(77)},
            FLAGS = {104, host_word(0x81000001)}, TARGET = {28, host_word(0x20003)},
            TRAILER_ROOM = {116, host_word(0x02000000)};

TEST_F(Link, ProcessMessageWithoutData)
{
    EXPECT_EQ(_my_tproc, 8);
    EXPECT_EQ(_send_procmsg_nodata(fd(), 106, -5, 77, 0x81000001), 1);
    EXPECT_EQ(all_sent(), process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM}));
}

TEST_F(Link, ProcessMessageWithATarget)
{
    EXPECT_EQ(_send_procmsg_nodata_3(fd(), 106, -5, 77, 0x20003, 0x81000001), 1);
    EXPECT_EQ(all_sent(), process_image({TYPE, RCODE, CD, FLAGS, TARGET, TRAILER_ROOM}));
}

TEST_F(Link, ProcessMessageWithAName)
{
    std::string longest(32, 'n');
    EXPECT_EQ(_send_procmsg_nodata_svcname(fd(), 106, "SVC", -5, 77, 0x81000001), 1);
    EXPECT_EQ(_send_procmsg_nodata_svcname(fd(), 106, (longest + "more").c_str(), -5, 77, 0x81000001), 1);
    EXPECT_EQ(_send_procmsg_nodata_svcname(fd(), 106, nullptr, -5, 77, 0x81000001), 1);
    EXPECT_EQ(all_sent(), process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, "SVC"}}) +
                              process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, longest}}) +
                              process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM}));
}

TEST_F(Link, ProcessMessageWithANameAndAText)
{
    std::string longest(31, 't');
    EXPECT_EQ(_send_procmsg_nodata_svcname2(fd(), 106, "SVC", "some text", -5, 77, 0x81000001), 1);
    EXPECT_EQ(_send_procmsg_nodata_svcname2(fd(), 106, "SVC", longest.c_str(), -5, 77, 0x81000001), 1);
    EXPECT_EQ(_send_procmsg_nodata_svcname2(fd(), 106, "SVC", nullptr, -5, 77, 0x81000001), 1);
    EXPECT_EQ(all_sent(),
              process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, "SVC"}, {36, "some text"}}) +
                  process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, "SVC"}, {36, longest}}) +
                  process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, "SVC"}}));
}

TEST_F(Link, ATextStopsInFrontOfTheName)
{
    EXPECT_EQ(_send_procmsg_nodata_svcname2(fd(), 106, "SVC", std::string(5000, 't').c_str(), -5, 77, 0x81000001), 1);
    EXPECT_EQ(all_sent(),
              process_image({TYPE, RCODE, CD, FLAGS, TRAILER_ROOM, {68, "SVC"}, {36, std::string(31, 't')}}));
}

TEST_F(Link, ProcessMessageWithData)
{
    std::string data(2000, 'd');
    EXPECT_EQ(_send_procmsg_data(fd(), 106, -5, 77, 0x81000001, 2000, data.data()), 1);
    EXPECT_EQ(_send_procmsg_data_3(fd(), 106, -5, 77, 0x20003, 0x81000001, 3, "\1\2\3"), 1);
    EXPECT_EQ(_send_procmsg_data(fd(), 106, -5, 77, 0x81000001, 0, nullptr), 1);
    EXPECT_EQ(all_sent(), process_image({TYPE, RCODE, CD, FLAGS}, data) +
                              process_image({TYPE, RCODE, CD, FLAGS, TARGET}, "\1\2\3") +
                              process_image({TYPE, RCODE, CD, FLAGS}));
}

TEST_F(Link, NodeMessages)
{
    EXPECT_EQ(_my_nodeno, 0);
    for (int32_t node : {0, 0x305}) {
        _my_nodeno = node;
        EXPECT_EQ(_send_nodemsg_nodata(fd(), 201, -5, 77, 0x81000001), 1);
        EXPECT_EQ(_send_nodemsg_data(fd(), 201, -5, 77, 0x81000001, 4, "\1\2\3\4"), 1);
    }
    std::string awaited;
    for (uint32_t node : {0u, 0x305u}) {
        std::vector<piece> pieces = {{0, wire::word(0x90352082)},     {8, wire::word(node)},
                                     {16, wire::word(201)},           {20, wire::word((uint32_t)-5)},
                                     {104, wire::word(0x81000001)},   {108, wire::word(77)},
                                     {116, wire::word(0x02000000)}};
        awaited += image(pieces);
        pieces.pop_back();
        pieces.push_back({12, wire::word(4)});
        pieces.push_back({100, wire::word(4)});
        awaited += image(pieces, "\1\2\3\4");
    }
    EXPECT_EQ(all_sent(), awaited);
}

TEST_F(Link, DataThatCanNotBeIsRefused)
{
    for (int32_t length : {-1, INT32_MIN, INT32_MAX, INT32_MAX - 135}) {
        EXPECT_EQ(_send_procmsg_data(fd(), 106, 0, 0, 0, length, "data"), -1) << length;
        EXPECT_EQ(_send_procmsg_data_3(fd(), 106, 0, 0, 0, 0, length, "data"), -1) << length;
        EXPECT_EQ(_send_nodemsg_data(fd(), 106, 0, 0, 0, length, "data"), -1) << length;
    }
    EXPECT_EQ(_send_procmsg_data(fd(), 106, 0, 0, 0, 1, nullptr), -1);
    EXPECT_EQ(all_sent(), "");
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(Link, EachFormLogsAMissingBlockInItsOwnWay)
{
    const struct {
        std::function<int()> send;
        const char *line;
    } cases[] = {
        {[&] { return _send_procmsg_nodata(fd(), 106, 0, 0, 0); }, "0001 memory allocation error : size = 136 [COM0001]"},
        {[&] { return _send_procmsg_data(fd(), 106, 0, 0, 0, 3, "abc"); },
         "0003 memory allocation error : size = 139 [COM0007]"},
        {[&] { return _send_procmsg_data_3(fd(), 106, 0, 0, 0, 0, 4, "abcd"); },
         "0003 memory allocation error : size = 140 [COM0006]"},
        {[&] { return _send_nodemsg_data(fd(), 106, 0, 0, 0, 5, "abcde"); },
         "0003 memory allocation error : size = 141 [COM0012]"},
    };
    for (const auto &row : cases) {
        faults::fail_allocation(1);
        EXPECT_EQ(row.send(), -1) << row.line;
        faults::disarm_allocations();
        EXPECT_TRUE(log.has("(E) CLI " + std::string(row.line))) << row.line << "\n" << log.text();
    }
    EXPECT_EQ(all_sent(), "");
}

TEST_F(Link, TheTwoEndsOfAProcessLinkUnderstandEachOther)
{
    std::string data(3000, 'd');
    std::thread sender([&] { EXPECT_EQ(_send_procmsg_data(ends[1], 106, 1, 2, 3, 3000, data.data()), 1); });
    message = _read_procmsg_sync(fd());
    sender.join();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->buftype, 8);
    EXPECT_EQ(data_of(message), data);
}

// ---- Recovery lists.

struct RecoveryList : testing::Test {
    msg_header *list = nullptr;
    ~RecoveryList() override
    {
        free(list);
        _endian = 0;
    }

    std::string row(int n, bool turned)
    {
        std::string bytes;
        for (int i = 0; i < 20; i++)
            bytes += (char)(n * 20 + (turned && i < 16 ? i / 4 * 4 + 3 - i % 4 : i));
        return bytes;
    }
    // `rows` rows in the data, of which the header tells `told`.
    void make(int32_t msgtype, int rows, int32_t told)
    {
        std::string data;
        for (int n = 0; n < rows; n++)
            data += row(n, false);
        free(list);
        list = new_message(msgtype, data + "rest");
        list->rcode = told;
    }
    std::string rows(int turned, int plain)
    {
        std::string bytes;
        for (int n = 0; n < turned + plain; n++)
            bytes += row(n, n < turned);
        return bytes + "rest";
    }
};

TEST_F(RecoveryList, ThatFillsItsDataIsTurnedToo)
{
    free(list);
    list = new_message(173, row(0, false));
    list->rcode = 1;
    EXPECT_EQ(_hton_recover_data(list), 1);
    EXPECT_EQ(data_of(list), row(0, true));
}

TEST_F(RecoveryList, FourOfTheFiveWordsOfEachRowAreTurned)
{
    for (auto *turn : {_hton_recover_data, _ntoh_recover_data}) {
        for (int32_t type : {173, 1173}) {
            for (int32_t endian : {0, 2}) {
                _endian = endian;
                make(type, 3, 2);
                EXPECT_EQ(turn(list), 1);
                EXPECT_EQ(data_of(list), rows(2, 1));
                EXPECT_EQ(turn(list), 1);
                EXPECT_EQ(data_of(list), rows(0, 3)) << "and back";
            }
        }
    }
}

TEST_F(RecoveryList, OtherMessagesAreLeftAlone)
{
    for (auto *turn : {_hton_recover_data, _ntoh_recover_data})
        for (int32_t type : {3, 172, 174, 2173, 3173, -173, 0}) {
            make(type, 2, 2);
            EXPECT_EQ(turn(list), -1) << type;
            EXPECT_EQ(data_of(list), rows(0, 2));
        }
}

TEST_F(RecoveryList, ABigEndianHostHasNothingToTurn)
{
    _endian = 1;
    for (auto *turn : {_hton_recover_data, _ntoh_recover_data}) {
        make(173, 2, 2);
        EXPECT_EQ(turn(list), 1);
        EXPECT_EQ(data_of(list), rows(0, 2));
        list->msgtype = 3;
        EXPECT_EQ(turn(list), -1);
    }
}

TEST_F(RecoveryList, NoRowsAreNone)
{
    for (int32_t told : {0, -1, INT32_MIN}) {
        make(173, 1, told);
        EXPECT_EQ(_ntoh_recover_data(list), 1);
        EXPECT_EQ(data_of(list), rows(0, 1));
    }
}

TEST_F(RecoveryList, MoreRowsThanThereAreIsRefused)
{
    for (int32_t told : {3, 214748365, INT32_MAX}) {
        make(173, 2, told);
        EXPECT_EQ(_ntoh_recover_data(list), -1) << told;
        EXPECT_EQ(data_of(list), rows(0, 2));
    }
    list->rcode = 0;
    list->datalen = -1;
    EXPECT_EQ(_ntoh_recover_data(list), -1);
}

}
