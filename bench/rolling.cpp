// A rolling start under load: the longest gap between two replies that a client sees while its session moves
// to the other server, in the time that connecting and logging in takes.
#include "scenarios.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>
#include <vorn.h>

constexpr size_t DATA_SIZE = 4;
constexpr int THREAD_COUNTS[] = {1, 4};
// Of the first thread, before and behind the warning. The session moves at one of the first calls behind it;
// in a longer time the machine's other work would give the longest gap.
constexpr int REPLIES = 40;
constexpr double GAP_AIM = 2;

// One move: what was measured, in nanoseconds.
struct move_times {
    double bare_login;  // connecting and logging in, without the library
    double start;       // tpstart
    double usual;       // the longest gap before the warning
    double gap;         // the longest one from the warning on
};

static void call_once(const char *service, char *data, char **reply)
{
    long length = 0;
    if (tpcall((char *)service, data, (long)DATA_SIZE, reply, &length, 0) < 0)
        give_up("tpcall: %s", tpstrerror(tperrno));
}

static double longest_gap(std::vector<int64_t> replies)
{
    int64_t longest = 0;
    std::sort(replies.begin(), replies.end());
    for (size_t i = 1; i < replies.size(); i++)
        longest = std::max(longest, replies[i] - replies[i - 1]);
    return (double)longest;
}

// What the threads of one move share.
struct crew_state {
    int context, count;
    std::atomic<int> ready{0};
    std::atomic<bool> done{false};
};

// One thread's calls, with the time of each reply. The first thread's calls bring the warning, and are over
// first.
static void load(crew_state *crew, bool warns, std::vector<int64_t> *replies)
{
    if (!warns && tpsetctxt(crew->context, 0) < 0)
        give_up("tpsetctxt: %s", tpstrerror(tperrno));
    char *data = new_carray(DATA_SIZE), *reply = new_carray(DATA_SIZE);
    call_once("ECHO", data, &reply);
    crew->ready++;
    crew->ready.notify_all();
    for (int there = crew->ready; there < crew->count; there = crew->ready)
        crew->ready.wait(there);
    for (int i = 0; warns ? i < 2 * REPLIES : !crew->done; i++) {
        call_once(warns && i == REPLIES ? WARN_NAME : "ECHO", data, &reply);
        replies->push_back(now_ns());
    }
    crew->done = true;
    tpfree(data);
    tpfree(reply);
    if (!warns)
        tpsetctxt(TPNULLCONTEXT, 0);
}

// The servers' threads of connections that have ended are gone by then, and hold up nobody.
static void let_servers_rest()
{
    constexpr useconds_t PAUSE = 2000;
    usleep(PAUSE);
}

static bool has_moved()
{
    return tpgethostaddr(nullptr, nullptr, 0) == 2;
}

static move_times move_once(const server &peer, int count)
{
    move_times times = {};
    let_servers_rest();
    int64_t begin = now_ns();
    log_in_bare(peer);
    times.bare_login = (double)(now_ns() - begin);
    let_servers_rest();
    begin = now_ns();
    open_session(TPMULTICONTEXTS);
    times.start = (double)(now_ns() - begin);
    std::vector<std::vector<int64_t>> replies((size_t)count);
    crew_state crew = {0, count};
    if (tpgetctxt(&crew.context, 0) < 0)
        give_up("tpgetctxt: %s", tpstrerror(tperrno));
    std::vector<std::thread> others;
    for (int i = 1; i < count; i++)
        others.emplace_back(load, &crew, false, &replies[(size_t)i]);
    load(&crew, true, &replies[0]);
    for (std::thread &other : others)
        other.join();
    if (!has_moved())
        give_up("the session stands where it was");
    tpend();
    // The warning may be heeded before the reply that it came with is read: that reply's gap counts too.
    int64_t warned = replies[0][REPLIES - 1];
    std::vector<int64_t> before, behind;
    for (const auto &own : replies)
        for (int64_t reply : own)
            (reply <= warned ? before : behind).push_back(reply);
    behind.push_back(warned);
    times.usual = longest_gap(before);
    times.gap = longest_gap(behind);
    return times;
}

static std::string quartiles(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    char text[64];
    snprintf(text, sizeof text, "%.2f (%.2f-%.2f)", values[values.size() / 2], values[values.size() / 4],
             values[values.size() * 3 / 4]);
    return text;
}

static void print_gap_row(const std::string &what, const std::vector<move_times> &moves,
                          double move_times::*measured, bool has_aim)
{
    std::vector<double> times, by_start, by_bare;
    for (const move_times &one : moves) {
        times.push_back(one.*measured / 1000);
        by_start.push_back(one.*measured / one.start);
        by_bare.push_back(one.*measured / one.bare_login);
    }
    printf("  %-44s %9.1f   %-22s %-22s", what.c_str(), median(times), quartiles(by_start).c_str(),
           quartiles(by_bare).c_str());
    if (has_aim)
        printf("  aim %.0f %s", GAP_AIM, median(by_bare) <= GAP_AIM ? "met" : "MISSED");
    printf("\n");
    fflush(stdout);
}

void rolling(const settings &chosen, placement where)
{
    place_server(where);
    server peer = start_responder(), backup = start_responder();
    place_client(where);
    point_library_at(peer);
    point_backup_at(backup);
    printf("  %-44s %9s   %-22s %-22s\n", "", "us", "in tpstart", "in bare logins");
    for (int count : THREAD_COUNTS) {
        std::vector<move_times> moves;
        for (int i = 0; i < (chosen.quick ? 40 : 300); i++)
            moves.push_back(move_once(peer, count));
        std::string name = std::to_string(count) + (count == 1 ? " thread, " : " threads, ");
        bool has_aim = where == placement::one_core;
        print_gap_row(name + "connect and log in, bare", moves, &move_times::bare_login, false);
        print_gap_row(name + "tpstart", moves, &move_times::start, false);
        print_gap_row(name + "longest gap before", moves, &move_times::usual, false);
        print_gap_row(name + "longest gap in a rolling start", moves, &move_times::gap, has_aim);
    }
    stop_server(&peer);
    stop_server(&backup);
}
