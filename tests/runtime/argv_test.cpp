// Argument vectors.
#include "runtime/argv.h"

#include "runtime/capture.h"
#include "support/faults.h"
#include "support/gtest.h"

#include <string.h>

namespace {

std::vector<std::string> words(char **argv)
{
    std::vector<std::string> list;
    for (; *argv != nullptr; argv++)
        list.push_back(*argv);
    return list;
}

TEST(ArgumentVector, SplitsAtWhiteSpace)
{
    int argc = -1;
    char **argv = _vorn_build_argv_argc("  one two\t\n three ", &argc);
    EXPECT_EQ(argc, 3);
    EXPECT_EQ(words(argv), (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(_get_argc_from_argv(argv), 3);
    free(argv);
    argv = _vorn_build_argv_argc("x", &argc);
    EXPECT_EQ(argc, 1);
    free(argv);
}

TEST(ArgumentVector, EmptyStringGivesNoWords)
{
    for (const char *string : {"", "   "}) {
        int argc = -1;
        char **argv = _vorn_build_argv_argc(string, &argc);
        EXPECT_EQ(argc, 0);
        EXPECT_EQ(argv[0], nullptr);
        free(argv);
    }
}

TEST(ArgumentVector, JoinsCommandAndArguments)
{
    char **argv = _vorn_build_argv("server", "-a  -b");
    EXPECT_EQ(words(argv), (std::vector<std::string>{"server", "-a", "-b"}));
    free(argv);
    argv = _vorn_build_argv("server -x", nullptr);
    EXPECT_EQ(words(argv), (std::vector<std::string>{"server", "-x"}));
    free(argv);
}

TEST(ArgumentVector, BecomesAStringThatEndsInABlank)
{
    char one[] = "one", two[] = "two", *argv[] = {one, two, nullptr};
    char *string = _vorn_mkstr_from_argv(2, argv);
    EXPECT_STREQ(string, "one two ");
    free(string);
    string = _vorn_mkstr_from_argv(0, argv);
    EXPECT_STREQ(string, "");
    free(string);
    std::vector<char *> many(100, one);
    string = _vorn_mkstr_from_argv(100, many.data());
    EXPECT_EQ(strlen(string), 400u);
    free(string);
}

TEST(ArgumentVector, FailsWithoutMemory)
{
    unsetenv("VORN_DEBUG");
    int argc;
    char one[] = "one", *list[] = {one, nullptr};
    std::string text = output_of([&] {
                           faults::fail_allocation(1);
                           EXPECT_EQ(_vorn_build_argv("a", "b"), nullptr);
                           faults::fail_allocation(2);
                           EXPECT_EQ(_vorn_build_argv("a", "b"), nullptr);
                           faults::fail_allocation(1);
                           EXPECT_EQ(_vorn_build_argv_argc("abc", &argc), nullptr);
                           faults::fail_allocation(1);
                           EXPECT_EQ(_vorn_mkstr_from_argv(1, list), nullptr);
                           faults::disarm_allocations();
                       }).err;
    std::istringstream lines(text);
    std::vector<std::string> seen;
    for (std::string line; std::getline(lines, line);)
        seen.push_back(without_time(line));
    const std::string text_of_size = ":(E) CLI 0004 memory allocation error : size = ";
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].find(text_of_size + "12 [COM0026]"), 0u) << seen[0];
    EXPECT_EQ(seen[1].find(text_of_size + "13 [COM0028]"), 0u) << seen[1];
    EXPECT_EQ(seen[2].find(text_of_size + "13 [COM0028]"), 0u) << seen[2];
    EXPECT_EQ(seen[3].find(text_of_size + "13 [COM0027]"), 0u) << seen[3];
}

}
