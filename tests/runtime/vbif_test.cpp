// Wrappers for bindings of other languages, and the sleeps that take plain numbers.
#include "vorn/bindings.h"

#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/query.h"
#include "vorn/session.h"

#include <chrono>
#include <limits.h>

// The start's record is kept for good; the leak checker is told so.
extern "C" {
void __lsan_disable(void) __attribute__((weak));
void __lsan_enable(void) __attribute__((weak));
}

namespace {

struct Bindings : SessionTest {
    int start_by_mode(int mode)
    {
        if (&__lsan_disable != nullptr)
            __lsan_disable();
        int result = vb_tpstart(mode);
        if (&__lsan_enable != nullptr)
            __lsan_enable();
        return result;
    }

    // Starts a session in that mode. The start record as it travelled, and the mode that it left.
    std::string started_with(int mode, int64_t *unsol_mode)
    {
        std::string record;
        peer.play([&] { record = peer.accept_start().frame.data; });
        EXPECT_EQ(start_by_mode(mode), 0);
        peer.done();
        *unsol_mode = block()->unsol_mode;
        return record;
    }

    static std::chrono::milliseconds time_of(const std::function<void()> &action)
    {
        auto before = std::chrono::steady_clock::now();
        action();
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - before);
    }

    void let_something_come()
    {
        peer.send_raw(wire::encode(wire::message(1012)).substr(0, 10));
        ASSERT_TRUE(wait_for_bytes(block()->clhfd, 10));
    }
};

TEST_F(Bindings, ModeZeroDropsUnsolicitedMessages)
{
    int64_t mode;
    EXPECT_EQ(started_with(0, &mode), std::string(72, '\0') + std::string("\2\0\0\0", 4));
    EXPECT_EQ(mode, 2);
}

TEST_F(Bindings, AnyOtherModeKeepsThem)
{
    int64_t mode;
    EXPECT_EQ(started_with(-1, &mode), std::string(72, '\0') + std::string("\4\0\0\0", 4));
    EXPECT_EQ(mode, 4);
}

TEST_F(Bindings, AStartThatFailsTellsWhy)
{
    peer.play([&] { peer.accept_start({.refuse = TPESECURITY}); });
    EXPECT_EQ(start_by_mode(1), -1);
    EXPECT_EQ(get_tperrno(), TPESECURITY);
    peer.done();
}

TEST_F(Bindings, AStartWithoutMemoryIsTpeos)
{
    free(_header_msg_make(1, 0));  // the tables are there from now on
    faults::fail_allocation(1);
    EXPECT_EQ(vb_tpstart(0), -1);
    EXPECT_TRUE(faults::allocation_failed());
    faults::disarm_allocations();
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(Bindings, TheRepliesDescriptorGoesByValue)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPACALL);
        peer.reply("yes", {.rcode = 5});
    });
    char name[] = "SVC";
    int cd = tpacall(name, nullptr, 0, 0);
    ASSERT_GT(cd, 0);
    char type[] = "STRING";
    char *data = tpalloc(type, nullptr, 64);
    long length = 0;
    EXPECT_EQ(vb_tpgetrply(cd, &data, &length, TPSENDONLY), -1) << "the flags go with it";
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(vb_tpgetrply(cd, &data, &length, 0), 1);
    EXPECT_EQ(std::string(data, (size_t)length), "yes");
    peer.done();
    EXPECT_EQ(vb_tpgetrply(cd, &data, &length, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    tpfree(data);
}

TEST(BindingCopies, AStringGoesWithoutItsEnd)
{
    char to[8] = "#######";
    vb_getstr("abc", to);
    EXPECT_STREQ(to, "abc####");
    vb_getstr("", to);
    vb_getstr(nullptr, to);
    vb_getstr("x", nullptr);
    EXPECT_STREQ(to, "abc####");
}

TEST(BindingCopies, BytesGoEitherWay)
{
    char to[8] = "#######";
    const char from[] = "a\0c";
    vb_getcar(from, to, 3);
    EXPECT_EQ(std::string(to, 4), std::string("a\0c#", 4));
    char back[8] = "#######";
    vb_putcar(back, from, 3);
    EXPECT_EQ(std::string(back, 4), std::string("a\0c#", 4));
}

TEST(BindingCopies, TheAreasMayOverlap)
{
    char bytes[8] = "abcd";
    vb_getcar(bytes, bytes + 1, 4);
    EXPECT_STREQ(bytes, "aabcd");
    vb_putcar(bytes + 1, bytes, 5);
    EXPECT_STREQ(bytes, "aaabcd");
    vb_getstr(bytes, bytes + 1);
    EXPECT_STREQ(bytes, "aaaabcd");
}

TEST(BindingCopies, ALengthBelowOneCopiesNothing)
{
    char to[8] = "#######";
    for (int length : {0, -1, INT_MIN}) {
        vb_getcar("abc", to, length);
        vb_putcar(to, "abc", length);
    }
    vb_getcar(nullptr, to, 3);
    vb_putcar(to, nullptr, 3);
    EXPECT_STREQ(to, "#######");
}

TEST_F(Bindings, SleepCutsToWholeSeconds)
{
    ASSERT_TRUE(start());
    for (int part : {500000, 999999, -999999}) {
        EXPECT_EQ(vb_tpsleep(part), 0);
        EXPECT_EQ(faults::last_select_limit(), 0) << part;
    }
    EXPECT_GE(time_of([&] { EXPECT_EQ(vb_tpsleep(1999999), 0); }).count(), 990);
    EXPECT_EQ(faults::last_select_limit(), 1000000);
    let_something_come();
    EXPECT_GT(vb_tpsleep(600000000), 0);
    EXPECT_EQ(faults::last_select_limit(), 600000000);
}

TEST_F(Bindings, SleepsTakeSecondsAndMicroseconds)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(tp_sleep(0), 0);
    EXPECT_EQ(tp_usleep(0), 0);
    EXPECT_GE(time_of([&] { EXPECT_EQ(tp_sleep(1), 0); }).count(), 990);
    EXPECT_GE(time_of([&] { EXPECT_EQ(tp_usleep(30000), 0); }).count(), 29);
    EXPECT_GE(time_of([&] { EXPECT_EQ(tp_usleep(1020000), 0); }).count(), 1010);
    let_something_come();
    EXPECT_GT(tp_sleep(600), 0);
    EXPECT_GT(tp_usleep(INT_MAX), 0);
}

TEST_F(Bindings, ASleepThatTheSystemRefusesFails)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(tp_sleep(-1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(tp_usleep(-1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Bindings, ASleepStartsTheSession)
{
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tp_usleep(1), 0);
    peer.done();
}

TEST_F(Bindings, ASleepWithoutAServerFails)
{
    setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);  // one try
    peer.stop_listening();
    for (auto *sleep : {tp_sleep, tp_usleep, vb_tpsleep}) {
        set_tperrno(0);
        EXPECT_EQ(sleep(0), -1);
        EXPECT_NE(get_tperrno(), 0);
    }
}

}
