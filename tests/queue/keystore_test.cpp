// The shared key store: what its calls send, what they make of the replies, and which nodes they ask.
#include "calls/fixture.h"
#include "queue/keystore.h"
#include "support/fieldbuffer.h"
#include "support/sdlfile.h"
#include "vorn/fields.h"
#include "vorn/keystore.h"

namespace {

constexpr int32_t REQUEST = 181;
constexpr int32_t NODE_STORE = 1 << 21 | 0x1fffff;  // of the client's own node
constexpr int32_t CLIENT = 1 << 21 | 2 << 14 | 17;

int32_t store(int node)
{
    return node << 21 | 0x1fffff;
}

std::string header_of(const std::string &data, int32_t buftype, const std::string &subtype = "")
{
    wire::frame head;
    head.buftype = buftype;
    head.subtype = subtype;
    head.bufsize = head.datalen = (int32_t)data.size();
    return wire::encode_header(head);
}

struct KeyStore : CallTest {
    char *data = new_buffer("CARRAY", "", 40);
    long got = -1;

    ~KeyStore() override { tpfree(data); }

    bool open(int nodes = 1)
    {
        wire::start_reply reply;
        reply.token = nodes;
        reply.location = 1 << 8 | 2;
        reply.client = 17;
        return start(reply);
    }
    // The server takes one request of the kind and gives this reply.
    void serve(int operation, const std::string &reply = "", const wire::with &fields = {})
    {
        peer.play([=, this] {
            wire::frame request = peer.expect(REQUEST).frame;
            EXPECT_EQ(request.rcode, operation);
            peer.reply(reply, fields);
        });
    }
    // All nodes but one are asked, in ascending order, under one number.
    std::vector<wire::frame> expect_nodes(int nodes, int leave_out, int operation)
    {
        std::vector<wire::frame> requests;
        for (int node = 0; node < nodes; node++) {
            if (node == leave_out)
                continue;
            requests.push_back(peer.expect(REQUEST).cd(store(node)).frame);
            EXPECT_EQ(requests.back().rcode, operation);
            EXPECT_EQ(requests.back().seqno, requests.front().seqno);
        }
        return requests;
    }
    // A reply to a get.
    std::string stored(const std::string &value, int32_t buftype = wire::CARRAY, const std::string &area = "",
                       const std::string &subtype = "")
    {
        return area + header_of(value, buftype, subtype) + value;
    }
    int get(long flags = 0, const char *key = "key")
    {
        return vorn_sq_get(svc(key), (int)strlen(key), &data, &got, flags);
    }
    std::string value(void) const { return std::string(data, (size_t)got); }
    void expect_error(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(gettperrno(), error);
    }
};

}  // namespace

TEST_F(KeyStore, CallsNeedASession)
{
    EXPECT_EQ(vorn_get_sessionid(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    char key[16];
    expect_error(vorn_sq_put(key, 3, in, 0, 0), TPEPROTO);
    expect_error(get(), TPEPROTO);
    expect_error(vorn_gq_count(), TPEPROTO);
    expect_error(vorn_sq_purge(nullptr, 0), TPEPROTO);
    expect_error(vorn_gq_keygen(key, 16), TPEPROTO);
    EXPECT_EQ(vorn_sq_getkeylist(nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(KeyStore, SessionIdTellsNodeAndPlace)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(vorn_get_sessionid(), CLIENT);
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(KeyStore, SystemKeysTellTheirNode)
{
    char key[] = "$SQID\1\2\3\4\5\6\7\10"
                 "01f";
    EXPECT_EQ(_vorn_sq_issyskey(key, 16), 1);
    EXPECT_EQ(_vorn_sq_getnodeno_from_syskey(key, 16), 0x1f);
    EXPECT_EQ(_vorn_sq_issyskey(key, 15), 0);
    EXPECT_EQ(_vorn_sq_getnodeno_from_syskey(key, 17), -1);
    EXPECT_EQ(_vorn_sq_issyskey(nullptr, 16), 0);
    key[4] = 'd';
    EXPECT_EQ(_vorn_sq_issyskey(key, 16), 0);
}

TEST_F(KeyStore, PutSendsKeyHeaderAndData)
{
    ASSERT_TRUE(open());
    wire::frame request;
    peer.play([&] {
        request = peer.expect(REQUEST).flags(0x2000).cd(CLIENT).buftype(wire::HEADER_ONLY).frame;
        peer.reply();
    });
    EXPECT_EQ(vorn_sq_put(svc("abc"), 3, in, 0, 0x2000), 1);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
    EXPECT_EQ(request.rcode, 3);
    EXPECT_EQ(request.target, 3);
    EXPECT_EQ(request.datalen, 3 + wire::HEADER + 6);
    EXPECT_EQ(request.bufsize, request.datalen);
    EXPECT_EQ(request.xflags, 0u);
    EXPECT_EQ(request.data.substr(0, 3), "abc");
    wire::frame inner = wire::decode_header(request.data.substr(3));
    EXPECT_EQ(inner.magic, wire::MAGIC);
    EXPECT_EQ(inner.buftype, wire::STRING);
    EXPECT_EQ(inner.datalen, 6);
    EXPECT_EQ(request.data.substr(3 + wire::HEADER), std::string("hello\0", 6));
    EXPECT_STREQ(in, "hello");
    expect_idle();
    expect_usable();
}

TEST_F(KeyStore, PutSendsFieldsInWireForm)
{
    ASSERT_TRUE(open());
    char *fields = new_buffer("FIELD");
    int32_t number = 0x01020304;
    ASSERT_EQ(fbput((FBUF *)fields, fld::key(fld::INT, 7), (char *)&number, 0), 1);
    wire::frame request;
    peer.play([&] {
        request = peer.expect(REQUEST).frame;
        peer.reply();
    });
    EXPECT_EQ(vorn_gq_put(svc("k"), 1, fields, 0, 0), 1);
    peer.done();
    EXPECT_EQ(request.flags, (uint32_t)SQ_GLOBAL);
    EXPECT_EQ(request.cd, NODE_STORE);
    std::string body = request.data.substr(1 + wire::HEADER);
    EXPECT_EQ(body, wire::word(8888) + wire::word(16) + wire::word((uint32_t)fld::key(fld::INT, 7)) +
                        wire::word(0x01020304));
    EXPECT_EQ(fld::in((FBUF *)fields), fld::list{fld::an_int(7, 0x01020304)});
    tpfree(fields);
}

TEST_F(KeyStore, PutRefusesWhatCannotBeStored)
{
    ASSERT_TRUE(open());
    char key[16] = "key";
    expect_error(vorn_sq_put(key, 3, in, 0, 0x4), TPEINVAL);
    expect_error(vorn_sq_put(key, 3, in, 0, 0x40000000000L), TPEINVAL);
    expect_error(vorn_sq_put(nullptr, 3, in, 0, 0), TPEINVAL);
    expect_error(vorn_sq_put(key, 0, in, 0, 0), TPEINVAL);
    expect_error(vorn_sq_put(key, 3, nullptr, 0, 0), TPEINVAL);
    expect_error(vorn_sq_put(key, 15, in, 0, SQ_NEWKEY), TPEINVAL);
    expect_error(vorn_sq_put(key, 15, in, 0, SQ_FIXKEY), TPEINVAL);
    alignas(8) char plain[400] = {};
    expect_error(vorn_sq_put(key, 3, plain + 200, 0, 0), TPEITYPE);
    expect_error(vorn_sq_put(key, 3, in, 5000, 0), TPEINVAL);
    peer.expect_nothing();
}

TEST_F(KeyStore, PutWithNewKeyFillsSixteenBytes)
{
    ASSERT_TRUE(open());
    char key[32];
    memset(key, 'x', sizeof key);
    peer.play([&] {
        wire::frame request = peer.expect(REQUEST).frame;
        EXPECT_EQ(request.target, 16);
        EXPECT_EQ(request.data.substr(0, 16), std::string(16, '\0'));
        peer.reply("$SQID01234567001");
    });
    EXPECT_EQ(vorn_sq_put(key, 32, in, 0, SQ_NEWKEY), 1);
    EXPECT_EQ(std::string(key, 32), "$SQID01234567001" + std::string(16, 'x'));
    peer.done();
    serve(3, "$SQID0123456700");
    expect_error(vorn_sq_put(key, 16, in, 0, SQ_NEWKEY), TPESYSTEM);
}

TEST_F(KeyStore, RefusedPutTellsTheServersError)
{
    ASSERT_TRUE(open());
    serve(3, "", {.flags = TPELIMIT});
    expect_error(vorn_sq_put(svc("abc"), 3, in, 0, 0), TPELIMIT);
    expect_idle();
}

TEST_F(KeyStore, GetTakesTheValueBehindTheArea)
{
    ASSERT_TRUE(open());
    char *before = data;
    peer.play([&] {
        wire::frame request = peer.expect(REQUEST).data("key").flags(0x1000).frame;
        EXPECT_EQ(request.target, 3);
        peer.reply(stored("VALUE", wire::CARRAY, "area!"), {.target = 5});
    });
    EXPECT_EQ(get(0x1000), 1) << gettperrno();
    EXPECT_EQ(value(), "VALUE");
    EXPECT_EQ(data, before);
    expect_idle();
}

TEST_F(KeyStore, GetOfALargerValueGrowsTheBuffer)
{
    ASSERT_TRUE(open());
    std::string large(100000, 'v');
    serve(2, stored(large));
    EXPECT_EQ(get(), 1) << gettperrno();
    EXPECT_EQ(value(), large);
    EXPECT_EQ(tpgetasize(data), 100000);
}

TEST_F(KeyStore, GetKeepsTheSizeOfALargerBuffer)
{
    ASSERT_TRUE(open());
    int size = tpgetasize(data);
    serve(2, stored("v"));
    EXPECT_EQ(get(), 1);
    EXPECT_EQ(tpgetasize(data), size);
}

TEST_F(KeyStore, GetTurnsFieldsToHostOrder)
{
    ASSERT_TRUE(open());
    std::string fields = wire::word(8888) + wire::word(16) + wire::word((uint32_t)fld::key(fld::INT, 7)) +
                         wire::word(0x01020304);
    serve(2, stored(fields, wire::FIELD, "odd"), {.target = 3});
    EXPECT_EQ(get(), 1);
    EXPECT_EQ(got, 16);
    EXPECT_EQ(fld::in((FBUF *)data), fld::list{fld::an_int(7, 0x01020304)});
}

TEST_F(KeyStore, GetTurnsRecordsWhoseFormsDiffer)
{
    sdl::member number = {.name = "n", .type = sdl::LONG, .host_offset = 0, .wire_offset = 0};
    setenv("SDLFILE64", write_definition(sdl::file_bytes({{"tall", {number}, 8, 4, 0}})).c_str(), 1);
    ASSERT_TRUE(open());
    std::string records;
    for (uint32_t i = 1; i <= 20; i++)
        records += wire::word(i);
    serve(2, stored(records, wire::STRUCT, "", "tall"));
    EXPECT_EQ(get(), 1) << gettperrno();
    ASSERT_EQ(got, 160);
    EXPECT_GE(tpgetasize(data), 160);
    for (long i = 0; i < 20; i++)
        EXPECT_EQ(((long *)data)[i], i + 1);
}

TEST_F(KeyStore, GetUnderNochangeWantsTheSameType)
{
    ASSERT_TRUE(open());
    serve(2, stored("same"));
    EXPECT_EQ(get(TPNOCHANGE), 1) << gettperrno();
    peer.done();
    serve(2, stored("other", wire::STRING));
    expect_error(get(TPNOCHANGE), TPEOTYPE);
    EXPECT_EQ(value(), "same");
}

TEST_F(KeyStore, GetRefusesWhatIsNoBuffer)
{
    ASSERT_TRUE(open());
    alignas(8) char plain[400] = {};
    char *inside = plain + 200;
    expect_error(vorn_sq_get(svc("k"), 1, &inside, &got, 0), TPEOTYPE);
    expect_error(vorn_sq_get(svc("k"), 1, &data, nullptr, 0), TPEINVAL);
    expect_error(vorn_sq_get(svc("k"), 0, &data, &got, 0), TPEINVAL);
    expect_error(vorn_sq_get(nullptr, 1, &data, &got, 0), TPEINVAL);
    expect_error(get(0x4), TPEINVAL);
    peer.expect_nothing();
}

TEST_F(KeyStore, RepliesThatCannotBeOnesAreRefused)
{
    ASSERT_TRUE(open());
    memcpy(data, "before", 6);
    std::string good = stored("VALUE"), bad_magic = good, negative = good, beyond = good;
    bad_magic[0] = 'x';
    negative.replace(100, 4, wire::word(0xffffffff));
    beyond.replace(100, 4, wire::word(6));
    struct {
        std::string reply;
        int32_t area;
    } cases[] = {{"", 0},
                 {good, -1},
                 {good, 6},
                 {good, INT32_MAX},
                 {good, INT32_MIN},
                 {bad_magic, 0},
                 {negative, 0},
                 {beyond, 0},
                 {good.substr(0, 135), 0},
                 {stored(std::string(16, 'f'), wire::FIELD), 0},
                 {stored("1234", wire::STRUCT, "", "none"), 0}};
    for (auto &one : cases) {
        serve(2, one.reply, {.target = one.area});
        expect_error(get(), TPESYSTEM);
        EXPECT_EQ(std::string(data, 6), "before");
        EXPECT_EQ(tpgettype(data), wire::CARRAY);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyStore, SystemKeyIsAskedOfItsNodeAndThenOfTheOthers)
{
    ASSERT_TRUE(open(3));
    char key[] = "$SQID12345678002";
    peer.play([&] {
        wire::frame first = peer.expect(REQUEST).cd(store(2)).frame;
        peer.reply("", {.flags = TPENOENT});
        auto requests = expect_nodes(3, 2, 2);
        EXPECT_NE(requests[0].seqno, first.seqno);
        peer.reply_to(requests[0], "", {.flags = TPENOENT});
        peer.reply_to(requests[1], stored("FOUND"));
    });
    EXPECT_EQ(vorn_gq_get(key, 16, &data, &got, 0), 1) << gettperrno();
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(value(), "FOUND");
    peer.done();
    expect_idle();
}

TEST_F(KeyStore, GetThatAllNodesRefuseTellsTheLastError)
{
    ASSERT_TRUE(open(2));
    peer.play([&] {
        peer.expect(REQUEST).cd(NODE_STORE);
        peer.reply("", {.flags = TPELIMIT});
        auto requests = expect_nodes(2, 1, 2);
        peer.reply_to(requests[0], "", {.flags = TPENOENT});
    });
    expect_error(vorn_gq_get(svc("key"), 3, &data, &got, 0), TPENOENT);
    expect_idle();
}

TEST_F(KeyStore, CountOfTheDomainSumsWhatTheNodesTell)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto requests = expect_nodes(3, -1, 5);
        peer.reply_to(requests[0], "", {.target = 5});
        peer.reply_to(requests[1], "", {.flags = TPESYSTEM});
        peer.reply_to(requests[2], "", {.target = 7});
    });
    EXPECT_EQ(vorn_gq_count(), 12);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyStore, CountThatAllNodesRefuseTellsNoError)
{
    ASSERT_TRUE(open(2));
    peer.play([&] {
        for (const wire::frame &request : expect_nodes(2, -1, 5))
            peer.reply_to(request, "", {.flags = TPENOENT});
    });
    expect_error(vorn_gq_count(), 0);
    expect_idle();
}

TEST_F(KeyStore, CountsNeitherWrapNorHideAnImpossibleOne)
{
    ASSERT_TRUE(open(2));
    for (auto [first, second, result] :
         {std::tuple(INT32_MAX, 2, INT32_MAX), std::tuple(-5, 9, -1), std::tuple(9, INT32_MIN, -1)}) {
        peer.play([&, first = first, second = second] {
            auto requests = expect_nodes(2, -1, 5);
            peer.reply_to(requests[0], "", {.target = first});
            peer.reply_to(requests[1], "", {.target = second});
        });
        EXPECT_EQ(vorn_gq_count(), result);
        EXPECT_EQ(gettperrno(), result < 0 ? TPESYSTEM : 0);
        peer.done();
    }
}

TEST_F(KeyStore, CountOfOneNodeIsAskedOnce)
{
    ASSERT_TRUE(open(1));
    peer.play([&] {
        peer.expect(REQUEST).cd(NODE_STORE).header_only();
        peer.reply("", {.target = 4});
    });
    EXPECT_EQ(vorn_gq_count(), 4);
    peer.done();
    serve(5, "", {.target = -1});
    expect_error(vorn_sq_count(), TPESYSTEM);
}

TEST_F(KeyStore, PurgeOfAKeyAsksTheOthersIfTheOwnNodeHasNone)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        peer.expect(REQUEST).cd(NODE_STORE).data("key").flags((uint32_t)SQ_GLOBAL);
        peer.reply("", {.target = 0});
        auto requests = expect_nodes(3, 1, 4);
        peer.reply_to(requests[0], "", {.flags = TPENOENT});
        peer.reply_to(requests[1], "", {.target = 2});
        peer.expect(REQUEST).cd(NODE_STORE);
        peer.reply("", {.target = 1});
    });
    EXPECT_EQ(vorn_gq_purge(svc("key"), 3), 2);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(vorn_gq_purge(svc("key"), 3), 1);
    peer.done();
    expect_idle();
    peer.expect_nothing();
}

TEST_F(KeyStore, PurgeOfAllAsksAllNodesAtOnce)
{
    ASSERT_TRUE(open(2));
    peer.play([&] {
        auto requests = expect_nodes(2, -1, 4);
        EXPECT_EQ(requests[0].datalen, 0);
        peer.reply_to(requests[0], "", {.target = 3});
        peer.reply_to(requests[1], "", {.target = 4});
    });
    EXPECT_EQ(vorn_gq_purge(nullptr, 0), 7);
    expect_error(vorn_sq_purge(svc("key"), 0), TPEINVAL);
    peer.done();
    serve(4, "", {.target = 9});
    EXPECT_EQ(vorn_sq_purge(nullptr, -3), 9);
}

TEST_F(KeyStore, KeygenAsksTheOwnNodeOnly)
{
    ASSERT_TRUE(open(3));
    char key[17] = "................";
    expect_error(vorn_gq_keygen(key, 15), TPEINVAL);
    expect_error(vorn_gq_keygen(nullptr, 16), TPEINVAL);
    peer.play([&] {
        wire::frame request = peer.expect(REQUEST).cd(NODE_STORE).header_only().flags(0).frame;
        EXPECT_EQ(request.rcode, 6);
        peer.reply("$SQID12345678001");
    });
    EXPECT_EQ(vorn_gq_keygen(key, 16), 1);
    EXPECT_STREQ(key, "$SQID12345678001");
    peer.done();
    serve(6, "$SQID123456780011");
    expect_error(vorn_sq_keygen(key, 16), TPESYSTEM);
}

// A message that nobody wants comes between the replies: the thread that asks all nodes doesn't wait for
// itself to look at it.
TEST_F(KeyStore, OtherMessagesBetweenTheRepliesDelayNothing)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto requests = expect_nodes(3, -1, 5);
        for (const wire::frame &request : requests) {
            peer.send(wire::message(1012));
            peer.reply_to(request, "", {.target = 1});
        }
    });
    EXPECT_EQ(vorn_gq_count(), 3);
    peer.done();
    expect_idle();
}

TEST_F(KeyStore, EndOfTheConnectionEndsTheQuestionToAllNodes)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto requests = expect_nodes(3, -1, 5);
        peer.reply_to(requests[0], "", {.target = 1});
        peer.hang_up();
    });
    expect_error(vorn_gq_count(), TPECLOSE);
    EXPECT_EQ(block()->waiter_count, 0);
    expect_error(vorn_gq_count(), TPEPROTO);
}

TEST_F(KeyStore, WaitsEndWithTheBlockTimeUnlessToldOtherwise)
{
    wire::start_reply reply;
    reply.block_time = 5;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        peer.expect(REQUEST);
        let_time_run_out(6);
    });
    EXPECT_EQ(note(get()), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    expect_idle();
}

TEST_F(KeyStore, WithoutMemoryEveryCallFailsAndTheSessionServesOn)
{
    ASSERT_TRUE(open(1));
    char key[16];
    faults::fail_allocation(1);
    expect_error(vorn_sq_put(svc("k"), 1, in, 0, 0), TPEOS);
    faults::fail_allocation(1);
    expect_error(get(), TPEOS);
    faults::fail_allocation(1);
    expect_error(vorn_sq_keygen(key, 16), TPEOS);
    faults::disarm_allocations();
    peer.expect_nothing();
    expect_idle();
    expect_usable();
}

TEST_F(KeyStore, RepliesBehindTheOneThatSettlesAreNobodysAnswer)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        peer.expect(REQUEST);
        peer.reply("", {.flags = TPENOENT});
        auto requests = expect_nodes(3, 1, 2);
        peer.reply_to(requests[0], stored("FOUND"));
        peer.reply_to(requests[1], "", {.flags = TPENOENT});
        peer.expect(REQUEST);
        peer.reply("", {.target = 4});
    });
    EXPECT_EQ(vorn_gq_get(svc("key"), 3, &data, &got, 0), 1) << gettperrno();
    EXPECT_EQ(vorn_sq_count(), 4);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyStore, ThreadsThatShareAConnectionEachGetTheirOwnSums)
{
    constexpr int ROUNDS = 300, THREADS = 3, NODES = 3;
    wire::start_reply reply;
    reply.token = NODES;
    ASSERT_TRUE(start(reply, true));
    int number = context();
    peer.play([&] {
        wire::frame request;
        for (int left = ROUNDS * THREADS * NODES; left > 0 && peer.receive(&request); left--)
            peer.reply_to(request, "", {.target = request.seqno % 1000 + 1});
    });
    std::atomic<int> wrong{0};
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; t++)
            threads.emplace_back([&] {
                ASSERT_EQ(tpsetctxt(number, 0), 1);
                for (int i = 0; i < ROUNDS; i++)
                    wrong += vorn_gq_count() % NODES != 0;
                tpsetctxt(TPNULLCONTEXT, 0);
            });
        for (std::thread &thread : threads)
            thread.join();
    }
    EXPECT_EQ(wrong, 0);
    peer.done();
    expect_idle();
}
