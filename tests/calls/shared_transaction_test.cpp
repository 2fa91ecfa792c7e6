// A transaction, and a lost session, of a context on which several threads stand.
#include "calls/fixture.h"

#include "support/meeting.h"
#include "wire/msgheader.h"

#include <functional>
#include <memory>
#include <thread>

namespace {

constexpr uint32_t STARTS_TRANSACTION = 0x4000000;

struct SharedTransaction : CallTest {
    int number = 0;
    wthr_var *shared = nullptr;

    bool open(void)
    {
        if (!start({}, true))
            return false;
        number = context();
        shared = block();
        return true;
    }
};

// A thread of the context; its work is done when the object goes.
struct Member {
    std::thread thread;

    Member(int number, std::function<void()> work)
        : thread([number, work = std::move(work)] {
              ASSERT_EQ(tpsetctxt(number, 0), 1);
              work();
              EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
          })
    {}
    ~Member() { thread.join(); }
};

}  // namespace

TEST_F(SharedTransaction, OneOfTheFirstRequestsStartsIt)
{
    constexpr int THREADS = 2, ROUNDS = 400;
    ASSERT_TRUE(open());
    peer.play([&] {
        for (int round = 0; round < ROUNDS; round++) {
            int starts = 0;
            std::vector<wire::frame> requests;
            for (int i = 0; i < THREADS; i++) {
                requests.push_back(peer.expect(wire::TPACALL).frame);
                starts += (requests.back().flags & STARTS_TRANSACTION) != 0;
            }
            EXPECT_EQ(starts, 1) << "round " << round;
            // In one piece: the second one of two would wait for the acknowledgement of the first.
            peer.send_raw(wire::encode(wire::answer(requests[0], "x")) +
                          wire::encode(wire::answer(requests[1], "x")));
        }
    });
    Meeting all(THREADS);
    auto work = [&](bool opens) {
        char *reply = new_buffer("STRING");
        long length = 0;
        for (int round = 0; round < ROUNDS; round++) {
            if (opens)
                open_transaction(TX_STAGE_BEGUN);
            all.meet();
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), 1) << get_tperrno();
            all.meet();
        }
        tpfree(reply);
    };
    {
        Member first(number, [&] { work(true); });
        Member second(number, [&] { work(false); });
    }
    peer.done();
    EXPECT_EQ(shared->txinfo->tx_stage, TX_STAGE_RUNNING);
    expect_idle();
}

TEST_F(SharedTransaction, OneOfManyThreadsIsTheOneThatBegins)
{
    constexpr int THREADS = 4, ROUNDS = 5000;
    ASSERT_TRUE(open());
    Meeting all(THREADS);
    std::atomic<int> begun{0};
    auto work = [&](bool opens) {
        for (int round = 0; round < ROUNDS; round++) {
            if (opens) {
                begun = 0;
                open_transaction(TX_STAGE_BEGUN);
            }
            all.meet();
            begun += begin_to_run(shared);
            all.meet();
            if (opens) {
                ASSERT_EQ(begun, 1) << "round " << round;
            }
        }
    };
    std::vector<std::unique_ptr<Member>> members;
    for (int t = 0; t < THREADS; t++)
        members.push_back(std::make_unique<Member>(number, [&, t] { work(t == 0); }));
}

TEST_F(SharedTransaction, RequestsBesideItDoNotStartIt)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame beside = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(beside.flags & STARTS_TRANSACTION, 0u);
        peer.reply("x");
        wire::frame first = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(first.flags & STARTS_TRANSACTION, STARTS_TRANSACTION);
        peer.reply("x");
    });
    open_transaction(TX_STAGE_BEGUN);
    Member(number, [&] { EXPECT_EQ(call(TPNOTRAN), 1); });
    EXPECT_EQ(shared->txinfo->tx_stage, TX_STAGE_BEGUN);
    Member(number, [&] { EXPECT_EQ(call(), 1); });
    EXPECT_EQ(shared->txinfo->tx_stage, TX_STAGE_RUNNING);
}

// ---- a session that is lost

TEST_F(SharedTransaction, LostSessionIsToldToTheOtherThreadsAndNoneIsOpened)
{
    ASSERT_TRUE(open());
    std::atomic<bool> attached{false}, lost{false};
    peer.play([&] {
        peer.expect(wire::TPACALL);  // marked: another thread is attached
        peer.hang_up();
    });
    int cd = 1;
    {
        Member other(number, [&] {
            attached = true;
            ASSERT_TRUE(faults::eventually([&] { return lost.load(); }));
            char *reply = new_buffer("STRING");
            long length = 0;
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), -1);
            EXPECT_EQ(gettperrno(), TPEPROTO);
            EXPECT_EQ(tpacall(svc("S"), nullptr, 0, 0), -1);
            EXPECT_EQ(gettperrno(), TPEPROTO);
            EXPECT_EQ(tpgetrply(&cd, &reply, &length, 0), -1);
            EXPECT_EQ(gettperrno(), TPEPROTO);
            EXPECT_EQ(block(), shared);
            tpfree(reply);
        });
        ASSERT_TRUE(faults::eventually([&] { return attached.load(); }));
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(gettperrno(), TPECLOSE);
        peer.done();
        EXPECT_EQ(shared->started, 0);
        lost = true;
    }
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(shared->started, 0);
    EXPECT_EQ(shared->clhfd, -1);
    EXPECT_EQ(shared->thread_refs, 0);
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
}

// The loss may fall between the look at the session in the call's frame and the making of the request.
TEST_F(SharedTransaction, SessionLostInsideACallIsNotOpenedAgain)
{
    ASSERT_TRUE(open());
    Member(number, [&] {
        shared->started = 0;
        set_tperrno(0);
        EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", in, 0, 0, shared), nullptr);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(block(), shared);
        EXPECT_TRUE(peer.nobody_knocks());
        EXPECT_EQ(shared->started, 0);
        shared->started = 1;
    });
    EXPECT_EQ(block(), shared);
    expect_usable();
}
