// Unsolicited messages where several threads share the connection.
#include "calls/eventapi.h"
#include "calls/fixture.h"
#include "calls/unsolapi.h"
#include "vorn/unsol.h"

#include <vector>

namespace {

std::atomic<int> handled_count{0};
pthread_t handler_thread;

void note_thread(char *, long, long)
{
    handler_thread = pthread_self();
    handled_count++;
}

struct UnsolThreads : CallTest {
    int number = 0;
    wthr_var *shared = nullptr;  // of the context; block() tells only a thread that is bound to it

    bool start_shared(int mode)
    {
        if (!start({}, true))
            return false;
        number = context();
        shared = block();
        return tpsetunsol_flag(mode) == 1;
    }
    // A call in a thread of its own, which reads for all until it is answered.
    long slow_call()
    {
        tpsetctxt(number, 0);
        char *reply = new_buffer("STRING");
        long length;
        int result = tpcall(svc("SLOW"), nullptr, 0, &reply, &length, 0);
        int error = get_tperrno();
        tpfree(reply);
        tpsetctxt(TPNULLCONTEXT, 0);
        return result == 1 ? 1 : -error;
    }
    // Fetches `count` messages of a kind, waiting for each. Their data, in order.
    std::vector<std::string> fetch_all(int kind, int count)
    {
        tpsetctxt(number, 0);
        std::vector<std::string> fetched;
        char *data = new_buffer("STRING");
        long length;
        for (int i = 0; i < count; i++) {
            if (tpgetunsol(kind, &data, &length, TPBLOCK) != 1)
                break;
            fetched.push_back(std::string(data, (size_t)length));
        }
        tpfree(data);
        tpsetctxt(TPNULLCONTEXT, 0);
        return fetched;
    }
    int under_lock(const std::function<int()> &look)
    {
        pthread_mutex_lock(&shared->msg_mutex);
        int seen = look();
        pthread_mutex_unlock(&shared->msg_mutex);
        return seen;
    }
    bool somebody_reads()
    {
        return faults::eventually([&] { return under_lock([&] { return (int)shared->reader_busy; }) != 0; });
    }
    bool wait_for_waiters(int count)
    {
        return faults::eventually([&] { return under_lock([&] { return (int)shared->waiting; }) == count; });
    }
    bool wait_until_kept(int count)
    {
        return faults::eventually([&] { return under_lock([&] { return shared->unsol_count; }) >= count; });
    }
    static std::vector<std::string> numbered(const char *name, int count)
    {
        std::vector<std::string> all;
        for (int i = 0; i < count; i++)
            all.push_back(name + std::to_string(i));
        return all;
    }
};

}  // namespace

// A fetch that waits while another thread reads gets its message from that thread, acknowledged once.
TEST_F(UnsolThreads, WaitingFetchGetsItFromTheReader)
{
    constexpr int COUNT = 100;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    EXPECT_EQ(tpchkunsol(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_EQ(tpgetunsol(UNSOL_NOTIFY, &out, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    Task fetcher(peer, [&] { return fetch_all(UNSOL_NOTIFY, COUNT) == numbered("n", COUNT); });
    for (int i = 0; i < COUNT; i++)
        peer.send(wire::message(14, "n" + std::to_string(i), {.flags = TPNOTIFYACK, .srcid = i + 1}));
    for (int i = 0; i < COUNT; i++)
        peer.expect(1014);
    EXPECT_EQ(fetcher.get(), 1);
    peer.expect_nothing();
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    expect_idle();
}

TEST_F(UnsolThreads, EachFetchGetsTheKindItAsksFor)
{
    constexpr int COUNT = 60;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    Task posts(peer, [&] { return fetch_all(UNSOL_POST, COUNT) == numbered("p", COUNT); });
    Task broadcasts(peer, [&] { return fetch_all(UNSOL_BROADCAST, COUNT) == numbered("b", COUNT); });
    for (int i = 0; i < COUNT; i++) {
        peer.send(wire::message(13, "b" + std::to_string(i)));
        peer.send(wire::message(12, "p" + std::to_string(i)));
        peer.send(wire::message(19, "s" + std::to_string(i)));  // nobody's
    }
    EXPECT_EQ(posts.get(), 1);
    EXPECT_EQ(broadcasts.get(), 1);
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    EXPECT_EQ(fetch_all(UNSOL_SENDTOCLI, COUNT), numbered("s", COUNT));
    expect_idle();
}

TEST_F(UnsolThreads, MessageOfAnotherKindPassesAWaitingFetch)
{
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    Task fetcher(peer, [&] { return fetch_all(UNSOL_BROADCAST, 1) == numbered("b", 1); });
    ASSERT_TRUE(wait_for_waiters(1));
    peer.send(wire::message(12, "p0"));
    ASSERT_TRUE(wait_until_kept(1));
    EXPECT_FALSE(fetcher.finished());
    EXPECT_EQ(tpgetunsol(UNSOL_POST, &out, &len, 0), 1);
    EXPECT_EQ(reply_data(), "p0");
    peer.send(wire::message(13, "b0"));
    EXPECT_EQ(fetcher.get(), 1);
    EXPECT_EQ(block()->unsol_count, 1);
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
}

// A fetch that waits takes its message also in the modes that would handle or drop it.
TEST_F(UnsolThreads, WaitingFetchComesAheadOfTheMode)
{
    ASSERT_TRUE(start_shared(UNSOL_HANDLER));
    tpsetunsol(note_thread);
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    for (int mode : {UNSOL_HANDLER, UNSOL_IGNORE}) {
        tpsetunsol_flag(mode);
        Task fetcher(peer, [&] { return fetch_all(UNSOL_ANY, 1) == numbered("x", 1); });
        ASSERT_TRUE(wait_for_waiters(1));
        peer.send(wire::message(14, "x0", {.flags = TPNOTIFYACK, .srcid = 3}));
        EXPECT_EQ(fetcher.get(), 1);
        peer.expect(1014).cd(3);
    }
    EXPECT_EQ(handled_count, 0);
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    peer.expect_nothing();
}

TEST_F(UnsolThreads, HandlerRunsOnTheThreadThatReads)
{
    ASSERT_TRUE(start_shared(UNSOL_HANDLER));
    tpsetunsol(note_thread);
    pthread_t reader = {};
    Task caller(peer, [&] {
        reader = pthread_self();
        return slow_call();
    });
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    peer.send(wire::message(12, "p", {.flags = 1}));
    ASSERT_TRUE(faults::eventually([] { return handled_count == 1; }));
    EXPECT_EQ(tpchkunsol(), 0);  // the reader sees to what comes
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    EXPECT_TRUE(pthread_equal(handler_thread, reader));
    EXPECT_FALSE(pthread_equal(handler_thread, pthread_self()));
}

TEST_F(UnsolThreads, KeptByTheReaderFetchedByAnother)
{
    constexpr int COUNT = 200;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    peer.play([&] {
        for (int i = 0; i < COUNT; i++)
            peer.send(wire::message(12, "p" + std::to_string(i)));
    });
    std::vector<std::string> fetched;
    EXPECT_TRUE(faults::eventually([&] {
        if (tpgetunsol(UNSOL_POST, &out, &len, 0) == 1)
            fetched.push_back(reply_data());
        return fetched.size() == COUNT;
    }));
    EXPECT_EQ(fetched, numbered("p", COUNT));
    peer.done();
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    expect_idle();
}

TEST_F(UnsolThreads, EveryMessageGoesToExactlyOneOfManyFetches)
{
    constexpr int THREADS = 6, EACH = 40;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    std::atomic<long> sum{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&] {
            for (const std::string &data : fetch_all(UNSOL_NOTIFY, EACH))
                sum += std::stol(data);
        });
    long total = THREADS * EACH, acknowledged = 0;
    peer.play([&] {
        for (long i = 1; i <= total; i++)
            peer.send(wire::message(14, std::to_string(i), {.flags = TPNOTIFYACK, .srcid = (int)i}));
        for (long i = 1; i <= total; i++)
            acknowledged += peer.expect(1014).frame.cd;
    });
    for (std::thread &thread : threads)
        thread.join();
    peer.done();
    EXPECT_EQ(sum, total * (total + 1) / 2);
    EXPECT_EQ(acknowledged, total * (total + 1) / 2);
    peer.expect_nothing();
    EXPECT_EQ(block()->unsol_head, nullptr);
    expect_idle();
}

TEST_F(UnsolThreads, ListIsEmptiedWhileOthersFillIt)
{
    constexpr int COUNT = 300;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    wire::frame request = peer.expect(wire::TPACALL);
    std::atomic<bool> over{false};
    std::thread clearer([&] {
        tpsetctxt(number, 0);
        while (!over) {
            EXPECT_EQ(tpclearunsol(), 1);
            tpsetunsol_flag(UNSOL_QUEUE);
        }
        tpsetctxt(TPNULLCONTEXT, 0);
    });
    for (int i = 0; i < COUNT; i++)
        peer.send(wire::message(13, "b" + std::to_string(i)));
    peer.reply_to(request, "ok");
    EXPECT_EQ(caller.get(), 1);
    over = true;
    clearer.join();
    tpclearunsol();
    EXPECT_EQ(block()->unsol_head, nullptr);
    EXPECT_EQ(block()->unsol_count, 0);
    expect_idle();
}

TEST_F(UnsolThreads, LostConnectionEndsCallAndFetch)
{
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    Task caller(peer, [&] { return slow_call(); });
    peer.expect(wire::TPACALL);
    ASSERT_TRUE(somebody_reads());
    Task fetcher(peer, [&] { return (long)fetch_all(UNSOL_POST, 1).size(); });
    ASSERT_TRUE(wait_for_waiters(1));
    peer.hang_up();
    EXPECT_EQ(caller.get(), -TPECLOSE);
    EXPECT_EQ(fetcher.get(), 0);
}

// Each of the three may be the one that reads. The answers come once all of them wait: a thread that has
// posted isn't counted until it waits.
TEST_F(UnsolThreads, PostsNotificationsAndFetchesShareTheConnection)
{
    constexpr int ROUNDS = 40;
    ASSERT_TRUE(start_shared(UNSOL_QUEUE));
    peer.play([&] {
        for (int round = 0; round < ROUNDS; round++) {
            wire::frame one, two;
            ASSERT_TRUE(peer.receive(&one));
            ASSERT_TRUE(peer.receive(&two));
            ASSERT_TRUE(wait_for_waiters(2));
            peer.reply_to(one, "", {.rcode = 7});
            peer.send(wire::message(13, "b" + std::to_string(round)));
            peer.reply_to(two, "", {.rcode = 7});
        }
    });
    Task fetcher(peer, [&] { return fetch_all(UNSOL_BROADCAST, ROUNDS) == numbered("b", ROUNDS); });
    Task poster(peer, [&] {
        tpsetctxt(number, 0);
        long good = 0;
        for (int i = 0; i < ROUNDS; i++)
            good += tppost("EV", nullptr, 0, 0) == 1 && gettpurcode() == 7;
        tpsetctxt(TPNULLCONTEXT, 0);
        return good;
    });
    TPCLIENT_T id = {{1, 2, 3, 4}};
    for (int i = 0; i < ROUNDS; i++)
        EXPECT_EQ(tpnotify(&id, nullptr, 0, TPNOTIFYACK), 1);
    EXPECT_EQ(poster.get(), ROUNDS);
    EXPECT_EQ(fetcher.get(), 1);
    peer.done();
    expect_idle();
}
