// Unsolicited messages against the scripted peer.
#include "calls/fixture.h"
#include "calls/unsolapi.h"
#include "vorn/unsol.h"
#include "wire/clhmatch.h"

#include <vector>

static std::vector<std::string> handled;
static std::vector<long> handled_flags;
static void note_message(char *data, long length, long flags)
{
    handled.push_back(std::string(data, (size_t)length));
    handled_flags.push_back(flags);
}
static void other_handler(char *, long, long) {}

struct UnsolTest : CallTest {
    // One call during which the messages arrive.
    void arrive(const std::vector<wire::frame> &messages)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            for (const wire::frame &m : messages)
                peer.send(m);
            peer.reply("done");
        });
        EXPECT_EQ(call(), 1);
        peer.done();
    }
    int fetch(int kind, long flags = 0) { return tpgetunsol(kind, &out, &len, flags); }
    void expect_refused(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), error);
    }
    // A message and its like: with the bit that asks for an acknowledgement.
    static wire::frame notification(const char *text, int sender)
    {
        return wire::message(14, text, {.flags = TPNOTIFYACK, .srcid = sender});
    }
    bool start_in(long mode)
    {
        TPSTART_T *record = (TPSTART_T *)new_buffer("TPSTART");
        record->flags = (int)mode;
        peer.play([&] { peer.accept_start(); });
        int result = tpstart(record);
        peer.done();
        tpfree((char *)record);
        return result == 0;
    }
    void SetUp() override { handled.clear(); }
};

TEST_F(UnsolTest, HandlerRunsForEachKindWhileACallReads)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(tpsetunsol(note_message), nullptr);
    arrive({wire::message(12, "a", {.flags = 5}), wire::message(13, "b"), wire::message(14, "c"),
            wire::message(19, "d")});
    EXPECT_EQ(handled, (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_EQ(handled_flags[0], 5);
    EXPECT_EQ(tpsetunsol(other_handler), note_message);
}

TEST_F(UnsolTest, SetHandlerOutsideHandlerModeKeepsTheHandler)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    EXPECT_EQ(tpsetunsol_flag(4), 1);
    EXPECT_EQ(tpsetunsol(other_handler), TPSETUNSOL_FAILED);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(tpsetunsol_flag(3), -1);
    EXPECT_EQ(tpsetunsol_flag(0), -1);
    EXPECT_EQ(block()->unsol_mode, 4);
    tpsetunsol_flag(1);
    EXPECT_EQ(tpclearunsol(), 1);
    EXPECT_EQ(tpsetunsol(nullptr), note_message);
}

TEST_F(UnsolTest, QueueKeepsByKindOldestFirst)
{
    ASSERT_TRUE(start());
    tpsetunsol_flag(UNSOL_QUEUE);
    arrive({wire::message(13, "b1"), wire::message(12, "p1"), wire::message(12, "p2")});
    EXPECT_EQ(block()->unsol_count, 3);
    EXPECT_EQ(fetch(UNSOL_ANY), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    EXPECT_EQ(fetch(UNSOL_POST), 1);
    EXPECT_EQ(reply_data(), "p1");
    EXPECT_EQ(fetch(UNSOL_POST), 1);
    EXPECT_EQ(reply_data(), "p2");
    EXPECT_EQ(fetch(UNSOL_POST), -1);
    EXPECT_EQ(fetch(UNSOL_BROADCAST), 1);
    EXPECT_EQ(reply_data(), "b1");
    EXPECT_EQ(block()->unsol_count, 3);
    EXPECT_EQ(block()->unsol_tail, nullptr);
    arrive({wire::message(13, std::string(5000, 'x'))});
    EXPECT_EQ(fetch(UNSOL_BROADCAST), 1);
    EXPECT_EQ(reply_data(), std::string(5000, 'x'));
    EXPECT_EQ(out[5000], '\0');
    arrive({wire::message(13, "again")});
    tpclearunsol();
    EXPECT_EQ(block()->unsol_count, 0);
    EXPECT_EQ(fetch(UNSOL_BROADCAST), -1);
    expect_idle();
    expect_usable();
}

TEST_F(UnsolTest, NochangeLosesAMessageOfAnotherType)
{
    ASSERT_TRUE(start());
    tpsetunsol_flag(UNSOL_QUEUE);
    arrive({wire::message(12, "b1", {.buftype = wire::CARRAY})});
    EXPECT_EQ(fetch(UNSOL_POST, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(fetch(UNSOL_POST), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
}

TEST_F(UnsolTest, ArgumentsAreChecked)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(tpgetunsol(1, &out, nullptr, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(tpgetunsol(1, nullptr, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(fetch(0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(fetch(6), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(fetch(1, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    alignas(8) static char plain[400];
    char *p = plain + 200;
    EXPECT_EQ(tpgetunsol(1, &p, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
}

TEST_F(UnsolTest, BlockingFetchTreatsOthersByTheMode)
{
    ASSERT_TRUE(start());
    tpsetunsol_flag(UNSOL_QUEUE);
    peer.send(wire::message(12, "post"));
    peer.send(wire::message(14, "note", {.flags = 0x8000, .srcid = 77}));
    peer.send(wire::message(13, "broad"));
    EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "broad");
    peer.expect(1014).cd(77);
    EXPECT_EQ(fetch(UNSOL_NOTIFY), 1);
    EXPECT_EQ(reply_data(), "note");
    peer.expect_nothing();
    EXPECT_EQ(fetch(UNSOL_POST), 1);
    peer.send(wire::message(14, "note2", {.flags = 0x8000, .srcid = 78}));
    EXPECT_EQ(fetch(UNSOL_ANY, TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "note2");
    peer.expect(1014).cd(78);
    peer.send_raw(wire::raw_frame("raw"));
    EXPECT_EQ(fetch(UNSOL_SENDTOCLI, TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "raw");
    expect_idle();
}

TEST_F(UnsolTest, FetchWithoutBlockTakesWhatWaits)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(fetch(UNSOL_ANY), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    peer.send(wire::message(13, "broad"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 136 + 5));
    EXPECT_EQ(fetch(UNSOL_ANY), 1);
    EXPECT_EQ(reply_data(), "broad");
}

TEST_F(UnsolTest, CheckRunsKeptThenOneThatArrives)
{
    ASSERT_TRUE(start());
    tpsetunsol_flag(UNSOL_QUEUE);
    arrive({wire::message(13, "one", {.flags = 0x700}),
            wire::message(14, std::string(3000, 'y'), {.flags = 0x8000, .buftype = wire::CARRAY}),
            wire::message(12, "")});
    EXPECT_EQ(tpchkunsol(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    tpsetunsol_flag(1);
    tpsetunsol(note_message);
    handled.clear(), handled_flags.clear();
    EXPECT_EQ(tpchkunsol(), 3);
    EXPECT_EQ(handled, (std::vector<std::string>{"one", std::string(3000, 'y'), ""}));
    EXPECT_EQ(handled_flags, (std::vector<long>{0x700, 0x8000, 0}));
    EXPECT_EQ(tpchkunsol(), 0);
    peer.send(wire::message(13, "first"));
    peer.send(wire::message(13, "second"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 2 * 136 + 11));
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(tpchkunsol(), 0);
    EXPECT_EQ(handled.back(), "second");
    tpsetunsol(nullptr);
    peer.send(wire::message(13, "third"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 136 + 5));
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(handled.back(), "second");
    peer.hang_up();
    faults::eventually([&] { return tpchkunsol() == -1; });
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    EXPECT_EQ(fetch(UNSOL_ANY, TPBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
}

TEST_F(UnsolTest, SetunsolOpensASession)
{
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpsetunsol(note_message), nullptr);
    peer.done();
    EXPECT_EQ(current_block()->started, 1);
    peer.send(wire::message(13, "x"));
    ASSERT_TRUE(wait_for_bytes(current_block()->clhfd, 137));
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(unsoldata, nullptr);
    EXPECT_EQ(_tpunsolsw, 0);
}

TEST_F(UnsolTest, NoServerNoSession)
{
    peer.stop_listening();
    setenv("VORN_CONNECT_TIMEOUT", "0.1", 1);
    EXPECT_EQ(tpsetunsol(note_message), TPSETUNSOL_FAILED);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(tpchkunsol(), -1);
    EXPECT_EQ(fetch(1), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
}

// Whichever allocation fails, nothing leaks or stays locked, and the session goes on.
TEST_F(UnsolTest, SurvivesEveryFailedAllocation)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    bool failed = true;
    for (int nth = 1; failed; nth++) {
        tpsetunsol_flag(UNSOL_QUEUE);
        faults::disarm_allocations();
        arrive({wire::message(13, std::string(2000 + 1000 * nth, 'z')),
                wire::message(12, std::string(900 + 1000 * nth, 'z'))});
        faults::fail_allocation(nth);
        int first = fetch(UNSOL_BROADCAST);
        tpsetunsol_flag(UNSOL_HANDLER);
        int second = tpchkunsol();
        failed = faults::allocation_failed();
        faults::disarm_allocations();
        EXPECT_TRUE(first == 1 || get_tperrno() != 0 || second >= 0) << nth;
        if (!failed) {
            EXPECT_EQ(first, 1);
            EXPECT_EQ(second, 1);
        }
        tpclearunsol();
    }
    expect_idle();
    expect_usable();
}

// --- Modes.

TEST_F(UnsolTest, StartRecordSetsTheMode)
{
    for (long mode : {UNSOL_HANDLER, UNSOL_IGNORE, UNSOL_QUEUE}) {
        ASSERT_TRUE(start_in(mode));
        EXPECT_EQ(block()->unsol_mode, mode);
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
    ASSERT_TRUE(start());
    EXPECT_EQ(block()->unsol_mode, UNSOL_HANDLER);
}

TEST_F(UnsolTest, ModeNeedsNoSessionAndLeavesTperrnoAlone)
{
    set_tperrno(77);
    for (int mode : {1, 2, 4})
        EXPECT_EQ(tpsetunsol_flag(mode), 1);
    for (int mode : {0, 3, 5, 6, 7, 8, -1, INT32_MIN, INT32_MAX})
        EXPECT_EQ(tpsetunsol_flag(mode), -1);
    EXPECT_EQ(get_tperrno(), 77);
    EXPECT_EQ(current_block()->unsol_mode, 4);
    EXPECT_TRUE(peer.nobody_knocks());
    ASSERT_TRUE(start());
    EXPECT_EQ(block()->unsol_mode, 1);
}

TEST_F(UnsolTest, IgnoredMessagesAreGone)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    tpsetunsol_flag(UNSOL_IGNORE);
    arrive({wire::message(12, "a"), wire::message(13, "b"), notification("c", 6), wire::message(19, "d")});
    peer.expect(1014).cd(6);
    tpsetunsol_flag(UNSOL_QUEUE);
    for (int kind = 1; kind <= 5; kind++)
        expect_refused(fetch(kind), TPEBLOCK);
    tpsetunsol_flag(UNSOL_HANDLER);
    EXPECT_EQ(tpchkunsol(), 0);
    EXPECT_TRUE(handled.empty());
    EXPECT_EQ(block()->unsol_count, 0);
}

TEST_F(UnsolTest, WithoutAHandlerMessagesAreDropped)
{
    ASSERT_TRUE(start());
    arrive({wire::message(12, "a"), wire::message(13, "b"), notification("c", 6)});
    peer.expect(1014).cd(6);
    expect_refused(fetch(UNSOL_POST), TPEBLOCK);
    EXPECT_EQ(block()->unsol_count, 0);
    tpsetunsol(note_message);
    EXPECT_EQ(tpsetunsol(nullptr), note_message);
    arrive({wire::message(12, "d")});
    EXPECT_TRUE(handled.empty());
}

TEST_F(UnsolTest, ModeChangesWithWhatIsKeptInPlace)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "kept"), wire::message(13, "kept too")});
    tpsetunsol_flag(UNSOL_IGNORE);
    EXPECT_EQ(fetch(UNSOL_BROADCAST), 1);
    EXPECT_EQ(reply_data(), "kept too");
    tpsetunsol_flag(UNSOL_HANDLER);
    arrive({wire::message(12, "dropped")});
    EXPECT_EQ(fetch(UNSOL_POST), 1);
    EXPECT_EQ(reply_data(), "kept");
    expect_refused(fetch(UNSOL_POST), TPEBLOCK);
}

TEST_F(UnsolTest, EndOfTheSessionDropsWhatIsKept)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "a"), wire::message(13, std::string(3000, 'b'))});
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    expect_refused(fetch(UNSOL_POST), TPEBLOCK);
    EXPECT_EQ(block()->unsol_head, nullptr);
    EXPECT_EQ(block()->unsol_count, 0);
}

TEST_F(UnsolTest, ClearNeedsNoSession)
{
    EXPECT_EQ(tpclearunsol(), 1);
    EXPECT_TRUE(peer.nobody_knocks());
}

// --- Handler.

static pthread_t handler_thread;
static char *handler_data;
static void overwrite(char *data, long length, long)
{
    handler_thread = pthread_self();
    handler_data = data;
    memset(data, 'x', (size_t)length);
}

TEST_F(UnsolTest, HandlerHasTheMessageForItselfAndTheCallItsReply)
{
    ASSERT_TRUE(start());
    tpsetunsol(overwrite);
    arrive({wire::message(12, std::string(500, 'a')), wire::message(13, "b", {.buftype = wire::CARRAY})});
    EXPECT_EQ(reply_data(), "done");
    EXPECT_NE(handler_data, out);
    EXPECT_TRUE(pthread_equal(handler_thread, pthread_self()));
    EXPECT_STREQ(in, "hello");
}

TEST_F(UnsolTest, HandlerRunsInsideOtherWaits)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    peer.play([&] {
        peer.expect(wire::TPACALL);
        peer.send(wire::message(13, "in tpgetrply"));
        peer.reply("x");
        peer.expect(wire::TPEND);
        peer.send(wire::message(13, "in tpend"));
        peer.reply();
    });
    int cd = acall();
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(handled, (std::vector<std::string>{"in tpgetrply", "in tpend"}));
}

static tpunsol_function *previous_handler;
static void replace_myself(char *, long, long)
{
    previous_handler = tpsetunsol(note_message);
}

TEST_F(UnsolTest, HandlerMayInstallAnother)
{
    ASSERT_TRUE(start());
    tpsetunsol(replace_myself);
    arrive({wire::message(12, "first"), wire::message(12, "second")});
    EXPECT_EQ(previous_handler, replace_myself);
    EXPECT_EQ(handled, std::vector<std::string>{"second"});
}

TEST_F(UnsolTest, FramesOfEveryFormReachTheHandler)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    handled_flags.clear();
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.send_raw(wire::raw_frame("raw"));
        peer.send_compressed(wire::message(12, std::string(5000, 'c'), {.flags = 0x80000001}));
        peer.send(wire::message(13));
        peer.reply("done");
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    EXPECT_EQ(handled, (std::vector<std::string>{"raw", std::string(5000, 'c'), ""}));
    EXPECT_EQ(handled_flags[1], 0x80000001L);
}

// --- Acknowledgements.

TEST_F(UnsolTest, AcknowledgementByteByByte)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    peer.recording = true;
    arrive({notification("n", 1234)});
    wire::frame awaited;
    awaited.msgtype = 1014;
    awaited.cd = 1234;
    awaited.xflags = peer.expect(1014).frame.xflags;
    EXPECT_EQ(peer.received.substr(peer.received.size() - HEADER_SIZE), wire::encode(awaited));
}

TEST_F(UnsolTest, OnlyANotificationThatAsksIsAcknowledged)
{
    ASSERT_TRUE(start());
    for (long mode : {UNSOL_HANDLER, UNSOL_IGNORE, UNSOL_QUEUE}) {
        tpsetunsol_flag((int)mode);
        arrive({wire::message(14, "n", {.flags = 0x7fff7fff, .srcid = 5}),
                wire::message(13, "b", {.flags = TPNOTIFYACK, .srcid = 5}),
                wire::message(12, "p", {.flags = TPNOTIFYACK, .srcid = 5}),
                wire::message(19, "s", {.flags = TPNOTIFYACK, .srcid = 5})});
        peer.expect_nothing();
        peer.send(wire::message(14, "n"));
        EXPECT_EQ(fetch(UNSOL_NOTIFY, TPBLOCK), 1);
        expect_usable();
        peer.expect_nothing();
    }
}

TEST_F(UnsolTest, EachNotificationIsAcknowledgedOnceOnEveryWay)
{
    ASSERT_TRUE(start());
    for (long mode : {UNSOL_HANDLER, UNSOL_IGNORE, UNSOL_QUEUE}) {
        tpsetunsol_flag((int)mode);
        arrive({notification("by the mode", 10 + (int)mode)});
        peer.expect(1014).cd(10 + (int)mode).header_only();
        expect_usable();
    }
    EXPECT_EQ(fetch(UNSOL_NOTIFY), 1);  // kept
    tpsetunsol_flag(UNSOL_QUEUE);
    arrive({notification("handled later", 3)});
    peer.expect(1014).cd(3);
    tpsetunsol_flag(UNSOL_HANDLER);
    EXPECT_EQ(tpchkunsol(), 1);
    expect_usable();
    peer.send(notification("read in the wait", 4));
    EXPECT_EQ(fetch(UNSOL_NOTIFY, TPBLOCK), 1);
    peer.expect(1014).cd(4).header_only();
    expect_usable();
}

// What tpchkunsol reads itself, it leaves to the handler.
TEST_F(UnsolTest, CheckDoesNotAcknowledgeWhatItReads)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    handled_flags.clear();
    peer.send(notification("n", 8));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 137));
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(handled_flags, std::vector<long>{TPNOTIFYACK});
    expect_usable();
}

TEST_F(UnsolTest, WithoutMemoryForTheAcknowledgementTheMessageGoesItsWay)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    bool skipped = false;
    for (int nth = 1; !skipped && nth < 6; nth++) {
        handled.clear();
        peer.send(notification("n", nth));
        peer.send(wire::message(13, "b"));
        faults::fail_allocation(nth);
        int result = fetch(UNSOL_BROADCAST, TPBLOCK);
        faults::disarm_allocations();
        if (result < 0 && !handled.empty())
            break;
        if (result < 0) {
            EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
        }
        skipped = result == 1 && handled.size() == 1 && !peer.something_came();
        if (peer.something_came())
            peer.expect(1014).cd(nth);
    }
    EXPECT_TRUE(skipped);
    EXPECT_EQ(handled, std::vector<std::string>{"n"});
    expect_usable();
}

// --- The list.

TEST_F(UnsolTest, MessagesLeaveTheListFromAnyPlace)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "p1"), wire::message(13, "b1"), wire::message(12, "p2"),
            wire::message(14, "n1"), wire::message(19, "s1")});
    auto take = [&](int kind) { return fetch(kind) == 1 ? reply_data() : "nothing"; };
    EXPECT_EQ(take(UNSOL_BROADCAST), "b1");  // from the middle
    EXPECT_EQ(take(UNSOL_SENDTOCLI), "s1");  // the last
    EXPECT_EQ(take(UNSOL_POST), "p1");       // the first
    arrive({wire::message(13, "b2")});       // behind the one that is the last now
    EXPECT_EQ(take(UNSOL_BROADCAST), "b2");
    EXPECT_EQ(take(UNSOL_POST), "p2");
    EXPECT_EQ(take(UNSOL_NOTIFY), "n1");  // the only one
    EXPECT_EQ(take(UNSOL_NOTIFY), "nothing");
    arrive({wire::message(14, "n2")});
    EXPECT_EQ(take(UNSOL_NOTIFY), "n2");
    EXPECT_EQ(block()->unsol_count, 7);
    tpclearunsol();
    EXPECT_EQ(block()->unsol_count, 0);
    EXPECT_EQ(block()->unsol_spare, 0);
}

TEST_F(UnsolTest, EmptyingWithoutFreeingLeavesTheNodesToTheCaller)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(store_unsolicited(new_message(12, "p"), UNSOL_POST, block()), 1);
    unsol_node *node = block()->unsol_head;
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(_init_unsol(0, block()), 1);
    EXPECT_EQ(block()->unsol_head, nullptr);
    EXPECT_EQ(block()->unsol_tail, nullptr);
    EXPECT_EQ(node->kind, UNSOL_POST);
    EXPECT_EQ(data_of(node->msg), "p");
    free(node->msg);
    free(node);
    EXPECT_EQ(_init_unsol(1, block()), 1);
}

TEST_F(UnsolTest, WithoutMemoryToKeepAMessageTheWaitEnds)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    msg_header *message = new_message(12, "p");
    faults::fail_allocation(1);
    expect_refused(_unmatched_msg_process(message, block()), TPESYSTEM);
    faults::disarm_allocations();
    EXPECT_EQ(block()->unsol_head, nullptr);
    EXPECT_EQ(block()->unsol_count, 0);
    expect_idle();
    expect_usable();
}

// --- Fetching.

TEST_F(UnsolTest, FetchChecksInOrder)
{
    ASSERT_TRUE(start());
    alignas(8) static char plain[400];
    char *p = plain + 200, *none = nullptr;
    set_tperrno(0);
    expect_refused(tpgetunsol(1, &none, &len, 0), TPEINVAL);
    expect_refused(tpgetunsol(1, &p, nullptr, 0), TPEINVAL);
    expect_refused(tpgetunsol(1, &p, &len, TPNOREPLY), TPEINVAL);
    for (int kind : {0, 6, -1, INT32_MIN, INT32_MAX})
        expect_refused(tpgetunsol(kind, &p, &len, 0), TPEINVAL);
    for (int bit = 0; bit < 64; bit++)
        if ((0x3A2UL & 1UL << bit) == 0)
            expect_refused(fetch(1, (long)(1UL << bit)), TPEINVAL);
    expect_refused(tpgetunsol(1, &p, &len, 0), TPEOTYPE);
    for (long flags : {0x2L, 0x20L, 0x80L, 0x100L, 0x1A2L})
        expect_refused(fetch(1, flags), TPEBLOCK);
    EXPECT_EQ(p, plain + 200);
}

TEST_F(UnsolTest, FetchOpensASessionAheadOfItsChecks)
{
    peer.play([&] {
        peer.accept_start();
        peer.send(wire::message(13, "first news"));
    });
    expect_refused(tpgetunsol(0, nullptr, nullptr, -1), TPEINVAL);
    EXPECT_EQ(current_block()->started, 1);
    EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "first news");
    peer.done();
}

TEST_F(UnsolTest, EachKindIsTakenOffTheWire)
{
    ASSERT_TRUE(start());
    tpsetunsol_flag(UNSOL_IGNORE);
    const int types[] = {12, 13, 14, 19};
    for (int kind = 1; kind <= 5; kind++) {
        for (int type : types)
            peer.send(wire::message(type, "type " + std::to_string(type), {.flags = 3}));
        EXPECT_EQ(fetch(kind, TPBLOCK), 1);
        EXPECT_EQ(reply_data(), "type " + std::to_string(types[(kind - 1) % 4]));
        peer.send(wire::message(13, "end"));
        do
            EXPECT_EQ(fetch(UNSOL_ANY, TPBLOCK), 1);
        while (reply_data() != "end");
    }
    peer.expect_nothing();
}

TEST_F(UnsolTest, BufferIsReplacedByALargerOneOnEveryWay)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    std::string text(6000, 't');
    auto expect_large = [&](int result, int size) {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(reply_data(), text);
        EXPECT_GE(tpgetasize(out), size);
        tpfree(out);
        out = new_buffer("STRING");
    };
    arrive({wire::message(12, text), wire::message(12, text, {.buftype = wire::CARRAY, .bufsize = 9000}),
            wire::message(12, text, {.bufsize = 10})});
    expect_large(fetch(UNSOL_POST), 6000);
    char type[16] = "", subtype[17] = "";
    expect_large(fetch(UNSOL_POST), 9000);
    expect_large(fetch(UNSOL_POST), 6000);
    for (int32_t size : {-1, 9000, 10}) {
        peer.send(wire::message(13, text, {.bufsize = size}));
        expect_large(fetch(UNSOL_BROADCAST, TPBLOCK), size > 6000 ? size : 6000);
    }
    peer.send(wire::message(13, text, {.buftype = wire::CARRAY}));
    EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
    tptypes(out, type, subtype);
    EXPECT_STREQ(type, "CARRAY");
}

TEST_F(UnsolTest, NochangeTakesTheSameTypeOnly)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "carray", {.buftype = wire::CARRAY}), wire::message(12, "string")});
    expect_refused(fetch(UNSOL_POST, TPNOCHANGE), TPEOTYPE);
    EXPECT_EQ(fetch(UNSOL_POST, TPNOCHANGE), 1);
    EXPECT_EQ(reply_data(), "string");
    peer.send(wire::message(12, "carray", {.buftype = wire::CARRAY}));
    peer.send(wire::message(12, "string"));
    expect_refused(fetch(UNSOL_POST, TPNOCHANGE | TPBLOCK), TPEOTYPE);
    EXPECT_EQ(fetch(UNSOL_POST, TPNOCHANGE | TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "string");
    expect_idle();
}

TEST_F(UnsolTest, BlockingFetchRunsTheHandlerForOthers)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    peer.send(wire::message(12, "post"));
    peer.send(notification("note", 5));
    peer.send(wire::message(13, "broad"));
    EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
    EXPECT_EQ(reply_data(), "broad");
    EXPECT_EQ(handled, (std::vector<std::string>{"post", "note"}));
    peer.expect(1014).cd(5);
    peer.expect_nothing();
}

TEST_F(UnsolTest, FetchWithoutBlockKeepsOthersThatWait)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    peer.send(wire::message(12, "post"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 140));
    expect_refused(fetch(UNSOL_BROADCAST), TPEBLOCK);
    EXPECT_EQ(fetch(UNSOL_POST), 1);
    EXPECT_EQ(reply_data(), "post");
}

TEST_F(UnsolTest, BlockingFetchHasNoLimit)
{
    wire::start_reply reply;
    reply.block_time = 2;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        faults::shift_clock(1000);
        peer.send(wire::message(1017));
        faults::shift_clock(2000);
        peer.send(wire::message(1017));
        peer.send(wire::message(13, "late"));
    });
    EXPECT_EQ(fetch(UNSOL_BROADCAST, TPBLOCK), 1);
    peer.done();
}

TEST_F(UnsolTest, LostConnectionEndsABlockingFetch)
{
    ASSERT_TRUE(start());
    peer.play([&] { peer.hang_up(); });
    expect_refused(fetch(UNSOL_ANY, TPBLOCK), TPECLOSE);
    peer.done();
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
}

// --- tpchkunsol.

TEST_F(UnsolTest, CheckCountsTheKeptAndOneThatArrives)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "one"), wire::message(13, "two")});
    tpsetunsol_flag(UNSOL_HANDLER);
    tpsetunsol(note_message);
    peer.send(wire::message(14, "three"));
    peer.send(wire::message(19, "four"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 2 * 136 + 9));
    EXPECT_EQ(tpchkunsol(), 3);
    EXPECT_EQ(handled, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(block()->unsol_count, 2);
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(handled.back(), "four");
    EXPECT_EQ(get_tperrno(), 0);
    expect_idle();
}

TEST_F(UnsolTest, CheckIsForTheHandlerModeOnly)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    tpsetunsol_flag(UNSOL_HANDLER);
    tpsetunsol(note_message);
    tpsetunsol_flag(UNSOL_QUEUE);
    arrive({wire::message(12, "one")});
    for (int mode : {UNSOL_IGNORE, UNSOL_QUEUE}) {
        tpsetunsol_flag(mode);
        expect_refused(tpchkunsol(), TPEPROTO);
    }
    EXPECT_TRUE(handled.empty());
    EXPECT_EQ(fetch(UNSOL_POST), 1);
}

TEST_F(UnsolTest, CheckWithoutAHandlerDropsWhatIsKept)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, "one"), wire::message(13, "two")});
    tpsetunsol_flag(UNSOL_HANDLER);
    EXPECT_EQ(tpchkunsol(), 2);
    expect_refused(fetch(UNSOL_POST), TPEBLOCK);
}

// Input of another sort is dealt with, and the wait goes on for an unsolicited message.
TEST_F(UnsolTest, CheckPassesOverOtherInput)
{
    ASSERT_TRUE(start());
    tpsetunsol(note_message);
    int cd = acall();
    peer.expect(wire::TPACALL);
    peer.reply("stored");
    peer.send(wire::message(13, "broad"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 2 * 136));
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(handled, std::vector<std::string>{"broad"});
    EXPECT_TRUE(stored(cd));
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "stored");
}

TEST_F(UnsolTest, CheckLosesAMessageThatNoBufferHolds)
{
    ASSERT_TRUE(start_in(UNSOL_QUEUE));
    arrive({wire::message(12, std::string(90, 's'), {.buftype = 77}), wire::message(13, "next")});
    tpsetunsol_flag(UNSOL_HANDLER);
    tpsetunsol(note_message);
    expect_refused(tpchkunsol(), TPEOS);
    EXPECT_EQ(tpchkunsol(), 1);
    EXPECT_EQ(handled, std::vector<std::string>{"next"});
}

TEST_F(UnsolTest, CheckWithoutMemory)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);
    expect_refused(tpchkunsol(), TPESYSTEM);
    faults::disarm_allocations();
    EXPECT_EQ(tpchkunsol(), 0);
}
