// Sealed messages: what arrives, what is refused, and both directions at once.
#include "kex_pair.h"

#include <condition_variable>
#include <deque>
#include <gtest/gtest.h>
#include <limits.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "session.h"

namespace {

// As seal and unseal, in ordinary memory, for the tests that run through many messages.
std::string seal_plain(void *handle, const std::string &message)
{
    std::string sealed(message.size() + KEXCLI_MAX_OVERHEAD, '\0');
    int length = _dh_encrypt(handle, sealed.data(), message.data(), (int)message.size());
    sealed.resize(length < 0 ? 0 : (size_t)length);
    return sealed;
}

std::string unseal_plain(void *handle, const std::string &sealed)
{
    std::string message(sealed.size(), '\0');
    message.resize((size_t)_dh_decrypt(handle, message.data(), sealed.data(), (int)sealed.size()));
    return message;
}

struct KexSeal : testing::Test {
    KexPair pair;

    void SetUp() override { ASSERT_TRUE(pair.establish()); }

    kex_session *client_record() { return (kex_session *)pair.client; }
    kex_session *server_record() { return (kex_session *)pair.server; }
};

TEST_F(KexSeal, AllSizesArriveBothWays)
{
    Dice dice(41);
    std::vector<size_t> sizes;
    for (size_t size = 1; size <= 700; size++)
        sizes.push_back(size);
    for (size_t size : {4095u, 4096u, 4097u, 65535u, 65536u, 1000000u, 20000001u})
        sizes.push_back(size);
    for (size_t size : sizes) {
        std::string message = dice.bytes(size);
        ASSERT_TRUE(unseal(pair.server, seal(pair.client, message)) == message) << size;
        ASSERT_TRUE(unseal(pair.client, seal(pair.server, message)) == message) << size;
    }
}

TEST_F(KexSeal, AddsTwentyBytes)
{
    EXPECT_EQ(seal(pair.client, "x").size(), 21u);
    EXPECT_EQ(seal(pair.client, std::string(136, 'x')).size(), 156u);
    EXPECT_LE(SEAL_OVERHEAD, (size_t)KEXCLI_MAX_OVERHEAD);
}

TEST_F(KexSeal, AHundredThousandMessagesBothWays)
{
    for (int number = 0; number < 100000; number++) {
        std::string message = "message " + std::to_string(number);
        ASSERT_EQ(unseal_plain(pair.server, seal_plain(pair.client, message)), message);
        ASSERT_EQ(unseal_plain(pair.client, seal_plain(pair.server, message)), message);
    }
}

TEST_F(KexSeal, TheSameMessageNeverLooksTheSame)
{
    std::string first = seal(pair.client, "the same words"), second = seal(pair.client, "the same words");
    std::string back = seal(pair.server, "the same words");
    EXPECT_NE(first, second);
    EXPECT_NE(first, back);
    EXPECT_EQ(first.find("words"), std::string::npos);
    EXPECT_EQ(first.substr(0, 4), "KX\x01\x04");
}

TEST_F(KexSeal, EveryFlippedBitIsRefusedAndTheTrueMessageStillArrives)
{
    std::string message = Dice(42).bytes(200), sealed = seal(pair.client, message);
    for (size_t bit = 0; bit < sealed.size() * 8; bit++) {
        std::string spoilt = sealed;
        spoilt[bit / 8] = (char)(spoilt[bit / 8] ^ (1 << bit % 8));
        ASSERT_EQ(unseal(pair.server, spoilt), "") << bit;
    }
    EXPECT_EQ(unseal(pair.server, sealed), message);
}

TEST_F(KexSeal, EveryTruncationAndEveryAdditionIsRefused)
{
    std::string sealed = seal(pair.client, std::string(150, 'm'));
    for (size_t length = 0; length < sealed.size(); length++)
        ASSERT_EQ(unseal(pair.server, sealed.substr(0, length)), "") << length;
    for (size_t more = 1; more < 40; more++)
        ASSERT_EQ(unseal(pair.server, sealed + std::string(more, '\0')), "") << more;
    EXPECT_EQ(unseal(pair.server, sealed), std::string(150, 'm'));
}

TEST_F(KexSeal, ARepeatedMessageIsRefused)
{
    std::string sealed = seal(pair.client, "pay once");
    EXPECT_EQ(unseal(pair.server, sealed), "pay once");
    EXPECT_EQ(unseal(pair.server, sealed), "");
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "next")), "next");
    EXPECT_EQ(unseal(pair.server, sealed), "");
}

TEST_F(KexSeal, MessagesOutOfOrderAreRefused)
{
    std::string first = seal(pair.client, "first"), second = seal(pair.client, "second");
    EXPECT_EQ(unseal(pair.server, second), "");
    EXPECT_EQ(unseal(pair.server, first), "first");
    EXPECT_EQ(unseal(pair.server, second), "second");
}

TEST_F(KexSeal, ALostMessageStopsAllThatFollow)
{
    seal(pair.client, "lost");
    for (int turn = 0; turn < 10; turn++)
        EXPECT_EQ(unseal(pair.server, seal(pair.client, "later")), "");
}

TEST_F(KexSeal, OnesOwnMessageSentBackIsRefused)
{
    std::string from_client = seal(pair.client, "who are you"),
                from_server = seal(pair.server, "who are you");
    EXPECT_EQ(unseal(pair.client, from_client), "");
    EXPECT_EQ(unseal(pair.server, from_server), "");
    EXPECT_EQ(unseal(pair.client, from_server), "who are you");
    EXPECT_EQ(unseal(pair.server, from_client), "who are you");
}

TEST_F(KexSeal, TheLastNumberIsTheLast)
{
    client_record()->sending.number = server_record()->receiving.number = MESSAGE_LIMIT - 1;
    std::string last = seal(pair.client, "the last one");
    EXPECT_EQ(unseal(pair.server, last), "the last one");
    EXPECT_EQ(seal(pair.client, "one more"), "");
    EXPECT_EQ(client_record()->sending.number, MESSAGE_LIMIT);
    EXPECT_EQ(unseal(pair.server, last), "");
    EXPECT_EQ(unseal(pair.client, seal(pair.server, "the other way goes on")), "the other way goes on");
}

TEST_F(KexSeal, NumbersBeyondFourBytesCount)
{
    client_record()->sending.number = server_record()->receiving.number = 0xffffffffULL;
    std::string before = seal(pair.client, "before"), behind = seal(pair.client, "behind");
    EXPECT_EQ(unseal(pair.server, before), "before");
    server_record()->receiving.number = 0;  // the low half of the number of `behind`
    EXPECT_EQ(unseal(pair.server, behind), "");
    server_record()->receiving.number = 0x100000000ULL;
    EXPECT_EQ(unseal(pair.server, behind), "behind");
}

TEST_F(KexSeal, EmptyMessagesAndImpossibleLengthsAreRefused)
{
    char source[32] = {};
    std::vector<char> destination(32 + KEXCLI_MAX_OVERHEAD);
    EXPECT_EQ(_dh_encrypt(pair.client, destination.data(), source, 0), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, destination.data(), source, -1), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, destination.data(), source, INT_MIN), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, destination.data(), source, INT_MAX), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, destination.data(), source, INT_MAX - 19), -1);
    for (int length : {0, 1, 4, 19, 20, -1, INT_MIN})
        EXPECT_EQ(_dh_decrypt(pair.server, destination.data(), source, length), 0) << length;
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "no number was used")), "no number was used");
}

TEST_F(KexSeal, NullHandlesAndBuffersAreRefused)
{
    char source[32] = {}, destination[32 + KEXCLI_MAX_OVERHEAD];
    EXPECT_EQ(_dh_encrypt(nullptr, destination, source, 32), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, nullptr, source, 32), -1);
    EXPECT_EQ(_dh_encrypt(pair.client, destination, nullptr, 32), -1);
    EXPECT_EQ(_dh_decrypt(nullptr, destination, source, 32), 0);
    EXPECT_EQ(_dh_decrypt(pair.client, nullptr, source, 32), 0);
    EXPECT_EQ(_dh_decrypt(pair.client, destination, nullptr, 32), 0);
}

// A caller compares the result with 136 as an unsigned number; a negative one would pass for a message.
TEST_F(KexSeal, ARefusalIsBelowTheSizeOfAHeaderAsAnUnsignedNumber)
{
    std::string sealed = seal(pair.client, std::string(200, 'm'));
    sealed[30] = (char)(sealed[30] ^ 1);
    std::vector<char> destination(sealed.size() + 136);
    EXPECT_LT((unsigned)_dh_decrypt(pair.server, destination.data(), sealed.data(), (int)sealed.size()),
              136u);
    EXPECT_LT((unsigned)_dh_decrypt(nullptr, destination.data(), sealed.data(), (int)sealed.size()), 136u);
}

TEST(KexSealEarly, NothingIsSealedOrUnsealedBeforeTheExchangeHasEnded)
{
    KexPair pair;
    std::string hello, answer;
    EXPECT_EQ(seal(pair.client, "x"), "");
    EXPECT_EQ(seal(pair.server, "x"), "");
    negotiate(pair.client, "", &hello);
    EXPECT_EQ(seal(pair.client, "x"), "");
    negotiate(pair.server, hello, &answer);
    EXPECT_EQ(seal(pair.server, "x"), "");
    EXPECT_EQ(unseal(pair.server, "KX\x01\x04" + std::string(40, 'x')), "");
}

// What one thread hands to the next, in order.
struct Queue {
    std::mutex lock;
    std::condition_variable filled;
    std::deque<std::string> waiting;

    void put(std::string item)
    {
        std::lock_guard<std::mutex> held(lock);
        waiting.push_back(std::move(item));
        filled.notify_one();
    }
    std::string take()
    {
        std::unique_lock<std::mutex> held(lock);
        filled.wait(held, [this] { return !waiting.empty(); });
        std::string item = std::move(waiting.front());
        waiting.pop_front();
        return item;
    }
};

// Four threads on two handles: each handle enciphers on one and deciphers on another at the same time.
TEST_F(KexSeal, BothDirectionsRunAtOnceOnOneHandle)
{
    constexpr int MESSAGES = 20000;
    Queue to_server, to_client;
    auto send = [](void *handle, Queue *queue, uint64_t seed) {
        Dice dice(seed);
        for (int number = 0; number < MESSAGES; number++)
            queue->put(seal_plain(handle, dice.bytes(dice.below(600) + 1)));
    };
    auto receive = [](void *handle, Queue *queue, uint64_t seed) {
        Dice dice(seed);
        int wrong = 0;
        for (int number = 0; number < MESSAGES; number++)
            wrong += unseal_plain(handle, queue->take()) != dice.bytes(dice.below(600) + 1);
        EXPECT_EQ(wrong, 0);
    };
    std::thread threads[] = {
        std::thread(send, pair.client, &to_server, 51),
        std::thread(receive, pair.client, &to_client, 52),
        std::thread(send, pair.server, &to_client, 52),
        std::thread(receive, pair.server, &to_server, 51),
    };
    for (std::thread &thread : threads)
        thread.join();
}

}  // namespace
