// The services for field buffers and structs, byte by byte, and what no honest client sends them.
#include "simulator.h"

#include <bit>
#include <gtest/gtest.h>
#include <random>

static constexpr int32_t STRUCT = 1;
static constexpr int32_t FIELD = 2;
static constexpr int32_t INVAL = 4;
static constexpr int32_t SVCFAIL = 11;
static constexpr int32_t ITYPE = 17;

enum : uint32_t { CHAR = 1, SHORT, INT, LONG, FLOAT, DOUBLE, TEXT, BYTES };

static std::string word(uint32_t value)
{
    std::string bytes(4, '\0');
    put(bytes, 0, value);
    return bytes;
}

static std::string eight(double value)
{
    auto bits = std::bit_cast<uint64_t>(value);
    return word(static_cast<uint32_t>(bits >> 32)) + word(static_cast<uint32_t>(bits));
}

// An entry: key, and what stands behind it, filled up with bytes that mean nothing.
static std::string entry(uint32_t type, uint32_t number, const std::string &rest)
{
    std::string bytes = word(type << 26 | number) + rest;
    return bytes + std::string((8 - bytes.size() % 8) % 8, '#');
}

static std::string text_entry(uint32_t number, const std::string &text)
{
    return entry(TEXT, number, text + std::string(1, '\0'));
}

static std::string bytes_entry(uint32_t number, const std::string &bytes)
{
    return entry(BYTES, number, word(static_cast<uint32_t>(bytes.size())) + bytes);
}

static std::string double_entry(uint32_t number, double value)
{
    return entry(DOUBLE, number, "####" + eight(value));
}

static std::string field_buffer(const std::string &entries)
{
    return word(8888) + word(static_cast<uint32_t>(8 + entries.size())) + entries;
}

static std::string all_types()
{
    return entry(CHAR, 1, "x") + entry(SHORT, 2, "\xff\xfe") + entry(INT, 3, word(70000)) +
           entry(LONG, 4, word(0xffffffff)) + entry(FLOAT, 5, word(0x3fc00000)) + double_entry(6, 2.5) +
           text_entry(7, "abc") + text_entry(7, "abcd") + text_entry(7, "") + bytes_entry(8, "") +
           bytes_entry(8, std::string("\0\xff", 2)) + bytes_entry(8, "12345678") +
           entry(INT, 3 | 0x01000000, word(1));  // one that was read
}

static Message field_call(const std::string &service, const std::string &data)
{
    return call_of(service, data, MSG_TPCALL, FIELD);
}

static Message struct_call(const std::string &service, const std::string &subtype, const std::string &data)
{
    Message call = call_of(service, data, MSG_TPCALL, STRUCT);
    call.subtype = subtype;
    return call;
}

TEST(ClhsimFields, EchoKeepsEveryByte)
{
    Simulator server;
    Link link = server.log_in();
    for (const std::string &entries : {std::string(), entry(CHAR, 0, "x"), all_types()}) {
        Message reply = link.exchange(field_call("FBECHO", field_buffer(entries)));
        EXPECT_EQ(reply.msgtype, 1003);
        EXPECT_EQ(reply.buftype, FIELD);
        EXPECT_TRUE(reply.data == field_buffer(entries));
    }
}

TEST(ClhsimFields, EchoOfLargeBuffers)
{
    Simulator server({"--threshold", "100000"});
    Link link = server.log_in();
    std::string entries;
    while (entries.size() < 3000000)
        entries += all_types() + text_entry(9, std::string(entries.size() / 100, 't'));
    Message call = field_call("FBECHO", field_buffer(entries));
    Message reply = link.exchange(call);
    EXPECT_TRUE(reply.compressed);
    EXPECT_TRUE(reply.data == call.data);
    link.send(compressed_bytes_of(call));
    EXPECT_TRUE(link.receive().data == call.data);
}

TEST(ClhsimFields, AddPutsCountAndNameBehindTheRest)
{
    Simulator server;
    Link link = server.log_in();
    auto added = [](uint32_t count) { return word(INT << 26 | 901) + word(count); };
    const std::string name = word(TEXT << 26 | 902) + std::string("clhsim\0\0\0\0\0\0", 12);
    EXPECT_EQ(link.exchange(field_call("FBADD", field_buffer(""))).data, field_buffer(added(0) + name));
    EXPECT_EQ(link.exchange(field_call("FBADD", field_buffer(all_types()))).data,
              field_buffer(all_types() + added(13) + name));
}

TEST(ClhsimFields, TrailerIsNoPartOfTheBuffer)
{
    Simulator server;
    Link link = server.log_in();
    Message call = field_call("FBECHO", field_buffer(all_types()) + "trailer");
    EXPECT_EQ(link.exchange(call).flags, INVAL) << "unless it is said to be one";
    call.xflags = 0x04000000 | 7;
    EXPECT_EQ(link.exchange(call).data, field_buffer(all_types()));
}

TEST(ClhsimFields, OtherDataIsOfTheWrongType)
{
    Simulator server;
    Link link = server.log_in();
    const std::string buffer = field_buffer(all_types());
    for (const char *service : {"FBECHO", "FBADD"}) {
        for (int32_t buftype : std::vector<int32_t>{STRUCT, STRING, CARRAY, HEADER_ONLY, 5, 11, 12, 0, -1}) {
            Message reply = link.exchange(call_of(service, buffer, MSG_TPCALL, buftype));
            EXPECT_EQ(reply.msgtype, 2003);
            EXPECT_EQ(reply.flags, ITYPE) << service << " " << buftype;
            EXPECT_EQ(reply.datalen, 0);
        }
    }
    for (int32_t buftype : std::vector<int32_t>{FIELD, STRING, CARRAY, HEADER_ONLY})
        EXPECT_EQ(link.exchange(call_of("STECHO", "abcd", MSG_TPCALL, buftype)).flags, ITYPE) << buftype;
    EXPECT_EQ(link.exchange(string_call("ORDER", "abcd")).flags, ITYPE);
}

static void expect_refused(Link &link, const std::string &data, const std::string &what)
{
    for (const char *service : {"FBECHO", "FBADD", "ORDER"}) {
        Message reply = link.exchange(field_call(service, data));
        EXPECT_EQ(reply.msgtype, 2003) << service << ": " << what;
        EXPECT_EQ(reply.flags, INVAL) << service << ": " << what;
        EXPECT_EQ(reply.datalen, 0);
    }
}

TEST(ClhsimFieldsHostile, HeadThatLiesIsRefused)
{
    Simulator server;
    Link link = server.log_in();
    const std::string honest = field_buffer(all_types());
    const auto size = static_cast<uint32_t>(honest.size());
    for (uint32_t used :
         {0u, 1u, 7u, 8u, size - 8, size - 1, size + 1, size + 8, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        std::string lie = honest;
        put(lie, 4, used);
        expect_refused(link, lie, "used length " + std::to_string(used));
    }
    for (uint32_t magic : {0u, 7777u, 8889u, 0xb8220000u}) {
        std::string lie = honest;
        put(lie, 0, magic);
        expect_refused(link, lie, "first word " + std::to_string(magic));
    }
}

TEST(ClhsimFieldsHostile, BufferCutAtAnyByteIsRefused)
{
    Simulator server({"--local", "DIR"});
    Link link = server.log_in();
    const std::string honest = field_buffer(all_types());
    for (size_t size = 0; size < honest.size(); size++) {
        std::string cut = honest.substr(0, size);
        expect_refused(link, cut, "cut at " + std::to_string(size));
        if (size < 8)
            continue;
        put(cut, 4, static_cast<uint32_t>(size));  // the head agrees
        if (link.exchange(field_call("FBADD", cut)).flags == 0)
            EXPECT_EQ(size % 8, 0u) << "only whole entries are entries";
        else
            EXPECT_EQ(link.exchange(field_call("FBECHO", cut)).flags, INVAL);
    }
}

TEST(ClhsimFieldsHostile, TypesThatArentThereAreRefused)
{
    Simulator server;
    Link link = server.log_in();
    for (uint32_t type = 0; type < 64; type++) {
        if (type < CHAR || type > BYTES)
            expect_refused(link, field_buffer(entry(INT, 1, word(5)) + entry(type, 1, word(0))),
                           "type " + std::to_string(type));
    }
}

TEST(ClhsimFieldsHostile, ValuesThatRunPastTheEndAreRefused)
{
    Simulator server;
    Link link = server.log_in();
    expect_refused(link, field_buffer(entry(DOUBLE, 1, "####")), "half a double");
    expect_refused(link, field_buffer(word(TEXT << 26 | 1) + "abcd"), "no NUL");
    expect_refused(link, field_buffer(word(TEXT << 26 | 1) + std::string(100, 'x')), "no NUL");
    expect_refused(
        link,
        field_buffer(entry(INT, 1, word(1)) + word(TEXT << 26 | 1) + "abc" + std::string(1, '\0') + "1234"),
        "four bytes over");
    for (uint32_t length : {9u, 16u, 0x7fffffffu, 0x80000000u, 0xfffffff8u, 0xffffffffu})
        expect_refused(link, field_buffer(word(BYTES << 26 | 1) + word(length) + "12345678"),
                       "length " + std::to_string(length));
}

// Whatever is answered was in order: it is walked here once more.
static bool walks(const std::string &data)
{
    if (data.size() < 8 || get(data, 0) != 8888 || get(data, 4) != data.size())
        return false;
    size_t at = 8;
    while (at < data.size()) {
        uint32_t type = get(data, at) >> 26;
        size_t size = 8;
        if (type == DOUBLE)
            size = 16;
        else if (type == TEXT)
            size = (4 + std::string(data.c_str() + at + 4).size() + 1 + 7) / 8 * 8;
        else if (type == BYTES)
            size = (8 + static_cast<size_t>(get(data, at + 4)) + 7) / 8 * 8;
        else if (type < CHAR || type > BYTES)
            return false;
        if (size > data.size() - at)
            return false;
        at += size;
    }
    return true;
}

TEST(ClhsimFieldsHostile, DamagedBuffersAreRefusedOrInOrder)
{
    Simulator server({"--local", "DIR"});
    Link link = server.log_in();
    std::mt19937 random(3);
    int refused = 0, taken = 0;
    for (int round = 0; round < 3000; round++) {
        std::string data = field_buffer(all_types());
        for (unsigned flips = 1 + random() % 3; flips > 0; flips--)
            data[random() % data.size()] = static_cast<char>(random());
        Message reply = link.exchange(field_call("FBADD", data));
        ASSERT_EQ(reply.flags == 0, walks(data)) << round;
        ASSERT_EQ(reply.flags == 0, walks(reply.data)) << round;
        ++(reply.flags == 0 ? taken : refused);
    }
    EXPECT_GT(taken, 100);
    EXPECT_GT(refused, 100);
}

TEST(ClhsimStruct, EchoKeepsRecordsAndTheirName)
{
    Simulator server;
    Link link = server.log_in();
    for (size_t size : {1, 100, 100000}) {
        Message reply = link.exchange(struct_call("STECHO", "whatever", std::string(size, 'r')));
        EXPECT_EQ(reply.flags, 0);
        EXPECT_EQ(reply.buftype, STRUCT);
        EXPECT_EQ(reply.subtype, "whatever");
        EXPECT_TRUE(reply.data == std::string(size, 'r'));
    }
    EXPECT_EQ(link.exchange(struct_call("STECHO", std::string(16, 's'), "r")).subtype, std::string(16, 's'));
    EXPECT_EQ(link.exchange(struct_call("STECHO", "", "r")).flags, ITYPE);
}

TEST(ClhsimStruct, RecordsOfAKnownStructAreWhole)
{
    Simulator server;
    Link link = server.log_in();
    for (size_t size : {240, 480, 24000})
        EXPECT_EQ(link.exchange(struct_call("STECHO", "order", std::string(size, 'r'))).data.size(), size);
    for (size_t size : {0, 1, 239, 241, 479})
        EXPECT_EQ(link.exchange(struct_call("STECHO", "order", std::string(size, 'r'))).flags, INVAL) << size;
    EXPECT_EQ(link.exchange(struct_call("STECHO", "orders", "r")).flags, 0);
}

static std::string order_line(const std::string &item, double price, int32_t quantity)
{
    return text_entry(103, item) + double_entry(104, price) +
           entry(INT, 105, word(static_cast<uint32_t>(quantity)));
}

// The reply to an order, without a number.
static std::string sum_of(uint32_t lines, double total, const std::string &status)
{
    std::string sum = word(INT << 26 | 110) + word(lines) + word(DOUBLE << 26 | 111) + word(0) +
                      eight(total) + word(TEXT << 26 | 112) + status + std::string(1, '\0');
    return field_buffer(sum + std::string((8 - sum.size() % 8) % 8, '\0'));
}

TEST(ClhsimOrder, LinesAreAddedUp)
{
    Simulator server;
    Link link = server.log_in();
    const std::string two = order_line("tea", 2.5, 4) + text_entry(102, "Ann") + order_line("cups", 1.25, 3);
    Message reply = link.exchange(field_call("ORDER", field_buffer(two)));
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.data, sum_of(2, 13.75, "accepted"));
    // Prices and quantities belong to the items by their number, wherever they stand.
    const std::string apart = double_entry(104, 2.5) + double_entry(104, 1.25) + entry(INT, 105, word(4)) +
                              text_entry(103, "tea") + entry(INT, 105, word(3)) + text_entry(103, "cups");
    EXPECT_EQ(link.exchange(field_call("ORDER", field_buffer(apart))).data, reply.data);
}

TEST(ClhsimOrder, NumberComesBack)
{
    Simulator server;
    Link link = server.log_in();
    const std::string data = field_buffer(order_line("tea", 1, 1) + entry(LONG, 101, word(0xfffffff0)));
    Message reply = link.exchange(field_call("ORDER", data));
    EXPECT_EQ(reply.data.substr(8, 8), entry(LONG, 101, word(0xfffffff0)));
}

TEST(ClhsimOrder, WhatIsMissingOrSenselessFails)
{
    Simulator server;
    Link link = server.log_in();
    const std::string good = order_line("tea", 2.5, 4);
    const struct {
        std::string entries;
        int32_t line;
        const char *status;
    } orders[] = {
        {"", 1, "line 1: missing"},
        {order_line("", 1, 1), 1, "line 1: no item"},
        {good + double_entry(104, 1) + entry(INT, 105, word(1)), 2, "line 2: no item"},
        {good + text_entry(103, "cups") + entry(INT, 105, word(1)), 2, "line 2: no price"},
        {good + order_line("cups", -0.5, 1), 2, "line 2: no price"},
        {order_line("cups", std::bit_cast<double>(0x7ff8000000000000), 1), 1, "line 1: no price"},
        {order_line("cups", 1e300, 1), 1, "line 1: no price"},
        {good + text_entry(103, "cups") + double_entry(104, 1), 2, "line 2: no quantity"},
        {order_line("cups", 1, 0), 1, "line 1: no quantity"},
        {order_line("cups", 1, -1), 1, "line 1: no quantity"},
        {order_line("cups", 1, 1000001), 1, "line 1: no quantity"},
    };
    for (const auto &order : orders) {
        Message reply = link.exchange(field_call("ORDER", field_buffer(order.entries)));
        EXPECT_EQ(reply.msgtype, 2003);
        EXPECT_EQ(reply.flags, SVCFAIL);
        EXPECT_EQ(reply.rcode, order.line);
        EXPECT_EQ(reply.data, sum_of(0, 0, order.status)) << order.status;
    }
}

TEST(ClhsimOrder, LinesHaveALimit)
{
    Simulator server;
    Link link = server.log_in();
    std::string lines;
    for (int i = 0; i < 1000; i++)
        lines += order_line("tea", 0.5, 2);
    EXPECT_EQ(link.exchange(field_call("ORDER", field_buffer(lines))).data, sum_of(1000, 1000, "accepted"));
    for (int i = 0; i < 2; i++) {
        lines += order_line("tea", 0.5, 2);
        Message reply = link.exchange(field_call("ORDER", field_buffer(lines)));
        EXPECT_EQ(reply.rcode, 1001);
        EXPECT_EQ(reply.data, sum_of(0, 0, "line 1001: one too many"));
    }
}

static std::string padded(const std::string &text, size_t size)
{
    return text + std::string(size - text.size(), '\0');
}

static std::string record_line(const std::string &item, double price, int32_t quantity)
{
    return padded(item, 16) + eight(price) + word(4711) + word(static_cast<uint32_t>(quantity));
}

static std::string record(uint32_t count, const std::string &lines, double total = 0,
                          const std::string &status = "")
{
    return padded("Ann", 24) + word(77) + word(count) + padded(lines, 160) + eight(total) +
           padded(status, 40);
}

TEST(ClhsimOrder, RecordGetsItsSum)
{
    Simulator server;
    Link link = server.log_in();
    const std::string two = record_line("tea", 2.5, 4) + record_line("sixteen letters.", 1.25, 3);
    Message call = struct_call("ORDER", "order", record(2, two, -1, std::string(40, '?')));
    Message reply = link.exchange(call);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.subtype, "order");
    EXPECT_EQ(reply.data, record(2, two, 13.75, "accepted"));

    reply = link.exchange(struct_call("ORDER", "order", record(3, two, 13.75, "accepted")));
    EXPECT_EQ(reply.flags, SVCFAIL);
    EXPECT_EQ(reply.rcode, 3);
    EXPECT_EQ(reply.data, record(3, two, 0, "line 3: no item"));
}

TEST(ClhsimOrder, RecordThatLiesIsRefused)
{
    Simulator server;
    Link link = server.log_in();
    for (uint32_t count : {6u, 0x7fffffffu, 0x80000000u, 0xffffffffu})
        EXPECT_EQ(link.exchange(struct_call("ORDER", "order", record(count, ""))).flags, INVAL) << count;
    for (size_t size : {0, 1, 28, 239, 241, 480})
        EXPECT_EQ(link.exchange(struct_call("ORDER", "order", std::string(size, '\0'))).flags, INVAL) << size;
    EXPECT_EQ(link.exchange(struct_call("ORDER", "ordre", record(0, ""))).flags, ITYPE);
    EXPECT_EQ(link.exchange(struct_call("ORDER", "", record(0, ""))).flags, ITYPE);
}
