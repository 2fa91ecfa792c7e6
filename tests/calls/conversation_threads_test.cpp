// Conversations on a context that several threads share: whoever reads the connection meets the messages of
// all.
#include "calls/conversation.h"

#include <functional>
#include <memory>
#include <sys/socket.h>

namespace {

struct ConversationThreads : ConversationTest {
    int number = 0;
    wthr_var *shared = nullptr;

    // A session for several threads; the test's own thread stands on it too.
    bool open_shared(const wire::start_reply &reply = {})
    {
        if (!start(reply, true))
            return false;
        number = context();
        shared = block();
        return true;
    }

    bool under_lock(const std::function<bool()> &look)
    {
        pthread_mutex_lock(&shared->msg_mutex);
        bool result = look();
        pthread_mutex_unlock(&shared->msg_mutex);
        return result;
    }

    // The script that serves without an end gets it.
    void shutdown_peer(void)
    {
        shutdown(peer.fd, SHUT_RDWR);
        peer.done();
    }

    // Until so many threads wait for another one to read for them.
    void await_waiters(int count)
    {
        EXPECT_TRUE(faults::eventually([&] {
            return under_lock([&] { return shared->reader_busy == 1 && shared->waiting == count; });
        }));
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

// What one thread receives into; a conversation is for one thread at a time.
struct Side {
    char *data = new_buffer("STRING"), *reply = new_buffer("STRING");
    long length = -1, event = -1;

    ~Side()
    {
        tpfree(data);
        tpfree(reply);
    }
    int connect(long flags) { return tpconnect(svc("DIALOG"), data, 0, flags); }
    int send(int cd, const std::string &text, long flags = TPRECVONLY)
    {
        snprintf(data, 1000, "%s", text.c_str());
        return tpsend(cd, data, 0, flags, &event);
    }
    int receive(int cd, long flags = 0) { return tprecv(cd, &reply, &length, flags, &event); }
    int call(void) { return tpcall(svc("PUMP"), nullptr, 0, &reply, &length, TPNOTRAN); }
    std::string text(void) const { return std::string(reply, (size_t)length); }
};

// One message, and what a tprecv makes of it.
struct Arrival {
    int32_t msgtype;
    uint32_t flags;
    int result, error;
    long event;
    bool stays;
};
constexpr Arrival AWAITED[] = {{6, 0, 1, 0, 0, true},
                               {6, TPRECVONLY, -1, TPEEVENT, TPEV_SENDONLY, true},
                               {1007, 0, -1, TPEEVENT, TPEV_SVCSUCC, false},
                               {3007, TPEV_SVCFAIL, -1, TPEEVENT, TPEV_SVCFAIL, false},
                               {8, 0, -1, TPEEVENT, TPEV_DISCONIMM, false},
                               {2005, TPESYSTEM, -1, TPEEVENT, TPEV_DISCONIMM, false},
                               {2007, TPESVCFAIL, -1, TPESYSTEM, 0, true}};

}  // namespace

// ---- one message, somebody else reads

TEST_F(ConversationThreads, MessageReachesTheOneWhoWaitsThroughAnother)
{
    for (const Arrival &one : AWAITED) {
        SCOPED_TRACE(one.msgtype);
        if (shared == nullptr) {
            ASSERT_TRUE(open_shared());
        }
        open(TPRECVONLY);
        wire::frame held;
        {
            Member reader(number, [&] {
                Side side;
                EXPECT_EQ(side.call(), 1) << get_tperrno();
            });
            held = peer.expect(wire::TPACALL).frame;
            await_waiters(0);
            Member receiver(number, [&] {
                Side side;
                EXPECT_EQ(side.receive(CD), one.result);
                EXPECT_EQ(gettperrno(), one.error);
                EXPECT_EQ(side.event, one.event);
                EXPECT_EQ(side.text(), "message");
                if (one.result < 0 && one.error == TPEEVENT && one.event != TPEV_SENDONLY) {
                    EXPECT_EQ(gettpurcode(), 17);
                }
            });
            await_waiters(1);
            peer.send(ending(one.msgtype, CD, 17, one.flags, "message"));
            EXPECT_TRUE(faults::eventually([&] { return under_lock([&] { return shared->waiting == 0; }); }));
            peer.reply_to(held);
        }
        EXPECT_EQ(is_open(CD), one.stays);
        if (one.stays) {
            EXPECT_EQ(tpdiscon(CD), 1);
            peer.expect(wire::TPDISCON);
        }
        expect_idle();
    }
}

TEST_F(ConversationThreads, MessageIsKeptWhileSomebodyElseReads)
{
    for (const Arrival &one : AWAITED) {
        SCOPED_TRACE(one.msgtype);
        if (shared == nullptr) {
            ASSERT_TRUE(open_shared());
        }
        open(TPRECVONLY);
        {
            Member reader(number, [&] {
                Side side;
                EXPECT_EQ(side.call(), 1) << get_tperrno();
            });
            wire::frame held = peer.expect(wire::TPACALL).frame;
            await_waiters(0);
            peer.send(ending(one.msgtype, CD, 17, one.flags, "message"));
            peer.reply_to(held);
        }
        bool refused = one.msgtype == 2007;  // stored it is an end
        EXPECT_EQ(receive(CD), one.result);
        EXPECT_EQ(get_tperrno(), refused ? TPEEVENT : one.error);
        EXPECT_EQ(event, refused ? TPEV_DISCONIMM : one.event);
        EXPECT_EQ(is_open(CD), one.stays && !refused);
        if (one.stays && !refused) {
            EXPECT_EQ(tpdiscon(CD), 1);
            peer.expect(wire::TPDISCON);
        }
        expect_idle();
    }
}

TEST_F(ConversationThreads, ReaderTakesItsOwnMessageAndTheRoleGoesOn)
{
    ASSERT_TRUE(open_shared());
    open(TPRECVONLY);
    wire::frame held;
    {
        Member receiver(number, [&] {
            Side side;
            EXPECT_EQ(side.receive(CD), 1);
            EXPECT_EQ(side.text(), "mine");
        });
        await_waiters(0);
        Member caller(number, [&] {
            Side side;
            EXPECT_EQ(side.call(), 1);
        });
        held = peer.expect(wire::TPACALL).frame;
        await_waiters(1);
        peer.send(turn(CD, "mine"));
        await_waiters(0);  // the other one reads now
        peer.reply_to(held);
    }
    expect_idle();
}

TEST_F(ConversationThreads, MessageBehindTheConnectsReplyFindsItsConversation)
{
    constexpr int ROUNDS = 200;
    ASSERT_TRUE(open_shared());
    for (int round = 0; round < ROUNDS; round++) {
        Member reader(number, [&] {
            Side side;
            EXPECT_EQ(side.call(), 1) << get_tperrno();
        });
        wire::frame held = peer.expect(wire::TPACALL).frame;
        await_waiters(0);
        Member opener(number, [&] {
            Side side;
            EXPECT_EQ(side.connect(TPRECVONLY), CD + round % 7);
            EXPECT_EQ(side.receive(CD + round % 7), 1) << get_tperrno();
            EXPECT_EQ(side.text(), "at once");
            EXPECT_EQ(side.receive(CD + round % 7), -1);
            EXPECT_EQ(gettperrno(), TPEEVENT);
            EXPECT_EQ(side.event, round % 2 != 0 ? TPEV_DISCONIMM : TPEV_SVCSUCC);
            EXPECT_EQ(gettpurcode(), round);
        });
        wire::frame request = peer.expect(wire::TPCONNECT).frame;
        if (peer.fd < 0)
            return;
        int cd = CD + round % 7;
        await_waiters(1);
        peer.send_raw(
            wire::encode(wire::answer(request, "", {.cd = cd})) + wire::encode(turn(cd, "at once")) +
            wire::encode(ending(round % 2 != 0 ? 8 : DONE, cd, round)) + wire::encode(wire::answer(held)));
    }
}

// The answer may overtake the one who asked for it on his way into the wait: somebody else reads already.
TEST_F(ConversationThreads, ConnectsReplyIsNeverMissed)
{
    constexpr int ROUNDS = 3000;
    ASSERT_TRUE(open_shared({.conv_size = 1, .block_time = 20}));
    std::atomic<bool> over{false};
    peer.play([&] {
        wire::frame request;
        while (peer.receive(&request))
            if (request.msgtype == wire::TPCONNECT)
                peer.reply_to(request, "", {.cd = CD});
            else if (request.msgtype == wire::TPACALL)
                peer.reply_to(request, "x");
    });
    {
        Member pump(number, [&] {
            Side side;
            while (!over)
                ASSERT_EQ(side.call(), 1) << get_tperrno();
        });
        Member opener(number, [&] {
            Side side;
            for (int round = 0; round < ROUNDS; round++) {
                int cd = side.connect(TPSENDONLY);
                EXPECT_EQ(cd, CD) << round << " " << get_tperrno();
                if (cd < 0 || tpdiscon(cd) < 0)
                    break;
            }
            over = true;
        });
    }
    shutdown_peer();
}

// ---- races, without any pause

TEST_F(ConversationThreads, MessagesThatAreStoredWhileTheirReaderComesAreNotMissed)
{
    constexpr int MESSAGES = 20000;
    ASSERT_TRUE(open_shared({.block_time = 20}));
    open(TPRECVONLY);
    std::atomic<bool> over{false};
    peer.play([&] {
        wire::frame request;
        int said = 0;
        // Each call's reply has some messages of the conversation about it.
        while (peer.receive(&request)) {
            std::string bytes;
            for (int i = 0; i < said % 4 && said < MESSAGES; i++)
                bytes += wire::encode(turn(CD, std::to_string(said++)));
            bytes += wire::encode(wire::answer(request, "x"));
            if (said < MESSAGES)
                bytes += wire::encode(turn(CD, std::to_string(said++)));
            peer.send_raw(bytes);
        }
    });
    {
        Member pump(number, [&] {
            Side side;
            while (!over)
                ASSERT_EQ(side.call(), 1) << get_tperrno();
        });
        Member receiver(number, [&] {
            Side side;
            for (int i = 0; i < MESSAGES; i++) {
                int result = side.receive(CD);
                EXPECT_EQ(result, 1) << i << " " << get_tperrno();
                if (result != 1)
                    break;
                EXPECT_EQ(side.text(), std::to_string(i));
            }
            over = true;
        });
    }
    shutdown_peer();
    expect_idle();
}

TEST_F(ConversationThreads, DisconnectionIsNotMissedByOneWhoComesToWait)
{
    constexpr int ROUNDS = 2000;
    ASSERT_TRUE(open_shared({.block_time = 20}));
    std::atomic<bool> over{false};
    peer.play([&] {
        wire::frame request;
        int round = 0;
        while (peer.receive(&request))
            if (request.msgtype == wire::TPCONNECT) {
                int32_t type = round % 2 != 0 ? (int32_t)wire::TPDISCON : NOT_CONNECTED;
                peer.send_raw(wire::encode(wire::answer(request, "", {.cd = CD})) +
                              (round % 3 != 0 ? wire::encode(turn(CD, "first")) : std::string()) +
                              wire::encode(ending(type, CD, round)));
                round++;
            } else {
                peer.reply_to(request, "x");
            }
    });
    {
        Member pump(number, [&] {
            Side side;
            while (!over)
                ASSERT_EQ(side.call(), 1) << get_tperrno();
        });
        Member receiver(number, [&] {
            Side side;
            for (int round = 0; round < ROUNDS && !HasFailure(); round++) {
                EXPECT_EQ(side.connect(TPRECVONLY), CD) << round << " " << get_tperrno();
                if (round % 3 != 0) {
                    EXPECT_EQ(side.receive(CD), 1) << round << " " << get_tperrno();
                }
                EXPECT_EQ(side.receive(CD), -1);
                EXPECT_EQ(gettperrno(), TPEEVENT) << round;
                EXPECT_EQ(side.event, TPEV_DISCONIMM);
                EXPECT_EQ(gettpurcode(), round);
            }
            over = true;
        });
    }
    shutdown_peer();
    EXPECT_EQ(shared->conv_active, 0);
    expect_idle();
}

TEST_F(ConversationThreads, EachThreadHasADialogueOfItsOwn)
{
    constexpr int THREADS = 6, TURNS = 300;
    ASSERT_TRUE(open_shared({.conv_size = THREADS, .block_time = 30}));
    peer.play([&] {
        wire::frame request;
        int next = 0;
        while (peer.receive(&request)) {
            std::string text = request.data.substr(0, request.data.find('\0'));
            if (request.msgtype == wire::TPCONNECT)
                peer.reply_to(request, "", {.cd = next++ * THREADS});  // all at home in row 0
            else if (request.msgtype == wire::TPSEND && text == "end")
                peer.send(ending(DONE, request.cd, request.cd, 0, "ended"));
            else if (request.msgtype == wire::TPSEND)
                peer.send_raw(wire::encode(turn(request.cd, text + "!")) +
                              wire::encode(hand_over(request.cd, text + "?")));
            else
                peer.reply_to(request, request.data, {.buftype = wire::CARRAY});
        }
    });
    {
        std::vector<std::unique_ptr<Member>> members;
        for (int t = 0; t < THREADS; t++)
            members.push_back(std::make_unique<Member>(number, [t] {
                Side side;
                int cd = side.connect(TPSENDONLY);
                ASSERT_GE(cd, 0) << get_tperrno();
                for (int i = 0; i < TURNS; i++) {
                    std::string said = "thread " + std::to_string(t) + " turn " + std::to_string(i);
                    ASSERT_EQ(side.send(cd, said), 1) << get_tperrno();
                    ASSERT_EQ(side.receive(cd), 1) << said << " " << get_tperrno();
                    ASSERT_EQ(side.text(), said + "!");
                    if (i % 10 == t) {
                        ASSERT_EQ(side.call(), 1) << get_tperrno();
                    }
                    ASSERT_EQ(side.receive(cd), -1);
                    ASSERT_EQ(side.event, TPEV_SENDONLY);
                    ASSERT_EQ(side.text(), said + "?");
                }
                ASSERT_EQ(side.send(cd, "end"), 1);
                EXPECT_EQ(side.receive(cd), -1);
                EXPECT_EQ(side.event, TPEV_SVCSUCC);
                EXPECT_EQ(gettpurcode(), cd);
                EXPECT_EQ(side.text(), "ended");
            }));
    }
    shutdown_peer();
    EXPECT_EQ(shared->conv_active, 0);
    expect_idle();
}

TEST_F(ConversationThreads, ConversationCanPassFromThreadToThread)
{
    ASSERT_TRUE(open_shared());
    open(TPSENDONLY);
    peer.play([&] {
        peer.expect(wire::TPSEND).cd(CD).text("from the second").flags(TPRECVONLY);
        peer.send(hand_over(CD, "to the third"));
        peer.expect(wire::TPDISCON).cd(CD);
    });
    Member(number, [&] {
        Side side;
        EXPECT_EQ(side.send(CD, "from the second"), 1);
    });
    Member(number, [&] {
        Side side;
        EXPECT_EQ(side.receive(CD), -1);
        EXPECT_EQ(side.event, TPEV_SENDONLY);
        EXPECT_EQ(side.text(), "to the third");
    });
    EXPECT_EQ(tpdiscon(CD), 1);
    peer.done();
    expect_gone(CD);
}

// ---- time, and the end of the connection

TEST_F(ConversationThreads, LateConnectIsDisconnectedByWhoeverReadsIt)
{
    ASSERT_TRUE(open_shared({.block_time = 1}));
    Member(number, [&] {
        Side side;
        EXPECT_EQ(side.connect(TPSENDONLY), -1);
        EXPECT_EQ(gettperrno(), TPETIME);
    });
    wire::frame request = peer.expect(wire::TPCONNECT).frame;
    peer.play([&] {
        wire::frame call = peer.expect(wire::TPCALL).frame;
        peer.reply_to(request, "", {.cd = 55});
        peer.expect(wire::TPDISCON).cd(55).header_only();
        peer.reply_to(call, "x");
    });
    EXPECT_EQ(call(TPNOTIME), 1);
    peer.done();
    EXPECT_EQ(shared->conv_active, 0);
    EXPECT_FALSE(is_open(55));
}

TEST_F(ConversationThreads, OneThreadsTimeOutLeavesTheOthersWaiting)
{
    ASSERT_TRUE(open_shared());
    open(TPRECVONLY, 5);
    open(TPRECVONLY, 6);
    {
        Member patient(number, [&] {
            Side side;
            EXPECT_EQ(side.receive(5), 1);
            EXPECT_EQ(side.text(), "at last");
        });
        await_waiters(0);
        Member(number, [&] {
            Side side;
            EXPECT_EQ(side.receive(6, TPNOBLOCK), -1);
            EXPECT_EQ(gettperrno(), TPEBLOCK);
        });
        peer.send(turn(6, "kept"));
        peer.send(turn(5, "at last"));
    }
    EXPECT_EQ(receive(6), 1);
    EXPECT_EQ(reply_data(), "kept");
    expect_idle();
}

// Those whom nobody wakes have their limit.
TEST_F(ConversationThreads, EndOfTheConnectionEndsEveryWaitWithALimit)
{
    constexpr int THREADS = 4;
    ASSERT_TRUE(open_shared({.block_time = 6}));
    for (int t = 0; t < THREADS; t++)
        open(TPRECVONLY, t);
    std::atomic<int> closed{0};
    {
        std::vector<std::unique_ptr<Member>> members;
        for (int t = 0; t < THREADS; t++)
            members.push_back(std::make_unique<Member>(number, [t, &closed] {
                Side side;
                EXPECT_EQ(side.receive(t), -1);
                int error = gettperrno();
                EXPECT_TRUE(error == TPECLOSE || error == TPESYSTEM || error == TPETIME) << error;
                closed += error == TPECLOSE;
                EXPECT_EQ(side.receive(t), -1);
                EXPECT_EQ(tpdiscon(t), -1);
            }));
        await_waiters(THREADS - 1);
        peer.hang_up();
    }
    EXPECT_GE(closed, 1);
    EXPECT_TRUE(is_unlocked(&shared->msg_mutex));
}

// ---- a conversation that is ended under the one who waits

TEST_F(ConversationThreads, MessageOfAnEndedConversationDoesNotTouchTheNextOneInItsRow)
{
    for (const Arrival &one : AWAITED) {
        SCOPED_TRACE(one.msgtype);
        if (shared == nullptr) {
            ASSERT_TRUE(open_shared({.conv_size = 1}));
        }
        open(TPRECVONLY, 5);
        {
            Member receiver(number, [&] {
                Side side;
                EXPECT_EQ(side.receive(5, TPNOTIME), -1);
                EXPECT_TRUE(gettperrno() == TPEBADDESC || gettperrno() == TPESYSTEM) << gettperrno();
                EXPECT_EQ(side.event, 0);
            });
            await_waiters(0);
            EXPECT_EQ(tpdiscon(5), 1);
            peer.expect(wire::TPDISCON).cd(5);
            ASSERT_EQ(_create_conv_entry(9, CONV_OUT | TPRECVONLY, shared), 0);
            peer.send(ending(one.msgtype, 5, 17, one.flags, "late"));
            if (one.msgtype > 1000 && one.msgtype != 2005)
                peer.send(ending(2006, 0));  // the message is nobody's; this one ends every wait
        }
        ASSERT_TRUE(is_open(9));
        EXPECT_EQ(row(9)->flags, CONV_OUT | TPRECVONLY);
        EXPECT_EQ(row(9)->event, 0u);
        EXPECT_EQ(tpdiscon(9), 1);
        peer.expect(wire::TPDISCON).cd(9);
    }
}
