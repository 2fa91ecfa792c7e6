// Sessions that are enciphered from their start to their end, whatever ends them.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "runtime/semantics.h"
#include "session/cliapi.h"
#include "session/moving.h"
#include "vorn/fields.h"
#include "wire/cipher.h"
#include "wire/clhread.h"
#include "wire/envelope.h"

namespace {

using cipher::fake;

struct Enciphered : Moving {
    cipher::Server server{peer}, second{backup};

    Enciphered() { setenv("VORN_SEMANTICS", "CRYPT_SW=Y", 1); }
    ~Enciphered() override
    {
        peer.done();
        backup.done();
        peer.hang_up();
        backup.hang_up();
        tpend();
        EXPECT_EQ(fake.live(), 0) << "handles that nobody has closed";
        EXPECT_EQ(fake.misuses, 0);
    }

    // For the script: a start on the next connection.
    static Expected serve_start(Peer &from, cipher::Server &with, const wire::start_reply &reply = {})
    {
        from.accept();
        with.exchange();
        Expected message{wire::frame(), where::current()};
        EXPECT_TRUE(with.receive(&message.frame));
        with.send(wire::start_answer(message.frame, reply));
        return message;
    }
    bool start_sealed(const wire::start_reply &reply = {})
    {
        peer.play([&] { serve_start(peer, server, reply); });
        int result = tpstart(nullptr);
        peer.done();
        EXPECT_EQ(result, 0) << get_tperrno();
        return result == 0;
    }
    void expect_sealed_call(const std::string &text = "text")
    {
        peer.play([&] {
            server.expect(wire::TPCALL).text(text);
            server.reply("reply to " + text + '\0');
        });
        EXPECT_EQ(call(text).data, "reply to " + text);
        peer.done();
    }
    // Two attempts of which the peer plays each with `script`; then nobody knocks any more.
    void expect_two_failures(int code, const std::function<void()> &script)
    {
        peer.play([&] {
            for (int attempt = 0; attempt < 2; attempt++) {
                peer.accept();
                script();
                peer.expect_end();
                peer.hang_up();
            }
        });
        EXPECT_EQ(tpstart(nullptr), -1);
        EXPECT_EQ(get_tperrno(), code);
        peer.done();
        EXPECT_TRUE(peer.nobody_knocks());
        EXPECT_EQ(fake.live(), 0);
    }
    void expect_one_failure(int code, const std::function<void()> &script)
    {
        peer.play([&] {
            peer.accept();
            script();
            peer.expect_end();
            peer.hang_up();
        });
        EXPECT_EQ(tpstart(nullptr), -1);
        EXPECT_EQ(get_tperrno(), code);
        peer.done();
        EXPECT_TRUE(peer.nobody_knocks());
        EXPECT_EQ(fake.live(), 0);
    }
    std::string hello()
    {
        std::string bytes;
        EXPECT_TRUE(cipher::read_envelope(peer, cipher::STEP, &bytes));
        return bytes;
    }
};

}  // namespace

TEST_F(Enciphered, KeysAreExchangedBeforeTheStartMessage)
{
    peer.play([&] {
        peer.accept();
        std::string first = hello();
        EXPECT_EQ(first.size(), 36u);
        peer.expect_nothing();  // it waits for the answer
        server.keys = cipher::init_sess(KEXCLI_MODE_SERVER, -1);
        EXPECT_EQ(server.answer(first), KEXCLI_EXCHANGE);
        EXPECT_EQ(server.answer(hello()), KEXCLI_FINISHED);
        server.expect(wire::TPSTART).svcname("_tpstart").header_only();
        server.send(wire::start_answer(peer.last, {}));
    });
    EXPECT_EQ(tpstart(nullptr), 0);
    peer.done();
    EXPECT_EQ(_vorn_crypt_sw, 1);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(fake.fd, block()->clhfd);
    EXPECT_EQ(fake.mode, KEXCLI_MODE_CLIENT);
    expect_sealed_call();
}

TEST_F(Enciphered, EverythingTravelsSealedUpToTheEnd)
{
    peer.recording = true;
    ASSERT_TRUE(start_sealed());
    expect_sealed_call("a secret word");
    int descriptor = acall("another secret");
    server.expect(wire::TPACALL).text("another secret");
    server.reply(std::string("a secret answer") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "a secret answer");
    peer.play([&] {
        server.expect(wire::TPEND);
        server.reply();
        peer.expect_end();
    });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(fake.live(), 0);
    for (const char *word : {"secret", "_tpstart", "_tpend", "SERVICE"}) {
        EXPECT_EQ(peer.received.find(word), std::string::npos) << word;
        EXPECT_EQ(peer.sent.find(word), std::string::npos) << word;
    }
}

// It goes by the switches as they are, and doesn't read them.
TEST_F(Enciphered, TpinitIsEncipheredOnceTheSwitchIsOn)
{
    ASSERT_EQ(_vorn_read_semantics(), 1);
    // A block that no tpstart has touched bears 0 for its other sockets: the standard input had better be silent.
    int silent[2];
    ASSERT_EQ(pipe(silent), 0);
    ASSERT_EQ(dup2(silent[0], 0), 0);
    peer.play([&] { serve_start(peer, server); });
    EXPECT_EQ(tpinit(nullptr), 1);
    peer.done();
    expect_sealed_call();
}

TEST_F(Enciphered, FirstCallOpensAnEncipheredSession)
{
    peer.play([&] {
        serve_start(peer, server);
        server.expect(wire::TPCALL).text("first");
        server.reply(std::string("FIRST") + '\0');
    });
    EXPECT_EQ(call("first").data, "FIRST");
    peer.done();
}

TEST_F(Enciphered, ThresholdOfTheServerIsNotHeeded)
{
    wire::start_reply reply;
    reply.threshold = 100;
    ASSERT_TRUE(start_sealed(reply));
    expect_sealed_call(std::string(40, 'a') + std::string(40, 'b'));
    char *buffer = tpalloc((char *)"CARRAY", nullptr, 70000);
    memset(buffer, 'c', 70000);
    long length = 70000;
    size_t sealed_size = 0;
    peer.play([&] {
        std::string payload;
        EXPECT_TRUE(cipher::read_envelope(peer, cipher::SEALED, &payload));
        sealed_size = payload.size();
        wire::frame message = cipher::message_of(server.open(payload));
        EXPECT_EQ(message.data, std::string(70000, 'c'));
        server.send(wire::answer(message, std::string(70000, 'd'), {.buftype = wire::CARRAY}));
    });
    EXPECT_EQ(tpcall((char *)"SERVICE", buffer, 70000, &buffer, &length, 0), 1) << get_tperrno();
    peer.done();
    EXPECT_EQ(sealed_size, 70000u + 136 + 20);
    EXPECT_EQ(std::string(buffer, (size_t)length), std::string(70000, 'd'));
    tpfree(buffer);
}

TEST_F(Enciphered, FieldBuffersTravelBothWays)
{
    ASSERT_TRUE(start_sealed());
    constexpr int NUMBER = 3 << 26 | 1;
    int32_t value = 0x11223344;
    char *out = tpalloc((char *)"FIELD", nullptr, 0), *in = tpalloc((char *)"FIELD", nullptr, 0);
    ASSERT_EQ(fbput((FBUF *)out, NUMBER, (char *)&value, 0), 1);
    long length = 0;
    peer.play([&] {
        wire::frame got = server.expect(wire::TPCALL).buftype(wire::FIELD);
        EXPECT_NE(got.data.find("\x11\x22\x33\x44"), std::string::npos);
        server.reply(got.data, {.buftype = wire::FIELD});
    });
    EXPECT_EQ(tpcall((char *)"SERVICE", out, 0, &in, &length, 0), 1) << get_tperrno();
    peer.done();
    int32_t back = 0;
    EXPECT_EQ(fbget((FBUF *)in, NUMBER, (char *)&back, nullptr), 1);
    EXPECT_EQ(back, value);
    tpfree(out);
    tpfree(in);
}

// ---- starts that come to nothing

TEST_F(Enciphered, ServerThatAnswersInClearIsNotSpokenWith)
{
    expect_one_failure(TPECLOSE, [&] {
        hello();
        peer.send(wire::start_answer(wire::message(wire::TPSTART), {}));
    });
}

TEST_F(Enciphered, WrongAnswerOfTheServerIsAFailure)
{
    expect_two_failures(TPEOS, [&] {
        hello();
        peer.send_raw(cipher::envelope(cipher::SERVERS_STEP, "what is that?"));
    });
    EXPECT_EQ(fake.opened, 2);
    EXPECT_EQ(fake.closed, 2);
}

TEST_F(Enciphered, ServerThatHangsUpInTheExchangeIsNotTriedTwice)
{
    peer.play([&] {
        peer.accept();
        hello();
        peer.hang_up();
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(fake.live(), 0);
}

TEST_F(Enciphered, WithoutASessionOfTheCipherNothingIsSent)
{
    fake.no_session = true;
    expect_two_failures(TPESYSTEM, [] {});
}

TEST_F(Enciphered, StartReplyInClearEndsTheStart)
{
    expect_one_failure(TPECLOSE, [&] {
        server.exchange();
        server.expect(wire::TPSTART);
        peer.send(wire::start_answer(peer.last, {}));
    });
}

TEST_F(Enciphered, StepInPlaceOfTheStartReplyIsNoReply)
{
    expect_two_failures(TPESYSTEM, [&] {
        server.exchange();
        server.expect(wire::TPSTART);
        peer.send_raw(cipher::envelope(cipher::SERVERS_STEP, std::string(300, '\0')));
    });
}

TEST_F(Enciphered, RefusedLoginLeavesNoSessionOfTheCipher)
{
    wire::start_reply refusal;
    refusal.refuse = TPESECURITY;
    peer.play([&] {
        serve_start(peer, server, refusal);
        peer.expect_end();
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPESECURITY);
    peer.done();
    EXPECT_EQ(fake.live(), 0);
}

TEST_F(Enciphered, SecondAttemptHasKeysOfItsOwn)
{
    peer.play([&] {
        peer.accept();
        hello();
        peer.send_raw(cipher::envelope(cipher::SERVERS_STEP, "wrong"));
        peer.expect_end();
        peer.hang_up();
        serve_start(peer, server);
    });
    EXPECT_EQ(tpstart(nullptr), 0);
    peer.done();
    EXPECT_EQ(fake.opened, 2);
    EXPECT_EQ(fake.closed, 1);
    expect_sealed_call();
}

// ---- ends

TEST_F(Enciphered, LostConnectionIsFollowedByASessionWithNewKeys)
{
    ASSERT_TRUE(start_sealed());
    void *keys = block()->crypt_sess;
    expect_sealed_call();
    int descriptor = acall("pending");
    server.expect(wire::TPACALL);
    peer.hang_up();
    EXPECT_EQ(fetch(descriptor).error, TPECLOSE);
    EXPECT_EQ(block()->crypt_sess, nullptr);
    EXPECT_EQ(block()->clhfd, -1);
    EXPECT_EQ(fake.live(), 0);
    EXPECT_EQ(tpend(), -1);
    ASSERT_TRUE(start_sealed());
    EXPECT_NE(block()->crypt_sess, keys);
    EXPECT_EQ(fake.opened, 2);
    expect_sealed_call();
}

TEST_F(Enciphered, ReplyInClearEndsTheSession)
{
    ASSERT_TRUE(start_sealed());
    peer.play([&] {
        server.expect(wire::TPCALL);
        peer.reply(std::string("in clear") + '\0');
        peer.expect_end();
    });
    outcome out = call("text");
    peer.done();
    EXPECT_EQ(out.result, -1);
    EXPECT_EQ(out.error, TPECLOSE);
    EXPECT_EQ(block()->started, 0);
    EXPECT_EQ(fake.live(), 0);
}

TEST_F(Enciphered, ReplyThatDoesNotDecipherFailsItsCallAlone)
{
    ASSERT_TRUE(start_sealed());
    peer.play([&] {
        server.expect(wire::TPCALL);
        peer.send_raw(cipher::envelope(cipher::SEALED, std::string(200, 'x')));
    });
    EXPECT_EQ(call("text").result, -1);
    peer.done();
    EXPECT_EQ(block()->started, 1);
    expect_sealed_call();
}

TEST_F(Enciphered, ResetEndsTheSessionOfTheCipher)
{
    ASSERT_TRUE(start_sealed());
    EXPECT_EQ(tpreset(), 1);
    EXPECT_EQ(fake.live(), 0);
    peer.expect_end();
}

TEST_F(Enciphered, GoingToTheBackupServerExchangesKeysWithIt)
{
    ASSERT_TRUE(start_sealed());
    backup.play([&] { serve_start(backup, second); });
    EXPECT_EQ(tptobackup(), 1) << get_tperrno();
    backup.done();
    peer.expect_end();
    EXPECT_EQ(fake.opened, 2);
    EXPECT_EQ(fake.live(), 1);
    backup.play([&] {
        second.expect(wire::TPCALL).text("there");
        second.reply(std::string("THERE") + '\0');
    });
    EXPECT_EQ(call("there").data, "THERE");
    backup.done();
}

// The two attempts take turns between the servers.
TEST_F(Enciphered, ServersThatDoNotFinishTheExchangeLeaveNoHandle)
{
    ASSERT_TRUE(start_sealed());
    for (Peer *one : {&backup, (Peer *)&peer})
        one->play([one] {
            one->accept();
            std::string bytes;
            EXPECT_TRUE(cipher::read_envelope(*one, cipher::STEP, &bytes));
            one->send_raw(cipher::envelope(cipher::SERVERS_STEP, "wrong"));
            one->expect_end();
        });
    EXPECT_EQ(tptobackup(), -1);
    backup.done();
    peer.done();
    EXPECT_EQ(fake.live(), 0);
}

TEST_F(Enciphered, EndWithoutAnAnswerEndsTheSessionOfTheCipher)
{
    ASSERT_TRUE(start_sealed());
    peer.play([&] {
        server.expect(wire::TPEND);
        peer.hang_up();
    });
    EXPECT_EQ(tpend(), -1);
    peer.done();
    EXPECT_EQ(fake.live(), 0);
}

TEST_F(Enciphered, ManySessionsLeaveNoHandle)
{
    for (int i = 0; i < 20; i++) {
        ASSERT_TRUE(start_sealed());
        EXPECT_EQ(fake.live(), 1);
        peer.play([&] {
            server.expect(wire::TPEND);
            server.reply();
        });
        EXPECT_EQ(tpend(), 1);
        peer.done();
        EXPECT_EQ(fake.live(), 0);
    }
    EXPECT_EQ(fake.opened, 20);
}

// ---- a server that goes down

TEST_F(Enciphered, SessionDoesNotMove)
{
    ASSERT_TRUE(start_sealed());
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    EXPECT_EQ(block()->rolling_failed, 1);
    EXPECT_TRUE(backup.nobody_knocks());
    peer.expect_nothing();
    EXPECT_EQ(fake.opened, 1);
    // The connection's end is then told as one that follows a move that failed.
    peer.hang_up();
    EXPECT_EQ(call("text").error, TPERDOWN);
}

TEST_F(Enciphered, RequestThatIsGivenBackDoesNotMoveTheSession)
{
    ASSERT_TRUE(start_sealed());
    peer.play([&] {
        wire::frame request = server.expect(wire::TPCALL);
        request.msgtype += wire::EREPLY;
        request.xflags |= GIVEN_BACK;
        server.send(request);
    });
    outcome out = call("text");
    peer.done();
    EXPECT_EQ(out.result, -1);
    EXPECT_EQ(block()->rolling_failed, 1);
    EXPECT_TRUE(backup.nobody_knocks());
    EXPECT_EQ(fake.opened, 1);
}
