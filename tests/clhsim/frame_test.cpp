// Frames: whole, in pieces, compressed, and such as no honest client sends.
#include "simulator.h"

#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>

static std::string incompressible(size_t size)
{
    std::mt19937 random(7);
    std::string data(size, '\0');
    for (char &c : data)
        c = static_cast<char>(random());
    return data;
}

TEST(ClhsimFrame, SplitAtEveryByte)
{
    Simulator server({"--local", "DIR"});
    Link link = server.log_in();
    std::string frame = bytes_of(string_call("TOUPPER", "abcdef"));
    for (size_t cut = 1; cut < frame.size(); cut++) {
        link.send(frame.substr(0, cut));
        ASSERT_TRUE(link.silent());
        link.send(frame.substr(cut));
        ASSERT_EQ(link.receive().text(), "ABCDEF") << cut;
    }
}

TEST(ClhsimFrame, ByteByByte)
{
    Simulator server({"--local", "DIR"});
    Link link = server.connect();
    Message start;
    start.msgtype = MSG_TPSTART;
    std::string bytes = bytes_of(start) + bytes_of(string_call("TOUPPER", "abc")) +
                        compressed_bytes_of(string_call("REVERSE", "abc"));
    for (char byte : bytes)
        link.send(std::string(1, byte));
    EXPECT_EQ(link.receive().msgtype, 1001);
    EXPECT_EQ(link.receive().text(), "ABC");
    EXPECT_EQ(link.receive().text(), "cba");
}

TEST(ClhsimFrame, CompressedFrameSplitAtEveryByte)
{
    Simulator server({"--local", "DIR"});
    Link link = server.log_in();
    std::string frame = compressed_bytes_of(string_call("TOUPPER", "abcdef"));
    for (size_t cut = 1; cut < frame.size(); cut++) {
        link.send(frame.substr(0, cut));
        ASSERT_TRUE(link.silent());
        link.send(frame.substr(cut));
        ASSERT_EQ(link.receive().text(), "ABCDEF") << cut;
    }
}

TEST(ClhsimFrame, ManyInOneWrite)
{
    Simulator server;
    Link link = server.log_in();
    std::string bytes;
    for (int i = 0; i < 500; i++)
        bytes += bytes_of(call_of("ECHO", std::to_string(i), i % 2 ? MSG_TPCALL : MSG_TPACALL, CARRAY, i));
    link.send(bytes);
    for (int i = 0; i < 500; i++) {
        Message reply = link.receive();
        ASSERT_EQ(reply.seqno, i);
        ASSERT_EQ(reply.data, std::to_string(i));
    }
}

TEST(ClhsimFrame, CompressedRequestIsUnderstood)
{
    Simulator server;
    Link link = server.log_in();
    for (size_t size : {0, 1, 100, 100000}) {
        link.send(compressed_bytes_of(call_of("ECHO", std::string(size, 'x'), MSG_TPCALL, CARRAY)));
        Message reply = link.receive();
        EXPECT_EQ(reply.data, std::string(size, 'x'));
        EXPECT_FALSE(reply.compressed);
    }
    EXPECT_EQ(server.stat("compressed_in"), 4);
    EXPECT_EQ(server.stat("compressed_out"), 0);
}

TEST(ClhsimFrame, RepliesAreCompressedFromTheThresholdOn)
{
    Simulator server({"--threshold", "1000"});
    Link link = server.log_in();
    EXPECT_FALSE(link.exchange(call_of("ECHO", std::string(999, 'x'))).compressed);
    Message reply = link.exchange(call_of("ECHO", std::string(1000, 'x')));
    EXPECT_TRUE(reply.compressed);
    EXPECT_EQ(reply.data, std::string(1000, 'x'));
    std::string noise = incompressible(300000);
    reply = link.exchange(call_of("ECHO", noise, MSG_TPCALL, CARRAY));
    EXPECT_TRUE(reply.compressed);
    EXPECT_TRUE(reply.data == noise);
}

TEST(ClhsimFrame, CompressionOfItsOwnCanBeSetApart)
{
    Simulator plain({"--threshold", "10", "--compress", "-1"});
    EXPECT_FALSE(plain.log_in().exchange(call_of("ECHO", std::string(5000, 'x'))).compressed);
    Simulator all({"--compress", "0"});
    Link link = all.connect();
    Message start = link.start();
    EXPECT_TRUE(start.compressed);
    EXPECT_EQ(get(start.data, start.data.size() - 4), 0xffffffffu) << "the client's threshold";
    Message reply = link.exchange(call_of("ECHO", "", MSG_TPCALL, HEADER_ONLY));
    EXPECT_TRUE(reply.compressed);
    EXPECT_EQ(reply.datalen, 0);
}

// Sends the bytes behind a login; the server must hang up on them, and go on for everybody else.
static void expect_hang_up(Simulator &server, const std::string &bytes, const std::string &what)
{
    Link link = server.log_in();
    link.send(bytes);
    EXPECT_TRUE(link.ended()) << what;
}

TEST(ClhsimHostile, LengthsOutOfBoundsEndTheConnection)
{
    Simulator server({"--max-data", "5000"});
    Message message = string_call("ECHO", "abc");
    for (int32_t length : {-1, INT32_MIN, INT32_MAX, 5001, 0x10000}) {
        message.datalen = length;
        expect_hang_up(server, header_of(message) + "abc", std::to_string(length));
    }
    EXPECT_EQ(server.log_in().exchange(call_of("ECHO", std::string(5000, 'x'))).datalen, 5000);
    EXPECT_EQ(server.stat("broken"), 5);
}

TEST(ClhsimHostile, ForeignFirstWordEndsTheConnection)
{
    Simulator server;
    for (uint32_t word : {0u, 0x82203590u, 6666u, 77777777u, 0xffffffffu, 0x47455420u}) {
        std::string bytes(136, 'x');
        put(bytes, 0, word);
        expect_hang_up(server, bytes, std::to_string(word));
    }
}

TEST(ClhsimHostile, ClaimedBufsizeDoesntMatter)
{
    Simulator server;
    Link link = server.log_in();
    for (int32_t size : {-1, 0, INT32_MAX, INT32_MIN}) {
        Message call = string_call("TOUPPER", "abc");
        call.bufsize = size;
        EXPECT_EQ(link.exchange(call).text(), "ABC");
    }
}

TEST(ClhsimHostile, NamesWithoutNulAreBounded)
{
    Simulator server;
    Link link = server.log_in();
    Message call = string_call(std::string(32, 'S'), "abc");
    call.subtype = std::string(16, 'T');
    EXPECT_EQ(link.exchange(call).flags, 6);
}

TEST(ClhsimHostile, LyingCompressedFramesEndTheConnection)
{
    Simulator server({"--max-data", "5000"});
    std::string honest = compressed_bytes_of(call_of("ECHO", std::string(500, 'x')));
    for (uint32_t plain_size : {0u, 135u, 635u, 637u, 5137u, 0x7fffffffu, 0xffffffffu}) {
        std::string lie = honest;
        put(lie, 8, plain_size);
        expect_hang_up(server, lie, "plain size " + std::to_string(plain_size));
    }
    std::string longer = honest;
    put(longer, 4, 0x7fffffff);
    expect_hang_up(server, longer, "endless");
    std::string shorter = honest;
    put(shorter, 4, get(honest, 4) - 1);
    expect_hang_up(server, shorter, "cut");
    std::string damaged = honest;
    damaged.replace(16, damaged.size() - 16, damaged.size() - 16, '\xff');
    expect_hang_up(server, damaged, "damaged");
    EXPECT_EQ(server.log_in().exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimHostile, CompressedHeaderMustAgreeWithItsFrame)
{
    Simulator server;
    for (int32_t length : {-1, 0, 499, 501, INT32_MAX}) {
        Message message = call_of("ECHO", std::string(500, 'x'));
        message.datalen = length;
        expect_hang_up(server, compressed_frame_of(header_of(message) + message.data),
                       std::to_string(length));
    }
    expect_hang_up(server, compressed_frame_of(std::string(200, 'x')), "no header");
}

TEST(ClhsimHostile, RandomBytesNeverBreakIt)
{
    Simulator server({"--max-data", "100000"});
    std::mt19937 random(1);
    for (int round = 0; round < 200; round++) {
        Link link = server.log_in();
        std::string bytes = round % 2 ? compressed_bytes_of(call_of("ECHO", std::string(300, 'x')))
                                      : bytes_of(string_call("SLEEP", "0.001"));
        for (int flips = 0; flips < 3; flips++)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        link.send(bytes);
    }
    EXPECT_EQ(server.log_in().exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimHostile, WhoDoesntReadIsntServedEndlessly)
{
    Simulator server;
    Link lazy = server.log_in();
    Link other = server.log_in();
    // Far more than the connection and the server hold: it must stop taking requests, and then serve them
    // all.
    constexpr int CALLS = 80;
    std::string request = bytes_of(string_call("BIG", "1000000"));
    for (int i = 0; i < CALLS; i++)
        lazy.send(request);
    EXPECT_EQ(other.exchange(string_call("TOUPPER", "a")).text(), "A");
    EXPECT_LT(server.stat("calls.BIG"), CALLS);
    for (int i = 0; i < CALLS; i++)
        ASSERT_EQ(lazy.receive().datalen, 1000000);
    EXPECT_EQ(server.stat("calls.BIG"), CALLS);
}

TEST(ClhsimHostile, WhoGoesAwayWithoutReadingIsForgotten)
{
    Simulator server;
    for (int i = 0; i < 5; i++) {
        Link link = server.log_in();
        link.send(bytes_of(string_call("BIG", "20000000")) + bytes_of(string_call("SLEEP", "100000")));
    }
    Link last = server.log_in();
    EXPECT_EQ(last.exchange(string_call("TOUPPER", "a")).text(), "A");
}
