// The send path: what it stamps, what leaves, and the state afterwards.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "calls/cscommon.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"

namespace {

uint32_t callid_word(uint32_t client, uint32_t count)
{
    return client << 19 | count << 8 | 1;
}

struct Send : WireTest {
    msg_header *message = nullptr;

    Send()
    {
        block->callid_next[0] = 0x00000302;
        block->callid_next[1] = callid_word(9, 5);
        block->callid_next[2] = 0;
        block->sessionid = 77;
        block->session_token = 78;
    }
    ~Send() override { free(message); }

    msg_header *make(int32_t type, const std::string &data = "abcd", int32_t room = 1024)
    {
        free(message);
        message = new_message(type, data, room);
        message->seqno = 1000;
        return message;
    }

    bool lock_is_free()
    {
        if (pthread_mutex_trylock(&block->msg_mutex) != 0)
            return false;
        pthread_mutex_unlock(&block->msg_mutex);
        return true;
    }
};

}

TEST_F(Send, TpcallLeavesWithHeaderAndDataAndComesBackInHostOrder)
{
    make(MSG_TPCALL);
    put_name(message->svcname, sizeof message->svcname, "TOUPPER");
    message->prio = 50;
    message->flags = TPNOTIME;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);

    Expected got = peer.expect(wire::TPCALL);
    got.svcname("TOUPPER").data("abcd").flags(TPNOTIME).prio(50).seqno(1000).buftype(wire::STRING).cd(0);
    EXPECT_EQ(got.frame.magic, 0x90352082u);
    EXPECT_EQ(got.frame.bufsize, 1024);
    EXPECT_EQ(got.frame.xflags, 0x02000000u);
    EXPECT_EQ(got.frame.reserved, 0u);

    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message->msgtype, MSG_TPCALL);
    EXPECT_EQ(message->datalen, 4);
    EXPECT_EQ(message->seqno, 1000);
    EXPECT_STREQ(message->svcname, "TOUPPER");
    EXPECT_EQ(data_of(message), "abcd");
}

TEST_F(Send, OneSendTakesHeaderAndData)
{
    int before = faults::count(faults::SEND);
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL, std::string(3000, 'x')), block), 1);
    EXPECT_EQ(faults::count(faults::SEND) - before, 1);
}

TEST_F(Send, SocketOfARollingStartTakesTheMessageWhereItIsNamed)
{
    int ends[2];
    tcp_pair(ends);
    Conn other(ends[1]);
    block->new_clhfd = ends[0];
    EXPECT_EQ(_internal_send_csmsg_to_clh(make(MSG_TPACALL), block, ends[0]), 1);
    other.expect(wire::TPACALL).data("abcd");
    peer.expect_nothing();
    block->new_clhfd = -1;
    close(ends[0]);
}

TEST_F(Send, SocketThatIsNoLongerTheSessionsTakesNothing)
{
    int ends[2];
    tcp_pair(ends);
    Conn other(ends[1]);
    EXPECT_EQ(_internal_send_csmsg_to_clh(make(MSG_TPACALL), block, ends[0]), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    other.expect_nothing();
    EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
    pthread_mutex_unlock(&block->msg_mutex);
    close(ends[0]);
}

// Which messages take a call identity, and what becomes of the count.

struct stamp_case {
    int32_t type;
    uint32_t flags;
    bool stamped;
};

TEST_F(Send, CallIdentityGoesToCallsThatWaitForAReply)
{
    const stamp_case cases[] = {
        {MSG_TPCALL, 0, true},           {MSG_TPACALL, 0, true},
        {MSG_TPACALL, TPNOREPLY, false}, {MSG_TPACALL, TPBLOCK, true},
        {MSG_TPSTART, 0, false},         {MSG_TPEND, 0, false},
        {MSG_TPCONNECT, 0, false},       {MSG_TPPOST, 0, false},
        {MSG_TX_COMMIT, 0, false},       {MSG_TPACALL, TPNOREPLY | TPBLOCK, false},
    };
    uint32_t count = 5;
    for (const stamp_case &one : cases) {
        SCOPED_TRACE("type " + std::to_string(one.type) + " flags " + std::to_string(one.flags));
        make(one.type);
        message->flags = one.flags;
        message->callid[0] = 0x11;
        message->callid[1] = 0x22;
        message->callid[2] = 0x33;
        EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
        wire::frame got;
        ASSERT_TRUE(peer.receive(&got));
        if (!one.stamped) {
            EXPECT_EQ(got.callid[0], 0x11u);
            EXPECT_EQ(got.callid[1], 0x22u);
            EXPECT_EQ(got.callid[2], 0x33u);
        } else {
            EXPECT_EQ(got.callid[0], 0x302u);
            EXPECT_EQ(got.callid[1], callid_word(9, count));
            EXPECT_EQ(got.callid[2], 0u);
            count++;
        }
        EXPECT_EQ(block->callid_next[1], callid_word(9, count));
    }
}

TEST_F(Send, CountGoesFromItsHighestToOne)
{
    block->callid_next[1] = callid_word(0x1fff, 0x7fe);
    for (uint32_t count : {0x7feu, 0x7ffu, 1u, 2u}) {
        EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL), block), 1);
        EXPECT_EQ(peer.expect(wire::TPCALL).frame.callid[1], callid_word(0x1fff, count));
    }
}

TEST_F(Send, AdvancingKeepsAllOtherBitsOfTheIdentity)
{
    uint32_t id[3] = {0xa5a5a5a5, 0xfff80001 | 0xfe, 0x5a5a5a5a};  // count 0
    advance_callid(id);
    EXPECT_EQ(id[1], 0xfff80001u | 0xfe | 1u << 8);
    id[1] = 0xfff800ff | 0x7ffu << 8;
    advance_callid(id);
    EXPECT_EQ(id[1], 0xfff800ffu | 1u << 8);
    EXPECT_EQ(id[0], 0xa5a5a5a5u);
    EXPECT_EQ(id[2], 0x5a5a5a5au);
}

// The shared form of TPCALL.

TEST_F(Send, WithThreadsAttachedTpcallTravelsAsMarkedTpacall)
{
    block->thread_refs = 1;
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL), block), 1);
    Expected got = peer.expect(wire::TPACALL);
    got.seqno(1000 | 0x40000000).data("abcd");
    EXPECT_EQ(got.frame.callid[1], callid_word(9, 5));
    EXPECT_EQ(message->msgtype, MSG_TPACALL);
    EXPECT_EQ(message->seqno, 1000 | 0x40000000);
}

TEST_F(Send, OtherTypesAreNotMarked)
{
    block->thread_refs = 3;
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPACALL), block), 1);
    peer.expect(wire::TPACALL).seqno(1000);
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TX_COMMIT, "", -1), block), 1);
    peer.expect(wire::TX_COMMIT).seqno(1000);
}

// Who is counted as a waiter from the send on.

TEST_F(Send, WaitersAreCountedFromTheSendOn)
{
    struct {
        int32_t type;
        uint32_t flags;
        int32_t seqno;
        bool counted;
    } const cases[] = {
        {MSG_TPCALL, 0, 5, true},
        {MSG_TPACALL, 0, 5, false},
        {MSG_TPACALL, TPNOREPLY, 5, false},
        {MSG_TPACALL, TPBLOCK, 5, true},
        {MSG_TPACALL, 0, 5 | 0x40000000, true},
        {MSG_TX_COMMIT, 0, 5, true},
        {MSG_TX_ROLLBACK, 0, 5, true},
        {MSG_TPCONNECT, 0, 5, true},
        {MSG_TPPOST, 0, 5, true},
        {MSG_TPNOTIFY, 0, 5, false},
        {MSG_TPNOTIFY, TPNOTIFYACK, 5, true},
        {MSG_TPEND, 0, 0, false},
    };
    int32_t waiters = 0;
    for (const auto &one : cases) {
        SCOPED_TRACE("type " + std::to_string(one.type) + " flags " + std::to_string(one.flags));
        make(one.type);
        message->flags = one.flags;
        message->seqno = one.seqno;
        EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
        waiters += one.counted;
        EXPECT_EQ(block->waiter_count, waiters);
    }
}

// Data that must be converted, and cannot be.

TEST_F(Send, StructDataOfAnUnknownTypeIsRefusedAndNothingLeaves)
{
    for (int32_t kind : {BUF_STRUCT, BUF_RQ_STRUCT}) {
        make(MSG_TPCALL, std::string(200, 's'));
        message->buftype = kind;
        memcpy(message->subtype, "nosuchstruct", 12);
        uint32_t before = block->callid_next[1];
        set_tperrno(0);
        EXPECT_EQ(_send_csmsg_to_clh(message, block), -1);
        EXPECT_EQ(error(), TPEITYPE);
        EXPECT_EQ(message->datalen, 200);
        EXPECT_EQ(message->msgtype, MSG_TPCALL);
        EXPECT_EQ(message->callid[1], before);  // stamped all the same
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_TRUE(lock_is_free());
    }
    peer.expect_nothing();
}

TEST_F(Send, FieldAndStructBuffersWithoutDataNeedNoConversion)
{
    for (int32_t kind : {BUF_STRUCT, BUF_FIELD, BUF_RQ_STRUCT, BUF_RQ_FIELD}) {
        make(MSG_TPACALL, "", 1024);
        message->buftype = kind;
        EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
        peer.expect(wire::TPACALL).data("").buftype(kind);
    }
}

// Write errors.

struct write_case {
    int error;
    int32_t type;
    int32_t rolling_failed;
    int awaited;
};

TEST_F(Send, WriteErrorsAndTheStateAfterThem)
{
    const write_case cases[] = {
        {EPIPE, MSG_TPCALL, 0, TPECLOSE},  {EPIPE, MSG_TPEND, 1, TPERDCLOSE},
        {EAGAIN, MSG_TPCALL, 0, TPEBLOCK}, {ECONNRESET, MSG_TPCALL, 0, TPEOS},
        {ENOBUFS, MSG_TPACALL, 0, TPEOS},  {EINTR, MSG_TPCALL, 0, TPEOS},
    };
    for (const write_case &one : cases) {
        SCOPED_TRACE(std::string(strerror(one.error)) + " on type " + std::to_string(one.type));
        int32_t fd = block->clhfd;
        block->sessionid = 77;
        block->session_token = 78;
        block->rolling_failed = one.rolling_failed;
        make(one.type);
        set_tperrno(0);
        faults::fail(faults::SEND, 1, one.error);
        EXPECT_EQ(_send_csmsg_to_clh(message, block), -1);
        EXPECT_EQ(error(), one.awaited);
        EXPECT_EQ(message->magic, MESSAGE_MAGIC);
        EXPECT_EQ(message->msgtype, one.type);
        EXPECT_EQ(message->datalen, 4);
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_TRUE(lock_is_free());
        // The socket is the reader's to close; a broken pipe only takes the session's identity.
        EXPECT_EQ(block->clhfd, fd);
        EXPECT_EQ(block->started, 1);
        EXPECT_EQ(block->sessionid, one.error == EPIPE ? -1 : 77);
        EXPECT_EQ(block->session_token, one.error == EPIPE ? -1 : 78);
    }
    peer.expect_nothing();
}

TEST_F(Send, PeerThatIsGoneGivesTpeclose)
{
    peer.reset_connection();
    int result = 1;
    for (int i = 0; i < 100 && result == 1;
         i++)  // the first write may still succeed, and the reset be told by it
        result = _send_csmsg_to_clh(make(MSG_TPACALL), block);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(error() == TPECLOSE || error() == TPEOS) << error();
    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
}

TEST_F(Send, ShortWritesAreContinued)
{
    for (int most : {1, 7, 135, 136, 137}) {
        faults::limit(faults::SEND, most);
        EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL, "some data of no special length"), block), 1);
        peer.expect(wire::TPCALL).data("some data of no special length");
    }
}

TEST_F(Send, ErrorInTheMiddleOfAMessageFailsIt)
{
    faults::limit(faults::SEND, 100);
    faults::fail(faults::SEND, 2, ECONNRESET);
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL), block), -1);
    EXPECT_EQ(error(), TPEOS);
    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(Send, WriteErrorByItself)
{
    struct {
        int error, rolling_failed, awaited;
    } const cases[] = {
        {EPIPE, 0, TPECLOSE},  {EPIPE, 1, TPERDCLOSE}, {EAGAIN, 0, TPEBLOCK},
        {EAGAIN, 1, TPEBLOCK}, {EIO, 0, TPEOS},        {0, 0, TPEOS},
    };
    for (const auto &one : cases) {
        block->rolling_failed = one.rolling_failed;
        errno = one.error;
        EXPECT_EQ(_clh_write_error(-1, 140, block), 1);
        EXPECT_EQ(error(), one.awaited) << strerror(one.error);
        EXPECT_GE(block->clhfd, 0);
    }
}

// Rolling down.

TEST_F(Send, AfterAFailedRollingStartNothingLeavesButStartAndEnd)
{
    block->rolling_failed = 1;
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL), block), -1);
    EXPECT_EQ(error(), TPERDOWN);
    EXPECT_TRUE(lock_is_free());
    peer.expect_nothing();
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPEND, "", -1), block), 1);
    peer.expect(wire::TPEND).header_only();
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPSTART, "", -1), block), 1);
    peer.expect(wire::TPSTART).header_only();
}

TEST_F(Send, WaitsUntilARollingStartHasEnded)
{
    block->rolling = 1;
    int selects = faults::count(faults::SELECT);
    make(MSG_TPACALL);
    Task sender(peer, [&] { return (long)_send_csmsg_to_clh(message, block); });
    EXPECT_TRUE(faults::wait_for_calls(faults::SELECT, selects + 1));  // it has looked for a warning
    EXPECT_FALSE(sender.finished());
    peer.expect_nothing();
    pthread_mutex_lock(&block->roll_mutex);
    EXPECT_FALSE(sender.finished());
    block->rolling = 0;
    pthread_cond_broadcast(&block->roll_cond);
    pthread_mutex_unlock(&block->roll_mutex);
    EXPECT_EQ(sender.get(), 1);
    peer.expect(wire::TPACALL);
}

TEST_F(Send, SocketOfTheRollingStartDoesNotWaitForItself)
{
    block->rolling = 1;
    block->new_clhfd = (int)block->clhfd;
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPACALL), block), 1);
    peer.expect(wire::TPACALL);
    block->new_clhfd = -1;
    block->rolling = 0;
}

TEST_F(Send, WarningThatIsReadBeforeTheMessageStartsTheRollingStart)
{
    // There is no other server, so the rolling start fails, and with it the message.
    peer.send_urgent(217);
    ASSERT_TRUE(wait_for_urgent(block->clhfd));
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPCALL), block), -1);
    EXPECT_EQ(error(), TPERDOWN);
    EXPECT_EQ(block->rolling_failed, 1);
    EXPECT_EQ(block->rolling, 0);
    peer.expect_nothing();
}

// The acall table learns on which socket a request went.

TEST_F(Send, AcallRowTakesTheSocket)
{
    int cd = _create_acall_cd(0, block);
    make(MSG_TPACALL)->cd = cd;
    EXPECT_EQ(block->acall[_get_acall_cd_ind(cd, block)].fd, -1);
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    EXPECT_EQ(block->acall[_get_acall_cd_ind(cd, block)].fd, block->clhfd);
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPACALL), block), 1);  // a descriptor that isn't there is no error
}

// The trailer's bits are taken back after an in-place send.

TEST_F(Send, TrailerIsSentAndTakenBack)
{
    make(MSG_TPACALL, "abcd" + std::string("\x01\x0aTRAILERBYT", 12), 1024 + 64);
    message->xflags = XFLAG_TRAILER | 12;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    Expected got = peer.expect(wire::TPACALL);
    EXPECT_EQ(got.frame.datalen, 16);
    EXPECT_EQ(got.frame.bufsize, 1024 + 64);
    EXPECT_EQ(got.frame.xflags, 0x0400000cu);
    EXPECT_EQ(message->xflags, (uint32_t)XFLAG_TRAILER_ROOM | 12);  // the length itself stays
    EXPECT_EQ(message->bufsize, 1024);
    EXPECT_EQ(message->datalen, 4);
}

TEST_F(Send, BroadcastsDestinationIsReadableOnTheWire)
{
    make(MSG_TPBROADCAST);
    memcpy(&message->value, "destination-name", 17);
    peer.recording = true;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    peer.expect(wire::TPBROADCAST);
    EXPECT_EQ(peer.received.substr(36, 17), std::string("destination-name", 17));
}

// Compression.

TEST_F(Send, ThresholdDecidesAboutTheDataLength)
{
    struct {
        int32_t threshold;
        size_t length;
        bool compressed;
    } const cases[] = {
        {10, 9, false}, {10, 10, true}, {10, 11, true},         {-1, 100000, false},
        {0, 0, true},   {1, 0, false},  {100000, 99999, false}, {100000, 100000, true},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(std::to_string(one.threshold) + " and " + std::to_string(one.length) + " bytes");
        block->compress_threshold = one.threshold;
        std::string data(one.length, 'x');
        Task sender(peer, [&] {  // large messages need somebody who reads
            return (long)_send_csmsg_to_clh(make(MSG_TPACALL, data, one.length == 0 ? -1 : 0), block);
        });
        peer.expect(wire::TPACALL).data(data).compressed(one.compressed);
        EXPECT_EQ(sender.get(), 1);
        EXPECT_EQ(message->magic, MESSAGE_MAGIC);
        EXPECT_EQ(message->datalen, (int32_t)one.length);
    }
}

TEST_F(Send, HeadOfACompressedFrame)
{
    block->compress_threshold = 0;
    peer.recording = true;
    EXPECT_EQ(_send_csmsg_to_clh(make(MSG_TPACALL, std::string(500, 'y')), block), 1);
    peer.expect(wire::TPACALL).compressed(true);
    EXPECT_EQ(peer.received.substr(0, 4), "\x05\xf5\xe0\xff");
    EXPECT_EQ(wire::word_at(peer.received, 4), peer.received.size() - 16);
    EXPECT_EQ(wire::word_at(peer.received, 8), 636u);  // the message with its header
    EXPECT_EQ(wire::word_at(peer.received, 12), 0u);
    EXPECT_LT(peer.received.size(), 400u);
}

TEST_F(Send, DataThatDoesNotShrinkGoesThroughCompression)
{
    block->compress_threshold = 0;
    unsigned seed = 12345;
    for (size_t length : {0u, 1u, 2u, 363u, 364u, 365u, 511u, 512u, 513u, 4000u, 65536u, 300000u}) {
        std::string noise;
        for (size_t i = 0; i < length; i++)
            noise += (char)((seed = seed * 1103515245 + 12345) >> 16);
        Task sender(peer, [&] { return (long)_send_csmsg_to_clh(make(MSG_TPACALL, noise, 0), block); });
        peer.expect(wire::TPACALL).data(noise).compressed(true);
        EXPECT_EQ(sender.get(), 1);
    }
}

TEST_F(Send, WithoutMemoryForTheFrameItFailsCleanlyAndTheNextOneWorks)
{
    block->compress_threshold = 0;
    make(MSG_TPCALL, std::string(500, 'z'));
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 20);
        set_tperrno(0);
        faults::fail_allocation(nth);
        int result = _send_csmsg_to_clh(message, block);
        faults::disarm_allocations();
        EXPECT_EQ(message->magic, MESSAGE_MAGIC);
        EXPECT_EQ(message->datalen, 500);
        EXPECT_TRUE(lock_is_free());
        if (!faults::allocation_failed()) {
            EXPECT_EQ(result, 1);
            EXPECT_GT(nth, 1);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(error(), TPEOS);
        EXPECT_EQ(block->waiter_count, 0);
    }
    peer.expect(wire::TPCALL).data(std::string(500, 'z'));
}

// The lock keeps messages whole.

TEST_F(Send, ManyThreadsMessagesStayWhole)
{
    constexpr int THREADS = 16, EACH = 40;
    faults::limit(faults::SEND, 61);
    std::vector<std::thread> senders;
    std::atomic<int> sent{0};
    for (int t = 0; t < THREADS; t++)
        senders.emplace_back([&, t] {
            for (int i = 0; i < EACH; i++) {
                msg_header *mine = new_message(
                    MSG_TPPOST, std::string((size_t)(1 + (t * 37 + i * 11) % 400), (char)('a' + t)));
                sent += _send_csmsg_to_clh(mine, block) == 1;
                free(mine);
            }
        });
    int from[THREADS] = {};
    for (int i = 0; i < THREADS * EACH; i++) {
        Expected got = peer.expect(wire::TPPOST);
        if (peer.fd < 0)
            break;
        ASSERT_FALSE(got.frame.data.empty());
        int t = got.frame.data[0] - 'a';
        ASSERT_TRUE(t >= 0 && t < THREADS);
        got.data(std::string((size_t)(1 + (t * 37 + from[t] * 11) % 400), (char)('a' + t)));
        from[t]++;
    }
    for (std::thread &one : senders)
        one.join();
    EXPECT_EQ(sent, THREADS * EACH);
}
