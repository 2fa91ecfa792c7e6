// The lines that the calls hand to the trace hook.
#include "calls/fixture.h"
#include "trace/hook.h"
#include "vorn/conversation.h"

#include <stdio.h>

namespace {

struct Traces : CallTest {
    void SetUp() override { forget(); }

    void forget(void) { take_traced(); }

    // The phase and text of each line of a function since the last look; all lines must bear its name.
    std::vector<std::string> lines_of(const std::string &function)
    {
        std::vector<std::string> texts;
        for (const traced_line &line : take_traced()) {
            EXPECT_EQ(line.one, 1) << line.text;
            if (line.function == function)
                texts.push_back(std::to_string(line.phase) + " " + line.text);
        }
        return texts;
    }

    static std::string pointer(const void *p)
    {
        char text[40];
        snprintf(text, sizeof text, "%#x", (unsigned)(uintptr_t)p);
        return text;
    }
};
using Texts = std::vector<std::string>;

}  // namespace

TEST_F(Traces, CallTellsItsArgumentsAndItsEnd)
{
    ASSERT_TRUE(start());
    forget();
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("x");
    });
    std::string entry =
        "1 tpcall(\"TOUPPER\", " + pointer(in) + ", 0, " + pointer(&out) + ", " + pointer(&len) + ", ";
    EXPECT_EQ(call(TPNOTIME), 1);
    EXPECT_EQ(lines_of("tpcall"), (Texts{entry + "32)", "2 tpcall = 1"}));
    EXPECT_EQ(call(0x4), -1);
    EXPECT_EQ(lines_of("tpcall"), (Texts{entry + "4)", "4 tpcall = -1 [4 : invalid arguments(TPEINVAL)]"}));
}

TEST_F(Traces, AsynchronousCallsTellTheirs)
{
    ASSERT_TRUE(start());
    forget();
    peer.play([&] {
        peer.expect(wire::TPACALL);
        peer.reply("no", {.flags = TPESVCFAIL});
        peer.expect(wire::TPACALL);
    });
    int cd = acall();
    EXPECT_EQ(lines_of("tpacall"),
              (Texts{"1 tpacall(\"TOUPPER\", " + pointer(in) + ", 0, 0)", "2 tpacall = 1"}));
    int *place = &cd;
    EXPECT_EQ(getrply(place), -1);
    EXPECT_EQ(lines_of("tpgetrply"),
              (Texts{"1 tpgetrply(" + pointer(place) + ", " + pointer(&out) + ", " + pointer(&len) + ", 0)",
                     "4 tpgetrply = -1 [11 : service failure(TPESVCFAIL)]"}));
    EXPECT_EQ(acall(), 2);
    forget();
    EXPECT_EQ(tpcancel(2), 1);
    EXPECT_EQ(lines_of("tpcancel"), (Texts{"1 tpcancel(2)", "2 tpcancel = 1"}));
    EXPECT_EQ(tpcancel(-7), -1);
    EXPECT_EQ(lines_of("tpcancel"),
              (Texts{"1 tpcancel(-7)", "4 tpcancel = -1 [2 : bad call descriptor(TPEBADDESC)]"}));
}

TEST_F(Traces, SuccessWithoutActionIsTold)
{
    ASSERT_TRUE(start());
    block()->started = 0;
    forget();
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(lines_of("tpcall").back(), "2 tpcall = 1");
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(lines_of("tpacall").back(), "2 tpacall = 1");
    EXPECT_EQ(tpstart(nullptr), 1);
    EXPECT_EQ(lines_of("tpstart"), (Texts{"1 tpstart(NULL)", "2 tpstart = 1"}));
    block()->started = 1;
}

TEST_F(Traces, SessionTellsItsStart)
{
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(lines_of("tpstart"), (Texts{"1 tpstart(NULL)", "2 tpstart = 0"}));
    peer.done();
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(lines_of("tpend").back(), "2 tpend = 1");
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(lines_of("tpend").back(), "4 tpend = -1 [9 : protocol error(TPEPROTO)]");
    EXPECT_EQ(tpterm(), -1);
    EXPECT_EQ(lines_of("tpterm").back(), "4 tpterm = -1 [9 : protocol error(TPEPROTO)]");
}

TEST_F(Traces, ContextCallsTellTheirsWithOneOddPhase)
{
    int number = 0;
    EXPECT_EQ(tpgetctxt(&number, 0), 1);
    EXPECT_EQ(lines_of("tpgetctxt"), (Texts{"1 tpgetctxt(" + pointer(&number) + ", 0)", "4 tpgetctxt = 1"}));
    EXPECT_EQ(tpgetctxt(&number, 3), -1);
    EXPECT_EQ(lines_of("tpgetctxt").back(), "4 tpgetctxt = -1 [4 : invalid arguments(TPEINVAL)]");
    EXPECT_EQ(tpsetctxt(-2, 0), 1);
    EXPECT_EQ(lines_of("tpsetctxt"), (Texts{"1 tpsetctxt(-2, 0)", "2 tpsetctxt = 1"}));
    EXPECT_EQ(tpsetctxt(-3, 5), -1);
    EXPECT_EQ(lines_of("tpsetctxt"),
              (Texts{"1 tpsetctxt(-3, 5)", "4 tpsetctxt = -1 [4 : invalid arguments(TPEINVAL)]"}));
}

TEST_F(Traces, BufferCallsTellTheirFailures)
{
    forget();
    EXPECT_EQ(tpalloc((char *)"NOTYPE", nullptr, 5), nullptr);
    EXPECT_EQ(lines_of("tpalloc").back(), "4 tpalloc = NULL [6 : no entry found(TPENOENT)]");
    EXPECT_EQ(tprealloc(nullptr, 5), nullptr);
    EXPECT_EQ(lines_of("tprealloc").back(), "4 tprealloc = NULL [4 : invalid arguments(TPEINVAL)]");
    // The failure of this one bears another's name in its text.
    message_of(in)->buftype = 77;
    char type[16];
    EXPECT_EQ(tptypes(in, type, nullptr), -1);
    EXPECT_EQ(lines_of("tptypes").back(), "4 tprealloc = -1 [4 : invalid arguments(TPEINVAL)]");
    message_of(in)->buftype = 3;
}

TEST_F(Traces, SpecialServiceTellsItsFailureAsACalls)
{
    wire::start_reply reply;
    reply.nodes = {"N0", "N1"};
    reply.server_name = "SPECIAL";
    ASSERT_TRUE(start(reply));
    forget();
    EXPECT_EQ(acall(0, "SPECIAL"), -1);
    bool told = false;
    const std::vector<traced_line> lines = take_traced();
    for (const traced_line &line : lines)
        told |= line.text == "tpcall = -1 [4 : invalid arguments(TPEINVAL)]" && line.phase == 4;
    EXPECT_TRUE(told);
    EXPECT_EQ(lines.back().text, "tpacall = -1 [4 : invalid arguments(TPEINVAL)]");
}

// A connect without a service is told in the words of another call.
TEST_F(Traces, ConversationCallsTellTheirErrors)
{
    ASSERT_TRUE(start());
    long event = 0, length = 0;
    char *buffer = nullptr;
    forget();
    EXPECT_EQ(tpconnect(nullptr, nullptr, 0, TPSENDONLY | TPRECVONLY), -1);
    EXPECT_EQ(lines_of("tpconnect"),
              (Texts{"1 tpcall(\"\", 0, 0, 6144)", "4 tpconnect = -1 [4 : invalid arguments(TPEINVAL)]"}));
    EXPECT_EQ(tpconnect((char *)"SVC", nullptr, 0, 0), -1);
    EXPECT_EQ(lines_of("tpconnect").front(), "1 tpconnect(\"SVC\", 0, 0, 0)");
    EXPECT_EQ(tpsend(77, nullptr, 5, 0, &event), -1);
    Texts sent = lines_of("tpsend");
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], "1 tpsend(77, 0, 5, 0, " + pointer(&event) + ")");
    EXPECT_EQ(tprecv(77, &buffer, &length, 0, &event), -1);
    EXPECT_EQ(lines_of("tprecv").size(), 2u);
    EXPECT_EQ(tpdiscon(77), -1);
    Texts ended = lines_of("tpdiscon");
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_EQ(ended[0], "1 tpdiscon(77)");
    EXPECT_EQ(ended[1].substr(0, 17), "4 tpdiscon = -1 [");
}

// A move by hand tells its entry in the phase of an exit, unlike all others.
TEST_F(Traces, MoveToTheBackupTellsItsEntryAsAnExit)
{
    ASSERT_TRUE(start());
    Peer backup;
    setenv("VORN_BACKUP_ADDR", backup.address().c_str(), 1);
    forget();
    backup.play([&] { backup.accept_start(); });
    EXPECT_EQ(tptobackup(), 1);
    EXPECT_EQ(lines_of("tptobackup"), (Texts{"2 tptobackup(void)", "2 tptobackup = 1"}));
    backup.done();
    unsetenv("VORN_BACKUP_ADDR");
    setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);  // one try an address
    setenv("VORN_HOST_ADDR", "bad", 1);
    EXPECT_EQ(tptobackup(), -1);
    std::string error = std::to_string(get_tperrno()) + " : " + tpstrerror(get_tperrno()) + "]";
    EXPECT_EQ(lines_of("tptobackup"), (Texts{"2 tptobackup(void)", "4 tptobackup = -1 [" + error}));
}
