// The environment file, line by line and as a whole, and the calls around the environment.
#include "runtime/envfile.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "runtime/userlog.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/errors.h"

#include <string.h>

namespace {

struct EnvironmentLine : testing::Test {
    EnvironmentLine() : out(ENV_OUT_SIZE + 1, '\0')
    {
        unsetenv("VORN_DEBUG");
        unsetenv("VORN_ERR_MSG");
        setenv("VT_HOME", "/h", 1);
        unsetenv("VT_UNSET");
    }

    // The class of the line; `text` is then what it left in `out`, `logged` the log line without its time.
    int process(const std::string &line)
    {
        std::string copy = line;
        int result = 0;
        std::string err = output_of([&] { result = _process_env_line(copy.data(), out.data()); }).err;
        EXPECT_EQ(copy, line);
        text = out.c_str();
        logged = without_time(err);
        return result;
    }

    void is_assignment(const std::string &line, const std::string &expected)
    {
        EXPECT_EQ(process(line), ENV_ASSIGNMENT) << line;
        EXPECT_EQ(text, expected) << line;
        EXPECT_EQ(logged, "") << line;
    }

    void is_refused(const std::string &line, const std::string &code, const std::string &reason)
    {
        EXPECT_EQ(process(line), -1) << line;
        EXPECT_EQ(logged, ":(E) CLI 0212 env file error : " + reason + " [" + code + "]\n") << line;
    }

    std::string out, text, logged;
};

TEST_F(EnvironmentLine, Blank)
{
    for (const char *line : {"", "\n", "  \t \r\n", "\v\f"})
        EXPECT_EQ(process(line), 5) << line;
}

TEST_F(EnvironmentLine, Comment)
{
    for (const char *line : {"# A=1\n", "  / x\n", ";\n", "!A=1", "\t// x"})
        EXPECT_EQ(process(line), 1) << line;
}

TEST_F(EnvironmentLine, LabelEnd)
{
    for (const char *line : {"[]\n", "  []\n", "[]A=1\n", "[]]"})
        EXPECT_EQ(process(line), 3) << line;
}

TEST_F(EnvironmentLine, Label)
{
    const char *const cases[][2] = {
        {"[x]\n", "x"},   {"  [x]\n", "x"}, {"[ x ]\n", " x "}, {"[x] rest # more\n", "x"},
        {"[[x]\n", "[x"}, {"[ ]", " "},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(process(row[0]), 2) << row[0];
        EXPECT_EQ(text, row[1]) << row[0];
    }
    is_refused("[x\n", "COM0029", "label without ]");
    is_refused("[", "COM0029", "label without ]");
}

TEST_F(EnvironmentLine, AssignmentEndsAtABlank)
{
    is_assignment("A=1\n", "A=1");
    is_assignment("A=1", "A=1");
    is_assignment("  A=1 # note\n", "A=1");
    is_assignment("A=\n", "A=");
    is_assignment("A= 1\n", "A=");
    is_assignment("A=b\\c\n", "A=b\\c");
    is_assignment("=x\n", "=x");
}

TEST_F(EnvironmentLine, QuotesHoldBlanksAndEndTheLine)
{
    is_assignment("A=\"1 2\" # note\n", "A=1 2");
    is_assignment("A=\"1\"2\n", "A=1");
    is_assignment("A=\"\"\n", "A=");
    is_assignment("A=x\"y z\"\n", "A=xy z");
    is_assignment("\"A B=1 2\"\n", "A B=1 2");
    is_assignment("A=\"1 2\n", "A=1 2\n");
    is_assignment("A=\"#x\"\n", "A=#x");
}

TEST_F(EnvironmentLine, SubstitutionEndsTheLine)
{
    is_assignment("B=$VT_HOME\n", "B=/h");
    is_assignment("B=\\$VT_HOME\n", "B=/h");
    is_assignment("B=${VT_HOME}/x\n", "B=/h");
    is_assignment("B=$(VT_HOME)/x $VT_HOME\n", "B=/h");
    is_assignment("B=${VT_HOME)\n", "B=/h");
    is_assignment("B=x$VT_HOME y\n", "B=x/h");
    is_assignment("B=\"x y $VT_HOME\"\n", "B=x y ");  // the quote belongs to the name, which isn't set
}

TEST_F(EnvironmentLine, OnlyABlankOrABracketEndsAName)
{
    setenv("VT_HOME/x", "odd", 1);
    is_assignment("B=$VT_HOME/x\n", "B=odd");
    unsetenv("VT_HOME/x");
    setenv("}odd", "found", 1);
    is_assignment("B=${}odd}\n", "B=found");
    setenv(" x", "blank", 1);
    is_assignment("B=$ x\n", "B=blank");
}

TEST_F(EnvironmentLine, UnsetVariableLeavesNoTerminator)
{
    is_assignment("ABC=12345\n", "ABC=12345");
    is_assignment("B=$VT_UNSET\n", "B=C=12345");
    is_assignment("B=$VT_HOME/x\n", "B=C=12345");
    is_assignment("B=$\n", "B=C=12345");
    is_assignment("B=$", "B=C=12345");
}

TEST_F(EnvironmentLine, ErrorsHaveTheirCodes)
{
    is_refused("$A=1\n", "COM0030", "$ or \\$ met without =");
    is_refused("A\\$=1\n", "COM0030", "$ or \\$ met without =");
    is_refused("A=$VT_HOME}\n", "COM0031", "no pair brace");
    is_refused("A=$VT_HOME)x\n", "COM0031", "no pair brace");
    is_refused("A=${VT_HOME\n", "COM0032", "no pair brace");
    is_refused("A=${VT_HOME }\n", "COM0032", "no pair brace");
    is_refused("A=$(VT_HOME", "COM0032", "no pair brace");
    is_refused("A=${", "COM0032", "no pair brace");
    is_refused("A=1=2\n", "COM0033", "two = met");
    is_refused("A=\"1=2\"\n", "COM0033", "two = met");
    is_refused("A\n", "COM0034", "no = met");
    is_refused("A B=1\n", "COM0034", "no = met");
    is_refused("\"A\" =1\n", "COM0034", "no = met");
}

TEST_F(EnvironmentLine, LongValueIsTakenAndAnImpossibleOneRefused)
{
    setenv("VT_LONG", std::string(100000, 'v').c_str(), 1);
    is_assignment("A=$VT_LONG\n", "A=" + std::string(100000, 'v'));
    setenv("VT_LONG", std::string(500000, 'v').c_str(), 1);
    EXPECT_EQ(process("A=$VT_LONG\n"), -1);
    EXPECT_EQ(process("A=" + std::string(500000, 'x')), -1);
    EXPECT_EQ(process("[" + std::string(500000, 'x') + "]"), -1);
    is_assignment("A=" + std::string(ENV_OUT_SIZE - 3, 'x'), "A=" + std::string(ENV_OUT_SIZE - 3, 'x'));
    EXPECT_EQ(process("A=" + std::string(ENV_OUT_SIZE - 2, 'x')), -1);
}

struct EnvironmentFile : testing::Test {
    EnvironmentFile()
    {
        for (const char *name :
             {"VORN_DEBUG", "VORN_ERR_MSG", "A", "B", "C", "D", "VT_UNSET", "ULOG", "ULOGPFX"})
            unsetenv(name);
    }

    int read(const std::string &text, const char *label = nullptr)
    {
        write_file(temp / "env", text);
        int result = 0;
        logged = output_of([&] { result = vornreadenv((temp / "env").c_str(), label); }).err;
        return result;
    }

    static std::string value(const char *name)
    {
        const char *found = getenv(name);
        return found == nullptr ? "(unset)" : found;
    }
    std::string all() const { return value("A") + " " + value("B") + " " + value("C"); }

    TempDir temp;
    std::string logged;
};

const char LABELLED[] = "A=1\n[x]\nB=2\n[]\nC=3\n";

TEST_F(EnvironmentFile, WithoutALabelOnlyUnlabelledLinesCount)
{
    EXPECT_EQ(read(LABELLED), 1);
    EXPECT_EQ(all(), "1 (unset) 3");
}

TEST_F(EnvironmentFile, LabelAddsItsSection)
{
    EXPECT_EQ(read(LABELLED, "x"), 1);
    EXPECT_EQ(all(), "1 2 3");
}

TEST_F(EnvironmentFile, OtherLabelsSectionIsPassedOver)
{
    EXPECT_EQ(read(LABELLED, "y"), 1);
    EXPECT_EQ(all(), "1 (unset) 3");
}

TEST_F(EnvironmentFile, LabelsAreComparedWithTheirBlanks)
{
    EXPECT_EQ(read("[ x ]\nA=1\n[x]\nB=2\n", " x "), 1);
    EXPECT_EQ(all(), "1 (unset) (unset)");
}

TEST_F(EnvironmentFile, ValuesFollowEarlierLines)
{
    EXPECT_EQ(read("A=/root\nB=$A\nC=pre${B}\n"), 1);
    EXPECT_EQ(all(), "/root /root pre/root");
}

TEST_F(EnvironmentFile, UnsetVariableTakesWhatTheBufferHeld)
{
    EXPECT_EQ(read("A=$VT_UNSET\nB=12345\nC=$VT_UNSET\n"), 1);
    EXPECT_EQ(all(), " 12345 12345");
}

TEST_F(EnvironmentFile, ErrorInALineDoesNotStopTheFile)
{
    EXPECT_EQ(read("A=1=2\n[open\nB=2\nnothing\nC=3"), 1);
    EXPECT_EQ(all(), "(unset) 2 3");
    for (const char *code : {"[COM0033]", "[COM0029]", "[COM0034]"})
        EXPECT_NE(logged.find(code), std::string::npos) << code;
}

TEST_F(EnvironmentFile, FileWithoutAssignmentFails)
{
    for (const char *text : {"", "# only\n\n; comments\n", "[x]\nA=1\n", "broken\n"}) {
        set_tperrno(0);
        EXPECT_EQ(read(text), -1) << text;
        EXPECT_EQ(gettperrno(), TPEINVAL) << text;
    }
}

TEST_F(EnvironmentFile, LongLineFallsIntoTwo)
{
    // 1023 bytes, and the rest is a line of its own.
    std::string first = "A=" + std::string(1021, 'x');
    EXPECT_EQ(read(first + "B=2\n"), 1);
    EXPECT_EQ(value("A"), std::string(1021, 'x'));
    EXPECT_EQ(value("B"), "2");
}

TEST_F(EnvironmentFile, MissingFileIsLogged)
{
    std::string name = temp / "none";
    logged = output_of([&] { EXPECT_EQ(vornreadenv(name.c_str(), nullptr), -1); }).err;
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(without_time(logged),
              ":(E) CLI 0010 file open error : " + name + " [COM0035][No such file or directory]\n");
}

TEST_F(EnvironmentFile, DefaultNameIsNoFile)
{
    EXPECT_STREQ(_dflt_env_file(), "C:\vorn\vorn.env");
    EXPECT_EQ(strchr(_dflt_env_file(), '\\'), nullptr);
    output_of([] { EXPECT_EQ(vornreadenv(nullptr, nullptr), -1); });
    EXPECT_EQ(gettperrno(), TPEINVAL);
}

TEST_F(EnvironmentFile, SuccessClearsTheError)
{
    set_tperrno(TPEOS);
    EXPECT_EQ(read("A=1\n"), 1);
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(EnvironmentFile, WithoutMemoryItStops)
{
    write_file(temp / "env", "A=1\nB=2\n");
    current_row();
    static auto &kept = *new std::vector<const char *>;  // strings once in the environment are never freed
    // The file's own buffers, the line's, and the copy of each assignment.
    for (int nth = 1;; nth++) {
        kept.push_back(getenv("A"));
        unsetenv("A");
        unsetenv("B");
        int result = 0;
        faults::fail_allocation(nth);
        logged = output_of([&] { result = _set_vornenv((temp / "env").c_str(), nullptr); }).err;
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (!failed)
            break;
        if (logged.find("0002 memory allocation error : size = ") != std::string::npos) {
            EXPECT_EQ(result, -1) << nth;
            EXPECT_NE(logged.find("[COM0036]"), std::string::npos) << logged;
        }
        ASSERT_LT(nth, 100);
    }
    EXPECT_EQ(value("B"), "2");
}

TEST_F(EnvironmentFile, CompatibleNameReadsTheSame)
{
    write_file(temp / "env", LABELLED);
    EXPECT_EQ(tuxreadenv((temp / "env").c_str(), "x"), 1);
    EXPECT_EQ(all(), "1 2 3");
    output_of([&] { EXPECT_EQ(tuxreadenv((temp / "none").c_str(), "x"), -1); });
    EXPECT_EQ(gettperrno(), TPEINVAL);
}

TEST_F(EnvironmentFile, ReadingResetsTheUserLogAlsoInFailure)
{
    for (const char *text : {"A=1\n", ""}) {
        ulogfd = open("/dev/null", O_WRONLY);
        int fd = ulogfd;
        local_flag = ULOG_TO_FILE;
        read(text);
        EXPECT_EQ(local_flag, -1);
        EXPECT_EQ(ulogfd, -1);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST(Environment, GetAndPutClearTheError)
{
    static char assignment[] = "VT_NAME=value";
    set_tperrno(TPEOS);
    EXPECT_EQ(tpputenv(assignment), 0);
    EXPECT_EQ(gettperrno(), 0);
    set_tperrno(TPEOS);
    EXPECT_STREQ(tpgetenv("VT_NAME"), "value");
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(tpgetenv("VT_NAME"), assignment + 8);
    EXPECT_EQ(tpgetenv("VT_NO_SUCH"), nullptr);
    EXPECT_EQ(tpgetenv(""), nullptr);
    EXPECT_EQ(tpgetenv(nullptr), nullptr);
}

TEST(Environment, CompatibleNames)
{
    static char assignment[] = "VT_NAME=value";
    EXPECT_EQ(tuxputenv(assignment), 0);
    set_tperrno(TPEOS);
    EXPECT_STREQ(tuxgetenv("VT_NAME"), "value");
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(tuxgetenv("VT_NO_SUCH"), nullptr);
}

TEST(Environment, PutOfNothingIsRefused)
{
    EXPECT_EQ(tpputenv(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
}

TEST(Environment, PutResetsTheUserLog)
{
    static char assignment[] = "VT_NAME=value";
    local_flag = ULOG_TO_SERVER;
    tpputenv(assignment);
    EXPECT_EQ(local_flag, -1);
}

}
