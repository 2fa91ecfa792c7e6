// The exchange: its steps on both sides, and what a spoilt one comes to.
#include "kex_pair.h"

#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "session.h"

namespace {

constexpr int MESSAGE_BLOCK = 396;  // what the client's loop allocates: a header and 260 bytes
constexpr int HEADER = 136;

TEST(KexExchange, StepsAreThoseOfTheTable)
{
    KexPair pair;
    std::string out, nothing;
    ASSERT_NE(pair.client, nullptr);
    ASSERT_NE(pair.server, nullptr);
    ASSERT_EQ(negotiate(pair.client, "", &out), KEXCLI_EXCHANGE);
    EXPECT_EQ(out.size(), CLIENT_HELLO_SIZE);
    ASSERT_EQ(negotiate(pair.server, out, &out), KEXCLI_EXCHANGE);
    EXPECT_EQ(out.size(), SERVER_HELLO_SIZE);
    ASSERT_EQ(negotiate(pair.client, out, &out), KEXCLI_SEND_LAST);
    EXPECT_EQ(out.size(), CLIENT_FINISH_SIZE);
    ASSERT_EQ(negotiate(pair.server, out, &nothing), KEXCLI_FINISHED);
    EXPECT_EQ(nothing, "");
}

TEST(KexExchange, ServerWithoutInputAsksForIt)
{
    KexPair pair;
    std::string out;
    EXPECT_EQ(negotiate(pair.server, "", &out), KEXCLI_RECEIVE);
    EXPECT_EQ(out, "");
    EXPECT_EQ(negotiate(pair.server, "", &out), KEXCLI_RECEIVE);
    EXPECT_TRUE(pair.establish());
}

TEST(KexExchange, ClientThatIsSpokenToFirstFails)
{
    KexPair pair;
    std::string out;
    EXPECT_EQ(negotiate(pair.client, "KX", &out), KEXCLI_FAILURE);
    EXPECT_EQ(out, "");
    EXPECT_EQ(negotiate(pair.client, "", &out), KEXCLI_FAILURE);
}

TEST(KexExchange, HeadsTellMarkVersionAndKind)
{
    KexPair pair;
    std::string hello, answer, finish;
    negotiate(pair.client, "", &hello);
    negotiate(pair.server, hello, &answer);
    negotiate(pair.client, answer, &finish);
    EXPECT_EQ(hello.substr(0, 4), "KX\x01\x01");
    EXPECT_EQ(answer.substr(0, 4), "KX\x01\x02");
    EXPECT_EQ(finish.substr(0, 4), "KX\x01\x03");
}

// The loop as a client runs it: one block for what goes out and what comes in, with 260 bytes of data, a
// result of 2 followed by a read and a 3 by none.
TEST(KexExchange, ClientsLoopWithABlockOf260BytesComesToItsEnd)
{
    KexPair pair;
    Guarded block(MESSAGE_BLOCK), output(280);
    std::string server_out;
    int data_length = 0, rounds = 0, result;
    for (;;) {
        int32_t out_length;
        ASSERT_LT(rounds++, 3);
        result = _dh_negotiate(pair.client, block.data + HEADER, data_length, output.data, &out_length);
        ASSERT_GE(result, 0);
        ASSERT_LE(out_length, 260);
        if (result == 2 || result == 3) {
            memcpy(block.data + HEADER, output.data, (size_t)out_length);
            int server_result = negotiate(
                pair.server, block.text(MESSAGE_BLOCK).substr(HEADER, (size_t)out_length), &server_out);
            ASSERT_EQ(server_result, result == 2 ? 2 : 0);
        }
        if (result == 0 || result == 3)
            break;
        ASSERT_LE(server_out.size(), 260u);
        memcpy(block.data + HEADER, server_out.data(), server_out.size());
        data_length = (int)server_out.size();
    }
    EXPECT_EQ(rounds, 2);
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "after it")), "after it");
}

TEST(KexExchange, InputAndOutputMayBeTheSameMemory)
{
    KexPair pair;
    char area[KEXCLI_MAX_OUTPUT];
    int32_t length = 0;
    ASSERT_EQ(_dh_negotiate(pair.client, area, 0, area, &length), KEXCLI_EXCHANGE);
    ASSERT_EQ(_dh_negotiate(pair.server, area, length, area, &length), KEXCLI_EXCHANGE);
    ASSERT_EQ(_dh_negotiate(pair.client, area, length, area, &length), KEXCLI_SEND_LAST);
    ASSERT_EQ(_dh_negotiate(pair.server, area, length, area, &length), KEXCLI_FINISHED);
}

TEST(KexExchange, UnknownModesGiveNoSession)
{
    EXPECT_EQ(_dh_init_sess(-1, 3), nullptr);
    EXPECT_EQ(_dh_init_sess(2, 3), nullptr);
}

TEST(KexExchange, NullHandlesAndBuffersAreRefused)
{
    KexPair pair;
    char area[KEXCLI_MAX_OUTPUT] = {};
    int32_t length;
    EXPECT_EQ(_dh_negotiate(nullptr, area, 0, area, &length), KEXCLI_FAILURE);
    EXPECT_EQ(_dh_negotiate(pair.client, area, 0, nullptr, &length), KEXCLI_FAILURE);
    EXPECT_EQ(_dh_negotiate(pair.client, area, 0, area, nullptr), KEXCLI_FAILURE);
    EXPECT_EQ(_dh_negotiate(pair.client, nullptr, 5, area, &length), KEXCLI_FAILURE);
    EXPECT_EQ(_dh_negotiate(pair.client, area, -1, area, &length), KEXCLI_FAILURE);
    _dh_close_sess(nullptr);
    EXPECT_TRUE(pair.establish()) << "none of it was a step";
}

TEST(KexExchange, EachSessionHasKeysOfItsOwn)
{
    std::string one, other;
    KexPair first, second;
    ASSERT_TRUE(first.establish());
    ASSERT_TRUE(second.establish());
    one = seal(first.client, "the same words");
    other = seal(second.client, "the same words");
    EXPECT_NE(one, other);
    EXPECT_EQ(unseal(second.server, one), "");
    EXPECT_EQ(unseal(second.server, other), "the same words");
}

TEST(KexExchange, ClosingHalfwayIsFine)
{
    std::string out;
    void *client = _dh_init_sess(KEXCLI_MODE_CLIENT, -1);
    _dh_close_sess(_dh_init_sess(KEXCLI_MODE_SERVER, -1));
    negotiate(client, "", &out);
    void *server = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    negotiate(server, out, &out);
    _dh_close_sess(server);
    _dh_close_sess(client);
}

TEST(KexExchange, AStepTooMuchFailsAndLeavesTheSessionStanding)
{
    KexPair pair;
    std::string out;
    ASSERT_TRUE(pair.establish());
    EXPECT_EQ(negotiate(pair.client, "", &out), KEXCLI_FAILURE);
    EXPECT_EQ(negotiate(pair.server, "", &out), KEXCLI_FAILURE);
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "still here")), "still here");
    EXPECT_EQ(unseal(pair.client, seal(pair.server, "here too")), "here too");
}

// Where the exchange stands when a message is spoilt, and what has to hold then.
enum message { HELLO, ANSWER, FINISH };

// Runs an exchange in which `spoil` changes one message. True if both sides came to the end nevertheless.
// No side may come to its end before it has seen that the other has the same keys.
bool survives(message which, const std::function<std::string(std::string)> &spoil)
{
    KexPair pair;
    std::string hello, answer, finish, nothing;
    EXPECT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    if (negotiate(pair.server, which == HELLO ? spoil(hello) : hello, &answer) == KEXCLI_FAILURE) {
        EXPECT_EQ(answer, "");
        EXPECT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_FAILURE) << "a failure is final";
        return false;
    }
    EXPECT_EQ(seal(pair.server, "too early"), "");
    if (negotiate(pair.client, which == ANSWER ? spoil(answer) : answer, &finish) == KEXCLI_FAILURE) {
        EXPECT_EQ(finish, "");
        EXPECT_EQ(seal(pair.client, "no keys"), "");
        EXPECT_EQ(negotiate(pair.client, answer, &finish), KEXCLI_FAILURE) << "a failure is final";
        return false;
    }
    if (negotiate(pair.server, which == FINISH ? spoil(finish) : finish, &nothing) == KEXCLI_FAILURE) {
        EXPECT_EQ(seal(pair.server, "no keys"), "");
        EXPECT_EQ(unseal(pair.server, seal(pair.client, "hello?")), "");
        EXPECT_EQ(negotiate(pair.server, finish, &nothing), KEXCLI_FAILURE) << "a failure is final";
        return false;
    }
    return true;
}

TEST(KexExchange, EveryFlippedBitOfEveryMessageEndsIt)
{
    const size_t lengths[] = {CLIENT_HELLO_SIZE, SERVER_HELLO_SIZE, CLIENT_FINISH_SIZE};
    ASSERT_TRUE(survives(HELLO, [](std::string text) { return text; }));
    for (message which : {HELLO, ANSWER, FINISH}) {
        for (size_t bit = 0; bit < lengths[which] * 8; bit++) {
            ASSERT_FALSE(survives(which,
                                  [bit](std::string text) {
                                      text[bit / 8] = (char)(text[bit / 8] ^ (1 << bit % 8));
                                      return text;
                                  }))
                << which << " " << bit;
        }
    }
}

TEST(KexExchange, EveryOtherLengthOfEveryMessageEndsIt)
{
    const size_t lengths[] = {CLIENT_HELLO_SIZE, SERVER_HELLO_SIZE, CLIENT_FINISH_SIZE};
    for (message which : {HELLO, ANSWER, FINISH}) {
        for (size_t length = which == HELLO ? 1 : 0; length <= 260; length++) {
            if (length == lengths[which])
                continue;
            ASSERT_FALSE(survives(which,
                                  [length](std::string text) {
                                      text.resize(length, '\0');
                                      return text;
                                  }))
                << which << " " << length;
        }
    }
}

// The X25519 inputs of small order, for which the secret would be all zeros, also with the top bit set.
TEST(KexExchange, PublicKeysOfSmallOrderAreRefused)
{
    const std::vector<std::string> points = {
        std::string(32, '\0'),
        std::string("\x01", 1) + std::string(31, '\0'),
        std::string("\xe0\xeb\x7a\x7c\x3b\x41\xb8\xae\x16\x56\xe3\xfa\xf1\x9f\xc4\x6a"
                    "\xda\x09\x8d\xeb\x9c\x32\xb1\xfd\x86\x62\x05\x16\x5f\x49\xb8\x00",
                    32),
        std::string("\x5f\x9c\x95\xbc\xa3\x50\x8c\x24\xb1\xd0\xb1\x55\x9c\x83\xef\x5b"
                    "\x04\x44\x5c\xc4\x58\x1c\x8e\x86\xd8\x22\x4e\xdd\xd0\x9f\x11\x57",
                    32),
        "\xec" + std::string(30, '\xff') + "\x7f",
        "\xed" + std::string(30, '\xff') + "\x7f",
        "\xee" + std::string(30, '\xff') + "\x7f",
    };
    for (std::string point : points) {
        ASSERT_EQ(point.size(), 32u);
        for (int top = 0; top < 2; top++) {
            std::string out;
            KexPair pair;
            EXPECT_EQ(negotiate(pair.server, "KX\x01\x01" + point, &out), KEXCLI_FAILURE);
            EXPECT_EQ(out, "");
            point[31] = (char)(point[31] | 0x80);
        }
    }
    for (const std::string &point : points)
        EXPECT_FALSE(survives(ANSWER, [&point](std::string text) { return text.replace(4, 32, point); }));
}

TEST(KexExchange, OnesOwnMessagesAreNotThePeers)
{
    KexPair pair, other;
    std::string hello, answer, out;
    negotiate(pair.client, "", &hello);
    EXPECT_EQ(negotiate(pair.client, hello, &out), KEXCLI_FAILURE);
    negotiate(other.client, "", &hello);
    negotiate(other.server, hello, &answer);
    EXPECT_EQ(negotiate(other.server, answer, &out), KEXCLI_FAILURE);
}

TEST(KexExchange, MessagesOfAnotherExchangeDontFit)
{
    std::string hello, answer, finish, out;
    KexPair old;
    negotiate(old.client, "", &hello);
    negotiate(old.server, hello, &answer);
    negotiate(old.client, answer, &finish);
    EXPECT_FALSE(survives(ANSWER, [&answer](std::string) { return answer; }));
    EXPECT_FALSE(survives(FINISH, [&finish](std::string) { return finish; }));
    EXPECT_FALSE(survives(HELLO, [&hello](std::string) { return hello; }));
}

TEST(KexExchange, TwoClientsOrTwoServersDontMeet)
{
    std::string hello, other_hello, out;
    KexPair one, two;
    negotiate(one.client, "", &hello);
    negotiate(two.client, "", &other_hello);
    EXPECT_EQ(negotiate(one.client, other_hello, &out), KEXCLI_FAILURE);
    EXPECT_EQ(negotiate(one.server, hello, &out), KEXCLI_EXCHANGE);
    EXPECT_EQ(negotiate(two.server, out, &out), KEXCLI_FAILURE);
}

TEST(KexExchange, RandomBytesAreRefusedInEveryState)
{
    Dice dice(31);
    for (int turn = 0; turn < 300; turn++) {
        KexPair pair;
        std::string hello, answer, out;
        std::string junk = dice.bytes(dice.below(300) + 1);
        if (turn % 2 == 0)
            junk.replace(0, 4, std::string("KX\x01") + (char)dice.below(6));
        negotiate(pair.client, "", &hello);
        EXPECT_EQ(negotiate(pair.client, junk, &out), KEXCLI_FAILURE);
        negotiate(pair.server, hello, &answer);
        EXPECT_EQ(negotiate(pair.server, junk, &out), KEXCLI_FAILURE);
    }
}

// An application that uses OpenSSL itself looks into the thread's error queue after its own calls.
TEST(KexExchange, FailuresLeaveNothingInTheErrorQueueOfTheCipherLibrary)
{
    auto *peek = (unsigned long (*)(void))dlsym(RTLD_DEFAULT, "ERR_peek_error");
    ASSERT_NE(peek, nullptr);
    std::string out;
    KexPair refused, pair;
    EXPECT_EQ(negotiate(refused.server, "KX\x01\x01" + std::string(32, '\0'), &out), KEXCLI_FAILURE);
    EXPECT_EQ(peek(), 0u);
    ASSERT_TRUE(pair.establish());
    EXPECT_EQ(unseal(pair.server, "KX\x01\x04" + std::string(40, 'x')), "");
    EXPECT_EQ(peek(), 0u);
}

TEST(KexExchange, OnlyTheFiveNamesAreShown)
{
    for (const char *name :
         {"_dh_init_sess", "_dh_negotiate", "_dh_encrypt", "_dh_decrypt", "_dh_close_sess"})
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    for (const char *name : {"_kex_step", "_kex_put_head", "_kex_head_is", "_kex_make_key",
                             "_kex_take_lasting_key", "_kex_read_key_file", "kexcli_make_key_files"})
        EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

}  // namespace
