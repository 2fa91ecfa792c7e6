// The message service on the wire: sessions and objects, what is ready and what is held, selectors,
// priorities, expiry, topics, browsing, transactions, faults, and what outlives the server.
#include "application.h"

#include <csignal>
#include <gtest/gtest.h>

enum : int32_t {
    OPEN = 500,
    CLOSE = 501,
    OBJECT = 502,
    REMOVE = 503,
    SEND = 504,
    GETNEXT = 505,
    ACK = 506,
    DELIVER = 507,
    COMMIT = 508,
    ROLLBACK = 509,
    RECOVER = 510,
    FIELD = 2,
};
static constexpr int32_t INVAL = 4, NOENT = 6, PROTO = 9, ITYPE = 17, MATCH = 23, FULL = 26, CLOSED = 28;
static constexpr int32_t TRANSACTED = 0x80, XA = 0x800, MODE2 = 0x40;
static constexpr int32_t TAKE = 0x20, REFUSE = 0x40;
static constexpr int32_t READER = 0x02, TOPIC = 0x80, SUBSCRIBER = 0x82, DURABLE = 0xC2, UNSUBSCRIBE = 0x42;
static constexpr int32_t BROWSER = 0x800, FULL_BROWSER = 0x1800;
static constexpr int32_t PERSISTENT = 0x02, REDELIVERED = 0x80;
static constexpr int32_t TXSTART = 0x4000000, NOTRAN = 0x8;

static std::vector<std::string> kept(const std::string &file)
{
    return {"--store-file", file};
}

static Message request_of(int32_t msgtype, int32_t session, int32_t object = 0, int32_t flags = 0,
                          const std::string &data = "")
{
    Message message;
    message.msgtype = msgtype;
    message.seqno = 50 + msgtype;
    message.svcname = "_SHOP";
    message.sessid = session;
    message.prio = object;
    message.flags = flags;
    message.data = data;
    return message;
}

static int32_t open_session(Link &link, int32_t flags = 0, const std::string &name = "_SHOP")
{
    Message request = request_of(OPEN, 0, 0, flags);
    request.svcname = name;
    Message reply = link.exchange(request);
    EXPECT_EQ(reply.msgtype, OPEN + 1000);
    EXPECT_GT(reply.sessid, 0);
    return reply.sessid;
}

static std::string names_of(const std::string &queue, const std::string &subname = "",
                            const std::string &selector = "")
{
    std::string data(80, '\0');
    data.replace(0, subname.size(), subname);
    data.replace(32, queue.size(), queue);
    return data + selector + '\0';
}

static Message make_object(Link &link, int32_t session, const std::string &queue, int32_t flags,
                           const std::string &selector = "", const std::string &subname = "")
{
    return link.exchange(request_of(OBJECT, session, 0, flags, names_of(queue, subname, selector)));
}

static int32_t open_object(Link &link, int32_t session, const std::string &queue, int32_t flags,
                           const std::string &selector = "", const std::string &subname = "")
{
    Message reply = make_object(link, session, queue, flags, selector, subname);
    EXPECT_EQ(reply.msgtype, OBJECT + 1000);
    EXPECT_GT(reply.prio, 0);
    return reply.prio;
}

static void add_word(std::string &data, uint32_t word)
{
    data.append(4, '\0');
    ::put(data, data.size() - 4, word);
}

static void add_text(std::string &data, uint32_t key, const std::string &text)
{
    add_word(data, key);
    data += text + '\0';
    data.resize((data.size() + 7) / 8 * 8, '\0');
}

static void add_number(std::string &data, const std::string &name, int32_t value)
{
    add_text(data, 0x1c000001, name);
    add_word(data, 3u << 26 | 1);
    add_word(data, static_cast<uint32_t>(value));
}

// The properties TEXT, and N if it isn't 0.
static std::string fields_of(const std::string &text, int32_t number = 0)
{
    std::string data(8, '\0');
    add_text(data, 0x1c000001, "TEXT");
    add_text(data, 0x1c000001, text);
    if (number)
        add_number(data, "N", number);
    ::put(data, 0, 8888);
    ::put(data, 4, static_cast<uint32_t>(data.size()));
    return data;
}

static std::string text_in(const Message &message)
{
    return message.msgtype == DELIVER ? message.data.substr(28).c_str()
                                      : "error " + std::to_string(message.flags);
}

struct Order {
    std::string text;
    int32_t priority = 4;
    int32_t time_to_live = 0;
    int32_t flags = 0;
    int32_t number = 0;
};

static Message send_request(int32_t session, int32_t producer, const Order &order)
{
    Message message = request_of(SEND, session, producer, order.flags, fields_of(order.text, order.number));
    message.buftype = FIELD;
    message.callid[0] = 1700000000;
    message.callid[1] = order.time_to_live;
    message.callid[2] = order.priority;
    return message;
}

static Message send_order(Link &link, int32_t session, int32_t producer, const Order &order)
{
    Message reply = link.exchange(send_request(session, producer, order));
    EXPECT_EQ(reply.msgtype, SEND + 1000);
    return reply;
}

static void ask(Link &link, int32_t session, int32_t consumer, int32_t flags = 0)
{
    Message request = request_of(GETNEXT, session, consumer, flags);
    request.cd = -1;
    request.callid[2] = -1;
    link.send(request);
}

static Message next_of(Link &link, int32_t session, int32_t consumer, int32_t flags = 0)
{
    ask(link, session, consumer, flags);
    return link.receive();
}

static Message ack_of(const Message &message, int32_t kind)
{
    Message ack = request_of(ACK, message.sessid, message.prio, kind);
    ack.cd = message.cd;
    ack.callid[2] = message.callid[2];
    return ack;
}

// Receives the next one and acknowledges it.
static std::string take(Link &link, int32_t session, int32_t consumer)
{
    Message message = next_of(link, session, consumer);
    link.send(ack_of(message, TAKE));
    return text_in(message);
}

static std::string end_work(Link &link, int32_t msgtype, int32_t session)
{
    Message reply = link.exchange(request_of(msgtype, session));
    return reply.msgtype == msgtype + 1000 ? "done" : "error " + std::to_string(reply.flags);
}

// A client with a session, and one producer and one consumer of the queue ORDERS.
struct Shop {
    explicit Shop(Simulator &server, int32_t flags = 0)
        : link(server.log_in()), session(open_session(link, flags)),
          producer(open_object(link, session, "ORDERS", 0)),
          consumer(open_object(link, session, "ORDERS", READER))
    {}
    Message send(const Order &order) { return send_order(link, session, producer, order); }
    Message next() { return next_of(link, session, consumer); }
    std::string take() { return ::take(link, session, consumer); }
    void ask() { ::ask(link, session, consumer); }
    std::string end(int32_t msgtype) { return end_work(link, msgtype, session); }
    Link link;
    int32_t session;
    int32_t producer;
    int32_t consumer;
};

// What the command says of the queue ORDERS, from "ready" on.
static std::string counts_of(Simulator &server, const std::string &place = "queue ORDERS")
{
    std::string answer = server.command("kmq");
    size_t at = answer.find(place + " ready");
    return at == answer.npos ? "missing" : answer.substr(at, answer.find(" waiting", at) - at);
}

TEST(ClhsimKmq, SessionsAndObjectsGetNumbers)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = link.exchange(request_of(OPEN, 0));
    EXPECT_EQ(reply.msgtype, 1500);
    EXPECT_EQ(reply.seqno, 550);
    EXPECT_EQ(reply.svcname, "_SHOP");
    int32_t second = open_session(link);
    EXPECT_NE(reply.sessid, second);
    EXPECT_NE(open_object(link, second, "ORDERS", 0), open_object(link, second, "ORDERS", READER));
    EXPECT_EQ(end_work(link, CLOSE, second), "done");
    EXPECT_EQ(end_work(link, CLOSE, second), "error 28");
    EXPECT_EQ(make_object(link, second, "ORDERS", 0).flags, CLOSED);
}

TEST(ClhsimKmq, WhatMakesNoSenseIsRefused)
{
    Simulator server({"--message-servers", "SHOP,BANK"});
    Link link = server.log_in();
    Message request = request_of(OPEN, 0);
    request.svcname = "SHOP";
    EXPECT_EQ(link.exchange(request).flags, INVAL) << "without the underscore";
    request.svcname = "_MILL";
    EXPECT_EQ(link.exchange(request).flags, NOENT);
    int32_t session = open_session(link, 0, "_BANK");
    EXPECT_EQ(make_object(link, session, "", 0).flags, INVAL);
    EXPECT_EQ(make_object(link, session, "Q", 0x4).flags, INVAL);
    EXPECT_EQ(make_object(link, session, "Q", READER, "N >").flags, INVAL);
    EXPECT_EQ(make_object(link, session, "T", DURABLE).flags, INVAL) << "without a name";
    EXPECT_EQ(link.exchange(request_of(OBJECT, session, 0, 0, std::string(80, 'x'))).flags, INVAL);
    EXPECT_EQ(link.exchange(request_of(REMOVE, session, 99)).flags, NOENT);
    EXPECT_EQ(next_of(link, session, 99).flags, NOENT);
    EXPECT_EQ(end_work(link, COMMIT, session), "error 9");
    EXPECT_EQ(end_work(link, ROLLBACK, session), "error 9");
    EXPECT_EQ(end_work(link, RECOVER, open_session(link, TRANSACTED, "_SHOP")), "error 9");
}

TEST(ClhsimKmq, SessionOfAnotherClientIsNone)
{
    Simulator server;
    Shop shop(server);
    Link other = server.log_in();
    EXPECT_EQ(end_work(other, CLOSE, shop.session), "error 28");
    EXPECT_EQ(shop.end(RECOVER), "done");
}

TEST(ClhsimKmq, DataMustBeFields)
{
    Simulator server;
    Shop shop(server);
    Message request = send_request(shop.session, shop.producer, {"tea"});
    request.buftype = STRING;
    EXPECT_EQ(shop.link.exchange(request).flags, ITYPE);
    request.buftype = FIELD;
    request.data.pop_back();
    EXPECT_EQ(shop.link.exchange(request).flags, INVAL);
    EXPECT_EQ(shop.link.exchange(send_request(shop.session, shop.consumer, {"tea"})).flags, NOENT);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
}

TEST(ClhsimKmq, DeliveryHasTheWordsOfTheMessage)
{
    Simulator server;
    Shop shop(server);
    Message sent = shop.send({"tea", 7, 600, PERSISTENT});
    EXPECT_EQ(sent.flags, PERSISTENT);
    EXPECT_EQ(sent.callid[2] & 0xffff, 7);
    Message got = shop.next();
    EXPECT_EQ(got.msgtype, DELIVER);
    EXPECT_EQ(got.seqno, 50 + GETNEXT);
    EXPECT_EQ(got.buftype, FIELD);
    EXPECT_EQ(got.svcname, "_SHOP");
    EXPECT_EQ(got.sessid, shop.session);
    EXPECT_EQ(got.prio, shop.consumer);
    EXPECT_EQ(got.flags, PERSISTENT);
    EXPECT_EQ(got.cd, sent.cd);
    EXPECT_EQ(got.callid[0], 1700000000);
    EXPECT_EQ(got.callid[1], 600);
    EXPECT_EQ(got.callid[2], sent.callid[2]);
    EXPECT_EQ(got.data, fields_of("tea"));
    EXPECT_NE(shop.send({"cup"}).cd, sent.cd);
}

TEST(ClhsimKmq, HigherPriorityGoesFirstThenAge)
{
    Simulator server;
    Shop shop(server);
    for (const Order &order : {Order{"a", 4}, Order{"b", 9}, Order{"c", 4}, Order{"d", -2}, Order{"e", 9}})
        shop.send(order);
    std::string order;
    for (int i = 0; i < 5; i++)
        order += shop.take();
    EXPECT_EQ(order, "beacd");
}

TEST(ClhsimKmq, RequestWaitsForAMessage)
{
    Simulator server;
    Shop waiting(server), sending(server);
    waiting.ask();
    waiting.ask();
    EXPECT_EQ(waiting.end(RECOVER), "done");
    sending.send({"tea"});
    sending.send({"cup"});
    EXPECT_EQ(text_in(waiting.link.receive()), "tea");
    EXPECT_EQ(waiting.end(RECOVER), "done") << "asked twice, answered once";
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 2 held 0");
}

TEST(ClhsimKmq, EachMessageOfAQueueHasOneReceiver)
{
    Simulator server;
    Shop one(server), two(server);
    one.ask();
    EXPECT_EQ(one.end(RECOVER), "done");
    two.send({"tea"});
    two.send({"cup"});
    EXPECT_EQ(two.take(), "cup");
    EXPECT_EQ(text_in(one.link.receive()), "tea");
}

TEST(ClhsimKmq, RefusedAndUnacknowledgedMessagesComeAgain)
{
    Simulator server;
    Shop shop(server, MODE2);
    shop.send({"tea"});
    Message first = shop.next();
    EXPECT_EQ(first.flags, 0);
    shop.link.send(ack_of(first, REFUSE));
    Message second = shop.next();
    EXPECT_EQ(text_in(second), "tea");
    EXPECT_EQ(second.flags, REDELIVERED);
    EXPECT_EQ(second.cd, first.cd);
    shop.send({"cup"});
    EXPECT_EQ(text_in(shop.next()), "cup");
    EXPECT_EQ(shop.end(RECOVER), "done");
    EXPECT_EQ(shop.take(), "tea") << "each in its place";
    EXPECT_EQ(shop.take(), "cup");
    EXPECT_EQ(shop.end(RECOVER), "done");
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
}

TEST(ClhsimKmq, AcknowledgementOfNothingIsIgnored)
{
    Simulator server;
    Shop one(server), two(server);
    one.send({"tea"});
    Message message = one.next();
    Message foreign = ack_of(message, TAKE);
    two.link.send(foreign);
    foreign.sessid = two.session;
    two.link.send(foreign);
    one.link.send(ack_of(message, 0x60));
    EXPECT_EQ(one.end(RECOVER), "done");
    EXPECT_EQ(two.end(RECOVER), "done");
    EXPECT_EQ(server.stat("ignored"), 3);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 0");
}

TEST(ClhsimKmq, LostAndClosedSessionsGiveBackWhatTheyHold)
{
    Simulator server;
    Shop keeper(server);
    for (int32_t flags : {0, TRANSACTED}) {
        Shop lost(server, flags);
        keeper.send({"tea"});
        EXPECT_EQ(text_in(lost.next()), "tea");
        lost.link.close();
        Message again = keeper.next();
        EXPECT_EQ(again.flags, REDELIVERED);
        keeper.link.send(ack_of(again, TAKE));
    }
    Shop closing(server);
    keeper.send({"cup"});
    EXPECT_EQ(text_in(closing.next()), "cup");
    EXPECT_EQ(closing.end(CLOSE), "done");
    EXPECT_EQ(keeper.take(), "cup");
}

TEST(ClhsimKmq, ClosedConsumerWaitsNoMore)
{
    Simulator server;
    Shop shop(server);
    shop.ask();
    EXPECT_EQ(shop.link.exchange(request_of(REMOVE, shop.session, shop.consumer)).msgtype, REMOVE + 1000);
    shop.send({"tea"});
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 0");
    EXPECT_EQ(shop.next().flags, NOENT);
}

TEST(ClhsimKmq, CommitSendsAndTakesRollbackDoesNeither)
{
    Simulator server;
    Shop shop(server, TRANSACTED), other(server);
    shop.send({"tea"});
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
    EXPECT_EQ(shop.end(ROLLBACK), "done");
    shop.send({"cup"});
    EXPECT_EQ(shop.end(COMMIT), "done");
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 0");

    Message got = shop.next();
    EXPECT_EQ(text_in(got), "cup");
    EXPECT_EQ(shop.end(ROLLBACK), "done");
    got = shop.next();
    EXPECT_EQ(got.flags & REDELIVERED, REDELIVERED);
    shop.link.send(ack_of(got, TAKE));
    EXPECT_EQ(shop.end(ROLLBACK), "done") << "an acknowledgement doesn't count here";
    EXPECT_EQ(text_in(shop.next()), "cup");
    EXPECT_EQ(shop.end(COMMIT), "done");
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
}

TEST(ClhsimKmq, TransactionOfTheClientTakesPartInAnXaSession)
{
    Simulator server;
    Shop shop(server, XA), other(server);
    other.send({"tea"});
    shop.send({"in it", 4, 0, TXSTART});
    EXPECT_EQ(text_in(shop.next()), "tea");
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 1");
    Message end = request_of(33, 0);
    EXPECT_EQ(shop.link.exchange(end).rcode, 0);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 0");

    shop.send({"again", 4, 0, TXSTART});
    EXPECT_EQ(text_in(shop.next()), "tea");
    end.msgtype = 32;
    EXPECT_EQ(shop.link.exchange(end).rcode, 0);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 0");
    EXPECT_EQ(other.take(), "again");
    shop.send({"apart", 4, 0, NOTRAN});
    EXPECT_EQ(other.take(), "apart");
}

TEST(ClhsimKmq, RefusedSendLeavesNothingToCommit)
{
    Simulator server;
    Shop shop(server, XA);
    shop.send({"tea", 4, 0, TXSTART});
    server.command("refuse _kmqsend 12 1");
    EXPECT_EQ(shop.link.exchange(send_request(shop.session, shop.producer, {"cup"})).flags, 12);
    EXPECT_EQ(shop.link.exchange(request_of(32, 0)).rcode, -2);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
}

TEST(ClhsimKmq, SelectorsTakeWhatTheySay)
{
    Simulator server;
    Shop shop(server);
    for (const Order &order :
         {Order{"one", 4, 0, 0, 1}, Order{"two", 4, 0, 0, 2}, Order{"it's", 4, 0, 0, 3}, Order{"none"}})
        shop.send(order);
    struct Case {
        const char *selector;
        const char *found;
    };
    for (const Case &row :
         {Case{"N = 2", "two"}, Case{"N > 1", "two"}, Case{"N>=3", "it's"}, Case{"N < 2.5", "one"},
          Case{"N <= 0", "error 23"}, Case{"N <> 1", "two"}, Case{"TEXT = 'two'", "two"},
          Case{"TEXT='it''s'", "it's"}, Case{"TEXT <> 'one' AND N < 9", "two"},
          Case{"TEXT = 'N'", "error 23"}, Case{"N = 'two'", "error 23"}, Case{"TEXT = 2", "error 23"},
          Case{"one = 'N'", "error 23"}, Case{"N > 1 and N < 3 AND TEXT = 'two'", "two"},
          Case{"  ", "one"}}) {
        int32_t browser = open_object(shop.link, shop.session, "ORDERS", BROWSER, row.selector);
        EXPECT_EQ(text_in(next_of(shop.link, shop.session, browser)), row.found) << row.selector;
    }
    for (const char *wrong : {"N", "N =", "= 3", "N = 3 OR N = 4", "N = 'x", "N = 3x", "N > 'x'", "N = 3 AND",
                              "N = nan", "N 3", "N = 3 N = 4"})
        EXPECT_EQ(make_object(shop.link, shop.session, "ORDERS", READER, wrong).flags, INVAL) << wrong;
}

TEST(ClhsimKmq, WaitingConsumerGetsOnlyWhatItSelects)
{
    Simulator server;
    Shop shop(server);
    int32_t picky = open_object(shop.link, shop.session, "ORDERS", READER, "N = 2");
    ask(shop.link, shop.session, picky);
    shop.send({"one", 4, 0, 0, 1});
    shop.link.send(send_request(shop.session, shop.producer, {"two", 4, 0, 0, 2}));
    Message delivered = shop.link.receive();
    EXPECT_EQ(text_in(delivered), "two");
    EXPECT_EQ(delivered.prio, picky);
    EXPECT_EQ(shop.link.receive().msgtype, SEND + 1000);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 1 held 1");
}

TEST(ClhsimKmq, BrowserGoesOnFromItsPosition)
{
    Simulator server;
    Shop shop(server), other(server);
    for (const Order &order : {Order{"a", 4}, Order{"b", 9}, Order{"c", 4}})
        shop.send(order);
    int32_t browser = open_object(shop.link, shop.session, "ORDERS", BROWSER);
    int32_t full = open_object(shop.link, shop.session, "ORDERS", FULL_BROWSER);
    Message seen = next_of(shop.link, shop.session, browser, BROWSER);
    EXPECT_EQ(text_in(seen), "b");
    EXPECT_EQ(text_in(other.next()), "b") << "seeing isn't taking";

    Message request = request_of(GETNEXT, shop.session, browser, BROWSER);
    std::string rest;
    for (int i = 0; i < 3; i++) {
        request.cd = seen.cd;
        request.callid[2] = seen.callid[2];
        seen = shop.link.exchange(request);
        rest += text_in(seen) + " ";
    }
    EXPECT_EQ(rest, "a c error 23 ") << "the position holds where its message has gone";
    EXPECT_EQ(seen.msgtype, GETNEXT + 2000);
    EXPECT_EQ(seen.rcode, MATCH);
    EXPECT_EQ(text_in(next_of(shop.link, shop.session, browser)), "a");
    EXPECT_EQ(text_in(next_of(shop.link, shop.session, full)), "b") << "what another one holds";
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 2 held 1");
}

TEST(ClhsimKmq, ExpiredMessagesAreGone)
{
    Simulator server;
    Shop shop(server);
    shop.send({"short", 9, 1});
    shop.send({"long", 4, 600});
    shop.link.exchange(string_call("SLEEP", "1.1"));
    EXPECT_EQ(shop.take(), "long");
    EXPECT_EQ(server.stat("messages_expired"), 1);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 0");
}

TEST(ClhsimKmq, FullQueueRefuses)
{
    Simulator server({"--queue-limit", "2"});
    Shop shop(server);
    shop.send({"a"});
    shop.send({"b"});
    EXPECT_EQ(text_in(shop.next()), "a");
    EXPECT_EQ(shop.link.exchange(send_request(shop.session, shop.producer, {"c"})).flags, FULL);
}

TEST(ClhsimKmq, TopicGoesToAllWhoSubscribe)
{
    Simulator server;
    Link link = server.log_in();
    int32_t session = open_session(link);
    int32_t producer = open_object(link, session, "NEWS", TOPIC);
    send_order(link, session, producer, {"to nobody"});
    int32_t one = open_object(link, session, "NEWS", SUBSCRIBER);
    int32_t two = open_object(link, session, "NEWS", SUBSCRIBER, "N > 1");
    int32_t queue = open_object(link, session, "NEWS", READER);
    send_order(link, session, producer, {"first", 4, 0, 0, 1});
    Message sent = send_order(link, session, producer, {"second", 4, 0, 0, 2});
    EXPECT_EQ(take(link, session, one), "first");
    EXPECT_EQ(take(link, session, one), "second");
    Message got = next_of(link, session, two);
    EXPECT_EQ(text_in(got), "second");
    EXPECT_EQ(got.cd, sent.cd) << "one identity for all";
    ask(link, session, queue);
    EXPECT_EQ(end_work(link, RECOVER, session), "done") << "the queue of the name is another thing";
    EXPECT_EQ(link.exchange(request_of(REMOVE, session, one)).msgtype, REMOVE + 1000);
    EXPECT_EQ(server.command("kmq").find("consumer " + std::to_string(one)), std::string::npos);
}

TEST(ClhsimKmq, DurableSubscriptionOutlivesItsConsumer)
{
    Simulator server;
    Link link = server.log_in();
    int32_t session = open_session(link);
    int32_t producer = open_object(link, session, "NEWS", TOPIC);
    int32_t reader = open_object(link, session, "NEWS", DURABLE, "", "ann");
    EXPECT_EQ(make_object(link, session, "NEWS", DURABLE, "", "ann").flags, PROTO) << "one at a time";
    Message unsubscribe = request_of(REMOVE, session, 0, UNSUBSCRIBE, names_of("NEWS", "ann"));
    EXPECT_EQ(link.exchange(unsubscribe).flags, PROTO);
    EXPECT_EQ(link.exchange(request_of(REMOVE, session, reader, SUBSCRIBER)).msgtype, REMOVE + 1000);
    send_order(link, session, producer, {"tea", 4, 0, 0, 5});
    {
        Link other = server.log_in();
        int32_t theirs = open_session(other);
        reader = open_object(other, theirs, "NEWS", DURABLE, "", "ann");
        EXPECT_EQ(take(other, theirs, reader), "tea");
    }
    EXPECT_EQ(server.command("clients").find("  2 "), server.command("clients").npos);
    send_order(link, session, producer, {"cup", 4, 0, 0, 6});
    reader = open_object(link, session, "NEWS", DURABLE, "N > 1", "ann");
    ask(link, session, reader);
    EXPECT_EQ(end_work(link, RECOVER, session), "done") << "another selector: another subscription";
    link.exchange(request_of(REMOVE, session, reader, SUBSCRIBER));
    EXPECT_EQ(link.exchange(unsubscribe).msgtype, REMOVE + 1000);
    EXPECT_EQ(link.exchange(unsubscribe).flags, NOENT);
}

TEST(ClhsimKmq, PersistentMessagesAndDurableSubscriptionsOutliveTheServer)
{
    Simulator keeper;  // of the directory
    std::string file = keeper.directory + "/store";
    int32_t identity = 0;
    {
        Simulator server(kept(file));
        Shop shop(server, TRANSACTED), other(server);
        int32_t topic = open_object(other.link, other.session, "NEWS", TOPIC);
        open_object(other.link, other.session, "NEWS", DURABLE, "N > 1", "ann");
        send_order(other.link, other.session, topic, {"low", 4, 0, PERSISTENT, 1});
        send_order(other.link, other.session, topic, {"high", 4, 0, PERSISTENT, 2});
        other.send({"fleeting", 9});
        other.send({"held", 4, 600, PERSISTENT});
        other.send({"first", 8, 0, PERSISTENT});
        other.send({"taken", 8, 0, PERSISTENT});
        EXPECT_EQ(other.take(), "fleeting");
        EXPECT_EQ(other.take(), "first");
        EXPECT_EQ(other.take(), "taken");
        EXPECT_EQ(text_in(shop.next()), "held");
        identity = shop.send({"uncommitted", 4, 0, PERSISTENT}).cd;
        server.signal(SIGKILL);
        server.wait();
    }
    Simulator server(kept(file));
    Shop shop(server);
    Message got = shop.next();
    EXPECT_EQ(text_in(got), "held");
    EXPECT_EQ(got.flags, PERSISTENT);
    EXPECT_EQ(got.callid[0], 1700000000);
    EXPECT_EQ(got.callid[1], 600);
    EXPECT_EQ(got.callid[2] & 0xffff, 4);
    EXPECT_EQ(counts_of(server), "queue ORDERS ready 0 held 1");
    int32_t reader = open_object(shop.link, shop.session, "NEWS", DURABLE, "N > 1", "ann");
    EXPECT_EQ(take(shop.link, shop.session, reader), "high");
    EXPECT_GT(shop.send({"new"}).cd, identity) << "no identity is given twice";
}

TEST(ClhsimKmq, ServerClosesSessions)
{
    Simulator server;
    Shop shop(server), other(server);
    shop.send({"tea"});
    EXPECT_EQ(text_in(shop.next()), "tea");
    EXPECT_EQ(server.command("closesession 1"), "ok 1 session");
    Message notice = shop.link.receive();
    EXPECT_EQ(notice.msgtype, CLOSE);
    EXPECT_EQ(notice.flags, 0x1000);
    EXPECT_EQ(notice.sessid, shop.session);
    EXPECT_EQ(shop.link.exchange(send_request(shop.session, shop.producer, {"cup"})).flags, CLOSED);
    EXPECT_EQ(other.take(), "tea");
    EXPECT_EQ(server.command("closesession 9"), "error no such client");
    EXPECT_EQ(server.command("closesession all"), "ok 1 session");
}

TEST(ClhsimKmq, FaultsStrikeByName)
{
    Simulator server;
    Shop shop(server, TRANSACTED);
    struct Exchange {
        const char *name;
        Message request;
    };
    for (const Exchange &row : {Exchange{"_kmqopen", request_of(OPEN, 0)},
                                Exchange{"_kmqobject", request_of(OBJECT, shop.session, 0, 0, names_of("Q"))},
                                Exchange{"_kmqsend", send_request(shop.session, shop.producer, {"tea"})},
                                Exchange{"_kmqget", request_of(GETNEXT, shop.session, shop.consumer)},
                                Exchange{"_kmqcommit", request_of(COMMIT, shop.session)},
                                Exchange{"_kmqrollback", request_of(ROLLBACK, shop.session)},
                                Exchange{"_kmqclose", request_of(CLOSE, shop.session)}}) {
        server.command(std::string("refuse ") + row.name + " 10 1");
        Message reply = shop.link.exchange(row.request);
        EXPECT_EQ(reply.msgtype, row.request.msgtype + 2000) << row.name;
        EXPECT_EQ(reply.flags, 10) << row.name;
        EXPECT_EQ(reply.rcode, 10) << row.name;
        server.command(std::string("giveback ") + row.name + " 1");
        reply = shop.link.exchange(row.request);
        EXPECT_EQ(reply.xflags, 0x20000000u) << row.name;
    }
    shop.send({"tea"});
    EXPECT_EQ(shop.end(COMMIT), "done");
    server.command("drop _kmqget 1");
    shop.ask();
    EXPECT_EQ(shop.end(ROLLBACK), "done") << "the delivery is lost";
    EXPECT_EQ(shop.next().flags & REDELIVERED, REDELIVERED);
}

TEST(ClhsimKmq, CommandTellsSessionsAndPlaces)
{
    Simulator server;
    Shop shop(server, TRANSACTED);
    shop.send({"tea"});
    std::string answer = server.command("kmq");
    EXPECT_NE(answer.find("  client 1 session " + std::to_string(shop.session) +
                          " _SHOP transacted producers 1 consumers 1 uncommitted 1 held 0\n"),
              std::string::npos)
        << answer;
    EXPECT_NE(
        answer.find("  _SHOP queue ORDERS ready 0 held 0 waiting 0 sent 0 taken 0 redelivered 0 expired 0\n"),
        std::string::npos)
        << answer;
}

// --- Through the library.

struct Service : Domain {
    using Domain::Domain;
    ~Service() { tpend(); }
};

static std::string body_of(char *msg)
{
    char body[100];
    long length = sizeof body;
    return kmq_get_body(msg, body, &length) == 1 ? std::string(body, static_cast<size_t>(length)) : "none";
}

static int send_body(kmq_producer *producer, const std::string &text, int priority = 4)
{
    char *msg = kmq_alloc(producer, 100);
    kmq_set_body(msg, unconst(text.c_str()), static_cast<long>(text.size()));
    *_tmget_tperrno_addr() = 0;
    int result = kmq_sendex(producer, msg, 1, priority, 0, 0);
    EXPECT_EQ(gettperrno(), 0);
    kmq_free(msg);
    return result;
}

static std::string receive_body(kmq_consumer *consumer, int timeout = 30)
{
    char *msg = kmq_alloc(consumer, 100);
    *_tmget_tperrno_addr() = 0;
    std::string body =
        kmq_recvex(consumer, &msg, timeout, 0) == 1 ? body_of(msg) : "error " + std::to_string(gettperrno());
    kmq_free(msg);
    return body;
}

TEST(ClhsimKmqLibrary, MessageGoesThroughAQueue)
{
    Service service;
    kmq_session *session = kmq_create_session("SHOP", 0, 0, 0);
    ASSERT_NE(session, nullptr);
    kmq_producer *producer = kmq_create_producer(session, "ORDERS", 0, nullptr, 0);
    kmq_consumer *consumer = kmq_create_consumer(session, "ORDERS", 0, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(send_body(producer, "tea"), 1);
    EXPECT_EQ(send_body(producer, "a doctor", 9), 1);
    EXPECT_EQ(receive_body(consumer), "a doctor");
    EXPECT_EQ(receive_body(consumer), "tea");
    EXPECT_EQ(receive_body(consumer, 1), "error " + std::to_string(TPETIME));
    EXPECT_EQ(send_body(producer, "late"), 1);
    EXPECT_EQ(receive_body(consumer), "late") << "the request of the receive before was still out";
    EXPECT_EQ(kmq_close_session(session, 0), 1);
}

TEST(ClhsimKmqLibrary, RollbackBringsItBack)
{
    Service service;
    kmq_session *session = kmq_create_session("SHOP", 1, 0, 0);
    ASSERT_NE(session, nullptr);
    kmq_producer *producer = kmq_create_producer(session, "ORDERS", 0, nullptr, 0);
    kmq_consumer *consumer = kmq_create_consumer(session, "ORDERS", 0, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(send_body(producer, "tea"), 1);
    EXPECT_EQ(kmq_commit(session, 0), 1);
    EXPECT_EQ(receive_body(consumer), "tea");
    EXPECT_EQ(kmq_rollback(session, 0), 1);
    EXPECT_EQ(receive_body(consumer), "tea");
    EXPECT_EQ(kmq_commit(session, 0), 1);
    EXPECT_NE(service.command("kmq").find("ORDERS ready 0 held 0"), std::string::npos);
}

TEST(ClhsimKmqLibrary, BrowserSeesTheQueueToItsEnd)
{
    Service service;
    kmq_session *session = kmq_create_session("SHOP", 0, 0, 0);
    ASSERT_NE(session, nullptr);
    kmq_producer *producer = kmq_create_producer(session, "ORDERS", 0, nullptr, 0);
    for (const char *text : {"a", "b", "c"})
        EXPECT_EQ(send_body(producer, text), 1);
    kmq_consumer *browser = kmq_create_browser(session, "ORDERS", nullptr, 0);
    char *msg = kmq_alloc(session, 100);
    std::string seen;
    *_tmget_tperrno_addr() = 0;
    while (kmq_browser_nextmsg(browser, &msg, 0) == 1)
        seen += body_of(msg);
    EXPECT_EQ(seen, "abc");
    EXPECT_EQ(gettperrno(), TPEMATCH);
    kmq_free(msg);
}

TEST(ClhsimKmqLibrary, ClosedByTheServer)
{
    Service service;
    kmq_session *session = kmq_create_session("SHOP", 0, 0, 0);
    ASSERT_NE(session, nullptr);
    kmq_consumer *consumer = kmq_create_consumer(session, "ORDERS", 0, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(service.command("closesession all"), "ok 1 session");
    EXPECT_EQ(receive_body(consumer, 5), "error " + std::to_string(TPECLOSE));
    EXPECT_EQ(kmq_close_session(session, 0), 1);
}
