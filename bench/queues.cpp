// Reliable queues and multicasts: single requests beside the bare ping-pong, and a hundred groups beside a
// hundred bare ping-pongs.
#include "scenarios.h"

#include <cstdio>
#include <vorn.h>
#include <vorn/groups.h>
#include <vorn/queue.h>

constexpr size_t SIZES[] = {4, 1024};
constexpr uint32_t WINDOWS[] = {1, 10, 100};

static std::string of_size(size_t size, const char *what)
{
    return std::string(size == 4 ? "4 bytes, " : "1 KiB, ") + what;
}

static trip enqueue_trip(size_t size, long flags)
{
    char *data = new_carray(size);
    return [data, size, flags] {
        if (tpenq((char *)QUEUE_NAME, (char *)"WORK", data, (long)size, flags) < 0)
            give_up("tpenq: %s", tpstrerror(tperrno));
    };
}

// Takes a message out of the queue, or an answer that is stored for it.
static trip dequeue_trip(size_t size, long flags)
{
    char *message = new_carray(size);
    return [message, size, flags, service = std::to_string(size)]() mutable {
        long length = 0;
        if (tpdeq((char *)QUEUE_NAME, service.data(), &message, &length, flags) < 0)
            give_up("tpdeq: %s", tpstrerror(tperrno));
        if ((size_t)length != size)
            give_up("tpdeq: a message of %ld bytes for %zu", length, size);
    };
}

// An enqueue and the fetch of its answer. The answer comes right behind the acceptance, so that it is there when
// it is asked for.
static trip answered_trip(size_t size)
{
    return [enqueue = enqueue_trip(size, 0), fetch = dequeue_trip(size, 0)] {
        enqueue();
        fetch();
    };
}

void queues(const settings &chosen, placement where)
{
    server peer = begin_trips(where);
    print_trip_columns();
    for (size_t size : SIZES) {
        auto results = alternate({{"bare", bare_trip(peer, size)},
                                  {"tpcall", call_trip(size)},
                                  {"enqueue", enqueue_trip(size, TPRQDIRECT)},
                                  {"dequeue", dequeue_trip(size, TPRQDIRECT)},
                                  {"answered", answered_trip(size)}},
                                 trip_schedule(chosen));
        print_trip_row(of_size(size, "bare ping-pong"), results[0], nullptr);
        print_trip_row(of_size(size, "tpcall"), results[1], &results[0]);
        print_trip_row(of_size(size, "tpenq"), results[2], &results[0]);
        print_trip_row(of_size(size, "tpdeq of a message"), results[3], &results[0]);
        print_trip_row(of_size(size, "tpenq, and tpdeq of its answer"), results[4], &results[0]);
    }
    end_trips(&peer);
}

// --- Multicasts.

static trip times_groups(const trip &once)
{
    return [once] {
        for (uint32_t i = 0; i < GROUP_COUNT; i++)
            once();
    };
}

static trip multicast_trip(size_t size)
{
    return [data = new_carray(size), size] {
        mcallx_result *result = tpmcallx((char *)"ECHO", data, (long)size, 0);
        if (result == nullptr)
            give_up("tpmcallx: %s", tpstrerror(tperrno));
        if (result->count != (int)GROUP_COUNT)
            give_up("tpmcallx: %d groups", (int)result->count);
        for (int i = 0; i < result->count; i++)
            if (result->errors[i] != 0)
                give_up("tpmcallx: group %d: %s", i, tpstrerror(result->errors[i]));
    };
}

// A window is what the server allows a session: each has a server and a session of its own.
void multicasts(const settings &chosen, placement where)
{
    constexpr size_t SIZE = 4;
    print_trip_columns();
    for (uint32_t window : WINDOWS) {
        server peer = begin_trips(where, 0, window);
        auto results = alternate({{"bare", times_groups(bare_trip(peer, SIZE))},
                                  {"calls", times_groups(call_trip(SIZE))},
                                  {"multicast", multicast_trip(SIZE)}},
                                 trip_schedule(chosen));
        print_trip_row("100 bare ping-pongs", results[0], nullptr);
        print_trip_row("100 tpcalls", results[1], &results[0]);
        print_trip_row("tpmcallx, window of " + std::to_string(window), results[2], &results[0]);
        end_trips(&peer);
    }
}
