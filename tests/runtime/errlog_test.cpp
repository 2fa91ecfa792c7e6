// The error log: its line byte by byte, and where it goes.
#include "runtime/errlog.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/log.h"

#include <errno.h>
#include <string.h>
#include <sys/wait.h>

namespace {

struct ErrorLog : testing::Test {
    ErrorLog()
    {
        unsetenv("VORN_DEBUG");
        unsetenv("VORN_ERR_MSG");
    }

    // The name of the debug file, which VORN_DEBUG now asks for.
    std::string ask_for_file(const std::string &name)
    {
        setenv("VORN_DEBUG", (temp / name).c_str(), 1);
        return (temp / name) + "." + std::to_string(getpid());
    }

    TempDir temp;
};

std::string thread_mark()
{
    return "[" + std::to_string((int)pthread_self()) + "] ";
}

TEST_F(ErrorLog, LineHasTimeLevelProcessTextCodeAndSystemError)
{
    Output both = output_of([] {
        errno = ENOENT;
        _real_errwork(1, LEVEL_ERROR, "COM0035", "0010 file open error : %s", "x");
    });
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(without_time(both.err),
              ":(E) CLI 0010 file open error : x [COM0035][No such file or directory]\n");
}

TEST_F(ErrorLog, TimeIsThatOfTheDay)
{
    time_t before = time(nullptr);
    std::string line = output_of([] { _real_errwork(0, LEVEL_INFO, nullptr, "now"); }).err;
    time_t after = time(nullptr);
    ASSERT_EQ(line.size(), strlen("120501.000321:(I) CLI now\n"));
    bool found = false;
    for (time_t each = before; each <= after; each++) {
        char stamp[16];
        tm local;
        localtime_r(&each, &local);
        strftime(stamp, sizeof stamp, "%H%M%S.", &local);
        found = found || line.compare(0, 7, stamp) == 0;
    }
    EXPECT_TRUE(found) << line;
}

TEST_F(ErrorLog, CodeAndSystemErrorAreLeftOutWhereThereAreNone)
{
    errno = ENOENT;
    EXPECT_EQ(without_time(output_of([] { _real_errwork(0, 2, nullptr, "%d %s", 7, "seven"); }).err),
              ":(E) CLI 7 seven\n");
    EXPECT_EQ(without_time(output_of([] { _real_errwork(0, 4, "CSC0001", "w"); }).err),
              ":(W) CLI w [CSC0001]\n");
    EXPECT_EQ(without_time(output_of([] { _real_errwork(2, 2, "CSC0001", "w"); }).err),
              ":(E) CLI w [CSC0001]\n");
    EXPECT_EQ(without_time(output_of([] {
                               errno = 0;
                               _real_errwork(1, 2, "A", "w");
                           }).err),
              ":(E) CLI w [A]\n");
    EXPECT_EQ(without_time(output_of([] {
                               errno = EPIPE;
                               _real_errwork(1, 2, nullptr, "w");
                           }).err),
              ":(E) CLI w[Broken pipe]\n");
}

TEST_F(ErrorLog, ErrnoIsKept)
{
    output_of([] {
        errno = EBUSY;
        _real_errwork(1, LEVEL_ERROR, "A", "w");
        EXPECT_EQ(errno, EBUSY);
    });
}

TEST_F(ErrorLog, LevelsHaveTheirLettersStreamsAndNewlines)
{
    const struct {
        int level;
        const char *letter;
        bool debug;
    } levels[] = {
        {2, "E", false},    {4, "W", false},    {8, "I", false},    {0x10, "D1", true},
        {0x20, "D2", true}, {0x40, "D3", true}, {0x80, "D4", true}, {0x400, "I", false},
        {0x12, "I", true},  {3, "I", false},    {0, "I", false},
    };
    for (const auto &row : levels) {
        EXPECT_STREQ(_vorn_loglvl(row.level), row.letter) << row.level;
        Output both = output_of([&] { _real_errwork(0, row.level, "C", "text"); });
        std::string line = std::string(":(") + row.letter + ") CLI text [C]" + (row.debug ? "" : "\n");
        EXPECT_EQ(without_time(row.debug ? both.out : both.err), line) << row.level;
        EXPECT_EQ(row.debug ? both.err : both.out, "") << row.level;
    }
    EXPECT_STREQ(_vorn_loglvl(LEVEL_FATAL), "F");
    EXPECT_STREQ(_vorn_loglvl(LEVEL_ABORT), "I");
    EXPECT_STREQ(_vorn_loglvl(LEVEL_DROPPED), "I");
}

TEST_F(ErrorLog, LevelTestKeepsTwelveBits)
{
    EXPECT_EQ(_vorn_check_loglvl(2), 2);
    EXPECT_EQ(_vorn_check_loglvl(0x12345), 0x345);
    EXPECT_EQ(_vorn_check_loglvl(0x1000), 0);
}

TEST_F(ErrorLog, DroppedLevelIsWrittenNowhere)
{
    std::string file = ask_for_file("debug");
    Output both = output_of([] { _real_errwork(0, LEVEL_DROPPED, "C", "text"); });
    EXPECT_EQ(both.out + both.err + read_file(file), "");
}

TEST_F(ErrorLog, LongTextIsCutAndTheLineStaysWhole)
{
    std::string text(100000, 'x');
    std::string line = output_of([&] {
                           errno = EPIPE;
                           _real_errwork(1, 2, "COM0001", "%s", text.c_str());
                       }).err;
    EXPECT_LT(line.size(), 8192u);
    EXPECT_GT(line.size(), 7900u);
    EXPECT_EQ(line.substr(line.size() - 25), "x [COM0001][Broken pipe]\n");
}

TEST_F(ErrorLog, LonePercentSignOfAFormatIsPrinted)
{
    EXPECT_EQ(
        without_time(output_of([] { _real_errwork(0, 2, "COM0001", "0062 setsockopt error : %%"); }).err),
        ":(E) CLI 0062 setsockopt error : % [COM0001]\n");
}

TEST_F(ErrorLog, FormatThatPrintfRefusesIsPrintedAsItStands)
{
    void (*log)(int, int, const char *, const char *, ...) = _real_errwork;
    const char *broken = "0062 setsockopt error : %";
    EXPECT_EQ(without_time(output_of([&] { log(0, 2, "COM0001", broken); }).err),
              ":(E) CLI 0062 setsockopt error : % [COM0001]\n");
}

TEST_F(ErrorLog, DebugFileTakesTheLineInPlaceOfTheConsole)
{
    std::string file = ask_for_file("debug");
    Output both = output_of([] {
        _real_errwork(0, 2, "A", "one");
        _real_errwork(0, 0x10, nullptr, "two\n");
    });
    EXPECT_EQ(both.out + both.err, "");
    std::string text = read_file(file);
    size_t end = text.find('\n');
    ASSERT_NE(end, std::string::npos);
    std::string first = text.substr(0, end + 1), second = text.substr(end + 1), mark = thread_mark();
    ASSERT_EQ(first.substr(0, mark.size()), mark);
    EXPECT_EQ(without_time(first.substr(mark.size())), ":(E) CLI one [A]\n");
    ASSERT_EQ(second.substr(0, mark.size()), mark);
    EXPECT_EQ(without_time(second.substr(mark.size())), ":(D1) CLI two\n");
    EXPECT_EQ(std::string(_log_filename), temp / "debug");
    EXPECT_EQ(_log_pid, getpid());
}

TEST_F(ErrorLog, DebugFileIsAppendedTo)
{
    std::string file = ask_for_file("debug");
    write_file(file, "before\n");
    output_of([] { _real_errwork(0, 2, "A", "one"); });
    EXPECT_EQ(read_file(file).substr(0, 7), "before\n");
}

TEST_F(ErrorLog, ZeroOrEmptyNameOpensNoFile)
{
    for (const char *name : {"0", "", "0file"}) {
        setenv("VORN_DEBUG", name, 1);
        EXPECT_NE(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "") << name;
        EXPECT_EQ(_log_fp, nullptr);
    }
}

TEST_F(ErrorLog, FileOpenedEarlierRemainsInUse)
{
    std::string file = ask_for_file("debug");
    output_of([] { _real_errwork(0, 2, "A", "one"); });
    for (const char *name : {"0", ""}) {
        setenv("VORN_DEBUG", name, 1);
        EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "more"); }).err, "");
    }
    unsetenv("VORN_DEBUG");
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "last"); }).err, "");
    EXPECT_NE(read_file(file).find("last"), std::string::npos);
}

TEST_F(ErrorLog, AnotherNameMovesTheLogAtTheNextLine)
{
    std::string first = ask_for_file("first");
    output_of([] { _real_errwork(0, 2, "A", "one"); });
    std::string second = ask_for_file("second");
    output_of([] { _real_errwork(0, 2, "A", "two"); });
    EXPECT_EQ(read_file(first).find("two"), std::string::npos);
    EXPECT_NE(read_file(second).find("two"), std::string::npos);
}

TEST_F(ErrorLog, ForkedChildHasAFileOfItsOwn)
{
    std::string parent = ask_for_file("debug");
    output_of([] { _real_errwork(0, 2, "A", "one"); });
    pid_t child = fork();
    if (child == 0) {
        _real_errwork(0, 2, "A", "two");
        _exit(0);
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_NE(read_file((temp / "debug.") + std::to_string(child)).find("two"), std::string::npos);
    EXPECT_EQ(read_file(parent).find("two"), std::string::npos);
}

TEST_F(ErrorLog, LineIsLostIfTheFileCannotBeOpened)
{
    setenv("VORN_DEBUG", (temp / "no/such/debug").c_str(), 1);
    Output both = output_of([] { _real_errwork(0, 2, "A", "one"); });
    EXPECT_EQ(both.out + both.err, "");
    unsetenv("VORN_DEBUG");
    EXPECT_NE(output_of([] { _real_errwork(0, 2, "A", "two"); }).err, "");
}

TEST_F(ErrorLog, NameLongerThanItsRoomIsKeptCut)
{
    std::string part(120, 'd');
    std::filesystem::create_directories(temp / (part + "/" + part));
    std::string file = ask_for_file(part + "/" + part + "/" + part);
    output_of([] {
        _real_errwork(0, 2, "A", "one");
        _real_errwork(0, 2, "A", "two");
    });
    EXPECT_EQ(strlen(_log_filename), 255u);
    std::string text = read_file(file);
    EXPECT_NE(text.find("one"), std::string::npos);
    EXPECT_NE(text.find("two"), std::string::npos);
    setenv("VORN_DEBUG", std::string(20000, 'e').c_str(), 1);
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "three"); }).err, "");
}

TEST_F(ErrorLog, FileThatFailsIsGivenUpAndTheLineLost)
{
    setenv("VORN_DEBUG", (temp / "full").c_str(), 1);
    ASSERT_EQ(symlink("/dev/full", ((temp / "full.") + std::to_string(getpid())).c_str()), 0);
    Output both = output_of([] { _real_errwork(0, 2, "A", "one"); });
    EXPECT_EQ(both.out + both.err, "");
    EXPECT_EQ(_log_fp, nullptr);
}

TEST_F(ErrorLog, SwitchSilencesItOnceAndForAll)
{
    setenv("VORN_ERR_MSG", "no", 1);
    std::string file = ask_for_file("debug");
    Output both = output_of([] { _real_errwork(0, 2, "A", "one"); });
    EXPECT_EQ(both.out + both.err + read_file(file), "");
    EXPECT_EQ(_no_out_flag, 1);
    setenv("VORN_ERR_MSG", "yes", 1);
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
}

TEST_F(ErrorLog, OtherValuesOfTheSwitchLeaveItSpeaking)
{
    for (const char *value : {"", "yes", "on"}) {
        _no_out_flag = -1;
        setenv("VORN_ERR_MSG", value, 1);
        EXPECT_NE(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "") << value;
        EXPECT_EQ(_no_out_flag, 0);
    }
    _no_out_flag = -1;
    setenv("VORN_ERR_MSG", "N", 1);
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
}

TEST_F(ErrorLog, SwitchDoesNotWorkInTheEarlyPhases)
{
    setenv("VORN_ERR_MSG", "no", 1);
    _vorn_init_phase = 6;
    EXPECT_NE(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
    _vorn_init_phase = 7;
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
}

TEST_F(ErrorLog, DaemonWritesNothing)
{
    _daemon = 1;
    std::string file = ask_for_file("debug");
    Output both = output_of([] { _real_errwork(0, 2, "A", "one"); });
    EXPECT_EQ(both.out + both.err + read_file(file), "");
}

TEST_F(ErrorLog, HostsOwnLogKeepsLinesFromTheConsoleOnly)
{
    tlog_use = 1;
    EXPECT_NE(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
    dlogid = 0;
    EXPECT_EQ(output_of([] { _real_errwork(0, 2, "A", "one"); }).err, "");
    std::string file = ask_for_file("debug");
    output_of([] { _real_errwork(0, 2, "A", "two"); });
    EXPECT_NE(read_file(file).find("two"), std::string::npos);
}

TEST_F(ErrorLog, ConsoleThatFailsIsDetached)
{
    pid_t child = fork();
    if (child == 0) {
        int full = open("/dev/full", O_WRONLY);
        dup2(full, STDERR_FILENO);
        _real_errwork(0, 2, "A", "one");
        char target[64] = "";
        ssize_t length = readlink("/proc/self/fd/2", target, sizeof target - 1);
        _exit(length > 0 && strcmp(target, "/dev/null") == 0 ? 0 : 1);
    }
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(ErrorLog, PrintlogWritesAtTheLowestLevelWithoutCode)
{
    EXPECT_EQ(without_time(output_of([] { _printlog("%d of %s\n", 3, "four"); }).out),
              ":(D4) CLI 3 of four\n");
}

TEST_F(ErrorLog, PrintlogTakesItsTextAsAFormatWithoutArguments)
{
    EXPECT_EQ(without_time(output_of([] { _printlog("%s", "a %s %n %%"); }).out), ":(D4) CLI a %s %n %");
}

TEST_F(ErrorLog, PrintlogCutsWhatIsTooLong)
{
    std::string text(70000, 'y');
    EXPECT_LT(output_of([&] { _printlog("%s", text.c_str()); }).out.size(), 8192u);
}

TEST_F(ErrorLog, ProcessNamesHaveThisLibrarysRow)
{
    EXPECT_EQ(_my_tproc, 8);
    EXPECT_STREQ(_tproc_name[8], "CLI");
    EXPECT_STREQ(_tproc_name[33], "UNKNOWN");
    for (const char *name : _tproc_name)
        EXPECT_NE(name, nullptr);
}

TEST_F(ErrorLog, LinesOfSeveralThreadsStayWhole)
{
    std::string file = ask_for_file("debug");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; i++)
                _real_errwork(0, 2, "A", "thread %d line %d end", t, i);
        });
    for (auto &each : threads)
        each.join();
    std::istringstream lines(read_file(file));
    std::string line;
    int count = 0;
    for (; std::getline(lines, line); count++)
        EXPECT_EQ(line.substr(line.size() - 7), "end [A]") << line;
    EXPECT_EQ(count, 200);
}

struct ErrorLogDeathTest : ErrorLog {};

TEST_F(ErrorLogDeathTest, FatalLineEndsTheProcess)
{
    EXPECT_EXIT(_real_errwork(0, LEVEL_FATAL, "CLI0703", "the end"), testing::ExitedWithCode(1),
                ":\\(F\\) CLI the end \\[CLI0703\\]\n");
}

TEST_F(ErrorLogDeathTest, FatalLineEndsTheProcessInSilenceToo)
{
    setenv("VORN_ERR_MSG", "no", 1);
    EXPECT_EXIT(_real_errwork(0, LEVEL_FATAL, "CLI0703", "the end"), testing::ExitedWithCode(1), "^$");
}

TEST_F(ErrorLogDeathTest, AbortLevelAborts)
{
    EXPECT_EXIT(_real_errwork(0, LEVEL_ABORT, "CLI0703", "the end"), testing::KilledBySignal(SIGABRT),
                ":\\(I\\) CLI the end \\[CLI0703\\]\n");
}

}
