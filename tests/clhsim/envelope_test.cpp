// Enciphered connections on the wire: the negotiation, the envelopes of both directions, what is hung up on,
// and the envelopes that are spoilt on purpose.
#include "application.h"

#include "kexcli.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr uint32_t ENVELOPE = 77777777;
static constexpr uint32_t NEGOTIATION = 1;
static constexpr uint32_t SERVERS_STEP = 1001;
static constexpr uint32_t SEALED = 3;

static std::string envelope_of(uint32_t msgtype, const std::string &payload, uint32_t buftype = 10)
{
    std::string bytes(16, '\0');
    put(bytes, 0, ENVELOPE);
    put(bytes, 4, static_cast<uint32_t>(payload.size()));
    put(bytes, 8, buftype);
    put(bytes, 12, msgtype);
    return bytes + payload;
}

struct Envelope {
    uint32_t msgtype = 0;
    std::string payload;
};

// The client's end: the connection and its session of the cipher.
struct SealedLink {
    explicit SealedLink(Simulator &server) : link(server.connect()) {}
    SealedLink(const SealedLink &) = delete;
    SealedLink &operator=(const SealedLink &) = delete;
    ~SealedLink() { _dh_close_sess(session); }

    // One step of this side; `out` is what is to be sent.
    int step(const std::string &in, std::string &out)
    {
        char bytes[KEXCLI_MAX_OUTPUT];
        int32_t length = 0;
        int result = _dh_negotiate(session, in.data(), static_cast<int>(in.size()), bytes, &length);
        out.assign(bytes, static_cast<size_t>(length));
        return result;
    }
    void send_hello()
    {
        std::string hello;
        EXPECT_EQ(step("", hello), KEXCLI_EXCHANGE);
        link.send(envelope_of(NEGOTIATION, hello));
    }
    // False: the server's answer isn't one that this side goes on with.
    bool finish(const Envelope &answer)
    {
        std::string last;
        EXPECT_EQ(answer.msgtype, SERVERS_STEP);
        if (step(answer.payload, last) != KEXCLI_SEND_LAST)
            return false;
        link.send(envelope_of(NEGOTIATION, last));
        return true;
    }
    SealedLink &negotiate()
    {
        send_hello();
        EXPECT_TRUE(finish(receive_envelope()));
        return *this;
    }
    SealedLink &log_in()
    {
        negotiate();
        Message start;
        start.msgtype = MSG_TPSTART;
        start.svcname = "_tpstart";
        EXPECT_EQ(exchange(start).msgtype, 1001);
        return *this;
    }
    std::string seal(const std::string &plain)
    {
        std::string sealed(plain.size() + KEXCLI_MAX_OVERHEAD, '\0');
        int length = _dh_encrypt(session, sealed.data(), plain.data(), static_cast<int>(plain.size()));
        EXPECT_GT(length, 0);
        sealed.resize(static_cast<size_t>(length));
        return sealed;
    }
    void send(const Message &message) { link.send(envelope_of(SEALED, seal(bytes_of(message)))); }
    Envelope receive_envelope()
    {
        std::string head = link.read_bytes(16);
        if (head.size() < 16)
            return {};
        EXPECT_EQ(get(head, 0), ENVELOPE);
        EXPECT_EQ(get(head, 8), 10u);
        return {get(head, 12), link.read_bytes(get(head, 4))};
    }
    // The whole message in an envelope; empty if it can't be opened.
    std::string open(const Envelope &envelope)
    {
        std::string plain(envelope.payload.size() + 1, '\0');
        int length = _dh_decrypt(session, plain.data(), envelope.payload.data(),
                                 static_cast<int>(envelope.payload.size()));
        plain.resize(static_cast<size_t>(length > 0 ? length : 0));
        return plain;
    }
    std::string receive_bytes()
    {
        Envelope envelope = receive_envelope();
        EXPECT_EQ(envelope.msgtype, SEALED);
        return open(envelope);
    }
    // A file makes the plain bytes a stream from which a link reads messages.
    Message receive()
    {
        Link plain(memfd_create("message", MFD_CLOEXEC));
        plain.send(receive_bytes());
        EXPECT_EQ(lseek(plain.fd, 0, SEEK_SET), 0);
        return plain.receive();
    }
    Message exchange(const Message &message)
    {
        send(message);
        return receive();
    }

    Link link;
    void *session = _dh_init_sess(KEXCLI_MODE_CLIENT, -1);
};

TEST(ClhsimEnvelope, CallsTravelSealed)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    EXPECT_EQ(client.exchange(string_call("TOUPPER", "abc")).text(), "ABC");
    EXPECT_EQ(server.stat("enciphered"), 1);
    EXPECT_EQ(server.stat("calls"), 1);
}

TEST(ClhsimEnvelope, PayloadsShowNothingOfTheMessage)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in().send(string_call("ECHO", "a secret word"));
    Envelope envelope = client.receive_envelope();
    EXPECT_EQ(envelope.payload.find("secret"), std::string::npos);
    EXPECT_NE(client.open(envelope).find("a secret word"), std::string::npos);
}

TEST(ClhsimEnvelope, TwoConnectionsHaveKeysOfTheirOwn)
{
    Simulator server({"--encipher"});
    SealedLink one(server), two(server);
    one.log_in();
    two.log_in();
    one.link.send(envelope_of(SEALED, two.seal(bytes_of(string_call("ECHO", "x")))));
    EXPECT_TRUE(one.link.ended());
    EXPECT_EQ(server.stat("calls"), 0);
}

TEST(ClhsimEnvelope, NothingIsCompressed)
{
    Simulator server({"--encipher", "--threshold", "100"});
    SealedLink client(server);
    client.log_in();
    Message reply = client.exchange(string_call("ECHO", std::string(5000, 'a')));
    EXPECT_EQ(reply.text(), std::string(5000, 'a'));
    EXPECT_FALSE(reply.compressed);
    EXPECT_EQ(server.stat("compressed_out"), 0);
}

TEST(ClhsimEnvelope, LargeMessagesAndManyInOneWriteArriveWhole)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    Message reply = client.exchange(string_call("BIG", "1000000"));
    EXPECT_EQ(reply.data.size(), 1000000u);
    std::string burst;
    for (int i = 0; i < 50; i++)
        burst += envelope_of(SEALED, client.seal(bytes_of(string_call("ECHO", std::to_string(i)))));
    client.link.send(burst);
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(client.receive().text(), std::to_string(i));
}

TEST(ClhsimEnvelope, FramesMayArriveByteByByte)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    for (char byte : envelope_of(SEALED, client.seal(bytes_of(string_call("TOUPPER", "slow")))))
        client.link.send(std::string(1, byte));
    EXPECT_EQ(client.receive().text(), "SLOW");
}

TEST(ClhsimEnvelope, ClearMessageIsHungUpOn)
{
    Simulator server({"--encipher"});
    Link fresh = server.connect();
    fresh.send(string_call("ECHO", "x"));
    EXPECT_TRUE(fresh.ended());
    SealedLink client(server);
    client.log_in().link.send(string_call("ECHO", "x"));
    EXPECT_TRUE(client.link.ended());
    EXPECT_NE(server.line_with("hung up").find("in clear"), std::string::npos);
    EXPECT_EQ(server.stat("calls"), 0);
}

TEST(ClhsimEnvelope, ServerWithoutTheOptionHangsUpOnNegotiation)
{
    Simulator server;
    SealedLink client(server);
    client.send_hello();
    EXPECT_TRUE(client.link.ended());
}

TEST(ClhsimEnvelope, HeadsThatAreNoneAreHungUpOn)
{
    Simulator server({"--encipher", "--max-data", "1024"});
    std::string huge = envelope_of(NEGOTIATION, "");
    put(huge, 4, 261);
    std::string negative = envelope_of(NEGOTIATION, "");
    put(negative, 4, 0xffffffff);
    std::string no_mark = envelope_of(NEGOTIATION, "x");
    put(no_mark, 0, 77777778);
    for (const std::string &bytes :
         {huge, negative, no_mark, envelope_of(SEALED, "x"), envelope_of(NEGOTIATION, "x", 9),
          envelope_of(SERVERS_STEP, "x"), envelope_of(NEGOTIATION, "rubbish")}) {
        Link link = server.connect();
        link.send(bytes);
        EXPECT_TRUE(link.ended()) << get(bytes, 4) << " " << get(bytes, 12);
    }
    SealedLink client(server);
    client.log_in();
    std::string long_one = envelope_of(SEALED, "");
    put(long_one, 4, 1024 + 136 + 513);
    client.link.send(long_one);
    EXPECT_TRUE(client.link.ended());
}

TEST(ClhsimEnvelope, SealedBytesMustBeOneWholeMessage)
{
    Simulator server({"--encipher"});
    std::string call = bytes_of(string_call("ECHO", "x"));
    std::string lying = call;
    put(lying, 100, 3);
    for (const std::string &plain :
         {std::string("x"), call.substr(0, 135), call + "x", call + call, call.substr(0, call.size() - 1),
          lying, compressed_frame_of(call), envelope_of(SEALED, call)}) {
        SealedLink client(server);
        client.log_in().link.send(envelope_of(SEALED, client.seal(plain)));
        EXPECT_TRUE(client.link.ended()) << plain.size();
    }
    EXPECT_EQ(server.stat("calls"), 0);
}

TEST(ClhsimEnvelope, ChangedRepeatedOrReorderedRequestsAreHungUpOn)
{
    Simulator server({"--encipher"});
    std::string call = bytes_of(string_call("ECHO", "x"));
    SealedLink changed(server);
    std::string sealed = changed.log_in().seal(call);
    sealed[sealed.size() / 2] ^= 1;
    changed.link.send(envelope_of(SEALED, sealed));
    EXPECT_TRUE(changed.link.ended());

    SealedLink repeated(server);
    sealed = repeated.log_in().seal(call);
    repeated.link.send(envelope_of(SEALED, sealed));
    EXPECT_EQ(repeated.receive().text(), "x");
    repeated.link.send(envelope_of(SEALED, sealed));
    EXPECT_TRUE(repeated.link.ended());

    SealedLink reordered(server);
    reordered.log_in().seal(call);
    reordered.send(string_call("ECHO", "y"));
    EXPECT_TRUE(reordered.link.ended());
    EXPECT_EQ(server.stat("calls"), 1);
}

TEST(ClhsimEnvelope, NegotiationIsOverOnceTheKeysStand)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in().link.send(envelope_of(NEGOTIATION, "x"));
    EXPECT_TRUE(client.link.ended());
}

TEST(ClhsimEnvelope, SpoiltEnvelopesCantBeOpened)
{
    Simulator server({"--encipher"});
    for (const char *fault : {"cut", "change", "step"}) {
        SealedLink client(server);
        client.log_in();
        EXPECT_EQ(server.command(std::string("envelope all ") + fault), "ok 1 client") << fault;
        client.send(string_call("ECHO", "x"));
        EXPECT_EQ(client.receive_bytes(), "") << fault;
        client.link.close();
        while (server.stat("open") != 0)
            usleep(1000);
    }
}

TEST(ClhsimEnvelope, ReplayedEnvelopeComesTwice)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    server.command("envelope 1 replay");
    client.send(string_call("ECHO", "x"));
    Envelope first = client.receive_envelope();
    Envelope second = client.receive_envelope();
    EXPECT_EQ(first.payload, second.payload);
    EXPECT_NE(client.open(first), "");
    EXPECT_EQ(client.open(second), "");
    EXPECT_EQ(client.exchange(string_call("ECHO", "y")).text(), "y") << "the fault strikes once";
}

TEST(ClhsimEnvelope, MessageInClearCanBeHad)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    server.command("envelope 1 clear 2");
    for (const char *text : {"x", "y"}) {
        client.send(string_call("ECHO", text));
        EXPECT_EQ(client.link.receive().text(), text);
    }
    EXPECT_EQ(client.exchange(string_call("ECHO", "z")).text(), "z");
}

TEST(ClhsimEnvelope, NegotiationCanBeSpoilt)
{
    Simulator server({"--encipher"});
    for (const char *fault : {"cut", "change"}) {
        EXPECT_EQ(server.command(std::string("envelope new ") + fault), "ok");
        SealedLink client(server);
        client.send_hello();
        EXPECT_FALSE(client.finish(client.receive_envelope())) << fault;
    }
    server.command("envelope new none");
    SealedLink client(server);
    EXPECT_EQ(client.log_in().exchange(string_call("ECHO", "x")).text(), "x");
}

TEST(ClhsimEnvelope, NegotiationCanBeRefusedDroppedAndDelayed)
{
    Simulator server({"--encipher"});
    server.command("refuse _negotiate 12 1");
    SealedLink refused(server);
    refused.send_hello();
    EXPECT_TRUE(refused.link.ended());

    server.command("drop _negotiate 1");
    SealedLink dropped(server);
    dropped.send_hello();
    while (server.stat("dropped") != 1)
        usleep(1000);
    EXPECT_TRUE(dropped.link.silent());

    server.command("delay _negotiate 50 1");
    SealedLink delayed(server);
    EXPECT_EQ(delayed.log_in().exchange(string_call("ECHO", "x")).text(), "x");
}

TEST(ClhsimEnvelope, FaultsOfServicesWorkThroughEnvelopes)
{
    Simulator server({"--encipher"});
    SealedLink client(server);
    client.log_in();
    server.command("delay ECHO 30 1");
    EXPECT_EQ(client.exchange(string_call("ECHO", "late")).text(), "late");
    server.command("truncate ECHO 20 1");
    client.send(string_call("ECHO", "cut"));
    EXPECT_EQ(client.link.read_rest().size(), 20u);
}

TEST(ClhsimEnvelope, CommandKnowsItsFaults)
{
    Simulator server({"--encipher"});
    for (const char *line :
         {"envelope", "envelope 1", "envelope 1 cut", "envelope new bend", "envelope new cut 0"})
        EXPECT_EQ(server.command(line).rfind("error ", 0), 0u) << line;
    Simulator clear;
    EXPECT_EQ(clear.command("envelope all cut").rfind("error ", 0), 0u);
}

// --- Key files.

TEST(ClhsimKeygen, MakesAPairOnce)
{
    Simulator server;  // for its directory
    std::string file = server.directory + "/server.key";
    Finished run = run_clhsim({"--keygen", file});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find(file + ".pub"), std::string::npos);
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((file + ".pub").c_str(), &status), 0);
    run = run_clhsim({"--keygen", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find(file), std::string::npos);
}

TEST(ClhsimKeygen, ServerProvesItselfWithItsKey)
{
    Simulator other;
    std::string file = other.directory + "/server.key";
    ASSERT_EQ(run_clhsim({"--keygen", file}).status, 0);
    setenv("KEXCLI_OWN_KEY", file.c_str(), 1);
    Simulator server({"--encipher"});
    unsetenv("KEXCLI_OWN_KEY");
    Simulator stranger({"--encipher"});
    setenv("KEXCLI_PEER_KEY", (file + ".pub").c_str(), 1);

    SealedLink client(server);
    EXPECT_EQ(client.log_in().exchange(string_call("ECHO", "x")).text(), "x");
    SealedLink fooled(stranger);
    fooled.send_hello();
    EXPECT_TRUE(fooled.link.ended());
}

TEST(ClhsimKeygen, ServerWithABadKeyDoesntStart)
{
    setenv("KEXCLI_OWN_KEY", "/nowhere/server.key", 1);
    Finished run = run_clhsim({"--encipher"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("KEXCLI_OWN_KEY"), std::string::npos);
}
