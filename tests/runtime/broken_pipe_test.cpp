// A send to a server that has gone, with the library's own handler for the signal that comes of it.
#include "runtime/sigapi.h"

#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhio.h"
#include "wire/clhread.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

// The peer's refusal of what was sent after its end has come: from now on a send is a broken pipe.
bool wait_for_broken(int fd)
{
    pollfd one = {fd, 0, 0};
    return poll(&one, 1, faults::PATIENCE_SECONDS * 1000) == 1 && (one.revents & (POLLHUP | POLLERR)) != 0;
}

bool handler_is_installed(void)
{
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == _vorn_sig_handler;
}

// A connected socket under a number of the caller's choice, as an application may get it after a close.
struct Stranger {
    int fd, other = -1;

    explicit Stranger(int number) : fd(number)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        bool second = ends[1] == number;
        other = ends[second ? 0 : 1];
        int mine = ends[second ? 1 : 0];
        if (mine == number)
            return;
        EXPECT_EQ(dup2(mine, number), number);
        close(mine);
    }
    ~Stranger()
    {
        close(fd);
        close(other);
    }
    // Neither closed nor shut down.
    void expect_untouched(void)
    {
        EXPECT_TRUE(is_open(fd));
        char byte = 'x';
        EXPECT_EQ(::write(fd, &byte, 1), 1);
        EXPECT_EQ(::read(other, &byte, 1), 1);
        EXPECT_EQ(::write(other, &byte, 1), 1);
        EXPECT_EQ(::read(fd, &byte, 1), 1);
    }
};

struct BrokenPipe : WireTest {
    BrokenPipe() { _vorn_signal_control(); }

    int send_one(void)
    {
        msg_header *message = new_message(MSG_TPACALL, "abcd");
        int result = _send_csmsg_to_clh(message, block);
        free(message);
        return result;
    }

    // Sends until the pipe breaks. The number that the connection had.
    int break_the_pipe(void)
    {
        int fd = block->clhfd;
        peer.hang_up();
        EXPECT_EQ(send_one(), 1);  // nobody has told this side yet
        EXPECT_TRUE(wait_for_broken(fd));
        EXPECT_EQ(send_one(), -1);
        return fd;
    }
};

struct BrokenPipeOfASession : SessionTest {};

}  // namespace

TEST_F(BrokenPipe, SendEndsTheSession)
{
    ASSERT_TRUE(handler_is_installed());
    block->sessionid = 5;
    block->session_token = 6;
    int fd = break_the_pipe();
    EXPECT_EQ(error(), TPECLOSE);
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(block->started, 0);
    EXPECT_EQ(block->sessionid, -1);
    EXPECT_EQ(block->session_token, -1);
    EXPECT_EQ(block->in_send, 0);
    EXPECT_FALSE(is_open(fd));
    EXPECT_TRUE(log.has("0111 signal SIGPIPE catched")) << log.text();
    EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
    pthread_mutex_unlock(&block->msg_mutex);
}

TEST_F(BrokenPipe, ReadErrorThatFollowsLeavesTheNumbersNewOwnerAlone)
{
    int fd = break_the_pipe();
    ASSERT_FALSE(is_open(fd));
    Stranger stranger(fd);
    // A thread that read the connection meets its end only now.
    errno = 0;
    EXPECT_EQ(_clh_read_error(fd, 0, 0, block), 1);
    EXPECT_EQ(error(), TPECLOSE);
    stranger.expect_untouched();
    errno = EPIPE;
    EXPECT_EQ(_clh_read_error(fd, -1, 0, block), 1);
    EXPECT_EQ(error(), TPECLOSE);
    stranger.expect_untouched();
    _clhc_close(fd, block);
    stranger.expect_untouched();
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(block->started, 0);
}

TEST_F(BrokenPipe, WriteErrorThatFollowsLeavesTheNumbersNewOwnerAlone)
{
    int fd = break_the_pipe();
    Stranger stranger(fd);
    msg_header *message = new_message(MSG_TPACALL, "abcd");
    EXPECT_EQ(_internal_send_csmsg_to_clh(message, block, fd), -1);  // its number was taken before the end
    EXPECT_EQ(error(), TPEOS);
    free(message);
    stranger.expect_untouched();
    char byte;
    EXPECT_EQ(recv(stranger.other, &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(BrokenPipe, SecondEndOfTheSameConnectionLeavesTheNewOwnerAlone)
{
    int fd = block->clhfd;
    peer.hang_up();
    EXPECT_EQ(_clh_read_error(fd, 0, 0, block), 1);
    EXPECT_FALSE(is_open(fd));
    Stranger stranger(fd);
    EXPECT_EQ(_clh_read_error(fd, 0, 0, block), 1);
    stranger.expect_untouched();
}

TEST_F(BrokenPipeOfASession, CallTellsItAndTheNextDoesNothing)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(signal(SIGPIPE, _vorn_sig_handler), _vorn_sig_handler);  // the start has installed it
    int fd = block()->clhfd;
    peer.hang_up();
    EXPECT_EQ(tpacall((char *)"S", nullptr, 0, TPNOREPLY), 0);
    ASSERT_TRUE(wait_for_broken(fd));
    EXPECT_EQ(tpacall((char *)"S", nullptr, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    EXPECT_EQ(block()->clhfd, -1);
    EXPECT_EQ(block()->started, 0);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(block()->acall_active, 0);
    Stranger stranger(fd);
    EXPECT_EQ(tpacall((char *)"S", nullptr, 0, 0), 1);
    stranger.expect_untouched();
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    stranger.expect_untouched();
    EXPECT_TRUE(peer.nobody_knocks());
}
