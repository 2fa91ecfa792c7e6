// Many threads: all on one shared connection, and each on a connection of its own, beside the bare ping-pong with a
// connection a thread.
#include "scenarios.h"

#include <cstdio>
#include <vorn.h>

constexpr size_t DATA_SIZE = 4;
constexpr int THREAD_COUNTS[] = {1, 2, 4, 8, 16};
constexpr double SHARED_AIM = 0.60;

static trip own_session(int)
{
    open_session(TPMULTICONTEXTS);
    return call_trip(DATA_SIZE);
}

static void end_session(int)
{
    tpend();
}

static trip join_context(int context)
{
    if (tpsetctxt(context, 0) < 0)
        give_up("tpsetctxt: %s", tpstrerror(tperrno));
    return call_trip(DATA_SIZE);
}

static void leave_context(int)
{
    tpsetctxt(TPNULLCONTEXT, 0);
}

void threads(const settings &chosen, placement where)
{
    server peer = begin_trips(where, TPMULTICONTEXTS);
    int context = 0;
    if (tpgetctxt(&context, 0) < 0)
        give_up("tpgetctxt: %s", tpstrerror(tperrno));
    print_trip_columns();
    for (int count : THREAD_COUNTS) {
        auto results = alternate_crews(
            {{"bare", count, [&peer](int) { return bare_trip(peer, DATA_SIZE); }, nullptr},
             {"own", count, own_session, end_session},
             {"shared", count, [context](int) { return join_context(context); }, leave_context}},
            crew_schedule(chosen));
        std::string name = std::to_string(count) + (count == 1 ? " thread, " : " threads, ");
        print_trip_row(name + "bare, a connection each", results[0], nullptr);
        print_trip_row(name + "tpcall, a connection each", results[1], &results[0]);
        print_trip_row(name + "tpcall, one connection", results[2], &results[0],
                       count == 16 && where != placement::two_cores ? SHARED_AIM : 0);
    }
    end_trips(&peer);
}
