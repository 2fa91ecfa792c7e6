// Reliable queues on the wire: storing and taking, requests behind a queue, failures and their reissue,
// change notices, transactions, and what outlives the server.
#include "application.h"

#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

static constexpr int32_t ENQ = 17;
static constexpr int32_t DEQ = 18;
static constexpr int32_t RESULT = 1025;
static constexpr int32_t FAILURE = 2025;
static constexpr int32_t CHANGE = 1026;
static constexpr int32_t QSTAT = 27;
static constexpr int32_t REISSUE = 30;
static constexpr int32_t COMMIT = 32;
static constexpr int32_t ROLLBACK = 33;
static constexpr int32_t NOREPLY = 0x4;
static constexpr int32_t NOTRAN = 0x8;
static constexpr int32_t DIRECT = 0x4000;
static constexpr int32_t START = 0x4000000;
static constexpr int32_t NOENT = 6;
static constexpr int32_t SVCFAIL = 11;
static constexpr int32_t MATCH = 23;
static constexpr int32_t FULL = 26;

// Two queues, a service each as it pleases.
static std::vector<std::string> two_queues(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--queues", "ORDERS,MAIL"});
    return more;
}

static Message request_of(int32_t msgtype, const std::string &service, int32_t flags, int32_t queue = 0)
{
    Message message;
    message.msgtype = msgtype;
    message.svcname = service;
    message.flags = flags;
    message.cd = queue;
    message.seqno = 700 + msgtype;
    return message;
}

static Message enqueue_of(const std::string &service, const std::string &text, int32_t flags,
                          int32_t queue = 0)
{
    Message message = request_of(ENQ, service, flags, queue);
    message.buftype = STRING;
    message.data = text + '\0';
    return message;
}

static int32_t enqueue(Link &link, const std::string &service, const std::string &text, int32_t flags,
                       int32_t queue = 0)
{
    Message reply = link.exchange(enqueue_of(service, text, flags, queue));
    EXPECT_EQ(reply.msgtype, ENQ + 1000);
    return reply.rcode;
}

static int32_t store(Link &link, const std::string &text, int32_t flags = NOTRAN, int32_t queue = 0)
{
    return enqueue(link, "", text, flags | DIRECT, queue);
}

static Message dequeue(Link &link, const std::string &name = "", int32_t flags = NOTRAN, int32_t queue = 0)
{
    return link.exchange(request_of(DEQ, name, flags | DIRECT, queue));
}

// The text of a message that is taken, or the error.
static std::string taken(Link &link, const std::string &name = "", int32_t flags = NOTRAN, int32_t queue = 0)
{
    Message reply = dequeue(link, name, flags, queue);
    return reply.msgtype == DEQ + 1000 ? reply.text() : "error " + std::to_string(reply.rcode);
}

static int32_t count_of(Link &link, const std::string &part, int32_t queue = 0)
{
    Message reply = link.exchange(request_of(QSTAT, part, 0, queue));
    EXPECT_EQ(reply.msgtype, QSTAT + 1000);
    return reply.rcode;
}

static std::string counts_of(Link &link, const std::string &service, int32_t queue = 0)
{
    Message reply = link.exchange(request_of(QSTAT, service, 0, queue));
    EXPECT_EQ(reply.msgtype, QSTAT + 1000);
    EXPECT_EQ(reply.data.size(), 16u);
    std::string text;
    for (size_t i = 0; i < 4; i++)
        text += (i ? " " : "") + std::to_string(get(reply.data, 4 * i));
    return text;
}

static int32_t end_transaction(Link &link, int32_t msgtype)
{
    Message reply = link.exchange(request_of(msgtype, msgtype == COMMIT ? "_tx_commit" : "_tx_rback", 0));
    EXPECT_EQ(reply.msgtype, msgtype + 1000);
    return reply.rcode;
}

// A directory for a file that outlives its server.
struct Folder {
    Folder()
    {
        char name[] = "/tmp/clhsim-queue-XXXXXX";
        path = mkdtemp(name);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    ~Folder()
    {
        for (const char *end : {"", "-wal", "-shm", "-journal"})
            unlink((file() + end).c_str());
        rmdir(path.c_str());
    }
    std::string file() const { return path + "/queues"; }
    std::string path;
};

// --- A plain store.

TEST(ClhsimQueue, StoredMessagesComeOutInOrderAndOnce)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    int32_t first = store(link, "one");
    EXPECT_GT(first, 0);
    EXPECT_GT(store(link, "two"), first);
    EXPECT_EQ(taken(link), "one");
    EXPECT_EQ(taken(link), "two");
    EXPECT_EQ(taken(link), "error 23");
}

TEST(ClhsimQueue, RepliesBearTheNumbersOfTheirRequests)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Message accepted = link.exchange(enqueue_of("PRINT", "page", DIRECT | NOTRAN, 1));
    EXPECT_EQ(accepted.msgtype, 1017);
    EXPECT_EQ(accepted.seqno, 717);
    EXPECT_EQ(accepted.cd, 1);
    EXPECT_EQ(accepted.flags, 0);
    EXPECT_EQ(accepted.datalen, 0);
    Message reply = dequeue(link, "", NOTRAN, 1);
    EXPECT_EQ(reply.msgtype, 1018);
    EXPECT_EQ(reply.seqno, 718);
    EXPECT_EQ(reply.cd, 1);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.buftype, STRING);
    EXPECT_EQ(reply.svcname, "PRINT") << "the service that it was enqueued for";
    EXPECT_EQ(reply.data, std::string("page\0", 5));
}

TEST(ClhsimQueue, TypesAndBytesComeOutAsTheyWent)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    std::string bytes("\0\1\377 x\0", 6);
    for (int32_t buftype : {1, 2, 3, 4}) {
        Message message = request_of(ENQ, "", DIRECT | NOTRAN);
        message.buftype = buftype;
        message.subtype = buftype == 1 ? "order" : "";
        message.data = bytes;
        EXPECT_EQ(link.exchange(message).msgtype, 1017);
        Message reply = dequeue(link);
        EXPECT_EQ(reply.buftype, buftype);
        EXPECT_EQ(reply.subtype, message.subtype);
        EXPECT_EQ(reply.data, bytes);
    }
    Message empty = request_of(ENQ, "", DIRECT | NOTRAN);
    empty.buftype = CARRAY;
    EXPECT_EQ(link.exchange(empty).msgtype, 1017);
    EXPECT_EQ(dequeue(link).datalen, 0);
}

TEST(ClhsimQueue, ServiceNarrowsDownWhatIsTaken)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    enqueue(link, "PRINT", "page", DIRECT | NOTRAN);
    enqueue(link, "SEND", "letter", DIRECT | NOTRAN);
    enqueue(link, "SEND", "parcel", DIRECT | NOTRAN);
    EXPECT_EQ(counts_of(link, "SEND"), "2 0 2 0");
    EXPECT_EQ(counts_of(link, ""), "3 0 3 0");
    EXPECT_EQ(taken(link, "SEND"), "letter");
    EXPECT_EQ(taken(link, ""), "page");
    EXPECT_EQ(taken(link, "PRINT"), "error 23");
    EXPECT_EQ(taken(link, "SEND"), "parcel");
}

TEST(ClhsimQueue, QueuesAreApart)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Link other = server.log_in();
    store(link, "order", NOTRAN, 0);
    store(link, "letter", NOTRAN, 1);
    EXPECT_EQ(taken(other, "", NOTRAN, 1), "letter");
    EXPECT_EQ(taken(other, "", NOTRAN, 1), "error 23");
    EXPECT_EQ(taken(other, "", NOTRAN, 0), "order");
}

TEST(ClhsimQueue, UnknownQueueIsRefusedByEveryRequest)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    for (int32_t queue : {-1, 2, INT32_MAX}) {
        for (int32_t msgtype : {ENQ, DEQ, QSTAT, REISSUE}) {
            Message reply = link.exchange(request_of(msgtype, "", DIRECT | NOTRAN, queue));
            EXPECT_EQ(reply.msgtype, msgtype + 2000);
            EXPECT_EQ(reply.rcode, NOENT);
            EXPECT_EQ(reply.flags, NOENT);
        }
    }
    Simulator bare;
    Link alone = bare.log_in();
    EXPECT_EQ(alone.exchange(request_of(DEQ, "", DIRECT)).rcode, NOENT);
}

TEST(ClhsimQueue, FullQueueRefusesUntilSomethingIsTaken)
{
    Simulator server(two_queues({"--queue-limit", "2"}));
    Link link = server.log_in();
    store(link, "one");
    store(link, "two");
    Message reply = link.exchange(enqueue_of("", "three", DIRECT | NOTRAN));
    EXPECT_EQ(reply.msgtype, 2017);
    EXPECT_EQ(reply.rcode, FULL);
    store(link, "elsewhere", NOTRAN, 1);
    EXPECT_EQ(taken(link), "one");
    store(link, "three");
    EXPECT_EQ(taken(link), "two");
    EXPECT_EQ(taken(link), "three");
}

TEST(ClhsimQueue, ControlRecordIsKeptAndDoesNotComeBack)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    std::string record(168, '\0');
    for (size_t i = 0; i < record.size(); i++)
        record[i] = static_cast<char>(i);
    for (int32_t buftype : {11, 12, int32_t{STRING}}) {
        Message message = enqueue_of("", "behind", DIRECT | NOTRAN);
        message.buftype = buftype;
        message.target = static_cast<int32_t>(0x80000000);
        message.data = record + message.data;
        EXPECT_EQ(link.exchange(message).msgtype, 1017);
        std::string listed = server.command("messages ORDERS");
        EXPECT_NE(listed.find(" bytes 7 error 0 record 000102030405"), std::string::npos) << listed;
        EXPECT_NE(listed.find("a5a6a7\n"), std::string::npos) << listed;
        Message reply = dequeue(link);
        EXPECT_EQ(reply.buftype, buftype == STRING ? STRING : buftype - 10);
        EXPECT_EQ(reply.text(), "behind");
    }
}

TEST(ClhsimQueue, MarkWithoutRecordIsRefused)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Message message = enqueue_of("", std::string(160, 'x'), DIRECT | NOTRAN);
    message.target = static_cast<int32_t>(0x80000000);
    Message reply = link.exchange(message);
    EXPECT_EQ(reply.msgtype, 2017);
    EXPECT_EQ(reply.rcode, 4);
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
    message.data = std::string(168, 'x');
    EXPECT_EQ(link.exchange(message).msgtype, 1017);
    EXPECT_EQ(dequeue(link).datalen, 0);
}

// --- Requests behind a queue.

TEST(ClhsimQueue, ServiceWorksOnARequestAndTheResultFollows)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    EXPECT_GT(enqueue(link, "TOUPPER", "tea", NOTRAN, 1), 0);
    Message result = link.receive();
    EXPECT_EQ(result.msgtype, RESULT);
    EXPECT_EQ(result.cd, 1);
    EXPECT_EQ(result.flags, 0);
    EXPECT_EQ(result.buftype, STRING);
    EXPECT_EQ(result.svcname, "TOUPPER");
    EXPECT_EQ(result.text(), "TEA");
    EXPECT_EQ(counts_of(link, "", 1), "0 0 0 0");
    EXPECT_EQ(server.stat("calls.TOUPPER"), 1);
}

TEST(ClhsimQueue, RequestWithoutReplyIsWorkedOnInSilence)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    enqueue(link, "DEPOSIT", "ann 5", NOTRAN | NOREPLY);
    EXPECT_EQ(link.exchange(string_call("BALANCE", "ann")).text(), "5");
    EXPECT_EQ(counts_of(link, ""), "0 0 0 0");
    EXPECT_TRUE(link.silent());
}

TEST(ClhsimQueue, RequestForNobodyIsRefused)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Message reply = link.exchange(enqueue_of("", "tea", NOTRAN));
    EXPECT_EQ(reply.msgtype, 2017);
    EXPECT_EQ(reply.rcode, 4);
}

TEST(ClhsimQueue, HeldQueueKeepsItsRequestsUntilItIsReleased)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    EXPECT_EQ(server.command("hold ORDERS"), "ok");
    enqueue(link, "ECHO", "one", NOTRAN);
    enqueue(link, "ECHO", "two", NOTRAN);
    store(link, "stored");
    EXPECT_EQ(counts_of(link, "ECHO"), "2 0 2 0");
    EXPECT_EQ(count_of(link, ".RQ_REQ"), 3);
    EXPECT_EQ(taken(link), "stored") << "requests are no stored messages";
    EXPECT_EQ(server.command("release ORDERS"), "ok");
    EXPECT_EQ(link.receive().text(), "one");
    EXPECT_EQ(link.receive().text(), "two");
    EXPECT_EQ(count_of(link, ".RQ_REQ"), 0);
}

TEST(ClhsimQueue, WaitingRequestCanBeTakenBack)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("hold ORDERS");
    enqueue(link, "ECHO", "one", NOTRAN);
    enqueue(link, "ECHO", "two", NOTRAN);
    EXPECT_EQ(taken(link, ".RQ_REQ"), "one");
    EXPECT_EQ(taken(link, ".RQ_ANY"), "two");
    server.command("release ORDERS");
    EXPECT_EQ(taken(link, ".RQ_ANY"), "error 23");
    EXPECT_TRUE(link.silent());
}

TEST(ClhsimQueue, SlowServiceHoldsUpNoOther)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("hold ORDERS");
    enqueue(link, "SLEEP", "0.05", NOTRAN);
    enqueue(link, "ECHO", "quick", NOTRAN);
    server.command("release ORDERS");
    EXPECT_EQ(link.receive().text(), "quick");
    EXPECT_EQ(link.receive().text(), "0.05");
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
}

TEST(ClhsimQueue, FailedRequestTellsTheErrorAndCanBeReissued)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("refuse TOUPPER 10");
    enqueue(link, "TOUPPER", "tea", NOTRAN);
    Message failure = link.receive();
    EXPECT_EQ(failure.msgtype, FAILURE);
    EXPECT_EQ(failure.cd, 0);
    EXPECT_EQ(failure.rcode, 10);
    EXPECT_EQ(failure.flags, 10);
    EXPECT_EQ(counts_of(link, "TOUPPER"), "1 1 0 0");
    EXPECT_EQ(count_of(link, ".RQ_FAIL"), 1);

    server.command("clear TOUPPER");
    Message reissued = link.exchange(request_of(REISSUE, "", 0));
    EXPECT_EQ(reissued.msgtype, 1030);
    EXPECT_EQ(reissued.rcode, 1);
    EXPECT_EQ(link.receive().text(), "TEA");
    EXPECT_EQ(counts_of(link, ""), "0 0 0 0");
    EXPECT_EQ(link.exchange(request_of(REISSUE, "", 0)).rcode, 0);
}

TEST(ClhsimQueue, ServiceThatFailsAlwaysFailsAgain)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    enqueue(link, "FAIL", "7 lemons", NOTRAN);
    Message failure = link.receive();
    EXPECT_EQ(failure.msgtype, FAILURE);
    EXPECT_EQ(failure.rcode, SVCFAIL) << "a client takes the user code for the error";
    EXPECT_EQ(failure.text(), "7 lemons");
    EXPECT_EQ(link.exchange(request_of(REISSUE, "", 0)).rcode, 1);
    EXPECT_EQ(link.receive().msgtype, FAILURE);
    EXPECT_EQ(counts_of(link, "FAIL"), "1 1 0 0");
    Message dead = dequeue(link, ".RQ_FAIL");
    EXPECT_EQ(dead.text(), "7 lemons");
    EXPECT_EQ(dead.rcode, SVCFAIL);
    EXPECT_EQ(dead.prio / 1000, 2);
    EXPECT_EQ(taken(link, ".RQ_FAIL"), "error 23");
}

TEST(ClhsimQueue, UnknownServiceFails)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    enqueue(link, "NOWHERE", "tea", NOTRAN);
    EXPECT_EQ(link.receive().rcode, NOENT);
    enqueue(link, "TOUPPER", "", NOTRAN);
    EXPECT_EQ(link.receive().msgtype, RESULT) << "the queue goes on";
    EXPECT_EQ(count_of(link, ".RQ_FAIL"), 1);
}

TEST(ClhsimQueue, FailureWithoutReplyIsKeptInSilence)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    enqueue(link, "FAIL", "1", NOTRAN | NOREPLY);
    EXPECT_EQ(count_of(link, ".RQ_FAIL"), 1);
    EXPECT_TRUE(link.silent());
}

TEST(ClhsimQueue, ResultOfAClientThatIsGoneIsKept)
{
    Simulator server(two_queues());
    Link other = server.log_in();
    server.command("hold ORDERS");
    {
        Link link = server.log_in();
        enqueue(link, "TOUPPER", "tea", NOTRAN);
        server.command("close 2");
        EXPECT_TRUE(link.ended());
    }
    server.command("release ORDERS");
    EXPECT_EQ(counts_of(other, "TOUPPER"), "1 0 0 1");
    Message answer = dequeue(other, ".RQ_RPLY");
    EXPECT_EQ(answer.msgtype, 1018);
    EXPECT_EQ(answer.text(), "TEA");
    EXPECT_EQ(answer.prio / 1000, 1);
    EXPECT_EQ(count_of(other, ".RQ_RPLY"), 0);
}

TEST(ClhsimQueue, RequestThatIsWorkedOnCannotBeTaken)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("delay ECHO 1000000");
    enqueue(link, "ECHO", "late", NOTRAN);
    EXPECT_EQ(count_of(link, ".RQ_REQ"), 1) << "until it is done it waits";
    EXPECT_EQ(taken(link, ".RQ_REQ"), "error 23") << "but the service has it";
}

TEST(ClhsimQueue, DroppedResultIsLost)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("drop ECHO 1");
    enqueue(link, "ECHO", "lost", NOTRAN);
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
    EXPECT_EQ(server.stat("dropped"), 1);
    EXPECT_TRUE(link.silent());
}

TEST(ClhsimQueue, ManyRequestsAreAllAnswered)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("hold ORDERS");
    for (int i = 0; i < 500; i++)
        enqueue(link, "ECHO", std::to_string(i), NOTRAN);
    server.command("release ORDERS");
    for (int i = 0; i < 500; i++)
        ASSERT_EQ(link.receive().text(), std::to_string(i));
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
}

// --- Change notices.

TEST(ClhsimQueue, WhoFoundNothingIsToldOnceOfNews)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Link second = server.log_in();
    Link producer = server.log_in();
    EXPECT_EQ(taken(link, "", NOTRAN, 1), "error 23");
    EXPECT_EQ(taken(link, "", NOTRAN, 1), "error 23");
    EXPECT_EQ(taken(second, "", NOTRAN, 1), "error 23");
    store(producer, "elsewhere", NOTRAN, 0);
    store(producer, "here", NOTRAN, 1);
    Message notice = link.receive();
    EXPECT_EQ(notice.msgtype, CHANGE);
    EXPECT_EQ(notice.cd, 1);
    EXPECT_EQ(notice.target, 0);
    EXPECT_EQ(notice.datalen, 0);
    EXPECT_EQ(second.receive().target, 1);
    store(producer, "more", NOTRAN, 1);
    EXPECT_EQ(taken(link, "", NOTRAN, 1), "here") << "and no second notice";
    EXPECT_EQ(taken(second, "", NOTRAN, 1), "more");
    EXPECT_TRUE(producer.silent());
}

TEST(ClhsimQueue, RequestsThatFailAreNewsToo)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Link producer = server.log_in();
    server.command("hold ORDERS");
    enqueue(producer, "FAIL", "1", NOTRAN | NOREPLY);
    EXPECT_EQ(taken(link, ".RQ_FAIL"), "error 23");
    server.command("release ORDERS");
    EXPECT_EQ(link.receive().msgtype, CHANGE);
    EXPECT_EQ(taken(link, ".RQ_FAIL"), "1");
}

// --- Transactions.

TEST(ClhsimQueue, EnqueueInATransactionTakesEffectAtItsCommit)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Link other = server.log_in();
    EXPECT_GT(store(link, "stored", START), 0);
    EXPECT_GT(enqueue(link, "DEPOSIT", "ann 5", NOREPLY), 0);
    EXPECT_EQ(counts_of(other, ""), "0 0 0 0");
    EXPECT_EQ(taken(other), "error 23");
    EXPECT_EQ(end_transaction(link, COMMIT), 0);
    EXPECT_EQ(other.receive().msgtype, CHANGE);
    EXPECT_EQ(taken(other), "stored");
    EXPECT_EQ(other.exchange(string_call("BALANCE", "ann")).text(), "5");
}

TEST(ClhsimQueue, RollbackForgetsWhatWasEnqueued)
{
    Simulator server(two_queues({"--queue-limit", "1"}));
    Link link = server.log_in();
    store(link, "stored", START);
    EXPECT_EQ(link.exchange(enqueue_of("", "more", DIRECT | NOTRAN)).rcode, FULL);
    EXPECT_EQ(end_transaction(link, ROLLBACK), 0);
    EXPECT_EQ(taken(link), "error 23");
    store(link, "there is room again");
}

TEST(ClhsimQueue, RollbackPutsBackWhatWasTaken)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    Link other = server.log_in();
    store(link, "one");
    store(link, "two");
    EXPECT_EQ(taken(link, "", START), "one");
    EXPECT_EQ(taken(other), "two");
    EXPECT_EQ(taken(other), "error 23");
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
    EXPECT_EQ(end_transaction(link, ROLLBACK), 0);
    EXPECT_EQ(other.receive().msgtype, CHANGE);
    EXPECT_EQ(taken(other), "one");
}

TEST(ClhsimQueue, CommitMakesADequeueFinal)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    store(link, "one");
    EXPECT_EQ(taken(link, "", START), "one");
    EXPECT_EQ(taken(link, "", 0), "error 23") << "an empty queue dooms no transaction";
    EXPECT_EQ(end_transaction(link, COMMIT), 0);
    EXPECT_EQ(taken(link, ".RQ_ANY"), "error 23");
    EXPECT_EQ(server.command("queues").find("  ORDERS .RQ_ANY 0 .RQ_FAIL 0 .RQ_REQ 0 .RQ_RPLY 0 enqueued 1 "
                                            "dequeued 1 "),
              0u);
}

TEST(ClhsimQueue, RefusedEnqueueDoomsItsTransaction)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    store(link, "one", START);
    EXPECT_EQ(link.exchange(enqueue_of("", "two", DIRECT, 9)).rcode, NOENT);
    EXPECT_EQ(end_transaction(link, COMMIT), -2);
    EXPECT_EQ(taken(link), "error 23");
}

TEST(ClhsimQueue, ClientThatGoesAwayInATransactionIsRolledBack)
{
    Simulator server(two_queues());
    Link other = server.log_in();
    store(other, "one");
    {
        Link link = server.log_in();
        EXPECT_EQ(taken(link, "", START), "one");
        store(link, "two", 0);
        server.command("close 2");
        EXPECT_TRUE(link.ended());
    }
    EXPECT_EQ(taken(other), "one");
    EXPECT_EQ(taken(other), "error 23");
}

// --- What outlives the server.

TEST(ClhsimQueue, FileOutlivesTheServerHoweverItEnds)
{
    Folder folder;
    std::vector<std::string> options = two_queues({"--queue-file", folder.file()});
    {
        Simulator server(options);
        Link link = server.log_in();
        store(link, "one");
        store(link, "letter", NOTRAN, 1);
        server.command("hold ORDERS");
        enqueue(link, "TOUPPER", "tea", NOTRAN);
        enqueue(link, "FAIL", "1", NOTRAN);
        store(link, "never committed", START);
        server.signal(SIGKILL);
        EXPECT_EQ(server.wait(), -SIGKILL);
    }
    {
        Simulator server(options);
        Link link = server.log_in();
        EXPECT_EQ(counts_of(link, ""), "3 1 1 1") << "the services go on, nobody waits for their answers";
        EXPECT_EQ(taken(link), "one");
        EXPECT_EQ(taken(link), "error 23");
        EXPECT_EQ(taken(link, ".RQ_RPLY"), "TEA");
    }
    // The rows are found by the queue's name, wherever it stands.
    Simulator server({"--queue-file", folder.file(), "--queues", "MAIL"});
    Link link = server.log_in();
    EXPECT_EQ(taken(link), "letter");
}

TEST(ClhsimQueue, OpenTransactionEndsWithTheServer)
{
    Folder folder;
    std::vector<std::string> options = two_queues({"--queue-file", folder.file()});
    {
        Simulator server(options);
        Link link = server.log_in();
        store(link, "one");
        EXPECT_EQ(taken(link, "", START), "one");
        server.signal(SIGKILL);
        EXPECT_EQ(server.wait(), -SIGKILL);
    }
    Simulator server(options);
    Link link = server.log_in();
    EXPECT_EQ(taken(link), "one");
}

TEST(ClhsimQueue, MessageNumbersGoOnBehindARestart)
{
    Folder folder;
    std::vector<std::string> options = two_queues({"--queue-file", folder.file()});
    int32_t before = 0;
    {
        Simulator server(options);
        Link link = server.log_in();
        before = store(link, "one");
        EXPECT_EQ(taken(link), "one");
    }
    Simulator server(options);
    Link link = server.log_in();
    EXPECT_GT(store(link, "two"), before);
}

TEST(ClhsimQueue, FileHasOneServer)
{
    Folder folder;
    Simulator server(two_queues({"--queue-file", folder.file()}));
    Finished second = run_clhsim({"--queue-file", folder.file(), "--port", "0"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("locked"), std::string::npos) << second.output;
}

TEST(ClhsimQueue, FileThatIsNoneIsRefused)
{
    Finished run = run_clhsim({"--queue-file", "/no/such/folder/file", "--port", "0"});
    EXPECT_EQ(run.status, 1);
    run = run_clhsim({"--queue-file", CLHSIM_PATH, "--port", "0"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("not a database"), std::string::npos) << run.output;
}

// --- Faults and commands.

TEST(ClhsimQueue, ExchangesHaveFaultsOfTheirOwn)
{
    Simulator server(two_queues());
    Link link = server.log_in();
    server.command("refuse _tpenq 24 1");
    EXPECT_EQ(link.exchange(enqueue_of("TOUPPER", "tea", NOTRAN)).rcode, 24);
    server.command("refuse _tpdeq 24 1");
    EXPECT_EQ(taken(link), "error 24");
    server.command("refuse _tpqstat 24 1");
    EXPECT_EQ(link.exchange(request_of(QSTAT, "", 0)).rcode, 24);
    server.command("refuse _tpreissue 24 1");
    EXPECT_EQ(link.exchange(request_of(REISSUE, "", 0)).rcode, 24);
    server.command("giveback _tpenq 1");
    Message back = link.exchange(enqueue_of("TOUPPER", "tea", NOTRAN));
    EXPECT_EQ(back.msgtype, 2017);
    EXPECT_EQ(back.xflags & 0x20000000u, 0x20000000u);
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0);
    server.command("drop _tpdeq 1");
    store(link, "lost");
    link.send(request_of(DEQ, "", DIRECT | NOTRAN));
    EXPECT_EQ(count_of(link, ".RQ_ANY"), 0) << "the answer to the dequeue doesn't come";
}

TEST(ClhsimQueue, CommandsKnowTheirQueues)
{
    Simulator server(two_queues());
    for (const char *line : {"hold", "hold NOWHERE", "release NOWHERE", "messages NOWHERE", "queues 1"})
        EXPECT_EQ(server.command(line).rfind("error ", 0), 0u) << line;
    server.command("hold MAIL");
    std::string listed = server.command("queues");
    EXPECT_NE(
        listed.find("  MAIL .RQ_ANY 0 .RQ_FAIL 0 .RQ_REQ 0 .RQ_RPLY 0 enqueued 0 dequeued 0 processed 0 "
                    "failed 0 reissued 0 waiting 0 on hold\n"),
        std::string::npos)
        << listed;
}

// --- For an application.

static char ORDERS[] = "ORDERS";

static int take(Buffer &buffer, long flags, const char *service = nullptr)
{
    return tpdeq(ORDERS, unconst(service), &buffer.data, &buffer.length, flags);
}

TEST(ClhsimQueueApplication, StoresAndTakes)
{
    Domain domain(two_queues());
    Buffer buffer("two teas");
    EXPECT_GT(tpenq(ORDERS, nullptr, buffer.data, 0, TPRQDIRECT), 0);
    EXPECT_EQ(tpqstat(ORDERS, 0), 1);
    Buffer answer("STRING", 100);
    ASSERT_EQ(take(answer, TPRQDIRECT), 1);
    EXPECT_STREQ(answer.data, "two teas");
    EXPECT_EQ(take(answer, TPRQDIRECT), -1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    tpend();
}

TEST(ClhsimQueueApplication, FetchesAnswersAndReissuesFailures)
{
    Domain domain(two_queues());
    Buffer buffer("tea");
    domain.command("refuse TOUPPER 10");
    EXPECT_GT(tpenq(ORDERS, unconst("TOUPPER"), buffer.data, 0, 0), 0);
    EXPECT_EQ(take(buffer, 0), -1);
    EXPECT_EQ(gettperrno(), TPESVCERR);
    EXPECT_EQ(tpqsvcstat(ORDERS, unconst("TOUPPER"), 1), 1);
    domain.command("clear TOUPPER");
    Buffer second("cup");
    EXPECT_GT(tpenq(ORDERS, unconst("TOUPPER"), second.data, 0, 0), 0);
    EXPECT_EQ(tpreissue(ORDERS, nullptr, 0), 1);
    ASSERT_EQ(take(second, 0), 1);
    EXPECT_STREQ(second.data, "CUP");
    tpend();
}

TEST(ClhsimQueueApplication, BlockingDequeueEndsWhenSomethingComes)
{
    Domain domain(two_queues({"--block-time", "50"}));
    Link producer = domain.log_in();
    Buffer buffer("STRING", 100);
    // Something comes when the first try has found nothing.
    std::thread late([&] {
        while (domain.command("queues").find(" waiting 1") == std::string::npos)
            usleep(1000);
        producer.send(enqueue_of("", "late", DIRECT | NOTRAN));
    });
    int result = take(buffer, TPRQDIRECT | TPBLOCK);
    late.join();
    ASSERT_EQ(result, 1);
    EXPECT_STREQ(buffer.data, "late");
    tpend();
}

TEST(ClhsimQueueApplication, EnqueueWithAControlRecordInATransaction)
{
    Domain domain(two_queues());
    Buffer buffer("tea");
    RQCTL_T record = {};
    record.head[0] = 0x01020304;
    record.counts[0] = 0x112233445566;
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_GT(tpenq_ctl(ORDERS, nullptr, &record, buffer.data, 0, TPRQDIRECT), 0);
    EXPECT_EQ(tpqstat(ORDERS, 0), 0);
    EXPECT_EQ(tx_commit(), TX_OK);
    std::string listed = domain.command("messages ORDERS");
    EXPECT_NE(listed.find(" record 01020304"), std::string::npos) << listed;
    EXPECT_NE(listed.find("3344556600000000"), std::string::npos) << listed;
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(tpdeq_ctl(ORDERS, nullptr, nullptr, &buffer.data, &buffer.length, TPRQDIRECT), 1);
    EXPECT_STREQ(buffer.data, "tea");
    EXPECT_EQ(tx_rollback(), TX_OK);
    EXPECT_EQ(tpqstat(ORDERS, 0), 1);
    tpend();
}
