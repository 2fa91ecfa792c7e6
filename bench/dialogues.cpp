// Conversations and transactions: what takes several messages, beside bare ping-pongs of as many bytes.
#include "scenarios.h"

#include <cstdio>
#include <vorn.h>

constexpr double TURN_AIM = 0.85;
constexpr double TRANSACTION_AIM =
    0.45;  // of one ping-pong; a commit goes there and back too, so 0.5 is the limit
constexpr size_t SIZES[] = {4, 1024};

static std::string of_size(size_t size, const char *what)
{
    return std::string(size == 4 ? "4 bytes, " : "1 KiB, ") + what;
}

static int open_conversation()
{
    int cd = tpconnect((char *)"TURNS", nullptr, 0, TPSENDONLY);
    if (cd < 0)
        give_up("tpconnect: %s", tpstrerror(tperrno));
    return cd;
}

// A turn: a message that hands the right over, and one that brings it back.
static trip turn_trip(int cd, size_t size)
{
    char *data = new_carray(size), *reply = new_carray(size);
    return [cd, data, reply, size]() mutable {
        long length = 0, event = 0;
        if (tpsend(cd, data, (long)size, TPRECVONLY, &event) < 0)
            give_up("tpsend: %s, event %#lx", tpstrerror(tperrno), event);
        if (tprecv(cd, &reply, &length, 0, &event) >= 0 || tperrno != TPEEVENT || event != TPEV_SENDONLY)
            give_up("tprecv: %s, event %#lx", tpstrerror(tperrno), event);
        if ((size_t)length != size)
            give_up("tprecv: a message of %ld bytes for %zu", length, size);
    };
}

void turns(const settings &chosen, placement where)
{
    server peer = begin_trips(where);
    int cd = open_conversation();
    print_trip_columns();
    for (size_t size : SIZES) {
        auto results = alternate(
            {{"bare", bare_trip(peer, size)}, {"tpcall", call_trip(size)}, {"turn", turn_trip(cd, size)}},
            trip_schedule(chosen));
        print_trip_row(of_size(size, "bare ping-pong"), results[0], nullptr);
        print_trip_row(of_size(size, "tpcall"), results[1], &results[0]);
        print_trip_row(of_size(size, "a turn"), results[2], &results[0],
                       where == placement::one_core ? TURN_AIM : 0);
    }
    if (tpdiscon(cd) < 0)
        give_up("tpdiscon: %s", tpstrerror(tperrno));
    end_trips(&peer);
}

static trip twice(const trip &once)
{
    return [once] {
        once();
        once();
    };
}

static trip transaction_trip(size_t size)
{
    return [call = call_trip(size)] {
        int result = tx_begin();
        if (result != TX_OK)
            give_up("tx_begin: %d", result);
        call();
        result = tx_commit();
        if (result != TX_OK)
            give_up("tx_commit: %d", result);
    };
}

// The same without its timer, which is two calls of alarm. That the limit comes and goes with each trip costs
// little: it is a word of the record.
static trip untimed_trip(size_t size)
{
    TXINFO info;
    if (tx_info(&info) < 0)
        give_up("tx_info fails");
    return [once = transaction_trip(size), limit = (long)info.transaction_timeout] {
        tx_set_transaction_timeout(0);
        once();
        tx_set_transaction_timeout(limit);
    };
}

void transactions(const settings &chosen, placement where)
{
    server peer = begin_trips(where);
    print_trip_columns();
    for (size_t size : SIZES) {
        trip bare = bare_trip(peer, size), call = call_trip(size);
        auto results = alternate({{"bare", bare},
                                  {"two bare", twice(bare)},
                                  {"two calls", twice(call)},
                                  {"transaction", transaction_trip(size)},
                                  {"untimed", untimed_trip(size)}},
                                 trip_schedule(chosen));
        print_trip_row(of_size(size, "bare ping-pong"), results[0], nullptr);
        print_trip_row(of_size(size, "two of them"), results[1], &results[0]);
        print_trip_row(of_size(size, "two tpcalls"), results[2], &results[0]);
        print_trip_row(of_size(size, "a transaction"), results[3], &results[0],
                       where == placement::one_core ? TRANSACTION_AIM : 0);
        print_trip_row(of_size(size, "a transaction without a time limit"), results[4], &results[0]);
        print_trip_row(of_size(size, "a transaction, beside two tpcalls"), results[3], &results[2]);
    }
    end_trips(&peer);
}
