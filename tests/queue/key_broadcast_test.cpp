// The domain's store on several nodes: who is asked, in which order and under which number, what becomes of
// the replies, and of those that come when the result is known.
#include "queue/key_fixture.h"

namespace {

constexpr uint32_t GLOBAL = 0x10000;

struct KeyBroadcast : KeyTest {
    // The own node gives an error to a get, then the others are asked.
    std::vector<wire::frame> expect_get_of_all(int nodes, const std::string &key = "key",
                                               int first = OWN_NODE)
    {
        auto request = wire::key_request(wire::GET, store_of(first), key, (int32_t)key.size(), GLOBAL);
        wire::frame own = expect_request(request);
        peer.reply("", {.flags = TPENOENT});
        auto others = expect_nodes(nodes, first, request);
        if (!others.empty()) {
            EXPECT_EQ(others[0].seqno, own.seqno + 1);
        }
        return others;
    }
    std::vector<wire::frame> expect_count(int nodes)
    {
        return expect_nodes(nodes, -1, wire::key_request(wire::COUNT, 0));
    }
    void refuse(const wire::frame &request, uint32_t error = TPENOENT)
    {
        peer.reply_to(request, "", {.flags = error});
    }
    void tell(const wire::frame &request, int32_t count) { peer.reply_to(request, "", {.target = count}); }
    // Lets all nodes answer a count, each with its number in the list.
    int count_of(const std::vector<int32_t> &counts)
    {
        peer.play([&] {
            auto requests = expect_count((int)counts.size());
            for (size_t i = 0; i < counts.size(); i++)
                tell(requests[i], counts[i]);
        });
        int result = vorn_gq_count();
        peer.done();
        return result;
    }
};

}  // namespace

// --- How many nodes there are.

TEST_F(KeyBroadcast, FewerThanTwoNodesAreAskedAsOne)
{
    for (int nodes : {1, 0, -1, INT32_MIN}) {
        SCOPED_TRACE(nodes);
        ASSERT_TRUE(open(nodes));
        peer.play([&] {
            expect_request(wire::key_request(wire::COUNT, OWN_STORE));
            peer.reply("", {.target = 3});
            expect_request(wire::key_request(wire::PURGE, OWN_STORE, "", 0, GLOBAL));
            peer.reply("", {.target = 4});
            expect_request(wire::key_request(wire::PURGE, OWN_STORE, "key", 0, GLOBAL));
            peer.reply("", {.target = 0});
            expect_request(wire::key_request(wire::GET, OWN_STORE, "key", 3, GLOBAL));
            peer.reply("", {.flags = TPENOENT});
            expect_request(wire::key_request(wire::LIST, OWN_STORE));
            peer.reply("", {.flags = TPELIMIT});
        });
        expect_good(vorn_gq_count(), 3);
        expect_good(vorn_gq_purge(nullptr, 0), 4);
        expect_good(gq_purge("key"), 0);
        expect_error(gq_get(), TPENOENT);
        EXPECT_EQ(vorn_gq_getkeylist(nullptr, 0), nullptr);
        EXPECT_EQ(gettperrno(), TPELIMIT);
        peer.done();
        peer.expect_nothing();
        expect_idle();
        peer.play([&] { peer.serve_end(); });
        tpend();
        peer.done();
    }
}

TEST_F(KeyBroadcast, NoMoreNodesAreAskedThanCanBeAddressed)
{
    ASSERT_TRUE(open(INT32_MAX));
    peer.play([&] {
        for (int node = 0; node < 2048; node++) {
            wire::frame request = peer.expect(wire::KEY_REQUEST).cd(store_of(node)).frame;
            tell(request, 1);
        }
    });
    expect_good(vorn_gq_count(), 2048);
    peer.done();
    peer.expect_nothing();
    expect_idle();
}

TEST_F(KeyBroadcast, SessionStoreIsNeverAskedOfOthers)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        expect_request(wire::key_request(wire::GET, CLIENT_ID, "$SQID12345678002", 16));
        peer.reply("", {.flags = TPENOENT});
        expect_request(wire::key_request(wire::COUNT, CLIENT_ID));
        peer.reply("", {.target = 3});
        expect_request(wire::key_request(wire::PURGE, CLIENT_ID, "key"));
        peer.reply("", {.target = 0});
        expect_request(wire::key_request(wire::PURGE, CLIENT_ID));
        peer.reply("", {.flags = TPELIMIT});
        expect_request(wire::key_request(wire::LIST, CLIENT_ID, "sel"));
        peer.reply("", {.flags = TPENOENT});
    });
    expect_error(get(0, "$SQID12345678002"), TPENOENT);
    expect_good(vorn_sq_count(), 3);
    expect_good(vorn_sq_purge(svc("key"), 3), 0);
    expect_error(vorn_sq_purge(nullptr, 0), TPELIMIT);
    EXPECT_EQ(vorn_sq_getkeylist(svc("sel"), 3), nullptr);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
    peer.expect_nothing();
    expect_idle();
}

// --- Getting.

TEST_F(KeyBroadcast, GetAsksTheOthersUnderOneNewNumber)
{
    ASSERT_TRUE(open(4));
    peer.play([&] {
        auto others = expect_get_of_all(4);
        ASSERT_EQ(others.size(), 3u);
        refuse(others[2]);
        peer.reply_to(others[0], "ar" + wire::value("FOUND"), {.target = 2});
        refuse(others[1]);
    });
    expect_good(gq_get());
    EXPECT_EQ(value(), "FOUND");
    peer.done();
    peer.expect_nothing();
}

TEST_F(KeyBroadcast, GetWhoseOwnNodeHasItAsksNobodyElse)
{
    ASSERT_TRUE(open(3));
    serve(wire::GET, wire::value("OWN"));
    expect_good(gq_get());
    peer.done();
    peer.expect_nothing();
}

TEST_F(KeyBroadcast, GetThatNobodyAnswersWellTellsWhatCameLast)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto others = expect_get_of_all(3);
        refuse(others[1], TPESVCERR);
        refuse(others[0], TPELIMIT);
    });
    expect_error(gq_get(), TPELIMIT);
    peer.done();
    expect_untouched();
    expect_idle();
}

TEST_F(KeyBroadcast, GetUnderNochangeComparesTheTypesOfTheValues)
{
    ASSERT_TRUE(open(2));
    for (auto [kind, result] : {std::pair(wire::CARRAY, 1), {wire::STRING, -1}}) {
        peer.play([&, kind = kind] {
            peer.expect(wire::KEY_REQUEST);
            peer.reply("", {.flags = TPENOENT});
            wire::frame other = peer.expect(wire::KEY_REQUEST).cd(store_of(0)).frame;
            EXPECT_EQ(other.flags, GLOBAL | (uint32_t)TPNOCHANGE);
            peer.reply_to(other, wire::value("V", kind), {.buftype = wire::STRING});
        });
        EXPECT_EQ(gq_get("key", TPNOCHANGE), result);
        EXPECT_EQ(gettperrno(), result == 1 ? 0 : TPEOTYPE);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyBroadcast, SystemKeyGoesToItsNodeFirst)
{
    ASSERT_TRUE(open(3));
    for (const char *digits : {"000", "002"}) {
        std::string key = std::string("$SQID12345678") + digits;
        int node = digits[2] - '0';
        peer.play([&] {
            for (const wire::frame &other : expect_get_of_all(3, key, node))
                refuse(other, TPESVCERR);
        });
        expect_error(gq_get(key), TPESVCERR);
        peer.done();
    }
    // A key of 17 bytes is not the server's, nor has a put one.
    peer.play([&] {
        peer.expect(wire::KEY_REQUEST).cd(OWN_STORE);
        peer.reply(wire::value("V"));
    });
    expect_good(gq_get("$SQID123456780022"));
    peer.done();
    expect_idle();
}

TEST_F(KeyBroadcast, SystemKeyOfANodeThatIsNotThereIsAskedOfAll)
{
    ASSERT_TRUE(open(2));
    for (auto [digits, node] : {std::pair("005", 5), {"fff", 0xfff}, {"7ff", 0x7ff}}) {
        std::string key = std::string("$SQID12345678") + digits;
        peer.play([&, node = node] {
            for (const wire::frame &other : expect_get_of_all(2, key, node))
                refuse(other);
        });
        expect_error(gq_get(key), TPENOENT);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyBroadcast, SystemKeyWithoutDigitsIsOfNodeNought)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        for (const wire::frame &other : expect_get_of_all(3, "$SQID12345678xyz", 0))
            refuse(other);
    });
    expect_error(gq_get("$SQID12345678xyz"), TPENOENT);
    peer.done();
    peer.expect_nothing();
}

TEST_F(KeyBroadcast, GetThatRanOutOfTimeIsAskedOfTheOthers)
{
    ASSERT_TRUE(open(2, 5));
    peer.play([&] {
        wire::frame own = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
        wire::frame other = peer.expect(wire::KEY_REQUEST).cd(store_of(0)).frame;
        peer.reply_to(own, wire::value("LATE"));
        peer.reply_to(other, wire::value("OTHER"));
    });
    expect_good(gq_get());
    EXPECT_EQ(value(), "OTHER");
    peer.done();
    expect_idle();
}

TEST_F(KeyBroadcast, UnlimitedGetIsLimitedOnceAllAreAsked)
{
    ASSERT_TRUE(open(2, 5));
    peer.play([&] {
        wire::frame own = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
        refuse(own);
        wire::frame other = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
    });
    expect_error(gq_get("key", TPNOTIME), TPETIME);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyBroadcast, RepliesThatComeLateEndNobodysWait)
{
    ASSERT_TRUE(open(4));
    peer.play([&] {
        auto others = expect_get_of_all(4);
        peer.reply_to(others[0], wire::value("FOUND"));
        // The next calls are answered behind what is left of the first.
        wire::frame call = peer.expect(wire::TPCALL).frame;
        refuse(others[1]);
        peer.reply_to(call, "fine");
        wire::frame count = peer.expect(wire::KEY_REQUEST).frame;
        peer.reply_to(others[2], wire::value("TOO LATE"), {.target = 77});
        tell(count, 5);
        auto requests = expect_count(4);
        for (int i = 0; i < 3; i++)
            refuse(others[(size_t)i]);
        for (const wire::frame &request : requests)
            tell(request, 1);
    });
    expect_good(gq_get());
    EXPECT_EQ(value(), "FOUND");
    char *reply = new_buffer("STRING");
    EXPECT_EQ(tpcall(svc("PROOF"), nullptr, 0, &reply, &len, 0), 1) << gettperrno();
    EXPECT_EQ(std::string(reply, (size_t)len), "fine");
    tpfree(reply);
    expect_good(vorn_sq_count(), 5);
    expect_good(vorn_gq_count(), 4);
    peer.done();
    expect_idle();
}

TEST_F(KeyBroadcast, ReplyWithoutANumberIsTaken)
{
    ASSERT_TRUE(open(2));
    peer.play([&] {
        for (const wire::frame &request : expect_count(2))
            peer.reply_to(request, "", {.seqno = 0, .target = 2});
    });
    expect_good(vorn_gq_count(), 4);
    peer.done();
}

// --- Counts.

TEST_F(KeyBroadcast, CountsAreSummedWhereverTheyComeFrom)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto requests = expect_count(3);
        tell(requests[2], 100);
        tell(requests[0], 1);
        tell(requests[1], 10);
    });
    set_tperrno(TPESYSTEM);
    expect_good(vorn_gq_count(), 111);
    peer.done();
    expect_good(count_of({0, 0, 0}), 0);
    expect_good(count_of({0, 7, 0}), 7);
    expect_idle();
}

TEST_F(KeyBroadcast, NodesThatRefuseAreNotCounted)
{
    ASSERT_TRUE(open(3));
    for (size_t good = 0; good < 3; good++) {
        peer.play([&] {
            auto requests = expect_count(3);
            for (size_t i = 0; i < 3; i++)
                peer.reply_to(requests[i], "", {.flags = i == good ? 0 : (uint32_t)TPESVCERR, .target = 50});
        });
        expect_good(vorn_gq_count(), 50);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyBroadcast, AllThatRefuseLeaveNoError)
{
    ASSERT_TRUE(open(3));
    for (int what = 0; what < 3; what++) {
        peer.play([&] {
            for (int i = 0; i < 3; i++)
                peer.expect(wire::KEY_REQUEST);
            for (int i = 0; i < 3; i++)
                refuse(peer.last, TPESVCERR);
        });
        set_tperrno(TPEOS);
        if (what == 2)
            EXPECT_EQ(vorn_gq_getkeylist(nullptr, 0), nullptr);
        else
            EXPECT_EQ(what == 0 ? vorn_gq_count() : vorn_gq_purge(nullptr, 0), -1);
        EXPECT_EQ(gettperrno(), 0);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyBroadcast, NegativeCountsAreNone)
{
    ASSERT_TRUE(open(3));
    expect_error(count_of({-1, 0, 0}), TPESYSTEM);
    expect_error(count_of({5, 5, INT32_MIN}), TPESYSTEM);
    expect_error(count_of({INT32_MIN, INT32_MIN, INT32_MIN}), TPESYSTEM);
    EXPECT_GE(count_of({INT32_MAX, INT32_MAX, INT32_MAX}), -1);  // whatever it is, it isn't less than nothing
    expect_idle();
}

TEST_F(KeyBroadcast, NodeThatDoesNotAnswerEndsTheCount)
{
    ASSERT_TRUE(open(3, 5));
    peer.play([&] {
        auto requests = expect_count(3);
        tell(requests[0], 1);
        tell(requests[2], 1);
        let_hours_pass();
        tell(requests[1], 1);
    });
    expect_error(note(vorn_gq_count()), TPETIME);
    peer.done();
    expect_idle();
    expect_good(count_of({1, 2, 3}), 6);
}

TEST_F(KeyBroadcast, WaitsOnInATransaction)
{
    ASSERT_TRUE(open(2, 5));
    open_transaction();
    peer.play([&] {
        auto requests = expect_count(2);
        let_hours_pass();
        tell(requests[0], 1);
        let_hours_pass();
        tell(requests[1], 1);
    });
    expect_good(vorn_gq_count(), 2);
    peer.done();
}

TEST_F(KeyBroadcast, SendThatFailsInBetweenEndsIt)
{
    for (int nth : {1, 2, 3}) {
        SCOPED_TRACE(nth);
        ASSERT_TRUE(open(3));
        faults::fail(faults::SEND, nth, ENOBUFS);
        EXPECT_EQ(vorn_gq_count(), -1);
        EXPECT_NE(gettperrno(), 0);
        faults::reset();
        EXPECT_EQ(block()->waiter_count, 0);
        EXPECT_TRUE(is_unlocked(&block()->msg_mutex));
        if (block()->clhfd >= 0) {
            // What has been asked is answered, and does no harm.
            peer.play([&] {
                wire::frame request;
                for (int i = 1; i < nth; i++) {
                    request = peer.expect(wire::KEY_REQUEST).cd(store_of(i - 1)).frame;
                    tell(request, 9);
                }
                expect_request(wire::key_request(wire::COUNT, CLIENT_ID));
                peer.reply("", {.target = 2});
            });
            expect_good(vorn_sq_count(), 2);
            peer.done();
            expect_idle();
            peer.play([&] { peer.serve_end(); });
        }
        tpend();
        peer.done();
    }
}

TEST_F(KeyBroadcast, LostConnectionEndsItAtEachReply)
{
    for (int answered = 0; answered < 3; answered++) {
        ASSERT_TRUE(open(3));
        peer.play([&] {
            auto requests = expect_count(3);
            for (int i = 0; i < answered; i++)
                tell(requests[(size_t)i], 1);
            peer.hang_up();
        });
        expect_error(vorn_gq_count(), TPECLOSE);
        peer.done();
        EXPECT_EQ(block()->waiter_count, 0);
        expect_error(vorn_gq_count(), TPEPROTO);
        tpend();
    }
}

// --- Purges.

TEST_F(KeyBroadcast, PurgeOfAllIsOneQuestionToEachNode)
{
    ASSERT_TRUE(open(3));
    for (int keylen : {0, 5, -5}) {  // of no key
        peer.play([&] {
            auto requests = expect_nodes(3, -1, wire::key_request(wire::PURGE, 0, "", 0, GLOBAL));
            tell(requests[0], 3);
            refuse(requests[1]);
            tell(requests[2], 4);
        });
        expect_good(vorn_gq_purge(nullptr, keylen), 7);
        peer.done();
    }
    peer.play([&] {
        auto requests = expect_nodes(3, -1, wire::key_request(wire::PURGE, 0, "", 0, GLOBAL));
        tell(requests[0], 3);
        tell(requests[1], -1);
        tell(requests[2], 4);
    });
    expect_error(vorn_gq_purge(nullptr, 0), TPESYSTEM);
    peer.done();
    peer.expect_nothing();
    expect_idle();
}

TEST_F(KeyBroadcast, PurgeOfAKeyTheOwnNodeHasIsDone)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        expect_request(wire::key_request(wire::PURGE, OWN_STORE, "key", 0, GLOBAL));
        peer.reply("", {.target = 2});
        // Removed is removed, whatever else the node tells.
        expect_request(wire::key_request(wire::PURGE, OWN_STORE, "key", 0, GLOBAL));
        peer.reply("", {.flags = TPELIMIT, .target = 2});
    });
    expect_good(gq_purge("key"), 2);
    expect_error(gq_purge("key"), TPELIMIT);
    peer.done();
    peer.expect_nothing();
    expect_error(vorn_gq_purge(svc("key"), 0), TPEINVAL);
    expect_error(vorn_gq_purge(svc("key"), -1), TPEINVAL);
    peer.expect_nothing();
}

TEST_F(KeyBroadcast, PurgeOfAKeyTheOwnNodeHasNotIsAskedOfTheOthers)
{
    ASSERT_TRUE(open(3));
    struct {
        uint32_t error;
        int32_t count;
    } own[] = {{0, 0}, {0, -3}, {TPENOENT, 0}};
    auto request = wire::key_request(wire::PURGE, OWN_STORE, "key", 0, GLOBAL);
    for (auto [error, count] : own) {
        peer.play([&, error = error, count = count] {
            wire::frame first = expect_request(request);
            peer.reply("", {.flags = error, .target = count});
            auto others = expect_nodes(3, OWN_NODE, request);
            EXPECT_EQ(others[0].seqno, first.seqno + 1);
            refuse(others[1]);
            tell(others[0], 4);
        });
        expect_good(gq_purge("key"), 4);
        peer.done();
    }
    // The first good reply is the result, also if it tells of none, or can't be one.
    for (auto [count, result, error] : {std::tuple(0, 0, 0), {-2, -1, TPESYSTEM}}) {
        peer.play([&, count = count] {
            expect_request(request);
            peer.reply("", {.target = 0});
            auto others = expect_nodes(3, OWN_NODE, request);
            tell(others[0], count);
            tell(others[1], 9);
        });
        EXPECT_EQ(gq_purge("key"), result);
        EXPECT_EQ(gettperrno(), error);
        peer.done();
    }
    peer.play([&] {
        expect_request(request);
        peer.reply("", {.target = 0});
        auto others = expect_nodes(3, OWN_NODE, request);
        refuse(others[0], TPELIMIT);
        refuse(others[1], TPESVCERR);
    });
    expect_error(gq_purge("key"), TPESVCERR);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyBroadcast, PurgeOfASystemKeyBeginsAtTheOwnNode)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        expect_request(wire::key_request(wire::PURGE, OWN_STORE, "$SQID12345678002", 0, GLOBAL));
        peer.reply("", {.target = 1});
    });
    expect_good(gq_purge("$SQID12345678002"), 1);
    peer.done();
    peer.expect_nothing();
}

// --- The list of all nodes.

TEST_F(KeyBroadcast, ListIsAskedOfAllWithTheSelection)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        auto requests = expect_nodes(3, -1, wire::key_request(wire::LIST, 0, "sel"));
        peer.reply_to(requests[1], wire::key_list({{"b", 5, 1}}), {.target = 1});
        refuse(requests[0]);
        peer.reply_to(requests[2], wire::key_list({{"a", 6, 2}, {"b", 7, 3}}), {.target = 2});
    });
    char *list = vorn_gq_getkeylist(svc("sel"), 3);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
    EXPECT_EQ(vorn_keylist_count(list), 3);
    vorn_key key;
    EXPECT_EQ(vorn_keylist_getakey(list, 1, &key), 1);
    EXPECT_EQ(key.attr, 1);  // what came first comes first
    EXPECT_EQ(vorn_keylist_free(list), 1);
    EXPECT_EQ(vorn_gq_getkeylist(svc("sel"), 0), nullptr);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.expect_nothing();
    expect_idle();
}

// --- Directly.

TEST_F(KeyBroadcast, WhatIsNoQuestionToAllGivesNothing)
{
    ASSERT_TRUE(open(2));
    for (int operation : {3, 6, 99}) {
        msg_header *message = _header_msg_make(MSG_SQ_REQUEST, operation);
        message->seqno = next_seqno(block());
        peer.play([&] {
            for (int i = 0; i < 2; i++) {
                EXPECT_EQ(peer.expect(wire::KEY_REQUEST).frame.rcode, operation);
                peer.reply("$SQID12345678001");
            }
        });
        EXPECT_EQ(_sq_broadcast(message, 2, -1, block()), nullptr);
        EXPECT_EQ(get_tperrno(), 0);
        peer.done();
    }
    msg_header *message = _header_msg_make(MSG_SQ_REQUEST, wire::COUNT);
    set_tperrno(TPESYSTEM);
    EXPECT_EQ(_sq_broadcast(message, 0, -1, block()), nullptr);
    EXPECT_EQ(get_tperrno(), 0);
    message = _header_msg_make(MSG_SQ_REQUEST, wire::COUNT);
    EXPECT_EQ(_sq_broadcast(message, 1, 0, block()), nullptr);
    peer.expect_nothing();
    expect_idle();
}

// Memory that runs out at each allocation in turn.
TEST_F(KeyBroadcast, WithoutMemoryItEndsAndTheSessionServesOn)
{
    setenv("VORN_ERR_MSG", "N", 1);
    const std::function<bool()> calls[] = {
        [&] { return vorn_gq_count() == 3; },
        [&] { return vorn_gq_purge(nullptr, 0) == 3; },
        [&] { return gq_get() == 1; },
        [&] { return gq_purge("key") == 1; },
        [&] {
            char *list = vorn_gq_getkeylist(nullptr, 0);
            return list != nullptr && vorn_keylist_free(list) == 1;
        },
    };
    for (const auto &call_once : calls)
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 60);
            SCOPED_TRACE(nth);
            peer.play([&] {
                peer.accept_start(reply_of(3));
                wire::frame request;
                while (peer.receive(&request) && request.msgtype != wire::TPEND) {
                    bool has_it = request.cd != OWN_STORE;
                    if (request.rcode == wire::GET)
                        peer.reply_to(request, wire::value("V"), {.flags = has_it ? 0 : (uint32_t)TPENOENT});
                    else if (request.rcode == wire::LIST)
                        peer.reply_to(request, wire::key_list({{"k"}}), {.target = 1});
                    else
                        peer.reply_to(request, "", {.target = request.datalen == 0 || has_it});
                }
                peer.reply_to(request);
            });
            ASSERT_EQ(tpstart(nullptr), 0);
            faults::fail_allocation(nth);
            bool good = call_once();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            int error = get_tperrno();
            if (!good) {
                EXPECT_TRUE(failed && (error == TPEOS || error == TPESYSTEM)) << error;
            }
            expect_idle();
            tpend();
            peer.done();
            if (!failed)
                break;
        }
}

// --- A server that goes down.

namespace {

struct KeyMoves : KeyBroadcast {
    Peer backup;

    KeyMoves() { setenv("VORN_BACKUP_ADDR", backup.address().c_str(), 1); }

    // For a script: the session opens anew over there, with a reply that tells of another place and domain.
    void accept_move(void)
    {
        wire::start_reply reply = reply_of(7, 30);
        reply.location = 4 << 8 | 3;
        reply.client = 99;
        backup.accept_start(reply);
    }
    // What it was before.
    void expect_same_identity(void) const
    {
        EXPECT_EQ(vorn_get_sessionid(), CLIENT_ID);
        EXPECT_EQ(block()->session_token, 3);
    }
    void warn(void)
    {
        peer.send_urgent(217);
        ASSERT_TRUE(wait_for_urgent(block()->clhfd));
    }
    // The next question goes to the new server, and to the same nodes.
    void expect_count_over_there(void)
    {
        backup.play([&] {
            for (int node = 0; node < 3; node++)
                backup.reply_to(backup.expect(wire::KEY_REQUEST).cd(store_of(node)), "", {.target = 5});
        });
        expect_good(vorn_gq_count(), 15);
        backup.done();
    }
};

}  // namespace

TEST_F(KeyMoves, MovedSessionKeepsItsIdentityAndItsNodes)
{
    ASSERT_TRUE(open(3, 30));
    warn();
    backup.play([&] {
        accept_move();
        backup.reply_to(backup.expect(wire::KEY_REQUEST).cd(CLIENT_ID), "", {.target = 2});
    });
    expect_good(vorn_sq_count(), 2);
    backup.done();
    expect_same_identity();
    expect_count_over_there();
    peer.expect_end();  // and nothing came before it
    expect_idle();
}

TEST_F(KeyMoves, NodesThatWereAskedAnswerOverThePreviousConnection)
{
    ASSERT_TRUE(open(3, 30));
    peer.play([&] {
        auto requests = expect_count(3);
        tell(requests[0], 1);
        peer.send_urgent(217);
        accept_move();
        tell(requests[2], 100);
        tell(requests[1], 10);
    });
    expect_good(vorn_gq_count(), 111);
    peer.done();
    expect_same_identity();
    expect_count_over_there();
    expect_idle();
}

TEST_F(KeyMoves, QuestionThatIsGivenBackIsAskedOverThere)
{
    ASSERT_TRUE(open(3, 30));
    peer.play([&] {
        auto requests = expect_count(3);
        tell(requests[0], 1);
        wire::frame given_back = requests[1];
        given_back.msgtype += wire::EREPLY;
        given_back.xflags |= 0x20000000;
        peer.send(given_back);
        accept_move();
        wire::frame again = backup.expect(wire::KEY_REQUEST).cd(store_of(1)).seqno(requests[1].seqno);
        backup.reply_to(again, "", {.target = 10});
        tell(requests[2], 100);
    });
    expect_good(vorn_gq_count(), 111);
    peer.done();
    expect_same_identity();
    expect_idle();
    expect_count_over_there();
}
