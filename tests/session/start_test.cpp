// Opening a session: the start message, what the reply sets, refusals and retries.
#include "session/cliapi.h"

#include "calls/cscommon.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Lets the clock run on until the client gives up and closes. A message that nobody wants makes its wait look at
// the clock; it is repeated, since the client may not have begun to wait yet.
void let_time_run_out(Conn &peer, int seconds)
{
    pollfd closed = {peer.fd, POLLIN, 0};
    EXPECT_TRUE(faults::eventually([&] {
        faults::shift_clock(seconds);
        peer.send(wire::message(1012));
        return poll(&closed, 1, 0) > 0;
    }));
}

struct Start : SessionTest {
    TPSTART_T *record = nullptr;

    ~Start() override
    {
        if (record != nullptr)
            tpfree((char *)record);
    }

    TPSTART_T *make_record(int32_t flags = 0, long size = 0)
    {
        record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, size);
        EXPECT_NE(record, nullptr);
        strcpy(record->usrname, "user");
        strcpy(record->cltname, "client");
        strcpy(record->cred1, "first");
        strcpy(record->cred2, "second");
        record->flags = flags;
        return record;
    }

    void expect_no_context(void)
    {
        for (int i = 1; i < _wthr_size; i++) {
            EXPECT_EQ(_wthr[i].in_use, 0) << i;
            EXPECT_EQ(_ctxt[i].in_use, 0) << i;
            EXPECT_EQ(_ctxt[i].wthr_var, nullptr) << i;
        }
        EXPECT_EQ(current_row(), _main_wthrp);
        EXPECT_EQ(pthread_mutex_trylock(&_wthr_mutex), 0);
        pthread_mutex_unlock(&_wthr_mutex);
    }
};

// Sessions by tpinit watch descriptor 0 beside their connection: it is made a pipe in which nothing happens.
struct Init : Start {
    int quiet[2] = {-1, -1};

    void SetUp() override
    {
        ASSERT_EQ(pipe(quiet), 0);
        ASSERT_EQ(dup2(quiet[0], 0), 0);
    }

    TPINIT *init_record(int64_t flags = 0, long size = 0)
    {
        TPINIT *made = (TPINIT *)tpalloc((char *)"TPINIT", nullptr, size);
        EXPECT_NE(made, nullptr);
        strcpy(made->usrname, "user");
        strcpy(made->cltname, "client");
        strcpy(made->cred1, "first");
        strcpy(made->cred2, "second");
        made->flags = flags;
        return made;
    }
};

}  // namespace

// ---- the start message

TEST_F(Start, WithoutARecordTheMessageIsAHeaderAlone)
{
    peer.play([&] {
        peer.recording = true;
        Expected message = peer.accept_start();
        message.header_only().svcname("_tpstart").flags(0).cd(0).seqno(0);
        EXPECT_EQ(message.frame.msgtype, 1);
        EXPECT_EQ(message.frame.rcode, 0);
        EXPECT_EQ(message.frame.bufsize, 0);
        EXPECT_EQ(message.frame.callid[0], 0u);
        EXPECT_EQ(message.frame.callid[1], 0u);
        EXPECT_EQ(message.frame.callid[2], 0u);
        EXPECT_EQ(peer.received.size(), 136u);
    });
    EXPECT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(block()->start_msg, nullptr);
}

TEST_F(Start, RecordTravelsAsItStands)
{
    make_record(0x01);
    memset(record->usrname, 'u', 18);  // too long: cut at its last byte
    memset(record->cltname, 'c', 18);
    memset(record->cred1, 'p', 18);
    memset(record->cred2, 's', 18);
    peer.play([&] {
        Expected message = peer.accept_start();
        message.svcname("_tpstart").flags(1).cd(0).buftype(5);
        message.data(std::string(17, 'u') + '\0' + std::string(18, 'c') + std::string(18, 'p') +
                     std::string(18, 's') + std::string("\1\0\0\0", 4));
        EXPECT_EQ(message.frame.bufsize, 76);
    });
    EXPECT_EQ(tpstart(record), 0);
    EXPECT_EQ(record->usrname[17], 0);
    EXPECT_EQ(message_of((char *)record)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message_of((char *)record)->msgtype, 1);  // in host order again
}

TEST_F(Start, LargerRecordTravelsWhole)
{
    make_record(0, 200);
    memset((char *)record + 76, 'x', 124);
    peer.play([&] {
        Expected message = peer.accept_start();
        EXPECT_EQ(message.frame.data.size(), 200u);
        EXPECT_EQ(message.frame.data.substr(76), std::string(124, 'x'));
    });
    EXPECT_EQ(tpstart(record), 0);
}

TEST_F(Start, RecordIsKeptForReconnecting)
{
    make_record(0x04);
    peer.play([&] { peer.accept_start(); });
    ASSERT_EQ(tpstart(record), 0);
    msg_header *kept = block()->start_msg;
    ASSERT_NE(kept, nullptr);
    EXPECT_NE(kept, message_of((char *)record));
    EXPECT_EQ(memcmp(kept, message_of((char *)record), 136 + 76), 0);
    strcpy(record->usrname, "changed");
    EXPECT_STREQ(message_data(kept), "user");
}

TEST_F(Start, TreatmentOfUnsolicitedMessagesComesFromTheFlags)
{
    const struct {
        int32_t flags;
        int64_t mode;
    } cases[] = {
        {0x40, 1}, {0x41, 1}, {0x42, 2}, {0x43, 1}, {0x44, 4}, {0x45, 1}, {0x46, 1}, {0x47, 1},
    };
    for (const auto &row : cases) {
        make_record(row.flags);
        peer.play([&] { peer.accept_start().flags((uint32_t)row.flags); });
        ASSERT_EQ(tpstart(record), 0) << row.flags;
        peer.done();
        EXPECT_EQ(block()->unsol_mode, row.mode) << row.flags;
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
        tpfree((char *)record);
        record = nullptr;
    }
}

// ---- what the reply sets

TEST_F(Start, ReplyFillsTheBlock)
{
    wire::start_reply reply;
    reply.acall_size = 11;
    reply.conv_size = 5;
    reply.block_time = 33;
    reply.tx_timeout = 44;
    reply.threshold = 4096;
    reply.engine_version = 77;
    reply.client = 0x155;
    reply.location = 3 << 8 | 9;
    reply.token = 0x7654321;
    reply.nodes = {"N0", "N1", "N2", "N3"};
    reply.queues = {"QA", "QB"};
    reply.server_name = "SPECIAL";
    ASSERT_TRUE(start(reply));
    wthr_var *b = block();
    EXPECT_EQ(b->started, 1);
    EXPECT_EQ(b->on_backup, 0);
    EXPECT_GT(b->clhfd, 2);
    EXPECT_EQ(b->new_clhfd, -1);
    EXPECT_EQ(b->old_clhfd, -1);
    EXPECT_EQ(b->unsol_mode, 1);
    EXPECT_EQ(b->acall_size, 11);
    EXPECT_EQ(b->conv_size, 5);
    EXPECT_EQ(b->block_time, 33);
    EXPECT_EQ(b->txinfo->transaction_timeout, 44);
    EXPECT_EQ(b->txinfo->transaction_state, -1);
    EXPECT_EQ(b->compress_threshold, 4096);
    EXPECT_EQ(_vorn_engine_version, 77);
    EXPECT_EQ(b->sessionid, 3 * 0x200000 + 9 * 0x4000 + 0x155);
    EXPECT_EQ(b->session_token, 0x7654321);
    EXPECT_EQ(b->node_count, 4);
    EXPECT_NE(b->node_table, nullptr);
    EXPECT_EQ(b->qcall_size, 2);
    EXPECT_EQ(_get_rqno_by_qname("QB", b), 1);
    EXPECT_STREQ(b->server_name, "SPECIAL");
    EXPECT_EQ(b->callid_base[0], (uint32_t)(3 << 8 | 9));
    EXPECT_EQ(b->callid_base[1], 0x155u << 19 | 1);
    EXPECT_EQ(b->callid_base[2], 0u);
    EXPECT_EQ(b->callid_next[0], b->callid_base[0]);
    EXPECT_EQ(b->callid_next[1], 0x155u << 19 | 1 << 8 | 1);
    EXPECT_EQ(b->callid_next[2], 0u);
    EXPECT_EQ(b->reader_busy, 0);
    EXPECT_EQ(b->waiter_count, 0);
    EXPECT_EQ(_my_pid, getpid());
    EXPECT_EQ(_start_ctxt, 0);
}

TEST_F(Start, ReplyWithoutAPayloadGivesNoNodes)
{
    wire::start_reply reply;
    reply.with_payload = false;
    ASSERT_TRUE(start(reply));
    EXPECT_EQ(block()->compress_threshold, -1);
    EXPECT_EQ(block()->node_table, nullptr);
    EXPECT_EQ(block()->initout, nullptr);
    EXPECT_EQ(block()->qcall, nullptr);
    EXPECT_EQ(block()->started, 1);
}

TEST_F(Start, PayloadShortAtAnyByteStillStartsOrFailsCleanly)
{
    wire::start_reply reply;
    reply.nodes = {"N0"};
    reply.queues = {"QA"};
    reply.server_name = "SP";
    std::string whole = wire::start_payload(reply);
    for (size_t length = 1; length <= whole.size(); length++) {
        SCOPED_TRACE(length);
        reply.payload = whole.substr(0, length);
        peer.play([&] { peer.accept_start(reply); });
        int result = tpstart(nullptr);
        peer.done();
        if (result < 0) {
            EXPECT_NE(get_tperrno(), 0);
            continue;
        }
        if (length < 12 + 40 + 16 + 4) {
            EXPECT_EQ(block()->compress_threshold, -1);
        }
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
        expect_no_context();
    }
}

TEST_F(Start, LocationOutsideTheNodesIsSafe)
{
    for (uint32_t location : {0x00000101u, 0x003fff01u, 0x7fffff01u, 0xffffffffu}) {
        SCOPED_TRACE(location);
        wire::start_reply reply;
        reply.location = location;
        peer.play([&] { peer.accept_start(reply); });
        ASSERT_EQ(tpstart(nullptr), 0);
        peer.done();
        EXPECT_EQ(block()->callid_base[0], location);
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
}

TEST_F(Start, HostileTableSizesAreSafe)
{
    for (int size : {0, -1, INT32_MIN, 0x7fffffff}) {
        SCOPED_TRACE(size);
        wire::start_reply reply;
        reply.acall_size = reply.conv_size = size;
        peer.play([&] { peer.accept_start(reply); });
        ASSERT_EQ(tpstart(nullptr), 0);
        peer.done();
        EXPECT_EQ(_create_acall_cd(0, block()), size <= 0 ? -1 : 1);
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
}

TEST_F(Start, SocketSendsAtOnce)
{
    ASSERT_TRUE(start());
    int on = 0;
    socklen_t length = sizeof on;
    ASSERT_EQ(getsockopt(block()->clhfd, IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
    EXPECT_EQ(on != 0, true);
}

TEST_F(Start, SequenceNumbersAreSeededInTheSessionsOwnContext)
{
    ASSERT_TRUE(start());
    EXPECT_NE(block(), _main_wthrv);
    EXPECT_EQ(block()->seqno_inited, 1);
    EXPECT_EQ(block()->seqno % 1024, 0);
    EXPECT_LT(block()->seqno, 0x10000000);
    EXPECT_EQ(_main_wthrv->seqno_inited, 0);
    EXPECT_EQ(_main_wthrv->seqno, 0);
}

TEST_F(Start, CountOfTheCallIdentitySurvivesAReconnect)
{
    ASSERT_TRUE(start());
    wthr_var *b = block();
    b->callid_next[1] = 7u << 19 | 0x123 << 8 | 1;
    close(b->clhfd);
    wire::start_reply reply;
    reply.client = 9;
    reply.location = 0x302;
    peer.play([&] { peer.accept_start(reply); });
    msg_header *message = _header_msg_make(MSG_TPSTART, 0);
    ASSERT_EQ(_vorn_start(message, MSG_TPSTART, 0, b), 1);
    free(message);
    EXPECT_EQ(b->callid_base[0], 0x302u);
    EXPECT_EQ(b->callid_base[1], 9u << 19 | 0x123 << 8 | 1);
    EXPECT_EQ(b->callid_next[0], 0x302u);
    EXPECT_EQ(b->callid_next[1], 9u << 19 | 0x124 << 8 | 1);
    b->callid_next[1] = 9u << 19 | 0x7ff << 8 | 1;
    peer.done();
    close(b->clhfd);
    peer.play([&] { peer.accept_start(reply); });
    message = _header_msg_make(MSG_TPSTART, 0);
    ASSERT_EQ(_vorn_start(message, MSG_TPSTART, 0, b), 1);
    free(message);
    EXPECT_EQ(b->callid_next[1], 9u << 19 | 1 << 8 | 1);  // never 0
}

// ---- a second start

TEST_F(Start, ThreadThatHasItsContextGetsOneAndNothingIsDone)
{
    ASSERT_TRUE(start());
    wthr_var *b = block();
    EXPECT_EQ(tpstart(nullptr), 1);
    make_record(0);
    EXPECT_EQ(tpstart(record), 1);
    EXPECT_EQ(block(), b);
    EXPECT_TRUE(peer.nobody_knocks());
    peer.expect_nothing();
    EXPECT_EQ(get_tperrno(), 0);
}

TEST_F(Start, RecordWithAModeOpensASecondContext)
{
    ASSERT_TRUE(start());
    wthr_var *first = block();
    Conn second;
    peer.play([&] {
        peer.accept(&second);
        second.expect(wire::TPSTART).flags(0x02);
        second.reply_start({});
    });
    EXPECT_EQ(tpstart(make_record(0x02)), 0);
    peer.done();
    EXPECT_NE(block(), first);
    EXPECT_EQ(block()->unsol_mode, 2);
    EXPECT_EQ(first->unsol_mode, 1);
    EXPECT_EQ(first->started, 1);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    EXPECT_EQ(_ctxt[2].in_use, 1);
}

TEST_F(Start, MultipleContextsAreOpenedOnOneThread)
{
    make_record(TPMULTICONTEXTS);
    Conn connections[3];
    wthr_var *blocks[3];
    for (int i = 0; i < 3; i++) {
        peer.play([&] {
            peer.accept(&connections[i]);
            connections[i].expect(wire::TPSTART).flags(0x40);
            connections[i].reply_start({});
        });
        ASSERT_EQ(tpstart(record), 0);
        peer.done();
        blocks[i] = block();
        EXPECT_EQ(context(), i + 1);
    }
    EXPECT_NE(blocks[0], blocks[1]);
    EXPECT_NE(blocks[1], blocks[2]);
    EXPECT_EQ(tpsetctxt(2, 0), 1);
    EXPECT_EQ(block(), blocks[1]);
    peer.play([&] { connections[1].serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(tpsetctxt(2, 0), -1);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    EXPECT_EQ(tpsetctxt(1, 0), 1);
    EXPECT_EQ(block(), blocks[0]);
}

TEST_F(Start, ModesMustAgree)
{
    ASSERT_TRUE(start({}, true));
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    for (int32_t flags : {0, 1, 4}) {
        make_record(flags);
        set_tperrno(0);
        EXPECT_EQ(tpstart(record), -1) << flags;
        EXPECT_EQ(get_tperrno(), TPEPROTO) << flags;
        tpfree((char *)record);
        record = nullptr;
    }
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(block()->started, 1);
}

TEST_F(Start, ModesMustAgreeTheOtherWayRound)
{
    ASSERT_TRUE(start());
    make_record(0x40);
    EXPECT_EQ(tpstart(record), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    // From another thread as well, and before the record is looked at any further.
    std::thread([&] {
        record->flags = 0x40 | 0x800;
        EXPECT_EQ(tpstart(record), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
    }).join();
    EXPECT_TRUE(peer.nobody_knocks());
}

// ---- records that are refused

TEST_F(Start, OnlyAStartRecordIsTaken)
{
    for (const char *type : {"CARRAY", "STRING", "HEADER"}) {
        char *data = tpalloc((char *)type, nullptr, 500);
        ASSERT_NE(data, nullptr);
        set_tperrno(0);
        EXPECT_EQ(tpstart((TPSTART_T *)data), -1) << type;
        EXPECT_EQ(get_tperrno(), TPEITYPE) << type;
        expect_no_context();
        ((TPSTART_T *)data)->flags = 0x08;  // the flags are wrong too, but come later
        EXPECT_EQ(tpstart((TPSTART_T *)data), -1) << type;
        EXPECT_EQ(get_tperrno(), TPEITYPE) << type;
        tpfree(data);
    }
    make_record();
    message_of((char *)record)->magic = 0;
    EXPECT_EQ(tpstart(record), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    expect_no_context();
    message_of((char *)record)->magic = MESSAGE_MAGIC;
    EXPECT_TRUE(peer.nobody_knocks());
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpstart(record), 0);
}

TEST_F(Start, FlagsBeyondTheMaskAreInvalid)
{
    make_record();
    for (uint32_t flag : {0x08u, 0x10u, 0x20u, 0x80u, 0x100u, 0x4000u, 0x40000000u, 0x80000000u}) {
        record->flags = (int32_t)flag;
        set_tperrno(0);
        EXPECT_EQ(tpstart(record), -1) << flag;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << flag;
        expect_no_context();
    }
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(Start, WithoutAFreeRowTheLimitIsTold)
{
    make_record(0x40);
    ASSERT_EQ(get_tperrno(), 0);
    for (int i = 1; i < 400; i++)
        _wthr[i].in_use = 1;
    EXPECT_EQ(tpstart(record), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    for (int i = 1; i < 400; i++) {
        _wthr[i].in_use = 0;
        _ctxt[i].in_use = 1;
    }
    set_tperrno(0);
    EXPECT_EQ(tpstart(record), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_TRUE(peer.nobody_knocks());
    _ctxt[250].in_use = 0;
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpstart(record), 0);
}

// ---- refusals and retries

TEST_F(Start, RefusedLoginIsNotTriedAgain)
{
    for (int with_record = 0; with_record < 2; with_record++) {
        peer.play([&] {
            wire::start_reply refusal;
            refusal.refuse = TPESECURITY;
            peer.accept_start(refusal);
            peer.expect_end();
        });
        EXPECT_EQ(tpstart(with_record ? make_record() : nullptr), -1);
        EXPECT_EQ(get_tperrno(), TPESECURITY);
        peer.done();
        EXPECT_TRUE(peer.nobody_knocks());
        expect_no_context();
    }
    // The next start of the thread begins afresh.
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpstart(record), 0);
}

TEST_F(Start, OtherRefusalsAreTriedTwice)
{
    peer.play([&] {
        for (int error : {TPENOREADY, TPELIMIT}) {
            wire::start_reply refusal;
            refusal.refuse = error;
            peer.accept_start(refusal);
            peer.expect_end();
        }
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(block()->clhfd, -1);
    EXPECT_EQ(block()->txinfo, nullptr);
    EXPECT_EQ(block()->started, 0);
}

TEST_F(Start, SecondAttemptMayBeTheGoodOne)
{
    peer.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPENOREADY;
        peer.accept_start(refusal).data("").flags(0);
        peer.expect_end();
        peer.accept_start().data("").flags(0).svcname("_tpstart");
    });
    EXPECT_EQ(tpstart(nullptr), 0);
    peer.done();
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_NE(block()->txinfo, nullptr);
}

TEST_F(Start, SecondAttemptMayBeRefusedForGood)
{
    peer.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPENOREADY;
        peer.accept_start(refusal);
        refusal.refuse = TPESECURITY;
        peer.accept_start(refusal);
        peer.expect_end();
    });
    EXPECT_EQ(tpstart(make_record()), -1);
    EXPECT_EQ(get_tperrno(), TPESECURITY);
    peer.done();
    expect_no_context();
}

TEST_F(Start, ServerThatCannotBeReachedIsNotTriedTwice)
{
    setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);
    peer.stop_listening();
    faults::reset();
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(faults::count(faults::CONNECT), 1);
    EXPECT_TRUE(log.has("[CLI0106]"));
    EXPECT_TRUE(log.has("[CLI0102]"));  // and there is no backup
    expect_no_context();
}

TEST_F(Start, BackupServesWhenTheMainServerDoesNot)
{
    Peer closed;
    closed.stop_listening();
    setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);
    setenv("VORN_HOST_ADDR", closed.address().c_str(), 1);
    setenv("VORN_BACKUP_ADDR", peer.address().c_str(), 1);
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpstart(nullptr), 1);
    EXPECT_EQ(block()->on_backup, 1);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(get_tperrno(), 0);
}

TEST_F(Start, ConnectionLostInTheExchangeIsNotTriedTwice)
{
    peer.play([&] {
        peer.accept();
        peer.expect(wire::TPSTART);
        peer.hang_up();
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    expect_no_context();
}

TEST_F(Start, ServerThatDoesNotAnswerIsWaitedForSixtySecondsTwice)
{
    peer.play([&] {
        for (int attempt = 0; attempt < 2; attempt++) {
            peer.accept();
            peer.expect(wire::TPSTART);
            let_time_run_out(peer, 61);
            peer.hang_up();
        }
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
}

// ---- tpinit

TEST_F(Init, MessageIsBuiltAnew)
{
    TPINIT *init = init_record(0x04, 108);
    init->datalen = 20;
    memcpy((char *)init + 88, "the data, 20 bytes..", 20);
    memset(init->usrname, 'u', 18);
    peer.play([&] {
        Expected message = peer.accept_start();
        EXPECT_EQ(message.frame.msgtype, 21);
        message.svcname("_tpstart").flags(4).cd(0).buftype(5);
        std::string data = message.frame.data;
        EXPECT_EQ(message.frame.datalen, 108);
        data.resize(108);
        EXPECT_EQ(data.substr(0, 17), std::string(17, 'u'));
        EXPECT_STREQ(data.substr(18).c_str(), "client");
        EXPECT_STREQ(data.substr(36).c_str(), "first");
        EXPECT_STREQ(data.substr(54).c_str(), "second");
        EXPECT_EQ(wire::word_at(data, 72), 4u);
        EXPECT_EQ(wire::word_at(data, 76), 20u);
        EXPECT_EQ(data.substr(80, 20), "the data, 20 bytes..");
        EXPECT_EQ(data.substr(100), std::string(8, '\0'));
    });
    EXPECT_EQ(tpinit(init), 1);
    peer.done();
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(init->flags, 4);
    EXPECT_EQ(init->datalen, 20);
    EXPECT_EQ(block()->unsol_mode, 2);
    // The sent message is kept for reconnecting.
    EXPECT_NE(block()->start_msg, nullptr);
    EXPECT_EQ(block()->new_clhfd, 0);
    EXPECT_EQ(block()->old_clhfd, 0);
    EXPECT_EQ(block()->seqno_inited, 0);
    EXPECT_EQ(block()->started, 1);
    tpfree((char *)init);
}

TEST_F(Init, WithoutARecordTheMessageIsAHeaderAlone)
{
    peer.play([&] {
        Expected message = peer.accept_start();
        EXPECT_EQ(message.frame.msgtype, 21);
        message.header_only().svcname("_tpstart").flags(0);
    });
    EXPECT_EQ(tpinit(nullptr), 1);
    peer.done();
    EXPECT_EQ(block()->start_msg, nullptr);
    EXPECT_EQ(block()->unsol_mode, 1);
    // On a standing session it does nothing.
    EXPECT_EQ(tpinit(nullptr), 1);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(Init, OnlyOneValueOfTheFlagsChangesTheTreatment)
{
    const struct {
        int64_t flags, mode;
    } cases[] = {
        {0x40, 1}, {0x41, 1}, {0x42, 1}, {0x43, 1}, {0x44, 2}, {0x45, 1}, {0x46, 1}, {0x47, 1},
    };
    for (const auto &row : cases) {
        TPINIT *init = init_record(row.flags);
        peer.play([&] { peer.accept_start().flags((uint32_t)row.flags); });
        ASSERT_EQ(tpinit(init), 1) << row.flags;
        peer.done();
        EXPECT_EQ(block()->unsol_mode, row.mode) << row.flags;
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
        ASSERT_EQ(dup2(quiet[0], 0), 0);  // the end of the session may have closed it
        tpfree((char *)init);
    }
}

TEST_F(Init, FlagsAreTestedInAll64Bits)
{
    TPINIT *init = init_record();
    for (int64_t flags : {0x08L, 0x80L, 0x100000000L, INT64_MIN}) {
        init->flags = flags;
        set_tperrno(0);
        EXPECT_EQ(tpinit(init), -1) << flags;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << flags;
        tpsetctxt(TPNULLCONTEXT, 0);
        _context_end();
    }
    EXPECT_TRUE(peer.nobody_knocks());
    tpfree((char *)init);
}

TEST_F(Init, OnlyAnInitRecordIsTakenAndTheContextStays)
{
    char *data = tpalloc((char *)"CARRAY", nullptr, 500);
    EXPECT_EQ(tpinit((TPINIT *)data), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    EXPECT_EQ(_wthr[1].in_use, 1);
    EXPECT_EQ(block()->started, 0);
    tpfree(data);
}

TEST_F(Init, RecordThatShrankBelowItsFieldsIsRefused)
{
    TPINIT *init = init_record();
    init = (TPINIT *)tprealloc((char *)init, 0);
    ASSERT_EQ(tpgetasize((char *)init), 76);
    EXPECT_EQ(tpinit(init), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    EXPECT_TRUE(peer.nobody_knocks());
    tpfree((char *)init);
}

TEST_F(Init, RefusedLoginIsNotTriedAgainAndTheContextStays)
{
    peer.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        peer.accept_start(refusal);
        peer.expect_end();
    });
    EXPECT_EQ(tpinit(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPESECURITY);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(_wthr[1].in_use, 1);
    EXPECT_EQ(block()->started, 0);
}

TEST_F(Init, ModesMustAgree)
{
    ASSERT_TRUE(start());
    TPINIT *init = init_record(0x40);
    EXPECT_EQ(tpinit(init), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    init->flags = 0;
    EXPECT_EQ(tpinit(init), 1);
    EXPECT_TRUE(peer.nobody_knocks());
    tpfree((char *)init);
}
