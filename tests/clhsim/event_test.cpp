// Events, broadcasts and notifications: from one client through the server to others.
#include "application.h"

#include <gtest/gtest.h>
#include <thread>

static constexpr int32_t POST = 12;
static constexpr int32_t BROADCAST = 13;
static constexpr int32_t NOTIFY = 14;
static constexpr int32_t SUBSCRIBE = 15;
static constexpr int32_t UNSUBSCRIBE = 16;
static constexpr int32_t SUBSCRIBE2 = 40;
static constexpr int32_t ACKNOWLEDGED = 1014;
static constexpr int32_t WANTS_ACK = 0x8000;
static constexpr int32_t ANY_NODE = 0x100;
static constexpr int32_t ANY_USER = 0x200;
static constexpr int32_t ANY_CLIENT = 0x400;

static Message notice_of(int32_t msgtype, const std::string &name)
{
    Message message;
    message.msgtype = msgtype;
    message.svcname = name;
    return message;
}

static Message text_of(int32_t msgtype, const std::string &name, const std::string &text)
{
    Message message = string_call(name, text);
    message.msgtype = msgtype;
    return message;
}

// Nothing has come for the client: what it asks for now is the next thing that it gets.
static bool is_quiet(Link &link)
{
    return link.exchange(string_call("ECHO", "quiet")).text() == "quiet";
}

static void subscribe(Link &link, const std::string &expression)
{
    link.send(notice_of(SUBSCRIBE, expression));
    EXPECT_TRUE(is_quiet(link)) << "a subscription isn't answered";
}

static int32_t receivers_of(Link &link, const std::string &event)
{
    Message reply = link.exchange(text_of(POST, event, "text of " + event));
    EXPECT_EQ(reply.msgtype, 1012);
    return reply.rcode;
}

// --- On the wire.

TEST(ClhsimEvent, GoesToWhoSubscribedByName)
{
    Simulator server;
    Link poster = server.log_in();
    Link reader = server.log_in();
    Link bystander = server.log_in();
    subscribe(reader, "price.tea");
    Message post = text_of(POST, "price.tea", "2.50");
    post.seqno = 41;
    post.subtype = "kind";
    post.cd = 3;
    Message reply = poster.exchange(post);
    EXPECT_EQ(reply.msgtype, 1012);
    EXPECT_EQ(reply.seqno, 41);
    EXPECT_EQ(reply.rcode, 1);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.datalen, 0);

    Message event = reader.receive();
    EXPECT_EQ(event.msgtype, POST);
    EXPECT_EQ(event.svcname, "price.tea");
    EXPECT_EQ(event.subtype, "kind");
    EXPECT_EQ(event.buftype, STRING);
    EXPECT_EQ(event.text(), "2.50");
    EXPECT_EQ(event.flags, 0);
    EXPECT_EQ(event.seqno, 0);
    EXPECT_EQ(event.cd, 0);
    EXPECT_TRUE(is_quiet(bystander));
    EXPECT_EQ(server.stat("delivered"), 1);
}

TEST(ClhsimEvent, ExpressionIsAPattern)
{
    Simulator server;
    Link poster = server.log_in();
    Link reader = server.log_in();
    subscribe(reader, "price.*");
    subscribe(reader, "stock.[a-c]?");
    EXPECT_EQ(receivers_of(poster, "price.tea"), 1);
    EXPECT_EQ(receivers_of(poster, "price."), 1);
    EXPECT_EQ(receivers_of(poster, "price"), 0);
    EXPECT_EQ(receivers_of(poster, "old price.tea"), 0) << "the whole name";
    EXPECT_EQ(receivers_of(poster, "stock.b7"), 1);
    EXPECT_EQ(receivers_of(poster, "stock.d7"), 0);
    for (const char *name : {"price.tea", "price.", "stock.b7"})
        EXPECT_EQ(reader.receive().svcname, name);
    EXPECT_TRUE(is_quiet(reader));
}

TEST(ClhsimEvent, ComesOnceToWhoSubscribedTwice)
{
    Simulator server;
    Link poster = server.log_in();
    Link reader = server.log_in();
    subscribe(reader, "tea");
    subscribe(reader, "tea");
    subscribe(reader, "t*");
    EXPECT_EQ(receivers_of(poster, "tea"), 1);
    EXPECT_EQ(reader.receive().svcname, "tea");
    EXPECT_TRUE(is_quiet(reader));
}

TEST(ClhsimEvent, UnsubscribingTakesBackOneSubscription)
{
    Simulator server;
    Link reader = server.log_in();
    subscribe(reader, "tea");
    subscribe(reader, "tea");
    for (int32_t left : {1, 0, 0}) {
        reader.send(notice_of(UNSUBSCRIBE, "tea"));
        Message message = reader.exchange(text_of(POST, "tea", "text"));
        if (left > 0)
            message = reader.receive();
        EXPECT_EQ(message.msgtype, 1012);
        EXPECT_EQ(message.rcode, left);
    }
    EXPECT_EQ(server.stat("ignored"), 1);
}

TEST(ClhsimEvent, PosterGetsItsOwnInFrontOfTheAnswer)
{
    Simulator server;
    Link link = server.log_in();
    subscribe(link, "*");
    EXPECT_EQ(link.exchange(text_of(POST, "tea", "text")).msgtype, POST);
    EXPECT_EQ(link.receive().rcode, 1);
}

TEST(ClhsimEvent, RefusedPostHasANegativeCode)
{
    Simulator server;
    Link link = server.log_in();
    subscribe(link, "*");
    server.command("refuse tea 12 1");
    Message reply = link.exchange(text_of(POST, "tea", "text"));
    EXPECT_EQ(reply.msgtype, 2012);
    EXPECT_EQ(reply.rcode, -1);
    EXPECT_EQ(reply.flags, 12);
    reply = link.exchange(text_of(POST, "", "text"));
    EXPECT_EQ(reply.msgtype, 2012);
    EXPECT_EQ(reply.flags, 4);
    EXPECT_TRUE(is_quiet(link));
}

TEST(ClhsimEvent, SubscriptionsAreListedAndLimited)
{
    Simulator server;
    Link link = server.log_in();
    Message second = notice_of(SUBSCRIBE2, "price.*");
    second.subtype = "a\nqueue";
    link.send(second);
    subscribe(link, "tea");
    EXPECT_EQ(server.command("subscriptions"), "  1 \"price.*\" \"a\\x0aqueue\"\n  1 \"tea\"\nok");
    for (int i = 0; i < 1030; i++)
        link.send(notice_of(SUBSCRIBE, "e" + std::to_string(i)));
    link.send(notice_of(SUBSCRIBE, ""));
    EXPECT_TRUE(is_quiet(link));
    EXPECT_EQ(server.stat("ignored"), 9);
    link.close();
    while (server.stat("open") > 0) {
    }
    EXPECT_EQ(server.command("subscriptions"), "ok");
}

TEST(ClhsimEvent, DataPassesAsItCame)
{
    Simulator server({"--threshold", "1000"});
    Link link = server.log_in();
    subscribe(link, "*");
    for (size_t size : {0, 1, 1023, 1024, 300000}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; i++)
            data[i] = static_cast<char>(i * 7);
        Message post = call_of("bytes", data, POST, CARRAY);
        Message event = link.exchange(post);
        EXPECT_TRUE(event.data == data) << size;
        EXPECT_EQ(event.buftype, CARRAY);
        EXPECT_EQ(event.compressed, size >= 1000);
        EXPECT_EQ(link.receive().msgtype, 1012);
    }
}

TEST(ClhsimEvent, ReaderThatDoesntReadKeepsNobody)
{
    Simulator server;
    Link poster = server.log_in();
    Link lazy = server.log_in();
    subscribe(lazy, "*");
    Message post = call_of("bytes", std::string(1 << 20, 'x'), POST, CARRAY);
    int32_t last = 1;
    for (int i = 0; i < 60 && last == 1; i++)
        last = poster.exchange(post).rcode;
    EXPECT_EQ(last, 0) << "it isn't counted any more";
    EXPECT_EQ(server.stat("undelivered"), 1);
}

// The client name stands over the words from offset 36 on, as plain bytes.
static std::string broadcast_of(int32_t flags, int32_t node, const std::string &user, const std::string &name)
{
    Message message = text_of(BROADCAST, user, "to all");
    message.flags = flags;
    message.rcode = node;
    std::string bytes = bytes_of(message);
    bytes.replace(36, name.size(), name);
    return bytes;
}

TEST(ClhsimBroadcast, GoesToAllOrByUserAndClientName)
{
    Simulator server;
    Link sender = server.connect();
    sender.start("ann", "desk");
    Link bob = server.connect();
    bob.start("bob", "till number 12345");
    Link bill = server.connect();
    bill.start("bill", "desk");
    server.connect();

    struct Choice {
        int32_t flags;
        const char *user;
        const char *name;
        bool ann, bob, bill;
    };
    const int32_t named_user = ANY_NODE | ANY_CLIENT;
    const int32_t named_client = ANY_NODE | ANY_USER;
    for (const Choice &choice :
         {Choice{ANY_NODE | ANY_USER | ANY_CLIENT, "", "", true, true, true},
          Choice{named_user, "bob", "", false, true, false}, Choice{named_user, "b*", "", false, true, true},
          Choice{named_user, "nobody", "", false, false, false},
          Choice{named_client, "", "desk", true, false, true},
          Choice{named_client, "", "till number 12345", false, true, false},
          Choice{named_client, "", "?esk", true, false, true},
          Choice{ANY_NODE, "b*", "d*", false, false, true}}) {
        sender.send(broadcast_of(choice.flags, -1, choice.user, choice.name));
        struct {
            Link *link;
            bool chosen;
        } clients[] = {{&sender, choice.ann}, {&bob, choice.bob}, {&bill, choice.bill}};
        for (auto &client : clients) {
            // The sender's next request is read behind the broadcast, and so is everybody's after its answer.
            client.link->send(string_call("ECHO", "quiet"));
            Message message = client.link->receive();
            EXPECT_EQ(message.msgtype, client.chosen ? BROADCAST : 1003) << choice.user << "/" << choice.name;
            if (client.chosen) {
                EXPECT_EQ(message.text(), "to all");
                EXPECT_EQ(message.flags, 0);
                EXPECT_EQ(client.link->receive().text(), "quiet");
            }
        }
    }
    EXPECT_EQ(server.stat("broadcasts"), 8);
}

TEST(ClhsimBroadcast, NodeMustBeThisOne)
{
    Simulator server({"--nodes", "A,B,C", "--node-number", "1"});
    Link link = server.log_in();
    link.send(broadcast_of(ANY_USER | ANY_CLIENT, 0, "", ""));
    link.send(broadcast_of(ANY_USER | ANY_CLIENT, 2, "", ""));
    EXPECT_TRUE(is_quiet(link));
    link.send(broadcast_of(ANY_USER | ANY_CLIENT, 1, "", ""));
    EXPECT_EQ(link.receive().msgtype, BROADCAST);
}

TEST(ClhsimBroadcast, SubtypeLivesWhereNoNameIsGiven)
{
    Simulator server;
    Link link = server.log_in();
    Message message = text_of(BROADCAST, "", "text");
    message.flags = ANY_NODE | ANY_USER | ANY_CLIENT;
    message.subtype = "kind";
    EXPECT_EQ(link.exchange(message).subtype, "kind");
    link.send(broadcast_of(ANY_NODE | ANY_USER, -1, "", "*****************"));
    EXPECT_EQ(link.receive().subtype, "");
}

static Message notify_to(int32_t identity, int32_t flags, int32_t seqno = 1)
{
    Message message = text_of(NOTIFY, "_notify", "wake up");
    message.cd = identity;
    message.flags = flags;
    message.seqno = seqno;
    return message;
}

static int32_t identity_of(Link &link)
{
    return atoi(link.exchange(string_call("WHOAMI", "")).text().c_str());
}

TEST(ClhsimNotify, GoesToTheIdentityOfTheStartReply)
{
    Simulator server(
        {"--node-number", "3", "--clh-number", "5", "--nodes", "A,B,C,D", "--first-client", "77"});
    Link sender = server.log_in();
    Link reader = server.log_in();
    EXPECT_EQ(identity_of(sender), 3 * 0x200000 + 5 * 0x4000 + 77);
    EXPECT_EQ(identity_of(reader), 3 * 0x200000 + 5 * 0x4000 + 78);
    EXPECT_NE(server.command("clients").find(" identity " + std::to_string(identity_of(reader)) + "\n"),
              std::string::npos);
    sender.send(notify_to(identity_of(reader), 0));
    EXPECT_TRUE(is_quiet(sender)) << "no answer is wanted";
    Message message = reader.receive();
    EXPECT_EQ(message.msgtype, NOTIFY);
    EXPECT_EQ(message.text(), "wake up");
    EXPECT_EQ(message.flags, 0);
    EXPECT_EQ(message.srcid, 0);
    for (int32_t nobody : {78, 0, -1, INT32_MIN})
        sender.send(notify_to(nobody, 0));
    EXPECT_TRUE(is_quiet(sender));
    EXPECT_TRUE(is_quiet(reader));
    EXPECT_EQ(server.stat("undelivered"), 4);
}

static Message acknowledgement(int32_t number)
{
    Message message;
    message.msgtype = ACKNOWLEDGED;
    message.cd = number;
    return message;
}

TEST(ClhsimNotify, AcknowledgementTravelsBack)
{
    Simulator server;
    Link sender = server.log_in();
    Link reader = server.log_in();
    sender.send(notify_to(2, WANTS_ACK, 31));
    sender.send(notify_to(2, WANTS_ACK, 32));
    EXPECT_TRUE(is_quiet(sender)) << "nobody has acknowledged it yet";
    Message first = reader.receive();
    Message second = reader.receive();
    EXPECT_EQ(first.flags, WANTS_ACK);
    EXPECT_NE(first.srcid, second.srcid);
    reader.send(acknowledgement(second.srcid));
    Message reply = sender.receive();
    EXPECT_EQ(reply.msgtype, ACKNOWLEDGED);
    EXPECT_EQ(reply.seqno, 32);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.datalen, 0);
    reader.send(acknowledgement(second.srcid));
    reader.send(acknowledgement(first.srcid));
    EXPECT_EQ(sender.receive().seqno, 31) << "one is acknowledged once";
}

TEST(ClhsimNotify, StrangerCantAcknowledge)
{
    Simulator server;
    Link sender = server.log_in();
    Link reader = server.log_in();
    Link stranger = server.log_in();
    sender.send(notify_to(2, WANTS_ACK, 31));
    int32_t number = reader.receive().srcid;
    stranger.send(acknowledgement(number));
    EXPECT_TRUE(is_quiet(stranger));
    EXPECT_TRUE(is_quiet(sender));
    reader.send(acknowledgement(number));
    EXPECT_EQ(sender.receive().seqno, 31);
}

TEST(ClhsimNotify, NobodyThereIsToldToWhoAsks)
{
    Simulator server;
    Link sender = server.log_in();
    Message reply = sender.exchange(notify_to(99, WANTS_ACK, 7));
    EXPECT_EQ(reply.msgtype, 2014);
    EXPECT_EQ(reply.flags, 6);
    EXPECT_EQ(reply.seqno, 7);
    Link reader = server.log_in();
    sender.send(notify_to(2, WANTS_ACK, 8));
    reader.receive();
    reader.close();
    reply = sender.receive();
    EXPECT_EQ(reply.msgtype, 2014) << "it went away without a word";
    EXPECT_EQ(reply.seqno, 8);
    server.command("refuse _notify 25 1");
    EXPECT_EQ(sender.exchange(notify_to(1, WANTS_ACK)).flags, 25);
}

TEST(ClhsimNotify, SenderThatGoesAwayIsForgotten)
{
    Simulator server;
    Link reader = server.log_in();
    int32_t number = 0;
    {
        Link sender = server.log_in();
        sender.send(notify_to(1, WANTS_ACK));
        number = reader.receive().srcid;
    }
    while (server.stat("open") > 1) {
    }
    reader.send(acknowledgement(number));
    EXPECT_TRUE(is_quiet(reader));
}

TEST(ClhsimNotify, ThousandAndTwentyFourWaitAtMost)
{
    Simulator server;
    Link sender = server.log_in();
    Link reader = server.log_in();
    for (int i = 0; i < 1024; i++)
        sender.send(notify_to(2, WANTS_ACK));
    Message reply = sender.exchange(notify_to(2, WANTS_ACK, 9));
    EXPECT_EQ(reply.msgtype, 2014);
    EXPECT_EQ(reply.flags, 5);
}

// --- Between two applications. Both clients are this program, which has a session on each of two contexts.

static int kept_count;
static std::string kept_text;

static void keep_message(char *data, long length, long)
{
    kept_count++;
    kept_text.assign(data, static_cast<size_t>(length) - 1);
}

// A session on a context of its own.
static int session(const char *user, int flags)
{
    Buffer login("TPSTART", 0);
    auto *record = reinterpret_cast<TPSTART_T *>(login.data);
    strcpy(record->usrname, user);
    record->flags = TPMULTICONTEXTS | flags;
    EXPECT_EQ(tpstart(record), 0);
    int context = -1;
    EXPECT_EQ(tpgetctxt(&context, 0), 1);
    return context;
}

struct TwoClients : testing::Test {
    Domain domain;
    int reader = session("reader", UNSOL_QUEUE);
    int sender = session("sender", UNSOL_HANDLER);
    Buffer buffer{"STRING", 200};

    void be(int context) { ASSERT_EQ(tpsetctxt(context, 0), 1); }
    // What the reader has got of a kind; "" for nothing.
    std::string got(int kind)
    {
        be(sender);
        Buffer sent("sent"), text("quiet");
        EXPECT_EQ(call("ECHO", sent), 1) << "the server has seen to what came before it";
        be(reader);
        EXPECT_EQ(call("ECHO", text), 1) << "reads what has come";
        std::string result = tpgetunsol(kind, &buffer.data, &buffer.length, 0) == 1 ? buffer.data : "";
        EXPECT_TRUE(!result.empty() || gettperrno() == TPEBLOCK);
        be(sender);
        return result;
    }
    long posted(const char *event)
    {
        Buffer text(event);
        return tppost(event, text.data, 0, 0) == 1 ? gettpurcode() : -1;
    }
};

TEST_F(TwoClients, EventsByNameAndPattern)
{
    be(reader);
    int names = tpsubscribe("price.tea", nullptr, nullptr, 0);
    int patterns = tpsubscribe2("stock.*", "second", 0);
    EXPECT_NE(names, -1);
    EXPECT_NE(patterns, -1);
    EXPECT_EQ(got(UNSOL_POST), "");
    EXPECT_EQ(posted("price.tea"), 1);
    EXPECT_EQ(posted("price.cups"), 0);
    EXPECT_EQ(posted("stock.cups"), 1);
    EXPECT_EQ(got(UNSOL_POST), "price.tea");
    EXPECT_EQ(got(UNSOL_POST), "stock.cups");
    EXPECT_EQ(got(UNSOL_POST), "");
    be(reader);
    EXPECT_EQ(tpunsubscribe(patterns, 0), 1);
    EXPECT_EQ(got(UNSOL_POST), "");
    EXPECT_EQ(posted("stock.cups"), 0);
    EXPECT_EQ(domain.command("subscriptions"), "  1 \"price.tea\"\nok");
}

TEST_F(TwoClients, RefusedPostFails)
{
    domain.command("refuse tea 12 1");
    EXPECT_EQ(posted("tea"), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
}

TEST_F(TwoClients, OwnEventRunsTheHandlerInsideThePost)
{
    ASSERT_NE(tpsetunsol(keep_message), TPSETUNSOL_FAILED);
    ASSERT_NE(tpsubscribe("mine", nullptr, nullptr, 0), -1);
    EXPECT_EQ(posted("mine"), 1);
    EXPECT_EQ(kept_count, 1);
    EXPECT_EQ(kept_text, "mine");
}

TEST_F(TwoClients, BroadcastsByName)
{
    ASSERT_NE(tpsetunsol(keep_message), TPSETUNSOL_FAILED);
    Buffer text("hello");
    EXPECT_EQ(tpbroadcast("*", "reader", "*", text.data, 0, 0), 1);
    EXPECT_EQ(got(UNSOL_BROADCAST), "hello");
    EXPECT_EQ(tpbroadcast(nullptr, "r*", nullptr, text.data, 0, 0), 1);
    EXPECT_EQ(got(UNSOL_BROADCAST), "hello");
    EXPECT_EQ(tpbroadcast("NODE*", nullptr, nullptr, text.data, 0, 0), 1);
    EXPECT_EQ(got(UNSOL_BROADCAST), "hello");
    EXPECT_EQ(tpbroadcast(nullptr, nullptr, "no such name", text.data, 0, 0), 1);
    EXPECT_EQ(got(UNSOL_BROADCAST), "");
    Buffer next("next");
    EXPECT_EQ(call("ECHO", next), 1);
    EXPECT_EQ(kept_count, 1) << "the one that was for all";
}

TEST_F(TwoClients, NotificationByIdentity)
{
    be(reader);
    Buffer who("");
    ASSERT_EQ(call("WHOAMI", who), 1);
    TPCLIENT_T identity = {{atoi(who.data), 0, 0, 0}};
    be(sender);
    Buffer text("wake up");
    EXPECT_EQ(tpnotify(&identity, text.data, 0, 0), 1);
    EXPECT_EQ(got(UNSOL_NOTIFY), "wake up");
    identity.id[0] = 4711;
    EXPECT_EQ(tpnotify(&identity, text.data, 0, TPNOTIFYACK), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
}

TEST_F(TwoClients, NotificationToItselfIsAcknowledgedWhileItWaits)
{
    ASSERT_NE(tpsetunsol(keep_message), TPSETUNSOL_FAILED);
    TPCLIENT_T identity = {{2, 0, 0, 0}};
    Buffer text("wake up");
    EXPECT_EQ(tpnotify(&identity, text.data, 0, TPNOTIFYACK), 1);
    EXPECT_EQ(kept_text, "wake up");
    EXPECT_EQ(domain.stat("acknowledged"), 1);
}

TEST_F(TwoClients, AnotherThreadAcknowledges)
{
    TPCLIENT_T identity = {{1, 0, 0, 0}};
    std::string heard;
    std::thread other([&] {
        ASSERT_EQ(tpsetctxt(reader, 0), 1);
        Buffer message("STRING", 200);
        ASSERT_EQ(tpgetunsol(UNSOL_NOTIFY, &message.data, &message.length, TPBLOCK), 1);
        heard = message.data;
        tpsetctxt(TPNULLCONTEXT, 0);
    });
    Buffer text("wake up");
    EXPECT_EQ(tpnotify(&identity, text.data, 0, TPNOTIFYACK), 1);
    other.join();
    EXPECT_EQ(heard, "wake up");
    EXPECT_EQ(domain.stat("acknowledged"), 1);
}
