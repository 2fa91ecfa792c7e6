// What stands behind a handle of libkexcli, and the layout of its messages. Internal: nobody but the library
// and its tests looks in here.
#ifndef VORN_KEXCLI_SESSION_H
#define VORN_KEXCLI_SESSION_H

#include <openssl/evp.h>
#include <stddef.h>
#include <stdint.h>

#include "kexcli.h"
#include "keyfile.h"

extern "C" {

// Every message, of the exchange and enciphered, begins with this head.
constexpr size_t HEAD_SIZE = 4;
constexpr uint8_t HEAD_MARK_0 = 'K';     // offset 0
constexpr uint8_t HEAD_MARK_1 = 'X';     // offset 1
constexpr uint8_t VERSION_UNPROVED = 1;  // offset 2; nobody proves who he is
constexpr uint8_t VERSION_PROVED = 2;  // the server proves that it has the lasting key that the client knows
constexpr uint8_t MESSAGE_CLIENT_HELLO = 1;  // offset 3
constexpr uint8_t MESSAGE_SERVER_HELLO = 2;
constexpr uint8_t MESSAGE_CLIENT_FINISH = 3;
constexpr uint8_t MESSAGE_SEALED = 4;

constexpr size_t PUBLIC_KEY_SIZE = RAW_KEY_SIZE;  // X25519
constexpr size_t CONFIRM_SIZE = 32;               // HMAC-SHA256
constexpr size_t KEY_SIZE = 32;                   // AES-256
constexpr size_t NONCE_SIZE = 12;
constexpr size_t TAG_SIZE = 16;

constexpr size_t HELLO_SIZE = HEAD_SIZE + PUBLIC_KEY_SIZE;  // the part of a hello that the keys depend on
constexpr size_t CLIENT_HELLO_SIZE = HELLO_SIZE;
constexpr size_t SERVER_HELLO_SIZE = HELLO_SIZE + CONFIRM_SIZE;
constexpr size_t CLIENT_FINISH_SIZE = HEAD_SIZE + CONFIRM_SIZE;
constexpr size_t SEAL_OVERHEAD = HEAD_SIZE + TAG_SIZE;
static_assert(CLIENT_HELLO_SIZE <= KEXCLI_MAX_OUTPUT && SERVER_HELLO_SIZE <= KEXCLI_MAX_OUTPUT);
static_assert(CLIENT_FINISH_SIZE <= KEXCLI_MAX_OUTPUT && SEAL_OVERHEAD <= KEXCLI_MAX_OVERHEAD);

// The number of the first message of a direction that is refused. Far below the 2^64 at which a nonce would
// come twice; a direction with a thousand messages a millisecond gets there in nine years.
constexpr uint64_t MESSAGE_LIMIT = 1ULL << 48;

// One direction of the traffic. Used by one thread at a time; the other direction is another record on cache
// lines of its own, so the sender and the receiver share nothing that is written.
struct alignas(64) kex_direction {
    EVP_CIPHER_CTX *cipher;          // holds the expanded key; a message sets only its nonce
    uint64_t number;                 // of the next message
    uint8_t nonce_base[NONCE_SIZE];  // xor'ed with the number into the nonce
};

enum kex_state : int {
    KEX_START,        // nothing sent, nothing received
    KEX_WAIT_HELLO,   // client: its hello is out
    KEX_WAIT_FINISH,  // server: its hello is out, the keys stand unconfirmed
    KEX_ESTABLISHED,
    KEX_FAILED,
};

struct kex_session {
    int mode;  // KEXCLI_MODE_*
    kex_state state;
    uint8_t version;        // VERSION_*, in the head of every message; the client chooses it
    EVP_PKEY *own_key;      // the ephemeral key; freed as soon as the secret is derived
    EVP_PKEY *lasting_key;  // server: its lasting key, null if it has none; freed with the ephemeral one
    uint8_t server_public[PUBLIC_KEY_SIZE];   // of the lasting key; the client has it from its file
    uint8_t client_hello[CLIENT_HELLO_SIZE];  // as they went over the connection; the keys are bound to both
    uint8_t server_hello[SERVER_HELLO_SIZE];
    uint8_t client_confirm_key[KEY_SIZE];  // wiped when the exchange ends
    uint8_t server_confirm_key[KEY_SIZE];
    kex_direction sending;
    kex_direction receiving;
};

// Writes the head of a message of the given kind.
void _kex_put_head(const kex_session *session, uint8_t *message, uint8_t kind);

// Whether the bytes are a whole message of the session's version and that kind, with just that length.
bool _kex_head_is(const kex_session *session, const uint8_t *message, size_t length, uint8_t kind,
                  size_t expected_length);

// Reads the lasting key that the environment names for this side, if it names one, and settles the version of
// a client by it. False: a name is given and no good key is there.
bool _kex_take_lasting_key(kex_session *session);

// Makes this side's ephemeral key. False: no memory, no entropy.
bool _kex_make_key(kex_session *session);

// The step of _dh_negotiate behind the checks of its arguments; every failure is KEXCLI_FAILURE.
int _kex_step(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out, int32_t *out_len);

}  // extern "C"

#endif
