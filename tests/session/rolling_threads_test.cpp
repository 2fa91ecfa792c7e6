// Several threads while the session moves: one of them does the work, the others wait for it, read on or are
// woken, and each gets its own answer once.
#include "session/moving.h"

#include "calls/cscommon.h"
#include "queue/rqapi.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "vorn/conversation.h"
#include "vorn/unsol.h"
#include "wire/clhio.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

// The wait for a move that runs too long: as if its minute were over at once. Other timed waits are shorter.
static std::atomic<bool> minutes_are_over{false};

extern "C" int pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline)
{
    using function = int(pthread_cond_t *, pthread_mutex_t *, const timespec *);
    static function *real = (function *)dlsym(RTLD_NEXT, "pthread_cond_timedwait");
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (minutes_are_over && deadline->tv_sec - now.tv_sec > 50)
        return ETIMEDOUT;
    return real(cond, mutex, deadline);
}

namespace {

std::string answer_to(const wire::frame &request)
{
    return "answer to " + request.data;  // with its NUL
}

// A server of its own pace: answers every connection's requests until it is told to stop, each on a thread.
struct Server {
    Peer &door;
    wire::start_reply login;
    std::atomic<int> logins{0}, requests{0}, connections{0};
    std::atomic<bool> gives_back{false}, stopped{false};
    std::mutex lock;
    std::multiset<std::string> seen;  // the requests that it answered
    std::vector<std::unique_ptr<Conn>> conns;
    std::vector<std::thread> threads;
    std::thread acceptor;

    explicit Server(Peer &peer, const wire::start_reply &reply = {}) : door(peer), login(reply)
    {
        acceptor = std::thread([this] {
            while (!stopped) {
                pollfd knock = {door.listener, POLLIN, 0};
                if (poll(&knock, 1, 5) < 1)
                    continue;
                auto conn = std::make_unique<Conn>();
                door.accept(conn.get());
                connections++;
                Conn *one = conn.get();
                std::lock_guard<std::mutex> guard(lock);
                conns.push_back(std::move(conn));
                threads.emplace_back([this, one] { serve(one); });
            }
        });
    }

    ~Server() { stop(); }

    void stop()
    {
        stopped = true;
        if (acceptor.joinable())
            acceptor.join();
        {
            std::lock_guard<std::mutex> guard(lock);
            for (auto &conn : conns)
                shutdown(conn->fd, SHUT_RDWR);
        }
        for (std::thread &thread : threads)
            thread.join();
        threads.clear();
    }

    void serve(Conn *conn)
    {
        wire::frame message;
        while (conn->receive(&message)) {
            if (message.msgtype == wire::TPSTART) {
                conn->last = message;
                conn->reply_start(login);
                logins++;
            } else if (message.msgtype == wire::TPEND) {
                conn->reply_to(message);
            } else if (gives_back) {
                Moving::give_back(*conn, message);
            } else {
                requests++;
                {
                    std::lock_guard<std::mutex> guard(lock);
                    seen.insert(message.data);
                }
                conn->reply_to(message, answer_to(message));
            }
        }
        std::lock_guard<std::mutex> guard(lock);
        conn->hang_up();
        connections--;
    }

    void warn_all()
    {
        std::lock_guard<std::mutex> guard(lock);
        for (auto &conn : conns)
            conn->send_urgent(DOWN_WARNING);
    }
};

struct RollingThreads : Moving {
    int number = 0;
    wthr_var *shared = nullptr;

    bool open(const wire::start_reply &reply = {})
    {
        if (!start(reply, true))
            return false;
        number = context();
        shared = block();
        return true;
    }

    // A session over servers that run on their own.
    bool open_at_server()
    {
        TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
        record->flags = TPMULTICONTEXTS;
        int result = tpstart(record);
        tpfree((char *)record);
        number = context();
        shared = block();
        return result >= 0;
    }

    std::unique_ptr<client> begin(std::function<outcome()> work)
    {
        return std::make_unique<client>(peer, number, std::move(work));
    }
    std::unique_ptr<client> begin_call(const std::string &text)
    {
        return begin([=] { return call(text); });
    }

    // A thread that sends "two" and goes to wait for the answer when it may.
    std::unique_ptr<client> begin_late_call(const std::atomic<bool> *go)
    {
        return begin([=, this] {
            outcome out;
            msg_header *request = new_message(MSG_TPCALL, std::string("two") + '\0', 64);
            request->seqno = next_seqno(shared);
            int32_t seqno = request->seqno;
            EXPECT_EQ(_send_csmsg_to_clh(request, shared), 1);
            while (!*go)
                usleep(100);
            request->msgtype = MSG_TPCALL;
            request->seqno = seqno;
            msg_header *reply = _read_csmsg_from_clh_timeout(request, 30, shared);
            out.result = reply != nullptr;
            out.error = get_tperrno();
            out.data = reply != nullptr ? message_data(reply) : "";
            free(reply != nullptr ? reply : request);
            return out;
        });
    }

    // One thread reads, awaiting "one"; another has sent "two", and goes to wait when it may. "two" has been given
    // back meanwhile, and sent to the backup.
    struct overtaken {
        std::unique_ptr<client> reader, late;
        wire::frame first, again;
    };
    overtaken give_back_late_call(const std::atomic<bool> *go)
    {
        overtaken calls;
        calls.reader = begin_call("one");
        calls.first = peer.expect(wire::TPACALL);
        EXPECT_TRUE(reading_with_waiters(0));
        calls.late = begin_late_call(go);
        wire::frame second = peer.expect(wire::TPACALL);
        give_back(peer, second);
        backup.accept_start();
        calls.again = backup.expect(wire::TPACALL);
        return calls;
    }

    bool reading_with_waiters(int least)
    {
        return faults::eventually([&] {
            pthread_mutex_lock(&shared->msg_mutex);
            bool there = shared->reader_busy == 1 && shared->waiting >= least;
            pthread_mutex_unlock(&shared->msg_mutex);
            return there;
        });
    }

    std::atomic<int> looks_before{-1};

    // An urgent byte that is no warning: from here on the wait that the reader is in looks for none.
    void ignore_warnings_in_this_wait()
    {
        // A second byte that came before this one has been looked at would take its place.
        looks_before = -1;
        faults::before(faults::RECV, 1, [this] { looks_before = faults::count(faults::SELECT); });
        peer.send_urgent(5);
        ASSERT_TRUE(faults::eventually(
            [this] { return looks_before >= 0 && faults::count(faults::SELECT) > looks_before; }));
    }

    bool is_rolling()
    {
        return faults::eventually([&] { return shared->rolling == 1; });
    }

    // `count` calls of a thread, each with a text of its own. How many were not answered as they should be.
    // With a gate the second half of the calls waits for it: whatever happens meanwhile meets a thread at work.
    static long keep_calling(int thread, int count, const std::atomic<bool> *gate = nullptr)
    {
        long wrong = 0;
        for (int i = 0; i < count; i++) {
            if (gate != nullptr && i == count / 2)
                wrong += !faults::eventually([&] { return gate->load(); });
            std::string text = std::to_string(thread) + "." + std::to_string(i);
            outcome out;
            if (i % 3 == 2) {
                int descriptor = acall(text);
                out = descriptor > 0 ? fetch(descriptor) : outcome{-1, get_tperrno(), "acall", 0};
            } else {
                out = call(text);
            }
            if (out.data == "answer to " + text)
                continue;
            wrong++;
            ADD_FAILURE() << text << ": " << out.result << " [" << out.error << "] '" << out.data << "'";
        }
        return wrong;
    }

    static bool all_have_ended(const std::vector<std::unique_ptr<client>> &clients)
    {
        for (const auto &one : clients)
            if (!one->task.finished())
                return false;
        return true;
    }

    std::atomic<bool> warned{false};
    const std::atomic<bool> *const gate = &warned;

    static void expect_each_once(Server &one, Server &two, int threads, int count)
    {
        std::multiset<std::string> all = one.seen;
        all.insert(two.seen.begin(), two.seen.end());
        EXPECT_EQ(all.size(), (size_t)(threads * count));
        EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size());
    }

    void expect_idle(bool on_backup)
    {
        EXPECT_EQ(shared->waiters_head, nullptr);
        EXPECT_EQ(shared->offer_left, 0);
        EXPECT_EQ(shared->acall_active, 0);
        expect_normal(on_backup);
    }
};

}

// ---- one moves, the others wait

TEST_F(RollingThreads, SendersWaitForTheEndOfTheMove)
{
    ASSERT_TRUE(open());
    warn(peer);
    auto mover = begin_call("one");
    ASSERT_TRUE(is_rolling());
    auto second = begin_call("two"), third = begin_call("three");
    backup.accept();
    backup.expect(wire::TPSTART);
    usleep(20000);  // time in which one that doesn't wait would send
    peer.expect_nothing();
    EXPECT_FALSE(second->task.finished());
    backup.reply_start();
    for (int i = 0; i < 3; i++) {
        wire::frame request = backup.expect(wire::TPACALL);
        backup.reply_to(request, answer_to(request));
    }
    EXPECT_EQ(mover->task.get(), 1);
    EXPECT_EQ(second->task.get(), 1);
    EXPECT_EQ(third->task.get(), 1);
    EXPECT_EQ(mover->out.data, "answer to one");
    EXPECT_EQ(second->out.data, "answer to two");
    EXPECT_EQ(third->out.data, "answer to three");
    EXPECT_TRUE(backup.nobody_knocks());
    left(peer);
    expect_idle(true);
}

TEST_F(RollingThreads, SendersThatWaitForAMoveThatFailsAreTold)
{
    ASSERT_TRUE(open());
    warn(peer);
    auto mover = begin_call("one");
    ASSERT_TRUE(is_rolling());
    auto second = begin_call("two");
    wire::start_reply refusal;
    refusal.refuse = TPESECURITY;
    backup.accept_start(refusal);
    Conn again;
    peer.accept(&again);
    again.expect(wire::TPSTART);
    again.reply_start(refusal);
    EXPECT_EQ(mover->task.get(), -1);
    EXPECT_EQ(second->task.get(), -1);
    EXPECT_EQ(mover->out.error, TPERDOWN);
    EXPECT_EQ(second->out.error, TPERDOWN);
    peer.expect_nothing();
}

TEST_F(RollingThreads, SenderThatHasWaitedAMinuteIsTold)
{
    ASSERT_TRUE(open());
    warn(peer);
    auto mover = begin_call("one");
    ASSERT_TRUE(is_rolling());
    minutes_are_over = true;
    auto second = begin_call("two");
    EXPECT_EQ(second->task.get(), -1);
    EXPECT_EQ(second->out.error, TPERDOWN);
    minutes_are_over = false;
    EXPECT_EQ(shared->rolling_failed, 0);  // the move goes on
    backup.accept_start();
    wire::frame request = backup.expect(wire::TPACALL);
    backup.reply_to(request, answer_to(request));
    EXPECT_EQ(mover->task.get(), 1);
    auto third = begin_call("three");
    request = backup.expect(wire::TPACALL);
    backup.reply_to(request, answer_to(request));
    EXPECT_EQ(third->task.get(), 1);
    expect_idle(true);
}

TEST_F(RollingThreads, RequestGivenBackWhileAMoveTakesTooLongIsNotReady)
{
    ASSERT_TRUE(open());
    auto reader = begin_call("one");
    wire::frame request = peer.expect(wire::TPACALL);
    ASSERT_TRUE(reading_with_waiters(0));
    shared->rolling = 1;  // somebody else's, without an end
    minutes_are_over = true;
    give_back(peer, request);
    EXPECT_EQ(reader->task.get(), -1);
    EXPECT_EQ(reader->out.error, TPENOREADY);
    EXPECT_TRUE(backup.nobody_knocks());  // a second move beside the first would be one too many
    EXPECT_EQ(shared->rolling_failed, 0);
    shared->rolling = 0;
    minutes_are_over = false;
    peer.expect_nothing();
}

TEST_F(RollingThreads, RequestGivenBackDuringAMoveWaitsForItsEnd)
{
    ASSERT_TRUE(open());
    auto waiting = begin_call("one");
    wire::frame first = peer.expect(wire::TPACALL);
    ASSERT_TRUE(reading_with_waiters(0));
    peer.send_urgent(DOWN_WARNING);  // the sleeping reader or the next sender does the work
    auto sender = begin_call("two");
    ASSERT_TRUE(is_rolling());
    give_back(peer, first);
    backup.accept();
    backup.expect(wire::TPSTART);
    backup.reply_start();
    for (int i = 0; i < 2; i++) {
        wire::frame request = backup.expect(wire::TPACALL);
        backup.reply_to(request, answer_to(request));
    }
    EXPECT_EQ(waiting->task.get(), 1);
    EXPECT_EQ(sender->task.get(), 1);
    EXPECT_EQ(waiting->out.data, "answer to one");
    EXPECT_EQ(sender->out.data, "answer to two");
    left(peer);
    EXPECT_TRUE(backup.nobody_knocks());
    expect_idle(true);
}

TEST_F(RollingThreads, ConnectionThatEndsDuringTheMoveIsNotTheEndOfTheSession)
{
    ASSERT_TRUE(open());
    auto reader = begin_call("one");
    peer.expect(wire::TPACALL);
    ASSERT_TRUE(reading_with_waiters(0));
    ignore_warnings_in_this_wait();
    peer.send_urgent(DOWN_WARNING);
    ASSERT_TRUE(wait_for_urgent(shared->clhfd));
    auto mover = begin_call("two");
    backup.accept();
    backup.expect(wire::TPSTART);
    peer.hang_up();  // met by the reader, who waits for the end of the move
    backup.reply_start();
    wire::frame request = backup.expect(wire::TPACALL);
    backup.reply_to(request, answer_to(request));
    EXPECT_EQ(mover->task.get(), 1);
    EXPECT_EQ(reader->task.get(), -1);
    EXPECT_EQ(reader->out.error, TPECLOSE);  // its answer never comes
    EXPECT_EQ(shared->started, 1);
    expect_idle(true);
}

// ---- readers

TEST_F(RollingThreads, ReaderThatSleepsOnThePreviousConnectionNoticesTheNewOne)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(open(with_block_time(block_time)));
        auto reader = begin_call("one");
        wire::frame first = peer.expect(wire::TPACALL);
        ASSERT_TRUE(reading_with_waiters(0));
        ignore_warnings_in_this_wait();
        peer.send_urgent(DOWN_WARNING);
        ASSERT_TRUE(wait_for_urgent(shared->clhfd));
        auto sender = begin_call("two");
        backup.accept_start(with_block_time(block_time));
        wire::frame second = backup.expect(wire::TPACALL);
        ASSERT_TRUE(reading_with_waiters(1));
        backup.reply_to(second, answer_to(second));
        EXPECT_EQ(sender->task.get(), 1);  // read by the other thread, which goes on waiting
        EXPECT_FALSE(reader->task.finished());
        peer.reply_to(first, answer_to(first));
        EXPECT_EQ(reader->task.get(), 1);
        EXPECT_EQ(reader->out.data, "answer to one");
        EXPECT_EQ(sender->out.data, "answer to two");
        left(peer);
        expect_idle(true);
        EXPECT_EQ(tpreset(), 1);
        backup.hang_up();
    }
}

TEST_F(RollingThreads, CallOfAThreadThatWaitsIsGivenBackToTheReader)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(open(with_block_time(block_time)));
        auto reader = begin_call("one");
        wire::frame first = peer.expect(wire::TPACALL);
        ASSERT_TRUE(reading_with_waiters(0));
        auto waiting = begin_call("two");
        wire::frame second = peer.expect(wire::TPACALL);
        ASSERT_TRUE(reading_with_waiters(1));
        give_back(peer, second);
        backup.accept_start(with_block_time(block_time));
        wire::frame again = backup.expect(wire::TPACALL);
        EXPECT_EQ(again.data, second.data);
        EXPECT_EQ(again.seqno, second.seqno);
        backup.reply_to(again, answer_to(again));
        EXPECT_EQ(waiting->task.get(), 1);
        EXPECT_GE(shared->old_clhfd, 0);  // the reader's own answer comes over it
        peer.reply_to(first, answer_to(first));
        EXPECT_EQ(reader->task.get(), 1);
        EXPECT_EQ(reader->out.data, "answer to one");
        EXPECT_EQ(waiting->out.data, "answer to two");
        left(peer);
        expect_idle(true);
        EXPECT_EQ(tpreset(), 1);
        backup.hang_up();
    }
}

// The server that goes down may be gone before the thread has its answer from the other one.
TEST_F(RollingThreads, CallSentAgainForAThreadOnItsWayOutlivesThePreviousConnection)
{
    ASSERT_TRUE(open());
    std::atomic<bool> go{false};
    overtaken calls = give_back_late_call(&go);
    go = true;
    ASSERT_TRUE(reading_with_waiters(1));
    peer.hang_up();
    EXPECT_EQ(calls.reader->task.get(), -1);
    EXPECT_EQ(calls.reader->out.error, TPECLOSE);  // its answer never comes
    backup.reply_to(calls.again, answer_to(calls.again));
    EXPECT_EQ(calls.late->task.get(), 1) << calls.late->out.error;
    EXPECT_EQ(calls.late->out.data, "answer to two");
    expect_idle(true);
}

TEST_F(RollingThreads, CallOfAThreadOnItsWayIsGivenBackToTheReader)
{
    ASSERT_TRUE(open());
    std::atomic<bool> go{false};
    overtaken calls = give_back_late_call(&go);
    backup.reply_to(calls.again, answer_to(calls.again));
    // The reader holds the answer out to the one that is on its way.
    EXPECT_TRUE(faults::eventually([&] {
        pthread_mutex_lock(&shared->msg_mutex);
        bool offered = shared->offer_left == 1;
        pthread_mutex_unlock(&shared->msg_mutex);
        return offered;
    }));
    go = true;
    EXPECT_EQ(calls.late->task.get(), 1);
    EXPECT_EQ(calls.late->out.data, "answer to two");
    peer.reply_to(calls.first, answer_to(calls.first));
    EXPECT_EQ(calls.reader->task.get(), 1);
    left(peer);
    expect_idle(true);
}

TEST_F(RollingThreads, ReceiveOfAConversationThatTheMoveEndedEnds)
{
    ASSERT_TRUE(open(with_block_time(30)));
    wire::with fields;
    fields.cd = 4;
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.reply("", fields);
    });
    int descriptor = tpconnect((char *)"SERVICE", nullptr, 0, TPRECVONLY);
    ASSERT_EQ(descriptor, 4);
    peer.done();
    auto receiving = begin([=] {
        outcome out;
        char *buffer = tpalloc((char *)"STRING", nullptr, 0);
        long length = 0, event = 0;
        out.result = tprecv(descriptor, &buffer, &length, 0, &event);
        out.error = get_tperrno();
        tpfree(buffer);
        return out;
    });
    ASSERT_TRUE(reading_with_waiters(0));
    peer.send_urgent(DOWN_WARNING);
    wire::start_reply reply = with_block_time(30);
    reply.conv_size = 1;
    backup.accept_start(reply);
    EXPECT_EQ(receiving->task.get(), -1);
    EXPECT_EQ(receiving->out.error, TPEBADDESC);
    EXPECT_EQ(shared->conv_active, 0);
    expect_idle(true);
}

// ---- under load

TEST_F(RollingThreads, ManyThreadsOfOneContextLoseNothingInAWarning)
{
    constexpr int THREADS = 6, COUNT = 120;
    Server first(peer), second(backup);
    ASSERT_TRUE(open_at_server());
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < THREADS; i++)
        clients.push_back(begin([=, this] { return outcome{(int)keep_calling(i, COUNT, gate), 0, "", 0}; }));
    EXPECT_TRUE(faults::eventually([&] { return first.requests > THREADS * COUNT / 4; }));
    first.warn_all();
    warned = true;
    for (auto &one : clients)
        EXPECT_EQ(one->task.get(), 0);
    expect_each_once(first, second, THREADS, COUNT);
    EXPECT_EQ(second.logins, 1);
    EXPECT_TRUE(faults::eventually([&] { return first.connections == 0; }));  // the client has left it
    expect_idle(true);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(tpend(), 1);
}

TEST_F(RollingThreads, ManyThreadsOfOneContextLoseNothingWhenRequestsComeBack)
{
    constexpr int THREADS = 6, COUNT = 120;
    Server first(peer), second(backup);
    ASSERT_TRUE(open_at_server());
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < THREADS; i++)
        clients.push_back(begin([=, this] { return outcome{(int)keep_calling(i, COUNT, gate), 0, "", 0}; }));
    EXPECT_TRUE(faults::eventually([&] { return first.requests > THREADS * COUNT / 4; }));
    first.gives_back = true;
    first.warn_all();
    warned = true;
    for (auto &one : clients)
        EXPECT_EQ(one->task.get(), 0);
    expect_each_once(first, second, THREADS, COUNT);
    EXPECT_EQ(second.logins, 1);
    EXPECT_TRUE(faults::eventually([&] { return first.connections == 0; }));
    expect_idle(true);
    EXPECT_EQ(tpend(), 1);
}

TEST_F(RollingThreads, ManyMovesUnderLoadLoseNothing)
{
    constexpr int THREADS = 5, COUNT = 300;
    wire::start_reply small, large;
    small.conv_size = 2;
    small.nodes = {"N1"};
    small.queues = {"QUEUE"};
    large.conv_size = 100;
    large.nodes = {"N1", "N2", "N3", "N4"};
    large.queues = {"A", "B", "QUEUE"};
    Server first(peer, small), second(backup, large);
    ASSERT_TRUE(open_at_server());
    std::atomic<bool> done{false};
    auto looking = begin([&] {  // names are looked up while the tables are replaced
        outcome out;
        while (!done) {
            int queue = _get_rqno_by_qname((char *)"QUEUE", shared);
            out.result += queue != 0 && queue != 2;
            usleep(50);
        }
        return out;
    });
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < THREADS; i++)
        clients.push_back(begin([=] { return outcome{(int)keep_calling(i, COUNT), 0, "", 0}; }));
    Server *from = &first, *to = &second;
    for (int i = 0; i < 6; i++) {
        int seen = from->requests;
        EXPECT_TRUE(
            faults::eventually([&] { return from->requests > seen + 20 || all_have_ended(clients); }));
        int logins = to->logins;
        // A warning that meets the rest of the move before is lost; what comes back is not.
        to->gives_back = false;
        from->gives_back = true;
        from->warn_all();
        EXPECT_TRUE(faults::eventually([&] { return to->logins > logins || all_have_ended(clients); }));
        std::swap(from, to);
    }
    for (auto &one : clients)
        EXPECT_EQ(one->task.get(), 0);
    done = true;
    EXPECT_EQ(looking->task.get(), 0);
    expect_each_once(first, second, THREADS, COUNT);
    EXPECT_EQ(shared->waiter_count, 0);
    EXPECT_EQ(shared->rolling_failed, 0);
    EXPECT_EQ(tpend(), 1);
}

TEST_F(RollingThreads, SessionsOfTheirOwnMoveEachForItself)
{
    constexpr int THREADS = 6, COUNT = 80;
    Server first(peer), second(backup);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([&, i] {
            TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
            record->flags = TPMULTICONTEXTS;
            wrong += tpstart(record) < 0;
            tpfree((char *)record);
            wrong += (int)keep_calling(i, COUNT, gate);
            wrong += tpgethostaddr(nullptr, nullptr, 0) != 2;
            wrong += tpend() != 1;
        });
    EXPECT_TRUE(faults::eventually([&] { return first.logins == THREADS && first.requests > THREADS * 5; }));
    first.gives_back = true;
    first.warn_all();
    warned = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(second.logins, THREADS);
    expect_each_once(first, second, THREADS, COUNT);
    EXPECT_TRUE(faults::eventually([&] { return first.connections == 0 && second.connections == 0; }));
}

TEST_F(RollingThreads, ServerThatAnswersWhatItHasAndClosesLosesNothing)
{
    constexpr int HELD = 4, MORE = 20;
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(open(with_block_time(block_time)));
        std::vector<std::unique_ptr<client>> held;
        std::vector<wire::frame> requests;
        for (int i = 0; i < HELD; i++) {
            held.push_back(begin([=] {
                outcome out = call("held " + std::to_string(i));
                if (out.data == "answer to held " + std::to_string(i))
                    out.result = (int)keep_calling(i, MORE);
                return out;
            }));
            requests.push_back(peer.expect(wire::TPACALL));
        }
        Server second(backup, with_block_time(block_time));
        warn(peer);
        auto mover = begin([=] { return outcome{(int)keep_calling(99, MORE), 0, "", 0}; });
        EXPECT_EQ(mover->task.get(), 0);
        for (const wire::frame &request : requests)
            peer.reply_to(request, answer_to(request));
        peer.hang_up();
        for (auto &one : held)
            EXPECT_EQ(one->task.get(), 0);
        EXPECT_EQ(second.requests, (HELD + 1) * MORE);
        expect_idle(true);
        EXPECT_EQ(tpend(), 1);
        second.stop();
    }
}
