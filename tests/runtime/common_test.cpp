// Paths, directories and small checks.
#include "runtime/common.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "support/gtest.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

namespace {

bool is_directory(const std::string &name)
{
    struct stat status;
    return stat(name.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string normalised(const std::string &path)
{
    char copy[512];
    snprintf(copy, sizeof copy, "%s", path.c_str());
    EXPECT_EQ(_vorn_proc_path(copy), 1);
    return copy;
}

TEST(PathPrefix, EndsWithTheLastSeparator)
{
    EXPECT_EQ(_vorn_path_prefix("a"), nullptr);
    EXPECT_EQ(_vorn_path_prefix(""), nullptr);
    EXPECT_EQ(_vorn_path_prefix(nullptr), nullptr);
    EXPECT_STREQ(_vorn_path_prefix("a/b"), "a/");
    EXPECT_STREQ(_vorn_path_prefix("a\\b"), "a\\");
    EXPECT_STREQ(_vorn_path_prefix("/a/b\\c"), "/a/b\\");
    EXPECT_STREQ(_vorn_path_prefix("/"), "/");
    EXPECT_STREQ(_vorn_path_prefix("a/"), "a/");
    EXPECT_EQ(_vorn_path_prefix("a/b"), current_block()->path_buffer);
}

TEST(PathPrefix, OneThatDoesNotFitIsRefused)
{
    std::string fits = std::string(254, 'd') + "/";
    EXPECT_EQ(std::string(_vorn_path_prefix((fits + "file").c_str())), fits);
    EXPECT_EQ(_vorn_path_prefix((std::string(255, 'd') + "/file").c_str()), nullptr);
    EXPECT_EQ(_vorn_path_prefix((std::string(100000, 'd') + "/").c_str()), nullptr);
}

TEST(PathBasename, PointsBehindTheLastSeparator)
{
    EXPECT_EQ(_vorn_path_basename(nullptr), nullptr);
    EXPECT_EQ(_vorn_path_basename(""), nullptr);
    EXPECT_STREQ(_vorn_path_basename("a/"), "");
    EXPECT_STREQ(_vorn_path_basename("/a/b"), "b");
    EXPECT_STREQ(_vorn_path_basename("a\\b"), "b");
    const char *plain = "file";
    EXPECT_EQ(_vorn_path_basename(plain), plain);
}

TEST(CreateDirectory, MakesTheWholeChain)
{
    TempDir temp;
    EXPECT_EQ(_vorn_create_dir((temp / "y/z/").c_str()), 0);
    EXPECT_TRUE(is_directory(temp / "y/z"));
    EXPECT_EQ(_vorn_create_dir((temp / "p//q///r").c_str()), 0);
    EXPECT_TRUE(is_directory(temp / "p/q/r"));
}

TEST(CreateDirectory, OneThatExistsIsAFailure)
{
    TempDir temp;
    EXPECT_EQ(_vorn_create_dir(temp.path.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
}

TEST(CreateDirectory, BackslashSeparatesAChainToo)
{
    TempDir temp;
    ASSERT_EQ(chdir(temp.path.c_str()), 0);
    EXPECT_EQ(_vorn_create_dir("up\\"), 0);
    EXPECT_TRUE(is_directory(temp / "up"));
    // What mkdir makes of the name is the system's affair: here the separator is a character like any other, so
    // the second part stands in the directory in front.
    EXPECT_EQ(_vorn_create_dir("no/such\\x"), 0);
    EXPECT_TRUE(is_directory(temp / "no/such"));
    EXPECT_TRUE(is_directory(temp / "no/such\\x"));
}

TEST(CreateDirectory, TheMaskAloneLimitsThePermissions)
{
    TempDir temp;
    umask(0);
    EXPECT_EQ(_vorn_create_dir((temp / "y/z").c_str()), 0);
    for (const char *part : {"y", "y/z"}) {
        struct stat made;
        EXPECT_EQ(stat((temp / part).c_str(), &made), 0);
        EXPECT_EQ(made.st_mode & 07777, 0777u) << part;
    }
}

TEST(CreateDirectory, RefusesWhatIsNoPath)
{
    for (const char *none : {(const char *)nullptr, ""}) {
        errno = 0;
        EXPECT_EQ(_vorn_create_dir(none), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(_vorn_create_dir("///"), -1);
    EXPECT_EQ(_vorn_create_dir(std::string(5000, 'x').c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(CreateDirectory, StopsWhereAPartCannotBeMade)
{
    TempDir temp;
    write_file(temp / "file", "");
    EXPECT_EQ(_vorn_create_dir((temp / "file/below/it").c_str()), -1);
}

TEST(CreateDirectory, MakesAVeryDeepChain)
{
    TempDir temp;
    std::string deep = temp.path;
    while (deep.size() < 1000)
        deep += "/d";
    EXPECT_EQ(_vorn_create_dir(deep.c_str()), 0);
    EXPECT_TRUE(is_directory(deep));
}

TEST(Slashes, AreConvertedAndAppended)
{
    char path[16] = "a\\b/c\\";
    _vorn_conv_slash(path);
    EXPECT_STREQ(path, "a/b/c/");
    EXPECT_NE(_slash_check(path), 0);
    EXPECT_STREQ(path, "a/b/c/");
    char bare[16] = "a";
    EXPECT_EQ(_slash_check(bare), 0);
    EXPECT_STREQ(bare, "a/");
    char empty[4] = "";
    EXPECT_EQ(_slash_check(empty), 0);
    EXPECT_STREQ(empty, "/");
}

TEST(NormalisedPath, CollapsesWhatASeparatorCloses)
{
    const char *const cases[][2] = {
        {"/a/./b//c/../d", "/a/b/d"},
        {"/a/../", "/"},
        {"/a/../b", "/b"},
        {"a\\b\\", "a/b/"},
        {"//", "/"},
        {"/./", "/"},
        {"./a", "./a"},
        {"a/.", "a/."},
        {"a/b/..", "a/b/.."},
        {"a/b/../c", "a/c"},
        {"/../a", "/../a"},
        {"/a/b/../../c", "/c"},
        {"/a..b/c.", "/a..b/c."},
        {"/a/.../b", "/a/.../b"},
        {"", ""},
        {"plain", "plain"},
    };
    for (const auto &row : cases)
        EXPECT_EQ(normalised(row[0]), row[1]) << row[0];
}

TEST(NormalisedPath, RelativePathStaysRelative)
{
    EXPECT_EQ(normalised("a/../b"), "a/../b");
}

TEST(HeapPointer, IsNotNullAndAMultipleOfFour)
{
    alignas(8) char block[8] = "";
    EXPECT_EQ(_vorn_IsHeapPtr(block), 1);
    EXPECT_EQ(_vorn_IsHeapPtr(block + 4), 1);
    EXPECT_EQ(_vorn_IsHeapPtr(block + 2), 0);
    EXPECT_EQ(_vorn_IsHeapPtr(block + 1), 0);
    EXPECT_EQ(_vorn_IsHeapPtr(nullptr), 0);
}

TEST(PrintPercents, OnlyDoubledSignsAreConverted)
{
    char text[] = "%%a%b%%%%c%%%";
    print_percents(text);
    EXPECT_STREQ(text, "%a%b%%c%%");
}

TEST(DetachConsole, PutsTheStandardStreamsOnTheNullDevice)
{
    int saved = dup(STDOUT_FILENO), saved_err = dup(STDERR_FILENO);
    _vorn_detach_console();
    struct stat null_device, stream;
    stat("/dev/null", &null_device);
    bool all = true;
    int modes[3];
    for (FILE *each : {stdin, stdout, stderr}) {
        all = all && fstat(fileno(each), &stream) == 0 && stream.st_rdev == null_device.st_rdev;
        modes[fileno(each)] = fcntl(fileno(each), F_GETFL) & O_ACCMODE;
    }
    int end = getc(stdin);
    dup2(saved, STDOUT_FILENO);
    dup2(saved_err, STDERR_FILENO);
    ASSERT_TRUE(all);
    EXPECT_EQ(end, EOF);
    EXPECT_EQ(modes[STDIN_FILENO], O_RDONLY);
    EXPECT_EQ(modes[STDOUT_FILENO], O_WRONLY);
    EXPECT_EQ(modes[STDERR_FILENO], O_WRONLY);
}

}
