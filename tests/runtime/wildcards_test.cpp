// Names against patterns.
#include "runtime/wildcards.h"

#include "support/gtest.h"

#include <string>
#include <thread>
#include <vector>

struct pattern_case {
    const char *string, *pattern;
    int result;
};

TEST(MatchWc, CoversTheWholeStringAsAShellDoes)
{
    constexpr pattern_case cases[] = {{"node1", "node1", 1},
                                      {"node1", "node", 0},
                                      {"node1", "ode1", 0},
                                      {"node1", "*", 1},
                                      {"", "*", 1},
                                      {"", "", 1},
                                      {"", "?", 0},
                                      {"a", "", 0},
                                      {"node1", "node?", 1},
                                      {"node", "node?", 0},
                                      {"node12", "node?", 0},
                                      {"node1", "n*1", 1},
                                      {"node1", "n*2", 0},
                                      {"node1", "*de*", 1},
                                      {"node2", "node[12]", 1},
                                      {"node3", "node[12]", 0},
                                      {"node7", "node[0-9]", 1},
                                      {"node7", "node[!0-9]", 0},
                                      {"nodeX", "node[!0-9]", 1},
                                      {"NODE1", "node1", 0},
                                      {"a*b", "a\\*b", 1},
                                      {"axb", "a\\*b", 0},
                                      {"[a", "[a", 1},
                                      {"node.1", "node.1", 1},
                                      {"nodex1", "node.1", 0}};
    for (const pattern_case &c : cases)
        EXPECT_EQ(_match_wc(c.string, c.pattern), c.result) << c.string << " against " << c.pattern;
}

// Paths and leading periods have no part in the names of nodes.
TEST(MatchWc, SlashAndLeadingPeriodAreCharactersLikeOthers)
{
    EXPECT_EQ(_match_wc("a/b", "*"), 1);
    EXPECT_EQ(_match_wc("a/b", "a?b"), 1);
    EXPECT_EQ(_match_wc("a/b", "a[/]b"), 1);
    EXPECT_EQ(_match_wc(".node", "*"), 1);
    EXPECT_EQ(_match_wc(".node", "?node"), 1);
}

TEST(MatchRe, MatchesTheWholeStringOnly)
{
    constexpr pattern_case cases[] = {
        {"abc", "abc", 1},  {"abc", "ab", 0},    {"abc", "bc", 0},     {"abc", "ab.", 1},
        {"abc", "a.*", 1},  {"abc", ".*", 1},    {"", "", 1},          {"", ".*", 1},
        {"abc", "", 0},     {"abc", "^abc$", 1}, {"abc", "[a-c]*", 1}, {"abcd", "[a-c]*", 0},
        {"xabc", "abc", 0}, {"aab", "a*b", 1},   {"a.c", "a\\.c", 1},  {"abc", "a\\.c", 0}};
    for (const pattern_case &c : cases)
        EXPECT_EQ(_match_re(c.string, c.pattern), c.result) << c.string << " against " << c.pattern;
}

TEST(MatchRe, KnowsBasicExpressionsNotExtendedOnes)
{
    EXPECT_EQ(_match_re("a+", "a+"), 1);
    EXPECT_EQ(_match_re("aa", "a+"), 0);
    EXPECT_EQ(_match_re("a|b", "a|b"), 1);
    EXPECT_EQ(_match_re("(a)", "(a)"), 1);
    EXPECT_EQ(_match_re("aa", "\\(a\\)\\1"), 1);
}

// The longest match at the leftmost place is looked at, no other.
TEST(MatchRe, AnEarlierMatchOfAPartDecides)
{
    EXPECT_EQ(_match_re("xab", "[a-z]"), 0);
    EXPECT_EQ(_match_re("ab ab", "ab"), 0);
}

TEST(MatchRe, FaultyExpressionMatchesNothing)
{
    EXPECT_EQ(_match_re("abc", "[a"), 0);
    EXPECT_EQ(_match_re("abc", "\\(abc"), 0);
    EXPECT_EQ(_match_re("[a", "[a"), 0);
}

TEST(MatchPattern, TakesShellPatterns)
{
    EXPECT_EQ(_match_pattern("node1", "node?"), 1);
    EXPECT_EQ(_match_pattern("node1", "n*"), 1);
    EXPECT_EQ(_match_pattern("node1", "n*2"), 0);
    EXPECT_EQ(_match_pattern("node1", "node."), 0);
    EXPECT_EQ(_match_pattern("nnn", "n*"), 1);
    EXPECT_EQ(_match_pattern("abc", "n*"), 0);
}

TEST(MatchPattern, MissingArgumentsMatchNothing)
{
    for (auto match : {_match_wc, _match_re, _match_pattern}) {
        EXPECT_EQ(match(nullptr, "*"), 0);
        EXPECT_EQ(match("a", nullptr), 0);
        EXPECT_EQ(match(nullptr, nullptr), 0);
    }
}

TEST(MatchPattern, ThreadsMatchIndependently)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            std::string name = "node" + std::to_string(t), pattern = "*" + std::to_string(t);
            for (int n = 0; n < 300; n++) {
                ASSERT_EQ(_match_pattern(name.c_str(), pattern.c_str()), 1);
                ASSERT_EQ(_match_re(name.c_str(), pattern.c_str()), 0);
                ASSERT_EQ(_match_re(name.c_str(), ("node[" + std::to_string(t) + "]").c_str()), 1);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}
