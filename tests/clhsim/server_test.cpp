// The program: where it listens, many clients, the log, the command line, and its end.
#include "simulator.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static std::string contents(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

static bool exists(const std::string &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

TEST(ClhsimServer, ServesBothTransportsAtOnce)
{
    Simulator server({"--port", "0", "--local", "DIR"});
    Link tcp = server.connect_tcp();
    Link local = server.connect_local();
    EXPECT_EQ(tcp.start().value, 1);
    EXPECT_EQ(local.start().value, 2);
    EXPECT_EQ(tcp.exchange(string_call("TOUPPER", "tcp")).text(), "TCP");
    EXPECT_EQ(local.exchange(string_call("TOUPPER", "local")).text(), "LOCAL");
    std::string clients = server.command("clients");
    EXPECT_NE(clients.find("  1 tcp "), std::string::npos);
    EXPECT_NE(clients.find("  2 local "), std::string::npos);
}

TEST(ClhsimServer, LocalAloneOpensNoPort)
{
    Simulator server({"--local", "DIR"});
    EXPECT_EQ(server.port, 0);
    EXPECT_EQ(server.log_in().exchange(string_call("REVERSE", "ab")).text(), "ba");
}

TEST(ClhsimServer, ManyClientsAtOnce)
{
    Simulator server;
    constexpr int CLIENTS = 400;
    std::vector<Link> links;
    for (int i = 0; i < CLIENTS; i++)
        links.push_back(server.log_in());
    for (int i = 0; i < CLIENTS; i++)
        links[static_cast<size_t>(i)].send(call_of("ECHO", std::to_string(i), MSG_TPCALL, CARRAY, i));
    for (int i = CLIENTS - 1; i >= 0; i--) {
        Message reply = links[static_cast<size_t>(i)].receive();
        ASSERT_EQ(reply.seqno, i);
        ASSERT_EQ(reply.data, std::to_string(i));
    }
    EXPECT_EQ(server.stat("open"), CLIENTS);
}

TEST(ClhsimServer, WithoutDescriptorsNewClientsWaitForOldOnesToGo)
{
    Simulator server;
    rlimit few = {24, 24};
    ASSERT_EQ(prlimit(server.pid, RLIMIT_NOFILE, &few, nullptr), 0);
    Message start;
    start.msgtype = MSG_TPSTART;
    std::vector<Link> links;
    for (int i = 0; i < 60; i++) {
        links.push_back(server.connect());
        links.back().send(start);
    }
    for (Link &link : links) {
        ASSERT_EQ(link.receive().msgtype, 1001);
        link.close();
    }
}

TEST(ClhsimServer, ClientThatDiesIsForgotten)
{
    Simulator server;
    Link one = server.log_in();
    one.close();
    Link two = server.log_in();
    two.exchange(string_call("TOUPPER", "a"));
    EXPECT_EQ(server.stat("open"), 1);
}

TEST(ClhsimServer, ControlSocketIsTheOwnersAlone)
{
    Simulator server;
    struct stat status = {};
    ASSERT_EQ(stat(server.control_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0077, 0u);
}

TEST(ClhsimServer, SignalsEndItCleanly)
{
    for (int number : {SIGTERM, SIGINT}) {
        Simulator server({"--port", "0", "--local", "DIR"});
        Link link = server.log_in();
        link.send(string_call("SLEEP", "100"));
        server.signal(number);
        EXPECT_EQ(server.wait(), 0);
        EXPECT_TRUE(link.ended());
        EXPECT_FALSE(exists(server.directory + "/cllrcad"));
        EXPECT_FALSE(exists(server.control_path));
    }
}

TEST(ClhsimServer, SocketOfAKilledServerMakesWay)
{
    Simulator first({"--local", "DIR"});
    first.signal(SIGKILL);
    EXPECT_EQ(first.wait(), -SIGKILL);
    ASSERT_TRUE(exists(first.directory + "/cllrcad"));
    Simulator second({"--local", first.directory, "--control", first.control_path});
    Link link = first.connect_local();
    link.start();
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimServer, SocketOfALivingServerIsLeftAlone)
{
    Simulator server({"--local", "DIR"});
    Finished run = run_clhsim({"--local", server.directory});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("in use"), std::string::npos);
    EXPECT_EQ(server.log_in().exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimServer, FileInTheWayIsLeftAlone)
{
    Simulator server;
    std::string path = server.directory + "/cllrcad";
    std::ofstream(path) << "precious";
    Finished run = run_clhsim({"--local", server.directory});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(contents(path), "precious");
}

TEST(ClhsimServer, PortInUseIsAnError)
{
    Simulator server;
    Finished run = run_clhsim({"--port", std::to_string(server.port)});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("can't listen on port"), std::string::npos);
}

TEST(ClhsimServer, HelpTellsOptionsServicesAndCommands)
{
    Finished run = run_clhsim({"--help"});
    EXPECT_EQ(run.status, 0);
    for (const char *word : {"--port", "--local", "--control", "--user", "--threshold", "--ready-fd",
                             "TOUPPER", "BIG", "truncate", "notifyack", "_tpstart"})
        EXPECT_NE(run.output.find(word), std::string::npos) << word;
}

TEST(ClhsimServer, WrongOptionsAreRefused)
{
    const std::vector<std::vector<std::string>> wrong = {{"--nonsense"},
                                                         {"--port"},
                                                         {"--port", "65536"},
                                                         {"--port", "x"},
                                                         {"--acall-size", "-1"},
                                                         {"--clh-number", "256"},
                                                         {"--nodes", "a,,b"},
                                                         {"--nodes", "a:b:c"},
                                                         {"--nodes", "a2345678901234567"},
                                                         {"--queues", "a2345678901234567"},
                                                         {"--user", ":x"},
                                                         {"--verbose=1"},
                                                         {"--max-data", "1"},
                                                         {"stray"}};
    for (const auto &options : wrong) {
        Finished run = run_clhsim(options);
        EXPECT_EQ(run.status, 2) << options[0];
        EXPECT_NE(run.output.find("try clhsim --help"), std::string::npos);
    }
    EXPECT_EQ(run_clhsim({"--bind", "nowhere"}).status, 1);
    EXPECT_EQ(run_clhsim({"--local", "/tmp/" + std::string(200, 'x')}).status, 1);
    EXPECT_EQ(run_clhsim({"--log-file", "/nonexistent/log"}).status, 1);
}

TEST(ClhsimServer, ReadyDescriptorGetsThePort)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    Simulator server({"--ready-fd", std::to_string(ends[1])});
    close(ends[1]);
    EXPECT_EQ(Link(ends[0]).read_rest(), std::to_string(server.port) + "\n");
}

static Message log_line(const std::string &text)
{
    Message line = call_of("_userlog", text, 121);
    line.rcode = 4711;
    return line;
}

static Message log_flush()
{
    Message flush;
    flush.msgtype = 123;
    flush.svcname = "_ulogsync";
    return flush;
}

TEST(ClhsimLog, LinesGoToStandardOutput)
{
    Simulator server;
    Link link = server.log_in();
    link.send(log_line(std::string("first line\n\0", 12)));
    link.send(log_line("no newline, no nul"));
    link.send(log_line("an escape \x1b[31m"));
    link.send(log_flush());
    EXPECT_EQ(server.line_with("userlog"), "clhsim: userlog 1: first line");
    EXPECT_EQ(server.next_line(), "clhsim: userlog 1: no newline, no nul");
    EXPECT_EQ(server.next_line(), "clhsim: userlog 1: an escape \\x1b[31m");
    EXPECT_EQ(server.next_line(), "clhsim: ulogsync 1");
    EXPECT_EQ(server.stat("log_lines"), 3);
    EXPECT_EQ(server.stat("log_flushes"), 1);
}

TEST(ClhsimLog, FileHoldsTheLinesOnceFlushed)
{
    char directory[] = "/tmp/clhsim-log-XXXXXX";
    ASSERT_TRUE(mkdtemp(directory));
    std::string path = std::string(directory) + "/log";
    std::ofstream(path) << "older\n";
    {
        Simulator server({"--log-file", path});
        Link link = server.log_in();
        link.send(log_line(std::string("one\n\0", 5)));
        link.send(log_line(std::string("two\0", 4)));
        link.send(log_flush());
        link.exchange(string_call("TOUPPER", "a"));
        EXPECT_EQ(contents(path), "older\none\ntwo\n");
        link.send(log_line("three"));
        link.exchange(string_call("TOUPPER", "a"));
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(), 0);
    }
    EXPECT_EQ(contents(path), "older\none\ntwo\nthree\n");
    unlink(path.c_str());
    rmdir(directory);
}

TEST(ClhsimLog, LinesBeforeTheLoginAreIgnored)
{
    Simulator server;
    Link link = server.connect();
    link.send(log_line("early"));
    link.start();
    EXPECT_EQ(server.stat("log_lines"), 0);
    EXPECT_EQ(server.stat("ignored"), 1);
}
