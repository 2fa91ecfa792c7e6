// An application against the server: the library's public calls on one end, clhsim on the other. The two know
// the protocol each from its own source, so what passes here is what both agree on.
#include "application.h"

#include <gtest/gtest.h>
#include <thread>

static constexpr int ERROR_NOENT = 6;
static constexpr int ERROR_OS = 7;
static constexpr int ERROR_SVCERR = 10;
static constexpr int ERROR_SVCFAIL = 11;
static constexpr int ERROR_TIME = 13;
static constexpr int ERROR_SECURITY = 25;
static constexpr int ERROR_CLOSE = 28;

static std::string called(const char *service, const std::string &text)
{
    Buffer buffer(text);
    if (call(service, buffer) == -1)
        return std::string("error: ") + tpstrerror(gettperrno());
    return buffer.data;
}

TEST(ClhsimApplication, CallsAServiceOverTcp)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(called("TOUPPER", "hello"), "HELLO");
    EXPECT_EQ(called("REVERSE", "hello"), "olleh");
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(domain.stat("calls"), 2);
    EXPECT_EQ(domain.stat("broken"), 0);
}

TEST(ClhsimApplication, CallsAServiceOverALocalSocket)
{
    Domain domain({"--local", "DIR"});
    ASSERT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(called("TOUPPER", "hello"), "HELLO");
    EXPECT_EQ(tpend(), 1);
}

TEST(ClhsimApplication, FirstCallOpensTheSession)
{
    Domain domain;
    EXPECT_EQ(called("TOUPPER", "hello"), "HELLO");
    EXPECT_EQ(domain.stat("logins"), 1);
    EXPECT_EQ(tpend(), 1);
}

TEST(ClhsimApplication, ByteArraysOfAllSizesComeBack)
{
    Domain domain;
    for (size_t size : {1, 1023, 1024, 1025, 65536, 2000000}) {
        Buffer request("CARRAY", size);
        for (size_t i = 0; i < size; i++)
            request.data[i] = static_cast<char>(i * 31 + size);
        Buffer reply("CARRAY", 0);
        ASSERT_EQ(
            tpcall(unconst("ECHO"), request.data, static_cast<long>(size), &reply.data, &reply.length, 0), 1);
        ASSERT_EQ(reply.length, static_cast<long>(size));
        EXPECT_EQ(memcmp(reply.data, request.data, size), 0) << size;
    }
}

TEST(ClhsimApplication, LargeReplyReplacesTheBuffer)
{
    Domain domain;
    Buffer buffer("100000");
    ASSERT_EQ(call("BIG", buffer), 1);
    EXPECT_EQ(buffer.length, 100000);
    EXPECT_EQ(strlen(buffer.data), 99999u);
}

TEST(ClhsimApplication, FailingServiceDeliversItsDataAndCode)
{
    Domain domain;
    Buffer buffer("17 reasons");
    EXPECT_EQ(call("FAIL", buffer), -1);
    EXPECT_EQ(gettperrno(), ERROR_SVCFAIL);
    EXPECT_EQ(gettpurcode(), 17);
    EXPECT_STREQ(buffer.data, "17 reasons");
    EXPECT_EQ(call("NOSUCH", buffer), -1);
    EXPECT_EQ(gettperrno(), ERROR_NOENT);
}

TEST(ClhsimApplication, AsynchronousCallsAreAnsweredInTheirOwnOrder)
{
    Domain domain;
    Buffer slow("2");
    Buffer fast("0");
    int first = tpacall(unconst("SLEEP"), slow.data, 0, 0);
    int second = tpacall(unconst("SLEEP"), fast.data, 0, 0);
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    Buffer reply("STRING", 0);
    int any = 0;
    ASSERT_EQ(tpgetrply(&any, &reply.data, &reply.length, TPGETANY), 1);
    EXPECT_EQ(any, second);
    ASSERT_EQ(tpgetrply(&first, &reply.data, &reply.length, 0), 1);
    EXPECT_STREQ(reply.data, "2");
}

TEST(ClhsimApplication, EarlierReplyWaitsForItsDescriptor)
{
    Domain domain;
    Buffer text("abc");
    int first = tpacall(unconst("TOUPPER"), text.data, 0, 0);
    int second = tpacall(unconst("REVERSE"), text.data, 0, 0);
    Buffer reply("STRING", 0);
    ASSERT_EQ(tpgetrply(&second, &reply.data, &reply.length, 0), 1);
    EXPECT_STREQ(reply.data, "cba");
    ASSERT_EQ(tpgetrply(&first, &reply.data, &reply.length, 0), 1);
    EXPECT_STREQ(reply.data, "ABC");
}

TEST(ClhsimApplication, CancelledReplyIsForgotten)
{
    Domain domain;
    Buffer text("abc");
    int descriptor = tpacall(unconst("TOUPPER"), text.data, 0, 0);
    ASSERT_EQ(tpcancel(descriptor), 1);
    EXPECT_EQ(called("REVERSE", "next"), "txen");
    Buffer reply("STRING", 0);
    EXPECT_EQ(tpgetrply(&descriptor, &reply.data, &reply.length, 0), -1);
}

TEST(ClhsimApplication, ReceiptTellsWhetherTheServiceIsThere)
{
    Domain domain;
    Buffer text("abc");
    int descriptor = tpacall(unconst("TOUPPER"), text.data, 0, TPBLOCK);
    ASSERT_GT(descriptor, 0);
    EXPECT_EQ(tpacall(unconst("NOSUCH"), text.data, 0, TPBLOCK), -1);
    EXPECT_EQ(gettperrno(), ERROR_NOENT);
    EXPECT_EQ(tpacall(unconst("TOUPPER"), text.data, 0, TPNOREPLY), 0);
    Buffer reply("STRING", 0);
    ASSERT_EQ(tpgetrply(&descriptor, &reply.data, &reply.length, 0), 1);
    EXPECT_STREQ(reply.data, "ABC");
}

TEST(ClhsimApplication, CompressesBothWaysFromTheThresholdOn)
{
    Domain domain({"--threshold", "1000"});
    EXPECT_EQ(called("TOUPPER", std::string(998, 'x')), std::string(998, 'X'));
    EXPECT_EQ(domain.stat("compressed_in"), 0);
    EXPECT_EQ(domain.stat("compressed_out"), 0);
    EXPECT_EQ(called("TOUPPER", std::string(999, 'x')), std::string(999, 'X')) << "1000 with its NUL";
    EXPECT_EQ(called("TOUPPER", std::string(300000, 'x')), std::string(300000, 'X'));
    EXPECT_EQ(domain.stat("compressed_in"), 2);
    EXPECT_EQ(domain.stat("compressed_out"), 2);
}

TEST(ClhsimApplication, LoginIsCheckedByNameAndCredential)
{
    Domain domain({"--user", "bob:secret"});
    Buffer login("TPSTART", 0);
    auto *record = reinterpret_cast<TPSTART_T *>(login.data);
    strcpy(record->usrname, "bob");
    strcpy(record->cred1, "wrong");
    EXPECT_EQ(tpstart(record), -1);
    EXPECT_EQ(gettperrno(), ERROR_SECURITY);
    EXPECT_EQ(domain.stat("accepted"), 1) << "a refused login isn't tried again";
    strcpy(record->cred1, "secret");
    EXPECT_EQ(tpstart(record), 0);
    EXPECT_NE(domain.command("clients").find("user \"bob\""), std::string::npos);
}

TEST(ClhsimApplication, UserLogArrives)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(userlog("answer %d", 42), 1);
    EXPECT_EQ(ulogsync(), 1);
    EXPECT_NE(domain.line_with("userlog 1: ").find("answer 42"), std::string::npos);
    domain.line_with("ulogsync 1");
}

TEST(ClhsimApplication, ServerChangesTheBlockTime)
{
    Domain domain({"--block-time", "0"});
    ASSERT_EQ(tpstart(nullptr), 0);
    domain.command("set 1 12 3");
    EXPECT_EQ(called("TOUPPER", "read on the way"), "READ ON THE WAY");
    Buffer slow("1000");
    EXPECT_EQ(call("SLEEP", slow), -1);
    EXPECT_EQ(gettperrno(), ERROR_TIME);
    EXPECT_EQ(called("TOUPPER", "still here"), "STILL HERE");
}

TEST(ClhsimApplication, NotificationIsAcknowledged)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    domain.command("post 1 notifyack hello");
    EXPECT_EQ(called("TOUPPER", "abc"), "ABC");
    EXPECT_EQ(domain.line_with("acknowledged"), "clhsim: client 1 acknowledged notification 1");
}

TEST(ClhsimApplication, MessagesThatNobodyWantsDontDisturbACall)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    for (const char *kind : {"post", "broadcast", "notify", "sendtocli", "raw"})
        domain.command(std::string("post all ") + kind + " hello");
    EXPECT_EQ(called("TOUPPER", "abc"), "ABC");
}

TEST(ClhsimApplication, RefusedCallIsAnError)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    domain.command("refuse TOUPPER 10 1");
    Buffer buffer("abc");
    EXPECT_EQ(call("TOUPPER", buffer), -1);
    EXPECT_EQ(gettperrno(), ERROR_SVCERR);
    EXPECT_EQ(called("TOUPPER", "abc"), "ABC");
}

// The stream that ends at a frame's border is a closed one; inside of a message something went wrong.
TEST(ClhsimApplication, CutReplyIsAnError)
{
    Domain domain;
    for (auto [bytes, error] : {std::pair("0", ERROR_CLOSE), std::pair("138", ERROR_OS)}) {
        domain.command(std::string("truncate TOUPPER ") + bytes + " 1");
        ASSERT_EQ(tpstart(nullptr), 0);
        Buffer buffer("abc");
        EXPECT_EQ(call("TOUPPER", buffer), -1);
        EXPECT_EQ(gettperrno(), error) << bytes;
        tpend();
    }
}

TEST(ClhsimApplication, ClosedConnectionIsNoticed)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    EXPECT_EQ(domain.command("close all"), "ok 1 client");
    Buffer buffer("abc");
    EXPECT_EQ(call("TOUPPER", buffer), -1);
    EXPECT_EQ(gettperrno(), ERROR_CLOSE);
}

TEST(ClhsimApplication, ManyThreadsShareOneConnection)
{
    Domain domain;
    Buffer login("TPSTART", 0);
    auto *record = reinterpret_cast<TPSTART_T *>(login.data);
    record->flags = TPMULTICONTEXTS;
    ASSERT_EQ(tpstart(record), 0);
    int context = 0;
    ASSERT_EQ(tpgetctxt(&context, 0), 1);
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; number++) {
        threads.emplace_back([number, context] {
            ASSERT_EQ(tpsetctxt(context, 0), 1);
            for (int i = 0; i < 100; i++) {
                std::string text = "thread " + std::to_string(number) + " call " + std::to_string(i);
                ASSERT_EQ(called("ECHO", text), text);
            }
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(domain.stat("accepted"), 1);
    EXPECT_EQ(domain.stat("calls.ECHO"), 800);
}
