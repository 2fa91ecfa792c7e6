// The version and its banner.
#include "vorn/utility.h"

#include "runtime/capture.h"
#include "support/gtest.h"

TEST(Version, IsOneText)
{
    EXPECT_STREQ(_vorn_version(), "5.0 SP #1 Fix #1 r11706");
    EXPECT_EQ(_vorn_version(), _vorn_version());
}

static const char rest[] = "VORN Version 5.0 SP #1 Fix #1, r11706 64bit binary for x86 Linux kernel 2.6, glibc 2.3 \n";

TEST(Banner, IsALineOnTheStandardOutput)
{
    int result = -1;
    Output output = output_of([&] { result = _vorn_show_version(nullptr); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(output.out, std::string(" ") + rest);
    EXPECT_EQ(output.err, "");
}

TEST(Banner, TellsForWhomItIs)
{
    Output output = output_of([] {
        EXPECT_EQ(_vorn_show_version("100%s"), 0);
        EXPECT_EQ(_vorn_show_version(""), 0);
    });
    EXPECT_EQ(output.out, std::string("100%s for ") + rest + " for " + rest);
}
