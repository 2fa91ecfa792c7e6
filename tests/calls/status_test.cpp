// What the context and a buffer's header tell: priorities, time limits, addresses of the connection, sleeping
// on it, the names in a header.
#include "calls/groups.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Priority = GroupTest;
using BlockTime = GroupTest;

struct Sleep : GroupTest {
    timeval time = {0, 0};

    // Sleeps for at most so long; the caller's record stays as it was.
    int sleep(long seconds, long microseconds = 0)
    {
        time = {seconds, microseconds};
        int result = tpsleep(&time);
        EXPECT_EQ(time.tv_sec, seconds);
        EXPECT_EQ(time.tv_usec, microseconds);
        return result;
    }

    // A few bytes on the connection, of a message that comes later.
    void let_something_come(void)
    {
        peer.send_raw(wire::encode(wire::message(1012)).substr(0, 10));
        ASSERT_TRUE(wait_for_bytes(block()->clhfd, 10));
    }
};

struct SocketName : GroupTest {
    sockaddr_storage name = {};
    socklen_t length = 0;

    sockaddr *place(void) { return (sockaddr *)&name; }
    const sockaddr_in *tcp(void) const { return (const sockaddr_in *)&name; }

    // Bytes 16 to 31 of the record, which nothing may touch.
    std::string beyond(void) const { return std::string((const char *)&name + 16, 16); }
};

struct HeaderName : GroupTest {
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136;
    char name[34];

    HeaderName() { memset(name, '#', sizeof name); }

    void name_service(char *buffer, const char *text)
    {
        memset(message_of(buffer)->svcname, 0, 32);
        memcpy(message_of(buffer)->svcname, text, strlen(text));
    }

    void expect_name(const std::string &text)
    {
        EXPECT_EQ(std::string(name, 32), text + std::string(32 - text.size(), '\0'));
        EXPECT_EQ(std::string(name + 32, 2), "##");
    }
};

}  // namespace

// ---- tpgprio, tpsprio

TEST_F(Priority, IsUnknownBeforeTheFirstRequest)
{
    for (bool started : {false, true}) {
        if (started) {
            ASSERT_TRUE(open());
        }
        set_tperrno(0);
        EXPECT_EQ(tpgprio(), -1);
        EXPECT_EQ(gettperrno(), TPENOENT);
    }
    EXPECT_EQ(tpsprio(60, TPABSOLUTE), 1);
    EXPECT_EQ(tpgprio(), -1) << "setting it is no request";
    EXPECT_EQ(gettperrno(), TPENOENT);
}

TEST_F(Priority, IsThatOfTheNextRequest)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        for (int prio : {60, 50, 49}) {
            peer.expect(wire::TPCALL).prio(prio);
            peer.reply("x");
        }
    });
    EXPECT_EQ(tpsprio(60, TPABSOLUTE), 1);
    EXPECT_EQ(call(), 1);
    set_tperrno(TPESVRDOWN);
    EXPECT_EQ(tpgprio(), 50);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(tpsprio(-1, 0), 1);
    EXPECT_EQ(tpgprio(), 49);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(tpgprio(), 50);
    peer.done();
}

TEST_F(Priority, LiesBetweenOneAndAHundred)
{
    ASSERT_TRUE(open());
    const struct {
        int prio;
        long flags;
        int next;  // -1: refused
    } cases[] = {
        {0, 0, 50},
        {50, 0, 100},
        {51, 0, -1},
        {-49, 0, 1},
        {-50, 0, -1},
        {INT32_MAX, 0, -1},
        {INT32_MIN, 0, -1},
        {100, TPABSOLUTE, 100},
        {101, TPABSOLUTE, -1},
        {1, TPABSOLUTE, 1},
        {0, TPABSOLUTE, -1},
        {-1, TPABSOLUTE, -1},
        {INT32_MIN, TPABSOLUTE, -1},
        {60, TPABSOLUTE | 0x7, 60},
        {10, 0x7fff, 60},
    };
    block()->last_prio = 1;
    int number = 0, standing = 50;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(TPESVRDOWN);
        EXPECT_EQ(tpsprio(row.prio, row.flags), row.next == -1 ? -1 : 1);
        EXPECT_EQ(gettperrno(), row.next == -1 ? TPEINVAL : 0);
        standing = row.next == -1 ? standing : row.next;
        EXPECT_EQ(tpgprio(), standing);
    }
    peer.expect_nothing();
}

TEST_F(Priority, IsRelativeToTheDefaultAndNotToWhatWasSet)
{
    ASSERT_TRUE(open());
    block()->default_prio = 20;
    block()->last_prio = 1;
    EXPECT_EQ(tpsprio(5, 0), 1);
    EXPECT_EQ(tpsprio(5, 0), 1);
    EXPECT_EQ(tpgprio(), 25);
}

// ---- tpset_timeout, tpget_timeout

TEST_F(BlockTime, IsWhatTheServerSaysUntilItIsSet)
{
    ASSERT_TRUE(open({.block_time = 30}));
    EXPECT_EQ(tpget_timeout(), 30);
    for (int seconds : {5, 0, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(tpset_timeout(seconds), 1);
        EXPECT_EQ(tpget_timeout(), seconds);
    }
    peer.expect_nothing();
}

TEST_F(BlockTime, LimitsTheNextWait)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(tpset_timeout(7), 1);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        let_time_run_out(8);
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
}

TEST_F(BlockTime, NoneIsNoLimit)
{
    ASSERT_TRUE(open({.block_time = 7}));
    EXPECT_EQ(tpset_timeout(0), 1);
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPCALL).frame;
        EXPECT_TRUE(client_waits());
        faults::shift_clock(100000);
        peer.send(wire::message(1012));
        peer.send(wire::message(1012));
        peer.reply_to(asked, "AT LAST");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(reply_data(), "AT LAST");
    peer.done();
}

TEST_F(BlockTime, OfAThreadWithoutASessionIsKeptToo)
{
    EXPECT_EQ(tpset_timeout(9), 1);
    EXPECT_EQ(tpget_timeout(), 9);
    EXPECT_TRUE(peer.nobody_knocks());
}

// ---- tpchkauth

TEST_F(Priority, AuthorityIsNeverAsked)
{
    set_tperrno(TPEPROTO);
    EXPECT_EQ(tpchkauth(), 0);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_TRUE(peer.nobody_knocks());
}

// ---- tpsleep

TEST_F(Sleep, EndsWithItsTime)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(sleep(0), 0);
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(sleep(0, 20000), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
}

TEST_F(Sleep, EndsWithWhatTheServerSends)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        EXPECT_TRUE(faults::wait_for_calls(faults::SELECT, 1));
        peer.send(wire::message(1012));
    });
    faults::reset();
    EXPECT_EQ(sleep(600), 1);
    peer.done();
    EXPECT_EQ(sleep(600), 1) << "nobody has read it";
    EXPECT_EQ(sleep(0), 1);
    expect_usable();
    EXPECT_EQ(sleep(0), 0);
}

TEST_F(Sleep, WithoutATimeEndsWithWhatTheServerSends)
{
    ASSERT_TRUE(open());
    let_something_come();
    EXPECT_EQ(tpsleep(nullptr), 1);
}

// What came together with the reply of a call stands in the library already.
TEST_F(Sleep, SeesWhatHasBeenReadAhead)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPCALL).frame;
        peer.send_raw(wire::encode(wire::answer(asked, "x")) + wire::encode(wire::message(1012)));
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    EXPECT_GT(sleep(600), 0);
    expect_usable();
    EXPECT_EQ(sleep(0), 0);
}

TEST_F(Sleep, WatchesTheOldConnectionToo)
{
    ASSERT_TRUE(open());
    int ends[2];
    tcp_pair(ends);
    block()->old_clhfd = ends[0];
    EXPECT_EQ(sleep(0), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    ASSERT_TRUE(wait_for_bytes(ends[0], 1));
    EXPECT_EQ(sleep(600), 1);
    let_something_come();
    EXPECT_EQ(sleep(600), 2);
    block()->old_clhfd = -1;
    EXPECT_EQ(sleep(600), 1);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(Sleep, EndOfTheConnectionIsSomethingToRead)
{
    ASSERT_TRUE(open());
    peer.hang_up();
    EXPECT_EQ(sleep(600), 1);
}

TEST_F(Sleep, FailureIsThatOfTheSystem)
{
    ASSERT_TRUE(open());
    faults::fail(faults::SELECT, 1, EINTR);
    errno = 0;
    EXPECT_EQ(sleep(600), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(sleep(-1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Sleep, OpensASession)
{
    peer.play([&] {
        peer.accept_start();
        peer.serve_end();
    });
    EXPECT_EQ(sleep(0), 0);
    EXPECT_EQ(tpend(), 1);
    peer.done();
    int error = stop_the_server();
    EXPECT_EQ(sleep(600), -1);
    EXPECT_EQ(gettperrno(), error);
}

// ---- tpgetpeername, tpgetsockname

TEST_F(SocketName, IsTheConnections)
{
    ASSERT_TRUE(open());
    memset(&name, 'x', sizeof name);
    length = 1;  // the record's own length is of no interest
    EXPECT_EQ(tpgetpeername(place(), &length), 0);
    EXPECT_EQ(length, sizeof(sockaddr_in));
    EXPECT_EQ(tcp()->sin_family, AF_INET);
    EXPECT_EQ(ntohl(tcp()->sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(ntohs(tcp()->sin_port), peer.port);
    EXPECT_EQ(beyond(), std::string(16, 'x'));

    sockaddr_in seen = {};
    socklen_t seen_length = sizeof seen;
    ASSERT_EQ(getpeername(peer.fd, (sockaddr *)&seen, &seen_length), 0);
    length = 1000;
    EXPECT_EQ(tpgetsockname(place(), &length), 0);
    EXPECT_EQ(length, sizeof(sockaddr_in));
    EXPECT_EQ(tcp()->sin_port, seen.sin_port);
    EXPECT_EQ(beyond(), std::string(16, 'x'));
}

TEST_F(SocketName, OfALocalConnectionIsCut)
{
    ASSERT_TRUE(open());
    std::string path = log.directory + "/a name that is longer than sixteen bytes";
    sockaddr_un own = {};
    own.sun_family = AF_UNIX;
    memcpy(own.sun_path, path.c_str(), path.size() + 1);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    ASSERT_EQ(bind(ends[0], (sockaddr *)&own, sizeof own), 0);
    int tcp_fd = block()->clhfd;
    block()->clhfd = ends[0];
    memset(&name, 'x', sizeof name);
    length = sizeof name;
    EXPECT_EQ(tpgetsockname(place(), &length), 0);
    EXPECT_EQ(length, offsetof(sockaddr_un, sun_path) + path.size() + 1)
        << "the whole length, as of the system";
    EXPECT_EQ(std::string((const char *)&name + 2, 14), path.substr(0, 14));
    EXPECT_EQ(beyond(), std::string(16, 'x'));
    EXPECT_EQ(tpgetpeername(place(), &length), 0);
    EXPECT_EQ(name.ss_family, AF_UNIX);
    EXPECT_EQ(length, 2u);
    block()->clhfd = tcp_fd;
    close(ends[0]);
    close(ends[1]);
    unlink(path.c_str());
}

TEST_F(SocketName, WantsPlacesForBoth)
{
    for (auto tell : {tpgetpeername, tpgetsockname}) {
        for (int which = 0; which < 3; which++) {
            set_tperrno(0);
            EXPECT_EQ(tell(which == 0 ? place() : nullptr, which == 1 ? &length : nullptr), -1);
            EXPECT_EQ(gettperrno(), TPEINVAL);
        }
        EXPECT_TRUE(peer.nobody_knocks());
    }
}

TEST_F(SocketName, FailureIsThatOfTheSystem)
{
    ASSERT_TRUE(open());
    int fd = block()->clhfd;
    block()->clhfd = peer.listener;
    EXPECT_EQ(tpgetpeername(place(), &length), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(gettperrno(), 0);
    block()->clhfd = fd;
}

TEST_F(SocketName, OpensASession)
{
    for (auto tell : {tpgetpeername, tpgetsockname}) {
        peer.play([&] {
            peer.accept_start();
            peer.serve_end();
        });
        EXPECT_EQ(tell(place(), &length), 0);
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
    int error = stop_the_server();
    for (auto tell : {tpgetpeername, tpgetsockname}) {
        set_tperrno(0);
        EXPECT_EQ(tell(place(), &length), -1);
        EXPECT_EQ(gettperrno(), error);
    }
}

// ---- vornlastsvc

TEST_F(HeaderName, LastServiceIsThatOfTheOutputBufferFirst)
{
    name_service(in, "INPUT");
    name_service(out, "OUTPUT");
    set_tperrno(TPESVRDOWN);
    char *last = vornlastsvc(in, out, -1);
    ASSERT_NE(last, nullptr);
    EXPECT_STREQ(last, "OUTPUT");
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_STREQ(vornlastsvc(nullptr, out, 0), "OUTPUT");
    name_service(out, "");
    EXPECT_EQ(vornlastsvc(in, out, 0), last);
    EXPECT_STREQ(last, "INPUT");
    EXPECT_STREQ(vornlastsvc(in, nullptr, 0), "INPUT");
    EXPECT_STREQ(vornlastsvc(in, bad, 0), "INPUT");
    name_service(out, "AGAIN");
    EXPECT_STREQ(vornlastsvc(bad, out, 0), "AGAIN");
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(HeaderName, LastServiceMayBeNowhere)
{
    name_service(in, "");
    name_service(out, "");
    char *pairs[][2] = {{nullptr, nullptr}, {in, nullptr}, {nullptr, out}, {in, out},
                        {bad, bad},         {bad, out},    {in, bad}};
    for (auto &pair : pairs) {
        set_tperrno(0);
        EXPECT_EQ(vornlastsvc(pair[0], pair[1], 0), nullptr);
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
}

TEST_F(HeaderName, LastServiceIsThatOfTheRequestUntilTheReplyTellsAnother)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPCALL).frame;
        asked.svcname = "FORWARDED";
        peer.reply_to(asked, "x");
    });
    EXPECT_EQ(call(0, "FIRST"), 1);
    peer.done();
    EXPECT_STREQ(vornlastsvc(in, nullptr, 0), "FIRST");
    EXPECT_STREQ(vornlastsvc(in, out, 0), "FORWARDED");
}

// ---- tpextsvcname, tpextsvcinfo

TEST_F(HeaderName, IsCopiedWhole)
{
    name_service(in, "SERVICE");
    set_tperrno(TPESVRDOWN);
    EXPECT_EQ(tpextsvcname(in, name), 1);
    EXPECT_EQ(gettperrno(), 0);
    expect_name("SERVICE");
    name_service(in, "");
    EXPECT_EQ(tpextsvcname(in, name), 1);
    expect_name("");
    std::string longest(31, 's');
    name_service(in, longest.c_str());
    EXPECT_EQ(tpextsvcname(in, name), 1);
    expect_name(longest);
    EXPECT_TRUE(peer.nobody_knocks());
}

// The server's name may fill its place to the last byte.
TEST_F(HeaderName, OfAReplyIsEnded)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPCALL).frame;
        asked.svcname = std::string(32, 'f');
        peer.reply_to(asked, "x");
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    EXPECT_EQ(tpextsvcname(out, name), 1);
    expect_name(std::string(31, 'f'));
    int type = 0, code = 0;
    memset(name, '#', sizeof name);
    EXPECT_EQ(tpextsvcinfo(out, name, &type, &code), 1);
    expect_name(std::string(31, 'f'));
    EXPECT_STREQ(vornlastsvc(nullptr, out, 0), std::string(31, 'f').c_str());
}

TEST_F(HeaderName, ErrorsComeInTheirOrder)
{
    int type = 7, code = 8;
    const struct {
        char *buffer, *place;
        int error;
    } cases[] = {{nullptr, nullptr, TPEINVAL},
                 {nullptr, name, TPEINVAL},
                 {bad, nullptr, TPEINVAL},
                 {in, nullptr, TPEINVAL},
                 {bad, name, TPEITYPE}};
    for (const auto &row : cases) {
        set_tperrno(0);
        EXPECT_EQ(tpextsvcname(row.buffer, row.place), -1);
        EXPECT_EQ(gettperrno(), row.error);
        set_tperrno(0);
        EXPECT_EQ(tpextsvcinfo(row.buffer, row.place, &type, &code), -1);
        EXPECT_EQ(gettperrno(), row.error);
    }
    EXPECT_EQ(std::string(name, 34), std::string(34, '#'));
    EXPECT_EQ(type, 7);
    EXPECT_EQ(code, 8);
}

TEST_F(HeaderName, InfoTellsByThousandsWhatBecameOfIt)
{
    const struct {
        int32_t prio;
        int type;
    } cases[] = {{0, 0},    {50, 0},    {999, 0},   {-5, 0},   {INT32_MIN, 0}, {1000, 2},
                 {1999, 2}, {2000, -1}, {2999, -1}, {3000, 1}, {9999, 1},      {INT32_MAX, 1}};
    name_service(in, "SERVICE");
    int32_t errcode = -3;
    for (const auto &row : cases) {
        message_of(in)->prio = row.prio;
        message_of(in)->rcode = ++errcode;
        int type = 77, code = 77;
        set_tperrno(TPESVRDOWN);
        EXPECT_EQ(tpextsvcinfo(in, name, &type, &code), 1);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(type, row.type) << row.prio;
        EXPECT_EQ(code, errcode);
        expect_name("SERVICE");
    }
    int code = 0, type = 0;
    EXPECT_EQ(tpextsvcinfo(in, name, nullptr, &code), 1);
    EXPECT_EQ(code, errcode);
    EXPECT_EQ(tpextsvcinfo(in, name, &type, nullptr), 1);
    EXPECT_EQ(type, 1);
    EXPECT_EQ(tpextsvcinfo(in, name, nullptr, nullptr), 1);
}
