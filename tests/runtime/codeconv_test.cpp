// ASCII and EBCDIC.
#include "vorn/codeconv.h"

#include <limits.h>
#include <map>
#include <string>

#include "support/gtest.h"

namespace {

typedef int conversion(char *to, const char *from, int len);

int converted(conversion *function, int byte)
{
    char from = (char)byte, to = '#';
    EXPECT_EQ(function(&to, &from, 1), 1);
    return (unsigned char)to;
}

// Code page 037, told by its runs.
std::map<int, int> from_ebcdic()
{
    std::map<int, int> map;
    const auto run = [&](int first, const std::string &text) {
        for (char c : text)
            map[first++] = (unsigned char)c;
    };
    run(0x4b, ".<(+|");
    run(0x50, "&");
    run(0x5a, "!$*);");
    run(0x60, "-/");
    run(0x6a, "|,%_>");
    run(0x79, "`:#@'=\"");
    run(0x81, "abcdefghi");
    run(0x91, "jklmnopqr");
    run(0xa1, "~stuvwxyz");
    run(0xc0, "{ABCDEFGHI");
    run(0xd0, "}JKLMNOPQR");
    run(0xe0, "\\");
    run(0xe2, "STUVWXYZ");
    run(0xf0, "0123456789");
    for (int blank : {0x0e, 0x0f, 0x11, 0x12, 0x15, 0x40})
        map[blank] = ' ';
    map[0x00] = 0x00;
    map[0x0c] = 0x0c;
    return map;
}

TEST(FromEbcdic, EveryByte)
{
    std::map<int, int> expected = from_ebcdic();
    for (int byte = 0; byte < 256; byte++) {
        int to = expected.count(byte) ? expected[byte] : '?';
        EXPECT_EQ(converted(_vorn_toascii, byte), to) << byte;
        EXPECT_EQ(ebcdic[byte], to) << byte;
    }
}

TEST(ToEbcdic, EveryByte)
{
    std::map<int, int> expected;
    for (const auto &[byte, c] : from_ebcdic())
        if (c > ' ' && c != '~' && byte != 0x4f)
            expected[c] = byte;
    const int controls[0x20] = {0x00, 0x01, 0x02, 0x03, 0x37, 0x2d, 0x2e, 0x2f, 0x16, 0x05, 0x25,
                                0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x11, 0x12, 0x40, 0x3c, 0x3d,
                                0x32, 0x26, 0x18, 0x19, 0x3f, 0x27, 0x22, 0x40, 0x35, 0x40};
    for (int i = 0; i < 0x20; i++)
        expected[i] = controls[i];
    expected['?'] = 0x6f;
    expected['['] = 0xad;
    expected[']'] = 0xbd;
    expected[0xbb] = 0x06;
    expected[0xff] = 0xff;
    expected['^'] = 0x40;
    for (int byte = 0; byte < 256; byte++) {
        int to = expected.count(byte) ? expected[byte] : 0x40;
        EXPECT_EQ(converted(_vorn_toebcdic, byte), to) << byte;
        EXPECT_EQ(ascii[byte], to) << byte;
    }
}

TEST(Conversion, TheBarComesFromTwoBytesAndGoesToOne)
{
    EXPECT_EQ(converted(_vorn_toascii, 0x6a), '|');
    EXPECT_EQ(converted(_vorn_toascii, 0x4f), '|');
    EXPECT_EQ(converted(_vorn_toebcdic, '|'), 0x6a);
}

TEST(Conversion, TakesAWholeTextAlsoInPlace)
{
    char text[] = "Hello, World 42|";
    std::string before = text;
    int length = (int)before.size();
    EXPECT_EQ(_vorn_toebcdic(text, text, length), length);
    EXPECT_EQ(std::string(text), "\xc8\x85\x93\x93\x96\x6b\x40\xe6\x96\x99\x93\x84\x40\xf4\xf2\x6a");
    EXPECT_EQ(_vorn_toascii(text, text, length), length);
    EXPECT_EQ(std::string(text), before);
}

TEST(Conversion, NothingIsNone)
{
    char to = '#', from = 'a';
    for (conversion *function : {_vorn_toascii, _vorn_toebcdic}) {
        for (int length : {0, -1, INT_MIN})
            EXPECT_EQ(function(&to, &from, length), 0);
        EXPECT_EQ(function(nullptr, &from, 1), 0);
        EXPECT_EQ(function(&to, nullptr, 1), 0);
    }
    EXPECT_EQ(to, '#');
}

TEST(HostConversion, LeavesTheBytesAsTheyAre)
{
    for (conversion *function : {_toascii, _toebcdic}) {
        char to[6] = "#####";
        EXPECT_EQ(function(to, "a|\xff\x6a", 4), 1);
        EXPECT_EQ(std::string(to), "a|\xff\x6a#");
        for (int length : {0, -1, INT_MIN})
            EXPECT_EQ(function(to, "b", length), 1);
        EXPECT_EQ(std::string(to), "a|\xff\x6a#");
    }
}

}
