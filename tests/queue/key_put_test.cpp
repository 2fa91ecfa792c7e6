// Putting into the key store, and keys that the server makes: requests byte by byte, the checks and their
// order, each kind of data on its way out.
#include "buffers/structs.h"
#include "queue/key_fixture.h"
#include "support/fieldbuffer.h"
#include "vorn/fields.h"

namespace {

struct KeyPut : KeyTest {
    char key[40];
    std::string sent;  // what stands behind the key in the last request that was served
    long taken = 0;    // its `target`

    KeyPut() { memset(key, 'k', sizeof key); }

    // Puts a buffer, which the server takes.
    int put_buffer(char *buffer, long length = 0)
    {
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
            taken = request.target;
            sent = request.data.substr((size_t)request.target);
            peer.reply();
        });
        int result = vorn_sq_put(svc("key"), 3, buffer, length, 0);
        peer.done();
        return result;
    }
    wire::frame inner(void) const { return wire::decode_header(sent); }
    std::string sent_data(void) const { return sent.substr(wire::HEADER); }

    // Requests without a payload, and those whose key the server makes, with a reply of these bytes.
    int keygen(const std::string &reply, int keylen = 16, const wire::with &fields = {})
    {
        serve(wire::KEYGEN, reply, fields);
        int result = vorn_sq_keygen(key, keylen);
        peer.done();
        return result;
    }
    int put_new_key(const std::string &reply, int keylen = 16, const wire::with &fields = {})
    {
        serve(wire::PUT, reply, fields);
        int result = vorn_sq_put(key, keylen, in, 0, SQ_NEWKEY);
        peer.done();
        return result;
    }
    void expect_key(const std::string &begin) const
    {
        EXPECT_EQ(std::string(key, sizeof key), begin + std::string(sizeof key - begin.size(), 'k'));
    }
};

const std::string MADE = "$SQID\1\2\3\4\5\6\7\x80"
                         "001";

}  // namespace

TEST_F(KeyPut, RequestIsHeaderKeyHeaderAndData)
{
    ASSERT_TRUE(open());
    std::string name("a\0\x80z", 4);
    peer.play([&] {
        wire::frame stored = wire::decode_header(wire::value("hello\0", wire::STRING));
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        ASSERT_EQ(request.datalen, 4 + wire::HEADER + 6);
        // Of the inner header only the size of the buffer and its own marks are not told beforehand.
        wire::frame head = wire::decode_header(request.data.substr(4));
        stored.bufsize = tpgetasize(in);
        stored.datalen = 6;
        stored.xflags = head.xflags;
        std::string payload = name + wire::encode_header(stored) + std::string("hello\0", 6);
        EXPECT_EQ(request.data, payload);
        EXPECT_EQ(wire::fields_of(request),
                  wire::fields_of(wire::key_request(wire::PUT, CLIENT_ID, payload, 4, 0x2023)));
        peer.reply();
    });
    set_tperrno(TPESYSTEM);
    expect_good(vorn_sq_put(name.data(), 4, in, 0, 0x2023));
    peer.done();
    expect_idle();
}

TEST_F(KeyPut, EachRequestBearsTheNextNumber)
{
    ASSERT_TRUE(open());
    int numbers[3] = {};
    peer.play([&] {
        for (int &number : numbers) {
            number = peer.expect(wire::KEY_REQUEST).frame.seqno;
            peer.reply();
        }
    });
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(put(), 1);
    peer.done();
    EXPECT_EQ(numbers[1], numbers[0] + 1);
    EXPECT_EQ(numbers[2], numbers[0] + 2);
}

TEST_F(KeyPut, HeaderOfTheBufferTravelsInEachWord)
{
    ASSERT_TRUE(open());
    msg_header *header = message_of(in);
    auto *words = (uint32_t *)header;
    msg_header before = *header;
    for (uint32_t i = 0; i < wire::HEADER / 4; i++)
        words[i] = 0x01020300 + i;
    header->magic = before.magic;
    header->buftype = before.buftype;
    header->bufsize = before.bufsize;
    memcpy(header->subtype, "sixteen letters!", 16);
    memcpy(header->svcname, "any name", 9);
    header->svcname[31] = '\0';  // as every name ends
    before = *header;
    expect_good(put_buffer(in));
    before.datalen = 6;
    EXPECT_EQ(memcmp(header, &before, sizeof before), 0);
    const auto *host = (const unsigned char *)&before;
    std::string wanted;
    for (size_t i = 0; i < (size_t)wire::HEADER; i++)
        wanted += (char)((i >= 52 && i < 100) ? host[i] : host[(i & ~(size_t)3) + 3 - (i & 3)]);
    EXPECT_EQ(sent.substr(0, wire::HEADER), wanted);
}

TEST_F(KeyPut, TakesTheFlagsOfItsMaskAndNoOthers)
{
    ASSERT_TRUE(open());
    for (int bit = 0; bit < 63; bit++) {
        SCOPED_TRACE(bit);
        long flag = 1L << bit;
        if ((flag & 0x1E023) == 0) {
            expect_unsent(vorn_sq_put(key, 16, in, 0, flag), TPEINVAL);
            continue;
        }
        peer.play([&] {
            peer.expect(wire::KEY_REQUEST).flags((uint32_t)flag);
            peer.reply(flag == SQ_NEWKEY ? MADE : "");
        });
        expect_good(vorn_sq_put(key, 16, in, 0, flag));
        peer.done();
    }
    expect_unsent(vorn_sq_put(key, 16, in, 0, -1), TPEINVAL);
}

TEST_F(KeyPut, ChecksInOrder)
{
    alignas(8) char plain[400] = {};
    expect_error(vorn_sq_put(nullptr, 0, nullptr, 0, 4), TPEPROTO);
    ASSERT_TRUE(open());
    expect_unsent(vorn_sq_put(key, 3, plain + 200, -1, 4), TPEINVAL);
    expect_unsent(vorn_sq_put(nullptr, 3, plain + 200, -1, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 0, plain + 200, -1, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, -1, plain + 200, -1, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, INT32_MIN, plain + 200, -1, SQ_FIXKEY), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 3, nullptr, 0, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(nullptr, 16, in, 0, SQ_NEWKEY), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 15, plain + 200, 0, SQ_NEWKEY), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 15, plain + 200, 0, SQ_FIXKEY), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 15, plain + 200, 0, SQ_FIXKEY | SQ_NEWKEY), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 3, plain + 200, -1, 0), TPEITYPE);
    expect_unsent(vorn_sq_put(key, 3, plain + 201, 0, 0), TPEITYPE);
    expect_unsent(vorn_sq_put(key, 3, in, 100000, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 3, data, -1, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, 3, data, 0x100000001L, 0), TPEINVAL);
    expect_unsent(vorn_sq_put(key, INT32_MAX, in, 0, 0), TPEOS);
    expect_key("");
}

TEST_F(KeyPut, WholeKeySendsSixteenBytes)
{
    ASSERT_TRUE(open());
    memcpy(key, "0123456789abcdefXYZ", 19);
    for (int keylen : {16, 17, 40}) {
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).flags((uint32_t)SQ_FIXKEY).frame;
            EXPECT_EQ(request.target, 16);
            EXPECT_EQ(request.data.substr(0, 20), "0123456789abcdef" + wire::word(wire::MAGIC));
            peer.reply("0123456789ABCDEF");
        });
        expect_good(vorn_sq_put(key, keylen, in, 0, SQ_FIXKEY));
        peer.done();
        expect_key("0123456789abcdefXYZ");  // nothing comes back
    }
}

TEST_F(KeyPut, NewKeyDoesNotLeaveAndComesBack)
{
    ASSERT_TRUE(open());
    for (int keylen : {16, 17, 40}) {
        memset(key, 'k', sizeof key);
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).flags((uint32_t)SQ_NEWKEY).frame;
            EXPECT_EQ(request.target, 16);
            EXPECT_EQ(request.datalen, 16 + wire::HEADER + 6);
            EXPECT_EQ(request.data.find('k'), std::string::npos);
            EXPECT_EQ(wire::word_at(request.data, 16), wire::MAGIC);
            peer.reply(MADE, {.buftype = wire::CARRAY});
        });
        expect_good(vorn_sq_put(key, keylen, in, 0, SQ_NEWKEY));
        peer.done();
        expect_key(MADE);
    }
}

TEST_F(KeyPut, NewKeyBesideAWholeOneIsTheServers)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        EXPECT_EQ(request.data.find('k'), std::string::npos);
        peer.reply(MADE);
    });
    expect_good(vorn_sq_put(key, 16, in, 0, SQ_NEWKEY | SQ_FIXKEY));
    expect_key(MADE);
}

TEST_F(KeyPut, NewKeyOfAnotherLengthIsNoKey)
{
    ASSERT_TRUE(open());
    for (size_t length : {0, 1, 15, 17, 32, 5000}) {
        expect_error(put_new_key(std::string(length, 'S')), TPESYSTEM);
        expect_key("");
        expect_error(keygen(std::string(length, 'S')), TPESYSTEM);
        expect_key("");
    }
    expect_error(put_new_key(MADE, 16, {.flags = TPELIMIT}), TPELIMIT);
    expect_error(keygen(MADE, 16, {.flags = TPENOENT}), TPENOENT);
    expect_key("");
    expect_idle();
}

TEST_F(KeyPut, ServersErrorIsToldAndNothingElseIsAsked)
{
    ASSERT_TRUE(open(3));
    for (int error : {1, 6, 30, 99}) {
        serve(wire::PUT, "", {.flags = (uint32_t)error});
        expect_error(vorn_gq_put(key, 3, in, 0, 0), error);
        peer.done();
    }
    peer.expect_nothing();
    expect_idle();
}

TEST_F(KeyPut, OfTheDomainGoesToTheOwnNode)
{
    ASSERT_TRUE(open(3));
    for (int way = 0; way < 3; way++) {
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).cd(OWN_STORE).frame;
            EXPECT_EQ(request.flags, (uint32_t)SQ_GLOBAL);
            peer.reply();
        });
        // A key that names another node makes no difference.
        char other[] = "$SQID12345678002";
        expect_good(way == 0   ? vorn_gq_put(key, 3, in, 0, 0)
                    : way == 1 ? vorn_sq_put(key, 3, in, 0, SQ_GLOBAL)
                               : vorn_gq_put(other, 16, in, 0, 0));
        peer.done();
    }
    peer.expect_nothing();
}

// --- Kinds of data.

TEST_F(KeyPut, TextLeavesWithItsTerminatorOrAsFarAsToldFor)
{
    ASSERT_TRUE(open());
    for (auto [told, length] : {std::pair(0L, 6), {3L, 6}, {5L, 6}, {10L, 10}, {-5L, 6}}) {
        expect_good(put_buffer(in, told));
        EXPECT_EQ(inner().datalen, length);
        EXPECT_EQ(sent_data(), std::string(in, (size_t)length));
        EXPECT_EQ(message_of(in)->datalen, length);
    }
}

TEST_F(KeyPut, BytesLeaveAsManyAsTold)
{
    ASSERT_TRUE(open());
    int room = tpgetasize(data);
    for (long length : {0L, 1L, 6L, (long)room}) {
        expect_good(put_buffer(data, length));
        EXPECT_EQ(inner().datalen, length);
        EXPECT_EQ(inner().buftype, wire::CARRAY);
        EXPECT_EQ(sent_data(), std::string(data, (size_t)length));
    }
    expect_unsent(vorn_sq_put(key, 3, data, room + 1, 0), TPEINVAL);
}

TEST_F(KeyPut, RecordsLeaveInTheirWireForm)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    char *records = tpalloc(svc("STRUCT"), svc("person"), 3 * sizeof(person_record));
    ASSERT_NE(records, nullptr);
    person_record person = sample_person();
    for (int i = 0; i < 3; i++)
        memcpy(records + i * sizeof person, &person, sizeof person);
    std::string before = bytes_of(*message_of(records));
    for (auto [told, count] : {std::pair(0, 1), {95, 1}, {96, 1}, {191, 1}, {200, 2}, {288, 3}}) {
        expect_good(put_buffer(records, told));
        std::string wanted;
        for (int i = 0; i < count; i++)
            wanted += sample_person_wire();
        EXPECT_EQ(sent_data(), wanted);
        EXPECT_EQ(inner().datalen, count * PERSON_WIRE);
        EXPECT_EQ(inner().buftype, wire::STRUCT);
        EXPECT_EQ(inner().subtype, "person");
        EXPECT_EQ(inner().bufsize, tpgetasize(records));
        EXPECT_EQ(message_of(records)->datalen, count * (int)sizeof person);
    }
    message_of(records)->datalen = 0;
    EXPECT_EQ(bytes_of(*message_of(records)).substr(0, 100), before.substr(0, 100));
    EXPECT_EQ(memcmp(records, &person, sizeof person), 0);
    expect_unsent(vorn_sq_put(key, 3, records, tpgetasize(records) + (long)sizeof person, 0), TPEINVAL);
    tpfree(records);
}

TEST_F(KeyPut, FieldsLeaveInTheirWireFormWhateverTheLength)
{
    ASSERT_TRUE(open());
    fld::list fields = {fld::an_int(7, 0x01020304), fld::a_string(8, "text"), fld::a_carray(9, "ab\0d")};
    fld::Buffer buffer(fields);
    uint32_t used = (uint32_t)fld::used(buffer.it);
    for (long told : {0L, 5L, 100000L}) {
        expect_good(put_buffer(buffer.bytes(), told));
        EXPECT_EQ(inner().buftype, wire::FIELD);
        EXPECT_EQ(inner().datalen, (int)used);
        ASSERT_EQ(sent_data().size(), used);
        EXPECT_EQ(wire::word_at(sent_data(), 0), 8888u);
        EXPECT_EQ(wire::word_at(sent_data(), 4), used);
        EXPECT_EQ(wire::word_at(sent_data(), 8), (uint32_t)fld::key(fld::INT, 7));
        EXPECT_EQ(wire::word_at(sent_data(), 12), 0x01020304u);
        EXPECT_EQ(wire::word_at(sent_data(), 16), (uint32_t)fld::key(fld::STRING, 8));
        EXPECT_EQ(sent_data().substr(20, 5), std::string("text\0", 5));
    }
    EXPECT_TRUE(fld::equal(buffer.it, fields));
    buffer.fill({});
    expect_good(put_buffer(buffer.bytes()));
    EXPECT_EQ(sent_data(), wire::word(8888) + wire::word(8));
}

TEST_F(KeyPut, WhatCannotLeaveIsRefused)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    fld::Buffer broken({fld::an_int(7, 1)});
    int32_t no_type = 9 << 26 | 7;
    memcpy(broken.bytes() + 8, &no_type, sizeof no_type);
    expect_unsent(vorn_sq_put(key, 3, broken.bytes(), 0, 0), TPEITYPE);
    fld::set_used(broken.it, 1 << 20);
    expect_unsent(vorn_sq_put(key, 3, broken.bytes(), 0, 0), TPEINVAL);
    fld::set_used(broken.it, -1);
    expect_unsent(vorn_sq_put(key, 3, broken.bytes(), 0, 0), TPEINVAL);

    char *record = tpalloc(svc("STRUCT"), svc("pair"), 0);
    ASSERT_NE(record, nullptr);
    memcpy(message_of(record)->subtype, "none", 5);
    expect_unsent(vorn_sq_put(key, 3, record, 0, 0), TPEITYPE);
    for (int32_t buftype : {11, 12, 10, 0, -1, 77}) {
        message_of(record)->buftype = buftype;
        expect_unsent(vorn_sq_put(key, 3, record, 8, 0), TPEITYPE);
        EXPECT_EQ(message_of(record)->buftype, buftype);
    }
    tpfree(record);
}

TEST_F(KeyPut, LargeDataLeavesCompressed)
{
    wire::start_reply reply = reply_of(1);
    reply.threshold = 500;
    ASSERT_TRUE(start(reply));
    char *large = new_buffer("CARRAY", std::string(9000, 'v'), 9000);
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).compressed(true).frame;
        EXPECT_EQ(request.data.substr(3 + wire::HEADER), std::string(9000, 'v'));
        peer.reply();
    });
    expect_good(vorn_sq_put(svc("key"), 3, large, 9000, 0));
    peer.done();
    tpfree(large);
}

TEST_F(KeyPut, LongKeyTravelsWhole)
{
    ASSERT_TRUE(open());
    std::string name(100000, 'n');
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        EXPECT_EQ(request.target, 100000);
        EXPECT_EQ(request.data.substr(0, name.size()), name);
        peer.reply();
    });
    expect_good(put(name));
    peer.done();
}

// --- Waits and failures.

TEST_F(KeyPut, EndsWithTheBlockTime)
{
    ASSERT_TRUE(open(1, 5));
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
        peer.reply_to(request);  // too late: nobody's
    });
    expect_error(put(), TPETIME);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyPut, WaitsOnWithoutTimeLimitAndInATransaction)
{
    ASSERT_TRUE(open(1, 5));
    auto serve_late = [&] {
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
            let_hours_pass();
            peer.reply_to(request);
        });
    };
    serve_late();
    expect_good(put("key", TPNOTIME));
    peer.done();
    open_transaction();
    serve_late();
    expect_good(put());
    peer.done();
    serve_late();
    EXPECT_EQ(vorn_sq_keygen(key, 16), -1);  // the reply has no key
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
}

TEST_F(KeyPut, FailedSendIsTheEndOfIt)
{
    ASSERT_TRUE(open());
    faults::fail(faults::SEND, 1, ENOBUFS);
    int result = put();
    EXPECT_EQ(result, -1);
    EXPECT_NE(gettperrno(), 0);
    EXPECT_EQ(block()->waiter_count, 0);
    EXPECT_STREQ(in, "hello");
    EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
}

TEST_F(KeyPut, LostConnectionIsTold)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        peer.expect(wire::KEY_REQUEST);
        peer.hang_up();
    });
    expect_error(put(), TPECLOSE);
    peer.done();
    expect_error(put(), TPEPROTO);
    expect_error(vorn_sq_keygen(key, 16), TPEPROTO);
    EXPECT_EQ(block()->waiter_count, 0);
}

TEST_F(KeyPut, KeygenIsAHeaderAndAsksOneNode)
{
    ASSERT_TRUE(open(3));
    for (bool global : {false, true}) {
        memset(key, 'k', sizeof key);
        expect_unsent(global ? vorn_gq_keygen(key, 15) : vorn_sq_keygen(key, 15), TPEINVAL);
        expect_unsent(global ? vorn_gq_keygen(nullptr, 16) : vorn_sq_keygen(nullptr, 16), TPEINVAL);
        peer.play([&] {
            expect_request(wire::key_request(wire::KEYGEN, global ? OWN_STORE : CLIENT_ID));
            peer.reply(MADE);
        });
        expect_good(global ? vorn_gq_keygen(key, 40) : vorn_sq_keygen(key, 16));
        expect_key(MADE);
        peer.done();
    }
    serve(wire::KEYGEN, "", {.flags = TPESVCERR});
    expect_error(vorn_gq_keygen(key, 16), TPESVCERR);
    peer.done();
    peer.expect_nothing();
    expect_idle();
}

TEST_F(KeyPut, IdentityIsTheClientsOrItsNodes)
{
    EXPECT_EQ(_get_sessionid(0, block()), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    ASSERT_TRUE(open());
    EXPECT_EQ(_get_sessionid(0, block()), CLIENT_ID);
    EXPECT_EQ(_get_sessionid(0xffff, block()), CLIENT_ID);
    EXPECT_EQ(_get_sessionid(0x10000, block()), OWN_STORE);
    set_tperrno(TPEOS);
    expect_good(vorn_get_sessionid(), CLIENT_ID);
}

TEST_F(KeyPut, NodeOfASystemKeyIsReadFromItsLastThreeDigits)
{
    auto node_of = [](const std::string &digits) {
        std::string made = "$SQID01234567" + digits;
        return _vorn_sq_getnodeno_from_syskey(made.data(), (int)made.size());
    };
    EXPECT_EQ(node_of("000"), 0);
    EXPECT_EQ(node_of("00a"), 10);
    EXPECT_EQ(node_of("0Ff"), 255);
    EXPECT_EQ(node_of("fff"), 4095);
    EXPECT_EQ(node_of("1zz"), 1);
    EXPECT_EQ(node_of("xyz"), 0);
    EXPECT_EQ(node_of(std::string(3, '\0')), 0);
    EXPECT_EQ(node_of("0001"), -1);
    EXPECT_EQ(node_of("00"), -1);
    EXPECT_EQ(_vorn_sq_getnodeno_from_syskey(nullptr, 16), -1);
    EXPECT_EQ(_vorn_sq_issyskey("$SQID", 16), 1);  // five characters tell
    EXPECT_EQ(_vorn_sq_issyskey("$SQIE0123456700", 16), 0);
    EXPECT_EQ(_vorn_sq_issyskey("", 0), 0);
}

// Memory that runs out at each allocation in turn.
TEST_F(KeyPut, WithoutMemoryNothingIsStoredAndTheBufferStands)
{
    setenv("VORN_ERR_MSG", "N", 1);
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    char *record = tpalloc(svc("STRUCT"), svc("pair"), 0);
    fld::Buffer fields({fld::an_int(1, 2)});
    for (char *buffer : {in, record, fields.bytes()}) {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 50);
            std::string before(buffer, 16);
            peer.play([&] {
                wire::frame request;
                // A request whose reply can't be read is answered all the same.
                if (peer.receive(&request) && request.msgtype == wire::KEY_REQUEST) {
                    peer.reply_to(request, MADE);
                    peer.receive(&request);
                }
                peer.reply_to(request, "fine");
            });
            faults::fail_allocation(nth);
            int result = vorn_sq_put(key, 16, buffer, 0, SQ_NEWKEY);
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            int error = get_tperrno();
            EXPECT_EQ(result, failed ? -1 : 1);
            if (failed) {
                EXPECT_TRUE(error == TPEOS || error == TPEITYPE) << error;
            }
            char *reply = new_buffer("STRING");
            EXPECT_EQ(tpcall(svc("PROOF"), nullptr, 0, &reply, &len, 0), 1) << get_tperrno();
            tpfree(reply);
            peer.done();
            expect_idle();
            EXPECT_EQ(std::string(buffer, 16), before);
            EXPECT_EQ(message_of(buffer)->magic, MESSAGE_MAGIC);
            if (!failed)
                break;
        }
    }
    tpfree(record);
}
