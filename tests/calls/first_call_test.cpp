// The first call of a thread, made without a start: it opens the session by itself.
#include "calls/fixture.h"

#include <memory>

namespace {

struct FirstCall : CallTest {
    FirstCall() { faults::reset(); }

    int contexts(void)
    {
        int live = 0;
        for (int i = 1; i < _wthr_size; i++)
            live += _ctxt[i].in_use != 0 || _ctxt[i].wthr_var != nullptr;
        return live;
    }

    int rows(void)
    {
        int live = 0;
        for (int i = 1; i < _wthr_size; i++)
            live += _wthr[i].in_use != 0;
        return live;
    }

    // Nothing is left of a call that failed, but its error.
    void expect_nothing_left(int error)
    {
        EXPECT_EQ(get_tperrno(), error);
        EXPECT_EQ(gettperrno(), error);
        EXPECT_EQ(contexts(), 0);
        EXPECT_EQ(rows(), 0);
        EXPECT_EQ(current_row(), _main_wthrp);
        EXPECT_TRUE(is_unlocked(&_wthr_mutex));
    }
};

}  // namespace

TEST_F(FirstCall, OpensASessionOnOneContext)
{
    peer.play([&] {
        peer.accept_start().header_only().flags(0).svcname("_tpstart");
        peer.expect(wire::TPCALL).svcname("TOUPPER").data(std::string("hello\0", 6)).flags(0x20);
        peer.reply("HELLO");
        peer.expect(wire::TPCALL);
        peer.reply("AGAIN");
    });
    EXPECT_EQ(call(TPNOTIME), 1);
    EXPECT_EQ(reply_data(), "HELLO");
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(contexts(), 1);
    EXPECT_EQ(rows(), 1);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    EXPECT_EQ(_cur_ctxti, 1);
    EXPECT_EQ(_start_ctxt, 0);
    EXPECT_EQ(block(), _ctxt[1].wthr_var);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(block()->seqno_inited, 1);
    EXPECT_EQ(_main_wthrv->seqno_inited, 0);
    EXPECT_EQ(_main_wthrv->started, 0);
    EXPECT_EQ(block()->unsol_mode, 1);
    EXPECT_EQ(block()->new_clhfd, -1);
    EXPECT_EQ(block()->old_clhfd, -1);
    EXPECT_EQ(block()->start_msg, nullptr);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(reply_data(), "AGAIN");
    EXPECT_EQ(contexts(), 1);
    peer.done();
    expect_idle();
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(contexts(), 0);
}

TEST_F(FirstCall, MayBeAnAsynchronousOne)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPACALL).cd(1);
        peer.reply("HELLO");
    });
    int cd = acall();
    EXPECT_EQ(cd, 1);
    EXPECT_EQ(contexts(), 1);
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "HELLO");
}

TEST_F(FirstCall, ErrorRightAfterItIsItsOwn)
{
    set_tperrno(TPELIMIT);  // in the cell that the thread has before it has a row
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.reply("no", {.flags = TPESVCFAIL});
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    EXPECT_EQ(contexts(), 1);
    EXPECT_EQ(block()->started, 1);
}

TEST_F(FirstCall, SuccessRightAfterAnErrorReadsAsOne)
{
    set_tperrno(TPELIMIT);
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPACALL);
    });
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(FirstCall, ServerThatCannotBeReachedLeavesNothing)
{
    setenv("VORN_CONNECT_TIMEOUT", "0.3", 1);
    Peer closed;
    closed.stop_listening();
    setenv("VORN_HOST_ADDR", closed.address().c_str(), 1);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(call(), -1);
        expect_nothing_left(TPEOS);
        EXPECT_EQ(acall(), -1);
        expect_nothing_left(TPEOS);
    }
    // Once it is there, the next call opens the session.
    setenv("VORN_HOST_ADDR", peer.address().c_str(), 1);
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(contexts(), 1);
}

TEST_F(FirstCall, RefusedLoginLeavesNothing)
{
    for (int refuse : {TPESECURITY, TPENOREADY}) {
        const int attempts = refuse == TPESECURITY ? 1 : 2;
        peer.play([&] {
            wire::start_reply refusal;
            refusal.refuse = refuse;
            for (int i = 0; i < attempts; i++) {
                peer.accept_start(refusal);
                peer.expect_end();
            }
        });
        EXPECT_EQ(call(), -1);
        peer.done();
        expect_nothing_left(refuse);
        EXPECT_TRUE(peer.nobody_knocks());
    }
}

TEST_F(FirstCall, ConnectionLostInTheStartLeavesNothing)
{
    peer.play([&] {
        peer.accept();
        peer.expect(wire::TPSTART);
        peer.hang_up();
    });
    EXPECT_EQ(acall(), -1);
    expect_nothing_left(TPECLOSE);
}

TEST_F(FirstCall, WrongArgumentsLeaveNothingAndTheNextCallWorks)
{
    alignas(8) char foreign[300] = {};
    char *no_buffer = foreign + 136, *none = nullptr;
    EXPECT_EQ(tpcall(svc("S"), in, 0, &out, nullptr, 0), -1);
    expect_nothing_left(TPEINVAL);
    EXPECT_EQ(tpcall(svc("S"), in, 0, &none, &len, 0), -1);
    expect_nothing_left(TPEINVAL);
    EXPECT_EQ(call(0x4), -1);
    expect_nothing_left(TPEINVAL);
    EXPECT_EQ(tpcall(svc("S"), in, 0, &no_buffer, &len, 0), -1);
    expect_nothing_left(TPEOTYPE);
    EXPECT_EQ(acall(0x100), -1);
    expect_nothing_left(TPEINVAL);
    EXPECT_TRUE(peer.nobody_knocks());
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(contexts(), 1);
}

TEST_F(FirstCall, WrongDataIsToldOnceTheSessionStands)
{
    alignas(8) char foreign[300] = {};
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpcall(svc("S"), foreign + 136, 0, &out, &len, 0), -1);
    EXPECT_EQ(gettperrno(), TPEITYPE);
    EXPECT_EQ(contexts(), 1);
    EXPECT_EQ(block()->started, 1);
    peer.done();
    expect_usable();
}

TEST_F(FirstCall, ContextModeForbidsItWithSeveralContexts)
{
    ASSERT_TRUE(start({}, true));
    int cd = 1;
    std::thread([&] {
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(acall(), -1);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(getrply(&cd), -1);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(current_row(), _main_wthrp);
    }).join();
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(contexts(), 1);
    expect_usable();
}

TEST_F(FirstCall, WithoutAFreeRowTheLimitIsTold)
{
    ASSERT_EQ(get_tperrno(), 0);
    for (int i = 1; i < 400; i++)
        _wthr[i].in_use = 1;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_EQ(acall(), -1);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    for (int i = 1; i < 400; i++)
        _wthr[i].in_use = 0;
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(FirstCall, RowLeftByAFailedStartGivesOneWithoutAction)
{
    peer.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPENOREADY;
        peer.accept_start(refusal);
        peer.accept_start(refusal);
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPENOREADY);
    peer.done();
    len = 4711;
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(len, 4711);
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(tpstart(nullptr), 1);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(FirstCall, ThreadsOpenTheirSessionsAtOnce)
{
    constexpr int THREADS = 8, CALLS = 20;
    peer.play([&] {
        std::vector<std::unique_ptr<Conn>> all;
        std::vector<std::thread> servers;
        for (int i = 0; i < THREADS; i++) {
            all.push_back(std::make_unique<Conn>());
            peer.accept(all.back().get());
            Conn *conn = all.back().get();
            servers.emplace_back([conn] {
                conn->expect(wire::TPSTART);
                conn->reply_start({});
                for (int n = 0; n < CALLS; n++) {
                    wire::frame request = conn->expect(wire::TPCALL).frame;
                    conn->reply(request.data);
                }
                conn->serve_end();
            });
        }
        for (std::thread &server : servers)
            server.join();
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([t] {
            char *data = new_buffer("CARRAY", "thread " + std::to_string(t)), *reply = new_buffer("CARRAY");
            long length = 0;
            for (int n = 0; n < CALLS; n++) {
                data[20] = (char)n;
                ASSERT_EQ(tpcall(svc("ECHO"), data, 21, &reply, &length, 0), 1) << get_tperrno();
                EXPECT_EQ(length, 21);
                EXPECT_EQ(memcmp(data, reply, 21), 0);
            }
            EXPECT_EQ(tpend(), 1);
            tpfree(data);
            tpfree(reply);
        });
    for (std::thread &thread : threads)
        thread.join();
    peer.done();
    EXPECT_EQ(contexts(), 0);
    EXPECT_EQ(rows(), 0);
}
