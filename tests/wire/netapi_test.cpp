// Exact-length reads and writes, probes, descriptor flags.
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "calls/cscommon.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/netapi.h"

namespace {

struct ReadN : WireTest {
    char buffer[64] = {};

    int fd() const { return block->clhfd; }
    int read(int length) { return _vorn_readn(fd(), buffer, length, block); }
    std::string got(int length) const { return std::string(buffer, (size_t)length); }
    void open_transaction(int32_t state)
    {
        block->txinfo->tx_stage = TX_STAGE_BEGUN;
        set_tx_state(block, state);
    }
};

TEST_F(ReadN, PutsShortReadsTogether)
{
    faults::limit(faults::RECV, 3);
    peer.send_raw("0123456789");
    EXPECT_EQ(read(10), 10);
    EXPECT_EQ(got(10), "0123456789");
    EXPECT_EQ(faults::count(faults::RECV), 4);
}

TEST_F(ReadN, TakesNoMoreThanAsked)
{
    peer.send_raw("0123456789");
    EXPECT_EQ(read(4), 4);
    EXPECT_EQ(read(6), 6);
    EXPECT_EQ(got(6), "456789");
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(read(-5), 0);
}

TEST_F(ReadN, GivesTheShortCountWhenThePeerClosesHalfway)
{
    for (int sent = 0; sent < 8; sent++) {
        int ends[2];
        tcp_pair(ends);
        Conn other(ends[1]);
        other.send_raw(std::string((size_t)sent, 'h'));
        other.hang_up();
        EXPECT_EQ(_vorn_readn(ends[0], buffer, 8, block), sent);
        close(ends[0]);
    }
}

TEST_F(ReadN, WithNothingThereOnANonBlockingSocketWouldBlock)
{
    _set_fl(fd(), O_NONBLOCK);
    EXPECT_EQ(read(8), -TPEBLOCK);
    EXPECT_EQ(read(8), -3);
}

TEST_F(ReadN, OtherErrorsAreMinusOne)
{
    faults::fail(faults::RECV, 1, ECONNRESET);
    EXPECT_EQ(read(8), -1);
    EXPECT_EQ(errno, ECONNRESET);
    faults::limit(faults::RECV, 2);
    faults::fail(faults::RECV, 2, EIO);
    peer.send_raw("01234567");
    EXPECT_EQ(read(8), -1);
}

TEST_F(ReadN, ASignalBeforeTheFirstByteIsNoMatter)
{
    faults::fail(faults::RECV, 1, EINTR, 3);
    peer.send_raw("01234567");
    EXPECT_EQ(read(8), 8);
    EXPECT_EQ(faults::count(faults::RECV), 4);
}

TEST_F(ReadN, ASignalBeforeTheFirstByteEndsAnExpiredTransaction)
{
    open_transaction(TX_STATE_TIMED_OUT);
    faults::fail(faults::RECV, 1, EINTR);
    EXPECT_EQ(read(8), -TPETIME);
    EXPECT_EQ(faults::count(faults::RECV), 1);
}

TEST_F(ReadN, ASignalBeforeTheFirstByteLeavesARunningTransaction)
{
    open_transaction(TX_STATE_ACTIVE);
    faults::fail(faults::RECV, 1, EINTR);
    peer.send_raw("01234567");
    EXPECT_EQ(read(8), 8);
}

TEST_F(ReadN, ASignalHalfwayDoesntAskForTheTransaction)
{
    open_transaction(TX_STATE_TIMED_OUT);
    faults::limit(faults::RECV, 4);
    faults::fail(faults::RECV, 2, EINTR);
    peer.send_raw("01234567");
    EXPECT_EQ(read(8), 8);
    EXPECT_EQ(got(8), "01234567");
}

TEST_F(ReadN, AStallLongerThanTheBlockTimeEnds)
{
    block->block_time = 1;
    _set_fl(fd(), O_NONBLOCK);
    peer.send_raw("0123");
    EXPECT_EQ(read(8), -TPESYSTEM);
    EXPECT_EQ(faults::count(faults::SELECT), 1);
}

TEST_F(ReadN, AStallWithinTheBlockTimeGoesOn)
{
    block->block_time = 60;
    _set_fl(fd(), O_NONBLOCK);
    peer.send_raw("0123");
    faults::before(faults::SELECT, 1, [&] { peer.send_raw("4567"); });
    EXPECT_EQ(read(8), 8);
    EXPECT_EQ(got(8), "01234567");
}

TEST_F(ReadN, WithoutABlockTimeAStallHasNoLimitAndDoesntSpin)
{
    _set_fl(fd(), O_NONBLOCK);
    peer.send_raw("0123");
    Task client(peer, [&] { return read(8); });
    ASSERT_TRUE(faults::wait_for_calls(faults::SELECT, 1));
    peer.send_raw("4567");
    EXPECT_EQ(client.get(), 8);
    EXPECT_LE(faults::count(faults::RECV), 4);
}

TEST_F(ReadN, WorksWithoutABlock)
{
    faults::limit(faults::RECV, 4);
    faults::fail(faults::RECV, 2, EINTR);
    peer.send_raw("01234567");
    EXPECT_EQ(_vorn_readn(fd(), buffer, 8, nullptr), 8);
}

struct WriteN : WireTest {
    int fd() const { return block->clhfd; }
};

TEST_F(WriteN, SendsOnUntilAllIsOut)
{
    faults::limit(faults::SEND, 3);
    EXPECT_EQ(_vorn_writen(fd(), "0123456789", 10), 10);
    EXPECT_EQ(peer.read_bytes(10), "0123456789");
    EXPECT_EQ(faults::count(faults::SEND), 4);
    EXPECT_EQ(_vorn_writen(fd(), "x", 0), 0);
}

TEST_F(WriteN, DoesntGoOnAfterASignal)
{
    faults::limit(faults::SEND, 3);
    faults::fail(faults::SEND, 2, EINTR);
    EXPECT_EQ(_vorn_writen(fd(), "0123456789", 10), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(faults::count(faults::SEND), 2);
}

TEST_F(WriteN, GivesTheResultOfAFailingSendAsItStands)
{
    faults::fail(faults::SEND, 1, 0);
    EXPECT_EQ(_vorn_writen(fd(), "01", 2), 0);
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(_vorn_writen(fd(), "01", 2), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(block->in_send, 0);
}

TEST_F(WriteN, MarksTheContextWhileItSends)
{
    int inside = -1;
    faults::before(faults::SEND, 1, [&] { inside = block->in_send; });
    EXPECT_EQ(_vorn_writen(fd(), "01", 2), 2);
    EXPECT_EQ(inside, 1);
    EXPECT_EQ(block->in_send, 0);
}

TEST_F(WriteN, ANegativeLengthIsNoSuccess)
{
    EXPECT_EQ(_vorn_writen(fd(), "01", -2), -1);
    EXPECT_EQ(faults::count(faults::SEND), 0);
}

TEST_F(WriteN, TheUrgentFormSendsPlainBytes)
{
    EXPECT_EQ(_vorn_writen_urg(fd(), "0123", 4), 4);
    EXPECT_EQ(peer.read_bytes(4), "0123");
    char byte;
    EXPECT_EQ(::recv(peer.fd, &byte, 1, MSG_OOB | MSG_DONTWAIT), -1);
}

struct Probe : WireTest {
    char buffer[16] = {};
    int fd() const { return block->clhfd; }
};

TEST_F(Probe, ReadTimeoutReadsExactlyOrOnce)
{
    faults::limit(faults::RECV, 2);
    peer.send_raw("012345");
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, 4, 5, 1, block), 4);
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, 4, 5, 0, block), 2);
    EXPECT_EQ(std::string(buffer, 2), "45");
}

TEST_F(Probe, ReadTimeoutEndsInEintr)
{
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, 4, 0, 1, block), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(faults::count(faults::RECV), 0);
}

TEST_F(Probe, ReadTimeoutGoesOnAfterASignal)
{
    peer.send_raw("0123");
    faults::fail(faults::SELECT, 1, EINTR, 2);
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, 4, 5, 1, block), 4);
    EXPECT_EQ(faults::count(faults::SELECT), 3);
}

TEST_F(Probe, ReadTimeoutRefusesWhatItCantDo)
{
    peer.send_raw("0123");
    EXPECT_EQ(_vorn_read_timeout(-1, buffer, 4, 0, 1, block), -1);
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, -4, 0, 0, block), -1);
    EXPECT_EQ(_vorn_read_timeout(WIDE_SET_BITS, buffer, 4, 0, 0, block), -1);
    faults::fail(faults::SELECT, 1, EIO);
    EXPECT_EQ(_vorn_read_timeout(fd(), buffer, 4, 5, 1, block), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(Probe, ReadCheckIsASelect)
{
    errno = EIO;
    EXPECT_EQ(_vorn_read_check(fd(), 0), 0);
    EXPECT_EQ(errno, 0);
    peer.send_raw("0");
    EXPECT_EQ(_vorn_read_check(fd(), 5), 1);
    EXPECT_EQ(_vorn_read_check(fd(), 0), 1) << "nothing was read";
    faults::fail(faults::SELECT, 1, EINTR);
    EXPECT_EQ(_vorn_read_check(fd(), 5), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(_vorn_read_check(-1, 0), -1);
    EXPECT_EQ(_vorn_read_check(WIDE_SET_BITS, 0), -1);
}

TEST_F(Probe, EsetCheckSeesUrgentDataOnly)
{
    EXPECT_EQ(_vorn_eset_check(-1), -1);
    EXPECT_EQ(_vorn_eset_check(WIDE_SET_BITS), -1);
    peer.send_raw("0");
    EXPECT_EQ(_vorn_eset_check(fd()), 0);
    peer.send_urgent(217);
    EXPECT_TRUE(faults::eventually([&] { return _vorn_eset_check(fd()) == 1; }));
    EXPECT_EQ(errno, 0);
}

struct RsetCheck : WireTest {
    int old_ends[2] = {-1, -1};
    int fd() const { return block->clhfd; }
    void open_old()
    {
        tcp_pair(old_ends);
        block->old_clhfd = old_ends[0];
    }
    ~RsetCheck() override
    {
        if (old_ends[1] >= 0)
            close(old_ends[1]);
    }
    void send_old(const std::string &bytes)
    {
        ASSERT_EQ(::write(old_ends[1], bytes.data(), bytes.size()), (ssize_t)bytes.size());
    }
    void urgent(int byte)
    {
        peer.send_urgent(byte);
        ASSERT_TRUE(faults::eventually([&] { return _vorn_eset_check(block->clhfd) == 1; }));
        faults::reset();
    }
};

TEST_F(RsetCheck, WithoutASocketIsMinusOne)
{
    int fd = block->clhfd;
    block->clhfd = -1;
    EXPECT_EQ(_vorn_rset_check(block), -1);
    EXPECT_EQ(faults::count(faults::SELECT), 0);
    block->clhfd = fd;
}

TEST_F(RsetCheck, GivesTheSocketThatIsReadable)
{
    peer.send_raw("x");
    EXPECT_EQ(_vorn_rset_check(block), fd());
    open_old();
    EXPECT_EQ(_vorn_rset_check(block), fd());
}

TEST_F(RsetCheck, ServesTheOldConnectionFirst)
{
    open_old();
    peer.send_raw("x");
    send_old("x");
    ASSERT_EQ(_vorn_read_check(old_ends[0], 5), 1);
    ASSERT_EQ(_vorn_read_check(block->clhfd, 5), 1);
    EXPECT_EQ(_vorn_rset_check(block), old_ends[0]);
}

TEST_F(RsetCheck, WatchesTheOldConnectionAlone)
{
    open_old();
    int fd = block->clhfd;
    block->clhfd = -1;
    send_old("x");
    EXPECT_EQ(_vorn_rset_check(block), old_ends[0]);
    block->clhfd = fd;
}

TEST_F(RsetCheck, BytesReadAheadComeAtOnce)
{
    block->ahead.fd = (int)block->clhfd;
    block->ahead.begin = 3;
    block->ahead.end = 4;
    EXPECT_EQ(_vorn_rset_check(block), fd());
    EXPECT_EQ(faults::count(faults::SELECT), 0);
}

TEST_F(RsetCheck, ASignalIsTheCallersToJudge)
{
    faults::fail(faults::SELECT, 1, EINTR);
    EXPECT_EQ(_vorn_rset_check(block), -2);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(faults::count(faults::SELECT), 1);
}

TEST_F(RsetCheck, AFailingSelectIsMinusTwo)
{
    faults::fail(faults::SELECT, 1, EBADF);
    EXPECT_EQ(_vorn_rset_check(block), -2);
    int fd = block->clhfd;
    block->clhfd = WIDE_SET_BITS;
    EXPECT_EQ(_vorn_rset_check(block), -2);
    block->clhfd = INT32_MAX;
    EXPECT_EQ(_vorn_rset_check(block), -2);
    block->clhfd = fd;
}

TEST_F(RsetCheck, AByteThatIsNoWarningIsLookedAtOnce)
{
    urgent(99);
    Task client(peer, [&] { return _vorn_rset_check(block); });
    ASSERT_TRUE(faults::wait_for_calls(faults::SELECT, 2));
    EXPECT_FALSE(client.finished());
    EXPECT_EQ(faults::count(faults::SELECT), 2);
    peer.send_raw("x");
    EXPECT_EQ(client.get(), fd());
    EXPECT_EQ(faults::count(faults::SELECT), 2);
    EXPECT_EQ(pthread_mutex_trylock(&block->roll_mutex), 0);
    pthread_mutex_unlock(&block->roll_mutex);
}

TEST_F(RsetCheck, AByteThatCantBeReadGivesTheConnectionBack)
{
    urgent(99);
    faults::fail(faults::RECV, 1, EINVAL);
    EXPECT_EQ(_vorn_rset_check(block), fd());
    EXPECT_EQ(pthread_mutex_trylock(&block->roll_mutex), 0);
    pthread_mutex_unlock(&block->roll_mutex);
}

TEST_F(RsetCheck, WithARollingStartDoneASecondWarningChangesNothing)
{
    open_old();
    urgent(217);
    send_old("x");
    ASSERT_EQ(_vorn_read_check(old_ends[0], 5), 1);
    EXPECT_EQ(_vorn_rset_check(block), old_ends[0]);
}

TEST_F(RsetCheck, ALimitEndsTheWait)
{
    EXPECT_EQ(wait_readable(block, 0), -3);
    EXPECT_EQ(wait_readable(block, 20), -3);
    peer.send_raw("x");
    EXPECT_EQ(wait_readable(block, 10000), fd());
}

TEST_F(RsetCheck, ALimitHoldsAlsoWithAByteThatCantBeRead)
{
    urgent(99);
    faults::fail(faults::RECV, 1, EINVAL);
    EXPECT_EQ(wait_readable(block, 20), -3);
    EXPECT_EQ(faults::count(faults::SELECT), 2);
}

TEST(WideSet, HoldsSixteenThousandDescriptorsAndNoneBeyond)
{
    wide_set set;
    for (int highest : {0, 63, 64, 1023, 1024, 16383, 16384, 2000000000}) {
        wide_set_clear(&set, highest);
        int most = highest < WIDE_SET_BITS ? highest : WIDE_SET_BITS - 1;
        EXPECT_FALSE(wide_set_has(&set, most));
        EXPECT_TRUE(wide_set_add(&set, most));
        EXPECT_TRUE(wide_set_has(&set, most));
        EXPECT_FALSE(wide_set_add(&set, most + 1));
        EXPECT_FALSE(wide_set_has(&set, most + 1));
        EXPECT_FALSE(wide_set_add(&set, -1));
        EXPECT_FALSE(wide_set_has(&set, -1));
        EXPECT_FALSE(wide_set_add(&set, INT32_MIN));
    }
    wide_set_clear(&set, -1);
    EXPECT_FALSE(wide_set_add(&set, 0));
    EXPECT_EQ(set.highest, -1);
}

TEST(WideSet, ADescriptorAboveTheCLibrarysLimitIsWatched)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (int high : {1024, 2047, WIDE_SET_BITS - 1}) {
        if (dup2(ends[0], high) < 0)
            GTEST_SKIP() << "this machine allows fewer descriptors";
        EXPECT_EQ(_vorn_read_check(high, 0), 0);
        EXPECT_EQ(::write(ends[1], "x", 1), 1);
        EXPECT_EQ(_vorn_read_check(high, 5), 1);
        char byte;
        EXPECT_EQ(pipe_readn(high, &byte, 1), 1);
        close(high);
    }
}

struct Pipe : testing::Test {
    LogFile log;
    int ends[2];
    char buffer[16] = {};
    Pipe() { EXPECT_EQ(pipe(ends), 0); }
};

TEST_F(Pipe, ReadsUntilTheEndOfFile)
{
    EXPECT_EQ(pipe_writen(ends[1], "012345", 6), 6);
    EXPECT_EQ(pipe_readn(ends[0], buffer, 4), 4);
    close(ends[1]);
    EXPECT_EQ(pipe_readn(ends[0], buffer, 4), 2);
    EXPECT_EQ(std::string(buffer, 2), "45");
    EXPECT_EQ(pipe_readn(ends[0], buffer, 4), 0);
    EXPECT_EQ(pipe_readn(ends[0], buffer, -4), 0) << "nothing to read";
}

TEST_F(Pipe, GivesFailuresAsTheyStand)
{
    EXPECT_EQ(pipe_readn(-1, buffer, 4), -1);
    EXPECT_EQ(pipe_writen(-1, buffer, 4), -1);
    _set_fl(ends[0], O_NONBLOCK);
    EXPECT_EQ(pipe_readn(ends[0], buffer, 4), -1);
    EXPECT_EQ(errno, EAGAIN);
    signal(SIGPIPE, SIG_IGN);
    close(ends[0]);
    EXPECT_EQ(pipe_writen(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

static std::atomic<int> signals_taken{0};
static void take_signal(int)
{
    signals_taken.fetch_add(1);
}

TEST_F(Pipe, ReadingGoesOnAfterASignal)
{
    struct sigaction plain = {};
    plain.sa_handler = take_signal;
    sigaction(SIGUSR1, &plain, nullptr);
    int result = 0;
    std::thread reader([&] { result = pipe_readn(ends[0], buffer, 4); });
    for (int i = 0; i < 3; i++) {
        int before = signals_taken;
        pthread_kill(reader.native_handle(), SIGUSR1);
        ASSERT_TRUE(faults::eventually([&] { return signals_taken > before; }));
    }
    EXPECT_EQ(pipe_writen(ends[1], "01", 2), 2);
    EXPECT_EQ(pipe_writen(ends[1], "23", 2), 2);
    reader.join();
    EXPECT_EQ(result, 4);
    EXPECT_EQ(std::string(buffer, 4), "0123");
}

struct Flags : Pipe {
    int status() const { return fcntl(ends[0], F_GETFL); }
    int closed = 4000;
};

TEST_F(Flags, AreSetAndTakenOut)
{
    int before = status();
    EXPECT_EQ(_set_fl(ends[0], O_NONBLOCK), 1);
    EXPECT_EQ(status(), before | O_NONBLOCK);
    EXPECT_EQ(_set_fl(ends[0], O_APPEND), 1);
    EXPECT_EQ(status(), before | O_NONBLOCK | O_APPEND);
    EXPECT_EQ(_clr_fl(ends[0], O_NONBLOCK), 1);
    EXPECT_EQ(status(), before | O_APPEND);
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Flags, FailuresAreLogged)
{
    EXPECT_EQ(_set_fl(closed, O_NONBLOCK), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_GETFL -1 [COM0017][Bad file descriptor]")) << log.text();
    EXPECT_EQ(_clr_fl(closed, O_NONBLOCK), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_GETFL -1 [COM0019][Bad file descriptor]")) << log.text();
    EXPECT_EQ(_show_fl(closed), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_GETFL -1 [COM0021][Bad file descriptor]")) << log.text();
    EXPECT_EQ(_set_fd(closed, 1), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_SETFD 1 [COM0023][Bad file descriptor]")) << log.text();
    EXPECT_EQ(log.lines(), 4);
}

TEST_F(Flags, FailureToWriteThemIsLoggedWithTheirValue)
{
    int path = open("/", O_PATH);  // has flags that can be read and not written
    ASSERT_GE(path, 0);
    int flags = fcntl(path, F_GETFL);
    EXPECT_EQ(_set_fl(path, O_NONBLOCK), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_SETFL " + std::to_string(flags | O_NONBLOCK) + " [COM0018]["))
        << log.text();
    EXPECT_EQ(_clr_fl(path, O_NONBLOCK), -1);
    EXPECT_TRUE(log.has("0015 fcntl error : F_SETFL " + std::to_string(flags) + " [COM0020][")) << log.text();
    close(path);
}

TEST_F(Flags, OnlyCloseOnExecIsADescriptorFlag)
{
    EXPECT_EQ(_set_fd(ends[0], 2), -1);
    EXPECT_EQ(_set_fd(ends[0], 0), -1);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), 0);
    EXPECT_TRUE(log.has("0015 fcntl error : F_SETFD 2 [COM0022]\n")) << log.text();
    EXPECT_EQ(_set_fd(ends[0], 1), 1);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), 1);
}

TEST_F(Flags, AreShown)
{
    std::string name = log.directory + "/file";
    int file = open(name.c_str(), O_CREAT | O_RDWR | O_APPEND | O_NONBLOCK | O_SYNC, 0600);
    ASSERT_GE(file, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(_show_fl(file), 1);
    EXPECT_EQ(_show_fl(ends[0]), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "FD" + std::to_string(file) + ": O_APPEND(1024) O_NONBLOCK(2048) O_SYNC(4096)\nFD" +
                  std::to_string(ends[0]) + ": O_APPEND(0) O_NONBLOCK(0) O_SYNC(0)\n");
    close(file);
    unlink(name.c_str());
}

TEST_F(Flags, ADescriptorIsValidWhileItIsOpen)
{
    EXPECT_EQ(_valid_fd(ends[0]), 1);
    close(ends[0]);
    EXPECT_EQ(_valid_fd(ends[0]), 0);
    EXPECT_EQ(_valid_fd(-1), 0);
}

}
