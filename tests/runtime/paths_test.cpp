// The queue manager's files, texts of white space, and names of services that are functions of a program.
#include "runtime/common.h"

#include <limits.h>
#include <string>

#include "support/gtest.h"

namespace {

struct QueueManagerFiles : testing::Test {
    char out[PATH_MAX];

    QueueManagerFiles()
    {
        unsetenv("VORN_PATHDIR");
        unsetenv("VORNDIR");
        memset(out, '#', sizeof out);
    }
    std::string contact() { return _get_qmm_path(out) == 1 ? out : "none"; }
    std::string lock() { return _vorn_qmm_lockfile(out) == 1 ? out : "none"; }
};

TEST_F(QueueManagerFiles, StandInThePathDirectory)
{
    setenv("VORNDIR", "/root", 1);
    setenv("VORN_PATHDIR", "/p", 1);
    EXPECT_EQ(contact(), "/p/qmmd");
    EXPECT_EQ(lock(), "/p/qmmld");
    setenv("VORN_PATHDIR", "/p/", 1);
    EXPECT_EQ(contact(), "/p/qmmd");
    EXPECT_EQ(lock(), "/p/qmmld");
    setenv("VORN_PATHDIR", "", 1);
    EXPECT_EQ(contact(), "/qmmd");
}

TEST_F(QueueManagerFiles, OtherwiseBelowTheRoot)
{
    setenv("VORNDIR", "/root", 1);
    EXPECT_EQ(contact(), "/root/path/qmmd");
    EXPECT_EQ(lock(), "/root/path/qmmld");
    setenv("VORNDIR", "/root/", 1);
    EXPECT_EQ(contact(), "/root/path/qmmd");
    EXPECT_EQ(lock(), "/root/path/qmmld");
}

TEST_F(QueueManagerFiles, WithoutEitherVariableThereIsNone)
{
    EXPECT_EQ(_get_qmm_path(out), -1);
    EXPECT_EQ(_vorn_qmm_lockfile(out), -1);
    EXPECT_EQ(out[0], '#');
    setenv("VORNDIR", "/root", 1);
    EXPECT_EQ(_get_qmm_path(nullptr), -1);
    EXPECT_EQ(_vorn_qmm_lockfile(nullptr), -1);
}

TEST_F(QueueManagerFiles, APathLongerThanAnyFilesIsRefused)
{
    std::string fits = "/" + std::string(sizeof out - 1 - strlen("/qmmd") - 1, 'd');
    setenv("VORN_PATHDIR", fits.c_str(), 1);
    EXPECT_EQ(contact(), fits + "/qmmd");
    EXPECT_EQ(strlen(out), sizeof out - 1);
    EXPECT_EQ(_vorn_qmm_lockfile(out), -1);
    setenv("VORN_PATHDIR", (fits + "/").c_str(), 1);
    EXPECT_EQ(contact(), fits + "/qmmd");
    setenv("VORN_PATHDIR", (fits + "d").c_str(), 1);
    EXPECT_EQ(_get_qmm_path(out), -1);
    setenv("VORN_PATHDIR", std::string(100000, 'd').c_str(), 1);
    EXPECT_EQ(_get_qmm_path(out), -1);
}

TEST(NullData, IsNothingButWhiteSpace)
{
    EXPECT_EQ(is_null_data(""), 1);
    EXPECT_EQ(is_null_data(" \t\r\n\v\f"), 1);
    EXPECT_EQ(is_null_data(nullptr), 1);
    EXPECT_EQ(is_null_data("x"), 0);
    EXPECT_EQ(is_null_data("  x  "), 0);
    EXPECT_EQ(is_null_data(" \x01"), 0);
    for (int c = 128; c < 256; c++) {
        char text[] = {' ', (char)c, '\0'};
        EXPECT_EQ(is_null_data(text), 0) << c;
    }
}

TEST(FunctionService, HasTheProgramsNumberInFront)
{
    const struct {
        int number;
        const char *function, *name;
    } cases[] = {
        {7, "pay", "p0007_pay"},      {0, "pay", "p0000_pay"},     {1234, "", "p1234_"},
        {56789, "pay", "p56789_pay"}, {-1, "pay", "p-001_pay"},    {INT_MAX, "f", "p2147483647_f"},
        {INT_MIN, "f", "p-2147483648_f"},
    };
    for (const auto &row : cases) {
        char name[64];
        memset(name, '#', sizeof name);
        EXPECT_EQ(_make_svcname_from_prodno_funcname(row.number, row.function, name), 1);
        EXPECT_STREQ(name, row.name);
        EXPECT_LE(strlen(name) + 1, strlen(row.function) + 14);
    }
}

TEST(FunctionService, NeedsBothTexts)
{
    char name[64] = "#";
    EXPECT_EQ(_make_svcname_from_prodno_funcname(1, nullptr, name), -1);
    EXPECT_EQ(_make_svcname_from_prodno_funcname(1, "f", nullptr), -1);
    EXPECT_STREQ(name, "#");
}

}
