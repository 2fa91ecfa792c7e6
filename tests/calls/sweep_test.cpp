// Memory that runs out at each allocation in turn: the right error, no lock held, nothing leaked, and the
// library serves on. Every run is a process of its own with a peer of its own: the tables of threads, of
// contexts and of descriptors end the process by design when they can't be made, which is told by the exit code.
#include "calls/fixture.h"

#include <memory>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int DONE = 0, MORE = 10, BROKEN = 99, FATAL = 1;

// The server's side: serves whatever comes on any number of connections, until the listener is closed.
struct Server {
    Peer peer;
    std::vector<std::thread> threads;
    std::vector<std::unique_ptr<Conn>> connections;
    std::atomic<bool> over{false};
    std::string answer;

    explicit Server(const std::string &reply_data) : answer(reply_data)
    {
        setenv("VORN_HOST_ADDR", peer.address().c_str(), 1);
        setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);
        threads.emplace_back([this] {
            while (!over) {
                if (peer.nobody_knocks()) {
                    usleep(200);
                    continue;
                }
                connections.push_back(std::make_unique<Conn>());
                Conn *conn = connections.back().get();
                if (!peer.accept(conn))
                    return;
                servers.emplace_back([this, conn] { serve(conn); });
            }
        });
    }

    void serve(Conn *conn)
    {
        wire::frame request;
        while (conn->receive(&request)) {
            if (request.msgtype == wire::TPSTART) {
                wire::start_reply reply;
                reply.queues = {"Q"};
                reply.server_name = "SPECIAL";
                conn->reply_start(reply);
            } else {
                conn->reply_to(request, request.msgtype == wire::TPEND ? "" : answer);
            }
        }
    }

    ~Server()
    {
        over = true;
        threads[0].join();
        for (auto &conn : connections)
            if (conn->fd >= 0)
                shutdown(conn->fd, SHUT_RDWR);
        for (std::thread &server : servers)
            server.join();
    }

    std::vector<std::thread> servers;
};

void expect_unlocked(void)
{
    EXPECT_TRUE(is_unlocked(&_wthr_mutex));
    EXPECT_TRUE(is_unlocked(&current_block()->msg_mutex));
    EXPECT_TRUE(is_unlocked(&current_block()->roll_mutex));
    EXPECT_EQ(current_block()->reader_busy, 0);
    EXPECT_EQ(current_block()->waiter_count, 0);
}

// After a run that failed: the thread can end what it has, begin again, and call.
void expect_serves_on(void)
{
    tpend();
    char *reply = new_buffer("STRING");
    long length = 0;
    EXPECT_EQ(tpstart(nullptr), 0) << get_tperrno();
    EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), 1) << get_tperrno();
    EXPECT_EQ(tpend(), 1) << get_tperrno();
    tpfree(reply);
}

int exit_code(pid_t child)
{
    int status = 0;
    if (!faults::eventually([&] { return waitpid(child, &status, WNOHANG) == child; })) {
        ADD_FAILURE() << "a run hangs";
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

struct Sweep : testing::Test {
    // The lines of so many failures are of no interest here.
    void SetUp() override { setenv("VORN_ERR_MSG", "N", 1); }

    // Runs `scenario` with the n-th allocation failing, for each n, until a run makes fewer. The scenario
    // gives true on success; `prepare` comes ahead of it and `finish` behind it, with memory enough.
    void sweep(const std::string &answer, const std::function<void()> &prepare,
               const std::function<bool()> &scenario, const std::function<void()> &finish)
    {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 200);
            SCOPED_TRACE("allocation " + std::to_string(nth));
            int code = in_child([&] { return one_run(nth, answer, prepare, scenario, finish); });
            if (code == DONE)
                return;
            EXPECT_TRUE(code == MORE || code == FATAL) << "exit code " << code;
            if (HasFailure())
                return;
        }
    }

  private:
    static int one_run(int nth, const std::string &answer, const std::function<void()> &prepare,
                       const std::function<bool()> &scenario, const std::function<void()> &finish)
    {
        Server server(answer);
        prepare();
        set_tperrno(0);
        faults::fail_allocation(nth);
        bool good = scenario();
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (!good) {
            EXPECT_TRUE(failed) << "it failed with memory enough, error " << get_tperrno();
            EXPECT_TRUE(get_tperrno() == TPEOS || get_tperrno() == TPESYSTEM) << get_tperrno();
        }
        expect_unlocked();
        finish();
        expect_serves_on();
        return HasFailure() ? BROKEN : failed ? MORE : DONE;
    }

    // A run that hangs is ended from here: the library takes SIGALRM for itself.
    static int in_child(const std::function<int()> &run)
    {
        fflush(nullptr);
        pid_t child = fork();
        if (child == 0)
            exit(run());
        return exit_code(child);
    }
};

char *reply_buffer;
long reply_length;

void make_buffer(void)
{
    reply_buffer = new_buffer("STRING");
}

void start_and_make_buffer(void)
{
    make_buffer();
    EXPECT_EQ(tpstart(nullptr), 0);
}

void free_buffer(void)
{
    EXPECT_EQ(message_of(reply_buffer)->magic, MESSAGE_MAGIC);
    memset(reply_buffer, 'x', (size_t)tpgetasize(reply_buffer));
    tpfree(reply_buffer);
}

}  // namespace

TEST_F(Sweep, CallWithAReplyThatFits)
{
    sweep(
        "fits", start_and_make_buffer,
        [] { return tpcall(svc("S"), nullptr, 0, &reply_buffer, &reply_length, 0) == 1; }, free_buffer);
}

TEST_F(Sweep, CallWithALargeReply)
{
    sweep(
        std::string(9000, 'l'), start_and_make_buffer,
        [] { return tpcall(svc("S"), nullptr, 0, &reply_buffer, &reply_length, 0) == 1; }, free_buffer);
}

TEST_F(Sweep, AsynchronousCallAndItsReply)
{
    sweep(
        std::string(3000, 'a'), start_and_make_buffer,
        [] {
            int cd = tpacall(svc("S"), nullptr, 0, 0);
            return cd > 0 && tpgetrply(&cd, &reply_buffer, &reply_length, 0) == 1;
        },
        free_buffer);
}

TEST_F(Sweep, StoredReplies)
{
    sweep(
        "stored", start_and_make_buffer,
        [] {
            int first = tpacall(svc("S"), nullptr, 0, 0),
                second = first > 0 ? tpacall(svc("S"), nullptr, 0, 0) : -1;
            return second > 0 && tpgetrply(&second, &reply_buffer, &reply_length, 0) == 1 &&
                   tpgetrply(&first, &reply_buffer, &reply_length, 0) == 1;
        },
        free_buffer);
}

TEST_F(Sweep, Start)
{
    sweep(
        "", make_buffer, [] { return tpstart(nullptr) == 0; }, free_buffer);
}

TEST_F(Sweep, StartWithARecord)
{
    static TPSTART_T *record;
    sweep(
        "", [] { record = (TPSTART_T *)new_buffer("TPSTART"); }, [] { return tpstart(record) == 0; },
        [] { tpfree((char *)record); });
}

TEST_F(Sweep, FirstCallWithoutAStart)
{
    sweep(
        "fits", make_buffer,
        [] { return tpcall(svc("S"), nullptr, 0, &reply_buffer, &reply_length, 0) == 1; }, free_buffer);
}

TEST_F(Sweep, End)
{
    sweep(
        "", start_and_make_buffer, [] { return tpend() == 1; }, free_buffer);
}

TEST_F(Sweep, FatalLinesAreThoseOfTheTables)
{
    unsetenv("VORN_ERR_MSG");
    bool seen = false;
    for (int nth = 1; nth < 60 && !seen; nth++) {
        testing::internal::CaptureStderr();
        fflush(nullptr);
        pid_t child = fork();
        if (child == 0) {
            Server server("");
            get_tperrno();  // the first tables
            faults::fail_allocation(nth);
            tpstart(nullptr);
            _exit(faults::allocation_failed() ? MORE : DONE);
        }
        int code = exit_code(child);
        std::string lines = testing::internal::GetCapturedStderr();
        if (code == FATAL) {
            bool table = false;
            for (const char *site : {"CLI0703", "CLI0114", "CSC5106"})
                table |= lines.find(site) != std::string::npos;
            EXPECT_TRUE(table) << lines;
            EXPECT_NE(lines.find("(F) CLI 0005 memory allocation error : size = "), std::string::npos)
                << lines;
        } else if (code == DONE) {
            seen = true;
        }
    }
    EXPECT_TRUE(seen);
}
