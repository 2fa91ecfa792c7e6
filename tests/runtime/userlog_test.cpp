// The user log: its line, its local file and its way to the server, whose bytes are taken apart here by
// offset.
#include "runtime/userlog.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "tx/tx.h"
#include "vorn/environment.h"
#include "vorn/errors.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t LONGEST_LINE = 8096;  // prefix and text of a formatted line

std::string process_mark()
{
    return "cli." + std::to_string(getpid()) + ".";
}

// What stands behind "cli.<pid>.HHMMSS: "; the whole line if that isn't there.
std::string text_of(const std::string &line)
{
    std::string mark = process_mark();
    if (line.compare(0, mark.size(), mark) != 0 || line.compare(mark.size() + 6, 2, ": ") != 0)
        return line;
    for (size_t i = mark.size(); i < mark.size() + 6; i++)
        if (line[i] < '0' || line[i] > '9')
            return line;
    return line.substr(mark.size() + 8);
}

std::string date_suffix(time_t when)
{
    tm local;
    char text[16];
    localtime_r(&when, &local);
    strftime(text, sizeof text, ".%m%d%Y", &local);
    return text;
}

struct UserLogBase : testing::Test {
    UserLogBase()
    {
        for (const char *name : {"VORN_DEBUG", "VORN_ERR_MSG", "ULOG", "ULOGPFX"})
            unsetenv(name);
    }

    TempDir temp;
};

struct UserLogFile : UserLogBase {
    UserLogFile() { setenv("ULOGPFX", (temp / "ulog").c_str(), 1); }

    // The day's file. A test that runs into midnight looks at the day on which it began.
    std::string file() const { return (temp / "ulog") + date_suffix(began); }
    std::string content() const { return read_file(file()); }
    // The lines behind the last banner.
    std::string lines() const
    {
        std::string text = content();
        size_t banner = text.rfind("New log started at ");
        return banner == std::string::npos ? text : text.substr(text.find("\n\n\n", banner) + 3);
    }
    int banners() const
    {
        std::string text = content();
        int count = 0;
        for (size_t at = text.find("New log started at "); at != std::string::npos;
             at = text.find("New log", at + 1))
            count++;
        return count;
    }

    time_t began = time(nullptr);
};

TEST_F(UserLogFile, FirstLineOpensTheDaysFileWithABanner)
{
    EXPECT_EQ(userlog("%s %d", "text", 7), 1);
    std::string text = content();
    char when[26];
    ctime_r(&_cur_time, when);
    std::string banner = std::string("\n\nNew log started at ") + when + "\n\n";
    ASSERT_EQ(text.substr(0, banner.size()), banner);
    EXPECT_EQ(text_of(text.substr(banner.size())), "text 7\n");
    EXPECT_NE(fcntl(ulogfd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(ulogfd, F_GETFL) & O_APPEND, 0);
    EXPECT_EQ(local_flag, 1);
    EXPECT_STREQ(pulogpfx, (temp / "ulog").c_str());
}

TEST_F(UserLogFile, PrefixHasTheTimeOfDay)
{
    userlog("x");
    time_t when = _cur_time;
    tm local;
    char stamp[16];
    localtime_r(&when, &local);
    strftime(stamp, sizeof stamp, "%H%M%S", &local);
    EXPECT_EQ(lines(), process_mark() + stamp + ": x\n");
}

TEST_F(UserLogFile, FileStaysOpenBetweenLines)
{
    userlog("one");
    int fd = ulogfd;
    userlog("two");
    EXPECT_EQ(ulogfd, fd);
    EXPECT_EQ(banners(), 1);
    std::istringstream stream(lines());
    std::string line;
    std::getline(stream, line);
    EXPECT_EQ(text_of(line), "one");
    std::getline(stream, line);
    EXPECT_EQ(text_of(line), "two");
}

TEST_F(UserLogFile, CountingFormGivesTheLengthWritten)
{
    int result = UserLog("%s", "abc");
    EXPECT_EQ(result, (int)lines().size());
    EXPECT_EQ(text_of(lines()), "abc\n");
}

TEST_F(UserLogFile, EarlierAndLaterDateStartANewFile)
{
    userlog("one");
    for (int step : {-1, 1}) {
        int fd = ulogfd;
        ulog_date[1] += step;
        userlog("again");
        EXPECT_EQ(fcntl(ulogfd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(ulogfd, fd);  // closed and opened once more
    }
    EXPECT_EQ(banners(), 3);
    tm local;
    localtime_r(&began, &local);
    EXPECT_EQ(ulog_date[0], local.tm_mon + 1);
    EXPECT_EQ(ulog_date[2], local.tm_year + 1900);
}

TEST_F(UserLogFile, NextDayHasAFileOfItsOwn)
{
    userlog("one");
    faults::shift_clock(24 * 60 * 60);
    userlog("two");
    std::string text = read_file((temp / "ulog") + date_suffix(_cur_time));
    EXPECT_NE(text.find("New log started at "), std::string::npos);
    EXPECT_NE(text.find("two\n"), std::string::npos);
    EXPECT_EQ(text.find("one\n"), std::string::npos);
}

TEST_F(UserLogFile, FirstChoiceOfTheTwoVariables)
{
    setenv("ULOG", (temp / "second").c_str(), 1);
    userlog("x");
    EXPECT_EQ(banners(), 1);
    EXPECT_FALSE(std::filesystem::exists((temp / "second") + date_suffix(began)));
}

TEST_F(UserLogFile, SecondVariableServesAlone)
{
    unsetenv("ULOGPFX");
    setenv("ULOG", (temp / "second").c_str(), 1);
    EXPECT_EQ(userlog("x"), 1);
    EXPECT_TRUE(std::filesystem::exists((temp / "second") + date_suffix(began)));
}

TEST_F(UserLogFile, MissingDirectoryChainIsMadeWithThePrefixAsItsLast)
{
    std::string prefix = temp / "a/b/ulog";
    setenv("ULOGPFX", prefix.c_str(), 1);
    EXPECT_EQ(userlog("x"), 1);
    EXPECT_TRUE(std::filesystem::is_directory(prefix));
    EXPECT_TRUE(std::filesystem::is_regular_file(prefix + date_suffix(began)));
}

TEST_F(UserLogFile, FailureToOpenIsAnOperatingSystemError)
{
    write_file(temp / "plain", "");
    setenv("ULOGPFX", (temp / "plain/ulog").c_str(), 1);
    EXPECT_EQ(userlog("x"), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(ulogfd, -1);
    set_tperrno(0);
    EXPECT_EQ(UserLog("x"), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(pthread_mutex_trylock(&_ulog_mutex), 0);
}

TEST_F(UserLogFile, OverlongPrefixIsRefused)
{
    setenv("ULOGPFX", std::string(5000, 'u').c_str(), 1);
    EXPECT_EQ(userlog("x"), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
}

TEST_F(UserLogFile, FailureToWriteClosesTheFile)
{
    userlog("one");
    int full = open("/dev/full", O_WRONLY);
    dup2(full, ulogfd);
    close(full);
    EXPECT_EQ(userlog("two"), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(ulogfd, -1);
    EXPECT_EQ(userlog("three"), 1);
    EXPECT_EQ(banners(), 2);
    EXPECT_EQ(text_of(lines()), "three\n");
}

TEST_F(UserLogFile, SyncClosesAndTheNextLineOpensAgain)
{
    userlog("one");
    EXPECT_EQ(ulogsync(), 1);
    EXPECT_EQ(ulogfd, -1);
    EXPECT_EQ(ulogsync(), 1);
    userlog("two");
    EXPECT_EQ(banners(), 2);
}

TEST_F(UserLogFile, LongTextIsCutBeforeTheNewline)
{
    std::string text(20000, 'x');
    EXPECT_EQ(userlog("%s", text.c_str()), 1);
    std::string line = lines();
    EXPECT_EQ(line.size(), LONGEST_LINE + 1);
    EXPECT_EQ(line.substr(line.size() - 2), "x\n");
}

TEST_F(UserLogFile, LineThatJustFitsIsWhole)
{
    userlog("%s", "");
    size_t prefix = lines().size() - 1;
    ulogsync();
    std::string text(LONGEST_LINE - prefix, 'y');
    EXPECT_EQ(UserLog("%s", text.c_str()), (int)LONGEST_LINE + 1);
    EXPECT_EQ(text_of(lines()), text + "\n");
}

TEST_F(UserLogFile, OpenTransactionIsNamed)
{
    current_row();
    ASSERT_EQ(_make_txinfo(current_block()), 1);
    txinfo_elem *record = current_block()->txinfo;
    record->xid_data[0] = 0xABC;
    record->xid_data[1] = 0;
    record->xid_data[2] = 0xFFFFFFFF;
    record->tx_active = 0;
    userlog("out");
    ulogsync();
    EXPECT_EQ(text_of(lines()), "out\n");
    record->tx_active = 1;
    userlog("in");
    EXPECT_EQ(text_of(lines()), "xid = abc 0 ffffffff: in\n");
}

TEST_F(UserLogFile, ErrorCellIsLeftAloneInSuccess)
{
    set_tperrno(TPETIME);
    userlog("x");
    UserLog("x");
    ulogsync();
    EXPECT_EQ(gettperrno(), TPETIME);
}

TEST_F(UserLogFile, DecisionHoldsUntilTheEnvironmentIsPutAnew)
{
    userlog("one");
    setenv("ULOGPFX", (temp / "other").c_str(), 1);
    userlog("two");
    EXPECT_FALSE(std::filesystem::exists((temp / "other") + date_suffix(began)));
    static char assignment[] = "VT_ANY=1";
    tpputenv(assignment);
    EXPECT_EQ(ulogfd, -1);
    userlog("three");
    EXPECT_TRUE(std::filesystem::exists((temp / "other") + date_suffix(began)));
}

TEST_F(UserLogFile, PrefixOutlivesTheEnvironmentsString)
{
    static char assignment[400];
    snprintf(assignment, sizeof assignment, "ULOGPFX=%s", (temp / "ulog").c_str());
    putenv(assignment);
    userlog("one");
    ulogsync();
    memset(assignment + 8, 'z', 20);
    EXPECT_EQ(userlog("two"), 1);
    EXPECT_EQ(banners(), 2);
}

TEST_F(UserLogFile, LinesOfSeveralThreadsStayWhole)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; i++)
                userlog("thread %d line %d end", t, i);
        });
    for (auto &each : threads)
        each.join();
    std::istringstream stream(lines());
    int count = 0;
    for (std::string line; std::getline(stream, line); count++)
        EXPECT_EQ(line.substr(line.size() - 4), " end") << line;
    EXPECT_EQ(count, 200);
}

TEST_F(UserLogBase, OpenWritesToTheFileOfTheDate)
{
    const int date[3] = {1, 31, 2026};
    int fd = ulog_open(date, (temp / "ulog").c_str());
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_TRUE(std::filesystem::exists(temp / "ulog.01312026"));
}

TEST_F(UserLogBase, DatesCompareByYearMonthDay)
{
    const int a[3] = {1, 31, 2026}, b[3] = {2, 1, 2026}, c[3] = {1, 1, 2027};
    EXPECT_EQ(date_cmp(a, a), 0);
    EXPECT_EQ(date_cmp(a, b), -1);
    EXPECT_EQ(date_cmp(b, a), 1);
    EXPECT_EQ(date_cmp(c, b), 1);
    EXPECT_EQ(date_cmp(b, c), -1);
}

// A message taken from the other end of the connection.
struct Message {
    std::string bytes;

    uint32_t word(size_t offset) const
    {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; i++)
            value = value << 8 | (uint8_t)bytes[offset + i];
        return value;
    }
    std::string name() const { return std::string(bytes.c_str() + 68); }
    std::string data() const { return bytes.substr(136); }
};

struct UserLogMessage : UserLogBase {
    UserLogMessage()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        current_row();
        current_block()->clhfd = ends[0];
        current_block()->started = 1;
    }

    // All that has been sent; the connection has taken it in, since nobody else reads.
    Message take()
    {
        std::string bytes(20000, '\0');
        ssize_t length = recv(ends[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(length < 0 ? 0 : (size_t)length);
        return {bytes};
    }

    int ends[2];
};

TEST_F(UserLogMessage, LineTravelsWithItsHeader)
{
    EXPECT_EQ(userlog("%s %d", "text", 7), 1);
    EXPECT_EQ(local_flag, 0);
    Message message = take();
    ASSERT_GT(message.bytes.size(), 136u);
    uint32_t size = (uint32_t)message.data().size();
    EXPECT_EQ(message.word(0), 0x90352082u);
    EXPECT_EQ(message.word(8), 3u);
    EXPECT_EQ(message.word(12), size);
    EXPECT_EQ(message.word(16), 121u);
    EXPECT_EQ(message.word(20), (uint32_t)getpid());
    EXPECT_EQ(message.word(28), 0u);
    EXPECT_EQ(message.name(), "_userlog");
    EXPECT_EQ(message.word(100), size);
    EXPECT_EQ(message.word(104), 0u);
    EXPECT_EQ(message.word(108), 0u);
    EXPECT_EQ(message.data().back(), '\0');
    EXPECT_EQ(text_of(message.data().c_str()), "text 7\n");
    EXPECT_EQ(strlen(message.data().c_str()) + 1, size);
}

TEST_F(UserLogMessage, CountingFormIsMarkedAndGivesTheSize)
{
    int result = UserLog("abc");
    Message message = take();
    ASSERT_GT(message.bytes.size(), 136u);
    EXPECT_EQ(message.word(104), 0x200u);
    EXPECT_EQ(result, (int)message.data().size());
    EXPECT_EQ(text_of(message.data().c_str()), "abc\n");
}

TEST_F(UserLogMessage, CountedTextGoesWithoutNewline)
{
    EXPECT_EQ(userlog2("abcdef", 3), 1);
    Message message = take();
    ASSERT_GT(message.bytes.size(), 136u);
    EXPECT_EQ(message.word(16), 121u);
    EXPECT_EQ(message.word(104), 0u);
    EXPECT_EQ(text_of(message.data()), std::string("abc\0", 4));
    EXPECT_EQ(message.word(100), message.data().size());
}

TEST_F(UserLogMessage, CountedTextNeverGoesToTheFile)
{
    setenv("ULOGPFX", (temp / "ulog").c_str(), 1);
    EXPECT_EQ(userlog("local"), 1);
    EXPECT_EQ(take().bytes, "");
    EXPECT_EQ(userlog2("remote", 6), 1);
    EXPECT_EQ(text_of(take().data().c_str()), "remote");
}

TEST_F(UserLogMessage, CountedTextDoesNotWaitForALine)
{
    pthread_mutex_lock(&_ulog_mutex);
    EXPECT_EQ(userlog2("x", 1), 1);
    EXPECT_EQ(ulogsync(), 1);
    pthread_mutex_unlock(&_ulog_mutex);
}

TEST_F(UserLogMessage, CountedTextIsCutAtTheEndOfTheBuffer)
{
    std::string text(20000, 'x');
    EXPECT_EQ(userlog2(text.data(), (int)text.size()), 1);
    EXPECT_EQ(take().data().size(), 8100u);
    userlog2("", 0);
    size_t prefix = take().data().size() - 1;
    int fits = (int)(8099 - prefix);
    for (int length : {fits - 1, fits, fits + 1}) {
        EXPECT_EQ(userlog2(text.data(), length), 1);
        EXPECT_EQ(take().data().size(), prefix + (size_t)std::min(length, fits) + 1) << length;
    }
}

TEST_F(UserLogMessage, LongLineIsCutBeforeTheNewline)
{
    std::string text(20000, 'x');
    EXPECT_EQ(userlog("%s", text.c_str()), 1);
    std::string data = take().data();
    EXPECT_EQ(data.size(), LONGEST_LINE + 2);
    EXPECT_EQ(data.substr(data.size() - 3), std::string("x\n\0", 3));
}

TEST_F(UserLogMessage, BadArgumentsAreRefused)
{
    EXPECT_EQ(userlog2(nullptr, 3), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(userlog2("abc", -1), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(take().bytes, "");
}

TEST_F(UserLogMessage, SyncAsksTheServerToFlush)
{
    for (int flag : {-1, 0}) {
        local_flag = flag;
        EXPECT_EQ(ulogsync(), 1);
        Message message = take();
        ASSERT_EQ(message.bytes.size(), 136u) << flag;
        EXPECT_EQ(message.word(16), 123u);
        EXPECT_EQ(message.word(20), (uint32_t)getpid());
        EXPECT_EQ(message.name(), "_ulogsync");
        EXPECT_EQ(message.word(100), 0u);
        EXPECT_EQ(local_flag, flag);
    }
}

TEST_F(UserLogMessage, OpenTransactionIsNamed)
{
    ASSERT_EQ(_make_txinfo(current_block()), 1);
    txinfo_elem *record = current_block()->txinfo;
    record->tx_active = 1;
    record->xid_data[0] = 1;
    record->xid_data[1] = 0x20;
    record->xid_data[2] = 0x300;
    userlog2("x", 1);
    EXPECT_EQ(text_of(take().data().c_str()), "xid = 1 20 300: x");
    UserLog("x");
    EXPECT_EQ(text_of(take().data().c_str()), "xid = 1 20 300: x\n");
}

TEST_F(UserLogMessage, WithoutMemoryTheLineIsRefusedAndLogged)
{
    const struct {
        std::function<int()> action;
        const char *code;
    } cases[] = {
        {[] { return userlog("abc"); }, "CSC5301"},
        {[] { return userlog2("abc", 3); }, "CSC5302"},
        {[] { return UserLog("abc"); }, "CSC5303"},
    };
    for (const auto &row : cases) {
        std::string err = output_of([&] {
                              faults::fail_allocation(1);
                              EXPECT_EQ(row.action(), -1);
                              faults::disarm_allocations();
                          }).err;
        EXPECT_EQ(without_time(err).find(":(E) CLI 0003 memory allocation error : size = "), 0u) << err;
        EXPECT_NE(err.find(std::string("[") + row.code + "]"), std::string::npos) << err;
        EXPECT_EQ(pthread_mutex_trylock(&_ulog_mutex), 0);
        pthread_mutex_unlock(&_ulog_mutex);
    }
    faults::fail_allocation(1);
    EXPECT_EQ(ulogsync(), -1);
    faults::disarm_allocations();
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(take().bytes, "");
}

TEST_F(UserLogMessage, DeadConnectionIsAFailure)
{
    signal(SIGPIPE, SIG_IGN);
    close(ends[1]);
    output_of([] {
        EXPECT_EQ(userlog("x"), -1);
        EXPECT_NE(gettperrno(), 0);
        EXPECT_EQ(userlog2("x", 1), -1);
        EXPECT_EQ(ulogsync(), -1);
    });
    EXPECT_EQ(pthread_mutex_trylock(&_ulog_mutex), 0);
}

}
