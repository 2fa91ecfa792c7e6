// Multicasts: tpmcall, which sends one request to all groups of a service, and tpmcallx, which calls them.
#include "calls/groups.h"

#include <numeric>

namespace {

constexpr uint32_t TO_A_GROUP = 0x800000, FIXED_FLAGS = 0x80000C;

typedef std::vector<int32_t> Numbers;
typedef std::vector<uint32_t> Groups;

static Numbers of(const int32_t *list, int32_t count)
{
    return list == nullptr || count < 0 ? Numbers{-99} : Numbers(list, list + count);
}

static Numbers signed_of(const Groups &groups)
{
    return Numbers(groups.begin(), groups.end());
}

struct Multicast : GroupTest {
    wire::start_reply queues;

    Multicast() { queues.queues = {"Q0", "Q1", "Q2"}; }

    mcall_result *mcall(const char *queue = nullptr)
    {
        mcall_result *result = tpmcall(svc(queue), svc("SVC"), in, 0, 0);
        finished++;
        return result;
    }

    void expect_result(const mcall_result *result, const Groups &groups, const Numbers &failed)
    {
        ASSERT_NE(result, nullptr) << gettperrno();
        ASSERT_EQ(result->count, (int)groups.size());
        EXPECT_EQ(of(result->list, result->count), signed_of(groups));
        EXPECT_EQ(result->list[result->count], -1);
        ASSERT_EQ(result->failed, (int)failed.size());
        if (result->failed > 0) {
            EXPECT_EQ(of(result->failed_list, result->failed), failed);
        }
    }
};

struct MultiCall : GroupTest {
    mcallx_result *mcallx(long flags = 0)
    {
        mcallx_result *result = tpmcallx(svc("SVC"), in, 0, flags);
        finished++;
        return result;
    }

    void expect_result(const mcallx_result *result, const Groups &groups, const Numbers &errors,
                       const Numbers &urcodes)
    {
        ASSERT_NE(result, nullptr) << gettperrno();
        ASSERT_EQ(result->count, (int)groups.size());
        ASSERT_EQ(result->errors_size, result->count);
        ASSERT_EQ(result->urcodes_size, result->count);
        EXPECT_EQ(of(result->list, result->count), signed_of(groups));
        EXPECT_EQ(result->list[result->count], -1);
        if (result->count > 0) {
            EXPECT_EQ(of(result->errors, result->count), errors);
            EXPECT_EQ(of(result->urcodes, result->count), urcodes);
        }
        EXPECT_EQ(block()->acall_active, 0);
        expect_idle();
    }

    // Takes the call to this group.
    wire::frame take(int32_t group)
    {
        wire::frame call = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(call.target, group);
        return call;
    }

    // One call after the other, each answered with ten times its group.
    void serve(const Groups &groups)
    {
        tell_groups(groups);
        for (uint32_t group : groups) {
            take((int32_t)group);
            peer.reply("r", {.rcode = (int32_t)group * 10});
        }
    }
};

}  // namespace

// ---- tpmcall

TEST_F(Multicast, SendsToEachGroupInItsTurn)
{
    ASSERT_TRUE(open(queues));
    Groups groups = {5, 0x10006, 7};
    int seqno = block()->seqno;
    peer.play([&] {
        expect_header(peer.expect(wire::GETSVG), bare(wire::GETSVG, "SVC"));
        peer.reply(words(groups), {.rcode = 3, .buftype = wire::CARRAY});
        for (uint32_t group : groups) {
            wire::frame want = request(wire::TPACALL, "SVC", FIXED_FLAGS, (int32_t)group, ++seqno, -1);
            want.prio = 33;
            expect_header(peer.expect(wire::TPACALL).text("hello"), want);
        }
        peer.expect(wire::TPACALL).prio(50);
    });
    EXPECT_EQ(tpsprio(33, TPABSOLUTE), 1);
    set_tperrno(TPESVRDOWN);
    mcall_result *result = mcall();
    expect_result(result, groups, {});
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(acall(TPNOREPLY), 0);
    peer.done();
    EXPECT_EQ(block()->acall_active, 0);
    expect_idle();
}

TEST_F(Multicast, QueueAcceptsEachRequest)
{
    ASSERT_TRUE(open(queues));
    Groups groups = {5, 6, 7};
    int seqno = block()->seqno;
    peer.play([&] {
        tell_groups(groups);
        for (uint32_t group : groups) {
            Expected came = peer.expect(wire::TPENQ).text("hello");
            wire::frame want = request(wire::TPENQ, "SVC", FIXED_FLAGS, (int32_t)group, ++seqno, 1);
            want.prio = came.frame.prio;
            expect_header(came, want);
            EXPECT_FALSE(peer.something_came()) << "the next one waits for the queue";
            peer.reply("", {.rcode = 1});
        }
    });
    expect_result(mcall("Q1"), groups, {});
    peer.done();
    expect_idle();
}

TEST_F(Multicast, GroupsThatTheQueueRefusesHaveFailed)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        tell_groups({5, 6, 7, 8});
        for (int error : {0, TPESVCERR, 0, TPENOENT}) {
            peer.expect(wire::TPENQ);
            peer.reply("", {.flags = (uint32_t)error});
        }
    });
    expect_result(mcall("Q0"), {5, 6, 7, 8}, {6, 8});
    peer.done();
    expect_idle();
}

TEST_F(Multicast, QueueThatDoesNotAnswerInTimeHasFailed)
{
    queues.block_time = 30;
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        tell_groups({5, 6, 7});
        peer.expect(wire::TPENQ);
        peer.reply();
        peer.expect(wire::TPENQ);
        let_this_wait_run_out(31);
        peer.expect(wire::TPENQ);
        peer.reply();
    });
    expect_result(mcall("Q0"), {5, 6, 7}, {6});
    peer.done();
    expect_usable();
    expect_idle();
}

TEST_F(Multicast, FailedSendsStandInTheResult)
{
    ASSERT_TRUE(open(queues));
    for (const char *queue : {(const char *)nullptr, "Q2"}) {
        peer.play([&] {
            tell_groups({5, 6, 7});
            for (int group : {5, 7}) {
                wire::frame message;
                ASSERT_TRUE(peer.receive(&message));
                EXPECT_EQ(message.target, group);
                if (message.msgtype == wire::TPENQ)
                    peer.reply();
            }
        });
        faults::fail(faults::SEND, 3, EIO);  // the question, the first group, this one
        expect_result(mcall(queue), {5, 6, 7}, {6});
        peer.done();
        expect_idle();
    }
    peer.play([&] { tell_groups({5, 6, 7}); });
    faults::fail(faults::SEND, 2, EPIPE, 3);
    expect_result(mcall(), {5, 6, 7}, {5, 6, 7});
    expect_idle();
    peer.done();
}

TEST_F(Multicast, LostConnectionFailsTheGroupsThatAreLeft)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        tell_groups({5, 6, 7});
        peer.expect(wire::TPENQ);
        peer.reply();
        peer.expect(wire::TPENQ);
        peer.hang_up();
    });
    expect_result(mcall("Q0"), {5, 6, 7}, {6, 7});
    expect_idle();
    peer.done();
}

TEST_F(Multicast, SecondCallReplacesTheResult)
{
    ASSERT_TRUE(open(queues));
    std::vector<Groups> lists = {{5, 6}, {1, 2, 3, 4, 5, 6, 7, 8, 9}, {8}, {}, {3, 4, 5}};
    mcall_result *first = nullptr;
    for (const Groups &groups : lists) {
        peer.play([&] {
            tell_groups(groups);
            for (uint32_t group : groups) {
                EXPECT_EQ(peer.expect(wire::TPENQ).frame.target, (int32_t)group);
                peer.reply("", {.flags = TPESVCERR});
            }
        });
        mcall_result *result = mcall("Q1");
        first = first != nullptr ? first : result;
        EXPECT_EQ(result, first);
        expect_result(result, groups, signed_of(groups));
        peer.done();
    }
}

TEST_F(Multicast, ListIsCutToTheDataThatIsThere)
{
    ASSERT_TRUE(open(queues));
    int number = 0;
    for (const told &lie : LIES) {
        SCOPED_TRACE(number++);
        Groups groups(lie.data.begin(), lie.data.begin() + (long)lie.count);
        peer.play([&] {
            tell_lie(lie);
            for (uint32_t group : groups)
                EXPECT_EQ(peer.expect(wire::TPACALL).frame.target, (int32_t)group);
        });
        expect_result(mcall(), groups, {});
        peer.done();
    }
}

TEST_F(Multicast, ServiceWithoutGroupsGivesNoResult)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        peer.expect(wire::GETSVG);
        peer.reply("", {.flags = TPENOENT});
    });
    EXPECT_EQ(mcall(), nullptr);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
    expect_usable();
}

TEST_F(Multicast, ErrorsComeInTheirOrder)
{
    ASSERT_TRUE(open(queues));
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136, *odd = new_buffer("STRING", "x");
    message_of(odd)->buftype = 77;
    const struct {
        const char *queue, *name;
        char *data;
        long len, flags;
        int error;
    } cases[] = {
        {"NOQ", nullptr, bad, 0, 1, TPEINVAL}, {nullptr, "S", in, 0, 1, TPEINVAL},
        {nullptr, "S", in, 0, 8, TPEINVAL},    {nullptr, "S", in, 0, 1L << 40, TPEINVAL},
        {"NOQ", nullptr, bad, 0, 0, TPEINVAL}, {"NOQ", "S", nullptr, 0, 0, TPEINVAL},
        {"NOQ", "S", bad, 0, 0, TPEOTYPE},     {"NOQ", "S", odd, 0, 0, TPEITYPE},
        {"NOQ", "S", in, 5000, 0, TPEINVAL},   {"NOQ", "S", in, 0, 0, TPENOENT},
    };
    int number = 0;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(0);
        EXPECT_EQ(tpmcall(svc(row.queue), svc(row.name), row.data, row.len, row.flags), nullptr);
        EXPECT_EQ(gettperrno(), row.error);
    }
    peer.expect_nothing();
    message_of(odd)->buftype = wire::STRING;
    tpfree(odd);
}

TEST_F(Multicast, FirstOneOpensTheSession)
{
    peer.play([&] {
        peer.accept_start(queues);
        tell_groups({5});
        peer.expect(wire::TPENQ).cd(2);
        peer.reply();
        peer.serve_end();
    });
    mcall_result *result = mcall("Q2");
    expect_result(result, {5}, {});
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(Multicast, ServiceNameIsCut)
{
    ASSERT_TRUE(open());
    std::string name(40, 'n'), cut(31, 'n');
    peer.play([&] {
        peer.expect(wire::GETSVG).svcname(cut);
        peer.reply(words({5}), {.rcode = 1, .buftype = wire::CARRAY});
        peer.expect(wire::TPACALL).svcname(cut);
    });
    EXPECT_NE(tpmcall(nullptr, svc(name.c_str()), in, 0, 0), nullptr);
    peer.done();
}

// ---- tpmcallx

TEST_F(MultiCall, CollectsTheReplyOfEachGroup)
{
    ASSERT_TRUE(open());
    Groups groups = {5, 0x10006, 7};
    int seqno = block()->seqno;
    peer.play([&] {
        expect_header(peer.expect(wire::GETSVG), bare(wire::GETSVG, "SVC"));
        peer.reply(words(groups), {.rcode = 3, .buftype = wire::CARRAY});
        std::vector<wire::frame> calls;
        for (int i = 1; i <= 3; i++) {
            wire::frame want =
                request(wire::TPACALL, "SVC", 0x20 | TO_A_GROUP, (int32_t)groups[(size_t)i - 1], ++seqno, i);
            Expected came = peer.expect(wire::TPACALL).text("hello");
            expect_header(came, identified(want, (uint32_t)i));
            calls.push_back(came.frame);
        }
        for (const wire::frame &call : calls)
            peer.reply_to(call, "data", {.rcode = 100 + call.cd});
    });
    set_tperrno(TPESVRDOWN);
    expect_result(mcallx(TPNOTIME), groups, {0, 0, 0}, {101, 102, 103});
    peer.done();
}

TEST_F(MultiCall, KeepsToTheFreeDescriptors)
{
    ASSERT_TRUE(open({.acall_size = 3}));
    Groups groups(10);
    std::iota(groups.begin(), groups.end(), 1);
    peer.play([&] {
        tell_groups(groups);
        std::vector<wire::frame> out_now;
        for (int next = 1; next <= 10; next++) {
            while ((int)out_now.size() < 3 && next + (int)out_now.size() <= 10)
                out_now.push_back(take(next + (int)out_now.size()));
            EXPECT_TRUE(client_waits());
            peer.expect_nothing();
            peer.reply_to(out_now[0], "r", {.rcode = next});
            out_now.erase(out_now.begin());
        }
    });
    Numbers codes(10);
    std::iota(codes.begin(), codes.end(), 1);
    expect_result(mcallx(), groups, Numbers(10, 0), codes);
    peer.done();
}

TEST_F(MultiCall, CallsThatAreOutNarrowTheWindow)
{
    ASSERT_TRUE(open({.acall_size = 4}));
    std::vector<wire::frame> own;
    peer.play([&] {
        for (int i = 0; i < 3; i++)
            own.push_back(peer.expect(wire::TPACALL).frame);
        tell_groups({5, 6});
        take(5);
        EXPECT_TRUE(client_waits());
        peer.expect_nothing();
        peer.reply("r", {.rcode = 50});
        take(6);
        peer.reply("r", {.rcode = 60});
        for (const wire::frame &one : own)
            peer.reply_to(one, "own");
    });
    int cds[3];
    for (int &cd : cds)
        cd = acall();
    mcallx_result *result = mcallx();
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(of(result->errors, 2), (Numbers{0, 0}));
    EXPECT_EQ(of(result->urcodes, 2), (Numbers{50, 60}));
    EXPECT_EQ(block()->acall_active, 3);
    for (int &cd : cds) {
        EXPECT_EQ(getrply(&cd), 1);
        EXPECT_EQ(reply_data(), "own");
    }
    peer.done();
}

TEST_F(MultiCall, FullTableIsALimit)
{
    ASSERT_TRUE(open({.acall_size = 1}));
    peer.play([&] {
        peer.expect(wire::TPACALL);
        tell_groups({5, 6});
        serve({5, 6});
    });
    int cd = acall();
    EXPECT_EQ(mcallx(), nullptr);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_EQ(tpcancel(cd), 1);
    expect_result(mcallx(), {5, 6}, {0, 0}, {50, 60});
    peer.done();
}

TEST_F(MultiCall, TableWithoutRowsIsALimit)
{
    ASSERT_TRUE(open({.acall_size = 0}));
    for (long flags : {0L, (long)TPNOREPLY}) {
        peer.play([&] { tell_groups({5}); });
        EXPECT_EQ(mcallx(flags), nullptr);
        EXPECT_EQ(gettperrno(), TPELIMIT);
        peer.done();
    }
}

TEST_F(MultiCall, RepliesMayComeInAnyOrder)
{
    ASSERT_TRUE(open());
    Groups groups = {5, 6, 7, 8};
    peer.play([&] {
        tell_groups(groups);
        std::vector<wire::frame> calls;
        for (uint32_t group : groups)
            calls.push_back(take((int32_t)group));
        for (size_t i : {3, 1, 2, 0})
            peer.reply_to(calls[i], std::string(2000 * i, 'r'), {.rcode = calls[i].target * 10});
    });
    expect_result(mcallx(), groups, {0, 0, 0, 0}, {50, 60, 70, 80});
    peer.done();
}

TEST_F(MultiCall, SlowGroupHoldsUpTheWindow)
{
    ASSERT_TRUE(open({.acall_size = 2}));
    peer.play([&] {
        tell_groups({5, 6, 7});
        wire::frame slow = take(5);
        take(6);
        peer.reply("quick", {.rcode = 60});
        EXPECT_TRUE(client_waits());
        peer.expect_nothing();
        peer.reply_to(slow, "slow", {.rcode = 50});
        take(7);
        peer.reply("r", {.rcode = 70});
    });
    expect_result(mcallx(), {5, 6, 7}, {0, 0, 0}, {50, 60, 70});
    peer.done();
}

TEST_F(MultiCall, FailedServicesStandInTheResult)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        tell_groups({5, 6, 7, 8});
        std::vector<wire::frame> calls;
        for (int group : {5, 6, 7, 8})
            calls.push_back(take(group));
        peer.reply_to(calls[0], "r", {.rcode = 50});
        peer.reply_to(calls[1], "sorry", {.rcode = 60, .flags = TPESVCFAIL});
        peer.reply_to(calls[2], "odd", {.msgtype = 3004, .rcode = 70});
        peer.reply_to(calls[3], "", {.rcode = 80});
    });
    expect_result(mcallx(), {5, 6, 7, 8}, {0, TPESVCFAIL, TPESYSTEM, 0}, {50, 0, 0, 80});
    expect_usable();
    peer.done();
}

TEST_F(MultiCall, GroupThatDoesNotReplyInTimeGivesItsDescriptorBack)
{
    ASSERT_TRUE(open({.acall_size = 1, .block_time = 30}));
    peer.play([&] {
        tell_groups({5, 6, 7});
        take(5);
        peer.reply("r", {.rcode = 50});
        wire::frame late = take(6);
        let_this_wait_run_out(31);
        take(7);
        peer.reply_to(late, "late", {.rcode = 60});
        peer.reply("r", {.rcode = 70});
    });
    expect_result(mcallx(), {5, 6, 7}, {0, TPETIME, 0}, {50, 0, 70});
    expect_usable();
    peer.done();
}

TEST_F(MultiCall, NoneReplies)
{
    ASSERT_TRUE(open({.block_time = 30}));
    peer.play([&] {
        tell_groups({5, 6});
        take(5);
        take(6);
        let_time_run_out(31);
    });
    expect_result(mcallx(), {5, 6}, {TPETIME, TPETIME}, {0, 0});
    peer.done();
    expect_usable();
}

TEST_F(MultiCall, NoBlockTakesWhatIsThere)
{
    ASSERT_TRUE(open());
    wire::frame call;
    peer.play([&] {
        tell_groups({5});
        call = take(5);
        EXPECT_EQ(call.flags, TO_A_GROUP | TPNOBLOCK);
    });
    expect_result(mcallx(TPNOBLOCK), {5}, {TPEBLOCK}, {0});
    peer.done();
    peer.reply_to(call, "late");
    expect_usable();
}

TEST_F(MultiCall, FlagsOfTheWaitReachIt)
{
    ASSERT_TRUE(open({.block_time = 30}));
    peer.play([&] {
        tell_groups({5});
        wire::frame call = take(5);
        EXPECT_TRUE(client_waits());
        faults::shift_clock(1000);
        peer.send(wire::message(1012));
        peer.send(wire::message(1012));
        peer.reply_to(call, "r", {.rcode = 50});
        // With a receipt, which is awaited before the next one goes out.
        tell_groups({5, 6});
        for (int group : {5, 6}) {
            call = take(group);
            EXPECT_EQ(call.flags, TO_A_GROUP | TPBLOCK);
            EXPECT_TRUE(client_waits());
            peer.expect_nothing();
            peer.reply_to(call, "r", {.rcode = group});
            peer.reply_to(call, "", {.msgtype = 1028});
        }
    });
    expect_result(mcallx(TPNOTIME), {5}, {0}, {50});
    expect_result(mcallx(TPBLOCK), {5, 6}, {0, 0}, {5, 6});
    peer.done();
}

TEST_F(MultiCall, FailedSendsStandInTheResult)
{
    ASSERT_TRUE(open({.acall_size = 2}));
    peer.play([&] {
        tell_groups({5, 6, 7});
        take(5);
        peer.reply("r", {.rcode = 50});
        take(7);
        peer.reply("r", {.rcode = 70});
    });
    faults::fail(faults::SEND, 3, EIO);  // the question, the first group, this one
    expect_result(mcallx(), {5, 6, 7}, {0, TPEOS, 0}, {50, 0, 70});
    peer.done();
}

TEST_F(MultiCall, LostConnectionFailsTheGroupsThatAreLeft)
{
    ASSERT_TRUE(open({.acall_size = 2}));
    peer.play([&] {
        tell_groups({5, 6, 7, 8});
        take(5);
        peer.reply("r", {.rcode = 50});
        take(6);
        take(7);
        peer.hang_up();
    });
    mcallx_result *result = mcallx();
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->errors[0], 0);
    EXPECT_EQ(result->errors[1], TPECLOSE);
    for (int i : {2, 3})
        EXPECT_NE(result->errors[i], 0) << i;
    EXPECT_EQ(of(result->urcodes, 4), (Numbers{50, 0, 0, 0}));
    EXPECT_EQ(block()->acall_active, 0);
    expect_idle();
    peer.done();
}

TEST_F(MultiCall, WithoutReplyCollectsNone)
{
    ASSERT_TRUE(open({.acall_size = 1}));
    peer.play([&] {
        tell_groups({5, 6, 7});
        for (int group : {5, 6, 7})
            EXPECT_EQ(peer.expect(wire::TPACALL).flags(TO_A_GROUP | TPNOREPLY).cd(0).frame.target, group);
    });
    mcallx_result *result = mcallx(TPNOREPLY);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(of(result->errors, 3), (Numbers{0, 0, 0}));
    EXPECT_EQ(block()->acall_active, 0);
    peer.done();
    expect_idle();
}

TEST_F(MultiCall, FlagsAreThoseOfAnAsynchronousCall)
{
    ASSERT_TRUE(open());
    for (long flags : {0x100L, (long)TPSPRCALL, 0x80L, 0x10L, 1L << 40}) {
        SCOPED_TRACE(flags);
        peer.play([&] { tell_groups({5, 6}); });
        expect_result(mcallx(flags), {5, 6}, {TPEINVAL, TPEINVAL}, {0, 0});
        peer.done();
    }
    peer.expect_nothing();
    peer.play([&] {
        tell_groups({5});
        peer.expect(wire::TPACALL).flags(TO_A_GROUP | 0x408);
        peer.reply("r", {.rcode = 5});
    });
    expect_result(mcallx(0x408), {5}, {0}, {5});
    peer.done();
}

TEST_F(MultiCall, BelongsToTheTransaction)
{
    ASSERT_TRUE(open());
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        tell_groups({5, 6});
        peer.expect(wire::TPACALL).flags(TO_A_GROUP | 0x4000000);
        peer.reply("r");
        peer.expect(wire::TPACALL).flags(TO_A_GROUP);
        peer.reply("no", {.flags = TPESVCFAIL});
        tell_groups({5});
    });
    expect_result(mcallx(), {5, 6}, {0, TPESVCFAIL}, {0, 0});
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    set_tx_state(block(), TX_STATE_ACTIVE);
    expect_result(mcallx(TPNOREPLY), {5}, {TPEPROTO}, {0});
    block()->txinfo->tx_stage = 0;
    peer.done();
}

TEST_F(MultiCall, GoesWithoutData)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        tell_groups({5, 6});
        for (int group : {5, 6}) {
            EXPECT_EQ(peer.expect(wire::TPACALL).header_only().frame.target, group);
            peer.reply("r", {.rcode = group});
        }
    });
    expect_result(tpmcallx(svc("SVC"), nullptr, 0, 0), {5, 6}, {0, 0}, {5, 6});
    peer.done();
}

TEST_F(MultiCall, ErrorsComeInTheirOrder)
{
    alignas(8) char foreign[300] = {};
    const struct {
        const char *name;
        char *data;
        long len;
        int error;
    } cases[] = {
        {nullptr, foreign + 136, 0, TPEINVAL},
        {nullptr, in, 0, TPEINVAL},
        {"S", foreign + 136, 0, TPEITYPE},
        {"S", in, 5000, TPEINVAL},
    };
    int number = 0;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(0);
        EXPECT_EQ(tpmcallx(svc(row.name), row.data, row.len, 0), nullptr);
        EXPECT_EQ(gettperrno(), row.error);
        EXPECT_TRUE(peer.nobody_knocks());  // no session is needed to tell
    }
}

TEST_F(MultiCall, ServiceWithoutGroupsIsUnknown)
{
    ASSERT_TRUE(open());
    for (uint32_t flags : {(uint32_t)TPESVCERR, 0u}) {
        peer.play([&] {
            peer.expect(wire::GETSVG);
            peer.reply("", {.msgtype = 2046, .flags = flags});
        });
        EXPECT_EQ(mcallx(), nullptr);
        EXPECT_EQ(gettperrno(), TPENOENT);
        peer.done();
    }
    peer.play([&] { tell_groups({}); });
    expect_result(mcallx(), {}, {}, {});
    peer.done();
    peer.play([&] {
        peer.expect(wire::GETSVG);
        peer.hang_up();
    });
    EXPECT_EQ(mcallx(), nullptr);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
}

TEST_F(MultiCall, FirstOneOpensTheSession)
{
    peer.play([&] {
        peer.accept_start();
        serve({5, 6});
        peer.serve_end();
    });
    expect_result(mcallx(), {5, 6}, {0, 0}, {50, 60});
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(MultiCall, SecondCallReplacesTheResult)
{
    ASSERT_TRUE(open());
    mcallx_result *first = nullptr;
    for (const Groups &groups :
         std::vector<Groups>{{5, 6}, {1, 2, 3, 4, 5, 6, 7, 8, 9}, {8}, {}, {3, 4, 5}}) {
        peer.play([&] { serve(groups); });
        mcallx_result *result = mcallx();
        first = first != nullptr ? first : result;
        EXPECT_EQ(result, first);
        Numbers codes;
        for (uint32_t group : groups)
            codes.push_back((int32_t)group * 10);
        expect_result(result, groups, Numbers(groups.size(), 0), codes);
        peer.done();
    }
}

TEST_F(MultiCall, ResultsOfTheTwoMulticastsLiveSideBySide)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        serve({5, 6});
        tell_groups({7});
        take(7);
        tell_groups({8, 9});
    });
    mcallx_result *calls = mcallx();
    mcall_result *requests = tpmcall(nullptr, svc("SVC"), in, 0, 0);
    svg_list *list = tpgetsvglist(svc("SVC"), 0);
    ASSERT_TRUE(calls != nullptr && requests != nullptr && list != nullptr);
    EXPECT_EQ(of(calls->list, 3), (Numbers{5, 6, -1}));
    EXPECT_EQ(of(calls->urcodes, 2), (Numbers{50, 60}));
    EXPECT_EQ(of(requests->list, 2), (Numbers{7, -1}));
    EXPECT_EQ(of(list->svgs, 2), (Numbers{8, 9}));
    peer.done();
}

TEST_F(MultiCall, ListIsCutToTheDataThatIsThere)
{
    ASSERT_TRUE(open());
    int number = 0;
    for (const told &lie : LIES) {
        SCOPED_TRACE(number++);
        Groups groups(lie.data.begin(), lie.data.begin() + (long)lie.count);
        peer.play([&] {
            tell_lie(lie);
            for (uint32_t group : groups) {
                take((int32_t)group);
                peer.reply("r", {.rcode = 1});
            }
        });
        expect_result(mcallx(), groups, Numbers(groups.size(), 0), Numbers(groups.size(), 1));
        peer.done();
    }
}
