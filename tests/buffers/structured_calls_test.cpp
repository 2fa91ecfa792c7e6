// Field and struct buffers in calls: the bytes that the server sees, and replies in wire form.
#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"

#include <string.h>

namespace {

constexpr size_t HOST = sizeof(person_record), WIRE = PERSON_WIRE;

struct StructuredCall : SessionTest {
    char *out = nullptr;
    long len = -77;

    StructuredCall() { setenv("SDLFILE", write_definition(sdl::file_bytes(definitions())).c_str(), 1); }
    ~StructuredCall() override { tpfree(out); }

    static char *make(const char *type, const std::string &data, const char *subtype = nullptr)
    {
        char *buffer = tpalloc((char *)type, (char *)subtype, (long)data.size());
        EXPECT_NE(buffer, nullptr);
        memcpy(buffer, data.data(), data.size());
        return buffer;
    }

    // One call with `in`; what the peer sees is put into `seen`. The reply's header is as `fields` says.
    int call(char *in, long length, const std::string &reply, const wire::with &fields, long flags = 0)
    {
        peer.play([&] {
            seen = peer.expect(wire::TPCALL);
            peer.reply(reply, fields);
        });
        int result = tpcall((char *)"SVC", in, length, &out, &len, flags);
        peer.done();
        return result;
    }
    wire::frame seen;

    std::string got() const { return std::string(out, (size_t)len); }

    void expect_usable()
    {
        char *text = make("CARRAY", "proof");
        EXPECT_EQ(call(text, 5, "fine", {.buftype = wire::CARRAY}), 1) << get_tperrno();
        EXPECT_EQ(got(), "fine");
        tpfree(text);
    }
};

}  // namespace

// ---- fields

TEST_F(StructuredCall, FieldsGoAndComeInWireForm)
{
    ASSERT_TRUE(start());
    fb::bytes request = fb::all_types(), reply;
    reply.add_string(9, "an answer").add<double>(fb::DOUBLE, 8, 2.5).add<int32_t>(fb::INT, 7, -7);
    char *in = make("FIELD", request.host);
    out = make("FIELD", fb::bytes().host);
    char *before = out;
    EXPECT_EQ(call(in, 0, reply.wire, {.buftype = wire::FIELD, .bufsize = 1032}), 1) << get_tperrno();
    EXPECT_EQ(seen.buftype, wire::FIELD);
    EXPECT_EQ(seen.datalen, request.used());
    EXPECT_TRUE(fb::same_wire(seen.data, request));
    EXPECT_EQ(len, reply.used());
    EXPECT_TRUE(fb::same_host(got(), reply));
    EXPECT_EQ(out, before);
    EXPECT_EQ(tpgettype(out), TPBUF_FIELD);
    // The caller's buffer stays in host form, with the length it had.
    EXPECT_TRUE(fb::same_host(std::string(in, (size_t)request.used()), request));
    EXPECT_EQ(message_of(in)->datalen, request.used());
    EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
    tpfree(in);
}

TEST_F(StructuredCall, OneFieldBufferServesForBoth)
{
    ASSERT_TRUE(start());
    fb::bytes small = fb::all_types(), large = fb::all_types();
    for (int i = 0; i < 500; i++)
        large.add_string(i, "a longer text of the reply");
    out = make("FIELD", small.host);
    EXPECT_EQ(call(out, 0, large.wire, {.buftype = wire::FIELD}), 1);
    EXPECT_TRUE(fb::same_wire(seen.data, small));
    EXPECT_TRUE(fb::same_host(got(), large));
    EXPECT_EQ(call(out, 0, small.wire, {.buftype = wire::FIELD}), 1);
    EXPECT_TRUE(fb::same_wire(seen.data, large));
    EXPECT_TRUE(fb::same_host(got(), small));
}

TEST_F(StructuredCall, EmptyFieldBufferIsEightBytes)
{
    ASSERT_TRUE(start());
    out = make("FIELD", fb::bytes().host);
    EXPECT_EQ(call(out, 0, fb::bytes().wire, {.buftype = wire::FIELD}), 1);
    EXPECT_EQ(seen.data, std::string("\0\0\x22\xb8\0\0\0\x08", 8));
    EXPECT_EQ(len, 8);
    EXPECT_EQ(got(), fb::bytes().host);
}

TEST_F(StructuredCall, FieldsThatCantBeTurnedDontLeave)
{
    ASSERT_TRUE(start());
    fb::bytes bad;
    bad.add<int32_t>(fb::INT, 1, 1).add_raw(9u << 26 | 2, 2);
    char *in = make("FIELD", bad.host);
    out = make("STRING", "");
    EXPECT_EQ(tpcall((char *)"SVC", in, 0, &out, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    EXPECT_TRUE(log.has("0209 internal error : type error: 9 [CSC6405]")) << log.text();
    EXPECT_EQ(message_of(in)->datalen, bad.used());
    peer.expect_nothing();
    tpfree(in);
    expect_usable();
}

TEST_F(StructuredCall, ReplyOfFieldsThatCantBeTurnedIsDropped)
{
    ASSERT_TRUE(start());
    fb::bytes type, lie = fb::all_types(), text, array;
    type.add_raw(0, 1);
    lie.set_used(lie.used() + 8);
    text.add_string(1, "abc");
    text.wire.back() = 'd';
    array.add_carray(1, "abcdefgh");
    array.wire.replace(12, 4, fb::big(0x7fffffff));
    out = make("STRING", "as it was");
    for (const fb::bytes *reply : {&type, &lie, &text, &array}) {
        EXPECT_EQ(call(nullptr, 0, reply->wire, {.buftype = wire::FIELD}), -1);
        EXPECT_EQ(get_tperrno(), TPESYSTEM);
        EXPECT_STREQ(out, "as it was");
    }
    EXPECT_TRUE(log.has("0209 internal error : type error: 0 [CSC6406]")) << log.text();
    expect_usable();
}

TEST_F(StructuredCall, CompressedFieldsGoAndCome)
{
    fb::bytes fields;
    for (int i = 0; i < 200; i++)
        fields.add_string(i, "over and over").add<int32_t>(fb::INT, i, i);
    ASSERT_TRUE(start({.threshold = fields.used()}));
    out = make("FIELD", fields.host);
    peer.play([&] {
        seen = peer.expect(wire::TPCALL).compressed(true);
        peer.send_compressed(wire::answer(seen, fields.wire, {.buftype = wire::FIELD}));
        seen = peer.expect(wire::TPCALL).compressed(false);
        peer.reply(fields.wire, {.buftype = wire::FIELD});
    });
    EXPECT_EQ(tpcall((char *)"SVC", out, 0, &out, &len, 0), 1) << get_tperrno();
    EXPECT_TRUE(fb::same_host(got(), fields));
    char *less = make("FIELD", fields.host);
    fb::bytes cut = fields;
    int32_t used = fields.used() - 8;  // the last int
    memcpy(less + 4, &used, 4);
    EXPECT_EQ(tpcall((char *)"SVC", less, 0, &out, &len, 0), 1);
    peer.done();
    EXPECT_EQ(seen.datalen, used);
    EXPECT_TRUE(fb::same_host(got(), fields));
    tpfree(less);
}

// The length that decides is that of the wire form.
TEST_F(StructuredCall, CompressedStructsGoAndCome)
{
    ASSERT_TRUE(start({.threshold = (int)HOST}));
    char *in = make("STRUCT", bytes_of(sample_person()) + bytes_of(sample_person()), "person");
    out = make("STRUCT", "", "person");
    std::string two = sample_person_wire() + sample_person_wire();
    peer.play([&] {
        peer.expect(wire::TPCALL).compressed(false).data(sample_person_wire());
        peer.reply(sample_person_wire(), {.buftype = wire::STRUCT, .subtype = "person"});
        wire::frame second = peer.expect(wire::TPCALL).compressed(true).data(two);
        peer.send_compressed(wire::answer(second, two, {.buftype = wire::STRUCT, .subtype = "person"}));
    });
    for (long records : {1, 2}) {
        EXPECT_EQ(tpcall((char *)"SVC", in, records * (long)HOST, &out, &len, 0), 1) << get_tperrno();
        EXPECT_EQ(len, records * (long)HOST);
    }
    peer.done();
    person_record person;
    memcpy((void *)&person, out + HOST, HOST);
    EXPECT_EQ(person.salary, 0x55667788);
    tpfree(in);
}

// What left as a struct behind a control record is read as fields.
TEST_F(StructuredCall, StructBehindAControlRecordIsReadAsFields)
{
    ASSERT_TRUE(start());
    out = make("STRING", "as it was");
    fb::bytes fields = fb::all_types();
    EXPECT_EQ(call(nullptr, 0, fields.wire, {.buftype = 11, .subtype = "nobody"}), 1) << get_tperrno();
    EXPECT_TRUE(fb::same_host(got(), fields));
    EXPECT_EQ(call(nullptr, 0, std::string(168, 'r') + fields.wire, {.buftype = 12}), 1) << get_tperrno();
    EXPECT_EQ(got().substr(0, 168), std::string(168, 'r'));
    EXPECT_TRUE(fb::same_host(got().substr(168), fields));
    EXPECT_EQ(call(nullptr, 0, std::string(168, 'r') + fields.wire, {.buftype = 11}), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    expect_usable();
}

TEST_F(StructuredCall, FieldReplyWithoutDataIsEmpty)
{
    ASSERT_TRUE(start());
    out = make("FIELD", fb::all_types().host);
    len = 99;
    EXPECT_EQ(call(nullptr, 0, "", {.buftype = wire::FIELD}), 1) << get_tperrno();
    EXPECT_EQ(len, 0);
    EXPECT_EQ(tpgettype(out), TPBUF_FIELD);
}

TEST_F(StructuredCall, StoredReplyComesInHostForm)
{
    ASSERT_TRUE(start());
    fb::bytes fields = fb::all_types();
    char *in = make("FIELD", fields.host);
    out = make("STRING", "");
    peer.play([&] {
        wire::frame first = peer.expect(wire::TPACALL), second = peer.expect(wire::TPACALL);
        EXPECT_TRUE(fb::same_wire(first.data, fields));
        EXPECT_EQ(second.data, sample_person_wire());
        peer.reply_to(second, sample_person_wire(), {.buftype = wire::STRUCT, .subtype = "person"});
        peer.reply_to(first, fields.wire, {.buftype = wire::FIELD});
    });
    char *record = make("STRUCT", bytes_of(sample_person()), "person");
    int first = tpacall((char *)"SVC", in, 0, 0), second = tpacall((char *)"SVC", record, 0, 0);
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    EXPECT_GT(tpgetrply(&first, &out, &len, 0), 0) << get_tperrno();
    EXPECT_TRUE(fb::same_host(got(), fields));
    EXPECT_GT(tpgetrply(&second, &out, &len, 0), 0) << get_tperrno();
    ASSERT_EQ(len, (long)HOST);
    person_record person;
    memcpy((void *)&person, out, HOST);
    EXPECT_EQ(person.salary, 0x55667788);
    peer.done();
    tpfree(in);
    tpfree(record);
}

// ---- structs

TEST_F(StructuredCall, StructsGoAndComeInWireForm)
{
    ASSERT_TRUE(start());
    char *in = make("STRUCT", bytes_of(sample_person()) + bytes_of(sample_person()), "person");
    out = make("STRUCT", "", "person");
    char *before = out;
    std::string reply = sample_person_wire() + sample_person_wire() + sample_person_wire();
    EXPECT_EQ(call(in, 2 * (long)HOST + 50, reply, {.buftype = wire::STRUCT, .subtype = "person"}), 1);
    EXPECT_EQ(seen.buftype, wire::STRUCT);
    EXPECT_EQ(seen.subtype, "person");
    EXPECT_EQ(seen.datalen, (int)(2 * WIRE));
    EXPECT_EQ(seen.data, sample_person_wire() + sample_person_wire());
    ASSERT_EQ(len, 3 * (long)HOST);
    for (int i = 0; i < 3; i++) {
        person_record person;
        memcpy((void *)&person, out + i * (int)HOST, HOST);
        EXPECT_EQ(person.id, 0x11223344);
        EXPECT_EQ(person.items[1].price, 0xfffffffeL);
    }
    EXPECT_EQ(out, before);
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(bytes_of(sample_person()), std::string(in, HOST));
    EXPECT_EQ(message_of(in)->datalen, (int)(2 * HOST));
    tpfree(in);
}

// The host's records are longer than the message's; the caller's buffer has room for the message only.
TEST_F(StructuredCall, ReplyThatGrowsReplacesTheBuffer)
{
    ASSERT_TRUE(start());
    const int records = 30;
    std::string reply;
    for (int i = 0; i < records; i++)
        reply += sample_person_wire();
    ASSERT_LT(reply.size(), 2000u);
    ASSERT_GT(records * HOST, 2000u);
    out = tpalloc((char *)"STRUCT", (char *)"person", 2000);
    EXPECT_EQ(call(nullptr, 0, reply, {.buftype = wire::STRUCT, .subtype = "person"}), 1) << get_tperrno();
    ASSERT_EQ(len, (long)(records * HOST));
    EXPECT_GE(tpgetasize(out), len);
    person_record person;
    memcpy((void *)&person, out + len - HOST, HOST);
    EXPECT_EQ(person.salary, 0x55667788);
    expect_usable();
}

TEST_F(StructuredCall, StructOfOneSizeComesInPlace)
{
    ASSERT_TRUE(start());
    out = make("STRUCT", "abcdefgh", "pair");
    EXPECT_EQ(call(out, 8, "ABCDEFGH", {.buftype = wire::STRUCT, .subtype = "pair"}), 1);
    EXPECT_EQ(seen.data, "dcbahgfe");
    EXPECT_EQ(got(), "DCBAHGFE");
}

TEST_F(StructuredCall, PartOfARecordDoesntArrive)
{
    ASSERT_TRUE(start());
    out = make("STRUCT", "", "pair");
    EXPECT_EQ(call(nullptr, 0, "ABCDEFGHIJKLM", {.buftype = wire::STRUCT, .subtype = "pair"}), 1);
    EXPECT_EQ(got(), "DCBAHGFE");
    std::string more = sample_person_wire() + "a part";
    EXPECT_EQ(call(nullptr, 0, more, {.buftype = wire::STRUCT, .subtype = "person"}), 1);
    EXPECT_EQ(len, (long)HOST);
}

TEST_F(StructuredCall, UnknownStructOfAReplyIsAReadError)
{
    ASSERT_TRUE(start());
    out = make("STRING", "as it was");
    EXPECT_EQ(call(nullptr, 0, "abcdefgh", {.buftype = wire::STRUCT, .subtype = "nobody"}), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_STREQ(out, "as it was");
    expect_usable();
}

TEST_F(StructuredCall, StructReplyWithoutDataNeedsNoDefinition)
{
    ASSERT_TRUE(start());
    out = make("STRING", "");
    EXPECT_EQ(call(nullptr, 0, "", {.buftype = wire::STRUCT, .subtype = "nobody"}), 1) << get_tperrno();
    EXPECT_EQ(len, 0);
    EXPECT_EQ(std::string(tpgetsubtype(out)), "nobody");
}

TEST_F(StructuredCall, UnknownStructDoesntLeave)
{
    ASSERT_TRUE(start());
    char *in = make("STRUCT", "abcdefgh", "pair");
    memcpy(tpgetsubtype(in), "nobody", 7);
    EXPECT_EQ(tpcall((char *)"SVC", in, 8, &in, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    peer.expect_nothing();
    tpfree(in);
}

TEST_F(StructuredCall, NoChangeLooksAtTheStructsName)
{
    ASSERT_TRUE(start());
    out = make("STRUCT", "", "person");
    EXPECT_EQ(call(nullptr, 0, "abcdefgh", {.buftype = wire::STRUCT, .subtype = "pair"}, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(
        call(nullptr, 0, sample_person_wire(), {.buftype = wire::STRUCT, .subtype = "person"}, TPNOCHANGE),
        1);
    EXPECT_EQ(len, (long)HOST);
    EXPECT_EQ(call(nullptr, 0, "abcdefgh", {.buftype = wire::STRUCT, .subtype = "pair"}), 1);
    EXPECT_EQ(got(), "dcbahgfe");
    EXPECT_EQ(std::string(tpgetsubtype(out)), "pair");
}

TEST_F(StructuredCall, RequestOfEachKindIsRefusedWithoutMemoryForItsCopy)
{
    ASSERT_TRUE(start());
    char *fields = make("FIELD", fb::all_types().host);
    char *record = make("STRUCT", bytes_of(sample_person()), "person");
    out = make("STRING", "");
    for (char *in : {fields, record}) {
        int32_t datalen = in == fields ? fb::all_types().used() : (int32_t)HOST;
        faults::fail_allocation(1);
        EXPECT_EQ(tpcall((char *)"SVC", in, 0, &out, &len, 0), -1);
        EXPECT_TRUE(faults::allocation_failed());
        faults::disarm_allocations();
        EXPECT_EQ(get_tperrno(), TPEITYPE);
        EXPECT_EQ(message_of(in)->datalen, datalen);
    }
    EXPECT_TRUE(log.has("[CSC6402]") && log.has("[CSC6404]")) << log.text();
    peer.expect_nothing();
    tpfree(fields);
    tpfree(record);
    expect_usable();
}

// Every allocation of a reply's way in fails once: an error, and the session goes on with the next call.
TEST_F(StructuredCall, ReplyWithoutMemoryIsAnError)
{
    ASSERT_TRUE(start());
    out = make("STRUCT", "", "person");
    std::string reply;
    for (int i = 0; i < 40; i++)
        reply += sample_person_wire();
    for (int nth = 1;; nth++) {
        SCOPED_TRACE(nth);
        peer.play([&] {
            peer.expect(wire::TPCALL);
            faults::fail_allocation(nth);
            peer.reply(reply, {.buftype = wire::STRUCT, .subtype = "person"});
        });
        int result = tpcall((char *)"SVC", nullptr, 0, &out, &len, 0);
        peer.done();
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (!failed) {
            EXPECT_EQ(result, 1);
            break;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), TPEOS);
        if (nth == 1)
            break;  // the frame itself can't be read any more
    }
}

// ---- on a bare connection

using StructuredSend = WireTest;

TEST_F(StructuredSend, TrailerTravelsBehindConvertedData)
{
    fb::bytes fields;
    fields.add<int32_t>(fb::INT, 1, 1).add_string(2, "text").add<char>(fb::CHAR, 3, 'c');
    msg_header *message = new_message(MSG_TPACALL, fields.host + "\1\12trailbytes", 1032);
    message->buftype = BUF_FIELD;
    message->flags = TPNOREPLY;
    message->xflags = XFLAG_TRAILER | 12;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    wire::frame seen = peer.expect(wire::TPACALL);
    EXPECT_EQ(seen.datalen, 52);
    EXPECT_TRUE(fb::same_wire(seen.data.substr(0, 40), fields));
    EXPECT_EQ(seen.data.substr(40), "\1\12trailbytes");
    EXPECT_EQ(message->datalen, 52);
    EXPECT_EQ(message->xflags, XFLAG_TRAILER | 12u);
    free(message);
}

TEST_F(StructuredSend, FieldsBehindAControlRecord)
{
    _check_node();
    fb::bytes fields = fb::all_types();
    std::string record(168, 'r');
    msg_header *message = new_message(MSG_TPENQ, record + fields.host);
    message->buftype = BUF_RQ_FIELD;
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);
    wire::frame seen = peer.expect(MSG_TPENQ).buftype(BUF_RQ_FIELD);
    ASSERT_EQ(seen.datalen, 168 + fields.used());
    EXPECT_EQ(seen.data.substr(0, 168), record);
    EXPECT_TRUE(fb::same_wire(seen.data.substr(168), fields));
    free(message);
}
