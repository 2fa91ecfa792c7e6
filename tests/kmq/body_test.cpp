// Bodies of message objects.
#include "kmq/message.h"

namespace {

struct Body : MessageTest {
    void SetUp() override { new_msg(); }

    got get_body(long room = 4096)
    {
        std::string bytes(4200, '\x5a');
        got it = {0, 0, room, ""};
        it.result = kmq_get_body(msg, bytes.data(), &it.len);
        EXPECT_EQ(bytes[(size_t)std::max(0L, room)], '\x5a') << "written behind the room";
        if (it.result == 1)
            it.bytes = bytes.substr(0, (size_t)it.len);
        return it;
    }
};

}  // namespace

TEST_F(Body, IsAPairOfEntries)
{
    std::string bytes("a\0b\xff", 4);
    set_tperrno(TPENOENT);
    ASSERT_EQ(set_body(bytes), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(fld::in(buffer()), body_pair(bytes));
    EXPECT_EQ(get_body().bytes, bytes);
}

TEST_F(Body, RoomAtAndBelowTheLength)
{
    ASSERT_EQ(set_body("exactly"), 1);
    EXPECT_EQ(get_body(7).bytes, "exactly");
    EXPECT_EQ(get_body(8).len, 7);
    for (long room : {6L, 0L, -1L}) {
        got it = get_body(room);
        expect_error(it.result, TPEINVAL);
        EXPECT_EQ(it.len, room);
    }
}

TEST_F(Body, CallsAreRefused)
{
    char bytes[8] = "seven";
    long length = sizeof bytes;
    expect_error(kmq_get_body(msg, bytes, &length), TPENOENT);
    ASSERT_EQ(set_body("body"), 1);
    expect_error(kmq_get_body(nullptr, bytes, &length), TPEINVAL);
    expect_error(kmq_get_body(msg, nullptr, &length), TPEINVAL);
    expect_error(kmq_get_body(msg, bytes, nullptr), TPEINVAL);
    expect_error(kmq_get_body(in, bytes, &length), TPEINVAL);
    EXPECT_STREQ(bytes, "seven");
    expect_unchanged([&] { return kmq_set_body(nullptr, bytes, 4); });
    expect_unchanged([&] { return kmq_set_body(msg, nullptr, 4); });
    expect_unchanged([&] { return kmq_set_body(msg, bytes, -1); });
    expect_unchanged([&] { return kmq_set_body(msg, bytes, LONG_MIN); });
    expect_unchanged([&] { return kmq_set_body(msg, bytes, LONG_MAX); });
    expect_unchanged([&] { return kmq_set_body(msg, bytes, INT_MAX); });
    expect_unchanged([&] { return kmq_set_body(msg, bytes, 1L << 32); });
    expect_error(kmq_set_body(in, bytes, 4), TPEINVAL);
}

// A row of bytes can't be empty: the name that would be left is taken back.
TEST_F(Body, EmptyBodyIsRefused)
{
    ASSERT_EQ(set("a", "b"), 1);
    expect_unchanged([&] { return kmq_set_body(msg, svc(""), 0); });
    expect_error(get_body().result, TPENOENT);
    ASSERT_EQ(set_body("body"), 1);
    expect_unchanged([&] { return kmq_set_body(msg, svc(""), 0); });
    EXPECT_EQ(get_body().bytes, "body");
}

TEST_F(Body, IsReplacedAmongProperties)
{
    ASSERT_EQ(set("before", "1"), 1);
    ASSERT_EQ(set_body("the first body"), 1);
    ASSERT_EQ(set("behind", "2"), 1);
    for (const std::string &bytes : {std::string(700, 'l'), std::string("s"), std::string("same"),
                                     std::string("size"), std::string(8, 'e'), std::string(9, 'n')}) {
        SCOPED_TRACE(bytes.size());
        ASSERT_EQ(set_body(bytes), 1);
        EXPECT_EQ(fld::in(buffer()), pair("before", fld::a_string(1, "1")) + body_pair(bytes) +
                                         pair("behind", fld::a_string(1, "2")));
        EXPECT_EQ(text("behind"), "2");
        EXPECT_EQ(text("before"), "1");
        EXPECT_EQ(get_body().bytes, bytes);
    }
}

TEST_F(Body, FullBufferAtAndBelowTheRoom)
{
    std::string bytes(13, 'b');
    ASSERT_EQ(set("p", "v"), 1);
    int32_t room = fld::capacity(buffer());
    int32_t needed = fld::size_of(fld::a_string(0, "$Data")) + fld::size_of(fld::a_carray(0, bytes));
    for (int32_t spare = 0; spare < needed; spare++) {
        tighten(spare);
        expect_unchanged([&] { return set_body(bytes); });
    }
    tighten(needed);
    EXPECT_EQ(set_body(bytes), 1);
    expect_unchanged([&] { return set_body(bytes + std::string(8, 'x')); });
    EXPECT_EQ(getfberror(), 10);
    tighten(8);
    EXPECT_EQ(set_body(bytes + std::string(8, 'x')), 1);
    EXPECT_EQ(text("p"), "v");
    fld::set_capacity(buffer(), room);
}

TEST_F(Body, PropertyOfTheBodysNameIsAnother)
{
    ASSERT_EQ(set("Data", "property"), 1);
    ASSERT_EQ(set_body("$Data"), 1);
    ASSERT_EQ(set("p", "$Data"), 1);
    EXPECT_EQ(get_body().bytes, "$Data");
    EXPECT_EQ(text("p"), "$Data");
    EXPECT_EQ(text("Data"), "property");
}

// The fields that an application puts into the buffer by itself have other numbers than the service's.
TEST_F(Body, OtherFieldsStandAside)
{
    int32_t number = 5;
    ASSERT_GE(fbput(buffer(), fld::key(fld::INT, 77), (char *)&number, 0), 0);
    ASSERT_GE(fbput(buffer(), fld::key(fld::INT, 78), (char *)&number, 0), 0);
    ASSERT_EQ(set_body("body"), 1);
    ASSERT_EQ(set("name", "value"), 1);
    EXPECT_EQ(get_body().bytes, "body");
    EXPECT_EQ(text("name"), "value");
    ASSERT_EQ(set_body("a longer body than before"), 1);
    EXPECT_EQ(text("name"), "value");
}

TEST_F(Body, WholeBufferOfOneBody)
{
    std::string bytes(1800, 'w');
    ASSERT_EQ(set_body(bytes), 1);
    EXPECT_EQ(get_body().bytes, bytes);
    std::string most((size_t)(tpgetasize(msg) / 8 * 8 - 8 - 16 - 8), 'm');
    ASSERT_EQ(set_body(most), 1);
    EXPECT_EQ(get_body().bytes, most);
    EXPECT_EQ(fld::used(buffer()), tpgetasize(msg) / 8 * 8);
    expect_unchanged([&] { return set_body(most + std::string(8, 'x')); });
}

TEST_F(Body, MessagesOfOthersDoNotMix)
{
    ASSERT_EQ(set_body("one"), 1);
    char *other = kmq_alloc(this, 500);
    ASSERT_EQ(kmq_set_body(other, svc("other"), 5), 1);
    EXPECT_EQ(body_of(other), "other");
    EXPECT_EQ(get_body().bytes, "one");
    kmq_free(other);
    other = kmq_alloc(this, 500);
    char bytes[8];
    long length = sizeof bytes;
    expect_error(kmq_get_body(other, bytes, &length), TPENOENT);
    kmq_free(other);
}
