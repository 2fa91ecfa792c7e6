// Field buffers and structs of an application, over the wire and back: the library's conversion on one end,
// the server's own on the other.
#include "application.h"

#include "support/sdlfile.h"

#include <gtest/gtest.h>
#include <random>

static FBUF *fields(const Buffer &buffer)
{
    return reinterpret_cast<FBUF *>(buffer.data);
}

static int key(int type, int number = 1)
{
    return fbmake_fldkey(type, number);
}

template <typename Value> static void put(Buffer &buffer, int type, Value value, int number = 1)
{
    ASSERT_EQ(fbput(fields(buffer), key(type, number), reinterpret_cast<char *>(&value), 0), 1);
}

static void put_text(Buffer &buffer, const std::string &text, int number = 1)
{
    ASSERT_EQ(fbput(fields(buffer), key(FB_STRING, number), unconst(text.c_str()), 0), 1);
}

static void put_bytes(Buffer &buffer, const std::string &bytes, int number = 1)
{
    ASSERT_EQ(
        fbput(fields(buffer), key(FB_CARRAY, number), unconst(bytes.data()), static_cast<int>(bytes.size())),
        1);
}

static void put_all_types(Buffer &buffer)
{
    put(buffer, FB_CHAR, 'x');
    put(buffer, FB_SHORT, static_cast<short>(-2));
    put(buffer, FB_INT, 70000);
    put(buffer, FB_LONG, 0x1122334455667788L);
    put(buffer, FB_FLOAT, 1.5f);
    put(buffer, FB_DOUBLE, -2.25e100);
    for (size_t length : {0, 1, 3, 4, 11, 12, 100})
        put_text(buffer, std::string(length, 't'));
    for (size_t length : {1, 7, 8, 9, 100})
        put_bytes(buffer, std::string(length, '\0'));
}

// Keys with their read marks, and the bytes of the values, in the buffer's order.
using Listed = std::vector<std::pair<int, std::string>>;
static Listed listed(const Buffer &buffer)
{
    Listed list;
    int at = 0, nth = 0;
    while (fbnext_tu(fields(buffer), &at, &nth, nullptr, nullptr) == 1) {
        int length = 0;
        const char *value = fbgetval(fields(buffer), at, nth, &length);
        list.emplace_back(at, std::string(value, static_cast<size_t>(length)));
    }
    return list;
}

static std::string type_of(const Buffer &buffer)
{
    char type[17] = "", subtype[17] = "";
    tptypes(buffer.data, type, subtype);
    return std::string(type) + "/" + subtype;
}

TEST(ClhsimStructured, EveryTypeOfFieldComesBack)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    put_all_types(buffer);
    const Listed before = listed(buffer);
    ASSERT_EQ(before.size(), 18u);
    const long used = fbget_used(fields(buffer));
    ASSERT_EQ(call("FBECHO", buffer), 1);
    EXPECT_EQ(buffer.length, used);
    EXPECT_EQ(listed(buffer), before);
    int64_t number = 0;
    ASSERT_EQ(fbget_tu(fields(buffer), key(FB_LONG), 0, reinterpret_cast<char *>(&number), nullptr), 1);
    EXPECT_EQ(number, 0x55667788);
    double fraction = 0;
    ASSERT_EQ(fbget_tu(fields(buffer), key(FB_DOUBLE), 0, reinterpret_cast<char *>(&fraction), nullptr), 1);
    EXPECT_EQ(fraction, -2.25e100);
    EXPECT_EQ(domain.stat("broken"), 0);
}

TEST(ClhsimStructured, RequestIsInHostOrderAgainAfterTheCall)
{
    Domain domain;
    Buffer request("FIELD", 0), reply("STRING", 0);
    put_all_types(request);
    const Listed before = listed(request);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(tpcall(unconst("FBECHO"), request.data, 0, &reply.data, &reply.length, 0), 1);
        EXPECT_EQ(type_of(reply), "FIELD/");
        EXPECT_EQ(listed(reply), before);
        EXPECT_EQ(listed(request), before);
    }
}

TEST(ClhsimStructured, BufferWithoutFieldsComesBack)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    ASSERT_EQ(call("FBECHO", buffer), 1);
    EXPECT_EQ(buffer.length, 8);
    EXPECT_EQ(fbisfbuf(fields(buffer)), 1);
    EXPECT_EQ(fbget_used(fields(buffer)), 8);
}

TEST(ClhsimStructured, AddedFieldsAreFound)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    put_all_types(buffer);
    ASSERT_EQ(call("FBADD", buffer), 1);
    EXPECT_EQ(fbgetvall_tu(fields(buffer), key(FB_INT, 901), 0), 18);
    EXPECT_STREQ(fbgetvals_tu(fields(buffer), key(FB_STRING, 902), 0), "clhsim");
    EXPECT_EQ(fbfldcount(fields(buffer)), 20);
    ASSERT_EQ(call("FBADD", buffer), 1);
    EXPECT_EQ(fbgetvall_tu(fields(buffer), key(FB_INT, 901), 1), 20);
    EXPECT_EQ(fbkeyoccur(fields(buffer), key(FB_STRING, 902)), 2);
}

// What was found in the buffer before a reply says nothing about the fields that came with it.
TEST(ClhsimStructured, ReplyIsSearchedAnew)
{
    Domain domain;
    Buffer request("FIELD", 0), reply("FIELD", 0);
    for (int i = 0; i < 5; i++)
        put(reply, FB_INT, i);
    put_text(request, "in front");
    for (int i = 0; i < 5; i++)
        put(request, FB_INT, 10 + i);
    EXPECT_EQ(fbgetvall_tu(fields(reply), key(FB_INT), 3), 3);
    ASSERT_EQ(tpcall(unconst("FBECHO"), request.data, 0, &reply.data, &reply.length, 0), 1);
    EXPECT_EQ(fbgetvall_tu(fields(reply), key(FB_INT), 3), 13);
}

TEST(ClhsimStructured, ReadMarksTravel)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    for (int i = 0; i < 3; i++)
        put(buffer, FB_INT, i);
    int value = -1;
    ASSERT_EQ(fbget(fields(buffer), key(FB_INT), reinterpret_cast<char *>(&value), nullptr), 1);
    EXPECT_EQ(value, 0);
    ASSERT_EQ(call("FBECHO", buffer), 1);
    EXPECT_EQ(fbkeyoccur(fields(buffer), key(FB_INT)), 2);
    EXPECT_EQ(fbfldcount(fields(buffer)), 3);
    ASSERT_EQ(fbget(fields(buffer), key(FB_INT), reinterpret_cast<char *>(&value), nullptr), 1);
    EXPECT_EQ(value, 1);
}

TEST(ClhsimStructured, LargeBuffersComeBackInLargerOnes)
{
    for (const char *threshold : {"-1", "5000"}) {
        Domain domain({"--threshold", threshold});
        for (size_t size : {1000, 5000, 70000, 2000000}) {
            Buffer request("FIELD", size), reply("FIELD", 0);
            while (fbget_unused(fields(request)) > 1000 && !testing::Test::HasFailure())
                put_all_types(request);
            ASSERT_EQ(tpcall(unconst("FBADD"), request.data, 0, &reply.data, &reply.length, 0), 1);
            EXPECT_EQ(reply.length, fbget_used(fields(request)) + 24);
            EXPECT_GE(fbget_fbsize(fields(reply)), reply.length);
            EXPECT_EQ(fbgetvall_tu(fields(reply), key(FB_INT, 901), 0), fbfldcount(fields(request)));
            EXPECT_EQ(
                fbgetvals_tu(fields(reply), key(FB_STRING), fbkeyoccur(fields(reply), key(FB_STRING)) - 1),
                std::string(100, 't'));
        }
        EXPECT_EQ(domain.stat("compressed_in"), *threshold == '-' ? 0 : 2);
        EXPECT_EQ(domain.stat("compressed_out"), *threshold == '-' ? 0 : 2);
        tpend();
    }
}

TEST(ClhsimStructured, BufferThatIsFullToTheLastByteTravels)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    while (fbget_unused(fields(buffer)) > 0 && !testing::Test::HasFailure())
        put(buffer, FB_INT, static_cast<int>(fbget_unused(fields(buffer))));
    const Listed before = listed(buffer);
    const char *place = buffer.data;
    ASSERT_EQ(call("FBECHO", buffer), 1);
    EXPECT_EQ(buffer.data, place) << "the reply has room where the request had it";
    EXPECT_EQ(listed(buffer), before);
    EXPECT_EQ(fbget_unused(fields(buffer)), 0);
    ASSERT_EQ(call("FBADD", buffer), 1) << "and here it needs more";
    EXPECT_EQ(fbgetvall_tu(fields(buffer), key(FB_INT, 901), 0), static_cast<long>(before.size()));
}

TEST(ClhsimStructured, AsynchronousCallsCarryFields)
{
    Domain domain;
    Buffer requests[3] = {{"FIELD", 0}, {"FIELD", 0}, {"FIELD", 0}};
    int descriptors[3];
    for (int i = 0; i < 3; i++) {
        put(requests[i], FB_INT, i);
        descriptors[i] = tpacall(unconst("FBADD"), requests[i].data, 0, 0);
        ASSERT_GT(descriptors[i], 0);
    }
    for (int i = 2; i >= 0; i--) {
        Buffer reply("FIELD", 0);
        ASSERT_EQ(tpgetrply(&descriptors[i], &reply.data, &reply.length, 0), 1);
        EXPECT_EQ(fbgetvall_tu(fields(reply), key(FB_INT), 0), i);
        EXPECT_EQ(fbgetvall_tu(fields(reply), key(FB_INT, 901), 0), 1);
    }
}

TEST(ClhsimStructured, ServiceOfAnotherTypeRefusesFields)
{
    Domain domain;
    Buffer buffer("FIELD", 0), text("abc");
    EXPECT_EQ(call("TOUPPER", buffer), -1);
    EXPECT_EQ(gettperrno(), TPEITYPE);
    EXPECT_EQ(call("FBECHO", text), -1);
    EXPECT_EQ(gettperrno(), TPEITYPE);
    EXPECT_EQ(call("STECHO", buffer), -1);
    EXPECT_EQ(gettperrno(), TPEITYPE);
    EXPECT_EQ(call("FBECHO", buffer), 1);
}

TEST(ClhsimStructured, TypeOfTheReplyMayBeHeldFast)
{
    Domain domain;
    Buffer request("FIELD", 0), text("abc");
    EXPECT_EQ(tpcall(unconst("FBECHO"), request.data, 0, &text.data, &text.length, TPNOCHANGE), -1);
    EXPECT_EQ(gettperrno(), TPEOTYPE);
    EXPECT_STREQ(text.data, "abc");
    Buffer reply("FIELD", 0);
    EXPECT_EQ(tpcall(unconst("FBECHO"), request.data, 0, &reply.data, &reply.length, TPNOCHANGE), 1);
}

TEST(ClhsimStructured, FailingServiceAnswersInFields)
{
    Domain domain;
    Buffer buffer("FIELD", 0);
    put_text(buffer, "tea", 103);
    EXPECT_EQ(call("ORDER", buffer), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    EXPECT_EQ(gettpurcode(), 1);
    EXPECT_STREQ(fbgetvals_tu(fields(buffer), key(FB_STRING, 112), 0), "line 1: no price");
}

TEST(ClhsimStructured, RandomBuffersComeBackAsTheyWent)
{
    Domain domain({"--threshold", "1000"});
    std::mt19937 random(5);
    for (int round = 0; round < 300; round++) {
        Buffer buffer("FIELD", 8000);
        for (unsigned count = random() % 60; count > 0; count--) {
            const int type = 1 + static_cast<int>(random() % 8), number = static_cast<int>(random() % 5);
            const std::string text(random() % 90, static_cast<char>('a' + random() % 26));
            if (type == FB_STRING)
                put_text(buffer, text, number);
            else if (type == FB_CARRAY)
                put_bytes(buffer, text + "!", number);
            else
                put(buffer, type, static_cast<int64_t>(random()) << 32 | random(), number);
        }
        const Listed before = listed(buffer);
        ASSERT_EQ(call("FBECHO", buffer), 1) << round;
        ASSERT_EQ(listed(buffer), before) << round;
    }
    EXPECT_GT(domain.stat("compressed_in"), 0);
}

// The record that ORDER reads, as C lays it out.
struct OrderLine {
    char item[16];
    double price;
    int64_t article;
    int32_t quantity;
};
struct Order {
    char customer[24];
    int64_t number;
    int32_t count;
    OrderLine lines[5];
    double total;
    char status[40];
};
// One whose record is as long on the wire as here.
struct Pair {
    int32_t one;
    int16_t two, three;
};

static sdl::member member(int32_t type, size_t host, int32_t wire, int32_t count = 1)
{
    sdl::member row = {.name = "m" + std::to_string(host), .type = type, .count = count};
    row.element = type >= sdl::STRING ? count : 1;
    row.host_offset = static_cast<int32_t>(host);
    row.wire_offset = wire;
    return row;
}

static void define_structs()
{
    sdl::record line = {"line", {}, sizeof(OrderLine), 32, 0};
    line.members = {member(sdl::STRING, offsetof(OrderLine, item), 0, 16),
                    member(sdl::DOUBLE, offsetof(OrderLine, price), 16),
                    member(sdl::LONG, offsetof(OrderLine, article), 24),
                    member(sdl::INT, offsetof(OrderLine, quantity), 28)};
    sdl::record order = {"order", {}, sizeof(Order), 240, 0};
    order.members = {member(sdl::STRING, offsetof(Order, customer), 0, 24),
                     member(sdl::LONG, offsetof(Order, number), 24),
                     member(sdl::INT, offsetof(Order, count), 28),
                     member(sdl::NESTED, offsetof(Order, lines), 32, 5),
                     member(sdl::DOUBLE, offsetof(Order, total), 192),
                     member(sdl::STRING, offsetof(Order, status), 200, 40)};
    sdl::record pair = {"pair", {}, sizeof(Pair), 8, 0};
    pair.members = {member(sdl::INT, 0, 0), member(sdl::SHORT, 4, 4, 2)};
    setenv("SDLFILE64", write_definition(sdl::file_bytes({line, order, pair})).c_str(), 1);
}

static Order *orders(const Buffer &buffer)
{
    return reinterpret_cast<Order *>(buffer.data);
}

TEST(ClhsimStructured, StructIsReadByTheService)
{
    define_structs();
    Domain domain;
    Buffer buffer("STRUCT", 0, "order");
    Order *order = orders(buffer);
    order->number = 0x123456789;
    order->count = 2;
    order->lines[0] = {"tea", 2.5, 1, 4};
    order->lines[1] = {"cups", 1.25, -1, 3};
    strcpy(order->customer, "Ann");
    ASSERT_EQ(call("ORDER", buffer), 1);
    order = orders(buffer);
    EXPECT_EQ(type_of(buffer), "STRUCT/order");
    EXPECT_EQ(buffer.length, static_cast<long>(sizeof(Order)));
    EXPECT_EQ(order->total, 13.75);
    EXPECT_STREQ(order->status, "accepted");
    EXPECT_STREQ(order->customer, "Ann");
    EXPECT_EQ(order->number, 0x23456789) << "a long has four bytes on the way";
    EXPECT_EQ(order->lines[1].article, 0xffffffff) << "and no sign";
    EXPECT_STREQ(order->lines[1].item, "cups");

    order->lines[1].quantity = 0;
    EXPECT_EQ(call("ORDER", buffer), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    EXPECT_EQ(gettpurcode(), 2);
    EXPECT_STREQ(orders(buffer)->status, "line 2: no quantity");
}

// The record grows on its way in by 48 bytes, so many of them outgrow the size that the reply itself has.
TEST(ClhsimStructured, RecordsOfDifferentSizesComeBack)
{
    define_structs();
    for (const char *threshold : {"-1", "1000"}) {
        Domain domain({"--threshold", threshold});
        for (size_t count : {1, 3, 4, 5, 17, 1000}) {
            Buffer request("STRUCT", count * sizeof(Order), "order"), reply("STRUCT", 0, "order");
            for (size_t i = 0; i < count; i++) {
                orders(request)[i].number = static_cast<int64_t>(i);
                orders(request)[i].lines[4].price = 0.5 + static_cast<double>(i);
                snprintf(orders(request)[i].status, sizeof Order::status, "record %zu", i);
            }
            const long length = static_cast<long>(count * sizeof(Order));
            ASSERT_EQ(tpcall(unconst("STECHO"), request.data, length, &reply.data, &reply.length, 0), 1)
                << count;
            ASSERT_EQ(reply.length, length);
            ASSERT_GE(tpgetasize(reply.data), length);
            for (size_t i = 0; i < count; i++) {
                ASSERT_EQ(orders(reply)[i].number, static_cast<int64_t>(i));
                ASSERT_EQ(orders(reply)[i].lines[4].price, 0.5 + static_cast<double>(i));
                ASSERT_EQ(orders(reply)[i].status, "record " + std::to_string(i));
            }
        }
        tpend();
    }
}

TEST(ClhsimStructured, RecordsOfOneSizeComeBack)
{
    define_structs();
    Domain domain;
    for (size_t count : {1, 100, 5000}) {
        Buffer buffer("X_C_TYPE", count * sizeof(Pair), "pair");
        auto *pairs = reinterpret_cast<Pair *>(buffer.data);
        for (size_t i = 0; i < count; i++)
            pairs[i] = {static_cast<int32_t>(i), -2, static_cast<int16_t>(i * 7)};
        const long length = static_cast<long>(count * sizeof(Pair));
        ASSERT_EQ(tpcall(unconst("STECHO"), buffer.data, length, &buffer.data, &buffer.length, 0), 1);
        ASSERT_EQ(buffer.length, length);
        pairs = reinterpret_cast<Pair *>(buffer.data);
        for (size_t i = 0; i < count; i++) {
            ASSERT_EQ(pairs[i].one, static_cast<int32_t>(i));
            ASSERT_EQ(pairs[i].two, -2);
            ASSERT_EQ(pairs[i].three, static_cast<int16_t>(i * 7));
        }
    }
    EXPECT_EQ(domain.stat("broken"), 0);
}

TEST(ClhsimStructured, OnlyWholeRecordsLeave)
{
    define_structs();
    Domain domain;
    Buffer buffer("STRUCT", 2 * sizeof(Order), "order");
    const std::pair<size_t, size_t> lengths[] = {
        {0, 1}, {10, 1}, {sizeof(Order), 1}, {sizeof(Order) + 10, 1}, {2 * sizeof(Order), 2}};
    for (auto [length, records] : lengths) {
        ASSERT_EQ(tpcall(unconst("STECHO"), buffer.data, static_cast<long>(length), &buffer.data,
                         &buffer.length, 0),
                  1);
        EXPECT_EQ(buffer.length, static_cast<long>(records * sizeof(Order))) << length;
    }
}

TEST(ClhsimStructured, StructsWithoutADefinitionDontExist)
{
    define_structs();
    Buffer unknown("STRUCT", 0, "nosuch");
    EXPECT_EQ(unknown.data, nullptr);
    EXPECT_EQ(gettperrno(), TPENOENT);
}
