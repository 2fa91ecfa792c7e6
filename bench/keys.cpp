// The shared key store: put and get of one value beside the bare ping-pong.
#include "scenarios.h"

#include <cstdio>
#include <vorn.h>
#include <vorn/keystore.h>

constexpr size_t SIZES[] = {4, 1024};

using store_put = int(char *key, int keylen, char *data, long len, long flags);
using store_get = int(char *key, int keylen, char **data, long *len, long flags);

// The key says how much is to be there under it.
static std::string key_of(size_t size)
{
    std::string key = std::to_string(size);
    key.resize(VORN_KEY_LENGTH, ' ');
    return key;
}

static trip put_trip(store_put *put, size_t size)
{
    return [put, size, key = key_of(size), data = new_carray(size)]() mutable {
        if (put(key.data(), (int)key.size(), data, (long)size, 0) < 0)
            give_up("put into the store: %s", tpstrerror(tperrno));
    };
}

static trip get_trip(store_get *get, size_t size)
{
    return [get, size, key = key_of(size), value = new_carray(size)]() mutable {
        long length = 0;
        if (get(key.data(), (int)key.size(), &value, &length, 0) < 0)
            give_up("get from the store: %s", tpstrerror(tperrno));
        if ((size_t)length != size)
            give_up("get from the store: %ld bytes for %zu", length, size);
    };
}

void keys(const settings &chosen, placement where)
{
    server peer = begin_trips(where);
    print_trip_columns();
    for (size_t size : SIZES) {
        std::string of_size = size == 4 ? "4 bytes, " : "1 KiB, ";
        auto results = alternate({{"bare", bare_trip(peer, size)},
                                  {"tpcall", call_trip(size)},
                                  {"put", put_trip(vorn_sq_put, size)},
                                  {"get", get_trip(vorn_sq_get, size)},
                                  {"put, whole domain", put_trip(vorn_gq_put, size)},
                                  {"get, whole domain", get_trip(vorn_gq_get, size)}},
                                 trip_schedule(chosen));
        print_trip_row(of_size + "bare ping-pong", results[0], nullptr);
        print_trip_row(of_size + "tpcall", results[1], &results[0]);
        print_trip_row(of_size + "vorn_sq_put", results[2], &results[0]);
        print_trip_row(of_size + "vorn_sq_get", results[3], &results[0]);
        print_trip_row(of_size + "vorn_gq_put", results[4], &results[0]);
        print_trip_row(of_size + "vorn_gq_get", results[5], &results[0]);
    }
    end_trips(&peer);
}
