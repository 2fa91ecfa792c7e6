// Properties of message objects: the entries that they are kept in, names and values that look alike, what is
// replaced by what, a full buffer, and what the header tells.
#include "kmq/message.h"

#include <random>

namespace {

struct Property : MessageTest {
    void SetUp() override { new_msg(); }

    // Each value in its type's width, as an application hands it over.
    static fld::list one_of_each()
    {
        return {fld::number<char>(fld::key(fld::CHAR, 1), 'c'),
                fld::number<int16_t>(fld::key(fld::SHORT, 1), -2),
                fld::number<int32_t>(fld::key(fld::INT, 1), 0x01020304),
                fld::number<int32_t>(fld::key(fld::LONG, 1), -5),
                fld::number<float>(fld::key(fld::FLOAT, 1), 1.5f),
                fld::number<double>(fld::key(fld::DOUBLE, 1), -2.25),
                fld::a_string(1, "text"),
                fld::a_carray(1, std::string("a\0b", 3))};
    }
    int hand_over(const char *name, const fld::field &value)
    {
        return set(name, fld::type_of(value.key), fld::handed_over(value).data(), (long)value.value.size());
    }
    msg_header *header(void) const { return message_of(msg); }
    int32_t header_number(const char *name)
    {
        got it = get(name);
        EXPECT_EQ(it.type, fld::INT);
        return number(name);
    }
};

}  // namespace

TEST_F(Property, AllocationGivesFivePercentMore)
{
    struct {
        int size, room;
    } rows[] = {{0, 0},   {1, 1},     {19, 19},     {20, 21},           {39, 40},
                {40, 42}, {100, 105}, {1000, 1050}, {1000000, 1050000}, {INT_MAX, INT_MAX}};
    for (auto &row : rows)
        EXPECT_EQ(_calc_msgsize(row.size), row.room) << row.size;
    EXPECT_EQ(_calc_msgsize(-100), -105);
    EXPECT_EQ(_calc_msgsize(INT_MIN), INT_MIN);
    char *made = kmq_alloc(this, 100), *large = kmq_alloc(this, 100000);
    ASSERT_NE(made, nullptr);
    ASSERT_NE(large, nullptr);
    EXPECT_GE(tpgetasize(made), 105);
    EXPECT_EQ(tpgetasize(large), 105000 + 8);
    char type[16] = "", subtype[32] = "";
    EXPECT_GE(tptypes(made, type, subtype), 0);
    EXPECT_STREQ(type, "FIELD");
    EXPECT_STREQ(subtype, "");
    EXPECT_EQ(fld::used((fbuf *)made), 8);
    EXPECT_EQ(message_of(made)->buftype, BUF_FIELD);
    kmq_free(made);
    kmq_free(large);
}

TEST_F(Property, AllocationWithoutAnOwnerOrMemory)
{
    EXPECT_EQ(kmq_alloc(nullptr, 100), nullptr);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    faults::fail_allocation(1);
    EXPECT_EQ(kmq_alloc(this, 100), nullptr);
    EXPECT_TRUE(gettperrno() == TPESYSTEM || gettperrno() == TPEOS) << gettperrno();
    faults::disarm_allocations();
    char *next = kmq_alloc(this, 100);
    EXPECT_NE(next, nullptr);
    EXPECT_EQ(gettperrno(), 0);
    kmq_free(next);
}

TEST_F(Property, EachTypeIsAPairOfEntries)
{
    fld::list expected;
    for (const fld::field &value : one_of_each()) {
        std::string name = "p" + std::to_string(fld::type_of(value.key));
        ASSERT_EQ(hand_over(name.c_str(), value), 1) << name;
        expected = expected + pair(name, value);
    }
    EXPECT_EQ(fld::in(buffer()), expected);
    for (const fld::field &value : one_of_each()) {
        std::string name = "p" + std::to_string(fld::type_of(value.key));
        got it = get(name.c_str());
        EXPECT_EQ(it.result, 1) << name;
        EXPECT_EQ(it.type, fld::type_of(value.key)) << name;
        EXPECT_EQ(it.bytes, value.value) << name;
    }
}

TEST_F(Property, RoomForTheValueAtAndBelow)
{
    for (const fld::field &value : one_of_each()) {
        SCOPED_TRACE(fld::type_of(value.key));
        ASSERT_EQ(hand_over("name", value), 1);
        long length = (long)value.value.size();
        EXPECT_EQ(get("name", length).result, 1);
        expect_error(get("name", length - 1).result, TPEINVAL);
        expect_error(get("name", 0).result, TPEINVAL);
        expect_error(get("name", -1).result, TPEINVAL);
        fbinit(buffer(), tpgetasize(msg));
    }
}

TEST_F(Property, SettingIsRefused)
{
    ASSERT_EQ(set("here", "value"), 1);
    char name[] = "name", empty[] = "";
    int32_t value = 1;
    expect_unchanged([&] { return kmq_set_property(nullptr, name, 3, &value, 4); });
    expect_unchanged([&] { return kmq_set_property(msg, nullptr, 3, &value, 4); });
    expect_unchanged([&] { return kmq_set_property(msg, empty, 3, &value, 4); });
    expect_unchanged([&] { return kmq_set_property(msg, name, 3, nullptr, 4); });
    expect_unchanged([&] { return kmq_set_property(msg, name, 3, &value, -1); });
    expect_unchanged([&] { return kmq_set_property(msg, name, 8, &value, LONG_MIN); });
    for (int type : {0, 9, 10, 63, 64, 71, -1, -8, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(type);
        expect_unchanged([&] { return kmq_set_property(msg, name, type, &value, 4); });
        expect_unchanged([&] { return set("here", type, &value, 4); });
    }
    expect_error(kmq_set_property(in, name, 3, &value, 4), TPEINVAL);
    EXPECT_EQ(kmq_set_property(msg, name, 3, &value, 0), 1) << "the length counts for carrays alone";
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(Property, GettingIsRefused)
{
    ASSERT_EQ(set("name", 1), 1);
    char name[] = "name", empty[] = "";
    int type;
    int32_t value = 77;
    long length = sizeof value;
    expect_error(kmq_get_property(nullptr, name, &type, &value, &length), TPEINVAL);
    expect_error(kmq_get_property(msg, nullptr, &type, &value, &length), TPEINVAL);
    expect_error(kmq_get_property(msg, empty, &type, &value, &length), TPEINVAL);
    expect_error(kmq_get_property(msg, name, &type, nullptr, &length), TPEINVAL);
    expect_error(kmq_get_property(msg, name, &type, &value, nullptr), TPEINVAL);
    expect_error(kmq_get_property(in, name, &type, &value, &length), TPEINVAL);
    expect_error(get("none").result, TPENOENT);
    expect_error(get("nam").result, TPENOENT);
    expect_error(get("names").result, TPENOENT);
    EXPECT_EQ(value, 77);
    EXPECT_EQ(length, 4);
    set_tperrno(TPENOENT);
    EXPECT_EQ(kmq_get_property(msg, name, &type, &value, &length), 1);
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(Property, ReservedNamesAreNotSet)
{
    EXPECT_EQ(rsvd_count, 10);
    for (const char *name : {"$Data", "$Destination", "$DeliveryMode", "$Expiration", "$Priority",
                             "$MessageID", "$TimeStamp", "$Redelivered", "@KMQStartSec@", "@KMQStartUsec@"}) {
        SCOPED_TRACE(name);
        expect_unchanged([&] { return set(name, "x"); });
    }
    for (const char *name : {"$data", "$Data ", "$Dat", "$", "@KMQStartSec", "$PRIORITY", "Data"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(set(name, name), 1);
        EXPECT_EQ(text(name), name);
    }
    ASSERT_EQ(set_body("body"), 1);
    expect_error(get("$Data").result, TPENOENT);
    expect_error(get("@KMQStartSec@").result, TPENOENT);
}

// A string's value has the key of a name: what is one stands at an even place.
TEST_F(Property, ValueThatLooksLikeANameIsNone)
{
    ASSERT_EQ(set("first", "abc"), 1);
    expect_error(get("abc").result, TPENOENT);
    ASSERT_EQ(set("abc", "first"), 1);
    ASSERT_EQ(set("x", "x"), 1);
    ASSERT_EQ(set("count", 5), 1);
    ASSERT_EQ(set("y", "count"), 1);
    for (bool cached : {false, true, true}) {
        SCOPED_TRACE(cached);
        for (const char *name : {"first", "abc", "x", "y", "count"}) {
            if (!cached) {
                _clear_fcache(msg);
            }
            SCOPED_TRACE(name);
            EXPECT_EQ(get(name).result, 1);
        }
        EXPECT_EQ(text("abc"), "first");
        EXPECT_EQ(text("first"), "abc");
        EXPECT_EQ(text("y"), "count");
        EXPECT_EQ(number("count"), 5);
    }
    ASSERT_EQ(set("abc", "changed, and longer than before"), 1);
    EXPECT_EQ(text("first"), "abc") << "not the value of another";
    EXPECT_EQ(text("abc"), "changed, and longer than before");
    EXPECT_EQ(fld::in(buffer()).size(), 10u);
}

// The body in front shifts the places of names by two, and the cache begins at the first of their key.
TEST_F(Property, BodyInFrontAndBehindDoesNotShiftThePlaces)
{
    ASSERT_EQ(set_body("name"), 1);
    ASSERT_EQ(set("v", "name"), 1);
    ASSERT_EQ(set("name", "v"), 1);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(text("name"), "v");
        EXPECT_EQ(text("v"), "name");
    }
    EXPECT_EQ(fld::in(buffer()),
              body_pair("name") + pair("v", fld::a_string(1, "name")) + pair("name", fld::a_string(1, "v")));
}

TEST_F(Property, TextsAreReplacedByTextsOfAnyLength)
{
    ASSERT_EQ(set("a", "first"), 1);
    ASSERT_EQ(set("b", "second"), 1);
    ASSERT_EQ(set("c", "third"), 1);
    for (const std::string &text : {std::string(), std::string("x"), std::string(300, 'l'),
                                    std::string("abc"), std::string("abcd"), std::string(299, 'm')}) {
        SCOPED_TRACE(text.size());
        ASSERT_EQ(set("b", text), 1);
        EXPECT_EQ(fld::in(buffer()), pair("a", fld::a_string(1, "first")) +
                                         pair("b", fld::a_string(1, text)) +
                                         pair("c", fld::a_string(1, "third")));
        EXPECT_EQ(this->text("c"), "third");
        EXPECT_EQ(this->text("b"), text);
    }
}

TEST_F(Property, NumberOverATextLeavesTheRestInPlace)
{
    ASSERT_EQ(set("a", "a text of some length"), 1);
    std::string before = fld::used_bytes(buffer());
    ASSERT_EQ(set("a", 7), 1);
    std::string after = fld::used_bytes(buffer());
    ASSERT_EQ(after.size(), before.size()) << "nothing moves";
    size_t value = 8 + fld::entry(fld::a_string(1, "a")).size();
    EXPECT_EQ(after.substr(value, 8), fld::entry(fld::an_int(1, 7)));
    EXPECT_EQ(after.substr(0, value), before.substr(0, value));
    EXPECT_EQ(after.substr(value + 8), before.substr(value + 8));
    EXPECT_EQ(number("a"), 7);
}

TEST_F(Property, NumbersOfOneSizeReplaceOneAnother)
{
    ASSERT_EQ(set("a", 7), 1);
    ASSERT_EQ(set("b", 8), 1);
    float real = 2.5f;
    ASSERT_EQ(set("a", fld::FLOAT, &real), 1);
    EXPECT_EQ(fld::in(buffer()),
              pair("a", fld::number(fld::key(fld::FLOAT, 1), 2.5f)) + pair("b", fld::an_int(1, 8)));
    char letter = 'x';
    ASSERT_EQ(set("a", fld::CHAR, &letter), 1);
    EXPECT_EQ(get("a").type, fld::CHAR);
    EXPECT_EQ(get("a").bytes, "x");
    EXPECT_EQ(number("b"), 8);
}

TEST_F(Property, TextReplacesANumberAndMakesRoom)
{
    ASSERT_EQ(set("a", 7), 1);
    ASSERT_EQ(set("b", 8), 1);
    ASSERT_EQ(set("a", "longer than a number"), 1);
    EXPECT_EQ(fld::in(buffer()),
              pair("a", fld::a_string(1, "longer than a number")) + pair("b", fld::an_int(1, 8)));
    ASSERT_EQ(set("a", fld::CARRAY, "bytes", 5), 1);
    EXPECT_EQ(fld::in(buffer()), pair("a", fld::a_carray(1, "bytes")) + pair("b", fld::an_int(1, 8)));
    expect_unchanged([&] { return set("a", fld::CARRAY, "bytes", 0); });
    EXPECT_EQ(get("a").bytes, "bytes");
}

TEST_F(Property, FullBufferAtAndBelowTheRoom)
{
    ASSERT_EQ(set("first", 1), 1);
    int32_t needed = fld::size_of(fld::a_string(1, "name")) + fld::size_of(fld::an_int(1, 1));
    int32_t room = fld::capacity(buffer());
    for (int32_t spare = 0; spare < needed; spare++) {
        SCOPED_TRACE(spare);
        tighten(spare);
        expect_unchanged([&] { return set("name", 1); });
        expect_error(get("name").result, TPENOENT);
    }
    tighten(needed);
    EXPECT_EQ(set("name", 1), 1);
    EXPECT_EQ(set("name", 2), 1) << "a number in a number's place needs no room";
    EXPECT_EQ(number("name"), 2);
    fld::set_capacity(buffer(), room);
}

TEST_F(Property, LongerTextInAFullBufferIsRefused)
{
    ASSERT_EQ(set("a", "abc"), 1);
    ASSERT_EQ(set("b", "behind"), 1);
    int32_t room = fld::capacity(buffer());
    int32_t growth =
        fld::size_of(fld::a_string(1, std::string(40, 'x'))) - fld::size_of(fld::a_string(1, "abc"));
    tighten(growth - 1);
    expect_unchanged([&] { return set("a", std::string(40, 'x')); });
    EXPECT_EQ(getfberror(), 10);
    expect_unchanged([&] { return set("a", fld::CARRAY, std::string(400, 'x').data(), 400); });
    EXPECT_EQ(text("a"), "abc");
    tighten(growth);
    EXPECT_EQ(set("a", std::string(40, 'x')), 1);
    EXPECT_EQ(text("b"), "behind");
    fld::set_capacity(buffer(), room);
}

// The value's place moves, or is written over, before it is copied.
TEST_F(Property, ValueOutOfTheMessageItself)
{
    ASSERT_EQ(set("a", "short"), 1);
    ASSERT_EQ(set("b", std::string(100, 'b')), 1);
    ASSERT_EQ(set_body(std::string(60, 'd')), 1);
    auto place_of = [&](char what, size_t times) {  // the padding of entries may bear some of it, too
        std::string bytes(msg, (size_t)fld::used(buffer()));
        return msg + bytes.find(std::string(times, what));
    };
    ASSERT_EQ(kmq_set_property(msg, svc("a"), fld::STRING, place_of('b', 100), 0), 1);
    EXPECT_EQ(text("a"), std::string(100, 'b'));
    ASSERT_EQ(kmq_set_property(msg, svc("a"), fld::STRING, place_of('b', 100) + 50, 0), 1);
    EXPECT_EQ(text("a"), std::string(50, 'b'));
    ASSERT_EQ(kmq_set_property(msg, svc("a"), fld::CARRAY, place_of('d', 60), 60), 1);
    EXPECT_EQ(get("a").bytes, std::string(60, 'd'));
    ASSERT_EQ(kmq_set_property(msg, svc("c"), fld::STRING, place_of('b', 100), 0), 1);
    EXPECT_EQ(text("c"), std::string(100, 'b'));
    EXPECT_EQ(fld::in(buffer()), pair("a", fld::a_carray(1, std::string(60, 'd'))) +
                                     pair("b", fld::a_string(1, std::string(100, 'b'))) +
                                     body_pair(std::string(60, 'd')) +
                                     pair("c", fld::a_string(1, std::string(100, 'b'))));
}

TEST_F(Property, DestinationWithoutASession)
{
    EXPECT_EQ(get("$Destination").result, -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
}

// A name without its value would make names of the values behind it.
TEST_F(Property, NameWhoseValueCannotBePutIsTakenBack)
{
    ASSERT_EQ(set("a", "n"), 1);
    for (int i = 0; i < 3; i++) {
        expect_unchanged([&] { return set("n", fld::CARRAY, "x", 0); });
        expect_error(get("n").result, TPENOENT);
    }
    EXPECT_EQ(set("n", "good"), 1);
    EXPECT_EQ(text("n"), "good");
    EXPECT_EQ(text("a"), "n");
    expect_unchanged([&] { return set("huge", fld::CARRAY, "x", INT_MAX); });
    expect_unchanged([&] { return set("huge", fld::CARRAY, "x", LONG_MAX); });
    expect_unchanged([&] { return set("n", fld::CARRAY, "x", LONG_MAX); });
}

TEST_F(Property, LongNamesAreNames)
{
    std::string name(500, 'n'), other = name + 'x';
    ASSERT_EQ(set(name.c_str(), 1), 1);
    ASSERT_EQ(set(other.c_str(), 2), 1);
    EXPECT_EQ(number(name.c_str()), 1);
    EXPECT_EQ(number(other.c_str()), 2);
    expect_unchanged([&] { return set(std::string(3000, 'n').c_str(), 1); });
}

// Against a model: texts and rows of bytes come and change under a few names that are also values.
TEST_F(Property, ManyChangesEndAsTheModelSays)
{
    new_msg(20000);
    std::mt19937 random(20261121);
    std::vector<std::pair<std::string, fld::field>> model;
    for (int round = 0; round < 2000; round++) {
        std::string name = "n" + std::to_string(random() % 12);
        std::string value =
            random() % 3 == 0 ? "n" + std::to_string(random() % 12) : std::string(random() % 60 + 1, 'v');
        fld::field entry = random() % 2 == 0 ? fld::a_string(1, value) : fld::a_carray(1, value);
        ASSERT_EQ(hand_over(name.c_str(), entry), 1) << round;
        size_t at = 0;
        while (at < model.size() && model[at].first != name)
            at++;
        if (at == model.size())
            model.emplace_back(name, entry);
        model[at].second = entry;
        const auto &asked = model[random() % model.size()];
        got it = get(asked.first.c_str());
        ASSERT_EQ(it.result, 1) << round;
        ASSERT_EQ(it.type, fld::type_of(asked.second.key)) << round;
        ASSERT_EQ(it.bytes, asked.second.value) << round;
    }
    fld::list expected;
    for (const auto &[name, value] : model)
        expected = expected + pair(name, value);
    EXPECT_EQ(fld::in(buffer()), expected);
}

// --- What the header tells.

TEST_F(Property, IdentityIsTwelveDigits)
{
    header()->callid[2] = 0xABCD1234;
    header()->cd = (int32_t)0xDEADBEEF;
    got it = get("$MessageID", 13);
    EXPECT_EQ(it.result, 1);
    EXPECT_EQ(it.type, fld::STRING);
    EXPECT_EQ(it.len, 13);
    EXPECT_EQ(it.bytes, std::string("ABCDDEADBEEF\0", 13));
    expect_error(get("$MessageID", 12).result, TPEINVAL);
    header()->callid[2] = 0x0001FFFF;
    header()->cd = 2;
    EXPECT_EQ(get("$MessageID").bytes, std::string("000100000002\0", 13));
}

TEST_F(Property, NumbersOfTheHeader)
{
    header()->callid[0] = 0x11223344;
    header()->callid[1] = 0x55667788;
    header()->callid[2] = 0x99AABBCC;
    EXPECT_EQ(header_number("$TimeStamp"), 0x11223344);
    EXPECT_EQ(header_number("$Expiration"), 0x55667788);
    EXPECT_EQ(header_number("$Priority"), (int32_t)0x99AABBCC) << "whole, with the identity's part";
    for (uint32_t flags : {0u, 0x02u, 0x80u, 0x82u, 0x7du, ~0x82u}) {
        SCOPED_TRACE(flags);
        header()->flags = flags;
        EXPECT_EQ(header_number("$DeliveryMode"), (flags & 0x02) != 0);
        EXPECT_EQ(header_number("$Redelivered"), (flags & 0x80) != 0);
    }
}

TEST_F(Property, WhichNumbersLookAtTheRoom)
{
    struct {
        const char *name;
        bool tested, kept;
    } rows[] = {{"$TimeStamp", true, false},
                {"$Redelivered", true, true},
                {"$DeliveryMode", false, false},
                {"$Expiration", false, false},
                {"$Priority", false, false}};
    for (auto &row : rows) {
        SCOPED_TRACE(row.name);
        for (long room : {-1L, 0L, 3L}) {
            got it = get(row.name, room);
            if (row.tested) {
                expect_error(it.result, TPEINVAL);
                EXPECT_EQ(it.len, room);
                continue;
            }
            EXPECT_EQ(it.result, 1);
            EXPECT_EQ(it.len, 4);
        }
        EXPECT_EQ(get(row.name, 4).len, 4);
        EXPECT_EQ(get(row.name, 9).len, row.kept ? 9 : 4);
        EXPECT_EQ(gettperrno(), 0);
    }
}

TEST_F(Property, HeadersNamesComeBeforeProperties)
{
    int32_t wrong = 99;
    ASSERT_EQ(_set_property(msg, "$Priority", fld::INT, (const char *)&wrong, 4), 1);
    header()->callid[2] = 4;
    EXPECT_EQ(number("$Priority"), 4);
}

TEST_F(Property, DestinationIsFoundThroughTheObjects)
{
    ASSERT_TRUE(open_session());
    producer =
        make<kmq_producer>(PRODUCER_ID, [&] { return kmq_create_producer(session, "TO", 0, nullptr, 0); });
    consumer = make<kmq_consumer>(
        CONSUMER_ID, [&] { return kmq_create_consumer(session, "FROM", 0, nullptr, nullptr, nullptr, 0); });
    kmq_consumer *same = make<kmq_consumer>(
        PRODUCER_ID, [&] { return kmq_create_consumer(session, "OTHER", 0, nullptr, nullptr, nullptr, 0); });
    ASSERT_NE(same, nullptr);
    header()->sessid = SESSION_ID;
    header()->prio = PRODUCER_ID;
    got it = get("$Destination", 3);
    EXPECT_EQ(it.result, 1) << "producers come first";
    EXPECT_EQ(it.type, fld::STRING);
    EXPECT_EQ(it.len, 2) << "without the NUL, which is there all the same";
    EXPECT_EQ(it.bytes, "TO");
    expect_error(get("$Destination", 2).result, TPEINVAL);
    header()->prio = CONSUMER_ID;
    EXPECT_EQ(get("$Destination").bytes, "FROM");
    header()->prio++;
    expect_error(get("$Destination").result, TPESYSTEM);
    header()->prio--;
    header()->sessid++;
    expect_error(get("$Destination").result, TPESYSTEM);
}
