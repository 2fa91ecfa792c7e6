// Enciphered sessions: tpcall in envelopes beside the plain one and beside the cipher itself.
//
// Whether sessions are enciphered is the process's choice: the enciphered calls are made by a process of its
// own, whose rounds take their turn with the others.
#include "scenarios.h"

#include <cstdio>
#include <kexcli.h>
#include <memory>
#include <vorn.h>

constexpr size_t SIZES[] = {4, 1024, 65536};

// Both ends of an enciphered connection without the connection.
struct cipher_pair {
    void *client, *server;
};

// The steps go from one to the other until neither has anything to say.
static cipher_pair new_cipher_pair()
{
    cipher_pair ends = {_dh_init_sess(KEXCLI_MODE_CLIENT, -1), _dh_init_sess(KEXCLI_MODE_SERVER, -1)};
    char step[2][KEXCLI_MAX_OUTPUT];
    int32_t hello = 0, answer = 0, finish = 0, nothing = 0;
    if (_dh_negotiate(ends.client, nullptr, 0, step[0], &hello) != KEXCLI_EXCHANGE ||
        _dh_negotiate(ends.server, step[0], hello, step[1], &answer) != KEXCLI_EXCHANGE ||
        _dh_negotiate(ends.client, step[1], answer, step[0], &finish) != KEXCLI_SEND_LAST ||
        _dh_negotiate(ends.server, step[0], finish, step[1], &nothing) != KEXCLI_FINISHED)
        give_up("the two ends of the cipher don't agree on their keys");
    return ends;
}

// What the cipher has to do for one call: the request and the reply, each enciphered on one end and
// deciphered on the other, between buffers that are there and warm.
static trip cipher_trip(size_t size)
{
    size_t bytes = size + MESSAGE_HEAD;
    auto plain = std::make_shared<std::vector<char>>(bytes + KEXCLI_MAX_OVERHEAD, 'x');
    auto sealed = std::make_shared<std::vector<char>>(bytes + KEXCLI_MAX_OVERHEAD);
    return [ends = new_cipher_pair(), plain, sealed, bytes] {
        void *from = ends.client, *to = ends.server;
        for (int way = 0; way < 2; way++) {
            int length = _dh_encrypt(from, sealed->data(), plain->data(), (int)bytes);
            if (length < 0 || _dh_decrypt(to, plain->data(), sealed->data(), length) != (int)bytes)
                give_up("the cipher doesn't decipher what it enciphered");
            std::swap(from, to);
        }
    };
}

static trip one_behind_the_other(const trip &first, const trip &second)
{
    return [first, second] {
        first();
        second();
    };
}

static void compare_ciphered(const settings &chosen, placement where, const server &peer, size_t size,
                             const apart *other)
{
    bool told = where == placement::one_core;
    std::string of_size = size == 4 ? "4 bytes, " : size == 1024 ? "1 KiB, " : "64 KiB, ";
    trip bare = bare_trip(peer, size), cipher = cipher_trip(size), plain = call_trip(size);
    auto results = alternate({{"bare", bare},
                              {"cipher", cipher},
                              {"bare and cipher", one_behind_the_other(bare, cipher)},
                              {"plain", plain},
                              {"plain and cipher", one_behind_the_other(plain, cipher)},
                              {"enciphered", nullptr, other}},
                             trip_schedule(chosen));
    print_trip_row(of_size + "bare ping-pong", results[0], nullptr);
    print_trip_row(of_size + "the cipher alone", results[1], &results[0]);
    print_trip_row(of_size + "bare and cipher", results[2], &results[0]);
    print_trip_row(of_size + " .. beside the cipher alone", results[2], &results[1]);
    print_trip_row(of_size + "tpcall, plain", results[3], &results[0]);
    print_trip_row(of_size + "tpcall, enciphered", results[5], &results[0]);
    print_trip_row(of_size + " .. beside tpcall", results[5], &results[3], told && size == 4 ? 0.75 : 0);
    print_trip_row(of_size + " .. beside the cipher alone", results[5], &results[1],
                   told && size == 65536 ? 0.80 : 0);
    print_trip_row(of_size + " .. beside bare and cipher", results[5], &results[2]);
    print_trip_row(of_size + " .. beside tpcall and cipher", results[5], &results[4]);
}

void enciphered(const settings &chosen, placement where)
{
    place_server(where);
    server peer = start_responder();
    place_client(where);
    std::vector<apart> others;
    for (size_t size : SIZES)
        others.push_back(start_apart([&peer, size] {
            point_enciphered_at(peer);
            open_session(0);
            return call_trip(size);
        }));
    point_library_at(peer);
    open_session(0);
    print_trip_columns();
    for (size_t i = 0; i < std::size(SIZES); i++) {
        compare_ciphered(chosen, where, peer, SIZES[i], &others[i]);
        stop_apart(&others[i]);
    }
    end_trips(&peer);
}
