// Threads on one enciphered connection: they send and read at once, and the connection ends under them, by the
// peer's hand, another thread's or a signal's.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "runtime/semantics.h"
#include "runtime/sigapi.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "support/meeting.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/cipher.h"
#include "wire/clhio.h"
#include "wire/clients.h"
#include "wire/envelope.h"
#include "wire/sealed_fixture.h"

namespace {

using cipher::fake;

struct SealedThreads : SessionTest {
    cipher::Server server{peer};
    int number = 0;
    wthr_var *shared = nullptr;

    SealedThreads() { setenv("VORN_SEMANTICS", "CRYPT_SW=Y", 1); }
    ~SealedThreads() override
    {
        peer.done();
        peer.hang_up();
        tpend();
        EXPECT_EQ(fake.live(), 0) << "handles that nobody has closed";
        EXPECT_EQ(fake.misuses, 0);
    }

    bool open()
    {
        peer.play([&] {
            peer.accept();
            server.exchange();
            wire::frame message;
            EXPECT_TRUE(server.receive(&message));
            server.send(wire::start_answer(message, {}));
        });
        TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
        record->flags = TPMULTICONTEXTS;
        int result = tpstart(record);
        tpfree((char *)record);
        peer.done();
        EXPECT_EQ(result, 0) << get_tperrno();
        number = context();
        shared = block();
        return result == 0;
    }
    static outcome call(const std::string &text)
    {
        outcome out;
        char *buffer = tpalloc((char *)"CARRAY", nullptr, (long)text.size());
        memcpy(buffer, text.data(), text.size());
        long length = (long)text.size();
        out.result = tpcall((char *)"S", buffer, length, &buffer, &length, 0);
        out.error = get_tperrno();
        if (out.result == 1)
            out.data.assign(buffer, (size_t)length);
        tpfree(buffer);
        return out;
    }
    // Threads that run `work` on the context, with the number of the thread. All stand on it before one begins:
    // what they do may end the session.
    void run(int threads, const std::function<void(int)> &work)
    {
        std::vector<std::thread> all;
        Meeting attached(threads);
        for (int i = 0; i < threads; i++)
            all.emplace_back([this, i, &work, &attached] {
                EXPECT_EQ(tpsetctxt(number, 0), 1);
                attached.meet();
                work(i);
                tpsetctxt(TPNULLCONTEXT, 0);
            });
        for (std::thread &thread : all)
            thread.join();
    }
    // Answers so many calls with what they brought, and the rest not at all.
    void echo(int calls)
    {
        wire::frame message;
        for (int i = 0; i < calls && server.receive(&message); i++)
            server.send(wire::answer(message, message.data, {.buftype = message.buftype}));
    }
};

std::string text_of(int thread, int round)
{
    return std::to_string(thread) + " in round " + std::to_string(round) +
           std::string((size_t)((thread * 977 + round * 131) % 5000), (char)('a' + round % 26));
}

}  // namespace

TEST_F(SealedThreads, EachThreadGetsItsOwnReply)
{
    ASSERT_TRUE(open());
    constexpr int THREADS = 6, ROUNDS = 30;
    peer.play([&] { echo(THREADS * ROUNDS); });
    run(THREADS, [](int thread) {
        for (int round = 0; round < ROUNDS; round++) {
            outcome out = call(text_of(thread, round));
            EXPECT_EQ(out.result, 1) << out.error;
            EXPECT_EQ(out.data, text_of(thread, round));
        }
    });
    peer.done();
}

// One thread at least hears of the end; those that wait without a limit are ended by the test's own signal of
// it, the closed socket, or find it with the next call.
TEST_F(SealedThreads, ConnectionThatEndsUnderItsSendersEndsTheirCalls)
{
    ASSERT_TRUE(open());
    constexpr int THREADS = 4;
    peer.play([&] {
        echo(40);
        peer.hang_up();
    });
    std::atomic<int> lost{0};
    run(THREADS, [&](int) {
        // Without replies, so that nobody is left waiting on a connection that is gone.
        char *buffer = tpalloc((char *)"CARRAY", nullptr, 500);
        memset(buffer, 'x', 500);
        faults::eventually([&] { return tpacall((char *)"S", buffer, 500, TPNOREPLY) < 0; });
        lost++;
        tpfree(buffer);
    });
    peer.done();
    EXPECT_EQ(lost, THREADS);
}

TEST_F(SealedThreads, ThreadThatClosesTheConnectionWaitsForThoseThatCipher)
{
    ASSERT_TRUE(open());
    constexpr int SENDERS = 3;
    peer.play([&] {
        char bytes[4096];
        while (recvfrom(peer.fd, bytes, sizeof bytes, 0, nullptr, nullptr) > 0)
            continue;
    });
    std::atomic<int> sent{0};
    run(SENDERS + 1, [&](int thread) {
        if (thread == SENDERS) {
            faults::eventually([&] { return sent > 30; });
            pthread_mutex_lock(&shared->msg_mutex);  // under which sockets are closed
            _clhc_close(shared->clhfd, shared);
            pthread_mutex_unlock(&shared->msg_mutex);
            return;
        }
        char *buffer = tpalloc((char *)"CARRAY", nullptr, 3000);
        memset(buffer, 'x', 3000);
        bool ended = faults::eventually([&] {
            sent++;
            return tpacall((char *)"S", buffer, 3000, TPNOREPLY) < 0;
        });
        EXPECT_TRUE(ended);
        tpfree(buffer);
    });
    EXPECT_EQ(shared->clhfd, -1);
    EXPECT_EQ(shared->crypt_sess, nullptr);
    EXPECT_EQ(fake.live(), 0);
    peer.done();
}

// ---- with the scripted cipher, which a test can hold up

namespace {

struct Gate : Door {
    std::atomic<bool> reached{false};

    void pass()
    {
        reached = true;
        Door::pass();
    }
    bool wait()
    {
        return faults::eventually([this] { return reached.load(); });
    }
};

struct HeldCipher : SealedTest {
    Gate gate;

    HeldCipher() { _vorn_signal_control(); }

    void hold_decrypt()
    {
        fake.decrypt = [this](char *to, const char *from, int length) {
            gate.pass();
            return cipher::put(to, cipher::opened(std::string(from, (size_t)length)));
        };
    }
    void hold_encrypt()
    {
        fake.encrypt = [this](char *to, const char *from, int length) {
            gate.pass();
            return cipher::put(to, cipher::sealed(std::string(from, (size_t)length)));
        };
    }
};

}  // namespace

TEST_F(HeldCipher, MessageIsSentWhileAnotherIsDeciphered)
{
    hold_decrypt();
    server.send(call_reply("reply"));
    std::string deciphered(200, '\0');
    std::string payload;
    ASSERT_TRUE(wait_for_bytes(block->clhfd, 16 + 4 + 136 + 5));
    std::thread reader([&] {
        std::string sealed = cipher::sealed(wire::encode(call_reply("reply")));
        EXPECT_EQ(decipher(deciphered.data(), sealed.data(), (int)sealed.size(), block), 141);
    });
    ASSERT_TRUE(gate.wait());
    msg_header *message = new_message(MSG_TPACALL, "beside it", 64);
    EXPECT_EQ(_send_csmsg_to_clh(message, block), 1);  // it doesn't wait for the reader
    server.expect(wire::TPACALL).data("beside it");
    free(message);
    gate.open();
    reader.join();
    EXPECT_EQ(deciphered.substr(136, 5), "reply");
}

TEST_F(HeldCipher, CloseWaitsForTheThreadThatDeciphers)
{
    hold_decrypt();
    std::string sealed = cipher::sealed(wire::encode(call_reply("reply"))), plain(200, '\0');
    std::thread reader(
        [&] { EXPECT_EQ(decipher(plain.data(), sealed.data(), (int)sealed.size(), block), 141); });
    ASSERT_TRUE(gate.wait());
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        _clhc_close(block->clhfd, block);
        closed = true;
    });
    usleep(20000);  // time in which one that doesn't wait would be through
    EXPECT_FALSE(closed);
    EXPECT_EQ(fake.live(), 1);
    gate.open();
    reader.join();
    closer.join();
    expect_closed();
}

TEST_F(HeldCipher, CloseWaitsForTheThreadThatEnciphers)
{
    hold_encrypt();
    msg_header *message = new_message(MSG_TPACALL, "text", 64);
    _hton_header(message, message);
    std::thread other([&] { _crypt_enc_send(message, 4, block); });
    ASSERT_TRUE(gate.wait());
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        end_cipher(block);
        closed = true;
    });
    usleep(20000);  // time in which one that doesn't wait would be through
    EXPECT_FALSE(closed);
    EXPECT_EQ(fake.live(), 1);
    gate.open();
    other.join();
    closer.join();
    EXPECT_EQ(fake.live(), 0);
    free(message);
}

// The handler runs on the thread that stands in the cipher, or beside it; in neither case may it wait.
TEST_F(HeldCipher, SignalWhileAThreadDeciphersLeavesTheHandleForTheNextClose)
{
    hold_decrypt();
    std::string sealed = cipher::sealed(wire::encode(call_reply("reply"))), plain(200, '\0');
    std::thread reader(
        [&] { EXPECT_EQ(decipher(plain.data(), sealed.data(), (int)sealed.size(), block), 141); });
    ASSERT_TRUE(gate.wait());
    signal(SIGPIPE, _vorn_sig_pipe);
    raise(SIGPIPE);
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(block->started, 0);
    EXPECT_EQ(fake.live(), 1);
    gate.open();
    reader.join();
    EXPECT_EQ(plain.substr(136, 5), "reply");
    _clhc_close(block->clhfd, block);
    expect_closed();
}

TEST_F(HeldCipher, SignalOnTheThreadThatDeciphersDoesNotWaitForItself)
{
    signal(SIGPIPE, _vorn_sig_pipe);
    fake.decrypt = [](char *to, const char *from, int length) {
        raise(SIGPIPE);
        return cipher::put(to, cipher::opened(std::string(from, (size_t)length)));
    };
    server.send(call_reply("reply"));
    waiting();
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "reply");
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(fake.live(), 1);
    // The next start ends what the handler had to leave.
    fake.decrypt = nullptr;
    again();
    EXPECT_EQ(fake.live(), 1);
    EXPECT_EQ(fake.opened, 2);
}

TEST_F(HeldCipher, SignalOnTheThreadThatEnciphersDoesNotWaitForItself)
{
    signal(SIGPIPE, _vorn_sig_pipe);
    fake.encrypt = [](char *to, const char *from, int length) {
        raise(SIGPIPE);
        return cipher::put(to, cipher::sealed(std::string(from, (size_t)length)));
    };
    msg_header *message = new_message(MSG_TPACALL, "text", 64);
    EXPECT_EQ(_send_csmsg_to_clh(message, block), -1);
    free(message);
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
    pthread_mutex_unlock(&block->msg_mutex);
    _clhc_close(block->clhfd, block);
    expect_closed();
}

TEST_F(HeldCipher, SignalWhileNobodyCiphersEndsTheSessionOfTheCipher)
{
    signal(SIGPIPE, _vorn_sig_pipe);
    raise(SIGPIPE);
    expect_closed();
}
