// A message on offer: the reader holds it for the threads that have sent and are on their way into their
// wait.
#include <stdlib.h>
#include <string.h>

#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/receive_fixture.h"

namespace {

constexpr int32_t READERS_NUMBER = 100, OTHERS_NUMBER = 200;

// A thread with the reader role waits for reply 100; the test's thread is the one that has sent.
struct Offers : Receive {
    msg_header *readers_want = new_message(MSG_TPCALL, "", 1024);
    int seconds = 0;
    int readers_error = 0;

    Offers() { readers_want->seqno = READERS_NUMBER; }
    ~Offers() override { free(readers_want); }

    long read_beside()
    {
        pthread_mutex_lock(&block->msg_mutex);
        block->waiter_count++;  // it has sent as well
        pthread_mutex_unlock(&block->msg_mutex);
        msg_header *result = seconds == 0 ? _read_csmsg_from_clh(-1, readers_want, block)
                                          : _read_csmsg_from_clh_timeout(readers_want, seconds, block);
        readers_error = get_tperrno();
        if (result != nullptr)
            readers_want = result;
        return result != nullptr;
    }

    int32_t offer_left()
    {
        pthread_mutex_lock(&block->msg_mutex);
        int32_t left = block->offer_left;
        pthread_mutex_unlock(&block->msg_mutex);
        return left;
    }

    // As the send path leaves it: a reply is outstanding, and its thread isn't waiting yet.
    void have_sent()
    {
        EXPECT_TRUE(faults::eventually([&] {
            pthread_mutex_lock(&block->msg_mutex);
            bool reading = block->reader_busy == 1;
            pthread_mutex_unlock(&block->msg_mutex);
            return reading;
        }));
        pthread_mutex_lock(&block->msg_mutex);
        waiting()->seqno = OTHERS_NUMBER;
        pthread_mutex_unlock(&block->msg_mutex);
    }

    void expect_nothing_left()
    {
        EXPECT_EQ(block->offer_left, 0);
        EXPECT_EQ(block->offer_msg, nullptr);
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_EQ(block->reader_busy, 0);
    }
};

}

TEST_F(Offers, MessageIsTakenByTheThreadThatComes)
{
    for (int limit : {0, 20}) {
        seconds = limit;
        free(readers_want);
        readers_want = new_message(MSG_TPCALL, "", 1024);
        readers_want->seqno = READERS_NUMBER;
        Task reader(peer, [&] { return read_beside(); });
        have_sent();
        peer.send(call_reply("the other's", {.seqno = OTHERS_NUMBER}));
        ASSERT_TRUE(faults::eventually([&] { return offer_left() == 1; }));
        ASSERT_NE(limit == 0 ? read() : read_within(20), nullptr);
        EXPECT_EQ(data_of(want), "the other's");
        peer.send(call_reply("the reader's", {.seqno = READERS_NUMBER}));
        EXPECT_EQ(reader.get(), 1);
        EXPECT_EQ(data_of(readers_want), "the reader's");
        expect_nothing_left();
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Offers, MessageOfNobodyIsLookedAtAndGoes)
{
    Task reader(peer, [&] { return read_beside(); });
    have_sent();
    peer.send(call_reply("nobody's", {.seqno = 300}));
    ASSERT_TRUE(faults::eventually([&] { return offer_left() == 1; }));
    Task other(peer, [&] { return (long)(read() != nullptr); });
    ASSERT_TRUE(faults::eventually([&] { return log.has("Msg discarded : 1003 300"); }));
    peer.send(call_reply("the other's", {.seqno = OTHERS_NUMBER}));
    EXPECT_EQ(other.get(), 1);
    peer.send(call_reply("the reader's", {.seqno = READERS_NUMBER}));
    EXPECT_EQ(reader.get(), 1);
    EXPECT_EQ(data_of(want), "the other's");
    EXPECT_EQ(data_of(readers_want), "the reader's");
    expect_nothing_left();
}

TEST_F(Offers, ThreadThatSendsWhileAnOfferStandsIsAskedToo)
{
    Task reader(peer, [&] { return read_beside(); });
    have_sent();
    peer.send(call_reply("the second other's", {.seqno = OTHERS_NUMBER + 1}));
    ASSERT_TRUE(faults::eventually([&] { return offer_left() == 1; }));
    msg_header *request = new_message(MSG_TPCALL, "request", 100);
    request->seqno = OTHERS_NUMBER + 1;
    EXPECT_EQ(_send_csmsg_to_clh(request, block), 1);
    EXPECT_EQ(offer_left(), 2);
    peer.expect(wire::TPCALL).seqno(OTHERS_NUMBER + 1);
    msg_header *result = _read_csmsg_from_clh(-1, request, block);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(data_of(result), "the second other's");
    free(result);
    peer.send(call_reply("the other's", {.seqno = OTHERS_NUMBER}));
    ASSERT_NE(read(), nullptr);
    peer.send(call_reply("the reader's", {.seqno = READERS_NUMBER}));
    EXPECT_EQ(reader.get(), 1);
    expect_nothing_left();
}

TEST_F(Offers, ReaderWithALimitWaitsNoLongerThanThat)
{
    // Who has sent never comes: the message goes its way when the reader's own time is up.
    seconds = 4;
    Task reader(peer, [&] { return read_beside(); });
    have_sent();
    peer.send(call_reply("nobody's", {.seqno = 300}));
    EXPECT_EQ(reader.get(), 0);
    EXPECT_EQ(readers_error, TPETIME);
    EXPECT_TRUE(log.has("Msg discarded : 1003 300")) << log.text();
    block->waiter_count = 0;
    expect_nothing_left();
}

TEST_F(Offers, MessageOnOfferIsFreedWithItsContext)
{
    // What stands on offer when the context ends isn't lost.
    block->offer_msg = new_message(1003, "on offer", 0);
}
