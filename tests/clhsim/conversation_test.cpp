// Conversational services: message by message on the wire, and as an application sees them.
#include "application.h"

#include <gtest/gtest.h>

static constexpr int32_t CONNECT = 5;
static constexpr int32_t SEND = 6;
static constexpr int32_t DISCON = 8;
static constexpr int32_t CONNECTED = 1005;
static constexpr int32_t NOT_CONNECTED = 2005;
static constexpr int32_t ENDED = 1007;
static constexpr int32_t FAILED = 3007;
static constexpr int32_t CLIENT_SENDS = 0x800;
static constexpr int32_t SERVICE_SENDS = 0x1000;

static Message connect_to(const std::string &service, const std::string &text, int32_t flags)
{
    Message message = string_call(service, text);
    message.msgtype = CONNECT;
    message.flags = flags;
    return message;
}

static Message send_to(int32_t cd, const std::string &text, int32_t flags = 0)
{
    Message message = call_of("", text + std::string(1, '\0'), SEND);
    message.cd = cd;
    message.flags = flags;
    return message;
}

static Message turn(int32_t cd, const std::string &text)
{
    return send_to(cd, text, SERVICE_SENDS);
}

// The descriptor, or -1.
static int32_t opened(Link &link, const std::string &service, const std::string &text, int32_t flags)
{
    Message reply = link.exchange(connect_to(service, text, flags));
    EXPECT_EQ(reply.msgtype, CONNECTED) << service;
    EXPECT_EQ(reply.flags, 0);
    return reply.msgtype == CONNECTED ? reply.cd : -1;
}

// --- On the wire.

TEST(ClhsimConversation, ConnectReplyBearsADescriptorAndNoData)
{
    Simulator server;
    Link link = server.log_in();
    Message request = connect_to("TURNS", "hello", CLIENT_SENDS);
    request.seqno = 55;
    Message reply = link.exchange(request);
    EXPECT_EQ(reply.msgtype, CONNECTED);
    EXPECT_EQ(reply.seqno, 55);
    EXPECT_EQ(reply.buftype, HEADER_ONLY);
    EXPECT_EQ(reply.datalen, 0);
    EXPECT_GT(reply.cd, 0);
    Message second = link.exchange(request);
    EXPECT_NE(second.cd, reply.cd);
    EXPECT_EQ(server.stat("conversations"), 2);
}

TEST(ClhsimConversation, ConnectIsRefusedWithTheReason)
{
    Simulator server;
    Link link = server.log_in();
    struct Refusal {
        const char *service;
        const char *text;
        int32_t flags;
        int32_t error;
    };
    for (const Refusal &wrong :
         {Refusal{"NOSUCH", "", CLIENT_SENDS, 6}, Refusal{"TOUPPER", "", CLIENT_SENDS, 6},
          Refusal{"TURNS", "", 0, 4}, Refusal{"TURNS", "", CLIENT_SENDS | SERVICE_SENDS, 4},
          Refusal{"STREAM", "many", SERVICE_SENDS, 4}, Refusal{"STREAM", "100001", SERVICE_SENDS, 4},
          Refusal{"STREAM", "-1", SERVICE_SENDS, 4}, Refusal{"STREAM", "1 keep", SERVICE_SENDS, 4},
          Refusal{"STREAM", "1 end 2", SERVICE_SENDS, 4}, Refusal{"HANGUP", "x", SERVICE_SENDS, 4},
          Refusal{"HANGUP", "1 2 3", SERVICE_SENDS, 4},
          Refusal{"CONVFAIL", "1 99999999999", CLIENT_SENDS, 4}}) {
        Message reply = link.exchange(connect_to(wrong.service, wrong.text, wrong.flags));
        EXPECT_EQ(reply.msgtype, NOT_CONNECTED) << wrong.service << " " << wrong.text;
        EXPECT_EQ(reply.flags, wrong.error) << wrong.service << " " << wrong.text;
    }
    EXPECT_EQ(server.command("conversations"), "ok");
}

TEST(ClhsimConversation, ThousandAndTwentyFourAreOpenAtMost)
{
    Simulator server;
    Link link = server.log_in();
    for (int i = 0; i < 1024; i++)
        link.send(connect_to("TURNS", "", CLIENT_SENDS));
    for (int i = 0; i < 1024; i++)
        ASSERT_EQ(link.receive().msgtype, CONNECTED) << i;
    Message reply = link.exchange(connect_to("TURNS", "", CLIENT_SENDS));
    EXPECT_EQ(reply.msgtype, NOT_CONNECTED);
    EXPECT_EQ(reply.flags, 5);
    Link other = server.log_in();
    opened(other, "TURNS", "", CLIENT_SENDS);
}

TEST(ClhsimConversation, StreamSendsAndEnds)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "STREAM", "3", SERVICE_SENDS);
    for (int i = 1; i <= 3; i++) {
        Message message = link.receive();
        EXPECT_EQ(message.msgtype, SEND);
        EXPECT_EQ(message.cd, cd);
        EXPECT_EQ(message.flags, 0);
        EXPECT_EQ(message.buftype, STRING);
        EXPECT_EQ(message.text(), "message " + std::to_string(i));
    }
    Message end = link.receive();
    EXPECT_EQ(end.msgtype, ENDED);
    EXPECT_EQ(end.cd, cd);
    EXPECT_EQ(end.rcode, 3);
    EXPECT_EQ(end.text(), "3 messages");
    EXPECT_EQ(server.command("conversations"), "ok");
}

TEST(ClhsimConversation, StreamHandsTheRightOverAndTakesANewOrder)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "STREAM", "2 give", SERVICE_SENDS);
    EXPECT_EQ(link.receive().flags, 0);
    EXPECT_EQ(link.receive().flags, SERVICE_SENDS) << "the same bit hands over either way";
    EXPECT_EQ(server.command("conversations"),
              "  1 " + std::to_string(cd) + " STREAM receives in 0 out 2\nok");
    EXPECT_EQ(link.exchange(turn(cd, "1 give")).flags, SERVICE_SENDS);
    EXPECT_EQ(link.exchange(turn(cd, "0 give")).text(), "");
    Message end = link.exchange(turn(cd, ""));
    EXPECT_EQ(end.msgtype, ENDED) << "nothing more was asked for";
    EXPECT_EQ(end.rcode, 0);
}

TEST(ClhsimConversation, StreamWaitsForTheRightThatTheClientHas)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "STREAM", "1", CLIENT_SENDS);
    link.send(send_to(cd, "a remark"));
    EXPECT_EQ(link.exchange(call_of("ECHO", "between")).data, "between") << "nothing came for the remark";
    EXPECT_EQ(link.exchange(turn(cd, "")).text(), "message 1");
    EXPECT_EQ(link.receive().msgtype, ENDED);
}

TEST(ClhsimConversation, StreamFailsOnAnOrderThatMakesNoSense)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "STREAM", "1 give", SERVICE_SENDS);
    link.receive();
    Message end = link.exchange(turn(cd, "more"));
    EXPECT_EQ(end.msgtype, FAILED);
    EXPECT_EQ(end.flags, 4);
    EXPECT_EQ(end.rcode, 1);
}

TEST(ClhsimConversation, LongStreamArrivesWhole)
{
    Simulator server;
    Link link = server.log_in();
    opened(link, "STREAM", "20000", SERVICE_SENDS);
    for (int i = 1; i <= 20000; i++)
        ASSERT_EQ(link.receive().text(), "message " + std::to_string(i));
    EXPECT_EQ(link.receive().rcode, 20000);
}

TEST(ClhsimConversation, TurnsAnswersWithWhatItWasTold)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "TURNS", "", CLIENT_SENDS);
    link.send(send_to(cd, "first half"));
    Message answer = link.exchange(turn(cd, "second half"));
    EXPECT_EQ(answer.msgtype, SEND);
    EXPECT_EQ(answer.flags, SERVICE_SENDS);
    EXPECT_EQ(answer.text(), "second half");
    Message bytes = turn(cd, "");
    bytes.buftype = CARRAY;
    bytes.subtype = "kind";
    bytes.data = std::string("a\0b", 3);
    answer = link.exchange(bytes);
    EXPECT_EQ(answer.buftype, CARRAY);
    EXPECT_EQ(answer.subtype, "kind");
    EXPECT_EQ(answer.data, std::string("a\0b", 3));
    Message end = link.exchange(turn(cd, "end"));
    EXPECT_EQ(end.msgtype, ENDED);
    EXPECT_EQ(end.rcode, 2);
}

TEST(ClhsimConversation, TurnsAnswersTheConnectToo)
{
    Simulator server;
    Link link = server.log_in();
    opened(link, "TURNS", "hello", SERVICE_SENDS);
    EXPECT_EQ(link.receive().text(), "hello");
    opened(link, "TURNS", "end", SERVICE_SENDS);
    EXPECT_EQ(link.receive().msgtype, ENDED);
}

TEST(ClhsimConversation, HangupComesInTheMiddle)
{
    Simulator server;
    Link link = server.log_in();
    int32_t at_once = opened(link, "HANGUP", "0 9", CLIENT_SENDS);
    Message end = link.receive();
    EXPECT_EQ(end.msgtype, DISCON);
    EXPECT_EQ(end.cd, at_once);
    EXPECT_EQ(end.rcode, 9);

    opened(link, "HANGUP", "2", SERVICE_SENDS);
    EXPECT_EQ(link.receive().text(), "message 1");
    EXPECT_EQ(link.receive().text(), "message 2");
    EXPECT_EQ(link.receive().msgtype, DISCON);

    int32_t listening = opened(link, "HANGUP", "2", CLIENT_SENDS);
    link.send(send_to(listening, "one"));
    link.send(send_to(listening, "two"));
    EXPECT_EQ(link.receive().msgtype, DISCON);
    link.send(send_to(listening, "three, on its way"));
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next") << "what was on its way isn't answered";
    EXPECT_EQ(server.stat("ignored"), 1);
}

TEST(ClhsimConversation, FailureHasItsEventAndCode)
{
    Simulator server;
    Link link = server.log_in();
    opened(link, "CONVFAIL", "1 42", SERVICE_SENDS);
    EXPECT_EQ(link.receive().msgtype, SEND);
    Message end = link.receive();
    EXPECT_EQ(end.msgtype, FAILED);
    EXPECT_EQ(end.flags, 4);
    EXPECT_EQ(end.rcode, 42);
    EXPECT_EQ(end.text(), "failed after 1 messages");
    opened(link, "CONVFAIL", "0 -3 2", CLIENT_SENDS);
    end = link.receive();
    EXPECT_EQ(end.flags, 2);
    EXPECT_EQ(end.rcode, -3);
}

TEST(ClhsimConversation, SendingWithoutTheRightEndsIt)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "STREAM", "1 give", CLIENT_SENDS);
    server.command("converse 1 " + std::to_string(cd) + " send hello");
    EXPECT_EQ(link.receive().text(), "hello");
    Message end = link.exchange(send_to(cd, "me too"));
    EXPECT_EQ(end.msgtype, FAILED);
    EXPECT_EQ(end.flags, 2);
    EXPECT_EQ(server.stat("conversation_faults"), 1);
}

TEST(ClhsimConversation, ClientsDisconnectIsTaken)
{
    Simulator server;
    Link link = server.log_in();
    int32_t cd = opened(link, "TURNS", "", CLIENT_SENDS);
    Message discon;
    discon.msgtype = DISCON;
    discon.cd = cd;
    link.send(discon);
    link.send(discon);
    link.send(turn(cd, "still there?"));
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next");
    EXPECT_EQ(server.stat("disconnected"), 1);
    EXPECT_EQ(server.stat("ignored"), 2);
}

TEST(ClhsimConversation, NobodyReachesAnotherClientsConversation)
{
    Simulator server;
    Link owner = server.log_in();
    Link thief = server.log_in();
    int32_t cd = opened(owner, "TURNS", "", CLIENT_SENDS);
    thief.send(turn(cd, "end"));
    EXPECT_EQ(thief.exchange(call_of("ECHO", "next")).data, "next");
    EXPECT_EQ(owner.exchange(turn(cd, "mine")).text(), "mine");
}

TEST(ClhsimConversation, ConverseSpeaksFromOutside)
{
    Simulator server;
    Link link = server.log_in();
    struct Spoken {
        const char *kind;
        int32_t msgtype;
        int32_t flags;
        bool ends;
    };
    for (const Spoken &spoken : {Spoken{"send", SEND, 0, false}, Spoken{"give", SEND, SERVICE_SENDS, false},
                                 Spoken{"end", ENDED, 0, true}, Spoken{"fail", FAILED, 4, true},
                                 Spoken{"error", FAILED, 2, true}, Spoken{"disconnect", DISCON, 0, true},
                                 Spoken{"refuse", NOT_CONNECTED, 4, true}, Spoken{"reject", 2007, 4, true}}) {
        int32_t cd = opened(link, "TURNS", "", CLIENT_SENDS);
        std::string where = "converse 1 " + std::to_string(cd) + " ";
        EXPECT_EQ(server.command(where + spoken.kind + " 12 monkeys"), "ok 1 conversation");
        Message message = link.receive();
        EXPECT_EQ(message.msgtype, spoken.msgtype) << spoken.kind;
        EXPECT_EQ(message.flags, spoken.flags) << spoken.kind;
        EXPECT_EQ(message.cd, cd) << spoken.kind;
        EXPECT_EQ(message.rcode, spoken.ends ? 12 : 0) << spoken.kind;
        EXPECT_EQ(message.text(), "12 monkeys") << spoken.kind;
        EXPECT_EQ(server.command(where + "disconnect"),
                  spoken.ends ? "error no such conversation" : "ok 1 conversation")
            << spoken.kind;
        if (!spoken.ends)
            link.receive();
    }
    EXPECT_EQ(server.command("converse all all end"), "ok 0 conversations");
    for (const char *wrong : {"converse 1 1 sing", "converse 1 x send", "converse 1 -1 send", "converse 1 1"})
        EXPECT_EQ(server.command(wrong).rfind("error ", 0), 0u) << wrong;
}

TEST(ClhsimConversation, FaultsStrikeItsMessages)
{
    Simulator server;
    Link link = server.log_in();
    server.command("refuse TURNS 10 1");
    Message reply = link.exchange(connect_to("TURNS", "", CLIENT_SENDS));
    EXPECT_EQ(reply.msgtype, NOT_CONNECTED);
    EXPECT_EQ(reply.flags, 10);

    server.command("giveback TURNS 1");
    reply = link.exchange(connect_to("TURNS", "hello", CLIENT_SENDS));
    EXPECT_EQ(reply.msgtype, NOT_CONNECTED);
    EXPECT_EQ(reply.xflags & 0x20000000u, 0x20000000u);
    EXPECT_EQ(reply.text(), "hello");

    server.command("drop STREAM 2");
    link.send(connect_to("STREAM", "2", SERVICE_SENDS));
    EXPECT_EQ(link.receive().text(), "message 2");
    EXPECT_EQ(link.receive().msgtype, ENDED);
}

TEST(ClhsimConversation, CutMessageIsTheLastOfTheConnection)
{
    Simulator server;
    Link link = server.log_in();
    server.command("truncate STREAM 10 1");
    link.send(connect_to("STREAM", "5", SERVICE_SENDS));
    EXPECT_EQ(link.read_rest().size(), 10u);
    Link next = server.log_in();
    EXPECT_EQ(next.exchange(call_of("ECHO", "fine")).data, "fine");
}

// --- As an application.

// Opens one, with text or without.
static int opened(const char *service, const char *text, long flags)
{
    Buffer buffer(text);
    int cd = tpconnect(unconst(service), buffer.data, 0, flags);
    EXPECT_NE(cd, -1) << tpstrerror(gettperrno());
    return cd;
}

// What a tprecv came to: the event, 0 for a plain message, -1 for an error that is none.
static long received(int cd, Buffer &buffer, long flags = 0)
{
    long event = -1;
    int result = tprecv(cd, &buffer.data, &buffer.length, flags, &event);
    if (result == 1)
        return event;
    return gettperrno() == TPEEVENT ? event : -1;
}

static int sent(int cd, Buffer &buffer, long flags = 0)
{
    long event = 0;
    return tpsend(cd, buffer.data, 0, flags, &event);
}

TEST(ClhsimDialogue, StreamIsReadToItsEnd)
{
    Domain domain;
    int cd = opened("STREAM", "100", TPRECVONLY);
    Buffer buffer("STRING", 200);
    for (int i = 1; i <= 100; i++) {
        ASSERT_EQ(received(cd, buffer), 0) << i;
        ASSERT_EQ(buffer.data, "message " + std::to_string(i));
    }
    EXPECT_EQ(received(cd, buffer), TPEV_SVCSUCC);
    EXPECT_EQ(gettpurcode(), 100);
    EXPECT_STREQ(buffer.data, "100 messages");
    EXPECT_EQ(received(cd, buffer), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(domain.command("conversations"), "ok");
}

TEST(ClhsimDialogue, ThousandTurns)
{
    Domain domain;
    int cd = opened("TURNS", "", TPSENDONLY);
    Buffer buffer("STRING", 200);
    for (int i = 0; i < 1000; i++) {
        std::string text = "turn " + std::to_string(i);
        strcpy(buffer.data, text.c_str());
        ASSERT_EQ(sent(cd, buffer, TPRECVONLY), 1);
        ASSERT_EQ(received(cd, buffer), TPEV_SENDONLY);
        ASSERT_EQ(buffer.data, text);
    }
    strcpy(buffer.data, "end");
    ASSERT_EQ(sent(cd, buffer, TPRECVONLY), 1);
    EXPECT_EQ(received(cd, buffer), TPEV_SVCSUCC);
    EXPECT_EQ(gettpurcode(), 1000);
    EXPECT_EQ(domain.stat("conversation_faults"), 0);
}

TEST(ClhsimDialogue, TwoConversationsAndACallDontMix)
{
    Domain domain;
    int stream = opened("STREAM", "2", TPRECVONLY);
    int turns = opened("TURNS", "", TPSENDONLY);
    Buffer text("between");
    ASSERT_EQ(call("TOUPPER", text), 1);
    EXPECT_STREQ(text.data, "BETWEEN");
    ASSERT_EQ(sent(turns, text, TPRECVONLY), 1);
    Buffer buffer("STRING", 200);
    EXPECT_EQ(received(turns, buffer), TPEV_SENDONLY);
    EXPECT_STREQ(buffer.data, "BETWEEN");
    EXPECT_EQ(received(stream, buffer), 0) << "kept until it is asked for";
    EXPECT_EQ(received(stream, buffer), 0);
    EXPECT_STREQ(buffer.data, "message 2");
    EXPECT_EQ(received(stream, buffer), TPEV_SVCSUCC);
    EXPECT_EQ(tpdiscon(turns), 1);
    EXPECT_EQ(call("TOUPPER", text), 1);
    EXPECT_EQ(domain.stat("disconnected"), 1);
}

TEST(ClhsimDialogue, HangupIsAnEventForBothCalls)
{
    Domain domain;
    Buffer buffer("STRING", 200);
    int cd = opened("HANGUP", "1 7", TPRECVONLY);
    EXPECT_EQ(received(cd, buffer), 0);
    EXPECT_EQ(received(cd, buffer), TPEV_DISCONIMM);
    EXPECT_EQ(gettpurcode(), 7);

    cd = opened("HANGUP", "0 8", TPSENDONLY);
    Buffer text("abc");
    ASSERT_EQ(call("ECHO", text), 1) << "reads the disconnect on the way";
    long event = 0;
    EXPECT_EQ(tpsend(cd, text.data, 0, 0, &event), -1);
    EXPECT_EQ(gettperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_DISCONIMM);
}

TEST(ClhsimDialogue, FailureDeliversEventAndCode)
{
    Domain domain;
    Buffer buffer("STRING", 200);
    int cd = opened("CONVFAIL", "0 17", TPRECVONLY);
    EXPECT_EQ(received(cd, buffer), TPEV_SVCFAIL);
    EXPECT_EQ(gettpurcode(), 17);
    EXPECT_STREQ(buffer.data, "failed after 0 messages");
    cd = opened("CONVFAIL", "0 18 2", TPRECVONLY);
    EXPECT_EQ(received(cd, buffer), TPEV_SVCERR);
    EXPECT_EQ(gettpurcode(), 18);
}

TEST(ClhsimDialogue, RefusedConnectIsAnError)
{
    Domain domain;
    EXPECT_EQ(tpconnect(unconst("NOSUCH"), nullptr, 0, TPSENDONLY), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    Buffer wrong("many");
    EXPECT_EQ(tpconnect(unconst("STREAM"), wrong.data, 0, TPRECVONLY), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
}

TEST(ClhsimDialogue, LateConnectIsTakenBack)
{
    Domain domain({"--block-time", "1"});
    ASSERT_EQ(tpstart(nullptr), 0);
    domain.command("delay TURNS 3000 1");
    EXPECT_EQ(tpconnect(unconst("TURNS"), nullptr, 0, TPSENDONLY), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    // Its answer comes behind the connect's, and then the conversation is over on both ends.
    Buffer slow("3");
    ASSERT_EQ(call("SLEEP", slow, TPNOTIME), 1);
    ASSERT_EQ(call("ECHO", slow, TPNOTIME), 1);
    EXPECT_EQ(domain.stat("disconnected"), 1);
    EXPECT_EQ(domain.command("conversations"), "ok");
}

TEST(ClhsimDialogue, LargeMessagesGoCompressedBothWays)
{
    Domain domain({"--threshold", "1000"});
    int cd = opened("TURNS", "", TPSENDONLY);
    std::string text(300000, 'x');
    Buffer buffer(text);
    ASSERT_EQ(sent(cd, buffer, TPRECVONLY), 1);
    EXPECT_EQ(received(cd, buffer), TPEV_SENDONLY);
    EXPECT_EQ(buffer.data, text);
    EXPECT_EQ(domain.stat("compressed_in"), 1);
    EXPECT_EQ(domain.stat("compressed_out"), 1);
}

TEST(ClhsimDialogue, EndedSessionLeavesNoConversation)
{
    Domain domain;
    opened("TURNS", "", TPSENDONLY);
    ASSERT_EQ(tpend(), 1);
    Link link = domain.log_in();
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next");
    EXPECT_EQ(domain.command("conversations"), "ok");
}
