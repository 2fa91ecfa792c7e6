// Address lists, the order of connecting and its timing, and the node table.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <locale.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "runtime/errlog.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "wire/network.h"
#include "wire/tnetwork.h"

namespace {

static const int32_t LOOPBACK = (int32_t)htonl(INADDR_LOOPBACK);

TEST(HostPort, IsSplitAtTheColon)
{
    struct {
        const char *text, *host;
        int port, result;
    } const rows[] = {
        {"host:7000", "host", 7000, 1},
        {"host", "host", 0, 0},
        {"10.0.0.1:1", "10.0.0.1", 1, 1},
        {"host:", "host", 0, 1},
        {":7000", "", 7000, 1},
        {"host:7000x", "host", 7000, 1},
        {"host:7000:1", "host", 7000, 1},
        {"host:x", "host", 0, 1},
        {"host:99999999999999999999", "host", INT32_MAX, 1},
    };
    for (auto &row : rows) {
        std::string text = row.text;
        address_row parsed;
        EXPECT_EQ(_parse_hostport_string(text.data(), &parsed), row.result) << row.text;
        EXPECT_STREQ(parsed.host, row.host);
        EXPECT_EQ(parsed.port, row.port) << row.text;
        EXPECT_STREQ(text.c_str(), row.host) << "the colon is overwritten";
    }
}

TEST(HostPort, ALongHostIsCut)
{
    for (size_t length : {255u, 256u, 1000u}) {
        std::string text = std::string(length, 'h') + ":5";
        address_row parsed;
        EXPECT_EQ(_parse_hostport_string(text.data(), &parsed), 1);
        EXPECT_EQ(std::string(parsed.host), std::string(255, 'h'));
        EXPECT_EQ(parsed.port, 5);
    }
}

// "a:1 b:2 | c:3": rows by blanks, groups by bars.
static std::string described(int count, const address_group *groups)
{
    std::string text;
    for (int i = 0; i < count; i++) {
        text += i == 0 ? "" : " |";
        for (int k = 0; k < groups[i].count; k++)
            text += " " + std::string(groups[i].rows[k].host) + ":" + std::to_string(groups[i].rows[k].port);
    }
    return text;
}

struct list_row {
    const char *text;
    int result;
    const char *described;
};

TEST(AddressGroup, IsParsed)
{
    const list_row rows[] = {
        {"a:1", 1, " a:1"},
        {"a:1|b:2", 2, " a:1 b:2"},
        {"a:1|b:2|c:3", 3, " a:1 b:2 c:3"},
        {"a", 0, " a:0"},
        {"a|", 0, " a:0"},
        {"a:1|", 1, " a:1"},
        {"a:1||b:2", 1, " a:1"},
        {"a:1||b", 1, " a:1"},
        {"", -1, ""},
        {"|a:1", -1, ""},
        {"a|b", -1, ""},
        {"a:1|b", -1, ""},
        {"a|b:1", -1, ""},
    };
    for (const list_row &row : rows) {
        address_group group = {-7, nullptr};
        EXPECT_EQ(_parse_cousin_string(row.text, &group), row.result) << row.text;
        if (row.result < 0)
            continue;
        EXPECT_EQ(described(1, &group), row.described) << row.text;
        free(group.rows);
    }
}

TEST(AddressList, IsParsed)
{
    const list_row rows[] = {
        {"a:1", 1, " a:1"},
        {"(a:1)", 1, " a:1"},
        {"(a:7000|b:7000),(c:7000)", 2, " a:7000 b:7000 | c:7000"},
        {"a:1|b:2,c:3|d:4,e:5", 3, " a:1 b:2 | c:3 d:4 | e:5"},
        {"a:1,", 1, " a:1"},
        {"(a:1),", 1, " a:1"},
        {"a:1,,b:2", 1, " a:1"},
        {"((a):(1)", 1, " a:1"},
        {"host", 0, " host:0"},
        {"(host)", 0, " host:0"},
        {"host,", 0, " host:0"},
        {"", -1, ""},
        {",a:1", -1, ""},
        {"()", -1, ""},
        {"a:1,()", -1, ""},
        {"host:7000|other", -1, ""},
        {"a:1,b", -1, ""},
        {"a,b:1", -1, ""},
        {"a,b", -1, ""},
        {"a:1,b|c:1", -1, ""},
    };
    for (const list_row &row : rows) {
        address_group *groups = nullptr;
        int count = _parse_addr_string(row.text, &groups);
        EXPECT_EQ(count, row.result) << row.text;
        if (count < 0) {
            EXPECT_EQ(groups, nullptr) << row.text;
            continue;
        }
        int made = count == 0 ? 1 : count;
        EXPECT_EQ(described(made, groups), row.described) << row.text;
        EXPECT_EQ(_free_addr_pairs(made, groups), 0);
    }
}

TEST(AddressList, FreeingNothingIsFine)
{
    EXPECT_EQ(_free_addr_pairs(3, nullptr), 0);
}

TEST(AddressList, AGroupHasABound)
{
    std::string group = "a:1";
    while (group.size() + 4 <= (size_t)MOST_GROUP_TEXT)
        group += "|a:1";
    group += std::string((size_t)MOST_GROUP_TEXT - group.size(), '1');
    address_group *groups = nullptr;
    std::string list = "b:2," + group + ",c:3";
    EXPECT_EQ(_parse_addr_string(list.c_str(), &groups), 3);
    _free_addr_pairs(3, groups);
    groups = nullptr;
    list = "b:2," + group + "1,c:3";
    EXPECT_EQ(_parse_addr_string(list.c_str(), &groups), -1);
    EXPECT_EQ(groups, nullptr);
    address_group single;
    EXPECT_EQ(_parse_cousin_string((group + "1").c_str(), &single), -1);
}

TEST(AddressList, SurvivesEachFailingAllocation)
{
    const char *text = "a:1|b:2,c:3,d:4|e:5";
    int failures = 0;
    for (int nth = 1; nth < 20; nth++) {
        address_group *groups = nullptr;
        faults::fail_allocation(nth);
        int count = _parse_addr_string(text, &groups);
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        EXPECT_EQ(count, failed ? -1 : 3);
        if (!failed) {
            _free_addr_pairs(3, groups);
            break;
        }
        failures++;
    }
    EXPECT_EQ(failures, 4);
}

// A server on a port of this machine that takes connections into its backlog.
struct Server {
    int port = 0;
    int held = hold_port(&port);
    int fd = _network_listen_ipaddr2(LOOPBACK, &port);
    ~Server()
    {
        stop();
        close(held);
    }
    void stop()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port); }
};

static int peer_port(int fd)
{
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    getpeername(fd, (sockaddr *)&peer, &length);
    return ntohs(peer.sin_port);
}

struct Connecting : testing::Test {
    LogFile log;
    Server first, second, third;

    Connecting()
    {
        for (const char *name : {"VORN_HOST_ADDR", "VORN_HOST_PORT", "VORN_BACKUP_ADDR", "VORN_BACKUP_PORT",
                                 "VORN_CONNECT_TIMEOUT"})
            unsetenv(name);
    }
    // One try an address, so that a dead one doesn't cost a second.
    void one_try() { setenv("VORN_CONNECT_TIMEOUT", "0.5", 1); }
    int connect_to(const std::string &addresses)
    {
        setenv("VORN_HOST_ADDR", addresses.c_str(), 1);
        return _connect_to_main_server();
    }
    // The port at the other end, -1 without a connection; closes it.
    int port_reached(int fd)
    {
        int port = fd < 0 ? -1 : peer_port(fd);
        if (fd >= 0)
            close(fd);
        return port;
    }
};

TEST_F(Connecting, ToAnAddressWithItsPort)
{
    EXPECT_EQ(port_reached(connect_to(first.address())), first.port);
    EXPECT_EQ(port_reached(connect_to("(" + first.address() + ")")), first.port);
    EXPECT_EQ(port_reached(connect_to("localhost:" + std::to_string(first.port))), first.port);
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Connecting, ThePortMayStandInItsOwnVariable)
{
    setenv("VORN_HOST_PORT", std::to_string(second.port).c_str(), 1);
    EXPECT_EQ(port_reached(connect_to("127.0.0.1")), second.port);
    EXPECT_EQ(port_reached(connect_to(first.address())), first.port) << "only where the list has none";
}

TEST_F(Connecting, TheSocketSendsWithoutDelay)
{
    int fd = connect_to(first.address());
    int on = 0;
    socklen_t length = sizeof on;
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);
}

TEST_F(Connecting, GroupsAreTriedInTheirOrder)
{
    one_try();
    std::string list = first.address() + "," + second.address() + "," + third.address();
    EXPECT_EQ(port_reached(connect_to(list)), first.port);
    first.stop();
    EXPECT_EQ(port_reached(connect_to(list)), second.port);
    second.stop();
    EXPECT_EQ(port_reached(connect_to(list)), third.port);
    third.stop();
    EXPECT_EQ(connect_to(list), -1);
    EXPECT_EQ(log.lines(), 1);
    EXPECT_TRUE(
        log.has("(E) CLI 3003 unable to connect to main server : " + list + " [CLI0106][Connection refused]"))
        << log.text();
}

TEST_F(Connecting, TheWholeGroupIsTriedBeforeTheNext)
{
    one_try();
    std::string list = first.address() + "|" + second.address() + "," + third.address();
    first.stop();
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(port_reached(connect_to(list)), second.port);
}

TEST_F(Connecting, AGroupBeginsAtTheGeneratorsAddress)
{
    std::string list = first.address() + "|" + second.address() + "|" + third.address();
    const int ports[] = {first.port, second.port, third.port};
    EXPECT_EQ(_vorn_srand_flag, 0);
    std::vector<int> expected;
    srand((unsigned)getpid());
    for (int i = 0; i < 12; i++)
        expected.push_back(ports[rand() % 3]);
    srand(1);
    for (int i = 0; i < 12; i++)
        EXPECT_EQ(port_reached(connect_to(list)), expected[(size_t)i]) << i;
    EXPECT_EQ(_vorn_srand_flag, 1);
}

TEST_F(Connecting, ALoneAddressAsksNoGenerator)
{
    close(connect_to(first.address()));
    srand(5);
    int next = rand();
    srand(5);
    close(connect_to(first.address()));
    EXPECT_EQ(rand(), next);
}

TEST_F(Connecting, PastTheEndOfAGroupItsBeginningFollows)
{
    one_try();
    address_row rows[3] = {{"127.0.0.1", first.port}, {"127.0.0.1", second.port}, {"127.0.0.1", third.port}};
    address_group group = {3, rows};
    second.stop();
    third.stop();
    for (unsigned seed = 0; seed < 20; seed++) {
        srand(seed);
        int begin = rand() % 3;
        srand(seed);
        faults::reset();
        EXPECT_EQ(port_reached(_connect_to_addr_pairs(&group)), first.port);
        EXPECT_EQ(faults::count(faults::CONNECT), begin == 0 ? 1 : begin == 1 ? 3 : 2);
    }
}

TEST_F(Connecting, AMissingListIsLogged)
{
    EXPECT_EQ(_connect_to_main_server(), -1);
    EXPECT_TRUE(log.has("(E) CLI 0100 getenv error : VORN_HOST_ADDR [CLI0102]\n")) << log.text();
    EXPECT_EQ(_connect_to_backup_server(), -1);
    EXPECT_TRUE(log.has("(E) CLI 0100 getenv error : VORN_BACKUP_ADDR [CLI0102]\n")) << log.text();
}

TEST_F(Connecting, AListThatCantBeParsedIsLogged)
{
    int lines = 0;
    for (const char *bad : {"", "host:7000|other", "a:1,b", ",a:1", "()"}) {
        EXPECT_EQ(connect_to(bad), -1) << bad;
        EXPECT_EQ(log.lines(), ++lines) << bad;
    }
    EXPECT_TRUE(log.has("(E) CLI 0100 getenv error : VORN_HOST_ADDR [CLI0103]\n")) << log.text();
    EXPECT_EQ(_vorn_srand_flag, 0);
}

TEST_F(Connecting, AMissingPortIsLogged)
{
    EXPECT_EQ(connect_to("127.0.0.1"), -1);
    EXPECT_TRUE(log.has("(E) CLI 0100 getenv error : VORN_HOST_PORT [CLI0104]\n")) << log.text();
    EXPECT_EQ(faults::count(faults::CONNECT), 0);
}

TEST_F(Connecting, TheBackupHasItsOwnVariablesAndTheMainServersText)
{
    one_try();
    setenv("VORN_HOST_ADDR", first.address().c_str(), 1);
    setenv("VORN_BACKUP_ADDR", "127.0.0.1", 1);
    EXPECT_EQ(_connect_to_backup_server(), -1);
    EXPECT_TRUE(log.has("0100 getenv error : VORN_BACKUP_PORT [CLI0104]")) << log.text();
    setenv("VORN_BACKUP_PORT", std::to_string(second.port).c_str(), 1);
    EXPECT_EQ(port_reached(_connect_to_backup_server()), second.port);
    second.stop();
    EXPECT_EQ(_connect_to_backup_server(), -1);
    EXPECT_TRUE(log.has("3003 unable to connect to main server : 127.0.0.1 [CLI0106]")) << log.text();
}

TEST_F(Connecting, TheLogKeepsTheFirst255Characters)
{
    one_try();
    first.stop();
    std::string list = first.address();
    while (list.size() < 400)
        list += "," + first.address();
    EXPECT_EQ(connect_to(list), -1);
    EXPECT_TRUE(log.has("server : " + list.substr(0, 255) + " [CLI0106]")) << log.text();
}

struct LocalServer : Connecting {
    LocalServer() { setenv("VORN_HOST_PORT", log.directory.c_str(), 1); }
    ~LocalServer() override { unlink((log.directory + "/cllrcad").c_str()); }
    int listen() { return _tproc_listen((log.directory + "/cllrcad").c_str()); }
};

TEST_F(LocalServer, ADirectoryAsPortIsALocalConnection)
{
    int listener = listen();
    int fd = connect_to("host");
    ASSERT_GE(fd, 0);
    int accepted = _tproc_accept(listener);
    EXPECT_GE(accepted, 0);
    close(fd);
    setenv("VORN_CONNECT_TIMEOUT", "2", 1);
    fd = connect_to("host");
    EXPECT_GE(fd, 0);
    close(fd);
    close(accepted);
    close(listener);
    EXPECT_EQ(_vorn_srand_flag, 0);
}

TEST_F(LocalServer, NobodyThereIsLogged)
{
    one_try();
    EXPECT_LT(connect_to("host"), 0);
    EXPECT_TRUE(log.has("3003 unable to connect to main server : " + log.directory +
                        "/cllrcad [CLI0105][No such file or directory]"))
        << log.text();
    EXPECT_EQ(log.lines(), 1);
}

TEST_F(LocalServer, ALongDirectoryFails)
{
    one_try();
    setenv("VORN_HOST_PORT", ("/" + std::string(5000, 'd')).c_str(), 1);
    EXPECT_LT(connect_to("host"), 0);
    setenv("VORN_HOST_PORT", "", 1);
    EXPECT_LT(connect_to("host"), 0);
    EXPECT_TRUE(log.has("server : /cllrcad [CLI0105]")) << log.text();
}

struct Timing : Connecting {
    // What a failing search costs: attempts made, with a limit or without.
    int attempts = 0, timed = 0;
    int try_with(const char *limit)
    {
        if (limit != nullptr)
            setenv("VORN_CONNECT_TIMEOUT", limit, 1);
        int fd = _connect_to_server("127.0.0.1", first.port);
        attempts = faults::count(faults::CONNECT);
        timed = faults::count(faults::SELECT);
        return fd;
    }
};

TEST_F(Timing, WithoutALimitThereAreTenTries)
{
    first.stop();
    EXPECT_EQ(try_with(nullptr), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(attempts, 10);
}

TEST_F(Timing, ALaterTryMaySucceed)
{
    faults::fail(faults::CONNECT, 1, ECONNREFUSED, 3);
    int fd = try_with(nullptr);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(attempts, 4);
    EXPECT_EQ(timed, 0) << "blocking tries";
    close(fd);
}

TEST_F(Timing, AFractionOfASecondIsOneTry)
{
    first.stop();
    EXPECT_EQ(try_with("0.5"), -1);
    EXPECT_EQ(attempts, 1);
    faults::reset();
    EXPECT_EQ(try_with(" +.25"), -1);
    EXPECT_EQ(attempts, 1);
}

TEST_F(Timing, TheFractionsDotIsThatOfTheCLocale)
{
    for (const char *name : {"de_DE.UTF-8", "fr_FR.UTF-8"})
        setlocale(LC_ALL, name);
    first.stop();
    EXPECT_EQ(try_with("0.5"), -1);
    EXPECT_EQ(attempts, 1);
}

TEST_F(Timing, TriesGoOnUntilTheLimitHasPassed)
{
    first.stop();
    faults::step_clock_at_call(4, 120);
    EXPECT_EQ(try_with("100"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(attempts, 3) << "the clock is read at the start and after each try";
}

TEST_F(Timing, TriesAreAtMostAHundred)
{
    first.stop();
    for (const char *none : {"0", "abc", "-5", "nan", ""}) {
        faults::reset();
        faults::fail(faults::CONNECT, 1, ECONNREFUSED, 2);
        Server open;
        setenv("VORN_CONNECT_TIMEOUT", none, 1);
        int fd = _connect_to_server("127.0.0.1", open.port);
        EXPECT_GE(fd, 0) << none;
        EXPECT_EQ(faults::count(faults::SELECT), 0) << none << ": no limit for a try";
        close(fd);
    }
    faults::reset();
    EXPECT_EQ(try_with("0"), -1);
    EXPECT_EQ(attempts, 100);
}

TEST_F(Timing, HugeLimitsAreLimits)
{
    for (const char *huge : {"1e300", "inf", "99999999999"}) {
        int fd = try_with(huge);
        EXPECT_GE(fd, 0) << huge;
        close(fd);
    }
}

struct Nodes : testing::Test {
    LogFile log;
    wthr_var *block = (wthr_var *)calloc(1, sizeof(wthr_var));
    struct {
        int32_t nodes = 3, queues = 0, svcs = 0;
        initout_node rows[3] = {};
    } reply;  // in host order, as the context keeps it

    ~Nodes() override
    {
        free(block->node_table);
        free(block);
    }
    void name(int row, const std::string &node, const std::string &lnid)
    {
        node.copy(reply.rows[row].name, 16);
        lnid.copy(reply.rows[row].lnid, 16);
    }
    void take_reply()
    {
        block->node_count = reply.nodes;
        block->initout = (char *)&reply;
        block->initout_nodes = reply.rows;
    }
};

TEST_F(Nodes, TableStartsEmpty)
{
    ASSERT_EQ(_init_node(3, block), 1);
    EXPECT_EQ(block->node_count, 3);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(block->node_table[i].fd, -1);
        EXPECT_EQ(block->node_table[i].clh, -1);
        EXPECT_EQ(block->node_table[i].client, -1);
        EXPECT_EQ(block->node_table[i].active, 0);
    }
    ASSERT_EQ(_init_node(1, block), 1);
    EXPECT_EQ(block->node_count, 1);
}

TEST_F(Nodes, ACountBelowOneFreesTheTable)
{
    for (int count : {0, -1, INT32_MIN}) {
        ASSERT_EQ(_init_node(3, block), 1);
        EXPECT_EQ(_init_node(count, block), -1);
        EXPECT_EQ(block->node_table, nullptr);
        EXPECT_EQ(block->node_count, 0);
    }
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Nodes, AHostileCountIsCut)
{
    ASSERT_EQ(_init_node(INT32_MAX, block), 1);
    EXPECT_EQ(block->node_count, 0x100000);
    EXPECT_EQ(block->node_table[0xfffff].fd, -1);
}

TEST_F(Nodes, WithoutMemoryTheProcessEnds)
{
    EXPECT_EXIT(
        {
            unsetenv("VORN_DEBUG");
            faults::fail_allocation(1);
            _init_node(3, block);
        },
        testing::ExitedWithCode(1), "\\(F\\) CLI 0005 memory allocation error : size = 48 \\[CLI0114\\]");
}

TEST_F(Nodes, AreAddedAndTakenOut)
{
    ASSERT_EQ(_init_node(3, block), 1);
    EXPECT_EQ(_node_add(11, 1, 4, 99, block), 1);
    EXPECT_EQ(_node_add(12, 2, 5, 98, block), 1);
    node_elem *row = &block->node_table[1];
    EXPECT_EQ(row->fd, 11);
    EXPECT_EQ(row->clh, 4);
    EXPECT_EQ(row->client, 99);
    EXPECT_EQ(row->active, 0);
    row->active = 1;
    block->node_table[2].active = 1;
    _node_del(77, block);
    EXPECT_EQ(row->active, 1);
    _node_del(11, block);
    EXPECT_EQ(row->fd, -1);
    EXPECT_EQ(row->active, 0);
    EXPECT_EQ(row->clh, 4) << "only the socket goes";
    EXPECT_EQ(block->node_table[2].fd, 12);
    EXPECT_EQ(block->node_table[2].active, 1);
}

TEST_F(Nodes, OnlyTheFirstRowOfASocketIsCleared)
{
    ASSERT_EQ(_init_node(3, block), 1);
    _node_add(11, 0, 1, 1, block);
    _node_add(11, 2, 1, 1, block);
    _node_del(11, block);
    EXPECT_EQ(block->node_table[0].fd, -1);
    EXPECT_EQ(block->node_table[2].fd, 11);
}

TEST_F(Nodes, ANumberOutsideTheTableIsLeftOut)
{
    EXPECT_EQ(_node_add(11, 0, 4, 99, block), -1) << "no table";
    _node_del(11, block);
    ASSERT_EQ(_init_node(3, block), 1);
    for (int node : {3, -1, 0x3fff, INT32_MAX, INT32_MIN})
        EXPECT_EQ(_node_add(11, node, 4, 99, block), -1);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(block->node_table[i].fd, -1);
}

TEST_F(Nodes, ALoneNodeAnswersToEveryName)
{
    block->node_count = 1;
    EXPECT_EQ(_get_nodeno_from_nodename("whatever", block), 0);
    EXPECT_EQ(_get_nodeno_from_lnid("whatever", block), 0);
    EXPECT_EQ(_get_nodeno_from_nodename(nullptr, block), 0);
}

TEST_F(Nodes, WithoutAStartReplyNoNameIsKnown)
{
    block->node_count = 3;
    EXPECT_EQ(_get_nodeno_from_nodename("A", block), -1);
    EXPECT_EQ(_get_nodeno_from_lnid("A", block), -1);
}

TEST_F(Nodes, AreFoundByEitherName)
{
    name(0, "alpha", "L0");
    name(1, "sixteen-long-one", "L1");
    name(2, "alpha", "sixteen-long-two");
    take_reply();
    EXPECT_EQ(_get_nodeno_from_nodename("alpha", block), 0) << "the first of a name";
    EXPECT_EQ(_get_nodeno_from_nodename("sixteen-long-one", block), 1);
    EXPECT_EQ(_get_nodeno_from_nodename("sixteen-long-oneL1", block), -1) << "a full field ends at its size";
    EXPECT_EQ(_get_nodeno_from_nodename("sixteen-long", block), -1);
    EXPECT_EQ(_get_nodeno_from_nodename("L1", block), -1);
    EXPECT_EQ(_get_nodeno_from_nodename("ALPHA", block), -1);
    EXPECT_EQ(_get_nodeno_from_nodename(nullptr, block), -1);
    EXPECT_EQ(_get_nodeno_from_lnid("L1", block), 1);
    EXPECT_EQ(_get_nodeno_from_lnid("sixteen-long-two", block), 2);
    EXPECT_EQ(_get_nodeno_from_lnid("alpha", block), -1);
    EXPECT_EQ(_get_nodeno_from_lnid("", block), -1);
}

TEST_F(Nodes, OnlyTheRowsOfTheReplyAreLookedAt)
{
    name(0, "alpha", "L0");
    name(1, "beta", "L1");
    reply.nodes = 1;
    take_reply();
    block->node_count = 3;
    EXPECT_EQ(_get_nodeno_from_nodename("alpha", block), 0);
    EXPECT_EQ(_get_nodeno_from_nodename("beta", block), -1);
}

}
