// The exchange with a server that proves who it is: what its key files are, who gets through, and what stands
// in the middle of it.
#include "kex_pair.h"
#include "keygen.h"

#include <errno.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <limits.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "session.h"

namespace {

// A pair that everybody knows (RFC 7748, 6.1, "Bob").
const char PUBLIC_LINE[] =
    "kexcli-x25519-public de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f\n";
const char PRIVATE_LINE[] =
    "kexcli-x25519-private 5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb\n";

struct KexPeerKey : testing::Test {
    std::string folder, own, peer;

    void SetUp() override
    {
        char name[] = "/tmp/kexcliXXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        own = folder + "/server";
        peer = own + KEXCLI_PUBLIC_SUFFIX;
        use_none();
    }
    void TearDown() override
    {
        use_none();
        std::string command = "rm -rf " + folder;
        EXPECT_EQ(system(command.c_str()), 0);
    }

    void make_keys()
    {
        ASSERT_EQ(kexcli_make_key_files(own.c_str()), 0);
        use(own, peer);
    }
    static void use_none()
    {
        unsetenv(KEXCLI_OWN_KEY);
        unsetenv(KEXCLI_PEER_KEY);
    }
    static void use(const std::string &own_path, const std::string &peer_path)
    {
        setenv(KEXCLI_OWN_KEY, own_path.c_str(), 1);
        setenv(KEXCLI_PEER_KEY, peer_path.c_str(), 1);
    }
    std::string file(const std::string &name, const std::string &text, mode_t rights = 0600)
    {
        std::string path = folder + "/" + name;
        int made = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(write(made, text.data(), text.size()), (ssize_t)text.size());
        EXPECT_EQ(fchmod(made, rights), 0);
        close(made);
        return path;
    }
};

std::string contents(const std::string &path)
{
    char text[4096];
    int file = open(path.c_str(), O_RDONLY);
    ssize_t length = read(file, text, sizeof text);
    close(file);
    return std::string(text, length < 0 ? 0 : (size_t)length);
}

mode_t rights_of(const std::string &path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

bool gives_session(int mode)
{
    void *session = _dh_init_sess(mode, -1);
    _dh_close_sess(session);
    return session != nullptr;
}

// --- Who gets through.

TEST_F(KexPeerKey, TheRightServerGetsThroughAndBothWaysAreOpen)
{
    make_keys();
    KexPair pair;
    ASSERT_TRUE(pair.establish());
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "to the server")), "to the server");
    EXPECT_EQ(unseal(pair.client, seal(pair.server, "to the client")), "to the client");
}

TEST_F(KexPeerKey, EveryMessageSaysVersion2AndKeepsItsLength)
{
    make_keys();
    KexPair pair;
    std::string hello, answer, finish, nothing;
    ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(pair.client, answer, &finish), KEXCLI_SEND_LAST);
    ASSERT_EQ(negotiate(pair.server, finish, &nothing), KEXCLI_FINISHED);
    EXPECT_EQ(hello.substr(0, 4), "KX\x02\x01");
    EXPECT_EQ(answer.substr(0, 4), "KX\x02\x02");
    EXPECT_EQ(finish.substr(0, 4), "KX\x02\x03");
    EXPECT_EQ(seal(pair.client, "x").substr(0, 4), "KX\x02\x04");
    EXPECT_EQ(hello.size(), CLIENT_HELLO_SIZE);
    EXPECT_EQ(answer.size(), SERVER_HELLO_SIZE);
    EXPECT_EQ(finish.size(), CLIENT_FINISH_SIZE);
}

TEST_F(KexPeerKey, AServerWithAnotherKeyIsRefusedBeforeAnythingIsSealed)
{
    make_keys();
    std::string other = folder + "/other";
    ASSERT_EQ(kexcli_make_key_files(other.c_str()), 0);
    setenv(KEXCLI_OWN_KEY, other.c_str(), 1);
    KexPair pair;
    std::string hello, answer, out;
    ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
    EXPECT_EQ(negotiate(pair.client, answer, &out), KEXCLI_FAILURE);
    EXPECT_EQ(out, "");
    EXPECT_EQ(seal(pair.client, "no"), "");
    EXPECT_EQ(negotiate(pair.client, answer, &out), KEXCLI_FAILURE) << "a failure is final";
}

TEST_F(KexPeerKey, AServerWithoutAKeyRefusesToProve)
{
    make_keys();
    unsetenv(KEXCLI_OWN_KEY);
    KexPair pair;
    std::string hello, out;
    ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    EXPECT_EQ(negotiate(pair.server, hello, &out), KEXCLI_FAILURE);
    EXPECT_EQ(out, "");
}

// The server of the first exchange in the client's way: it knows nothing of the second, and somebody rewrites
// the version byte of whatever passes.
TEST_F(KexPeerKey, AServersAnswerInTheOldFormIsRefusedHoweverItIsLabelled)
{
    make_keys();
    for (char version : {'\x01', '\x02'}) {
        for (bool with_key : {false, true}) {
            with_key ? use(own, peer) : (void)unsetenv(KEXCLI_OWN_KEY);
            KexPair pair;
            std::string hello, answer, out;
            ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
            hello[2] = '\x01';
            ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
            ASSERT_EQ(answer[2], '\x01');
            answer[2] = version;
            EXPECT_EQ(negotiate(pair.client, answer, &out), KEXCLI_FAILURE);
            EXPECT_EQ(out, "");
        }
    }
}

TEST_F(KexPeerKey, AClientThatAsksForNoProofIsAnsweredInTheOldForm)
{
    make_keys();
    unsetenv(KEXCLI_PEER_KEY);
    KexPair pair;
    std::string hello, answer, finish, out;
    ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    ASSERT_EQ(hello[2], '\x01');
    ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
    ASSERT_EQ(answer[2], '\x01');
    ASSERT_EQ(negotiate(pair.client, answer, &finish), KEXCLI_SEND_LAST);
    ASSERT_EQ(negotiate(pair.server, finish, &out), KEXCLI_FINISHED);
    EXPECT_EQ(unseal(pair.server, seal(pair.client, "as before")), "as before");
}

TEST_F(KexPeerKey, AnOldHelloThatIsLabelledNewOnItsWayComesToNothing)
{
    make_keys();
    unsetenv(KEXCLI_PEER_KEY);
    KexPair pair;
    std::string hello, answer, out;
    ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
    hello[2] = '\x02';
    ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
    answer[2] = '\x01';
    EXPECT_EQ(negotiate(pair.client, answer, &out), KEXCLI_FAILURE);
}

TEST_F(KexPeerKey, VersionsThatNobodyKnowsAreRefused)
{
    make_keys();
    for (int version = 0; version < 256; version++) {
        KexPair pair;
        std::string hello, out;
        negotiate(pair.client, "", &hello);
        hello[2] = (char)version;
        bool known = version == 1 || version == 2;
        EXPECT_EQ(negotiate(pair.server, hello, &out), known ? KEXCLI_EXCHANGE : KEXCLI_FAILURE) << version;
    }
}

TEST_F(KexPeerKey, EachSideReadsItsOwnVariableOnly)
{
    make_keys();
    use(own, folder + "/missing");
    EXPECT_TRUE(gives_session(KEXCLI_MODE_SERVER));
    EXPECT_FALSE(gives_session(KEXCLI_MODE_CLIENT));
    use(folder + "/missing", peer);
    EXPECT_TRUE(gives_session(KEXCLI_MODE_CLIENT));
    EXPECT_FALSE(gives_session(KEXCLI_MODE_SERVER));
}

TEST_F(KexPeerKey, ANewKeyServesTheSessionsThatBeginAfterIt)
{
    make_keys();
    KexPair before;
    std::string other = folder + "/other";
    ASSERT_EQ(kexcli_make_key_files(other.c_str()), 0);
    ASSERT_EQ(rename(other.c_str(), own.c_str()), 0);
    ASSERT_EQ(rename((other + KEXCLI_PUBLIC_SUFFIX).c_str(), peer.c_str()), 0);
    KexPair after, mixed;
    EXPECT_TRUE(before.establish());
    EXPECT_TRUE(after.establish());
    std::swap(mixed.client, before.client);
    EXPECT_FALSE(mixed.establish());
}

// --- The files.

TEST_F(KexPeerKey, MadeFilesHaveTheirLinesAndRights)
{
    umask(0);
    make_keys();
    std::string secret = contents(own), open_half = contents(peer);
    EXPECT_EQ(secret.size(), strlen(PRIVATE_LINE));
    EXPECT_EQ(open_half.size(), strlen(PUBLIC_LINE));
    EXPECT_EQ(secret.substr(0, 22), "kexcli-x25519-private ");
    EXPECT_EQ(open_half.substr(0, 21), "kexcli-x25519-public ");
    EXPECT_EQ(secret.find_first_not_of("0123456789abcdef", 22), secret.size() - 1);
    EXPECT_EQ(open_half.find_first_not_of("0123456789abcdef", 21), open_half.size() - 1);
    EXPECT_EQ(rights_of(own), 0600u);
    EXPECT_EQ(rights_of(peer), 0644u);
}

TEST_F(KexPeerKey, EachPairIsAnother)
{
    make_keys();
    std::string other = folder + "/other";
    ASSERT_EQ(kexcli_make_key_files(other.c_str()), 0);
    EXPECT_NE(contents(own), contents(other));
    EXPECT_NE(contents(peer), contents(other + KEXCLI_PUBLIC_SUFFIX));
}

TEST_F(KexPeerKey, AKeyThatIsThereIsNeverOverwritten)
{
    make_keys();
    std::string secret = contents(own), open_half = contents(peer);
    EXPECT_EQ(kexcli_make_key_files(own.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    ASSERT_EQ(rename(own.c_str(), (folder + "/away").c_str()), 0);
    EXPECT_EQ(kexcli_make_key_files(own.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_NE(access(own.c_str(), F_OK), 0) << "half a pair stays behind";
    EXPECT_EQ(contents(folder + "/away"), secret);
    EXPECT_EQ(contents(peer), open_half);
}

TEST_F(KexPeerKey, APairThatCantBeWrittenIsAnErrorWithItsReason)
{
    EXPECT_EQ(kexcli_make_key_files((folder + "/none/key").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(kexcli_make_key_files(std::string(PATH_MAX - 4, 'k').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(kexcli_make_key_files(std::string(300000, 'k').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(kexcli_make_key_files((folder + "/" + std::string(253, 'k')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_NE(access((folder + "/" + std::string(253, 'k')).c_str(), F_OK), 0) << "half a pair stays behind";
}

TEST_F(KexPeerKey, LinesOfAKnownPairAreRead)
{
    use(file("own", PRIVATE_LINE), file("peer", PUBLIC_LINE, 0644));
    KexPair pair;
    EXPECT_TRUE(pair.establish());
}

TEST_F(KexPeerKey, TheLineEndMayBeMissingAndDigitsMayBeCapitals)
{
    make_keys();
    std::string secret = contents(own), open_half = contents(peer);
    for (size_t i = 21; i < open_half.size(); i++)
        open_half[i] = (char)toupper(open_half[i]);
    secret.pop_back();
    use(file("own", secret), file("peer", open_half));
    KexPair pair;
    EXPECT_TRUE(pair.establish());
}

// Every text that isn't just a line of its kind.
std::vector<std::string> bad_texts(const std::string &good, const std::string &other_kind)
{
    std::string line = good.substr(0, good.size() - 1), digits = line.substr(line.size() - 64);
    std::vector<std::string> bad = {
        "",
        "\n",
        other_kind,
        digits,
        digits + "\n",
        std::string(32, 'k'),
        " " + good,
        "\n" + good,
        "\xef\xbb\xbf" + good,
        good + "\n",
        good + " ",
        good + good,
        line + " ",
        line + "\r\n",
        line + "0\n",
        line + std::string(1, '\0'),
        line + "\n" + std::string(1, '\0'),
        line.substr(0, line.size() - 1),
        line.substr(0, line.size() - 1) + "\n",
        line.substr(0, line.size() - 2) + "\n",
        "K" + good.substr(1),
        good + std::string(100000, 'a'),
        std::string(100000, 'a'),
    };
    for (char digit : {'g', 'G', ' ', '\0', '\n', '-', '/', ':', '@', '`', '\x80', '\xff'}) {
        for (size_t place : {line.size() - 64, line.size() - 31, line.size() - 1}) {
            bad.push_back(good);
            bad.back()[place] = digit;
        }
    }
    for (size_t place = 0; place < line.size() - 64; place++) {
        bad.push_back(good);
        bad.back()[place] = '\t';
    }
    for (size_t length = 0; length < line.size(); length++)
        bad.push_back(line.substr(0, length));
    return bad;
}

TEST_F(KexPeerKey, AMalformedPublicFileGivesNoSession)
{
    for (const std::string &text : bad_texts(PUBLIC_LINE, PRIVATE_LINE)) {
        setenv(KEXCLI_PEER_KEY, file("peer", text).c_str(), 1);
        EXPECT_FALSE(gives_session(KEXCLI_MODE_CLIENT)) << text.substr(0, 200);
    }
}

TEST_F(KexPeerKey, AMalformedPrivateFileGivesNoSession)
{
    for (const std::string &text : bad_texts(PRIVATE_LINE, PUBLIC_LINE)) {
        setenv(KEXCLI_OWN_KEY, file("own", text).c_str(), 1);
        EXPECT_FALSE(gives_session(KEXCLI_MODE_SERVER)) << text.substr(0, 200);
    }
}

TEST_F(KexPeerKey, WhatIsNoFileGivesNoSessionAndDoesntHang)
{
    make_keys();
    std::string pipe = folder + "/pipe", loop = folder + "/loop";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink("loop", loop.c_str()), 0);
    for (const std::string &path :
         {std::string(), folder + "/missing", folder, pipe, loop, std::string("/dev/null"),
          std::string("/dev/zero"), peer + "/x", std::string(PATH_MAX + 10, 'p')}) {
        use(path, path);
        EXPECT_FALSE(gives_session(KEXCLI_MODE_CLIENT)) << path;
        EXPECT_FALSE(gives_session(KEXCLI_MODE_SERVER)) << path;
    }
}

TEST_F(KexPeerKey, AGoodLineOutOfAPipeGivesNoSession)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], PUBLIC_LINE, strlen(PUBLIC_LINE)), (ssize_t)strlen(PUBLIC_LINE));
    close(ends[1]);
    setenv(KEXCLI_PEER_KEY, ("/proc/self/fd/" + std::to_string(ends[0])).c_str(), 1);
    EXPECT_FALSE(gives_session(KEXCLI_MODE_CLIENT));
    close(ends[0]);
}

TEST_F(KexPeerKey, APrivateFileThatOthersMayUseGivesNoSession)
{
    make_keys();
    for (mode_t rights : {0640, 0620, 0610, 0604, 0602, 0601, 0644, 0666}) {
        ASSERT_EQ(chmod(own.c_str(), rights), 0);
        EXPECT_FALSE(gives_session(KEXCLI_MODE_SERVER)) << rights;
    }
    for (mode_t rights : {0400, 0600, 0700}) {
        ASSERT_EQ(chmod(own.c_str(), rights), 0);
        EXPECT_TRUE(gives_session(KEXCLI_MODE_SERVER)) << rights;
    }
}

TEST_F(KexPeerKey, AUselessPublicKeyGetsNoSecret)
{
    make_keys();
    for (const char *digits : {"0000000000000000000000000000000000000000000000000000000000000000",
                               "0100000000000000000000000000000000000000000000000000000000000000",
                               "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
                               "0000000000000000000000000000000000000000000000000000000000000080"}) {
        setenv(KEXCLI_PEER_KEY, file("peer", std::string("kexcli-x25519-public ") + digits).c_str(), 1);
        KexPair pair;
        std::string hello, answer, out;
        ASSERT_EQ(negotiate(pair.client, "", &hello), KEXCLI_EXCHANGE);
        ASSERT_EQ(negotiate(pair.server, hello, &answer), KEXCLI_EXCHANGE);
        EXPECT_EQ(negotiate(pair.client, answer, &out), KEXCLI_FAILURE);
    }
}

// --- The middle.

enum message { HELLO, ANSWER, FINISH };

// Runs an exchange in which one message is changed. True if both sides came to the end nevertheless.
bool survives(message which, const std::function<std::string(std::string)> &change)
{
    KexPair pair;
    std::string texts[3], nothing;
    negotiate(pair.client, "", &texts[HELLO]);
    if (negotiate(pair.server, which == HELLO ? change(texts[HELLO]) : texts[HELLO], &texts[ANSWER]) < 0)
        return false;
    EXPECT_EQ(seal(pair.server, "too early"), "");
    if (negotiate(pair.client, which == ANSWER ? change(texts[ANSWER]) : texts[ANSWER], &texts[FINISH]) < 0) {
        EXPECT_EQ(texts[FINISH], "");
        EXPECT_EQ(seal(pair.client, "no keys"), "");
        return false;
    }
    if (negotiate(pair.server, which == FINISH ? change(texts[FINISH]) : texts[FINISH], &nothing) < 0) {
        EXPECT_EQ(seal(pair.server, "no keys"), "");
        EXPECT_EQ(unseal(pair.server, seal(pair.client, "hello?")), "");
        return false;
    }
    return true;
}

TEST_F(KexPeerKey, EveryFlippedBitOfEveryMessageEndsIt)
{
    const size_t lengths[] = {CLIENT_HELLO_SIZE, SERVER_HELLO_SIZE, CLIENT_FINISH_SIZE};
    make_keys();
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

TEST_F(KexPeerKey, EveryOtherLengthOfEveryMessageEndsIt)
{
    const size_t lengths[] = {CLIENT_HELLO_SIZE, SERVER_HELLO_SIZE, CLIENT_FINISH_SIZE};
    make_keys();
    for (message which : {HELLO, ANSWER, FINISH}) {
        for (size_t length = which == HELLO ? 1 : 0; length <= KEXCLI_MAX_OUTPUT; length++) {
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

TEST_F(KexPeerKey, MessagesOfAnotherExchangeWithTheSameServerDontFit)
{
    make_keys();
    std::string texts[3];
    KexPair old;
    negotiate(old.client, "", &texts[HELLO]);
    negotiate(old.server, texts[HELLO], &texts[ANSWER]);
    negotiate(old.client, texts[ANSWER], &texts[FINISH]);
    for (message which : {HELLO, ANSWER, FINISH})
        EXPECT_FALSE(survives(which, [&](std::string) { return texts[which]; })) << which;
    EXPECT_TRUE(survives(HELLO, [](std::string text) { return text; }));
}

// A whole recorded session said again: the server's own new key makes it worthless.
TEST_F(KexPeerKey, ARepeatedSessionOfAClientComesToNothing)
{
    make_keys();
    KexPair pair;
    std::string hello, answer, finish, out;
    negotiate(pair.client, "", &hello);
    negotiate(pair.server, hello, &answer);
    negotiate(pair.client, answer, &finish);
    ASSERT_EQ(negotiate(pair.server, finish, &out), KEXCLI_FINISHED);
    std::string sealed = seal(pair.client, "pay once");
    void *again = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    ASSERT_EQ(negotiate(again, hello, &out), KEXCLI_EXCHANGE);
    EXPECT_NE(out, answer);
    EXPECT_EQ(negotiate(again, finish, &out), KEXCLI_FAILURE);
    EXPECT_EQ(unseal(again, sealed), "");
    _dh_close_sess(again);
}

// Somebody with a pair of his own on both connections: a session with the server is his for the asking, one
// with the client isn't, neither with his own lasting key nor with the parts of the true server's answers.
TEST_F(KexPeerKey, SomebodyInTheMiddleWhoPutsInHisOwnKeysGetsNoClient)
{
    make_keys();
    std::string his = folder + "/his";
    ASSERT_EQ(kexcli_make_key_files(his.c_str()), 0);
    KexPair victims, outward;
    setenv(KEXCLI_OWN_KEY, his.c_str(), 1);
    void *inward = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    std::string hello, his_hello, his_answer, true_answer, out;
    negotiate(victims.client, "", &hello);
    ASSERT_EQ(negotiate(inward, hello, &his_answer), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(outward.client, "", &his_hello), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(victims.server, his_hello, &true_answer), KEXCLI_EXCHANGE);
    ASSERT_EQ(negotiate(outward.client, true_answer, &out), KEXCLI_SEND_LAST);
    EXPECT_EQ(
        negotiate(victims.client, his_answer.substr(0, HELLO_SIZE) + true_answer.substr(HELLO_SIZE), &out),
        KEXCLI_FAILURE);
    _dh_close_sess(inward);
    for (bool relayed : {false, true}) {
        EXPECT_FALSE(survives(ANSWER, [&](std::string text) {
            return text.replace(4, 32, (relayed ? true_answer : his_answer).substr(4, 32));
        }));
        EXPECT_FALSE(survives(HELLO, [&](std::string text) {
            return text.replace(4, 32, (relayed ? true_answer : his_hello).substr(4, 32));
        }));
    }
}

// --- The bytes, held against an exchange made from FORMAT.md with libcrypto alone.

std::string raw_public(EVP_PKEY *key)
{
    std::string raw(32, '\0');
    size_t length = raw.size();
    EXPECT_EQ(EVP_PKEY_get_raw_public_key(key, (unsigned char *)raw.data(), &length), 1);
    return raw;
}

std::string shared_secret(EVP_PKEY *own, const std::string &peer)
{
    std::string secret(32, '\0');
    size_t length = secret.size();
    EVP_PKEY *other =
        EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, (const unsigned char *)peer.data(), 32);
    EVP_PKEY_CTX *context = EVP_PKEY_CTX_new(own, nullptr);
    EXPECT_EQ(EVP_PKEY_derive_init(context), 1);
    EXPECT_EQ(EVP_PKEY_derive_set_peer(context, other), 1);
    EXPECT_EQ(EVP_PKEY_derive(context, (unsigned char *)secret.data(), &length), 1);
    EVP_PKEY_CTX_free(context);
    EVP_PKEY_free(other);
    return secret;
}

std::string sha256(const std::string &text)
{
    std::string digest(32, '\0');
    EVP_Digest(text.data(), text.size(), (unsigned char *)digest.data(), nullptr, EVP_sha256(), nullptr);
    return digest;
}

std::string hmac(const std::string &key, const std::string &text)
{
    std::string code(32, '\0');
    HMAC(EVP_sha256(), key.data(), (int)key.size(), (const unsigned char *)text.data(), text.size(),
         (unsigned char *)code.data(), nullptr);
    return code;
}

std::string hkdf(const std::string &secret, const std::string &salt, const std::string &info, size_t length)
{
    std::string root = hmac(salt, secret), last, all;
    for (char round = 1; all.size() < length; round++)
        all += last = hmac(root, last + info + round);
    return all.substr(0, length);
}

std::string gcm_seal(const std::string &key, const std::string &nonce, const std::string &head,
                     const std::string &text)
{
    std::string sealed(text.size(), '\0'), tag(16, '\0');
    int length = 0;
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, (const unsigned char *)key.data(),
                       (const unsigned char *)nonce.data());
    EVP_EncryptUpdate(context, nullptr, &length, (const unsigned char *)head.data(), (int)head.size());
    EVP_EncryptUpdate(context, (unsigned char *)sealed.data(), &length, (const unsigned char *)text.data(),
                      (int)text.size());
    EVP_EncryptFinal_ex(context, (unsigned char *)sealed.data() + length, &length);
    EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, tag.data());
    EVP_CIPHER_CTX_free(context);
    return head + sealed + tag;
}

struct Reference {
    EVP_PKEY *fresh = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    std::string block;

    ~Reference() { EVP_PKEY_free(fresh); }
    std::string part(size_t offset, size_t length) const { return block.substr(offset, length); }

    void derive(const std::string &secrets, const std::string &both, char version)
    {
        block = hkdf(secrets, sha256(both), std::string("vornthr kexcli ") + version + " keys", 152);
    }
};

std::string head(char version, char kind)
{
    return std::string("KX") + version + kind;
}

std::string unhex(const std::string &digits)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes += (char)std::stoi(digits.substr(i, 2), nullptr, 16);
    return bytes;
}

// The part of a client, against the server of the library. `lasting` is the server's key or empty.
void run_reference_client(const std::string &lasting)
{
    char version = lasting.empty() ? 1 : 2;
    Reference client;
    void *server = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    std::string hello = head(version, 1) + raw_public(client.fresh), answer, out;
    ASSERT_EQ(negotiate(server, hello, &answer), KEXCLI_EXCHANGE);
    std::string secrets = shared_secret(client.fresh, answer.substr(4, 32));
    if (!lasting.empty())
        secrets += shared_secret(client.fresh, lasting);
    std::string before = hello + answer.substr(0, 36) + lasting, after = hello + answer + lasting;
    client.derive(secrets, before, (char)('0' + version));
    EXPECT_EQ(answer.substr(36), hmac(client.part(120, 32), sha256(before)));
    EXPECT_EQ(negotiate(server, head(version, 3) + hmac(client.part(88, 32), sha256(after)), &out),
              KEXCLI_FINISHED);
    EXPECT_EQ(unseal(server, gcm_seal(client.part(0, 32), client.part(32, 12), head(version, 4), "to it")),
              "to it");
    EXPECT_EQ(seal(server, "from it"),
              gcm_seal(client.part(44, 32), client.part(76, 12), head(version, 4), "from it"));
    _dh_close_sess(server);
}

TEST_F(KexPeerKey, TheBytesOfTheProvedFormAreThoseOfTheDocument)
{
    make_keys();
    run_reference_client(unhex(contents(peer).substr(21, 64)));
}

TEST_F(KexPeerKey, TheBytesOfTheFormWithoutProofAreAsEver)
{
    run_reference_client("");
}

// How a server that isn't the right one makes its second secret.
typedef std::string wrong_secret(EVP_PKEY *fresh, const std::string &client, const std::string &lasting);

// The part of a server, against the client of the library. Returns what the client says to it.
int run_reference_server(const std::string &lasting, const std::function<wrong_secret> &second)
{
    Reference server;
    void *client = _dh_init_sess(KEXCLI_MODE_CLIENT, -1);
    std::string hello, out;
    EXPECT_EQ(negotiate(client, "", &hello), KEXCLI_EXCHANGE);
    std::string answer = head(2, 2) + raw_public(server.fresh), theirs = hello.substr(4, 32);
    std::string both = hello + answer + lasting;
    server.derive(shared_secret(server.fresh, theirs) + second(server.fresh, theirs, lasting), both, '2');
    int result = negotiate(client, answer + hmac(server.part(120, 32), sha256(both)), &out);
    EXPECT_EQ(out.empty(), result == KEXCLI_FAILURE);
    EXPECT_EQ(seal(client, "x").empty(), result == KEXCLI_FAILURE);
    _dh_close_sess(client);
    return result;
}

// Who knows the public half, and all that passes, and everything else about the exchange: it is the private
// half that he lacks.
TEST_F(KexPeerKey, OnlyThePrivateHalfMakesAServer)
{
    make_keys();
    std::string secret = unhex(contents(own).substr(22, 64)), lasting = unhex(contents(peer).substr(21, 64));
    EVP_PKEY *key =
        EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, (const unsigned char *)secret.data(), 32);
    typedef const std::string &text;
    EXPECT_EQ(run_reference_server(lasting,
                                   [&](EVP_PKEY *, text client, text) { return shared_secret(key, client); }),
              KEXCLI_SEND_LAST);
    EXPECT_EQ(run_reference_server(
                  lasting, [](EVP_PKEY *fresh, text, text known) { return shared_secret(fresh, known); }),
              KEXCLI_FAILURE);
    EXPECT_EQ(run_reference_server(
                  lasting, [](EVP_PKEY *fresh, text client, text) { return shared_secret(fresh, client); }),
              KEXCLI_FAILURE);
    EXPECT_EQ(run_reference_server(lasting, [](EVP_PKEY *, text, text) { return std::string(32, '\0'); }),
              KEXCLI_FAILURE);
    EXPECT_EQ(run_reference_server(lasting, [](EVP_PKEY *, text, text) { return std::string(); }),
              KEXCLI_FAILURE);
    EVP_PKEY_free(key);
}

// --- Its life.

TEST_F(KexPeerKey, LastingKeysAreGoneFromTheSessionOnceTheKeysStand)
{
    make_keys();
    KexPair pair;
    auto *record = (kex_session *)pair.server;
    EXPECT_NE(record->lasting_key, nullptr);
    ASSERT_TRUE(pair.establish());
    EXPECT_EQ(record->lasting_key, nullptr);
    EXPECT_EQ(record->own_key, nullptr);
}

TEST_F(KexPeerKey, ClosingHalfwayIsFine)
{
    make_keys();
    KexPair begun, answered;
    std::string hello, answer;
    negotiate(answered.client, "", &hello);
    negotiate(answered.server, hello, &answer);
}

// Sessions that begin at the same time on several threads, and two threads on each side of every session.
TEST_F(KexPeerKey, SessionsOnManyThreadsAtOnceKeepApart)
{
    constexpr int SESSIONS = 4, MESSAGES = 500;
    make_keys();
    auto talk = [](void *from, void *to) {
        int wrong = 0;
        for (int number = 0; number < MESSAGES; number++) {
            std::string text = std::to_string(number);
            wrong += unseal(to, seal(from, text)) != text;
        }
        EXPECT_EQ(wrong, 0);
    };
    std::vector<std::thread> threads;
    for (int session = 0; session < SESSIONS; session++) {
        threads.emplace_back([talk] {
            KexPair pair;
            ASSERT_TRUE(pair.establish());
            std::thread back(talk, pair.server, pair.client);
            talk(pair.client, pair.server);
            back.join();
        });
    }
    for (std::thread &thread : threads)
        thread.join();
}

}  // namespace
