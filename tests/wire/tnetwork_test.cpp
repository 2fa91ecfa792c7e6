// Local stream sockets.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/fixtures.h"
#include "wire/refuse.h"
#include "wire/tnetwork.h"

namespace {

struct LocalSocket : testing::Test {
    char directory[32] = "/tmp/vorn-local-XXXXXX";
    std::string path;

    LocalSocket()
    {
        EXPECT_NE(mkdtemp(directory), nullptr);
        path = std::string(directory) + "/s";
    }
    ~LocalSocket() override
    {
        unlink(path.c_str());
        rmdir(directory);
    }
    std::string path_of(size_t length) const
    {
        return std::string(directory) + "/" + std::string(length - 1 - strlen(directory), 'p');
    }
    static bool is_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0; }
    static timeval send_limit(int fd)
    {
        timeval limit = {-1, -1};
        socklen_t length = sizeof limit;
        getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length);
        return limit;
    }
};

TEST_F(LocalSocket, CarriesBytesBothWays)
{
    EXPECT_EQ(_tlisten_backlog, 127);
    int listener = _tproc_listen(path.c_str());
    ASSERT_GE(listener, 0);
    for (int timed = 0; timed < 3; timed++) {
        int fd = timed == 0 ? _tproc_connect(path.c_str())
                            : _tproc_connect_with_timeout(path.c_str(), timed - 1, timed - 1);
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(is_blocking(fd));
        int accepted = _tproc_accept(listener);
        ASSERT_GE(accepted, 0);
        char byte = 0;
        EXPECT_EQ(::write(fd, "a", 1), 1);
        EXPECT_EQ(::read(accepted, &byte, 1), 1);
        EXPECT_EQ(::write(accepted, "b", 1), 1);
        EXPECT_EQ(::read(fd, &byte, 1), 1);
        EXPECT_EQ(byte, 'b');
        close(fd);
        close(accepted);
    }
    close(listener);
}

TEST_F(LocalSocket, ListeningTakesThePlaceOfWhatWasThere)
{
    int first = _tproc_listen(path.c_str());
    int second = _tproc_listen(path.c_str());
    ASSERT_GE(second, 0);
    int fd = _tproc_connect(path.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_GE(_tproc_accept(second), 0);
    close(first);
    close(second);
    close(fd);
}

TEST_F(LocalSocket, NothingThereIsMinusFour)
{
    int before = next_descriptor();
    EXPECT_EQ(_tproc_connect(path.c_str()), -4);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(_tproc_connect_with_timeout(path.c_str(), 1, 0), -4);
    EXPECT_EQ(errno, ENOENT);
    close(_tproc_listen(path.c_str()));
    EXPECT_EQ(_tproc_connect(path.c_str()), -4);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(_tproc_connect_with_timeout(path.c_str(), 0, 1000), -4);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(LocalSocket, APathThatCantBeBoundIsMinusTwo)
{
    int before = next_descriptor();
    EXPECT_EQ(_tproc_listen("/no/such/directory/s"), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(_tproc_listen(""), -2);
    EXPECT_EQ(_tproc_listen(nullptr), -2);
    EXPECT_EQ(_tproc_listen(path_of(109).c_str()), -2);
    EXPECT_EQ(_tproc_listen(path_of(4000).c_str()), -2);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(LocalSocket, AFailingListenIsMinusThree)
{
    if (!refuse_call(SYS_listen, EADDRINUSE))
        GTEST_SKIP() << "calls can't be refused here";
    int before = next_descriptor();
    EXPECT_EQ(_tproc_listen(path.c_str()), -3);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(LocalSocket, WithoutADescriptorIsMinusOne)
{
    NoDescriptors left;
    EXPECT_EQ(_tproc_listen(path.c_str()), -1);
    EXPECT_EQ(_tproc_connect(path.c_str()), -1);
    EXPECT_EQ(_tproc_connect_with_timeout(path.c_str(), 1, 0), -1);
    EXPECT_EQ(_tproc_accept(-1), -1);
}

TEST_F(LocalSocket, PathsUpToTheAddressesSizeWork)
{
    for (size_t length : {100u, 101u, 107u, 108u}) {
        std::string longer = path_of(length);
        int listener = _tproc_listen(longer.c_str());
        ASSERT_GE(listener, 0) << length;
        int fd = _tproc_connect(longer.c_str());
        EXPECT_GE(fd, 0) << length;
        int timed = _tproc_connect_with_timeout(longer.c_str(), 5, 0);
        EXPECT_GE(timed, 0) << length;
        close(timed);
        close(fd);
        close(listener);
        unlink(longer.c_str());
    }
}

TEST_F(LocalSocket, PathsBeyondItAreRefused)
{
    std::string longer = path_of(109);
    for (const char *bad : {"", longer.c_str(), (const char *)nullptr}) {
        EXPECT_EQ(_tproc_connect(bad), -4);
        EXPECT_EQ(_tproc_connect_with_timeout(bad, 1, 0), -4);
    }
    EXPECT_EQ(faults::count(faults::CONNECT), 0);
}

struct FullBacklog : LocalSocket {
    int listener = -1;
    std::vector<int> waiting;

    FullBacklog()
    {
        _tlisten_backlog = 0;
        listener = _tproc_listen(path.c_str());
        int fd;
        while ((fd = try_once()) >= 0)
            waiting.push_back(fd);
        faults::reset();
    }
    ~FullBacklog() override
    {
        for (int fd : waiting)
            close(fd);
        close(listener);
    }
    int try_once()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        if (connect(fd, (sockaddr *)&address, sizeof address) == 0)
            return fd;
        close(fd);
        return -1;
    }
};

TEST_F(FullBacklog, TheTimeLimitEndsTheWaitForRoom)
{
    int before = next_descriptor();
    EXPECT_EQ(_tproc_connect_with_timeout(path.c_str(), 0, 30000), -4);
    EXPECT_EQ(errno, ETIME);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(FullBacklog, RoomThatComesIsTaken)
{
    for (int limit : {0, 60}) {
        std::thread server;
        faults::reset();
        faults::before(faults::CONNECT, 2, [&] {
            server = std::thread([&] { close(_tproc_accept(listener)); });
        });
        int fd = _tproc_connect_with_timeout(path.c_str(), limit, 0);
        EXPECT_GE(fd, 0);
        EXPECT_TRUE(is_blocking(fd));
        EXPECT_EQ(send_limit(fd).tv_sec, 0);
        EXPECT_EQ(send_limit(fd).tv_usec, 0);
        waiting.push_back(fd);
        server.join();
    }
}

}
