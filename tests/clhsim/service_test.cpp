// The built-in services, and the forms of a call.
#include "simulator.h"

#include <gtest/gtest.h>
#include <unistd.h>

static constexpr int32_t NOREPLY = 0x4;
static constexpr int32_t BLOCK = 0x200;

TEST(ClhsimService, ToupperKeepsTheNulAndOtherBytes)
{
    Simulator server;
    Link link = server.log_in();
    std::string data("az{`\xe4 Q\0a\0", 10);
    Message reply = link.exchange(call_of("TOUPPER", data));
    EXPECT_EQ(reply.data, std::string("AZ{`\xe4 Q\0A\0", 10));
    EXPECT_EQ(reply.msgtype, 1003);
    EXPECT_EQ(reply.buftype, STRING);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.rcode, 0);
}

TEST(ClhsimService, ReplyEchoesTheIdentityOfTheCall)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("ECHO", "abcd", MSG_TPCALL, CARRAY, 77);
    call.prio = 50;
    call.cd = 9;
    call.callid[0] = 5;
    call.callid[1] = 0x00080101;
    call.callid[2] = 7;
    call.xid[1] = 3;
    call.subtype = "kind";
    call.flags = 0x20;
    call.xflags = 0x02000000;
    Message reply = link.exchange(call);
    EXPECT_EQ(reply.seqno, 77);
    EXPECT_EQ(reply.prio, 50);
    EXPECT_EQ(reply.cd, 9);
    EXPECT_EQ(reply.callid[0], 5);
    EXPECT_EQ(reply.callid[1], 0x00080101);
    EXPECT_EQ(reply.callid[2], 7);
    EXPECT_EQ(reply.xid[1], 3);
    EXPECT_EQ(reply.subtype, "kind");
    EXPECT_EQ(reply.svcname, "ECHO");
    EXPECT_EQ(reply.buftype, CARRAY);
    EXPECT_EQ(reply.flags, 0) << "the error number stands there, not the caller's flags";
    EXPECT_EQ(reply.xflags, 0x02000000u);
    EXPECT_EQ(reply.bufsize, 1024);
}

TEST(ClhsimService, EchoOfAllSizes)
{
    Simulator server;
    Link link = server.log_in();
    for (size_t size : {0, 1, 1023, 1024, 1025, 65536, 3000000}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; i++)
            data[i] = static_cast<char>(i * 7);
        Message reply = link.exchange(call_of("ECHO", data, MSG_TPCALL, CARRAY));
        EXPECT_TRUE(reply.data == data) << size;
        EXPECT_EQ(reply.bufsize, static_cast<int32_t>(std::max<size_t>(size, 1024)));
    }
}

TEST(ClhsimService, ReverseKeepsAStringsNulAtItsEnd)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(link.exchange(string_call("REVERSE", "abc")).data, std::string("cba\0", 4));
    EXPECT_EQ(link.exchange(call_of("REVERSE", std::string("ab\0c", 4), MSG_TPCALL, CARRAY)).data,
              std::string("c\0ba", 4));
}

TEST(ClhsimService, FailDeliversDataAndUserCode)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = link.exchange(string_call("FAIL", "42 no money"));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 11);
    EXPECT_EQ(reply.rcode, 42);
    EXPECT_EQ(reply.text(), "42 no money");
    EXPECT_EQ(link.exchange(string_call("FAIL", "-7")).rcode, -7);
    EXPECT_EQ(link.exchange(string_call("FAIL", "reasons")).rcode, 1);
    EXPECT_EQ(link.exchange(string_call("FAIL", "99999999999")).rcode, 1);
    EXPECT_EQ(link.exchange(call_of("FAIL", "", MSG_TPCALL, HEADER_ONLY)).rcode, 1);
}

TEST(ClhsimService, BigIsAsBigAsAsked)
{
    Simulator server({"--max-data", "100000"});
    Link link = server.log_in();
    for (int size : {0, 1, 1024, 1025, 100000}) {
        Message reply = link.exchange(string_call("BIG", std::to_string(size)));
        EXPECT_EQ(reply.msgtype, 1003);
        EXPECT_EQ(reply.datalen, size);
        EXPECT_EQ(reply.text().size(), static_cast<size_t>(std::max(size - 1, 0)))
            << "a STRING ends in its NUL";
    }
    EXPECT_EQ(link.exchange(call_of("BIG", "30", MSG_TPCALL, CARRAY)).data, "ABCDEFGHIJKLMNOPQRSTUVWXYZABCD");
    for (const char *wrong : {"100001", "-1", "", "12x", "99999999999999999999"}) {
        Message reply = link.exchange(string_call("BIG", wrong));
        EXPECT_EQ(reply.msgtype, 2003) << wrong;
        EXPECT_EQ(reply.flags, 4) << wrong;
    }
}

TEST(ClhsimService, SleepAnswersItsDataAndKeepsNobodyWaiting)
{
    Simulator server;
    Link sleeper = server.log_in();
    Link other = server.log_in();
    sleeper.send(string_call("SLEEP", "1000"));
    EXPECT_EQ(other.exchange(string_call("TOUPPER", "a")).text(), "A");
    EXPECT_EQ(other.exchange(string_call("SLEEP", "0.05")).text(), "0.05");
    EXPECT_EQ(sleeper.exchange(string_call("TOUPPER", "b")).text(), "B") << "nor the sleeper itself";
    EXPECT_EQ(server.stat("waiting"), 1);
    sleeper.close();
    while (server.stat("open") > 1)
        usleep(1000);
    EXPECT_EQ(server.stat("waiting"), 0) << "nothing is kept for who is gone";
    EXPECT_EQ(other.exchange(string_call("SLEEP", "0")).text(), "0");
}

TEST(ClhsimService, ShorterSleepAnswersFirst)
{
    Simulator server;
    Link link = server.log_in();
    link.send(bytes_of(string_call("SLEEP", "1")) + bytes_of(string_call("SLEEP", "0.02")));
    EXPECT_EQ(link.receive().text(), "0.02");
    EXPECT_EQ(link.receive().text(), "1");
}

TEST(ClhsimService, SleepWithoutASensibleTimeIsRefused)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *wrong : {"", "-1", "abc", "1 s", "nan", "inf", "1e30"})
        EXPECT_EQ(link.exchange(string_call("SLEEP", wrong)).flags, 4) << wrong;
}

TEST(ClhsimService, UnknownServiceIsNoSuchEntry)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = link.exchange(string_call("NOSUCH", "abc"));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 6);
    EXPECT_EQ(reply.datalen, 0);
    EXPECT_EQ(reply.buftype, STRING);
    EXPECT_EQ(link.exchange(string_call("toupper", "abc")).flags, 6) << "names are exact";
    EXPECT_EQ(link.exchange(string_call("", "abc")).flags, 6);
}

TEST(ClhsimService, ConnectionCheckIsAnswered)
{
    Simulator server;
    Link link = server.log_in();
    Message check;
    check.msgtype = MSG_TPCALL;
    check.svcname = ".CHK_CONN";
    check.seqno = 5;
    check.flags = 8;
    Message reply = link.exchange(check);
    EXPECT_EQ(reply.msgtype, 1003);
    EXPECT_EQ(reply.seqno, 5);
    EXPECT_EQ(reply.datalen, 0);
    check.msgtype = MSG_TPACALL;
    check.seqno = 0x40000006;
    reply = link.exchange(check);
    EXPECT_EQ(reply.msgtype, 1004);
    EXPECT_EQ(reply.seqno, 0x40000006);
}

TEST(ClhsimService, TextServicesDontTakeStructuresOrFields)
{
    Simulator server;
    Link link = server.log_in();
    for (int32_t buftype : {1, 2}) {
        EXPECT_EQ(link.exchange(call_of("TOUPPER", "abcd", MSG_TPCALL, buftype)).flags, 17);
        EXPECT_EQ(link.exchange(call_of("ECHO", "abcd", MSG_TPCALL, buftype)).data, "abcd");
    }
}

TEST(ClhsimService, TrailerIsNoPartOfTheData)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("TOUPPER", std::string("abc\0\x01\x02xy", 8));
    call.xflags = 0x04000000 | 4;
    Message reply = link.exchange(call);
    EXPECT_EQ(reply.data, std::string("ABC\0", 4));
    EXPECT_EQ(reply.xflags, 0u);
    call.xflags = 0x04000000 | 0xff;  // longer than the data
    EXPECT_EQ(link.exchange(call).data, "");
}

TEST(ClhsimAcall, ReplyCarriesDescriptorAndMark)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("TOUPPER", "abc", MSG_TPACALL, CARRAY, 0x40000011);
    call.cd = 3;
    Message reply = link.exchange(call);
    EXPECT_EQ(reply.msgtype, 1004);
    EXPECT_EQ(reply.seqno, 0x40000011);
    EXPECT_EQ(reply.cd, 3);
    EXPECT_EQ(reply.data, "ABC");
}

TEST(ClhsimAcall, FailureAndUnknownServiceAreErrorReplies)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = link.exchange(call_of("FAIL", "8", MSG_TPACALL));
    EXPECT_EQ(reply.msgtype, 2004);
    EXPECT_EQ(reply.flags, 11);
    EXPECT_EQ(reply.rcode, 8);
    reply = link.exchange(call_of("NOSUCH", "8", MSG_TPACALL));
    EXPECT_EQ(reply.msgtype, 2004);
    EXPECT_EQ(reply.flags, 6);
}

TEST(ClhsimAcall, WithoutReplyNothingComesBack)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *service : {"TOUPPER", "NOSUCH", "FAIL"}) {
        Message call = call_of(service, "abc", MSG_TPACALL);
        call.flags = NOREPLY;
        link.send(call);
    }
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next");
    EXPECT_EQ(server.stat("calls"), 4);
}

TEST(ClhsimAcall, ReceiptComesFirstThenTheReply)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("SLEEP", "0.01", MSG_TPACALL, CARRAY, 21);
    call.flags = BLOCK;
    call.cd = 4;
    Message receipt = link.exchange(call);
    EXPECT_EQ(receipt.msgtype, 1028);
    EXPECT_EQ(receipt.seqno, 21);
    EXPECT_EQ(receipt.cd, 4);
    EXPECT_EQ(receipt.flags, 0);
    EXPECT_EQ(receipt.datalen, 0);
    Message reply = link.receive();
    EXPECT_EQ(reply.msgtype, 1004);
    EXPECT_EQ(reply.seqno, 21);
    EXPECT_EQ(reply.data, "0.01");
}

TEST(ClhsimAcall, ReceiptOfACallWithoutReplyStandsAlone)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("TOUPPER", "abc", MSG_TPACALL);
    call.flags = BLOCK | NOREPLY;
    EXPECT_EQ(link.exchange(call).msgtype, 1028);
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next");
}

TEST(ClhsimAcall, ReceiptOfARefusedCallIsTheError)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("NOSUCH", "abc", MSG_TPACALL, CARRAY, 9);
    call.flags = BLOCK;
    Message receipt = link.exchange(call);
    EXPECT_EQ(receipt.msgtype, 2028);
    EXPECT_EQ(receipt.seqno, 9);
    EXPECT_EQ(receipt.flags, 6);
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next") << "no reply follows";
}

TEST(ClhsimAcall, SynchronousCallKnowsNeitherReceiptNorNoReply)
{
    Simulator server;
    Link link = server.log_in();
    Message call = call_of("ECHO", "abc");
    call.flags = BLOCK | NOREPLY;
    EXPECT_EQ(link.exchange(call).msgtype, 1003);
}

TEST(ClhsimOther, RequestsThatItDoesntServeAreRefused)
{
    Simulator server;
    Link link = server.log_in();
    for (int32_t type : {5, 17, 18, 27, 30, 45, 46, 156, 225}) {
        Message request;
        request.msgtype = type;
        request.seqno = 100 + type;
        Message reply = link.exchange(request);
        EXPECT_EQ(reply.msgtype, type + 2000);
        EXPECT_EQ(reply.seqno, 100 + type);
        EXPECT_EQ(reply.flags, 6);
    }
}

TEST(ClhsimOther, NoticesAndUnknownTypesAreIgnored)
{
    Simulator server;
    Link link = server.log_in();
    const int32_t types[] = {0, 6, 8, 14, 15, 16, 40, 506, 999, 1003, 2003, -1, INT32_MAX, INT32_MIN};
    for (int32_t type : types) {
        Message notice;
        notice.msgtype = type;
        link.send(notice);
    }
    EXPECT_EQ(link.exchange(call_of("ECHO", "next")).data, "next");
    Message notify;
    notify.msgtype = 14;
    notify.flags = 0x8000;
    EXPECT_EQ(link.exchange(notify).msgtype, 2014) << "one that wants to be acknowledged gets an answer";
}
