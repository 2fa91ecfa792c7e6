// The key store on the wire: the stores of sessions and nodes, every sub-operation, system keys, lists, nodes
// that refuse, and what outlives the server.
#include "application.h"

#include <gtest/gtest.h>
#include <unistd.h>

static constexpr int32_t SQ = 181;
static constexpr int32_t GET = 2, PUT = 3, PURGE = 4, COUNT = 5, KEYGEN = 6, LIST = 8;
static constexpr int32_t TAKE = 0x1000, ADD = 0x2000, FIXKEY = 0x4000, NEWKEY = 0x8000;
static constexpr int32_t INVAL = 4, NOENT = 6, MATCH = 23;
static constexpr int32_t OWN = 1;  // any number of a session

static int32_t node(int32_t number)
{
    return number << 21 | 0x1fffff;
}

static Message request_of(int32_t operation, int32_t place, const std::string &data = "", int32_t target = 0,
                          int32_t flags = 0)
{
    Message message;
    message.msgtype = SQ;
    message.seqno = 4711;
    message.rcode = operation;
    message.cd = place;
    message.target = target;
    message.flags = flags;
    message.data = data;
    return message;
}

static std::string value_of(const std::string &text, int32_t buftype = STRING)
{
    Message value;
    value.buftype = buftype;
    value.data = text;
    return bytes_of(value);
}

static Message put(Link &link, int32_t place, const std::string &key, const std::string &text,
                   int32_t flags = 0)
{
    return link.exchange(
        request_of(PUT, place, key + value_of(text), static_cast<int32_t>(key.size()), flags));
}

static Message get(Link &link, int32_t place, const std::string &key, int32_t flags = 0)
{
    return link.exchange(request_of(GET, place, key, static_cast<int32_t>(key.size()), flags));
}

// The value's text, or the error.
static std::string text_at(Link &link, int32_t place, const std::string &key, int32_t flags = 0)
{
    Message reply = get(link, place, key, flags);
    if (reply.flags != 0)
        return "error " + std::to_string(reply.flags);
    EXPECT_EQ(reply.msgtype, SQ + 1000);
    EXPECT_EQ(reply.data.substr(0, static_cast<size_t>(reply.target)), key);
    return reply.data.substr(static_cast<size_t>(reply.target) + 136);
}

static int32_t count_of(Link &link, int32_t place)
{
    return link.exchange(request_of(COUNT, place)).target;
}

struct Row {
    std::string key;
    uint32_t second;
    uint32_t third;
};

static std::vector<Row> rows_of(const Message &reply)
{
    std::vector<Row> rows;
    size_t at = 12 * static_cast<size_t>(reply.target);
    for (size_t i = 0; i < static_cast<size_t>(reply.target); i++) {
        size_t length = ::get(reply.data, 12 * i);
        rows.push_back(
            {reply.data.substr(at, length), ::get(reply.data, 12 * i + 4), ::get(reply.data, 12 * i + 8)});
        at += length;
    }
    EXPECT_EQ(at, reply.data.size());
    return rows;
}

static std::string keys_of(const Message &reply)
{
    std::string keys;
    for (const Row &row : rows_of(reply))
        keys += row.key + " ";
    return keys;
}

TEST(ClhsimKeyStore, StartReplyTellsTheNumberOfNodes)
{
    Simulator one, three({"--nodes", "A,B,C"});
    EXPECT_EQ(one.connect().start().sessid, 1);
    EXPECT_EQ(three.connect().start().sessid, 3);
}

TEST(ClhsimKeyStore, ValueComesBackAsItWasPut)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = put(link, OWN, "tea", "two cups");
    EXPECT_EQ(reply.msgtype, SQ + 1000);
    EXPECT_EQ(reply.seqno, 4711);
    EXPECT_EQ(reply.data, "");
    reply = get(link, OWN, "tea");
    EXPECT_EQ(reply.target, 3);
    EXPECT_EQ(reply.data, "tea" + value_of("two cups"));
    EXPECT_EQ(reply.seqno, 4711);
}

TEST(ClhsimKeyStore, LaterPutReplacesAndAddDoesnt)
{
    Simulator server;
    Link link = server.log_in();
    put(link, OWN, "k", "one");
    EXPECT_EQ(put(link, OWN, "k", "two").flags, 0);
    EXPECT_EQ(text_at(link, OWN, "k"), "two");
    EXPECT_EQ(put(link, OWN, "k", "three", ADD).flags, MATCH);
    EXPECT_EQ(put(link, OWN, "new", "four", ADD).flags, 0);
    EXPECT_EQ(text_at(link, OWN, "k"), "two");
    EXPECT_EQ(count_of(link, OWN), 2);
}

TEST(ClhsimKeyStore, TakeRemovesWhatItGets)
{
    Simulator server;
    Link link = server.log_in();
    put(link, node(0), "k", "one");
    EXPECT_EQ(text_at(link, node(0), "k", TAKE), "one");
    EXPECT_EQ(text_at(link, node(0), "k", TAKE), "error 6");
}

TEST(ClhsimKeyStore, KeysAndValuesAreBytes)
{
    Simulator server;
    Link link = server.log_in();
    std::string key("\x00\xff\x80 k", 5), value("\x00\x01\xfe", 3);
    EXPECT_EQ(put(link, OWN, key, value).flags, 0);
    EXPECT_EQ(put(link, OWN, "empty", "").flags, 0);
    EXPECT_EQ(text_at(link, OWN, key), value);
    EXPECT_EQ(text_at(link, OWN, "empty"), "");
    EXPECT_EQ(put(link, OWN, "large", std::string(1000000, 'x')).flags, 0);
    EXPECT_EQ(text_at(link, OWN, "large").size(), 1000000u);
}

TEST(ClhsimKeyStore, EachSessionHasItsOwn)
{
    Simulator server;
    Link one = server.log_in(), two = server.log_in();
    put(one, OWN, "k", "one");
    EXPECT_EQ(text_at(two, OWN, "k"), "error 6") << "the same number, but another session";
    EXPECT_EQ(text_at(one, 77, "k"), "one") << "another number, but the same session";
    put(two, OWN, "k", "two");
    EXPECT_EQ(text_at(one, OWN, "k"), "one");
}

TEST(ClhsimKeyStore, SessionsStoreEndsWithIt)
{
    Simulator server;
    {
        Link link = server.log_in();
        put(link, OWN, "mine", "x");
        put(link, node(0), "ours", "y");
        EXPECT_NE(server.command("keys").find("mine"), std::string::npos);
    }
    while (server.stat("open") != 0)
        usleep(1000);
    std::string keys = server.command("keys");
    EXPECT_EQ(keys.find("mine"), std::string::npos);
    EXPECT_NE(keys.find("node 0 \"ours\" buftype 3 bytes 1"), std::string::npos) << keys;
}

TEST(ClhsimKeyStore, NodesHaveStoresThatAllShare)
{
    Simulator server({"--nodes", "A,B,C"});
    Link one = server.log_in(), two = server.log_in();
    put(one, node(1), "k", "on one");
    put(one, node(2), "k", "on two");
    EXPECT_EQ(text_at(two, node(1), "k"), "on one");
    EXPECT_EQ(text_at(two, node(2), "k"), "on two");
    EXPECT_EQ(text_at(two, node(0), "k"), "error 6");
    EXPECT_EQ(text_at(two, node(3), "k"), "error 6");
    EXPECT_EQ(put(two, node(3), "k", "x").flags, NOENT);
    EXPECT_EQ(text_at(two, node(-1), "k"), "error 6");
}

TEST(ClhsimKeyStore, PurgeRemovesOneOrAll)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *key : {"a", "b", "c"})
        put(link, node(0), key, "x");
    put(link, OWN, "a", "x");
    EXPECT_EQ(link.exchange(request_of(PURGE, node(0), "b", 0)).target, 1);
    Message reply = link.exchange(request_of(PURGE, node(0), "b", 0));
    EXPECT_EQ(reply.msgtype, SQ + 2000);
    EXPECT_EQ(reply.flags, NOENT);
    EXPECT_EQ(reply.target, 0);
    EXPECT_EQ(link.exchange(request_of(PURGE, node(0))).target, 2);
    reply = link.exchange(request_of(PURGE, node(0)));
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.target, 0);
    EXPECT_EQ(count_of(link, OWN), 1) << "the session's store is another";
}

TEST(ClhsimKeyStore, CountIsOfOneStore)
{
    Simulator server({"--nodes", "A,B"});
    Link link = server.log_in();
    EXPECT_EQ(count_of(link, node(1)), 0);
    put(link, node(1), "a", "x");
    put(link, node(1), "b", "x");
    put(link, node(0), "c", "x");
    EXPECT_EQ(count_of(link, node(1)), 2);
    EXPECT_EQ(count_of(link, node(0)), 1);
    EXPECT_EQ(count_of(link, OWN), 0);
}

TEST(ClhsimKeyStore, SystemKeysNameTheirNode)
{
    Simulator server({"--nodes", "A,B", "--node-number", "1"});
    Link link = server.log_in();
    Message first = link.exchange(request_of(KEYGEN, OWN));
    Message second = link.exchange(request_of(KEYGEN, node(0)));
    EXPECT_EQ(first.data.size(), 16u);
    EXPECT_EQ(first.data.substr(0, 5), "$SQID");
    EXPECT_EQ(first.data.substr(13), "001");
    EXPECT_EQ(second.data.substr(13), "000");
    EXPECT_NE(first.data.substr(5, 8), second.data.substr(5, 8));
    EXPECT_EQ(count_of(link, OWN), 0);
}

TEST(ClhsimKeyStore, NewKeyIsMadeByTheServer)
{
    Simulator server({"--nodes", "A,B"});
    Link link = server.log_in();
    Message reply = put(link, node(1), std::string(16, '?'), "x", NEWKEY);
    EXPECT_EQ(reply.flags, 0);
    ASSERT_EQ(reply.data.size(), 16u);
    EXPECT_EQ(reply.data.substr(13), "001");
    EXPECT_EQ(text_at(link, node(1), reply.data), "x");
    EXPECT_EQ(text_at(link, node(1), std::string(16, '?')), "error 6");
    EXPECT_EQ(put(link, node(1), std::string(15, '?'), "x", NEWKEY).flags, INVAL);
}

TEST(ClhsimKeyStore, FixedKeyHasSixteenBytes)
{
    Simulator server;
    Link link = server.log_in();
    std::string key = link.exchange(request_of(KEYGEN, node(0))).data;
    EXPECT_EQ(put(link, node(0), key, "x", FIXKEY).flags, 0);
    EXPECT_EQ(text_at(link, node(0), key), "x");
    EXPECT_EQ(put(link, node(0), key + "y", "x", FIXKEY).flags, INVAL);
}

TEST(ClhsimKeyStore, ListIsSortedBySignedBytes)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *key : {"b", "\xff", "ab", "\x80", "a", "abc", "A"})
        put(link, OWN, key, std::string(key) + "!");
    Message reply = link.exchange(request_of(LIST, OWN));
    EXPECT_EQ(reply.target, 7);
    EXPECT_EQ(keys_of(reply), "\x80 \xff A a ab abc b ");
    std::vector<Row> rows = rows_of(reply);
    EXPECT_EQ(rows[5].second, 3u + 4u) << "key and value";
    EXPECT_EQ(rows[5].third, static_cast<uint32_t>(STRING));
}

TEST(ClhsimKeyStore, ListIsNarrowedToABeginning)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *key : {"tea.1", "tea.2", "te", "cup"})
        put(link, node(0), key, "");
    EXPECT_EQ(keys_of(link.exchange(request_of(LIST, node(0), "tea"))), "tea.1 tea.2 ");
    EXPECT_EQ(keys_of(link.exchange(request_of(LIST, node(0)))), "cup te tea.1 tea.2 ");
    Message none = link.exchange(request_of(LIST, node(0), "x"));
    EXPECT_EQ(none.msgtype, SQ + 2000);
    EXPECT_EQ(none.flags, NOENT);
}

TEST(ClhsimKeyStore, RequestsThatMakeNoSenseAreRefused)
{
    Simulator server;
    Link link = server.log_in();
    std::string value = value_of("x");
    std::string long_value = value, magicless = value;
    put(long_value, 100, 2);
    put(magicless, 0, 1);
    for (const Message &request :
         {request_of(0, OWN), request_of(1, OWN), request_of(7, OWN), request_of(-1, OWN),
          request_of(GET, OWN), request_of(GET, OWN, "key", 2), request_of(GET, OWN, "key", 4),
          request_of(GET, OWN, "key", -1), request_of(PUT, OWN), request_of(PUT, OWN, value, 0),
          request_of(PUT, OWN, "k" + value, 2), request_of(PUT, OWN, "k" + value, INT32_MAX),
          request_of(PUT, OWN, "k", 1), request_of(PUT, OWN, "k" + value.substr(0, 135), 1),
          request_of(PUT, OWN, "k" + long_value, 1), request_of(PUT, OWN, "k" + magicless, 1),
          request_of(PUT, OWN, "k" + value + "y", 1)}) {
        Message reply = link.exchange(request);
        EXPECT_EQ(reply.msgtype, SQ + 2000) << request.rcode << " " << request.target;
        EXPECT_EQ(reply.flags, INVAL) << request.rcode << " " << request.target;
    }
    EXPECT_EQ(count_of(link, OWN), 0);
}

TEST(ClhsimKeyStore, NodesCanBeMadeToRefuse)
{
    Simulator server({"--nodes", "A,B,C"});
    Link link = server.log_in();
    for (int32_t number : {0, 1, 2})
        put(link, node(number), "k", "x");
    server.command("refuse _sq@1 12");
    EXPECT_EQ(text_at(link, node(0), "k"), "x");
    EXPECT_EQ(text_at(link, node(1), "k"), "error 12");
    EXPECT_EQ(link.exchange(request_of(COUNT, node(1))).msgtype, SQ + 2000);
    server.command("refuse _sq@session 9");
    EXPECT_EQ(put(link, OWN, "k", "x").flags, 9);
    server.command("clear *");
    EXPECT_EQ(text_at(link, node(1), "k"), "x");
    server.command("refuse _sq 10 2");
    EXPECT_EQ(text_at(link, node(0), "k"), "error 10");
    EXPECT_EQ(text_at(link, OWN, "k"), "error 10");
}

TEST(ClhsimKeyStore, OtherFaultsWorkToo)
{
    Simulator server({"--nodes", "A,B"});
    Link link = server.log_in();
    put(link, node(0), "k", "x");
    put(link, node(1), "k", "y");
    server.command("delay _sq@0 300 1");
    // Both at once, so that none is late by itself.
    link.send(bytes_of(request_of(GET, node(0), "k", 1)) + bytes_of(request_of(GET, node(1), "k", 1)));
    EXPECT_EQ(link.receive().data.back(), 'y') << "the other node isn't late";
    EXPECT_EQ(link.receive().data.back(), 'x');
    server.command("giveback _sq 1");
    Message request = request_of(PURGE, node(0), "k", 0, 0x1);
    Message back = link.exchange(request);
    EXPECT_EQ(back.msgtype, SQ + 2000);
    EXPECT_EQ(back.xflags & 0x20000000u, 0x20000000u);
    EXPECT_EQ(back.rcode, PURGE);
    EXPECT_EQ(back.data, "k");
    EXPECT_EQ(back.flags, 1) << "the request as it was, so that it can be sent again";
    EXPECT_EQ(count_of(link, node(0)), 1);
}

TEST(ClhsimKeyStore, FileKeepsWhatIsTheNodes)
{
    Simulator keeper;  // for its directory
    std::string file = keeper.directory + "/store";
    std::string made;
    {
        Simulator server({"--store-file", file, "--nodes", "A,B"});
        Link link = server.log_in();
        put(link, node(1), "k", "kept");
        put(link, OWN, "mine", "lost");
        made = link.exchange(request_of(KEYGEN, node(0))).data;
        server.signal(9);
        EXPECT_EQ(server.wait(), -9);
    }
    Simulator server({"--queue-file", file, "--nodes", "A,B"});
    Link link = server.log_in();
    EXPECT_EQ(text_at(link, node(1), "k"), "kept");
    EXPECT_EQ(count_of(link, OWN), 0);
    EXPECT_EQ(server.command("keys").find("mine"), std::string::npos);
    EXPECT_NE(link.exchange(request_of(KEYGEN, node(0))).data, made) << "no key is made twice";
}

TEST(ClhsimKeyStore, SessionIsNeeded)
{
    Simulator server;
    Link link = server.connect();
    Message reply = link.exchange(request_of(COUNT, node(0)));
    EXPECT_EQ(reply.msgtype, SQ + 2000);
    EXPECT_EQ(reply.flags, 9);
}
