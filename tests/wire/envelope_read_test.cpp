// What comes over an enciphered connection: messages in envelopes, envelopes that somebody has laid hands on,
// and what comes in clear.
#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"
#include "wire/sealed_fixture.h"

#include <limits.h>

namespace {

using cipher::fake;

struct Opened : SealedTest {
    std::string seal(const wire::frame &message) { return server.seal_frame(wire::encode(message)); }

    // A read in which nothing comes that could be opened: it ends with no error of its own.
    void expect_unread(where place = where::current())
    {
        testing::ScopedTrace trace(place.file, place.line, "the read");
        waiting();
        set_tperrno(0);
        EXPECT_EQ(read(), nullptr);
        expect_failure(0);
        EXPECT_GE(block->clhfd, 0);
        EXPECT_NE(block->crypt_sess, nullptr);
    }
    void expect_read(const std::string &data, where place = where::current())
    {
        testing::ScopedTrace trace(place.file, place.line, "the read");
        waiting();
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), data);
        expect_free();
    }
    // The connection is one, and at the beginning of a frame.
    void expect_usable(where place = where::current())
    {
        server.send(call_reply("still here"));
        expect_read("still here", place);
    }
};

struct OpenedByTheLibrary : Opened {
    OpenedByTheLibrary()
    {
        end_cipher(block);
        fake.scripted = false;
        std::thread other([&] { server.exchange(); });
        establish();
        other.join();
    }
};

}  // namespace

TEST_F(Opened, MessageOfAnySizeIsReadWhole)
{
    for (size_t length : {0, 1, 2, 1023, 1024, 1025, 1863, 1864, 1865, 4095, 4096, 16384, 65536, 70000}) {
        SCOPED_TRACE(length);
        send_beside(seal(call_reply(long_text(length))));
        expect_read(long_text(length));
    }
}

TEST_F(Opened, LongMessageIsReadIntoALargeBuffer)
{
    msg_header *given = waiting(80000);
    send_beside(seal(call_reply(long_text(70000))));
    ASSERT_EQ(read(), given);
    EXPECT_EQ(data_of(want), long_text(70000));
    EXPECT_EQ(want->bufsize, 80000);
}

TEST_F(Opened, MessagesOfAllKindsComeInHostForm)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    fb::bytes fields;
    fields.add(fb::INT, 1, (int32_t)0x11223344).add_string(2, "a text");
    const struct {
        int32_t buftype;
        std::string wire, host;
        const char *subtype;
    } kinds[] = {
        {BUF_STRING, std::string("text\0", 5), std::string("text\0", 5), ""},
        {BUF_CARRAY, std::string("\0\1\2\xff", 4), std::string("\0\1\2\xff", 4), ""},
        {BUF_HEADER, "", "", ""},
        {BUF_STRUCT, sample_person_wire(), bytes_of(sample_person()), "person"},
    };
    for (const auto &kind : kinds) {
        SCOPED_TRACE(kind.buftype);
        server.send(call_reply(kind.wire, {.buftype = kind.buftype, .subtype = kind.subtype}));
        waiting();
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), kind.host);
        EXPECT_EQ(want->buftype, kind.buftype);
    }
    server.send(call_reply(fields.wire, {.buftype = BUF_FIELD}));
    waiting();
    ASSERT_NE(read(), nullptr);
    std::string got = data_of(want);
    ASSERT_EQ(got.size(), fields.host.size());
    for (size_t i = 0; i < got.size(); i++)
        EXPECT_TRUE(fields.meant[i] == 0 || got[i] == fields.host[i]) << "byte " << i;
}

TEST_F(Opened, EmptyFieldReplyIsAnEmptyFieldBuffer)
{
    server.send(call_reply("", {.buftype = BUF_FIELD}));
    block->waiter_count = 0;
    free(want);
    want = _read_csmsg_from_clh(-1, nullptr, block);
    ASSERT_NE(want, nullptr);
    EXPECT_EQ(data_of(want), fb::little<uint32_t>(8888) + fb::little<int32_t>(8));
    block->reader_busy = 0;
}

TEST_F(Opened, TypesOfTheEnvelopeSayNothing)
{
    for (uint32_t msgtype : {0u, 1u, 2u, 3u, 1000u, 1003u, 2001u, 0xffffffffu})
        for (uint32_t buftype : {0u, 1u, 2u, 10u, 0xffffffffu}) {
            SCOPED_TRACE(std::to_string(msgtype) + ", " + std::to_string(buftype));
            std::string payload = server.seal(wire::encode(call_reply("text")));
            peer.send_raw(wire::word(77777777) + wire::word((uint32_t)payload.size()) + wire::word(buftype) +
                          wire::word(msgtype) + payload);
            expect_read("text");
        }
}

TEST_F(Opened, SeveralEnvelopesOfOneArrivalAreReadOneByOne)
{
    peer.send_raw(seal(call_reply("first")) + seal(call_reply("second")) + seal(call_reply("third")));
    expect_read("first");
    expect_read("second");
    expect_read("third");
}

TEST_F(Opened, EnvelopeThatComesByteByByteIsReadWhole)
{
    faults::limit(faults::RECV, 1);
    server.send(call_reply("slowly"));
    expect_read("slowly");
}

TEST_F(Opened, SealedReplyOfASharedCallReachesItsCall)
{
    server.send(wire::message(1004, "mine", {.seqno = SEQNO | wire::SHARED_CALL}));
    waiting();
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->msgtype, 1003);
    EXPECT_EQ(want->seqno, SEQNO);
    EXPECT_EQ(data_of(want), "mine");
}

TEST_F(Opened, WhatTheCipherRefusesEndsTheReadAlone)
{
    for (int result : {0, 1, 135, -1, -136, INT_MIN}) {
        SCOPED_TRACE(result);
        fake.decrypt = [=](char *, const char *, int) { return result; };
        peer.send_raw(cipher::envelope(3, long_text(300)));
        expect_unread();
        fake.decrypt = nullptr;
        expect_usable();
    }
}

TEST_F(Opened, HeaderAloneIsTheLeastMessage)
{
    fake.decrypt = [](char *to, const char *from, int) {
        memcpy(to, cipher::opened(std::string(from, 140)).data(), 136);
        return 136;
    };
    server.send(call_reply(""));
    waiting();
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->msgtype, 1003);
    EXPECT_EQ(want->datalen, 0);
}

TEST_F(Opened, CipherThatClaimsMoreThanThereIsIsNotBelieved)
{
    for (int claim : {141 + 200, 1 << 20, INT_MAX}) {
        SCOPED_TRACE(claim);
        // It fills its room, which is the payload's length and a header's, and says that there was more.
        fake.decrypt = [=](char *to, const char *, int length) {
            wire::frame message = call_reply("x");
            message.datalen = length + 5000;
            std::string bytes = wire::encode(message);
            bytes.resize((size_t)length + 136, 'y');
            memcpy(to, bytes.data(), bytes.size());
            return claim;
        };
        peer.send_raw(cipher::envelope(3, long_text(200)));
        waiting();
        EXPECT_EQ(read(), nullptr);
        expect_failure(TPEOS);
        fake.decrypt = nullptr;
        expect_usable();
    }
}

TEST_F(Opened, CipherMayFillTheRoomThatItIsGiven)
{
    fake.decrypt = [](char *to, const char *, int length) {
        std::string bytes = wire::encode(call_reply(std::string((size_t)length, 'z')));
        memcpy(to, bytes.data(), bytes.size());
        return length + 136;
    };
    peer.send_raw(cipher::envelope(3, long_text(200)));
    expect_read(std::string(200, 'z'));
}

TEST_F(Opened, LengthsInsideAreHeldAgainstWhatWasDeciphered)
{
    for (int32_t datalen : {5, 1000, -2, INT32_MAX, INT32_MIN}) {
        SCOPED_TRACE(datalen);
        server.send(call_reply("abcd", {.datalen = datalen}));
        waiting();
        EXPECT_EQ(read(), nullptr);
        expect_failure(TPEOS);
        expect_usable();
    }
    // Data behind `datalen` isn't the message's.
    server.send(call_reply("abcdefgh", {.datalen = 3}));
    expect_read("abc");
}

TEST_F(Opened, SizeOfTheSendersBufferMayBeAnything)
{
    for (int32_t bufsize : {0, 3, -2, INT32_MIN, 50000}) {
        SCOPED_TRACE(bufsize);
        server.send(call_reply("abcd", {.bufsize = bufsize}));
        expect_read("abcd");
    }
}

TEST_F(Opened, LengthOfAnEnvelopeIsNotBelieved)
{
    for (uint32_t length : {0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        again();
        peer.send_raw(wire::word(77777777) + wire::word(length) + wire::word(10) + wire::word(3));
        waiting();
        EXPECT_EQ(read(), nullptr);
        expect_failure(TPEOS);
    }
}

TEST_F(Opened, EnvelopeThatIsTooLargeForTheMemoryIsReadAway)
{
    setenv("VORN_ERR_MSG", "N", 1);
    faults::limit_allocation(100000);
    send_beside(seal(call_reply(long_text(200000))) + seal(call_reply("the next")));
    waiting();
    EXPECT_EQ(read(), nullptr);
    expect_failure(TPEOS);
    faults::limit_allocation(0);
    expect_read("the next");
}

TEST_F(Opened, WithoutMemoryAMessageIsLostAndNothingElse)
{
    setenv("VORN_ERR_MSG", "N", 1);
    fb::bytes fields;
    fields.add(fb::INT, 1, (int32_t)7);
    const wire::frame messages[] = {call_reply("small"), call_reply(long_text(6000)),
                                    call_reply(fields.wire, {.buftype = BUF_FIELD})};
    for (const wire::frame &message : messages) {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 50);
            SCOPED_TRACE("allocation " + std::to_string(nth));
            again();
            server.send(message);
            waiting();
            faults::fail_allocation(nth);
            msg_header *got = read();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            EXPECT_EQ(got == nullptr, failed);
            EXPECT_EQ(error(), failed ? TPEOS : 0);
            expect_free();
            if (!failed)
                break;
        }
    }
}

TEST_F(Opened, EndOfTheConnectionInsideAnEnvelopeIsNoMessage)
{
    std::string whole = seal(call_reply("abcd"));
    for (size_t there = 0; there < whole.size(); there += there < 24 ? 1 : 7) {
        SCOPED_TRACE(there);
        again();
        waiting();
        peer.send_raw(whole.substr(0, there));
        peer.half_close();
        EXPECT_EQ(read(), nullptr);
        bool ended = there == 0 || there == 8;
        expect_failure(ended ? TPECLOSE : TPEOS);
        if (ended)
            expect_closed();
    }
}

TEST_F(Opened, LostConnectionEndsTheSessionOfTheCipher)
{
    waiting();
    peer.hang_up();
    EXPECT_EQ(read(), nullptr);
    expect_failure(TPECLOSE);
    expect_closed();
    EXPECT_EQ(block->sessionid, -1);
    EXPECT_EQ(block->session_token, -1);
    again();
    EXPECT_EQ(fake.opened, 2);
    EXPECT_EQ(fake.live(), 1);
    expect_usable();
}

// ---- what is no envelope of the server's

TEST_F(Opened, FramesInClearCloseTheConnection)
{
    const wire::frame reply = call_reply("in clear");
    const std::string frames[] = {
        wire::encode(reply),           wire::encode(call_reply(long_text(6000))),
        wire::raw_frame("0123456789"), wire::compressed_frame(wire::encode(reply)),
        wire::word(0) + wire::word(0), wire::word(77777778) + wire::word(0) + wire::word(0) + wire::word(0),
    };
    for (const std::string &frame : frames) {
        SCOPED_TRACE(wire::word_at(frame, 0));
        again();
        send_beside(frame);
        waiting(8000);
        EXPECT_EQ(read(), nullptr);
        expect_failure(TPECLOSE);
        expect_closed();
        EXPECT_EQ(data_of(want), "old contents");
    }
}

TEST_F(Opened, FrameInClearBehindAnEnvelopeClosesTheConnection)
{
    peer.send_raw(seal(call_reply("sealed")) + wire::encode(call_reply("in clear")));
    expect_read("sealed");
    waiting();
    EXPECT_EQ(read(), nullptr);
    expect_failure(TPECLOSE);
    expect_closed();
}

TEST_F(Opened, FrameInClearIsRefusedInATimedWaitToo)
{
    send_beside(wire::encode(call_reply("in clear")));
    waiting();
    EXPECT_EQ(read_within(20), nullptr);
    expect_failure(TPECLOSE);
    expect_closed();
}

TEST_F(Opened, StepOfAnExchangeIsRefusedOnceTheKeysStand)
{
    peer.send_raw(cipher::envelope(1001, wire::encode(call_reply("a stranger's"))));
    waiting();
    EXPECT_EQ(read(), nullptr);
    expect_failure(TPESYSTEM);
    EXPECT_EQ(data_of(want), "old contents");
    expect_usable();
    peer.send_raw(cipher::envelope(1001, "again"));
    waiting();
    EXPECT_EQ(read_within(20), nullptr);
    expect_failure(TPESYSTEM);
    expect_usable();
}

TEST_F(Opened, StepOfAnExchangeIsRefusedWhereAnyMessageWillDo)
{
    peer.send_raw(cipher::envelope(1001, "nobody asked"));
    EXPECT_EQ(_read_csmsg_from_clh_timeout2(nullptr, 20, 0, block), nullptr);
    expect_failure(TPESYSTEM);
    expect_usable();
}

TEST_F(Opened, StepOfAnExchangeIsNoReplyToAStart)
{
    peer.send_raw(cipher::envelope(1001, std::string(400, '\0')));
    waiting();
    want->msgtype = MSG_TPSTART;
    block->waiter_count = 0;
    EXPECT_EQ(read_within(20), nullptr);
    expect_failure(TPESYSTEM);
}

// ---- envelopes that somebody has laid hands on

TEST_F(OpenedByTheLibrary, ChangedEnvelopesAreRefusedAndTheRightOneIsReadAfterwards)
{
    std::string right = seal(call_reply("right"));
    for (size_t at = cipher::ENVELOPE_HEAD; at < right.size();
         at += at < 24 || at > right.size() - 20 ? 1 : 9) {
        SCOPED_TRACE(at);
        std::string wrong = right;
        wrong[at] = (char)(wrong[at] ^ 1);
        peer.send_raw(wrong);
        expect_unread();
    }
    peer.send_raw(right);
    expect_read("right");
}

TEST_F(OpenedByTheLibrary, CutEnvelopesAreRefused)
{
    std::string right = server.seal(wire::encode(call_reply("right")));
    for (size_t length : {(size_t)0, (size_t)1, (size_t)19, (size_t)20, (size_t)136, (size_t)155, (size_t)156,
                          right.size() - 16, right.size() - 1}) {
        SCOPED_TRACE(length);
        peer.send_raw(cipher::envelope(3, right.substr(0, length)));
        expect_unread();
    }
    peer.send_raw(cipher::envelope(3, right + "x"));
    expect_unread();
    peer.send_raw(cipher::envelope(3, right));
    expect_read("right");
}

TEST_F(OpenedByTheLibrary, RepeatedEnvelopeIsRefused)
{
    std::string once = seal(call_reply("once"));
    peer.send_raw(once + once);
    expect_read("once");
    expect_unread();
    expect_usable();
}

TEST_F(OpenedByTheLibrary, EnvelopesAreReadInTheirOrderAlone)
{
    std::string first = seal(call_reply("first")), second = seal(call_reply("second"));
    peer.send_raw(second);
    expect_unread();
    peer.send_raw(first + second);
    expect_read("first");
    expect_read("second");
}

TEST_F(OpenedByTheLibrary, EnvelopeLeftOutMakesTheRestUnreadable)
{
    seal(call_reply("left out"));
    server.send(call_reply("the next"));
    expect_unread();
    server.send(call_reply("another"));
    expect_unread();
}

TEST_F(OpenedByTheLibrary, OwnEnvelopeThatComesBackIsRefused)
{
    msg_header *message = new_message(MSG_TPACALL, "mine", 64);
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    free(message);
    std::string payload;
    ASSERT_TRUE(cipher::read_envelope(peer, 3, &payload));
    peer.send_raw(cipher::envelope(3, payload));
    expect_unread();
    EXPECT_EQ(cipher::message_of(server.open(payload)).data, "mine");
    expect_usable();
}

TEST_F(OpenedByTheLibrary, EnvelopeOfAnotherSessionIsRefused)
{
    std::string of_the_first = seal(call_reply("of the first"));
    reconnect();
    end_cipher(block);
    std::thread other([&] { server.exchange(); });
    establish();
    other.join();
    peer.send_raw(of_the_first);
    expect_unread();
    expect_usable();
}

TEST_F(OpenedByTheLibrary, MessageInClearInsideAnEnvelopeIsRefused)
{
    peer.send_raw(cipher::envelope(3, wire::encode(call_reply("in clear"))));
    expect_unread();
    expect_usable();
}

// ---- the reading of a payload by itself

namespace {

struct Payload : SealedTest {
    // What a frame head of this kind makes of a block; the payload is on the stream.
    msg_header *head(int32_t msgtype, const std::string &payload, int32_t room = 1000)
    {
        free(want);
        want = new_message(msgtype, "old contents", room);
        want->buftype = BUF_NEGOTIATION;
        want->datalen = (int32_t)payload.size();
        peer.send_raw(payload);
        set_tperrno(0);
        return want;
    }
    msg_header *read_payload()
    {
        msg_header *result = _read_crypt_data(want, block);
        if (result != nullptr)
            want = result;
        return result;
    }
    std::string seal(const wire::frame &message) { return server.seal(wire::encode(message)); }
};

}  // namespace

TEST_F(Payload, StepIsReadBehindItsHeader)
{
    for (size_t length : {0, 1, 32, 1000}) {
        msg_header *given = head(1001, long_text(length));
        EXPECT_EQ(read_payload(), given);
        EXPECT_EQ(data_of(want), long_text(length));
        EXPECT_EQ(want->msgtype, 1001);
    }
}

TEST_F(Payload, StepThatHasNoRoomIsRefused)
{
    head(1001, "");
    want->datalen = 1001;
    EXPECT_EQ(read_payload(), nullptr);
    EXPECT_EQ(error(), TPESYSTEM);
}

TEST_F(Payload, LengthsBelowZeroAreRefused)
{
    for (int32_t msgtype : {1001, 3}) {
        head(msgtype, "");
        want->datalen = -1;
        EXPECT_EQ(read_payload(), nullptr);
        EXPECT_EQ(error(), TPESYSTEM);
        head(msgtype, "");
        want->bufsize = -1;
        EXPECT_EQ(read_payload(), nullptr);
        EXPECT_EQ(error(), TPESYSTEM);
    }
}

TEST_F(Payload, BytesWithoutAWireFormComeInANewBlock)
{
    for (size_t length : {0, 1, 500, 5000}) {
        SCOPED_TRACE(length);
        head(3, seal(call_reply(long_text(length), {.buftype = BUF_CARRAY})));
        ASSERT_NE(read_payload(), nullptr);
        EXPECT_EQ(want->msgtype, 1003);
        EXPECT_EQ(want->seqno, SEQNO);
        EXPECT_EQ(data_of(want), long_text(length));
        EXPECT_GE(want->bufsize, want->datalen);
    }
}

TEST_F(Payload, DataWithAWireFormIsConvertedIntoTheBlock)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    msg_header *given =
        head(3, seal(call_reply(sample_person_wire(), {.buftype = BUF_STRUCT, .subtype = "person"})));
    ASSERT_EQ(read_payload(), given);
    EXPECT_EQ(data_of(want), bytes_of(sample_person()));
    EXPECT_EQ(want->bufsize, 1000);

    fb::bytes fields;
    fields.add(fb::INT, 1, (int32_t)0x11223344);
    given = head(3, seal(call_reply(fields.wire, {.buftype = BUF_FIELD})));
    ASSERT_EQ(read_payload(), given);
    EXPECT_EQ(data_of(want), fields.host);
    EXPECT_EQ(want->bufsize, 1000);
}

TEST_F(Payload, EmptyFieldDataIsTaken)
{
    head(3, seal(call_reply("", {.buftype = BUF_FIELD})));
    ASSERT_NE(read_payload(), nullptr);
    EXPECT_EQ(want->buftype, BUF_FIELD);
    EXPECT_EQ(want->datalen, 0);
}

TEST_F(Payload, DataThatDoesNotFitOrConvertIsRefused)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    const struct {
        wire::frame message;
        int32_t room;
    } cases[] = {
        {call_reply(sample_person_wire(), {.buftype = BUF_STRUCT, .subtype = "person"}), 60},
        {call_reply(sample_person_wire(), {.buftype = BUF_STRUCT, .subtype = "nobody"}), 1000},
        {call_reply("no field buffer", {.buftype = BUF_FIELD}), 1000},
        {call_reply(fb::bytes().add_string(1, long_text(2000)).wire, {.buftype = BUF_FIELD}), 1000},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.message.subtype + " in " + std::to_string(one.room));
        head(3, seal(one.message), one.room);
        EXPECT_EQ(read_payload(), nullptr);
        EXPECT_EQ(error(), TPESYSTEM);
        EXPECT_EQ(want->bufsize, one.room);
    }
}

TEST_F(Payload, WhatDoesNotDecipherEndsItWithTheErrorAsItIs)
{
    for (int result : {0, 135, -1, INT_MIN}) {
        fake.decrypt = [=](char *, const char *, int) { return result; };
        head(3, long_text(200));
        set_tperrno(TPEMATCH);
        EXPECT_EQ(read_payload(), nullptr) << result;
        EXPECT_EQ(error(), TPEMATCH);
    }
}

TEST_F(Payload, LengthsInsideAreHeldAgainstWhatWasDeciphered)
{
    for (int32_t datalen : {5, -2, INT32_MAX, INT32_MIN}) {
        head(3, seal(call_reply("abcd", {.datalen = datalen})));
        EXPECT_EQ(read_payload(), nullptr) << datalen;
        EXPECT_EQ(error(), TPESYSTEM);
    }
}

TEST_F(Payload, EndOfTheConnectionIsToldAsInEveryRead)
{
    for (int32_t msgtype : {1001, 3}) {
        again();
        head(msgtype, "");
        want->datalen = 10;
        peer.half_close();
        EXPECT_EQ(read_payload(), nullptr);
        EXPECT_EQ(error(), TPECLOSE);
        expect_closed();
    }
}

TEST_F(Payload, WithoutMemoryItEnds)
{
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 10);
        head(3, seal(call_reply("abcd")));
        faults::fail_allocation(nth);
        msg_header *got = read_payload();
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        EXPECT_EQ(got == nullptr, failed);
        EXPECT_EQ(error(), failed ? TPEOS : 0);
        if (!failed)
            return;
        again();
    }
}
