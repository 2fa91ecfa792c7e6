// Frames that lie about themselves. Whatever they say, the library stays inside its memory and comes back:
// with a message whose data lies within its buffer, or with an error. Run under the address sanitizer, too.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "calls/cscommon.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/receive_fixture.h"

namespace {

struct Hostile : Receive {
    // Blocks of gigabytes cost a sanitizer seconds each: all but the tests of the longest lengths do without.
    Hostile() { faults::limit_allocation(64 << 20); }

    // Every way to read: with and without a wanted message, with and without a limit.
    enum way { WANTED, WANTED_WITHIN, ANY, ANY_WITHIN, READY, WAYS };

    // Feeds the bytes, hangs up behind them, and reads. The result is checked and freed; true if there was
    // one.
    bool feed(const std::string &bytes, way how)
    {
        reconnect();
        waiting(100);
        send_beside(bytes);
        if (sender.joinable())
            sender.join();
        peer.half_close();
        set_tperrno(0);
        msg_header *result = read_by(how);
        bool wanted = how == WANTED || how == WANTED_WITHIN || how == READY;
        if (result == nullptr) {
            block->new_clhfd = -1;
            return false;
        }
        if (wanted)
            want = result;
        check(result);
        if (!wanted)
            free(result);
        block->new_clhfd = -1;
        return true;
    }

    msg_header *read_by(way how)
    {
        switch (how) {
        case WANTED:
            return _read_csmsg_from_clh(-1, want, block);
        case WANTED_WITHIN:
            return _read_csmsg_from_clh_timeout(want, 10, block);
        case ANY:
            return _read_csmsg_from_clh(-1, nullptr, block);
        case ANY_WITHIN:
            return _read_csmsg_from_clh_timeout(nullptr, 10, block);
        case READY:
        case WAYS:
            break;
        }
        block->new_clhfd = (int)block->clhfd;
        msg_header *result = _read_csmsg_from_ready_clh(block->new_clhfd, want, 0, block);
        block->new_clhfd = -1;
        return result;
    }

    // The data lies within the buffer that the header names, and the block has that room.
    static void check(msg_header *result)
    {
        ASSERT_GE(result->datalen, 0);
        ASSERT_GE(result->bufsize, 0);
        ASSERT_LE(result->datalen, result->bufsize);
        unsigned sum = 0;
        for (int32_t i = 0; i < result->datalen; i++)
            sum += (unsigned char)message_data(result)[i];
        EXPECT_GE(sum, 0u);
        size_t room = (size_t)result->bufsize;
        memset(message_data(result), 0x5a, std::min<size_t>(room, 1 << 20));
        if (room > 0)
            message_data(result)[room - 1] = 0x5a;
    }

    void feed_every_way(const std::string &bytes)
    {
        for (int how = 0; how < WAYS; how++) {
            SCOPED_TRACE("way " + std::to_string(how));
            feed(bytes, (way)how);
            EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
            pthread_mutex_unlock(&block->msg_mutex);
            if (how == WANTED || how == WANTED_WITHIN) {
                EXPECT_EQ(block->reader_busy, 0);
            }
        }
        // The library is as good as new on the next connection.
        reconnect();
        waiting(100);
        peer.send(call_reply("good"));
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), "good");
    }
};

const uint32_t LENGTHS[] = {0,          1,          8,          135,        136,        137,
                            1863,       1864,       1865,       1866,       2000,       4095,
                            4096,       4097,       100000,     0x7ffffeff, 0x7fffff77, 0x7fffff78,
                            0x7fffffff, 0x80000000, 0x80000001, 0xfffffc00, 0xffffff78, 0xfffffff7,
                            0xfffffff8, 0xffffffff};

}

TEST_F(Hostile, EveryLengthOfAPlainMessage)
{
    for (uint32_t datalen : LENGTHS)
        for (uint32_t bufsize : {0u, 3u, 1024u, 1865u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
            SCOPED_TRACE(std::to_string(datalen) + " in " + std::to_string(bufsize));
            wire::frame message = call_reply("");
            message.buftype = wire::STRING;
            message.datalen = (int32_t)datalen;
            message.bufsize = (int32_t)bufsize;
            feed_every_way(wire::encode(message) + long_text(6000));
        }
}

TEST_F(Hostile, LongestLengthsWhereMemoryIsPlenty)
{
    // Sums of a length and a head must not wrap round, even if the block can be had.
    faults::limit_allocation(0);
    std::string tail = long_text(6000);
    for (uint32_t length : {0x7fffffffu, 0x7ffffff8u, 0x7ffffff7u, 0x7fffff78u}) {
        SCOPED_TRACE(length);
        feed(wire::word(wire::RAW_FRAME) + wire::word(length) + tail, WANTED);
        feed(wire::word(wire::COMPRESSED_FRAME) + wire::word(length) + wire::word(0) + wire::word(3000) +
                 tail,
             WANTED);
        feed(wire::word(wire::ENVELOPE_FRAME) + wire::word(length) + wire::word(10) + wire::word(1001) + tail,
             WANTED);
        wire::frame message = call_reply("");
        message.datalen = (int32_t)length;
        feed(wire::encode(message) + tail, WANTED);
        message.datalen = 3;
        message.bufsize = (int32_t)length;
        feed(wire::encode(message) + "abc", WANTED);
        std::string packed = wire::compressed_frame(wire::encode(call_reply(tail)));
        feed(packed.replace(12, 4, wire::word(length)), WANTED);
    }
}

TEST_F(Hostile, BufsizeThatUnderstatesTheDataIsGrown)
{
    // What the wire carries is delivered: the message is whole, only its header says too little.
    for (int32_t length : {101, 1864, 1865, 5000, 100000})
        for (int32_t bufsize : {0, 1, 99, 100, -1}) {
            SCOPED_TRACE(std::to_string(length) + " in " + std::to_string(bufsize));
            std::string data = long_text((size_t)length);
            reconnect();
            waiting(100);
            send_beside(wire::encode(call_reply(data, {.bufsize = bufsize == -1 ? -7 : bufsize})));
            msg_header *result = read();
            sender.join();
            if (result == nullptr) {
                EXPECT_NE(error(), 0);  // refusing it would do as well
                continue;
            }
            check(result);
            EXPECT_LE(result->datalen, length);
        }
}

TEST_F(Hostile, EveryLengthOfARawFrame)
{
    for (uint32_t length : LENGTHS) {
        SCOPED_TRACE(length);
        feed_every_way(wire::word(wire::RAW_FRAME) + wire::word(length) + long_text(6000));
    }
}

TEST_F(Hostile, EveryLengthOfAnEnvelope)
{
    for (uint32_t length : LENGTHS)
        for (uint32_t type : {1001u, 1003u}) {
            SCOPED_TRACE(std::to_string(length) + " of type " + std::to_string(type));
            feed_every_way(wire::word(wire::ENVELOPE_FRAME) + wire::word(length) + wire::word(10) +
                           wire::word(type) + long_text(6000));
        }
}

TEST_F(Hostile, EveryLengthOfACompressedFrame)
{
    std::string good = wire::compressed_frame(wire::encode(call_reply(long_text(700))));
    for (uint32_t length : LENGTHS) {
        SCOPED_TRACE(length);
        std::string bytes = good + long_text(6000);
        feed_every_way(bytes.replace(4, 4, wire::word(length)));
    }
}

TEST_F(Hostile, CompressedFrameThatLiesAboutItsPlainSize)
{
    std::string small = wire::compressed_frame(wire::encode(call_reply(long_text(700))));
    std::string large = wire::compressed_frame(wire::encode(call_reply(long_text(70000))));
    for (uint32_t size : LENGTHS)
        for (std::string bytes : {small, large}) {
            SCOPED_TRACE(size);
            feed_every_way(bytes.replace(12, 4, wire::word(size)));
        }
}

TEST_F(Hostile, CompressedMessageWhoseHeaderLies)
{
    for (uint32_t datalen : LENGTHS)
        for (uint32_t bufsize : {0u, 700u, 0x7fffffffu, 0x80000000u}) {
            SCOPED_TRACE(std::to_string(datalen) + " in " + std::to_string(bufsize));
            wire::frame message = call_reply(long_text(700));
            message.datalen = (int32_t)datalen;
            message.bufsize = (int32_t)bufsize;
            feed_every_way(wire::compressed_frame(wire::encode(message)));
        }
}

TEST_F(Hostile, CompressedMessageShorterThanAHeader)
{
    for (size_t length = 0; length < 137; length += 5) {
        SCOPED_TRACE(length);
        feed_every_way(wire::compressed_frame(wire::encode(call_reply("")).substr(0, length)));
    }
}

TEST_F(Hostile, CompressedNoise)
{
    unsigned seed = 7;
    for (int round = 0; round < 200; round++) {
        std::string noise;
        for (int i = 0; i < 40 + round; i++)
            noise += (char)((seed = seed * 1103515245 + 12345) >> 16);
        feed(wire::word(wire::COMPRESSED_FRAME) + wire::word((uint32_t)noise.size()) + wire::word(0) +
                 wire::word(3000) + noise,
             (way)(round % WAYS));
    }
}

TEST_F(Hostile, ConvertedKindsWithEveryLength)
{
    for (int32_t kind : {1, 2, 11, 12})
        for (uint32_t datalen : LENGTHS) {
            SCOPED_TRACE(std::to_string(kind) + " with " + std::to_string(datalen));
            wire::frame message = call_reply("");
            message.buftype = kind;
            message.subtype = "nosuchstruct";
            message.datalen = (int32_t)datalen;
            message.bufsize = 100000;
            feed_every_way(wire::encode(message) + std::string(6000, '\xff'));
        }
}

TEST_F(Hostile, EveryMessageTypeWithWildDescriptorsAndFlags)
{
    // Whatever arrives unasked is dealt with or ends the wait; the tables keep their bounds.
    _init_qcall(3, block);
    for (int32_t type :
         {6,    8,    12,   13,   14,   19,   130,  501,  507,  1003, 1004, 2004, 3004,      1005,
          1007, 3007, 1018, 1025, 2025, 2005, 2007, 2003, 2051, 1500, 2006, -1,   INT32_MIN, INT32_MAX})
        for (int32_t number : {-1, INT32_MIN, INT32_MAX, 3, 8})
            for (uint32_t flags : {0u, 0xffffffffu, 0x1000u, 0x8000u}) {
                wire::frame message =
                    wire::message(type, "data", {.flags = flags, .cd = number, .seqno = number});
                message.value = number;
                message.xflags = flags;
                message.subtype = "0123456789abcdef";  // no NUL in the field
                message.svcname = std::string(32, 'n');
                feed(wire::encode(message), WANTED);
                block->rolling_failed = 0;
                block->block_time = 0;
            }
}

TEST_F(Hostile, FirstBytesOfEveryKind)
{
    unsigned seed = 1;
    for (int round = 0; round < 300; round++) {
        std::string noise;
        for (int i = 0; i < round; i++)
            noise += (char)((seed = seed * 1103515245 + 12345) >> 16);
        feed(noise, (way)(round % WAYS));
    }
}
