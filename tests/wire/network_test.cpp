// TCP sockets: results, log codes, options, and what is left open.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/errlog.h"
#include "support/fixtures.h"
#include "wire/network.h"
#include "wire/refuse.h"

namespace {

static const int32_t LOOPBACK = (int32_t)htonl(INADDR_LOOPBACK);
static const char *const NO_SUCH_HOST = "no-such-host.invalid";

static sockaddr_in own_address(int fd)
{
    sockaddr_in own = {};
    socklen_t length = sizeof own;
    EXPECT_EQ(getsockname(fd, (sockaddr *)&own, &length), 0);
    return own;
}

static int own_port(int fd) { return ntohs(own_address(fd).sin_port); }

static int option(int fd, int which)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, which, &value, &length), 0);
    return value;
}

static bool is_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }

struct Network : testing::Test {
    LogFile log;
    int listener = -1;
    int port = 0;

    Network()
    {
        listener = _network_listen_ipaddr2(LOOPBACK, &port);
        EXPECT_GE(listener, 0);
    }
    ~Network() override { close(listener); }
    // A port on which nobody listens.
    int quiet_port()
    {
        int quiet = 0;
        hold_port(&quiet);  // until this process ends
        return quiet;
    }
    // Makes the listener's queue so full that no further handshake ends until somebody is accepted.
    void fill_backlog()
    {
        ASSERT_EQ(listen(listener, 0), 0);
        for (int i = 0; i < 4; i++) {
            int fd = -1;
            ASSERT_GE(_network_connect_nb(nullptr, LOOPBACK, port, &fd), 0);
            waiting.push_back(fd);
        }
    }
    std::vector<int> waiting;
};

TEST_F(Network, ListensOnAllAddresses)
{
    int fd = _network_listen(0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(own_address(fd).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(option(fd, SO_REUSEADDR), 1);
    EXPECT_EQ(option(fd, SO_ACCEPTCONN), 1);
    close(fd);
    fd = _network_listen2(0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(own_address(fd).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(option(fd, SO_REUSEADDR), 0);
    EXPECT_EQ(option(fd, SO_ACCEPTCONN), 1);
    close(fd);
}

TEST_F(Network, ListensOnOneAddress)
{
    int fd = _network_listen_ipaddr(LOOPBACK, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(own_address(fd).sin_addr.s_addr, (uint32_t)LOOPBACK);
    EXPECT_EQ(option(fd, SO_REUSEADDR), 1);
    close(fd);
}

TEST_F(Network, TellsThePortItGot)
{
    EXPECT_EQ(port, own_port(listener));
    EXPECT_GT(port, 0);
    EXPECT_EQ(option(listener, SO_REUSEADDR), 1);
    int same = quiet_port();
    int fd = _network_listen_ipaddr2(LOOPBACK, &same);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(own_port(fd), same);
    close(fd);
    fd = _network_listen_ipaddr2(LOOPBACK, nullptr);
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST_F(Network, APortInUseIsMinusTwo)
{
    int before = next_descriptor(), taken = port;
    EXPECT_EQ(_network_listen(port), -2);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(_network_listen2(port), -2);
    EXPECT_EQ(_network_listen_ipaddr(LOOPBACK, port), -2);
    EXPECT_EQ(_network_listen_ipaddr2(LOOPBACK, &taken), -2);
    EXPECT_EQ(next_descriptor(), before);
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Network, APortThatIsNoneIsRefused)
{
    int before = next_descriptor(), fd = -5;
    for (int bad : {-1, 65536, 65536 + port, INT32_MAX}) {
        EXPECT_EQ(_network_listen(bad), -2);
        EXPECT_EQ(_network_connect(nullptr, LOOPBACK, bad), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(_network_connect_with_timeout(nullptr, LOOPBACK, bad, 1), -1);
        EXPECT_EQ(_network_connect_nb(nullptr, LOOPBACK, bad, &fd), -1);
        EXPECT_EQ(_network_connect2(nullptr, LOOPBACK, port, bad), -2);
    }
    EXPECT_EQ(fd, -5);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, AFailingListenIsMinusThree)
{
    if (!refuse_call(SYS_listen, EADDRINUSE))
        GTEST_SKIP() << "calls can't be refused here";
    int before = next_descriptor(), any = 0;
    EXPECT_EQ(_network_listen(0), -3);
    EXPECT_EQ(_network_listen2(0), -3);
    EXPECT_EQ(_network_listen_ipaddr(LOOPBACK, 0), -3);
    EXPECT_EQ(_network_listen_ipaddr2(LOOPBACK, &any), -3);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, AFailingGetsocknameIsMinusFour)
{
    if (!refuse_call(SYS_getsockname, ENOBUFS))
        GTEST_SKIP() << "calls can't be refused here";
    int before = next_descriptor(), any = 0;
    EXPECT_EQ(_network_listen_ipaddr2(LOOPBACK, &any), -4);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(any, 0);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, WithoutADescriptorIsMinusOne)
{
    NoDescriptors left;
    int fd = -5, any = 0;
    EXPECT_EQ(_network_listen(0), -1);
    EXPECT_EQ(_network_listen2(0), -1);
    EXPECT_EQ(_network_listen_ipaddr(LOOPBACK, 0), -1);
    EXPECT_EQ(_network_listen_ipaddr2(LOOPBACK, &any), -1);
    EXPECT_EQ(_network_accept(listener), -1);
    EXPECT_EQ(_network_connect(nullptr, LOOPBACK, port), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(_network_connect_nb2(nullptr, LOOPBACK, port, &fd, 0), -1);
    EXPECT_EQ(fd, -5);
}

// The codes of each connecting function, one row each.
struct connecting {
    const char *name, *socket_code, *lookup_code, *option_code;
    int (*call)(const char *host, int32_t ip, int port, int local_port);
};

static int begun(int result, int fd)
{
    return result < 0 ? result : fd;
}

static const connecting connects[] = {
    {"connect", "COM0105", "COM0104", nullptr,
     [](const char *host, int32_t ip, int port, int) { return _network_connect(host, ip, port); }},
    {"timeout3", "COM0107", "COM0106", nullptr,
     [](const char *host, int32_t ip, int port, int) {
         return _network_connect_with_timeout3(host, ip, port, 5, 1);
     }},
    {"timeout", "COM0107", "COM0106", nullptr,
     [](const char *host, int32_t ip, int port, int) {
         return _network_connect_with_timeout(host, ip, port, 5);
     }},
    {"nb", "COM0108", nullptr, nullptr,
     [](const char *host, int32_t ip, int port, int) {
         int fd = -5;
         int result = _network_connect_nb(host, ip, port, &fd);
         return begun(result, fd);
     }},
    {"connect2", "COM0109", "COM0111", "COM1010",
     [](const char *host, int32_t ip, int port, int local) {
         return _network_connect2(host, ip, port, local);
     }},
    {"timeout2", "COM0112", "COM0114", "COM0113",
     [](const char *host, int32_t ip, int port, int local) {
         return _network_connect_with_timeout2(host, ip, port, 5, local);
     }},
    {"nb2", "COM0115", nullptr, "COM0116",
     [](const char *host, int32_t ip, int port, int local) {
         int fd = -5;
         int result = _network_connect_nb2(host, ip, port, &fd, local);
         return begun(result, fd);
     }},
};

TEST_F(Network, AConnectionIsAccepted)
{
    for (const connecting &row : connects) {
        int fd = row.call(nullptr, LOOPBACK, port, 0);
        ASSERT_GE(fd, 0) << row.name;
        int accepted = _network_accept(listener);
        ASSERT_GE(accepted, 0) << row.name;
        EXPECT_EQ(option(accepted, SO_KEEPALIVE), 1) << row.name;
        EXPECT_EQ(own_port(accepted), port) << row.name;
        close(fd);
        close(accepted);
    }
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Network, ABlockingSocketComesBack)
{
    for (int i : {0, 1, 2, 4, 5}) {
        int fd = connects[i].call(nullptr, LOOPBACK, port, 0);
        ASSERT_GE(fd, 0) << connects[i].name;
        EXPECT_TRUE(is_blocking(fd)) << connects[i].name;
        close(fd);
    }
}

TEST_F(Network, ARefusedConnectionIsMinusOne)
{
    int quiet = quiet_port(), before = next_descriptor();
    for (int i : {0, 1, 2, 4, 5}) {
        EXPECT_EQ(connects[i].call(nullptr, LOOPBACK, quiet, 0), -1) << connects[i].name;
        EXPECT_EQ(errno, ECONNREFUSED) << connects[i].name;
    }
    EXPECT_EQ(next_descriptor(), before);
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Network, ZeroAndMinusOneAskForTheHost)
{
    for (const connecting &row : connects) {
        for (int32_t ip : {0, -1}) {
            int fd = row.call("127.0.0.1", ip, port, 0);
            EXPECT_GE(fd, 0) << row.name;
            close(fd);
            EXPECT_EQ(row.call(nullptr, ip, port, 0), -1) << row.name;
        }
        int fd = row.call(NO_SUCH_HOST, LOOPBACK, port, 0);
        EXPECT_GE(fd, 0) << row.name;
        close(fd);
    }
}

TEST_F(Network, AnUnknownHostIsLoggedWhereTheTableSays)
{
    VORN_LOG(0, LEVEL_ERROR, "COM0000", "opens the log");
    int before = next_descriptor(), lines = 1;
    for (const connecting &row : connects) {
        EXPECT_EQ(row.call(NO_SUCH_HOST, -1, port, 0), -1) << row.name;
        if (row.lookup_code != nullptr) {
            lines++;
            EXPECT_TRUE(log.has(std::string("(E) CLI 0063 gethostbyname error : ") + NO_SUCH_HOST + " [" +
                                row.lookup_code + "]"))
                << row.name << "\n" << log.text();
        }
        EXPECT_EQ(log.lines(), lines) << row.name;
    }
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, AMissingSocketIsLoggedUnderItsCode)
{
    VORN_LOG(0, LEVEL_ERROR, "COM0000", "opens the log");
    {
        NoDescriptors left;
        for (const connecting &row : connects)
            EXPECT_EQ(row.call(nullptr, LOOPBACK, port, 0), -1) << row.name;
    }
    for (const connecting &row : connects)
        EXPECT_TRUE(log.has(std::string("(E) CLI 0040 socket init error [") + row.socket_code +
                            "][Too many open files]"))
            << row.name << "\n" << log.text();
    EXPECT_EQ(log.lines(), 1 + (int)(sizeof connects / sizeof *connects));
}

TEST_F(Network, AnOptionThatCantBeSetIsLoggedAndLeftOut)
{
    if (!refuse_call(SYS_setsockopt, ENOPROTOOPT))
        GTEST_SKIP() << "calls can't be refused here";
    const std::string text = "(E) CLI 0062 setsockopt error : % [", cause = "][Protocol not available]";
    int any = 0, lines = 0;
    for (const connecting &row : connects) {
        if (row.option_code == nullptr)
            continue;
        int fd = row.call(nullptr, LOOPBACK, port, 0);
        EXPECT_GE(fd, 0) << row.name;
        close(fd);
        EXPECT_TRUE(log.has(text + row.option_code + cause)) << row.name << "\n" << log.text();
        EXPECT_EQ(log.lines(), ++lines);
    }
    EXPECT_GE(_network_listen(0), 0);
    EXPECT_TRUE(log.has(text + "COM0101" + cause)) << log.text();
    EXPECT_GE(_network_listen_ipaddr(LOOPBACK, 0), 0);
    EXPECT_EQ(log.lines(), lines + 2);
    EXPECT_GE(_network_listen_ipaddr2(LOOPBACK, &any), 0);
    EXPECT_TRUE(log.has(text + "COM0117" + cause)) << log.text();
    EXPECT_GE(_network_listen2(0), 0);
    EXPECT_EQ(log.lines(), lines + 3);
}

TEST_F(Network, AnAcceptedSocketWithoutKeepaliveIsClosed)
{
    int fd = _network_connect(nullptr, LOOPBACK, port);
    ASSERT_GE(fd, 0);
    if (!refuse_call(SYS_setsockopt, ENOPROTOOPT))
        GTEST_SKIP() << "calls can't be refused here";
    EXPECT_EQ(_network_accept(listener), -1);
    EXPECT_TRUE(log.has("0062 setsockopt error : % [COM0103][Protocol not available]")) << log.text();
    char byte;
    EXPECT_LE(::read(fd, &byte, 1), 0) << "the other end sees it closed";
    close(fd);
}

TEST_F(Network, AcceptTellsThePeersAddress)
{
    int fd = _network_connect(nullptr, LOOPBACK, port);
    int32_t peer = 0;
    int accepted = _network_accept2(listener, &peer);
    ASSERT_GE(accepted, 0);
    EXPECT_EQ(peer, LOOPBACK);
    EXPECT_EQ(option(accepted, SO_KEEPALIVE), 1);
    EXPECT_STREQ(_vorn_peerip(accepted), "127.0.0.1");
    EXPECT_STREQ(_vorn_peerip(fd), "127.0.0.1");
    close(fd);
    close(accepted);
    EXPECT_EQ(_network_accept2(-1, &peer), -1);
}

TEST_F(Network, TheLocalPortIsBoundFirst)
{
    for (int i : {4, 5, 6}) {
        int local = quiet_port();
        int fd = connects[i].call(nullptr, LOOPBACK, port, local);
        ASSERT_GE(fd, 0) << connects[i].name;
        EXPECT_EQ(own_port(fd), local) << connects[i].name;
        EXPECT_EQ(option(fd, SO_REUSEADDR), 1) << connects[i].name;
        close(fd);
        int before = next_descriptor();
        EXPECT_EQ(connects[i].call(nullptr, LOOPBACK, port, port), -2) << connects[i].name;
        EXPECT_EQ(connects[i].call(NO_SUCH_HOST, -1, port, port), -2) << connects[i].name;
        EXPECT_EQ(next_descriptor(), before);
    }
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Network, TheTimeLimitEndsInEtime)
{
    fill_backlog();
    int before = next_descriptor();
    EXPECT_EQ(_network_connect_with_timeout3(nullptr, LOOPBACK, port, 0, 50000), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(_network_connect_with_timeout2(nullptr, LOOPBACK, port, 1, 0), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, WithoutALimitTheConnectionIsAwaited)
{
    fill_backlog();
    for (int limit : {0, -1}) {
        std::thread server;
        faults::reset();
        faults::before(faults::SELECT, 1, [&] {
            server = std::thread([&] {
                ASSERT_EQ(listen(listener, 50), 0);
                close(_network_accept(listener));
            });
        });
        int fd = _network_connect_with_timeout3(nullptr, LOOPBACK, port, limit, limit);
        EXPECT_GE(fd, 0);
        EXPECT_TRUE(is_blocking(fd));
        close(fd);
        server.join();
    }
}

TEST_F(Network, ASignalEndsATimedConnect)
{
    faults::fail(faults::SELECT, 1, EINTR);
    EXPECT_EQ(_network_connect_with_timeout3(nullptr, LOOPBACK, port, 5, 0), -1);
    EXPECT_EQ(errno, ETIME);
}

TEST_F(Network, OtherErrorsEndAConnectAtOnce)
{
    int fd = -5, before = next_descriptor();
    faults::fail(faults::CONNECT, 1, ENETUNREACH, 3);
    EXPECT_EQ(_network_connect(nullptr, LOOPBACK, port), -1);
    EXPECT_EQ(_network_connect_with_timeout3(nullptr, LOOPBACK, port, 5, 0), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(_network_connect_nb(nullptr, LOOPBACK, port, &fd), -1);
    EXPECT_EQ(fd, -5);
    EXPECT_EQ(faults::count(faults::SELECT), 0);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(Network, AConnectThatWasNeverBegunIsNoConnection)
{
    faults::fail(faults::CONNECT, 1, EAGAIN);
    EXPECT_EQ(_network_connect_with_timeout3(nullptr, LOOPBACK, port, 5, 0), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(Network, ABegunConnectIsTheCallersToFinish)
{
    int fd = -5;
    int result = _network_connect_nb(nullptr, LOOPBACK, port, &fd);
    ASSERT_TRUE(result == 0 || result == 1);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(is_blocking(fd), result == 1);
    close(fd);
    fill_backlog();
    EXPECT_EQ(_network_connect_nb(nullptr, LOOPBACK, port, &fd), 0);
    EXPECT_FALSE(is_blocking(fd));
    EXPECT_EQ(_network_connect_nb(nullptr, LOOPBACK, port, nullptr), -1);
    close(fd);
}

TEST(PeerIp, IsUnknownWithoutAConnection)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    EXPECT_STREQ(_vorn_peerip(ends[0]), "Unknown");
    close(ends[0]);
    EXPECT_STREQ(_vorn_peerip(ends[0]), "Unknown");
    EXPECT_STREQ(_vorn_peerip(-1), "Unknown");
}

TEST(IpByName, TakesDottedAddressesAndNames)
{
    EXPECT_EQ(_vorn_getipbyname("127.0.0.1"), LOOPBACK);
    EXPECT_EQ(_vorn_getipbyname("10.1.2.3"), (int32_t)htonl(0x0a010203));
    EXPECT_EQ(_vorn_getipbyname("localhost"), LOOPBACK);
    EXPECT_EQ(_vorn_getipbyname(NO_SUCH_HOST), -1);
    EXPECT_EQ(_vorn_getipbyname(""), -1);
    EXPECT_EQ(_vorn_getipbyname(nullptr), -1);
}

}
