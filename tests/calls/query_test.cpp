// Questions to the server: what each asks in every byte of its header, and what it makes of the answer.
#include "calls/groups.h"

namespace {

struct Query : GroupTest {
    wire::start_reply server;

    Query()
    {
        server.queues = {"OTHER", "QUEUE"};
        server.nodes = {"NODE1", "NODE2"};
    }

    bool ask(const question &one)
    {
        bool answered = one.ask();
        finished++;
        return answered;
    }

    // Answers all that comes until the connection ends.
    void serve(void)
    {
        wire::frame asked;
        while (peer.receive(&asked))
            answer_question(peer, asked);
    }

    std::vector<int32_t> groups_of(const svg_list *list)
    {
        return list == nullptr || list->count < 0
                   ? std::vector<int32_t>{-99}
                   : std::vector<int32_t>(list->svgs, list->svgs + list->count);
    }
};

using GroupList = Query;
using ClientAddress = Query;
using ActiveServers = Query;
using ServerPair = Query;
using QueueState = Query;

}  // namespace

// ---- all of them

TEST_F(Query, EachFindsItsAnswer)
{
    ASSERT_TRUE(open(server));
    peer.play([&] { serve(); });
    for (const question &one : QUESTIONS) {
        set_tperrno(TPESVRDOWN);
        EXPECT_TRUE(ask(one)) << one.name << gettperrno();
        EXPECT_EQ(gettperrno(), 0) << one.name;
        expect_idle();
    }
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(Query, FirstOneOpensTheSession)
{
    for (const question &one : QUESTIONS) {
        peer.play([&] {
            peer.accept_start(server);
            serve();
        });
        EXPECT_TRUE(ask(one)) << one.name << gettperrno();
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
}

TEST_F(Query, SessionThatCannotStartIsTheirError)
{
    int error = stop_the_server();
    for (const question &one : QUESTIONS) {
        set_tperrno(0);
        EXPECT_FALSE(ask(one)) << one.name;
        EXPECT_EQ(gettperrno(), error) << one.name;
    }
}

TEST_F(Query, AnotherReplyIsNoAnswer)
{
    ASSERT_TRUE(open(server));
    for (const question &one : QUESTIONS)
        for (int32_t more : {2000, 3000}) {
            peer.play([&] {
                peer.expect(one.msgtype);
                peer.reply(words({1, 2, 3, 4}),
                           {.msgtype = one.msgtype + more, .flags = TPESVCERR, .buftype = wire::CARRAY});
            });
            set_tperrno(TPESVRDOWN);
            EXPECT_FALSE(ask(one)) << one.name;
            EXPECT_EQ(gettperrno(), one.other_error) << one.name;
            peer.done();
            expect_idle();
        }
    expect_usable();
}

TEST_F(Query, LostConnectionIsTold)
{
    for (const question &one : QUESTIONS) {
        peer.play([&] {
            peer.accept_start(server);
            peer.expect(one.msgtype);
            peer.hang_up();
        });
        ASSERT_EQ(tpstart(nullptr), 0);
        EXPECT_FALSE(ask(one)) << one.name;
        EXPECT_EQ(gettperrno(), TPECLOSE) << one.name;
        expect_idle();
        peer.done();
        tpend();
    }
}

TEST_F(Query, FailedSendIsTold)
{
    ASSERT_TRUE(open(server));
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const question &one : QUESTIONS)
        for (const auto &row : cases) {
            faults::fail(faults::SEND, 1, row.error);
            EXPECT_FALSE(ask(one)) << one.name;
            EXPECT_EQ(gettperrno(), row.tperr) << one.name;
            expect_idle();
        }
    peer.expect_nothing();
}

TEST_F(Query, OnlyTheQueuesStateKnowsTheBlockTime)
{
    server.block_time = 30;
    ASSERT_TRUE(open(server));
    for (const question &one : QUESTIONS) {
        wire::frame asked;
        peer.play([&] {
            asked = peer.expect(one.msgtype).frame;
            if (one.limited)
                return let_time_run_out(31);
            EXPECT_TRUE(client_waits());
            faults::shift_clock(100000);
            peer.send(wire::message(1012));
            peer.send(wire::message(1012));
            answer_question(peer, asked);
        });
        EXPECT_EQ(ask(one), !one.limited) << one.name;
        EXPECT_EQ(gettperrno(), one.limited ? TPETIME : 0) << one.name;
        peer.done();
        if (one.limited)
            answer_question(peer, asked);  // too late; nobody minds
        expect_usable();
    }
}

TEST_F(Query, NoTransactionMinds)
{
    ASSERT_TRUE(open(server));
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        for (const question &one : QUESTIONS) {
            wire::frame asked = peer.expect(one.msgtype).flags(0).frame;
            EXPECT_EQ(asked.xid[0] | asked.xid[1] | asked.xid[2], 0u);
            peer.reply("", {.flags = TPESVCERR});
        }
    });
    for (const question &one : QUESTIONS)
        EXPECT_FALSE(ask(one)) << one.name;
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(block()->txinfo->tx_stage, (int)TX_STAGE_BEGUN);
    block()->txinfo->tx_stage = 0;
    peer.done();
}

// ---- memory

namespace {

struct AskedWithoutMemory : Query {
    AskedWithoutMemory() { setenv("VORN_ERR_MSG", "N", 1); }  // so many lines are of no interest

    // Runs the work in a session of its own with the n-th allocation failing, until a run makes fewer.
    void sweep(const std::function<bool()> &work)
    {
        for (int nth = 1, failed = 1; failed != 0; nth++) {
            ASSERT_LT(nth, 100);
            SCOPED_TRACE("allocation " + std::to_string(nth));
            peer.play([&] {
                peer.accept_start(server);
                serve();
            });
            ASSERT_EQ(tpstart(nullptr), 0);
            set_tperrno(0);
            faults::fail_allocation(nth);
            bool good = work();
            failed = faults::allocation_failed();
            faults::disarm_allocations();
            if (!good) {
                EXPECT_TRUE(failed);
                EXPECT_TRUE(gettperrno() == TPEOS || gettperrno() == TPESYSTEM) << gettperrno();
            }
            EXPECT_EQ(block()->acall_active, 0);
            expect_idle();
            tpend();
            peer.done();
            if (HasFailure())
                return;
        }
    }
};

}  // namespace

TEST_F(AskedWithoutMemory, QuestionsFailCleanly)
{
    for (const question &one : QUESTIONS) {
        SCOPED_TRACE(one.name);
        sweep(one.ask);
    }
}

TEST_F(AskedWithoutMemory, DirectedCallsFailCleanly)
{
    sweep([&] { return tpcallsvg(5, svc("SVC"), in, 0, &out, &len, 0) == 1; });
    sweep([&] { return tpsvgcall(5, svc("QUEUE"), svc("SVC"), in, 0, 0) == 1; });
    sweep([&] {
        int cd = tpacallsvg(5, svc("SVC"), nullptr, 0, 0);
        if (cd < 0)
            return false;
        bool good = tpgetrply(&cd, &out, &len, 0) == 1;
        int error = gettperrno();
        if (!good)
            tpcancel(cd);
        set_tperrno(error);
        return good;
    });
}

TEST_F(AskedWithoutMemory, MulticastsFailCleanlyAndKeepTheLastResult)
{
    sweep([&] { return tpmcall(nullptr, svc("SVC"), in, 0, 0) != nullptr; });
    sweep([&] {
        mcall_result *result = tpmcall(svc("QUEUE"), svc("SVC"), in, 0, 0);
        return result != nullptr && result->count == 3 && result->list[3] == -1;
    });
    sweep([&] {
        mcallx_result *result = tpmcallx(svc("SVC"), in, 0, 0);
        if (result == nullptr)
            return false;
        EXPECT_EQ(result->list[3], -1);
        for (int i = 0; i < 3; i++) {
            int error = result->errors[i];
            EXPECT_EQ(result->urcodes[i], error == 0 ? result->list[i] : 0);
        }
        return true;
    });
}

TEST_F(AskedWithoutMemory, SecondMulticastFailsCleanly)
{
    sweep([&] {
        bool first = tpmcall(svc("QUEUE"), svc("SVC"), in, 0, 0) != nullptr &&
                     tpmcallx(svc("SVC"), in, 0, 0) != nullptr && tpgetsvglist(svc("SVC"), 0) != nullptr;
        return first && tpmcallx(svc("SVC"), in, 0, 0) != nullptr &&
               tpmcall(nullptr, svc("SVC"), in, 0, 0) != nullptr && tpgetsvglist(svc("SVC"), 0) != nullptr;
    });
}

// ---- tpgetsvglist

TEST_F(GroupList, IsAskedByTheServicesName)
{
    ASSERT_TRUE(open(server));
    std::string name(40, 'n');
    peer.play([&] {
        for (const std::string &asked : {std::string("SVC"), name.substr(0, 31), std::string()}) {
            expect_header(peer.expect(wire::GETSVG), bare(wire::GETSVG, asked));
            peer.reply(words({5, 0x07ff0006, 0xfffffffe}), {.rcode = 3, .buftype = wire::CARRAY});
        }
    });
    svg_list *list = tpgetsvglist(svc("SVC"), 0x7fff);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(groups_of(list), (std::vector<int32_t>{5, 0x07ff0006, -2}));
    EXPECT_EQ(list->spare, nullptr);
    EXPECT_EQ(list->spare_count, 0);
    EXPECT_EQ(tpgetsvglist(svc(name.c_str()), 0), list);
    EXPECT_EQ(tpgetsvglist(svc(""), 0), list);
    EXPECT_EQ(groups_of(list), (std::vector<int32_t>{5, 0x07ff0006, -2}));
    peer.done();
}

TEST_F(GroupList, IsReplacedByTheNextAnswerOnly)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        tell_groups({1, 2, 3});
        peer.expect(wire::GETSVG);
        peer.reply("", {.flags = TPENOENT});
        tell_groups({9});
        tell_groups({});
    });
    svg_list *list = tpgetsvglist(svc("SVC"), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(tpgetsvglist(svc("SVC"), 0), nullptr);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(groups_of(list), (std::vector<int32_t>{1, 2, 3}));
    list->spare = new_buffer("STRING", "freed with the list");
    list->spare_count = 4;
    ASSERT_EQ(tpgetsvglist(svc("SVC"), 0), list);
    EXPECT_EQ(groups_of(list), (std::vector<int32_t>{9}));
    EXPECT_EQ(list->spare, nullptr);
    EXPECT_EQ(list->spare_count, 0);
    ASSERT_EQ(tpgetsvglist(svc("SVC"), 0), list);
    EXPECT_EQ(list->count, 0);
    peer.done();
}

TEST_F(GroupList, IsCutToTheDataThatIsThere)
{
    ASSERT_TRUE(open(server));
    for (const told &lie : LIES) {
        peer.play([&] { tell_lie(lie); });
        svg_list *list = tpgetsvglist(svc("SVC"), 0);
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(groups_of(list),
                  std::vector<int32_t>(lie.data.begin(), lie.data.begin() + (long)lie.count));
        peer.done();
    }
}

TEST_F(GroupList, WantsAService)
{
    ASSERT_TRUE(open(server));
    EXPECT_EQ(tpgetsvglist(nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.expect_nothing();
}

// ---- tpgetcliaddr

TEST_F(ClientAddress, IsAskedByTheClientsNumber)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        for (int32_t number : {0x12345678, -1}) {
            wire::frame want = bare(wire::GETADDR);
            want.rcode = number;
            expect_header(peer.expect(wire::GETADDR), want);
            peer.reply("", {.rcode = (int32_t)0xc0a80001, .cd = 65535});
        }
    });
    for (int number : {0x12345678, -1}) {
        int address = 0, port = 0;
        set_tperrno(TPESVRDOWN);
        EXPECT_EQ(tpgetcliaddr(number, &address, &port, -1), 0);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ((uint32_t)address, 0xc0a80001u);
        EXPECT_EQ(port, 65535);
    }
    peer.done();
}

TEST_F(ClientAddress, WantsPlacesForBoth)
{
    int number = 77;
    for (int which = 0; which < 3; which++) {
        set_tperrno(0);
        EXPECT_EQ(tpgetcliaddr(1, which == 0 ? &number : nullptr, which == 1 ? &number : nullptr, 0), -1);
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(number, 77);
}

TEST_F(ClientAddress, UnknownClientLeavesThemAlone)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        peer.expect(wire::GETADDR);
        peer.reply("", {.rcode = 5, .flags = TPENOENT});
    });
    int address = 1, port = 2;
    EXPECT_EQ(tpgetcliaddr(1, &address, &port, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(address, 1);
    EXPECT_EQ(port, 2);
    peer.done();
}

// ---- tpgetactivesvr

TEST_F(ActiveServers, AreAskedByTheNodesName)
{
    ASSERT_TRUE(open(server));
    std::string bytes("\0\1any\377bytes", 10);
    peer.play([&] {
        expect_header(peer.expect(wire::GET_ACTIVESVR), bare(wire::GET_ACTIVESVR, "NODE2"));
        peer.reply(bytes, {.rcode = 17, .buftype = wire::CARRAY});
        expect_header(peer.expect(wire::GET_ACTIVESVR), bare(wire::GET_ACTIVESVR));
        peer.reply("", {.rcode = -3});
    });
    char *buffer = nullptr;
    EXPECT_EQ(tpgetactivesvr(svc("NODE2"), &buffer), 17);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(std::string(buffer, bytes.size()), bytes);
    EXPECT_EQ(message_of(buffer)->datalen, (int)bytes.size());
    tpfree(buffer);
    buffer = nullptr;
    EXPECT_EQ(tpgetactivesvr(nullptr, &buffer), -3);
    ASSERT_NE(buffer, nullptr);
    tpfree(buffer);
    peer.done();
}

TEST_F(ActiveServers, WantAKnownNode)
{
    ASSERT_TRUE(open(server));
    char *buffer = nullptr;
    for (const std::string &name :
         {std::string("NODE3"), std::string("NODE"), std::string(""), std::string("node1"),
          std::string("NODE1.lnid"), std::string(31, 'N'), std::string(32, 'N')}) {
        set_tperrno(0);
        EXPECT_EQ(tpgetactivesvr(svc(name.c_str()), &buffer), -1) << name;
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    EXPECT_EQ(tpgetactivesvr(svc("NODE1"), nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(tpgetactivesvr(nullptr, nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(buffer, nullptr);
    peer.expect_nothing();
}

TEST_F(ActiveServers, WantAKnownNodeAlsoWhereThereIsOneOnly)
{
    server.nodes = {"NODE1"};
    ASSERT_TRUE(open(server));
    peer.play([&] { serve(); });  // should it be asked after all
    char *buffer = nullptr;
    for (const std::string &name : {std::string("NODE2"), std::string(40, 'N')}) {
        set_tperrno(0);
        EXPECT_EQ(tpgetactivesvr(svc(name.c_str()), &buffer), -1) << name;
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    EXPECT_EQ(tpgetactivesvr(svc("NODE1"), &buffer), 2);
    tpfree(buffer);
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(ActiveServers, LeaveTheBufferAloneWithoutAnAnswer)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        peer.expect(wire::GET_ACTIVESVR);
        peer.reply("data", {.rcode = 4, .flags = TPENOENT});
    });
    char *buffer = in;
    EXPECT_EQ(tpgetactivesvr(svc("NODE1"), &buffer), -1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(buffer, in);
    peer.done();
}

// ---- tpgetsprlist

TEST_F(ServerPair, IsAskedByServiceAndGroup)
{
    ASSERT_TRUE(open(server));
    std::string name(40, 'n');
    peer.play([&] {
        wire::frame want = bare(wire::GETSPR, "SVC");
        want.target = 0x10005;
        expect_header(peer.expect(wire::GETSPR), want);
        peer.reply("", {.srcid = -31, .target = INT32_MAX});
        want = bare(wire::GETSPR, name.substr(0, 31));
        want.target = -1;
        expect_header(peer.expect(wire::GETSPR), want);
        peer.reply("", {.srcid = 1, .target = 2});
    });
    int first = 0, second = 0;
    EXPECT_EQ(tpgetsprlist(svc("SVC"), 0x10005, &first, &second), 1);
    EXPECT_EQ(first, -31);
    EXPECT_EQ(second, INT32_MAX);
    EXPECT_EQ(tpgetsprlist(svc(name.c_str()), -1, &first, &second), 1);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 2);
    peer.done();
}

TEST_F(ServerPair, RefusalIsTheReplysFlags)
{
    ASSERT_TRUE(open(server));
    int first = 7, second = 8;
    for (uint32_t error : {(uint32_t)TPENOENT, 0u, 0x7fffffffu}) {
        peer.play([&] {
            peer.expect(wire::GETSPR);
            peer.reply("", {.msgtype = 2225, .rcode = 3, .flags = error, .srcid = 1, .target = 2});
        });
        EXPECT_EQ(tpgetsprlist(svc("SVC"), 1, &first, &second), -1);
        EXPECT_EQ(gettperrno(), (int)error);
        peer.done();
    }
    EXPECT_EQ(first, 7);
    EXPECT_EQ(second, 8);
}

// ---- tpqstat, tpqsvcstat

TEST_F(QueueState, IsAskedByThePartsName)
{
    ASSERT_TRUE(open(server));
    int seqno = block()->seqno;
    const struct {
        int kind;
        const char *part;
    } cases[] = {{0, ".RQ_ANY"}, {1, ".RQ_FAIL"}, {2, ".RQ_REQ"}, {3, ".RQ_RPLY"}, {-1, ""}, {INT32_MIN, ""}};
    peer.play([&] {
        for (const auto &row : cases) {
            wire::frame want = bare(wire::TPQSTAT, row.part);
            want.seqno = ++seqno;
            want.cd = 1;
            expect_header(peer.expect(wire::TPQSTAT), want);
            peer.reply("", {.rcode = 100 + row.kind % 10});
        }
    });
    for (const auto &row : cases) {
        set_tperrno(TPESVRDOWN);
        EXPECT_EQ(tpqstat(svc("QUEUE"), row.kind), 100 + row.kind % 10);
        EXPECT_EQ(gettperrno(), 0);
    }
    peer.done();
    expect_idle();
}

TEST_F(QueueState, OfAServiceIsOneOfFourCounts)
{
    ASSERT_TRUE(open(server));
    int seqno = block()->seqno;
    std::string name(40, 'n');
    peer.play([&] {
        for (int kind = 0; kind < 4; kind++) {
            wire::frame want = bare(wire::TPQSTAT, kind == 0 ? "" : kind == 1 ? "SVC" : name.substr(0, 31));
            want.seqno = ++seqno;
            want.cd = 0;
            expect_header(peer.expect(wire::TPQSTAT), want);
            peer.reply(words({10, 0x01020304, 0x80000000, 13, 14}).substr(0, kind == 3 ? 16 : 20),
                       {.rcode = 99, .buftype = wire::CARRAY});
        }
    });
    EXPECT_EQ(tpqsvcstat(svc("OTHER"), nullptr, 0), 10);
    EXPECT_EQ(tpqsvcstat(svc("OTHER"), svc("SVC"), 1), 0x01020304);
    EXPECT_EQ(tpqsvcstat(svc("OTHER"), svc(name.c_str()), 2), INT32_MIN);
    EXPECT_EQ(tpqsvcstat(svc("OTHER"), svc(name.c_str()), 3), 13);
    peer.done();
    expect_idle();
}

TEST_F(QueueState, OfAServiceWantsItsSixteenBytes)
{
    ASSERT_TRUE(open(server));
    for (size_t bytes : {0, 4, 15})
        for (int32_t rcode : {0, 5}) {
            peer.play([&] {
                peer.expect(wire::TPQSTAT);
                peer.reply(words({1, 2, 3, 4}).substr(0, bytes),
                           {.msgtype = 1027, .rcode = rcode, .flags = 8, .buftype = wire::CARRAY});
            });
            EXPECT_EQ(tpqsvcstat(svc("QUEUE"), nullptr, 0), -1);
            EXPECT_EQ(gettperrno(), rcode != 0 ? rcode : 8);
            peer.done();
        }
}

TEST_F(QueueState, RefusalIsTheCodeAndThenTheFlags)
{
    ASSERT_TRUE(open(server));
    for (int32_t rcode : {0, (int)TPENOENT})
        for (bool by_service : {false, true}) {
            peer.play([&] {
                peer.expect(wire::TPQSTAT);
                peer.reply(words({1, 2, 3, 4}),
                           {.rcode = rcode, .flags = TPESVCERR, .buftype = wire::CARRAY});
            });
            EXPECT_EQ(by_service ? tpqsvcstat(svc("QUEUE"), nullptr, 0) : tpqstat(svc("QUEUE"), 0), -1);
            EXPECT_EQ(gettperrno(), rcode != 0 ? rcode : (int)TPESVCERR);
            peer.done();
        }
}

TEST_F(QueueState, ErrorsComeInTheirOrder)
{
    for (int kind : {4, 5, INT32_MAX}) {
        EXPECT_EQ(tpqstat(svc("NOQ"), kind), -1);
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    for (int kind : {-1, 4, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(tpqsvcstat(svc("NOQ"), nullptr, kind), -1);
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    EXPECT_EQ(tpqstat(nullptr, 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(tpqsvcstat(nullptr, svc("SVC"), 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_TRUE(peer.nobody_knocks());
    ASSERT_TRUE(open(server));
    EXPECT_EQ(tpqstat(svc("NOQ"), 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(tpqsvcstat(svc("NOQ"), svc("SVC"), 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.expect_nothing();
}

TEST_F(QueueState, TransactionHasNoBlockTime)
{
    server.block_time = 30;
    ASSERT_TRUE(open(server));
    open_transaction();
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPQSTAT).frame;
        EXPECT_TRUE(client_waits());
        faults::shift_clock(1000);
        peer.send(wire::message(1012));
        peer.send(wire::message(1012));
        answer_question(peer, asked);
    });
    EXPECT_EQ(tpqstat(svc("QUEUE"), 0), 12);
    block()->txinfo->tx_stage = 0;
    peer.done();
}
