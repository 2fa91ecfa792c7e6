// A start that meets a server that isn't ready for it, or that talks before it answers.
#include "session/cliapi.h"

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr uint32_t GIVEN_BACK = 0x20000000;
constexpr int32_t QUEUE_MODE = 4;

struct StartHostile : SessionTest {
    TPSTART_T *record = nullptr;

    ~StartHostile() override
    {
        if (record != nullptr)
            tpfree((char *)record);
    }

    TPSTART_T *queueing_record(void)
    {
        record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
        EXPECT_NE(record, nullptr);
        record->flags = QUEUE_MODE;
        return record;
    }

    // Accepts, and sends back the start message as a server does that is about to go down.
    void give_back_start(int32_t reason)
    {
        peer.accept();
        peer.expect(wire::TPSTART);
        wire::start_reply refusal;
        refusal.refuse = reason;
        wire::frame answer = wire::start_answer(peer.last, refusal);
        answer.xflags |= GIVEN_BACK;
        peer.send(answer);
    }

    // Accepts, and talks before it answers the start.
    void talk_before_the_answer(int messages)
    {
        peer.accept();
        peer.expect(wire::TPSTART);
        for (int i = 0; i < messages; i++)
            peer.send(wire::message(wire::TPPOST, "news " + std::to_string(i)));
    }

    int contexts(void)
    {
        int live = 0;
        for (int i = 1; i < _wthr_size; i++)
            live += _ctxt[i].in_use != 0 || _ctxt[i].wthr_var != nullptr;
        return live;
    }

    void expect_usable(void)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL).svcname("PROOF");
            peer.reply("fine");
        });
        char *reply = tpalloc((char *)"STRING", nullptr, 0);
        long length = 0;
        EXPECT_EQ(tpcall((char *)"PROOF", nullptr, 0, &reply, &length, 0), 1) << get_tperrno();
        EXPECT_EQ(std::string(reply, (size_t)length), "fine");
        tpfree(reply);
        peer.done();
    }

    void end(void)
    {
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
        EXPECT_EQ(contexts(), 0);
    }

    // The context that a start left behind when both of its exchanges failed.
    void clear_what_is_left(void)
    {
        EXPECT_EQ(tpend(), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
        EXPECT_EQ(contexts(), 0);
    }
};

}  // namespace

// ---- a start that is given back

TEST_F(StartHostile, GivenBackStartIsARefusalAndTheSecondAttemptMaySucceed)
{
    peer.play([&] {
        give_back_start(TPENOREADY);
        peer.expect_end();
        peer.accept_start();
    });
    EXPECT_EQ(tpstart(nullptr), 0);
    peer.done();
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(block()->rolling_failed, 0);
    EXPECT_EQ(block()->rolling, 0);
    EXPECT_EQ(block()->old_clhfd, -1);
    EXPECT_EQ(block()->new_clhfd, -1);
    expect_usable();
    end();
}

TEST_F(StartHostile, StartGivenBackTwiceTellsTheServersReason)
{
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            give_back_start(TPENOREADY);
            peer.expect_end();
        }
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPENOREADY);
    peer.done();
    EXPECT_EQ(block()->rolling_failed, 0);
    EXPECT_TRUE(peer.nobody_knocks());
    clear_what_is_left();
}

TEST_F(StartHostile, GivenBackStartInsideACallIsTriedAgain)
{
    char *reply = tpalloc((char *)"STRING", nullptr, 0);
    long length = 0;
    peer.play([&] {
        give_back_start(TPENOREADY);
        peer.expect_end();
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.reply("HELLO");
    });
    EXPECT_EQ(tpcall((char *)"S", nullptr, 0, &reply, &length, 0), 1) << get_tperrno();
    EXPECT_EQ(std::string(reply, (size_t)length), "HELLO");
    peer.done();
    EXPECT_EQ(block()->rolling_failed, 0);
    tpfree(reply);
    end();
}

// ---- messages before the start reply; the leak checker finds what they leave behind

TEST_F(StartHostile, MessagesBeforeTheReplyAreDroppedOnceTheStartIsAccepted)
{
    peer.play([&] {
        talk_before_the_answer(3);
        peer.reply_start();
    });
    EXPECT_EQ(tpstart(queueing_record()), 0);
    peer.done();
    EXPECT_EQ(block()->unsol_mode, QUEUE_MODE);
    EXPECT_EQ(block()->unsol_count, 0);
    EXPECT_EQ(block()->unsol_head, nullptr);
    EXPECT_EQ(block()->unsol_tail, nullptr);
    // Those behind it are kept.
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame request = peer.last;
        peer.send(wire::message(wire::TPPOST, "fresh news"));
        peer.reply_to(request, "x");
    });
    char *reply = tpalloc((char *)"STRING", nullptr, 0);
    long length = 0;
    EXPECT_EQ(tpcall((char *)"S", nullptr, 0, &reply, &length, 0), 1);
    tpfree(reply);
    peer.done();
    ASSERT_EQ(block()->unsol_count, 1);
    ASSERT_NE(block()->unsol_head, nullptr);
    EXPECT_EQ(data_of(block()->unsol_head->msg), "fresh news");
    end();
}

TEST_F(StartHostile, MessagesBeforeARefusalGoWithTheContext)
{
    peer.play([&] {
        talk_before_the_answer(3);
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        peer.reply_start(refusal);
        peer.expect_end();
    });
    EXPECT_EQ(tpstart(queueing_record()), -1);
    EXPECT_EQ(gettperrno(), TPESECURITY);
    peer.done();
    EXPECT_EQ(contexts(), 0);
}

TEST_F(StartHostile, MessagesBeforeTwoRefusalsGoWithTheEnd)
{
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            talk_before_the_answer(2);
            wire::start_reply refusal;
            refusal.refuse = TPENOREADY;
            peer.reply_start(refusal);
            peer.expect_end();
        }
    });
    EXPECT_EQ(tpstart(queueing_record()), -1);
    EXPECT_EQ(gettperrno(), TPENOREADY);
    peer.done();
    clear_what_is_left();
}

TEST_F(StartHostile, MessagesOfAFailedAttemptAreNotThoseOfTheNextOne)
{
    peer.play([&] {
        talk_before_the_answer(2);
        wire::start_reply refusal;
        refusal.refuse = TPENOREADY;
        peer.reply_start(refusal);
        peer.expect_end();
        talk_before_the_answer(1);
        peer.reply_start();
    });
    EXPECT_EQ(tpstart(queueing_record()), 0);
    peer.done();
    EXPECT_EQ(block()->unsol_count, 0);
    EXPECT_EQ(block()->unsol_head, nullptr);
    expect_usable();
    end();
}

TEST_F(StartHostile, MessagesBeforeTheEndOfTheConnectionGoWithTheContext)
{
    peer.play([&] {
        talk_before_the_answer(3);
        peer.hang_up();
    });
    EXPECT_EQ(tpstart(queueing_record()), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(contexts(), 0);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(StartHostile, ReplyCutInItsMiddleLeavesNothingOfTheMessagesBeforeIt)
{
    for (size_t bytes : {8, 100, 136}) {
        SCOPED_TRACE(bytes);
        // The end between two steps of the reading ends the start; one within a step is tried again.
        const int attempts = bytes == 100 ? 2 : 1;
        peer.play([&] {
            for (int i = 0; i < attempts; i++) {
                talk_before_the_answer(2);
                peer.send_raw(wire::encode(wire::start_answer(peer.last, {})).substr(0, bytes));
                peer.hang_up();
            }
        });
        if (record == nullptr)
            queueing_record();
        EXPECT_EQ(tpstart(record), -1);
        EXPECT_EQ(gettperrno(), bytes == 100 ? TPEOS : TPECLOSE);
        peer.done();
        if (contexts() > 0)
            clear_what_is_left();
        EXPECT_TRUE(peer.nobody_knocks());
    }
}

// ---- tpinit reads descriptor 0 as if it were its former connection

TEST_F(StartHostile, InitWithAnInputThatIsAlwaysReadableFails)
{
    int nothing = open("/dev/null", O_RDONLY);
    ASSERT_EQ(dup2(nothing, 0), 0);
    if (nothing != 0)
        close(nothing);
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            peer.accept();
            peer.expect(wire::TPINIT);
            peer.expect_end();
        }
    });
    EXPECT_EQ(tpinit(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_GE(fcntl(0, F_GETFD), 0);
}

TEST_F(StartHostile, InitWithAQuietInputWorks)
{
    int quiet[2];
    ASSERT_EQ(pipe(quiet), 0);
    ASSERT_EQ(dup2(quiet[0], 0), 0);
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpinit(nullptr), 1);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
    EXPECT_EQ(block()->old_clhfd, 0);
    expect_usable();
    end();
    close(quiet[0]);
    close(quiet[1]);
}
