// Memory that runs out at each allocation of the queue calls in turn: the right error, no lock held, nothing
// leaked, and the next session serves.
#include "queue/fixture.h"

#include "vorn/fields.h"

namespace {

constexpr long DIRECT = TPRQDIRECT;

struct QueueSweep : QueueTest {
    std::string message = "m", answer = "a";  // what the server gives
    bool early = false;                       // the answer comes ahead of the acceptance, and is stored
    int empty = 0;                            // so often it has nothing, in each session

    // The lines of so many failures are of no interest here.
    void SetUp() override { setenv("VORN_ERR_MSG", "N", 1); }

    // One session, whatever comes in it.
    void serve_session(void)
    {
        accept_queues();
        wire::frame request;
        int tries = 0;
        while (peer.receive(&request)) {
            switch (request.msgtype) {
            case wire::TPENQ:
                if (early)
                    peer.send(answer_of(SECOND, answer));
                peer.reply_to(request, "", {.rcode = 1});
                if (!early)
                    peer.send(answer_of(SECOND, answer));
                break;
            case wire::TPDEQ:
                if (tries++ < empty) {
                    refuse_dequeue(TPEMATCH);
                    notice(1);
                } else {
                    peer.reply_to(request, message);
                }
                break;
            default:
                peer.reply_to(request, "");
            }
        }
    }

    // Runs the scenario, which gives true on success, with the n-th allocation failing, for each n until a
    // run makes fewer. Each run has a session of its own.
    void sweep(const std::function<bool()> &scenario)
    {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 200);
            SCOPED_TRACE("allocation " + std::to_string(nth));
            peer.play([&] { serve_session(); });
            ASSERT_EQ(tpstart(nullptr), 0);
            set_tperrno(0);
            faults::fail_allocation(nth);
            bool good = scenario();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            int error = get_tperrno();
            if (!good) {
                EXPECT_TRUE(failed) << "it failed with memory enough, error " << error;
                bool dropped = early && error == TPEBLOCK;  // it couldn't be stored
                EXPECT_TRUE(dropped || error == TPEOS || error == TPESYSTEM || error == TPEITYPE) << error;
            }
            expect_idle();
            expect_sound(out);
            expect_sound(in);
            tpend();
            peer.done();
            tpfree(out);
            out = new_buffer("STRING");
            if (!failed)
                return;
        }
    }
    static void expect_sound(char *data)
    {
        EXPECT_EQ(message_of(data)->magic, MESSAGE_MAGIC);
        EXPECT_GE(tpgetasize(data), 1000);
        EXPECT_GE(tpgettype(data), 0);
    }
};

}  // namespace

TEST_F(QueueSweep, EnqueueAndItsAnswer)
{
    sweep([&] { return enq() == 1 && deq() == 1; });
}

TEST_F(QueueSweep, AnswerThatIsLarge)
{
    answer = std::string(9000, 'a');
    sweep([&] { return enq() == 1 && deq() == 1; });
}

TEST_F(QueueSweep, AnswerThatIsStored)
{
    early = true;
    sweep([&] { return enq() == 1 && deq(TPNOBLOCK) == 1; });
}

TEST_F(QueueSweep, LargeAnswerThatIsStored)
{
    early = true;
    answer = std::string(9000, 'a');
    sweep([&] { return enq() == 1 && deq(TPNOBLOCK) == 1; });
}

TEST_F(QueueSweep, DirectDequeue)
{
    sweep([&] { return deq(DIRECT) == 1; });
}

TEST_F(QueueSweep, DirectDequeueOfALargeMessage)
{
    message = std::string(9000, 'm');
    sweep([&] { return deq(DIRECT) == 1; });
}

TEST_F(QueueSweep, TriesOfADequeue)
{
    empty = 2;
    sweep([&] { return deq(DIRECT | TPBLOCK) == 1; });
}

TEST_F(QueueSweep, EnqueueBehindARecord)
{
    static RQCTL_T record;
    sweep([&] { return enq_ctl(TPNOREPLY, &record) == 1; });
}

TEST_F(QueueSweep, FieldsBehindARecord)
{
    static RQCTL_T record;
    char *fields = tpalloc(svc("FIELD"), nullptr, 1000);
    int32_t number = 5;
    ASSERT_EQ(fbput((FBUF *)fields, FB_INT * 0x4000000 + 1, (char *)&number, 0), 1);
    sweep([&] { return tpenq_ctl(svc("SECOND"), svc("S"), &record, fields, 0, TPNOREPLY) == 1; });
    tpfree(fields);
}

TEST_F(QueueSweep, Reissue)
{
    sweep([&] { return tpreissue(svc("SECOND"), nullptr, 0) == 0; });
}
