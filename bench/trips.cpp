// Round trips on one thread: tpcall beside the bare ping-pong, against the responder and against clhsim, and a window
// of asynchronous calls.
#include "scenarios.h"

#include <cstdio>
#include <deque>
#include <memory>
#include <vorn.h>

constexpr size_t SIZES[] = {4, 1024, 65536};

static const char *size_name(size_t size)
{
    return size == 4 ? "4 bytes" : size == 1024 ? "1 KiB" : "64 KiB";
}

void open_session(long flags)
{
    auto *start = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
    if (start == nullptr)
        give_up("tpalloc: %s", tpstrerror(tperrno));
    start->flags = (int)flags;
    if (tpstart(start) < 0)
        give_up("tpstart: %s", tpstrerror(tperrno));
    tpfree((char *)start);
}

server begin_trips(placement where, long flags, uint32_t outstanding)
{
    place_server(where);
    server peer = start_responder(outstanding);
    place_client(where);
    point_library_at(peer);
    open_session(flags);
    return peer;
}

void end_trips(server *peer)
{
    tpend();
    stop_server(peer);
}

char *new_carray(size_t size)
{
    char *buffer = tpalloc((char *)"CARRAY", nullptr, (long)size);
    if (buffer == nullptr)
        give_up("tpalloc: %s", tpstrerror(tperrno));
    for (size_t i = 0; i < size; i++)
        buffer[i] = (char)('a' + i % 26);
    return buffer;
}

trip call_trip(size_t size)
{
    char *data = new_carray(size), *reply = new_carray(size);
    return [data, reply, size]() mutable {
        long length = 0;
        if (tpcall((char *)"ECHO", data, (long)size, &reply, &length, 0) < 0)
            give_up("tpcall: %s", tpstrerror(tperrno));
        if ((size_t)length != size)
            give_up("tpcall: a reply of %ld bytes for %zu", length, size);
    };
}

trip bare_trip(const server &peer, size_t size, size_t behind)
{
    size_t bytes = size + MESSAGE_HEAD;
    int fd = connect_bare(peer, (uint32_t)bytes, (uint32_t)behind);
    auto message = std::make_shared<std::vector<char>>(bytes > behind ? bytes : behind, 'x');
    return [fd, message, bytes, behind] {
        send_all(fd, message->data(), bytes);
        receive_all(fd, message->data(), bytes);
        send_all(fd, message->data(), behind);
    };
}

// The baseline is always the bare ping-pong with the responder, whoever answers the calls.
static void compare_calls(const settings &chosen, placement where, bool against_clhsim)
{
    static constexpr double AIMS[] = {0.85, 0, 0.90};
    place_server(where);
    server responder = start_responder();
    server peer = against_clhsim ? start_clhsim(chosen) : responder;
    place_client(where);
    point_library_at(peer);
    open_session(0);
    print_trip_columns();
    for (size_t i = 0; i < std::size(SIZES); i++) {
        std::string size = size_name(SIZES[i]);
        auto results = alternate({{"bare", bare_trip(responder, SIZES[i])}, {"tpcall", call_trip(SIZES[i])}},
                                 trip_schedule(chosen));
        print_trip_row(size + ", bare ping-pong", results[0], nullptr);
        print_trip_row(size + ", tpcall", results[1], &results[0],
                       where == placement::one_core && !against_clhsim ? AIMS[i] : 0);
    }
    tpend();
    if (against_clhsim)
        stop_server(&peer);
    stop_server(&responder);
}

void calls(const settings &chosen, placement where)
{
    compare_calls(chosen, where, false);
}

void calls_to_clhsim(const settings &chosen, placement where)
{
    compare_calls(chosen, where, true);
}

// --- A window of outstanding messages: each trip takes the oldest reply and sends the next message.

constexpr int WINDOW = 16;

static trip bare_window(const server &peer, size_t size)
{
    size_t bytes = size + MESSAGE_HEAD;
    int fd = connect_bare(peer, (uint32_t)bytes);
    auto message = std::make_shared<std::vector<char>>(bytes, 'x');
    for (int i = 0; i < WINDOW; i++)
        send_all(fd, message->data(), message->size());
    return [fd, message] {
        receive_all(fd, message->data(), message->size());
        send_all(fd, message->data(), message->size());
    };
}

static int send_one(char *data, size_t size)
{
    int cd = tpacall((char *)"ECHO", data, (long)size, 0);
    if (cd < 0)
        give_up("tpacall: %s", tpstrerror(tperrno));
    return cd;
}

static trip acall_window(size_t size)
{
    char *data = new_carray(size), *reply = new_carray(size);
    std::deque<int> outstanding;
    for (int i = 0; i < WINDOW; i++)
        outstanding.push_back(send_one(data, size));
    return [data, reply, size, outstanding]() mutable {
        long length = 0;
        int cd = outstanding.front();
        outstanding.pop_front();
        if (tpgetrply(&cd, &reply, &length, 0) < 0 || (size_t)length != size)
            give_up("tpgetrply: %s", tpstrerror(tperrno));
        outstanding.push_back(send_one(data, size));
    };
}

void window(const settings &chosen, placement where)
{
    place_server(where);
    server peer = start_responder();
    place_client(where);
    point_library_at(peer);
    print_trip_columns();
    for (size_t size : {SIZES[0], SIZES[1]}) {
        open_session(0);
        auto results = alternate({{"bare", bare_window(peer, size)}, {"tpacall", acall_window(size)}},
                                 trip_schedule(chosen));
        print_trip_row(std::string(size_name(size)) + ", bare, 16 outstanding", results[0], nullptr);
        print_trip_row(std::string(size_name(size)) + ", tpacall, 16 outstanding", results[1], &results[0]);
        tpend();  // the outstanding replies go with their session
    }
    stop_server(&peer);
}
