// Compression: what fits into which room, and what a hostile block can't do.
#include "sqz.h"

#include "guarded.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int64_t HEADER = 136;

// The room that the send path gives for a message of HEADER + n bytes.
int64_t sender_room(int64_t n)
{
    return ((n + 148) >> 9) + 148 + n;
}

std::string repeating(size_t length)
{
    std::string made;
    while (made.size() < length)
        made += "service call " + std::to_string(made.size() / 1000) + "; ";
    made.resize(length);
    return made;
}

// Compresses into guarded memory of just `room` bytes; the result code, and the block if it is 0.
int compress(const std::string &message, int64_t room, std::string *block)
{
    Guarded source(message), destination((size_t)room);
    int64_t length = room;
    int result = _vorn_compress(destination.data, &length, source.data, (int64_t)message.size());
    if (result != SQZ_OK) {
        EXPECT_EQ(length, room) << "a failure leaves the length alone";
        return result;
    }
    EXPECT_LE(length, room);
    *block = destination.text((size_t)length);
    return result;
}

int uncompress(const std::string &block, int64_t room, std::string *message)
{
    Guarded source(block), destination((size_t)room);
    int64_t length = room;
    int result = _vorn_uncompress(destination.data, &length, source.data, (int64_t)block.size());
    if (result != SQZ_OK) {
        EXPECT_EQ(length, room) << "a failure leaves the length alone";
        return result;
    }
    EXPECT_LE(length, room);
    *message = destination.text((size_t)length);
    return result;
}

std::string compressed(const std::string &message)
{
    std::string block;
    EXPECT_EQ(compress(message, (int64_t)message.size() + SQZ_OVERHEAD, &block), SQZ_OK);
    return block;
}

void expect_round_trip(const std::string &message, int64_t room)
{
    std::string block, back;
    ASSERT_EQ(compress(message, room, &block), SQZ_OK) << message.size();
    ASSERT_EQ(uncompress(block, (int64_t)message.size(), &back), SQZ_OK) << message.size();
    ASSERT_TRUE(back == message) << message.size();
}

std::vector<size_t> sizes()
{
    std::vector<size_t> all;
    for (size_t size = 0; size <= 600; size++)
        all.push_back(size);
    for (size_t middle : {1024u, 2000u, 4096u, 65536u, 131072u, 1048576u}) {
        for (size_t size = middle - 2; size <= middle + 2; size++)
            all.push_back(size);
    }
    return all;
}

TEST(SqzRoundTrip, TextZerosAndRandomBytesOfAllSizes)
{
    Dice dice(1);
    for (size_t size : sizes()) {
        expect_round_trip(repeating(size), (int64_t)size + SQZ_OVERHEAD);
        expect_round_trip(std::string(size, '\0'), (int64_t)size + SQZ_OVERHEAD);
        expect_round_trip(dice.bytes(size), (int64_t)size + SQZ_OVERHEAD);
    }
}

TEST(SqzRoundTrip, MixOfRunsAndRandomBytes)
{
    Dice dice(2);
    for (int turn = 0; turn < 500; turn++) {
        std::string message;
        while (message.size() < 5000) {
            message += dice.bytes(dice.below(300));
            message += std::string(dice.below(300), (char)dice.below(256));
        }
        expect_round_trip(message, (int64_t)message.size() + SQZ_OVERHEAD);
    }
}

TEST(SqzRoundTrip, ManyMegabytes)
{
    Dice dice(3);
    size_t size = 20 * 1024 * 1024 + 3;
    expect_round_trip(repeating(size), (int64_t)size + SQZ_OVERHEAD);
    expect_round_trip(dice.bytes(size), (int64_t)size + SQZ_OVERHEAD);
}

TEST(SqzRoundTrip, TextShrinks)
{
    EXPECT_LT(compressed(repeating(10000)).size(), 2000u);
}

TEST(SqzRoundTrip, ThreadsDontDisturbEachOther)
{
    std::vector<std::thread> threads;
    for (uint64_t seed = 0; seed < 4; seed++) {
        threads.emplace_back([seed] {
            Dice dice(seed + 10);
            for (int turn = 0; turn < 200; turn++) {
                size_t size = dice.below(5000);
                expect_round_trip(turn % 2 == 0 ? repeating(size) : dice.bytes(size),
                                  (int64_t)size + SQZ_OVERHEAD);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

TEST(SqzRoom, RandomMessagesFitIntoTheRoomThatTheSenderReckons)
{
    Dice dice(4);
    std::vector<int64_t> lengths;
    for (int64_t n = 0; n <= 1200; n++)
        lengths.push_back(n);
    for (int64_t multiple = 3; multiple <= 128; multiple++) {
        for (int64_t n = multiple * 512 - 150; n <= multiple * 512 - 146; n++)
            lengths.push_back(n);
    }
    for (int64_t n : {65535, 65536, 100000, 1048575, 1048576})
        lengths.push_back(n);
    for (int64_t n : lengths)
        expect_round_trip(dice.bytes((size_t)(n + HEADER)), sender_room(n));
}

TEST(SqzRoom, RandomBytesNeedTheOverheadAndNotOneByteLess)
{
    Dice dice(5);
    for (size_t size : {1u, 2u, 12u, 13u, 100u, 136u, 4096u, 70000u}) {
        std::string message = dice.bytes(size), block;
        EXPECT_EQ(compress(message, (int64_t)size + SQZ_OVERHEAD - 1, &block), SQZ_EROOM) << size;
        EXPECT_EQ(compress(message, (int64_t)size + SQZ_OVERHEAD, &block), SQZ_OK) << size;
        EXPECT_EQ(block.size(), size + SQZ_OVERHEAD);
    }
}

TEST(SqzRoom, TextFitsIntoLessThanItsOwnLength)
{
    expect_round_trip(repeating(10000), 2000);
}

TEST(SqzRoom, EveryRoomTooSmallForTextIsRefused)
{
    std::string message = repeating(3000), whole = compressed(message), block;
    for (int64_t room = 0; room < (int64_t)whole.size(); room++)
        ASSERT_EQ(compress(message, room, &block), SQZ_EROOM) << room;
}

TEST(SqzRoom, OfTheUncompressedMessageMayBeExactButNotShort)
{
    Dice dice(6);
    for (const std::string &message : {repeating(3000), dice.bytes(3000)}) {
        std::string block = compressed(message), back;
        EXPECT_EQ(uncompress(block, 3000, &back), SQZ_OK);
        EXPECT_EQ(uncompress(block, 2999, &back), SQZ_EROOM);
        EXPECT_EQ(uncompress(block, 0, &back), SQZ_EROOM);
        EXPECT_EQ(uncompress(block, 50000, &back), SQZ_OK);
        EXPECT_TRUE(back == message);
    }
}

TEST(SqzFormat, StoredBlockIsHeadAndMessage)
{
    const std::string expected("SQ"                //  0  mark
                               "\x01"              //  2  version
                               "\x00"              //  3  form: stored
                               "\x00\x00\x00\x05"  //  4  length
                               "hello",            //  8  the message
                               13);
    EXPECT_EQ(compressed("hello"), expected);
}

TEST(SqzFormat, EmptyMessageIsAHead)
{
    EXPECT_EQ(compressed(""), std::string("SQ\x01\x00\x00\x00\x00\x00", 8));
}

TEST(SqzFormat, ShrunkBlockIsHeadAndOneLz4Block)
{
    const std::string expected("SQ"                //  0  mark
                               "\x01"              //  2  version
                               "\x01"              //  3  form: LZ4
                               "\x00\x00\x00\x40"  //  4  length 64
                               "\x1f"
                               "A"         //  8  one literal, then a match of 15 and more
                               "\x01\x00"  // 10  one byte back
                               "\x27"      // 12  19 + 39 = 58 bytes
                               "\x50"
                               "AAAAA",  // 13  five literals end the block
                               19);
    EXPECT_EQ(compressed(std::string(64, 'A')), expected);
}

// All of the blocks that the hostile tests spoil: both forms, short ones with every kind of LZ4 sequence.
std::vector<std::string> good_blocks()
{
    Dice dice(7);
    return {compressed(dice.bytes(200)), compressed(repeating(700)), compressed(std::string(5000, 'x')),
            compressed(dice.bytes(300) + std::string(600, 'y') + dice.bytes(20)), compressed("")};
}

TEST(SqzHostile, EveryTruncationIsRefused)
{
    for (const std::string &block : good_blocks()) {
        std::string back;
        for (size_t length = 0; length < block.size(); length++)
            ASSERT_NE(uncompress(block.substr(0, length), 8192, &back), SQZ_OK)
                << length << " of " << block.size();
    }
}

TEST(SqzHostile, BytesBehindTheBlockAreRefused)
{
    for (const std::string &block : good_blocks()) {
        std::string back;
        for (char byte : {'\0', '\1', '\x50', '\xff'})
            EXPECT_EQ(uncompress(block + byte, 8192, &back), SQZ_EDAMAGED);
    }
}

// A spoilt block may still be a block; then it gives just as many bytes as its head says.
void expect_no_harm(const std::string &block, int64_t room)
{
    std::string back;
    if (uncompress(block, room, &back) != SQZ_OK)
        return;
    ASSERT_GE(block.size(), 8u);
    uint32_t told = 0;
    for (int i = 4; i < 8; i++)
        told = told << 8 | (uint8_t)block[(size_t)i];
    ASSERT_EQ(back.size(), told);
}

TEST(SqzHostile, EveryFlippedBitStaysInsideTheRooms)
{
    for (const std::string &block : good_blocks()) {
        for (size_t bit = 0; bit < block.size() * 8; bit++) {
            std::string spoilt = block;
            spoilt[bit / 8] = (char)(spoilt[bit / 8] ^ (1 << bit % 8));
            expect_no_harm(spoilt, 4096);
            expect_no_harm(spoilt, 8192);
        }
    }
}

TEST(SqzHostile, EveryFlippedBitOfMarkVersionAndFormIsRefused)
{
    for (const std::string &block : good_blocks()) {
        for (size_t bit = 0; bit < 4 * 8; bit++) {
            std::string spoilt = block, back;
            spoilt[bit / 8] = (char)(spoilt[bit / 8] ^ (1 << bit % 8));
            ASSERT_EQ(uncompress(spoilt, 8192, &back), SQZ_EDAMAGED) << bit;
        }
    }
}

TEST(SqzHostile, EveryOtherLengthInTheHeadIsRefused)
{
    for (const std::string &block : good_blocks()) {
        std::string message, back;
        ASSERT_EQ(uncompress(block, 8192, &message), SQZ_OK);
        for (uint32_t told = 0; told < 8192; told++) {
            std::string lying = block;
            for (int i = 0; i < 4; i++)
                lying[(size_t)(4 + i)] = (char)(told >> (24 - 8 * i));
            ASSERT_EQ(uncompress(lying, 8192, &back) == SQZ_OK, told == message.size()) << told;
        }
        for (uint32_t told : {0x7fffffffu, 0x80000000u, 0xffffffffu}) {
            std::string lying = block;
            for (int i = 0; i < 4; i++)
                lying[(size_t)(4 + i)] = (char)(told >> (24 - 8 * i));
            EXPECT_NE(uncompress(lying, 8192, &back), SQZ_OK) << told;
        }
    }
}

TEST(SqzHostile, RandomContentBehindAGoodHead)
{
    Dice dice(8);
    for (int turn = 0; turn < 20000; turn++) {
        uint32_t told = (uint32_t)dice.below(4097);
        std::string block("SQ\x01\x01\x00\x00", 6);
        block += (char)(told >> 8);
        block += (char)told;
        expect_no_harm(block + dice.bytes(dice.below(200)), 4096);
    }
}

TEST(SqzHostile, ManyFlippedBytes)
{
    Dice dice(9);
    std::vector<std::string> blocks = good_blocks();
    for (int turn = 0; turn < 20000; turn++) {
        std::string spoilt = blocks[dice.below(4)];
        for (size_t flips = dice.below(8) + 1; flips > 0; flips--)
            spoilt[8 + dice.below(spoilt.size() - 8)] = (char)dice.next();
        expect_no_harm(spoilt, 8192);
    }
}

TEST(SqzHostile, Lz4FormThatIsNoShorterThanItsMessageIsRefused)
{
    const std::string block("SQ\x01\x01\x00\x00\x00\x05\x50hello", 14);  // a block of 6 bytes for 5
    std::string back;
    EXPECT_EQ(uncompress(block, 100, &back), SQZ_EDAMAGED);
}

TEST(SqzArguments, NullsAndNegativeLengthsAreRefused)
{
    char area[64] = {};
    int64_t room = sizeof area, negative = -1;
    for (auto *function : {_vorn_compress, _vorn_uncompress}) {
        EXPECT_EQ(function(nullptr, &room, area, 10), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, nullptr, area, 10), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, &room, nullptr, 10), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, &room, area, -1), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, &negative, area, 10), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, &room, area, (int64_t)INT_MAX + 1), SQZ_EARGUMENT);
        EXPECT_EQ(function(area, &room, area, INT64_MAX), SQZ_EARGUMENT);
        EXPECT_EQ(room, (int64_t)sizeof area);
    }
}

TEST(SqzArguments, RoomBeyondTheNumbersOfLz4IsTakenAsItIs)
{
    std::string message = repeating(500);
    Guarded destination(500 + SQZ_OVERHEAD);
    int64_t length = INT64_MAX;
    ASSERT_EQ(_vorn_compress(destination.data, &length, message.data(), 500), SQZ_OK);
    std::string back(500, '\0');
    int64_t back_length = INT64_MAX;
    ASSERT_EQ(_vorn_uncompress(back.data(), &back_length, destination.data, length), SQZ_OK);
    EXPECT_EQ(back_length, 500);
    EXPECT_EQ(back, message);
}

TEST(SqzArguments, AFailureSetsErrnoSoThatNothingOlderIsTakenForIt)
{
    std::string out;
    errno = EPIPE;
    EXPECT_EQ(uncompress("no block at all", 100, &out), SQZ_EDAMAGED);
    EXPECT_EQ(errno, EBADMSG);
    errno = EPIPE;
    EXPECT_EQ(uncompress(compressed("hello"), 4, &out), SQZ_EROOM);
    EXPECT_EQ(errno, ENOSPC);
    errno = EPIPE;
    EXPECT_EQ(_vorn_compress(nullptr, nullptr, nullptr, 0), SQZ_EARGUMENT);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
