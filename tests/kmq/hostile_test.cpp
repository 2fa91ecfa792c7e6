// Message objects as a hostile server or a broken application leaves them: whatever the words of a buffer
// say, nothing outside of it is read or written. The buffers end at a page that can't be touched.
#include "kmq/message.h"

namespace {

struct Hostile : MessageTest {
    static std::string head(int32_t used) { return fld::raw<int32_t>(8888) + fld::raw(used); }

    // All that can be done with a message; what comes of it is its own affair.
    static void handle(char *message, where place = where::current())
    {
        char bytes[9000];
        int type = 0;
        for (const char *name : {"name", "v", "$Data", "none", "$MessageID", "$Priority"})
            for (long room : {(long)sizeof bytes, 3L, -1L}) {
                long length = room;
                int result = kmq_get_property(message, (char *)name, &type, bytes, &length);
                EXPECT_TRUE(result == 1 || (result == -1 && gettperrno() != 0)) << place.line;
            }
        long length = sizeof bytes;
        kmq_get_body(message, bytes, &length);
        int32_t number = 4;
        double wide = 4;
        std::string text(50, 't');
        kmq_set_property(message, (char *)"name", fld::STRING, text.data(), 0);
        kmq_set_property(message, (char *)"name", fld::INT, &number, 0);
        kmq_set_property(message, (char *)"name", fld::DOUBLE, &wide, 0);
        kmq_set_property(message, (char *)"v", fld::CARRAY, text.data(), 50);
        kmq_set_property(message, (char *)"new", fld::CARRAY, text.data(), 1);
        kmq_set_property(message, (char *)"name", fld::STRING, (void *)"", 0);
        kmq_set_body(message, text.data(), 50);
        kmq_set_body(message, text.data(), 3);
        length = sizeof bytes;
        kmq_get_body(message, bytes, &length);
    }
    static std::string padded(std::string entry)
    {
        entry.resize((entry.size() + 7) / 8 * 8);
        return entry;
    }
    static std::string entry_of(const std::string &name) { return fld::entry(fld::a_string(1, name)); }
    // A buffer of exactly these entries, and then of the same with some room behind.
    static void try_entries(const std::string &entries, where place = where::current())
    {
        int32_t size = 8 + (int32_t)entries.size();
        for (int32_t room : {size, size + 8, size + 200})
            for (int32_t used : {size, size - 1, size - 4, size - 7, size + 1, size + 8}) {
                fld::Guarded buffer(head(used) + entries, room);
                handle(buffer.bytes(), place);
            }
    }
};

constexpr int32_t NAME_KEY = 0x1C000001, BODY_NAME = 0x1C000000, BODY_BYTES = 0x20000000;

// Images of entries that a well-formed message doesn't have.
std::vector<std::string> odd_entries(void)
{
    auto name = [](const char *text) { return fld::entry(fld::a_string(1, text)); };
    auto number = [](int32_t key, int32_t value) { return fld::raw(key) + fld::raw(value); };
    std::string body_name = fld::entry(fld::a_string(0, "$Data"));
    return {
        "",
        name("name"),                                  // without a value
        fld::entry(fld::an_int(1, 7)) + name("name"),  // at an odd place
        fld::entry(fld::an_int(1, 7)) + name("name") + name("v"),
        name("name") + name("name") + name("name"),
        body_name,
        body_name + number(BODY_BYTES, INT_MAX),
        body_name + number(BODY_BYTES, -1),
        body_name + number(BODY_BYTES, INT_MIN),
        body_name + number(BODY_BYTES, 0),
        body_name + number(BODY_BYTES, 1),
        body_name + number(BODY_BYTES, 0x7ffffff0) + std::string(64, 'x'),
        body_name + number(BODY_BYTES, 65) + std::string(64, 'x'),
        name("name") + number(fld::key(fld::CARRAY, 1), -8) + std::string(16, 'x'),
        name("name") + number(fld::key(fld::CARRAY, 1), 17) + std::string(16, 'x'),
        name("name") + fld::raw(NAME_KEY) + std::string(60, 'x'),  // a text without its NUL
        fld::raw(NAME_KEY) + std::string(60, 'n'),
        fld::raw(BODY_NAME) + std::string("$Dat"),
        name("name") + fld::raw(fld::key(fld::DOUBLE, 1)) + std::string(4, 'x'),  // cut short
        name("name") + number(0, 0),                                              // of no type
        name("name") + number(fld::key(9, 1), 0),
        name("name") + number(-1, 0),
        number(-1, -1) + name("name") + name("v"),
        number(0, 0) + name("name") + name("v"),
        body_name + fld::entry(fld::an_int(0, 7)),  // a body that is no row of bytes
        body_name + body_name + fld::entry(fld::a_carray(0, "body")),
        fld::raw(NAME_KEY | fld::READ) + std::string("abc\0", 4) + name("name"),
    };
}

}  // namespace

TEST_F(Hostile, UsedLengthsThatCannotBe)
{
    std::string entries = entry_of("name") + entry_of("v");
    for (int32_t room : {8, 12, 16, 24, 40, 100})
        for (int32_t used :
             {INT_MIN, -1, 0, 1, 7, 8, 9, 12, 15, 16, 23, 24, 25, 40, 41, 1000, INT_MAX - 7, INT_MAX}) {
            SCOPED_TRACE(testing::Message() << "room " << room << ", used " << used);
            fld::Guarded buffer(head(used) + entries, room);
            handle(buffer.bytes());
        }
}

TEST_F(Hostile, EntriesThatCannotBe)
{
    for (const std::string &entries : odd_entries()) {
        SCOPED_TRACE(testing::PrintToString(entries));
        try_entries(entries);
    }
}

TEST_F(Hostile, NameWithoutAValueHasNone)
{
    fld::Guarded buffer(head(8 + 16) + entry_of("the name"), 200);
    expect_error(get_of(buffer.bytes(), "the name").result, TPENOENT);
    int32_t number = 4;
    expect_error(kmq_set_property(buffer.bytes(), svc("the name"), fld::INT, &number, 0), TPEINVAL);
    EXPECT_EQ(fld::used(buffer), 24);
}

TEST_F(Hostile, WideNumberInANarrowOnesPlaceStaysInside)
{
    fld::Guarded buffer(head(8), 24);
    int32_t number = 4;
    double wide = 4;
    ASSERT_EQ(kmq_set_property(buffer.bytes(), svc("n"), fld::INT, &number, 0), 1);
    EXPECT_EQ(fld::used(buffer), 24);
    expect_error(kmq_set_property(buffer.bytes(), svc("n"), fld::DOUBLE, &wide, 0), TPEINVAL);
    EXPECT_EQ(get_of(buffer.bytes(), "n").bytes, fld::raw(number));
}

// The text whose place a number has taken leaves bytes that are read as an entry.
TEST_F(Hostile, RestOfATextIsNoEntryToTrust)
{
    for (const std::string &rest : {fld::raw<int32_t>(0x20000001) + fld::raw<int32_t>(INT_MAX),
                                    fld::raw<int32_t>(NAME_KEY) + std::string("name"), std::string(8, '\xff'),
                                    fld::raw<int32_t>(0x18000001) + std::string(4, 'x')}) {
        new_msg(300);
        std::string text = "abcd" + rest;
        ASSERT_EQ(_set_property(msg, "p", fld::STRING, text.c_str(), 0), 1);
        ASSERT_EQ(set("name", "v"), 1);
        ASSERT_EQ(set("p", 1), 1);
        EXPECT_EQ(number("p"), 1);
        handle(msg);
    }
}

TEST_F(Hostile, OtherBuffersThatBearTheMark)
{
    char *text = new_buffer("STRING", fld::raw<int32_t>(8888) + fld::raw<int32_t>(INT_MAX), 64);
    handle(text);
    tpfree(text);
    char *bytes = new_buffer("CARRAY", fld::raw<int32_t>(8888) + fld::raw<int32_t>(-1), 16);
    handle(bytes);
    tpfree(bytes);
}

TEST_F(Hostile, DeliveriesWhoseFieldsCannotBe)
{
    ASSERT_TRUE(open_session(0, 2));
    consumer = make_consumer();
    for (const std::string &entries : odd_entries()) {
        SCOPED_TRACE(testing::PrintToString(entries));
        for (int32_t more : {0, 8, -4, INT_MAX - 5000}) {
            new_msg(100);
            peer.play([&] {
                peer.expect(wire::KMQ_GETNEXT);
                // In wire order: the same words, the other way round.
                std::string swapped = entries;
                for (size_t at = 0; at + 8 <= swapped.size() && at < 8; at += 4)
                    std::reverse(swapped.begin() + (long)at, swapped.begin() + (long)at + 4);
                std::string data = wire::word(8888) + wire::word((uint32_t)(8 + (int)entries.size() + more));
                wire::frame it = delivery("");
                it.data = data + swapped;
                it.datalen = it.bufsize = (int32_t)it.data.size();
                peer.send(it);
            });
            int result = kmq_recvex(consumer, &msg, 20, TPNOTRAN);
            peer.done();
            if (result == 1)
                handle(msg);
            else
                EXPECT_NE(gettperrno(), 0);
            set_tperrno(0);
            consumer->state = 0;
            expect_usable();
        }
    }
}

TEST_F(Hostile, DeliveriesOfOtherTypes)
{
    ASSERT_TRUE(open_session(0, 2));
    consumer = make_consumer();
    struct {
        int32_t buftype;
        std::string data;
    } rows[] = {{wire::STRING, "a text"},
                {wire::STRING, std::string("a text\0", 7)},
                {wire::CARRAY, std::string(3000, 'c')},
                {wire::CARRAY, fld::raw<int32_t>(8888) + fld::raw<int32_t>(INT_MAX)},
                {wire::CARRAY, fld::raw<int32_t>(8888)},
                {wire::HEADER_ONLY, ""},
                {wire::FIELD, ""}};
    for (auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.buftype << ' ' << row.data.size());
        new_msg(100);
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            wire::frame it = delivery("");
            it.buftype = row.buftype;
            it.data = row.data;
            it.datalen = it.bufsize = (int32_t)row.data.size();
            peer.send(it);
        });
        int result = kmq_recvex(consumer, &msg, 20, TPNOTRAN);
        peer.done();
        if (result == 1) {
            handle(msg);
            peer.play([&] { peer.expect(wire::KMQ_ACK).flags(0x20); });
            EXPECT_EQ(kmq_ack(msg, 1), 1);
            peer.done();
        }
        set_tperrno(0);
        consumer->state = 0;
        expect_usable();
    }
}

// The same by way of the consumer's buffer.
TEST_F(Hostile, SavedDeliveriesOfOtherTypes)
{
    ASSERT_TRUE(open_session(0, 2));
    consumer = make_consumer();
    for (int32_t buftype : {wire::STRING, wire::CARRAY, wire::HEADER_ONLY})
        for (size_t size : {0, 1, 7, 1024, 1023, 5000}) {
            if (buftype == wire::HEADER_ONLY && size != 0)
                continue;
            SCOPED_TRACE(testing::Message() << buftype << ' ' << size);
            new_msg(100);
            arrive([&] {
                wire::frame it = delivery("");
                it.buftype = buftype;
                it.data = std::string(size, 't');
                it.datalen = it.bufsize = (int32_t)size;
                peer.send(it);
            });
            if (consumer->saved == nullptr)
                continue;
            consumer->state = 1;
            ASSERT_EQ(kmq_recvex(consumer, &msg, 20, 0), 1);
            ASSERT_GE(tpgetasize(msg), (int)size);
            EXPECT_EQ(std::string(msg, size), std::string(size, 't'));
            if (buftype == wire::STRING && size > 0) {
                EXPECT_EQ(strlen(msg), size);
            }
        }
}

TEST_F(Hostile, AnswersToASendThatCannotBe)
{
    ASSERT_TRUE(open_session());
    producer = make_producer();
    struct {
        int32_t buftype, bufsize;
        std::string data;
    } rows[] = {{wire::CARRAY, 8, std::string(8, 'c')},
                {wire::CARRAY, 0, std::string(3000, 'c')},
                {wire::CARRAY, -1, std::string(100, 'c')},
                {wire::STRING, 1000, "x"},
                {wire::FIELD, 100, wire::word(8888) + wire::word(0x7fffffff)},
                {wire::FIELD, 0, ""},
                {wire::HEADER_ONLY, INT_MIN, ""}};
    for (auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.buftype << ' ' << row.bufsize);
        new_msg(1000);
        ASSERT_EQ(set_body("hello"), 1);
        int32_t size = tpgetasize(msg);
        peer.play([&] {
            wire::frame request = peer.expect(wire::KMQ_SEND).frame;
            wire::frame reply = wire::answer(request, row.data, {.buftype = row.buftype});
            reply.bufsize = row.bufsize;
            peer.send(reply);
        });
        int result = kmq_sendex(producer, msg, 0, 0, 0, TPNOTRAN);
        peer.done();
        EXPECT_TRUE(result == 1 || gettperrno() != 0);
        EXPECT_EQ(tpgetasize(msg), size);
        set_tperrno(0);
        handle(msg);
        if (block()->started == 0)
            break;
        expect_usable();
    }
}
