// Enciphered connections, step by step: the exchange of keys, the envelopes that leave, and what becomes of a
// failure in either. What comes in envelopes is looked at in envelope_read_test.cpp.
#include "wire/envelope.h"

#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"
#include "wire/sealed_fixture.h"

#include <limits.h>

namespace {

using cipher::fake;

struct Negotiation : CipherTest {
    void send_step(const std::string &payload)
    {
        peer.send_raw(cipher::envelope(cipher::SERVERS_STEP, payload));
    }
    void expect_step(const std::string &payload)
    {
        std::string bytes = cipher::envelope(cipher::STEP, payload);
        EXPECT_EQ(peer.read_bytes(bytes.size()), bytes);
    }
};

}  // namespace

// ---- the states of the exchange

TEST_F(Negotiation, FinishedAtOnceSendsNothing)
{
    EXPECT_EQ(run({{0}}), 1);
    EXPECT_EQ(fake.mode, 0);
    EXPECT_EQ(fake.fd, block->clhfd);
    EXPECT_EQ(fake.inputs, std::vector<std::string>{""});
    EXPECT_EQ(fake.lengths, std::vector<int>{0});
    EXPECT_EQ(error(), 0);
    EXPECT_NE(block->crypt_sess, nullptr);
    peer.expect_nothing();
    expect_free();
}

TEST_F(Negotiation, FinishedIgnoresAnOutput)
{
    for (int32_t length : {7, 260, 280, -1, INT32_MAX})
        EXPECT_EQ(run({{0, length}}), 1) << length;
    peer.expect_nothing();
}

TEST_F(Negotiation, LastBytesGoOutAndNothingIsRead)
{
    send_step("for later");
    EXPECT_EQ(run({{3, 5, 'x'}}), 1);
    // 77777777, the length, 10, 1, and the bytes.
    EXPECT_EQ(peer.read_bytes(21), std::string("\x04\xa2\xcb\x71\0\0\0\x05\0\0\0\x0a\0\0\0\x01xxxxx", 21));
    peer.expect_nothing();
    EXPECT_EQ(fake.inputs.size(), 1u);
    char byte;
    EXPECT_EQ(recvfrom(block->clhfd, &byte, 1, MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr), 1);
    expect_free();
}

TEST_F(Negotiation, BytesGoOutAndTheAnswerIsTheNextInput)
{
    send_step("the answer");
    EXPECT_EQ(run({{2, 7, 'a'}, {3, 9, 'b'}}), 1);
    expect_step("aaaaaaa");
    expect_step("bbbbbbbbb");
    peer.expect_nothing();
    EXPECT_EQ(fake.inputs, (std::vector<std::string>{"", "the answer"}));
    expect_free();
}

TEST_F(Negotiation, PeersBytesAreAwaitedWithNothingSent)
{
    send_step("first");
    send_step("second");
    EXPECT_EQ(run({{1}, {1, 280}, {0}}), 1);
    EXPECT_EQ(fake.inputs, (std::vector<std::string>{"", "first", "second"}));
    peer.expect_nothing();
    expect_free();
}

TEST_F(Negotiation, ManyRoundsMayBeRun)
{
    std::vector<std::string> inputs = {""};
    for (int i = 0; i < 40; i++) {
        inputs.push_back("round " + std::to_string(i));
        send_step(inputs.back());
    }
    fake.steps.clear();
    for (int i = 0; i < 40; i++)
        fake.steps.push_back({2, i, (char)('A' + i)});
    EXPECT_EQ(_vorn_negotiate(block), 1);  // finished when the steps are used up
    for (int i = 0; i < 40; i++)
        expect_step(std::string((size_t)i, (char)('A' + i)));
    peer.expect_nothing();
    EXPECT_EQ(fake.inputs, inputs);
}

TEST_F(Negotiation, AnswerIsHandedOverWhole)
{
    for (size_t length : {0, 1, 136, 259, 260, 261, 280, 1864, 1865, 65536}) {
        SCOPED_TRACE(length);
        send_step(long_text(length));
        EXPECT_EQ(run({{1}, {0}}), 1);
        ASSERT_EQ(fake.inputs.size(), 2u);
        EXPECT_EQ(fake.inputs[1], long_text(length));
    }
}

TEST_F(Negotiation, AnswerLongerThanAnyProvidersIsRefused)
{
    for (size_t length : {65537, 100000}) {
        SCOPED_TRACE(length);
        send_step(long_text(length));
        EXPECT_EQ(run({{1}, {0}}), -1);
        expect_failure(TPESYSTEM);
        EXPECT_EQ(fake.inputs.size(), 1u);
    }
}

TEST_F(Negotiation, OutputOfEveryLengthThatFitsIsSent)
{
    for (int32_t length : {0, 1, 120, 136, 259, 260}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(run({{3, length, 'z'}}), 1);
        expect_step(std::string((size_t)length, 'z'));
    }
    peer.expect_nothing();
}

TEST_F(Negotiation, OutputThatDoesNotFitIsRefused)
{
    for (int state : {2, 3})
        for (int32_t length : {261, 280, 281, INT32_MAX, -1, -16, INT32_MIN}) {
            SCOPED_TRACE(std::to_string(state) + " with " + std::to_string(length));
            EXPECT_EQ(run({{state, length}}), -1);
            expect_failure(TPEOS);
        }
    peer.expect_nothing();
}

TEST_F(Negotiation, EveryOtherStateIsAFailure)
{
    for (int state : {-1, 4, 5, 10, 1001, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(state);
        EXPECT_EQ(run({{state, 5}}), -1);
        expect_failure(TPEOS);
    }
    peer.expect_nothing();
}

TEST_F(Negotiation, FailureInALaterRoundEndsIt)
{
    send_step("wrong");
    EXPECT_EQ(run({{2, 3, 'a'}, {-1}}), -1);
    expect_failure(TPEOS);
    expect_step("aaa");
    peer.expect_nothing();
    EXPECT_GE(block->clhfd, 0);
}

TEST_F(Negotiation, WithoutASessionOfTheCipherThereIsNone)
{
    fake.no_session = true;
    EXPECT_EQ(run({{0}}), -1);
    expect_failure(TPESYSTEM);
    EXPECT_EQ(block->crypt_sess, nullptr);
    EXPECT_TRUE(fake.inputs.empty());
    peer.expect_nothing();
}

TEST_F(Negotiation, SecondExchangeEndsTheSessionOfTheFirst)
{
    EXPECT_EQ(run({{0}}), 1);
    void *first = block->crypt_sess;
    EXPECT_EQ(run({{0}}), 1);
    EXPECT_NE(block->crypt_sess, first);
    EXPECT_EQ(fake.live(), 1);
    EXPECT_EQ(fake.closed, 1);
}

// ---- answers that are none

TEST_F(Negotiation, AnswerInClearClosesTheConnection)
{
    const std::string answers[] = {
        wire::encode(wire::message(1001, "in clear")),
        wire::encode(wire::message(1001, "in clear", {.buftype = 10})),
        wire::raw_frame("0123456789"),
        wire::compressed_frame(wire::encode(wire::message(1001, "packed", {.buftype = 10}))),
        wire::word(0) + wire::word(0),
    };
    for (const std::string &answer : answers) {
        SCOPED_TRACE(wire::word_at(answer, 0));
        reconnect();
        block->started = 0;
        peer.send_raw(answer);
        EXPECT_EQ(run({{2, 4, 'a'}, {0}}), -1);
        expect_failure(TPECLOSE);
        expect_closed();
        EXPECT_EQ(fake.inputs.size(), 1u);
    }
}

TEST_F(Negotiation, EnvelopeThatIsNoStepAndDoesNotDecipherEndsIt)
{
    for (uint32_t msgtype : {0u, 1u, 3u, 1000u, 1002u, 2001u, 3001u, 0xffffffffu}) {
        SCOPED_TRACE(msgtype);
        peer.send_raw(cipher::envelope(msgtype, "not sealed, and nothing that could be opened"));
        EXPECT_EQ(run({{1}, {0}}), -1);
        expect_failure(TPESYSTEM);
        EXPECT_EQ(fake.inputs.size(), 1u);
        EXPECT_GE(block->clhfd, 0);
    }
}

TEST_F(Negotiation, EndOfTheConnectionInTheAnswerClosesIt)
{
    std::string whole = cipher::envelope(cipher::SERVERS_STEP, "the answer");
    for (size_t there = 0; there < whole.size(); there++) {
        SCOPED_TRACE(there);
        reconnect();
        block->started = 0;
        peer.send_raw(whole.substr(0, there));
        peer.half_close();
        EXPECT_EQ(run({{2, 4}, {0}}), -1);
        // Only an end where something else was awaited is one; in the middle of it the bytes that are missing are.
        bool ended = there == 0 || there == 8;
        expect_failure(ended ? TPECLOSE : TPEOS);
        EXPECT_EQ(block->clhfd == -1, ended);
        EXPECT_EQ(fake.inputs.size(), 1u);
    }
}

TEST_F(Negotiation, LengthThatCannotBeIsRefused)
{
    for (uint32_t length : {0x80000000u, 0xffffffffu, 0xfffffff0u}) {
        SCOPED_TRACE(length);
        reconnect();
        block->started = 0;
        peer.send_raw(wire::word(77777777) + wire::word(length) + wire::word(10) + wire::word(1001));
        EXPECT_EQ(run({{1}, {0}}), -1);
        expect_failure(TPEOS);
        EXPECT_EQ(fake.inputs.size(), 1u);
    }
}

TEST_F(Negotiation, ServerIsWaitedForSixtySeconds)
{
    std::atomic<bool> over{false};
    // A message that nobody wants makes the wait look at the clock, and it is let run on only afterwards.
    std::thread other([&] {
        auto unwanted = cipher::envelope(3, cipher::sealed(wire::encode(wire::message(1012))));
        faults::eventually([&] {
            faults::shift_clock(61);
            peer.send_raw(unwanted);
            return over.load();
        });
    });
    EXPECT_EQ(run({{2, 4, 'a'}, {0}}), -1);
    over = true;
    other.join();
    expect_failure(TPETIME);
    EXPECT_EQ(fake.inputs.size(), 1u);
    EXPECT_GE(block->clhfd, 0);
}

TEST_F(Negotiation, FailedSendOfAStepEndsIt)
{
    const struct {
        int error, code;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {ECONNRESET, TPEOS}};
    for (auto one : cases)
        for (int state : {2, 3}) {
            SCOPED_TRACE(std::to_string(one.error) + " in state " + std::to_string(state));
            faults::fail(faults::SEND, 1, one.error);
            EXPECT_EQ(run({{state, 9}}), -1);
            expect_failure(one.code);
            EXPECT_EQ(fake.inputs.size(), 1u);
            EXPECT_GE(block->clhfd, 0);
            EXPECT_EQ(block->crypt_sess == nullptr, one.error == EPIPE);
        }
    peer.expect_nothing();
}

TEST_F(Negotiation, StepIsSentInAsManyPiecesAsItTakes)
{
    faults::limit(faults::SEND, 3);
    EXPECT_EQ(run({{3, 50, 'x'}}), 1);
    expect_step(std::string(50, 'x'));
}

TEST_F(Negotiation, WithoutMemoryItFailsAndLeavesNothing)
{
    setenv("VORN_ERR_MSG", "N", 1);
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 50);
        SCOPED_TRACE("allocation " + std::to_string(nth));
        reconnect();
        block->started = 0;
        send_step("one");
        send_step("two");
        fake.inputs.clear();
        fake.steps = {{2, 20}, {1}, {3, 30}};
        set_tperrno(0);
        faults::fail_allocation(nth);
        int result = _vorn_negotiate(block);
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        EXPECT_EQ(result, failed ? -1 : 1);
        EXPECT_EQ(error(), failed ? TPEOS : 0);
        expect_free();
        if (!failed)
            return;
    }
}

TEST_F(Negotiation, KeysOfTheLibraryServeBothWays)
{
    fake.scripted = false;
    cipher::Server server(peer);
    std::thread other([&] { server.exchange(); });
    EXPECT_EQ(_vorn_negotiate(block), 1);
    other.join();
    block->started = 1;
    msg_header *message = new_message(MSG_TPCALL, "to the server", 64);
    message->seqno = SEQNO;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    free(message);
    server.expect(wire::TPCALL).data("to the server").seqno(SEQNO);
    block->waiter_count = 0;
    waiting();
    server.send(call_reply("to the client"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "to the client");
}

// ---- what leaves

namespace {

struct Sealed : SealedTest {
    msg_header *message = nullptr;

    Sealed() { fix_callid(); }
    ~Sealed() override { free(message); }

    void fix_callid()
    {
        block->callid_next[0] = 0x302;
        block->callid_next[1] = 9 << 19 | 5 << 8 | 1;
        block->callid_next[2] = 0;
    }
    msg_header *make(int32_t type, const std::string &data = "abcd", int32_t room = 1024)
    {
        free(message);
        message = new_message(type, data, room);
        message->seqno = 1000;
        put_name(message->svcname, sizeof message->svcname, "TOUPPER");
        return message;
    }
    int send()
    {
        set_tperrno(0);
        block->waiter_count = 0;
        return _send_csmsg_to_clh(message, block);
    }
    // A message in wire order, as the two functions of the cipher expect it.
    msg_header *make_wire(const std::string &data)
    {
        make(MSG_TPACALL, data);
        _hton_header(message, message);
        return message;
    }
    std::string payload()
    {
        std::string bytes;
        EXPECT_TRUE(cipher::read_envelope(peer, 3, &bytes));
        return bytes;
    }
};

}  // namespace

TEST_F(Sealed, MessageLeavesInAnEnvelope)
{
    make(MSG_TPCALL);
    EXPECT_EQ(send(), 1);
    std::string head = peer.read_bytes(16);
    EXPECT_EQ(head, std::string("\x04\xa2\xcb\x71\0\0\0\x90\0\0\0\x0a\0\0\0\x03", 16));  // 4 + 136 + 4 bytes
    std::string plain = cipher::opened(peer.read_bytes(144));
    ASSERT_EQ(plain.size(), 140u);
    peer.expect_nothing();
    wire::frame got = cipher::message_of(plain);
    EXPECT_EQ(wire::encode(got), plain);
    EXPECT_EQ(got.magic, 0x90352082u);
    EXPECT_EQ(got.msgtype, 3);
    EXPECT_EQ(got.svcname, "TOUPPER");
    EXPECT_EQ(got.datalen, 4);
    EXPECT_EQ(got.callid[0], 0x302u);
    EXPECT_EQ(got.data, "abcd");
    // The caller's block is in host order again.
    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message->datalen, 4);
    EXPECT_EQ(data_of(message), "abcd");
}

TEST_F(Sealed, MessageInsideIsTheOneThatGoesOutInClear)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    fb::bytes fields;
    fields.add(fb::INT, 1, (int32_t)0x11223344).add_string(2, "a text").add_carray(3, "bytes");
    const struct {
        int32_t buftype;
        std::string data;
        const char *subtype;
    } kinds[] = {
        {BUF_STRING, std::string("text\0", 5), ""},
        {BUF_CARRAY, std::string("\0\1\2\xff", 4), ""},
        {BUF_HEADER, "", ""},
        {BUF_FIELD, fields.host, ""},
        {BUF_FIELD, "", ""},
        {BUF_STRUCT, bytes_of(sample_person()), "person"},
        {BUF_STRUCT, "", "person"},
    };
    for (const auto &kind : kinds) {
        SCOPED_TRACE(std::to_string(kind.buftype) + " of " + std::to_string(kind.data.size()));
        std::string in_clear, inside;
        for (int sealed : {0, 1}) {
            make(MSG_TPCALL, kind.data);
            message->buftype = kind.buftype;
            put_name(message->subtype, sizeof message->subtype, kind.subtype);
            fix_callid();
            _vorn_crypt_sw = sealed;
            ASSERT_EQ(send(), 1);
            if (sealed != 0) {
                inside = cipher::opened(payload());
                continue;
            }
            in_clear = peer.read_bytes(136);
            in_clear += peer.read_bytes(wire::word_at(in_clear, 100));
        }
        EXPECT_EQ(inside, in_clear);
        EXPECT_EQ(message->datalen, (int32_t)kind.data.size());
        EXPECT_EQ(data_of(message), kind.data);
        peer.expect_nothing();
    }
}

TEST_F(Sealed, MessageOfAnySizeLeavesWhole)
{
    for (int length : {0, 1, 2, 63, 64, 1863, 1864, 1865, 16383, 16384, 65535, 65536, 70000}) {
        SCOPED_TRACE(length);
        make(MSG_TPCALL, long_text((size_t)length), 1);
        std::string bytes;
        std::thread other([&] { bytes = payload(); });
        EXPECT_EQ(send(), 1);
        other.join();
        EXPECT_EQ(cipher::message_of(cipher::opened(bytes)).data, long_text((size_t)length));
    }
}

TEST_F(Sealed, NothingIsCompressed)
{
    for (int threshold : {0, 10, 100}) {
        block->compress_threshold = threshold;
        make(MSG_TPCALL, std::string(5000, 'a'), 5000);
        EXPECT_EQ(send(), 1);
        std::string bytes = payload();
        EXPECT_EQ(bytes.size(), 4u + 136 + 5000);
        EXPECT_EQ(cipher::message_of(cipher::opened(bytes)).data, std::string(5000, 'a'));
    }
}

TEST_F(Sealed, CipherMayAddAsMuchAsThereIsRoomFor)
{
    for (int more : {0, 1, 136, 511, 512}) {
        fake.encrypt = [=](char *to, const char *from, int length) {
            memcpy(to, from, (size_t)length);
            memset(to + length, '#', (size_t)more);
            return length + more;
        };
        make(MSG_TPCALL);
        EXPECT_EQ(send(), 1) << more;
        std::string bytes = payload();
        ASSERT_EQ(bytes.size(), 140u + (size_t)more);
        EXPECT_EQ(bytes.substr(136), "abcd" + std::string((size_t)more, '#'));
    }
}

TEST_F(Sealed, LengthThatTheCipherCannotHaveWrittenIsRefused)
{
    for (int result : {140 + 513, 1 << 20, INT_MAX}) {
        fake.encrypt = [=](char *, const char *, int) { return result; };
        make(MSG_TPCALL);
        EXPECT_EQ(send(), -1) << result;
        expect_failure(TPEOS);
    }
    peer.expect_nothing();
}

TEST_F(Sealed, FailureOfTheCipherIsToldAndNothingLeaves)
{
    for (int result : {-1, -136, INT_MIN})
        for (bool fields : {false, true}) {
            SCOPED_TRACE(std::to_string(result) + (fields ? " fields" : ""));
            fake.encrypt = [=](char *, const char *, int) { return result; };
            make(MSG_TPCALL, fields ? fb::bytes().add(fb::INT, 1, (int32_t)1).host : "abcd");
            if (fields)
                message->buftype = BUF_FIELD;
            int32_t length = message->datalen;
            errno = EPIPE;  // of an earlier call
            EXPECT_EQ(send(), -1);
            expect_failure(TPEOS);
            EXPECT_NE(block->crypt_sess, nullptr);
            EXPECT_GE(block->clhfd, 0);
            EXPECT_EQ(message->magic, MESSAGE_MAGIC);
            EXPECT_EQ(message->datalen, length);
        }
    peer.expect_nothing();
    fake.encrypt = nullptr;
    make(MSG_TPCALL);
    EXPECT_EQ(send(), 1);
    server.expect(wire::TPCALL).data("abcd");
}

TEST_F(Sealed, WithoutMemoryNothingLeaves)
{
    setenv("VORN_ERR_MSG", "N", 1);
    for (bool fields : {false, true}) {
        int failures = 0;
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 50);
            SCOPED_TRACE("allocation " + std::to_string(nth));
            make(MSG_TPCALL, fields ? fb::bytes().add(fb::INT, 1, (int32_t)1).host : "abcd");
            if (fields)
                message->buftype = BUF_FIELD;
            faults::fail_allocation(nth);
            int result = send();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            EXPECT_EQ(result, failed ? -1 : 1);
            if (!failed)
                break;
            failures++;
            EXPECT_TRUE(error() == TPEOS || (fields && error() == TPEITYPE)) << error();
            expect_free();
            peer.expect_nothing();
        }
        EXPECT_GE(failures, 1);
        server.expect(wire::TPCALL);
    }
}

// ---- the two functions by themselves

// What a failed write leaves is no stream of envelopes any more, so the peer is shown its end.
TEST_F(Sealed, WriteOfAConvertedMessageIsNotExamined)
{
    for (int error_number : {EPIPE, ECONNRESET, EAGAIN}) {
        again();
        make_wire("abcd");
        faults::fail(faults::SEND, 1, error_number);
        set_tperrno(0);
        EXPECT_EQ(_crypt_enc_send(message, 4, block), 1);
        EXPECT_EQ(error(), 0);
        EXPECT_NE(block->crypt_sess, nullptr);
        EXPECT_GE(block->clhfd, 0);
        peer.expect_end();
    }
}

TEST_F(Sealed, WriteOfAConvertedMessageComesToLightWithTheNextRead)
{
    make(MSG_TPCALL, fb::bytes().add(fb::INT, 1, (int32_t)1).host);
    message->buftype = BUF_FIELD;
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(error(), 0);
    EXPECT_EQ(block->waiter_count, 1);  // it awaits a reply
    block->waiter_count = 0;
    peer.hang_up();
    waiting();
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPECLOSE);
    expect_closed();
}

TEST_F(Sealed, WriteInPlaceIsExamined)
{
    const struct {
        int error, code;
    } cases[] = {{EAGAIN, TPEBLOCK}, {ECONNRESET, TPEOS}, {EPIPE, TPECLOSE}};
    for (auto one : cases) {
        SCOPED_TRACE(one.error);
        again();
        make_wire("abcd");
        faults::fail(faults::SEND, 1, one.error);
        EXPECT_EQ(_crypt_noenc_send(message, block), -1);
        peer.expect_end();
        again();
        make(MSG_TPCALL);
        faults::fail(faults::SEND, 1, one.error);
        EXPECT_EQ(send(), -1);
        expect_failure(one.code);
        EXPECT_GE(block->clhfd, 0);  // the socket is the reader's to close
        EXPECT_EQ(block->crypt_sess == nullptr, one.error == EPIPE);
        peer.expect_end();
    }
}

TEST_F(Sealed, LengthOfAConvertedMessageIsTheCallers)
{
    make_wire("abcdefgh");
    EXPECT_EQ(_crypt_enc_send(message, 3, block), 1);
    std::string plain = cipher::opened(payload());
    EXPECT_EQ(plain, std::string((const char *)message, 139));
    EXPECT_EQ(_crypt_noenc_send(message, block), 1);
    EXPECT_EQ(cipher::opened(payload()), std::string((const char *)message, 144));
}

TEST_F(Sealed, StepIsWrittenOverTheEndOfItsHeader)
{
    make(wire::TPSTART, "12345");
    message->buftype = BUF_NEGOTIATION;
    message->msgtype = 77;
    _hton_header(message, message);
    memset((char *)message + 120, 0x55, 16);
    std::string before((const char *)message, 141);
    EXPECT_EQ(_crypt_noenc_send(message, block), 1);
    std::string head = wire::word(77777777) + wire::word(5) + wire::word(10) + wire::word(77);
    EXPECT_EQ(peer.read_bytes(21), head + "12345");
    peer.expect_nothing();
    EXPECT_EQ(std::string((const char *)message, 141), before.substr(0, 120) + head + "12345");
}

TEST_F(Sealed, LengthBelowZeroIsRefused)
{
    for (int32_t length : {-1, -15, -16, -17, -18, -136, INT32_MIN, INT32_MAX}) {
        SCOPED_TRACE(length);
        make_wire("abcd");
        put_word(&message->datalen, (uint32_t)length);
        set_tperrno(0);
        if (length < 0) {
            EXPECT_EQ(_crypt_noenc_send(message, block), -1);
            EXPECT_EQ(error(), TPEOS);
            EXPECT_EQ(_crypt_enc_send(message, length, block), -1);
        }
        put_word(&message->buftype, 10);
        EXPECT_EQ(_crypt_noenc_send(message, block), -1);
        expect_free();
    }
    peer.expect_nothing();
}

TEST_F(Sealed, WithoutASessionOfTheCipherNothingLeaves)
{
    end_cipher(block);
    make(MSG_TPCALL);
    EXPECT_EQ(send(), -1);
    expect_failure(TPEOS);
    peer.expect_nothing();
}
