// Getting from the key store: the request, each kind of value on its way into the caller's buffer, the buffer
// that grows, and replies that lie.
#include "buffers/structs.h"
#include "queue/key_fixture.h"
#include "support/fieldbuffer.h"
#include "vorn/fields.h"

namespace {

struct KeyGet : KeyTest {
    KeyGet() { got = -7; }

    // The stored value of these fields.
    static std::string field_value(const std::string &entries)
    {
        return wire::value(wire::word(8888) + wire::word((uint32_t)entries.size() + 8) + entries,
                           wire::FIELD);
    }
    static std::string int_entry(int32_t number, uint32_t value)
    {
        return wire::word((uint32_t)fld::key(fld::INT, number)) + wire::word(value);
    }
    void expect_refused_reply(const std::string &stored, int32_t area = 0)
    {
        serve_value(stored, area);
        expect_error(get(), TPESYSTEM);
        peer.done();
        expect_untouched();
    }
    void expect_sound(void) const
    {
        EXPECT_EQ(message_of(data)->magic, MESSAGE_MAGIC);
        EXPECT_GE(tpgetasize(data), message_of(data)->datalen);
        EXPECT_GE(message_of(data)->datalen, 0);
    }
    // Replaces the test's buffer by one of another type.
    void use(const char *type, const char *subtype = nullptr, long size = 0)
    {
        tpfree(data);
        data = tpalloc(svc(type), svc(subtype), size);
        ASSERT_NE(data, nullptr);
    }
};

}  // namespace

TEST_F(KeyGet, RequestIsHeaderAndKey)
{
    ASSERT_TRUE(open());
    std::string name("a\0\x80", 3);
    peer.play([&] {
        expect_request(wire::key_request(wire::GET, CLIENT_ID, name, 3, 0x1123));
        peer.reply(wire::value("V"));
        expect_request(wire::key_request(wire::GET, OWN_STORE, name, 3, 0x10000));
        peer.reply(wire::value("W"));
        expect_request(wire::key_request(wire::GET, OWN_STORE, name, 3, 0x10000));
        peer.reply(wire::value("X"));
    });
    set_tperrno(TPEOS);
    expect_good(get(0x1123, name));
    EXPECT_EQ(value(), "V");
    expect_good(gq_get(name));
    expect_good(get(SQ_GLOBAL, name));
    peer.done();
    expect_idle();
}

TEST_F(KeyGet, TakesTheFlagsOfItsMaskAndNoOthers)
{
    ASSERT_TRUE(open());
    for (int bit = 0; bit < 64; bit++) {
        SCOPED_TRACE(bit);
        long flag = (long)(1UL << bit);
        if ((flag & 0x11123) == 0) {
            expect_unsent(get(flag), TPEINVAL);
            continue;
        }
        peer.play([&] {
            peer.expect(wire::KEY_REQUEST).flags((uint32_t)flag);
            peer.reply(wire::value("V"));
        });
        expect_good(get(flag));
        peer.done();
    }
}

TEST_F(KeyGet, ChecksInOrder)
{
    alignas(8) char plain[400] = {};
    char *untyped = plain + 200, *none = nullptr, *odd = plain + 201;
    expect_error(vorn_sq_get(nullptr, 0, nullptr, nullptr, 4), TPEPROTO);
    ASSERT_TRUE(open());
    expect_unsent(vorn_sq_get(svc("k"), 1, &untyped, &got, 4), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), 0, &untyped, &got, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), -1, &untyped, &got, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(nullptr, 1, &untyped, &got, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), 1, nullptr, &got, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), 1, &untyped, nullptr, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), 1, &none, &got, 0), TPEINVAL);
    expect_unsent(vorn_sq_get(svc("k"), 1, &untyped, &got, 0), TPEOTYPE);
    expect_unsent(vorn_sq_get(svc("k"), 1, &odd, &got, 0), TPEOTYPE);
    expect_unsent(vorn_gq_get(nullptr, 16, &data, &got, 0), TPEINVAL);
    expect_untouched();
}

TEST_F(KeyGet, ValueStandsBehindTheArea)
{
    ASSERT_TRUE(open());
    for (size_t area : {0, 1, 3, 4, 135, 136, 137, 5000}) {
        serve_value(std::string(area, 'a') + wire::value("VALUE"), (int32_t)area);
        expect_good(get());
        EXPECT_EQ(value(), "VALUE");
        peer.done();
    }
}

TEST_F(KeyGet, HeaderOfTheBufferBecomesTheStoredOneButForItsSize)
{
    ASSERT_TRUE(open());
    int32_t room = tpgetasize(data);
    wire::frame stored = wire::message(17, "VALUE", {.rcode = 1, .flags = 0x102, .buftype = wire::STRING});
    stored.seqno = 3, stored.srcid = 4, stored.target = 5, stored.prio = 6, stored.value = 7;
    stored.subtype = "sub", stored.svcname = "name", stored.cd = 8, stored.sessid = 9, stored.bufsize = 7777;
    serve_value("area" + wire::encode(stored), 4);
    expect_good(get());
    const msg_header *header = message_of(data);
    EXPECT_EQ(header->magic, MESSAGE_MAGIC);
    EXPECT_EQ(header->bufsize, room);
    EXPECT_EQ(header->datalen, 5);
    EXPECT_EQ(header->buftype, wire::STRING);
    EXPECT_EQ(header->msgtype, 17);
    EXPECT_EQ(header->seqno, 3);
    EXPECT_EQ(header->prio, 6);
    EXPECT_EQ(header->value, 7);
    EXPECT_EQ(header->sessid, 9);
    EXPECT_STREQ(header->subtype, "sub");
    EXPECT_STREQ(header->svcname, "name");
    EXPECT_STREQ(data, "VALUE");  // a terminator is there though it wasn't stored
    EXPECT_EQ(got, 5);
}

TEST_F(KeyGet, BufferGrowsExactlyWhenItMust)
{
    ASSERT_TRUE(open());
    int32_t room = tpgetasize(data);
    for (int32_t length : {0, 1, room - 1, room}) {
        char *before = data;
        serve_value(wire::value(std::string((size_t)length, 'v')));
        expect_good(get());
        EXPECT_EQ(got, length);
        EXPECT_EQ(data, before);
        EXPECT_EQ(tpgetasize(data), room);
        peer.done();
    }
    for (int32_t length : {room + 1, room + 1000, 300000}) {
        serve_value("area" + wire::value(std::string((size_t)length, 'v')), 4);
        expect_good(get());
        EXPECT_EQ(value(), std::string((size_t)length, 'v'));
        EXPECT_EQ(tpgetasize(data), length);
        peer.done();
    }
    // What stands behind the value counts for the room, but is none of it.
    serve_value(wire::value("short") + std::string(400000, 'x'));
    expect_good(get());
    EXPECT_EQ(value(), "short");
    EXPECT_EQ(tpgetasize(data), 400005);
    char *grown = tprealloc(data, 500000);
    ASSERT_NE(grown, nullptr);
    data = grown;
    EXPECT_EQ(std::string(data, 5), "short");
}

TEST_F(KeyGet, EmptyValuesOfEachKind)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    for (auto [buftype, subtype] :
         {std::pair(1, "pair"), {1, "none"}, {2, ""}, {3, ""}, {4, ""}, {9, ""}, {11, ""}, {12, ""}}) {
        SCOPED_TRACE(buftype);
        serve_value(wire::value("", buftype, subtype));
        expect_good(get());
        EXPECT_EQ(got, 0);
        EXPECT_EQ(tpgettype(data), buftype);
        expect_sound();
        if (buftype == 2) {
            EXPECT_TRUE(fld::equal((FBUF *)data, {}));
        }
        if (buftype == 3) {
            EXPECT_STREQ(data, "");
        }
        peer.done();
    }
}

// A reply to a call may have left a buffer with hardly any room.
TEST_F(KeyGet, SmallBufferGrowsForTheHeadOfAnEmptyFieldBuffer)
{
    ASSERT_TRUE(open());
    for (int32_t room : {0, 4, 7}) {
        tpfree(data);
        data = message_data(new_message(0, "", room));
        serve_value(wire::value("", wire::FIELD));
        expect_good(get());
        EXPECT_EQ(got, 0);
        EXPECT_GE(tpgetasize(data), 8);
        EXPECT_TRUE(fld::equal((FBUF *)data, {}));
        peer.done();
    }
}

TEST_F(KeyGet, FieldsAreFoundWhereTheyStandNow)
{
    ASSERT_TRUE(open());
    use("FIELD");
    int32_t number = 0;
    serve_value(field_value(int_entry(1, 11) + int_entry(2, 22)));
    expect_good(get());
    EXPECT_EQ(got, 24);
    EXPECT_EQ(fbget((FBUF *)data, fld::key(fld::INT, 2), (char *)&number, nullptr), 1);
    EXPECT_EQ(number, 22);
    peer.done();
    // The same buffer with the fields at other places, and what was found is forgotten.
    serve_value(field_value(int_entry(3, 33) + int_entry(1, 44) + int_entry(2, 55)));
    expect_good(get());
    EXPECT_EQ(fld::in((FBUF *)data), (fld::list{fld::an_int(3, 33), fld::an_int(1, 44), fld::an_int(2, 55)}));
    EXPECT_EQ(fbget((FBUF *)data, fld::key(fld::INT, 2), (char *)&number, nullptr), 1);
    EXPECT_EQ(number, 55);
    peer.done();
    // And with room to go on.
    EXPECT_EQ(fbput((FBUF *)data, fld::key(fld::INT, 9), (char *)&number, 0), 1);
}

TEST_F(KeyGet, ManyFieldsGrowTheBuffer)
{
    ASSERT_TRUE(open());
    use("FIELD");
    std::string entries;
    fld::list fields;
    for (int32_t i = 1; i <= 3000; i++) {
        entries += int_entry(i, (uint32_t)i * 3);
        fields.push_back(fld::an_int(i, i * 3));
    }
    serve_value("odd" + field_value(entries), 3);
    expect_good(get());
    EXPECT_EQ(fld::in((FBUF *)data), fields);
    EXPECT_EQ(tpgetasize(data), 8 + 3000 * 8);
}

TEST_F(KeyGet, RecordsTakeTheirHostForm)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    person_record person = sample_person();
    // The smallest buffer has room for 10 of them, and for 18 as they travel.
    for (auto [count, room] :
         {std::pair(1, 0L), {10, 0L}, {11, 0L}, {18, 0L}, {19, 0L}, {100, 0L}, {11, 5000L}}) {
        use("CARRAY", nullptr, room);
        int32_t before = tpgetasize(data);
        std::string wired, host;
        for (int i = 0; i < count; i++) {
            wired += sample_person_wire();
            host += bytes_of(person);
        }
        serve_value("a" + wire::value(wired, wire::STRUCT, "person"), 1);
        expect_good(get());
        ASSERT_EQ(got, count * (long)sizeof person);
        for (int i = 0; i < count; i++) {
            const auto *one = (const person_record *)data + i;
            EXPECT_EQ(one->id, person.id);
            EXPECT_EQ(one->salary, person.salary);
            EXPECT_EQ(one->numbers[1], person.numbers[1]);
            EXPECT_EQ(one->items[1].price, person.items[1].price);
        }
        EXPECT_EQ(message_of(data)->datalen, got);
        EXPECT_EQ(tpgetasize(data), std::max((int32_t)got, before));
        EXPECT_EQ(tpgettype(data), wire::STRUCT);
        EXPECT_STREQ(message_of(data)->subtype, "person");
        peer.done();
    }
}

TEST_F(KeyGet, RecordsOfOneSizeStayInPlace)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    char *before = data;
    serve_value(
        wire::value(wire::word(1) + wire::word(2) + wire::word(3) + wire::word(4), wire::STRUCT, "pair"));
    expect_good(get());
    EXPECT_EQ(data, before);
    ASSERT_EQ(got, 16);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(((int32_t *)data)[i], i + 1);
}

TEST_F(KeyGet, RecordsSmallerOnTheHostShrink)
{
    sdl::record packed = {"packed", {}, 4, 8, 0};
    packed.members.push_back({.name = "n", .type = sdl::INT, .wire_offset = 4});
    ASSERT_EQ(load_structs({packed}), 1);
    ASSERT_TRUE(open());
    serve_value(wire::value("....\1\2\3\4....\5\6\7\10", wire::STRUCT, "packed"));
    expect_good(get());
    ASSERT_EQ(got, 8);
    EXPECT_EQ(((int32_t *)data)[0], 0x01020304);
    EXPECT_EQ(((int32_t *)data)[1], 0x05060708);
    expect_sound();
}

TEST_F(KeyGet, PartOfARecordIsLeftOut)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    for (auto [bytes, records] : {std::pair(ITEM_WIRE - 1, 0), {ITEM_WIRE + 1, 1}, {2 * ITEM_WIRE - 1, 1}}) {
        serve_value(wire::value(std::string((size_t)bytes, '\1'), wire::STRUCT, "item"));
        expect_good(get());
        EXPECT_EQ(got, records * (long)sizeof(item_record));
        expect_sound();
        peer.done();
    }
}

TEST_F(KeyGet, TypeStaysOnlyUnderNochange)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    std::string pair = wire::value(wire::word(1) + wire::word(2), wire::STRUCT, "pair");
    std::string item = wire::value(std::string(ITEM_WIRE, '\0'), wire::STRUCT, "item");
    serve_value(wire::value("text", wire::STRING));
    expect_error(get(TPNOCHANGE), TPEOTYPE);
    peer.done();
    serve_value(pair);
    expect_error(get(TPNOCHANGE), TPEOTYPE);
    peer.done();
    expect_untouched();
    // What the message around the value tells of a type is of no importance.
    for (int32_t around : {wire::STRING, wire::CARRAY, wire::HEADER_ONLY}) {
        serve(wire::GET, wire::value("bytes"), {.buftype = around, .subtype = "pair"});
        expect_good(get(TPNOCHANGE));
        EXPECT_EQ(value(), "bytes");
        peer.done();
    }
    serve_value(pair);
    expect_good(get());
    EXPECT_EQ(tpgettype(data), wire::STRUCT);
    peer.done();
    serve_value(item);
    expect_error(get(TPNOCHANGE), TPEOTYPE);
    EXPECT_EQ(((int32_t *)data)[1], 2);
    peer.done();
    serve_value(pair);
    expect_good(get(TPNOCHANGE));
    peer.done();
    // The mark of one call doesn't bind the next.
    serve_value(item);
    expect_good(get());
    EXPECT_STREQ(message_of(data)->subtype, "item");
    peer.done();
    expect_idle();
}

TEST_F(KeyGet, MarkOfAnEarlierRefusalDoesNotBindTheNext)
{
    ASSERT_TRUE(open());
    serve_value(wire::value("text", wire::STRING));
    expect_error(get(TPNOCHANGE), TPEOTYPE);
    peer.done();
    serve_value(wire::value("text", wire::STRING));
    expect_good(get());
    EXPECT_EQ(tpgettype(data), wire::STRING);
}

TEST_F(KeyGet, CompressedReplyIsUnpacked)
{
    ASSERT_TRUE(open());
    std::string large(20000, 'v');
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        peer.send_compressed(wire::answer(request, "area" + wire::value(large), {.target = 4}));
    });
    expect_good(get());
    EXPECT_EQ(value(), large);
}

TEST_F(KeyGet, LargerBufferReplyThanItsDataIsHarmless)
{
    ASSERT_TRUE(open());
    serve(wire::GET, wire::value("V"), {.bufsize = 100000});
    expect_good(get());
    EXPECT_EQ(value(), "V");
    peer.done();
    // The size that the stored header tells is its putter's.
    wire::frame stored = wire::message(0, "V", {.buftype = wire::CARRAY});
    for (int32_t size : {0, -1, INT32_MAX, INT32_MIN}) {
        int32_t room = tpgetasize(data);
        stored.bufsize = size;
        serve_value(wire::encode(stored));
        expect_good(get());
        EXPECT_EQ(tpgetasize(data), room);
        peer.done();
    }
}

TEST_F(KeyGet, ServersErrorLeavesTheBuffer)
{
    ASSERT_TRUE(open());
    for (uint32_t error : {1, 6, 30, 99}) {
        serve(wire::GET, wire::value("VALUE"), {.flags = error});
        expect_error(get(), (int)error);
        peer.done();
    }
    expect_untouched();
    expect_idle();
}

// --- Replies that lie.

TEST_F(KeyGet, CutRepliesAreRefused)
{
    ASSERT_TRUE(open());
    std::string whole = wire::value("VALUE");
    for (size_t length = 0; length < whole.size(); length++) {
        SCOPED_TRACE(length);
        expect_refused_reply(whole.substr(0, length));
    }
    expect_idle();
}

TEST_F(KeyGet, AreasThatDoNotFitAreRefused)
{
    ASSERT_TRUE(open());
    std::string whole = "area" + wire::value("VALUE");
    for (int32_t area : {-1, INT32_MIN, INT32_MAX, 0, 3, 5, 4 + 5, 4 + 141, 4 + 142})
        expect_refused_reply(whole, area);
    expect_idle();
}

TEST_F(KeyGet, FieldsThatLieAreRefused)
{
    ASSERT_TRUE(open());
    std::string entry = int_entry(1, 1);
    for (uint32_t used : {0u, 1u, 7u, 9u, 15u, 17u, 100u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        SCOPED_TRACE(used);
        serve_value(wire::value(wire::word(8888) + wire::word(used) + entry, wire::FIELD));
        int result = get();
        peer.done();
        if (result == -1) {
            EXPECT_EQ(gettperrno(), TPESYSTEM);
            expect_untouched();
        }
        EXPECT_TRUE(result == -1 || used < 8) << "taken";
        expect_sound();
        tpfree(data);
        data = new_buffer("CARRAY", "before", 40);
        got = -7;
    }
    std::string bad_type = wire::word(9u << 26 | 1) + wire::word(1);
    std::string long_bytes = wire::word((uint32_t)fld::key(fld::CARRAY, 1)) + wire::word(1000);
    std::string less_bytes = wire::word((uint32_t)fld::key(fld::CARRAY, 1)) + wire::word(0x80000000);
    std::string no_end = wire::word((uint32_t)fld::key(fld::STRING, 1)) + "text";
    for (const std::string &one : {bad_type, long_bytes, less_bytes, no_end, entry.substr(0, 4)})
        expect_refused_reply(field_value(one));
    expect_idle();
}

// Whatever single byte of a value is another, the call ends, and the buffer is one that can be used and
// freed.
TEST_F(KeyGet, NoByteOfAReplyDoesHarm)
{
    setenv("VORN_ERR_MSG", "N", 1);
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    std::string string_entry = wire::word((uint32_t)fld::key(fld::STRING, 2)) + std::string("abc\0", 4);
    std::string bytes_entry = wire::word((uint32_t)fld::key(fld::CARRAY, 3)) + wire::word(4) + "wxyz";
    const std::string values[] = {field_value(int_entry(1, 1) + string_entry + bytes_entry),
                                  wire::value(sample_person_wire(), wire::STRUCT, "person"),
                                  wire::value("text", wire::STRING)};
    std::vector<std::string> replies;
    for (const std::string &whole : values)
        for (size_t at = 0; at < whole.size(); at++) {
            if (at >= 16 && at < 52)
                continue;  // words that nobody looks at
            for (char byte : {'\x00', '\x01', '\x7f', '\x80', '\xff'}) {
                replies.push_back(whole);
                replies.back()[at] = byte;
            }
        }
    peer.play([&] {
        for (const std::string &reply : replies) {
            peer.expect(wire::KEY_REQUEST);
            peer.reply(reply);
        }
    });
    for (size_t i = 0; i < replies.size(); i++) {
        int result = get();
        EXPECT_TRUE(result == 1 || gettperrno() == TPESYSTEM) << gettperrno();
        expect_sound();
        if (i % 5 == 4) {
            tpfree(data);
            data = new_buffer(i % 2 == 0 ? "CARRAY" : "FIELD");
        }
    }
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyGet, ConvertedKindsBehindAControlRecordDoNoHarm)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    for (int32_t buftype : {11, 12})
        for (size_t length : {1, 8, 167, 168, 169, 175, 176, 184, 400}) {
            serve_value(wire::value(std::string(length, '\1'), buftype, "pair"));
            int result = get();
            EXPECT_TRUE(result == 1 || gettperrno() == TPESYSTEM) << gettperrno();
            expect_sound();
            peer.done();
        }
}

// --- Waits and failures.

TEST_F(KeyGet, EndsWithTheBlockTime)
{
    ASSERT_TRUE(open(1, 5));
    peer.play([&] {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
        peer.reply_to(request, wire::value("LATE"));
    });
    expect_error(get(), TPETIME);
    peer.done();
    expect_untouched();
    expect_usable();
    expect_idle();
}

TEST_F(KeyGet, LateReplyIsNotTheNextOnes)
{
    ASSERT_TRUE(open(1, 5));
    peer.play([&] {
        wire::frame first = peer.expect(wire::KEY_REQUEST).frame;
        let_hours_pass();
        wire::frame second = peer.expect(wire::KEY_REQUEST).frame;
        peer.reply_to(first, wire::value("LATE"));
        peer.reply_to(second, wire::value("OWN"));
    });
    expect_error(get(), TPETIME);
    expect_good(get());
    EXPECT_EQ(value(), "OWN");
    peer.done();
    expect_idle();
}

TEST_F(KeyGet, WaitsOnWithoutTimeLimitAndInATransaction)
{
    ASSERT_TRUE(open(1, 5));
    for (bool transaction : {false, true}) {
        if (transaction)
            open_transaction();
        peer.play([&] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
            let_hours_pass();
            peer.reply_to(request, wire::value("V"));
        });
        expect_good(get(transaction ? 0 : TPNOTIME));
        peer.done();
    }
}

TEST_F(KeyGet, LostConnectionIsTold)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        peer.expect(wire::KEY_REQUEST);
        peer.hang_up();
    });
    expect_error(gq_get(), TPECLOSE);  // nor is another node asked
    peer.done();
    expect_error(gq_get(), TPEPROTO);
    expect_untouched();
    EXPECT_EQ(block()->waiter_count, 0);
}

TEST_F(KeyGet, FailedSendLeavesTheBuffer)
{
    ASSERT_TRUE(open(3));
    faults::fail(faults::SEND, 1, ENOBUFS);
    EXPECT_EQ(gq_get(), -1);
    EXPECT_NE(gettperrno(), 0);
    expect_untouched();
    EXPECT_EQ(block()->waiter_count, 0);
}

// Memory that runs out at each allocation in turn: the buffer holds what it held.
TEST_F(KeyGet, WithoutMemoryTheBufferStands)
{
    setenv("VORN_ERR_MSG", "N", 1);
    ASSERT_EQ(load_structs(definitions()), 1);
    ASSERT_TRUE(open());
    std::string person;
    for (int i = 0; i < 30; i++)
        person += sample_person_wire();
    const std::string values[] = {wire::value("small"), wire::value(std::string(9000, 'v')),
                                  wire::value(person, wire::STRUCT, "person"), field_value(int_entry(1, 1)),
                                  wire::value(wire::word(1) + wire::word(2), wire::STRUCT, "pair")};
    for (const std::string &stored : values) {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 50);
            peer.play([&] {
                wire::frame request;
                if (peer.receive(&request) && request.msgtype == wire::KEY_REQUEST) {
                    peer.reply_to(request, stored);
                    peer.receive(&request);
                }
                peer.reply_to(request, "fine");
            });
            faults::fail_allocation(nth);
            int result = get();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            int error = get_tperrno();
            EXPECT_EQ(result, failed ? -1 : 1);
            if (failed) {
                EXPECT_TRUE(error == TPEOS || error == TPESYSTEM) << error;
                expect_untouched();
            }
            char *reply = new_buffer("STRING");
            EXPECT_EQ(tpcall(svc("PROOF"), nullptr, 0, &reply, &len, 0), 1) << get_tperrno();
            tpfree(reply);
            peer.done();
            expect_idle();
            if (!failed)
                break;
        }
        tpfree(data);
        data = new_buffer("CARRAY", "before", 40);
        got = -7;
    }
}
