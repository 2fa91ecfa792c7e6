// What the tests of conversations share: a conversation with the scripted peer, and ways for its messages to
// arrive.
#ifndef VORN_TESTS_CALLS_CONVERSATION_H
#define VORN_TESTS_CALLS_CONVERSATION_H

#include "calls/convapi.h"
#include "calls/fixture.h"
#include "vorn/conversation.h"

#include <vector>

constexpr uint32_t ROOM_FOR_A_TRAILER = 0x2000000;  // in `xflags` of every message made by the library

// A message of the peer's side.
static inline wire::frame turn(int cd, const std::string &data, uint32_t flags = 0)
{
    return wire::message(wire::TPSEND, data, {.flags = flags, .cd = cd});
}
static inline wire::frame hand_over(int cd, const std::string &data)
{
    return turn(cd, data, TPRECVONLY);
}
static inline wire::frame ending(int32_t msgtype, int cd, int32_t rcode = 0, uint32_t flags = 0,
                                 const std::string &data = "")
{
    return wire::message(msgtype, data, {.rcode = rcode, .flags = flags, .cd = cd});
}

struct ConversationTest : CallTest {
    static constexpr int CD = 40;
    static constexpr int32_t DONE = wire::TPRECV + wire::REPLY, FAILED = 3007,
                             REFUSED = wire::TPRECV + wire::EREPLY,
                             NOT_CONNECTED = wire::TPCONNECT + wire::EREPLY;
    long event = -1;

    int connect(long flags, const char *name = "DIALOG") { return note(tpconnect(svc(name), in, 0, flags)); }
    int send(int cd, long flags = 0)
    {
        event = -1;
        return tpsend(cd, in, 0, flags, &event);
    }
    int receive(int cd, long flags = 0)
    {
        event = -1;
        len = -1;
        return note(tprecv(cd, &out, &len, flags, &event));
    }

    // A conversation that stands, with this descriptor.
    int open(long flags, int cd = CD)
    {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", {.cd = cd});
        });
        int got = connect(flags);
        peer.done();
        EXPECT_EQ(got, cd) << get_tperrno();
        return got;
    }

    // Lets messages arrive while nobody waits for them: they come ahead of a call's reply. The call stands
    // outside any transaction.
    void store(const std::vector<wire::frame> &messages)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            std::string bytes;
            for (const wire::frame &one : messages)
                bytes += wire::encode(one);
            peer.send_raw(bytes + wire::encode(wire::answer(peer.last)));
        });
        char *ignored = new_buffer("STRING");
        long length;
        EXPECT_EQ(tpcall(svc("PUMP"), nullptr, 0, &ignored, &length, TPNOTRAN), 1) << get_tperrno();
        tpfree(ignored);
        peer.done();
    }

    // The message arrives while tprecv waits for it, or is on its way there.
    int receive_meanwhile(int cd, const wire::frame &message, long flags = 0)
    {
        peer.play([&] { peer.send(message); });
        int result = receive(cd, flags);
        peer.done();
        return result;
    }

    bool is_open(int cd) { return _get_conv_cd_ind(cd, block()) >= 0; }
    conv_elem *row(int cd)
    {
        int index = _get_conv_cd_ind(cd, block());
        EXPECT_GE(index, 0) << cd;
        return &block()->conv[index < 0 ? 0 : index];
    }

    // tprecv or tpsend ended the conversation with an event; nothing of it is left.
    void expect_gone(int cd)
    {
        EXPECT_FALSE(is_open(cd));
        EXPECT_EQ(block()->conv_active, 0);
        EXPECT_EQ(send(cd), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(receive(cd), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(tpdiscon(cd), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
    }

    // This side has the right to send: the peer hears a message.
    void expect_may_send(int cd)
    {
        ASSERT_EQ(send(cd), 1) << get_tperrno();
        peer.expect(wire::TPSEND).cd(cd);
    }
    void expect_may_not_send(int cd)
    {
        EXPECT_EQ(send(cd), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
        peer.expect_nothing();
    }

    // The session serves on, and nothing but the call's request is sent meanwhile.
    void expect_silence(void)
    {
        int stage = block()->txinfo->tx_stage;
        block()->txinfo->tx_stage = TX_STAGE_NONE;
        expect_usable();
        block()->txinfo->tx_stage = stage;
    }
};

#endif
