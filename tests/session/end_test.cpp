// Closing a session: with the server's consent, and without.
#include "session/cliapi.h"

#include "calls/cscommon.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <errno.h>
#include <memory>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Lets the clock run on until the client gives up and closes. A message that nobody wants makes its wait look at
// the clock; it is repeated, since the client may not have begun to wait yet.
void let_time_run_out(Conn &peer, int seconds)
{
    pollfd closed = {peer.fd, POLLIN, 0};
    EXPECT_TRUE(faults::eventually([&] {
        faults::shift_clock(seconds);
        peer.send(wire::message(1012));
        return poll(&closed, 1, 0) > 0;
    }));
}

struct End : SessionTest {
    void expect_no_context(void)
    {
        for (int i = 1; i < _wthr_size; i++) {
            EXPECT_EQ(_wthr[i].in_use, 0) << i;
            EXPECT_EQ(_ctxt[i].in_use, 0) << i;
            EXPECT_EQ(_ctxt[i].wthr_var, nullptr) << i;
        }
        EXPECT_EQ(current_row(), _main_wthrp);
        EXPECT_EQ(current_block(), _main_wthrv);
        EXPECT_EQ(pthread_mutex_trylock(&_wthr_mutex), 0);
        pthread_mutex_unlock(&_wthr_mutex);
    }

    // tpend fails, and yet the session is over, the connection closed and the error to be read.
    void expect_failed_end(int (*end)(void) = tpend)
    {
        EXPECT_EQ(end(), -1);
        EXPECT_EQ(get_tperrno(), TPESYSTEM);
        EXPECT_EQ(gettperrno(), TPESYSTEM);
        peer.done();
        expect_no_context();
    }
};

}  // namespace

TEST_F(End, ServerIsToldAndTheContextEnds)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        Expected message = peer.expect(wire::TPEND);
        message.header_only().svcname("_tpend").flags(0).cd(0);
        EXPECT_EQ(message.frame.rcode, 0);
        peer.reply();
        peer.expect_end();
    });
    set_tperrno(TPETIME);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(get_tperrno(), 0);
    peer.done();
    expect_no_context();
}

TEST_F(End, OtherNameDoesTheSame)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.serve_end();
        peer.expect_end();
    });
    EXPECT_EQ(tpterm(), 1);
    peer.done();
    expect_no_context();
}

TEST_F(End, SessionsComeAndGo)
{
    for (int i = 0; i < 50; i++) {
        ASSERT_TRUE(start());
        EXPECT_EQ(context(), 0);
        peer.play([&] { peer.serve_end(); });
        ASSERT_EQ(tpend(), 1);
        peer.done();
    }
    expect_no_context();
}

TEST_F(End, EverythingOutstandingIsDropped)
{
    wire::start_reply reply;
    reply.queues = {"Q"};
    ASSERT_TRUE(start(reply));
    wthr_var *b = block();
    int cd = _create_acall_cd(0, b);
    b->acall[_get_acall_cd_ind(cd, b)].reply = nullptr;
    _create_conv_entry(1, CONV_OUT, b);
    alarm(5000);
    b->tx_timer_on = 1;
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(alarm(0), 0u);
    expect_no_context();
}

TEST_F(End, WithoutASessionIsAProtocolError)
{
    for (int (*end)(void) : {tpend, tpterm}) {
        set_tperrno(0);
        EXPECT_EQ(end(), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        expect_no_context();
    }
    ASSERT_TRUE(start());
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(tpterm(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    expect_no_context();
    EXPECT_NE(_ctxt[0].wthr_var, nullptr);
}

TEST_F(End, RowWithoutASessionIsCleared)
{
    ASSERT_TRUE(start());
    block()->started = 0;
    peer.play([&] { peer.expect_end(); });
    EXPECT_EQ(tpterm(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    peer.done();
    expect_no_context();
}

TEST_F(End, ServerThatDoesNotAnswerInTimeIsLeft)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        peer.expect(wire::TPEND);
        let_time_run_out(peer, 31);
        peer.hang_up();
    });
    expect_failed_end();
}

TEST_F(End, WithoutABlockTimeTheWaitHasNoLimit)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(block()->block_time, 0);
    peer.play([&] {
        peer.expect(wire::TPEND);
        wire::frame request = peer.last;
        faults::shift_clock(1000000);
        peer.send(wire::message(1012));
        faults::shift_clock(1000000);
        peer.send(wire::message(1012));
        peer.reply_to(request);
        peer.expect_end();
    });
    EXPECT_EQ(tpend(), 1);
}

TEST_F(End, ServerThatHangsUpIsLeft)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPEND);
        peer.hang_up();
    });
    expect_failed_end(tpterm);
}

TEST_F(End, ServerThatIsGoneAlreadyIsLeft)
{
    ASSERT_TRUE(start());
    peer.reset_connection();
    expect_failed_end();
}

TEST_F(End, RefusalEndsTheSessionAllTheSame)
{
    for (int type : {2002, 3002}) {
        ASSERT_TRUE(start());
        peer.play([&] {
            peer.expect(wire::TPEND);
            peer.reply("", {.msgtype = type});
            peer.expect_end();
        });
        expect_failed_end();
    }
}

TEST_F(End, MessageThatCannotBeSentEndsTheSessionAllTheSame)
{
    for (int error : {EPIPE, EAGAIN, EIO}) {
        ASSERT_TRUE(start());
        peer.play([&] { peer.expect_end(); });
        faults::fail(faults::SEND, 1, error);
        expect_failed_end();
    }
}

TEST_F(End, WithoutMemoryTheSessionEndsAllTheSame)
{
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 100);
        ASSERT_TRUE(start());
        peer.play([&] {
            wire::frame message;
            if (peer.receive(&message))
                peer.reply();
            char byte;
            while (recvfrom(peer.fd, &byte, 1, 0, nullptr, nullptr) > 0)
                ;
            peer.hang_up();
        });
        faults::fail_allocation(nth);
        int result = tpend();
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        peer.done();
        expect_no_context();
        if (result == 1) {
            EXPECT_EQ(get_tperrno(), 0);
            if (!failed)
                break;
        } else {
            EXPECT_EQ(get_tperrno(), TPESYSTEM);
        }
    }
}

TEST_F(End, ThreadsOfTheContextLoseTheirRows)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    std::atomic<int> step{0};
    std::thread other([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        set_tperrno(TPELIMIT);
        step = 1;
        ASSERT_TRUE(faults::eventually([&] { return step == 2; }));
        EXPECT_EQ(current_row(), _main_wthrp);
        EXPECT_EQ(tpend(), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
    });
    ASSERT_TRUE(faults::eventually([&] { return step == 1; }));
    EXPECT_EQ(block()->thread_refs, 1);
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    step = 2;
    other.join();
    expect_no_context();
}

TEST_F(End, ContextCanBeEndedByAnotherThread)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    peer.play([&] { peer.serve_end(); });
    std::thread([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(tpend(), 1);
    }).join();
    EXPECT_EQ(current_row(), _main_wthrp);
    EXPECT_EQ(tpsetctxt(number, 0), -1);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    expect_no_context();
}

TEST_F(End, ThreadsOpenAndCloseSessionsAtOnce)
{
    constexpr int THREADS = 8;
    std::atomic<int> good{0};
    peer.play([&] {
        std::vector<std::unique_ptr<Conn>> all;
        for (int i = 0; i < THREADS; i++) {
            all.push_back(std::make_unique<Conn>());
            peer.accept(all.back().get());
            all.back()->expect(wire::TPSTART);
            wire::start_reply reply;
            reply.client = i;
            all.back()->reply_start(reply);
        }
        for (auto &conn : all)
            conn->serve_end();
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&] {
            EXPECT_EQ(tpstart(nullptr), 0);
            EXPECT_EQ(block()->started, 1);
            good++;
            ASSERT_TRUE(faults::eventually([&] { return good == THREADS; }));
            EXPECT_EQ(tpend(), 1);
        });
    for (std::thread &thread : threads)
        thread.join();
    peer.done();
    expect_no_context();
}
