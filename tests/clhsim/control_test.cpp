// The commands of the control socket.
#include "simulator.h"

#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

TEST(ClhsimControl, HelpNamesEveryCommand)
{
    Simulator server;
    std::string help = server.command("help");
    for (const char *name :
         {"help",     "services",      "clients",      "stats",    "delay",         "drop",
          "refuse",   "giveback",      "truncate",     "clear",    "close",         "reset",
          "warn",     "post",          "set",          "login",    "quit",          "result",
          "converse", "conversations", "transactions", "accounts", "subscriptions", "godown",
          "envelope", "keys",          "counts",       "kmq",      "closesession"})
        EXPECT_NE(help.find(std::string("  ") + name + " "), std::string::npos) << name;
    EXPECT_NE(server.command("services").find("  TOUPPER "), std::string::npos);
}

TEST(ClhsimControl, WrongLinesAreErrorsAndHarmless)
{
    Simulator server;
    for (const char *line : {"",
                             "nonsense",
                             "delay",
                             "delay TOUPPER",
                             "delay TOUPPER x",
                             "delay TOUPPER -1",
                             "delay TOUPPER 1 0",
                             "delay TOUPPER 1 2 3",
                             "drop",
                             "drop TOUPPER 0",
                             "refuse TOUPPER",
                             "refuse TOUPPER 0",
                             "refuse TOUPPER 99999999999",
                             "truncate TOUPPER",
                             "result _tx_commit",
                             "result _tx_commit 1001",
                             "converse 1 all",
                             "close",
                             "close 1",
                             "close x",
                             "post 1 notify hello",
                             "post all nothing hello",
                             "post all",
                             "set all 12",
                             "set all x 1",
                             "set 77 12 1",
                             "login",
                             "login perhaps",
                             "login refuse 0",
                             "quit now",
                             "reset 1",
                             "warn 1",
                             "clear"})
        EXPECT_EQ(server.command(line).rfind("error ", 0), 0u) << line;
    EXPECT_EQ(server.log_in().exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimControl, SeveralLinesInOnePieceAndLinesInPieces)
{
    Simulator server;
    EXPECT_EQ(server.command("delay A 1\ndelay B 1"), "ok");
    EXPECT_EQ(server.command("  drop \t A   1 "), "ok") << "the answer to the second line";
    EXPECT_EQ(server.command("clear A\r"), "ok");
}

TEST(ClhsimControl, OverlongLineEndsTheController)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(server.command(std::string(70000, 'x')), "error line too long");
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimControl, ClientsAreListed)
{
    Simulator server;
    EXPECT_EQ(server.command("clients"), "ok 0 clients");
    Link bob = server.connect();
    bob.start("bob", "till\n4");
    bob.exchange(string_call("TOUPPER", "a"));
    Link nobody = server.log_in();
    EXPECT_EQ(server.command("clients"),
              "  1 tcp user \"bob\" name \"till\\x0a4\" calls 1 acknowledged 0 identity 1\n"
              "  2 tcp user \"\" name \"\" calls 0 acknowledged 0 identity 2\nok 2 clients");
}

TEST(ClhsimControl, StatsCount)
{
    Simulator server;
    Link link = server.log_in();
    link.exchange(string_call("TOUPPER", "a"));
    link.exchange(string_call("TOUPPER", "a"));
    link.exchange(string_call("NOSUCH", "a"));
    EXPECT_EQ(server.stat("accepted"), 1);
    EXPECT_EQ(server.stat("logins"), 1);
    EXPECT_EQ(server.stat("calls"), 3);
    EXPECT_EQ(server.stat("unknown_calls"), 1);
    EXPECT_EQ(server.stat("calls.TOUPPER"), 2);
    EXPECT_EQ(server.stat("messages_in"), 4);
    EXPECT_EQ(server.stat("messages_out"), 4);
    EXPECT_EQ(server.stat("open"), 1);
}

TEST(ClhsimControl, DelayHoldsRepliesOfThatServiceBack)
{
    Simulator server;
    Link link = server.log_in();
    server.command("delay TOUPPER 50 1");
    auto before = std::chrono::steady_clock::now();
    link.send(bytes_of(string_call("TOUPPER", "late")) + bytes_of(string_call("ECHO", "early")));
    EXPECT_EQ(link.receive().text(), "early");
    EXPECT_EQ(link.receive().text(), "LATE");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    link.send(bytes_of(string_call("TOUPPER", "first")) + bytes_of(string_call("ECHO", "second")));
    EXPECT_EQ(link.receive().text(), "FIRST") << "the count is used up";
}

TEST(ClhsimControl, DropLetsRepliesGetLost)
{
    Simulator server;
    Link link = server.log_in();
    server.command("drop TOUPPER 2");
    link.send(string_call("TOUPPER", "one"));
    link.send(string_call("TOUPPER", "two"));
    link.send(string_call("TOUPPER", "three"));
    EXPECT_EQ(link.receive().text(), "THREE");
    EXPECT_EQ(server.stat("dropped"), 2);
    server.command("drop TOUPPER");
    for (int i = 0; i < 5; i++)
        link.send(string_call("TOUPPER", "gone"));
    EXPECT_EQ(link.exchange(string_call("ECHO", "there")).text(), "there");
    server.command("clear TOUPPER");
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "back")).text(), "BACK");
}

TEST(ClhsimControl, DroppedReplyLeavesTheReceipt)
{
    Simulator server;
    Link link = server.log_in();
    server.command("drop TOUPPER");
    Message call = call_of("TOUPPER", "a", MSG_TPACALL);
    call.flags = 0x200;
    EXPECT_EQ(link.exchange(call).msgtype, 1028);
    EXPECT_EQ(link.exchange(string_call("ECHO", "next")).text(), "next");
}

TEST(ClhsimControl, RefuseAnswersWithThatError)
{
    Simulator server;
    Link link = server.log_in();
    server.command("refuse TOUPPER 10 1");
    Message reply = link.exchange(string_call("TOUPPER", "a"));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 10);
    EXPECT_EQ(reply.datalen, 0);
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A");
    server.command("refuse * 13");
    EXPECT_EQ(link.exchange(string_call("ECHO", "a")).flags, 13);
    EXPECT_EQ(link.exchange(string_call("REVERSE", "a")).flags, 13);
    server.command("refuse REVERSE 14");
    EXPECT_EQ(link.exchange(string_call("REVERSE", "a")).flags, 14)
        << "a service's own fault comes before that of all";
    server.command("clear *");
    EXPECT_EQ(link.exchange(string_call("REVERSE", "ab")).text(), "ba");
}

TEST(ClhsimControl, GivebackReturnsTheRequestWithItsMark)
{
    Simulator server;
    Link link = server.log_in();
    server.command("giveback TOUPPER 1");
    Message call = string_call("TOUPPER", "abc");
    call.xflags = 0x02000000;
    Message back = link.exchange(call);
    EXPECT_EQ(back.msgtype, 2003);
    EXPECT_EQ(back.xflags, 0x22000000u);
    EXPECT_EQ(back.flags, 0);
    EXPECT_EQ(back.text(), "abc");
    EXPECT_EQ(link.exchange(call).text(), "ABC");
}

TEST(ClhsimControl, TruncateCutsTheReplyAndEnds)
{
    Simulator server;
    for (size_t bytes : {0, 1, 7, 8, 135, 136, 139, 140, 1000}) {
        server.command("truncate TOUPPER " + std::to_string(bytes) + " 1");
        Link link = server.log_in();
        link.send(string_call("TOUPPER", "abc"));
        EXPECT_EQ(link.read_rest().size(), std::min<size_t>(bytes, 140));
    }
}

TEST(ClhsimControl, TruncatedReplyArrivesThoughMoreWasAsked)
{
    Simulator server;
    server.command("truncate TOUPPER 100 1");
    Link link = server.log_in();
    std::string requests;
    for (int i = 0; i < 1000; i++)
        requests += bytes_of(string_call("TOUPPER", std::string(1000, 'x')));
    link.send(requests);
    EXPECT_EQ(link.read_rest().size(), 100u);
    EXPECT_FALSE(link.reset) << "what it doesn't want any more is read all the same";
}

TEST(ClhsimControl, CloseEndsOneOrAll)
{
    Simulator server;
    Link one = server.log_in();
    Link two = server.log_in();
    Link fresh = server.connect();
    EXPECT_EQ(server.command("close 1"), "ok 1 client");
    EXPECT_TRUE(one.ended());
    EXPECT_EQ(two.exchange(string_call("TOUPPER", "a")).text(), "A");
    EXPECT_EQ(server.command("close 1"), "error no such client");
    server.command("close all");
    EXPECT_TRUE(two.ended());
    EXPECT_TRUE(fresh.ended());
    EXPECT_EQ(server.command("close all"), "ok 0 clients");
}

TEST(ClhsimControl, ResetBreaksOff)
{
    Simulator server;
    Link link = server.log_in();
    server.command("reset 1");
    char byte;
    EXPECT_EQ(recv(link.fd, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(ClhsimControl, WarnSendsTheUrgentByte)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(server.command("warn 1"), "ok 1 client");
    pollfd urgent = {link.fd, POLLPRI, 0};
    ASSERT_EQ(poll(&urgent, 1, 30000), 1);
    unsigned char byte = 0;
    EXPECT_EQ(recv(link.fd, &byte, 1, MSG_OOB), 1);
    EXPECT_EQ(byte, 217);
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A") << "the byte isn't in the stream";
}

TEST(ClhsimControl, PostSendsEachKind)
{
    Simulator server;
    Link link = server.log_in();
    struct Kind {
        const char *name;
        int32_t msgtype;
        int32_t flags;
    };
    for (const Kind &kind : {Kind{"post", 12, 0}, Kind{"broadcast", 13, 0}, Kind{"notify", 14, 0},
                             Kind{"notifyack", 14, 0x8000}, Kind{"sendtocli", 19, 0}}) {
        EXPECT_EQ(server.command(std::string("post 1 ") + kind.name + "   two  words "), "ok 1 client");
        Message message = link.receive();
        EXPECT_EQ(message.msgtype, kind.msgtype);
        EXPECT_EQ(message.flags, kind.flags);
        EXPECT_EQ(message.buftype, STRING);
        EXPECT_EQ(message.data, std::string("two  words \0", 12));
    }
    server.command("post all raw bytes as they are");
    Message raw = link.receive();
    EXPECT_TRUE(raw.raw);
    EXPECT_EQ(raw.data, "bytes as they are");
    server.command("post all raw 12");
    std::string frame = link.read_bytes(10);
    EXPECT_EQ(frame, std::string("\0\0\x1a\x0a\0\0\0\x02", 8) + "12");
}

TEST(ClhsimControl, PostReachesOnlyWhoIsLoggedIn)
{
    Simulator server;
    Link in = server.log_in();
    Link out = server.connect();
    EXPECT_EQ(server.command("post all post hello"), "ok 1 client");
    EXPECT_EQ(in.receive().text(), "hello");
    EXPECT_EQ(server.command("post 2 post hello"), "error no such client");
}

TEST(ClhsimControl, AcknowledgementIsCounted)
{
    Simulator server;
    Link link = server.log_in();
    server.command("post 1 notifyack hello");
    Message notify = link.receive();
    EXPECT_NE(notify.srcid, 0);
    Message acknowledgement;
    acknowledgement.msgtype = 1014;
    acknowledgement.cd = notify.srcid;
    link.send(acknowledgement);
    EXPECT_EQ(server.line_with("acknowledged"),
              "clhsim: client 1 acknowledged notification " + std::to_string(notify.srcid));
    EXPECT_EQ(server.stat("acknowledged"), 1);
    server.command("post 1 notifyack hello");
    EXPECT_NE(link.receive().srcid, notify.srcid);
}

TEST(ClhsimControl, SetSendsASetting)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(server.command("set 1 12 5"), "ok 1 client");
    Message setting = link.receive();
    EXPECT_EQ(setting.msgtype, 130);
    EXPECT_EQ(setting.cd, 12);
    EXPECT_EQ(setting.value, 5);
    EXPECT_EQ(setting.datalen, 0);
    server.command("set all 13 -1");
    setting = link.receive();
    EXPECT_EQ(setting.cd, 13);
    EXPECT_EQ(setting.value, -1);
}

TEST(ClhsimControl, LoginSwitches)
{
    Simulator server;
    server.command("login refuse");
    EXPECT_EQ(server.connect().start().target, 25);
    server.command("login refuse 12");
    EXPECT_EQ(server.connect().start().target, 12);
    server.command("login accept");
    EXPECT_EQ(server.connect().start().msgtype, 1001);
}

TEST(ClhsimControl, QuitEndsTheServer)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(server.command("quit"), "ok");
    EXPECT_EQ(server.wait(), 0);
    EXPECT_TRUE(link.ended());
}
