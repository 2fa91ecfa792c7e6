// The exchange: two hellos with fresh X25519 keys, keys by HKDF from the secret and both hellos, and a proof
// from each side that it has the same keys. FORMAT.md tells the bytes.
//
// Entered from _dh_negotiate. The client's road is hello, then server's hello in and finish out; the server's
// is client's hello in and hello out, then finish in. A side sends nothing enciphered before the proof of the
// other has been checked.
#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/sha.h>
#include <string.h>

#include "session.h"

extern "C" {

// What HKDF gives, in this order. Each side takes the one half for sending and the other for receiving.
struct direction_keys {
    uint8_t key[KEY_SIZE];
    uint8_t nonce_base[NONCE_SIZE];
};
struct key_block {
    direction_keys client_to_server;
    direction_keys server_to_client;
    uint8_t client_confirm_key[KEY_SIZE];
    uint8_t server_confirm_key[KEY_SIZE];
};
static_assert(sizeof(key_block) == 152);

static const char KEYS_LABEL[] = "vornthr kexcli 1 keys";  // without its end byte

void _kex_put_head(uint8_t *message, uint8_t kind)
{
    message[0] = HEAD_MARK_0;
    message[1] = HEAD_MARK_1;
    message[2] = HEAD_VERSION;
    message[3] = kind;
}

bool _kex_head_is(const uint8_t *message, size_t length, uint8_t kind, size_t expected_length)
{
    return length == expected_length && message[0] == HEAD_MARK_0 && message[1] == HEAD_MARK_1 &&
           message[2] == HEAD_VERSION && message[3] == kind;
}

bool _kex_make_key(kex_session *session)
{
    session->own_key = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    return session->own_key != nullptr;
}

// Head and own public key into `hello`.
static bool put_hello(const kex_session *session, uint8_t *hello, uint8_t kind)
{
    size_t length = PUBLIC_KEY_SIZE;
    _kex_put_head(hello, kind);
    return EVP_PKEY_get_raw_public_key(session->own_key, hello + HEAD_SIZE, &length) == 1 &&
           length == PUBLIC_KEY_SIZE;
}

// The secret of the own key and the peer's public one. A peer that sends a point of small order, for which
// the secret is all zeros whatever the own key is, is refused.
static bool derive_secret(EVP_PKEY *own_key, const uint8_t *peer_public, uint8_t *secret)
{
    static const uint8_t ZEROS[PUBLIC_KEY_SIZE] = {};
    size_t length = PUBLIC_KEY_SIZE;
    EVP_PKEY *peer_key = EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, peer_public, PUBLIC_KEY_SIZE);
    EVP_PKEY_CTX *derivation = EVP_PKEY_CTX_new(own_key, nullptr);
    bool derived = peer_key != nullptr && derivation != nullptr && EVP_PKEY_derive_init(derivation) == 1 &&
                   EVP_PKEY_derive_set_peer(derivation, peer_key) == 1 &&
                   EVP_PKEY_derive(derivation, secret, &length) == 1 && length == PUBLIC_KEY_SIZE &&
                   CRYPTO_memcmp(secret, ZEROS, sizeof ZEROS) != 0;
    EVP_PKEY_CTX_free(derivation);
    EVP_PKEY_free(peer_key);
    return derived;
}

// SHA-256 of the client's hello and the first `server_bytes` of the server's.
static bool hash_hellos(const kex_session *session, size_t server_bytes, uint8_t *digest)
{
    uint8_t both[CLIENT_HELLO_SIZE + SERVER_HELLO_SIZE];
    memcpy(both, session->client_hello, CLIENT_HELLO_SIZE);
    memcpy(both + CLIENT_HELLO_SIZE, session->server_hello, server_bytes);
    return EVP_Digest(both, CLIENT_HELLO_SIZE + server_bytes, digest, nullptr, EVP_sha256(), nullptr) == 1;
}

// HKDF-SHA256 over the secret; the salt is the hash of both hellos, so that two sides that saw different
// hellos have nothing in common.
static bool derive_block(const kex_session *session, const uint8_t *secret, key_block *keys)
{
    uint8_t salt[SHA256_DIGEST_LENGTH];
    char digest[] = "SHA256", label[sizeof KEYS_LABEL];
    memcpy(label, KEYS_LABEL, sizeof label);
    if (!hash_hellos(session, HELLO_SIZE, salt))
        return false;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t *>(secret), PUBLIC_KEY_SIZE),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt, sizeof salt),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, label, sizeof label - 1),
        OSSL_PARAM_construct_end(),
    };
    EVP_KDF *hkdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    EVP_KDF_CTX *derivation = hkdf == nullptr ? nullptr : EVP_KDF_CTX_new(hkdf);
    bool derived = derivation != nullptr &&
                   EVP_KDF_derive(derivation, reinterpret_cast<uint8_t *>(keys), sizeof *keys, params) == 1;
    EVP_KDF_CTX_free(derivation);
    EVP_KDF_free(hkdf);
    return derived;
}

// Puts the key into a context that the direction keeps. The key schedule is the dear part of a small message:
// it is paid once here and never again.
static bool open_direction(kex_direction *direction, const direction_keys *keys, bool enciphers)
{
    direction->number = 0;
    memcpy(direction->nonce_base, keys->nonce_base, NONCE_SIZE);
    direction->cipher = EVP_CIPHER_CTX_new();
    return direction->cipher != nullptr && EVP_CipherInit_ex(direction->cipher, EVP_aes_256_gcm(), nullptr,
                                                             keys->key, nullptr, enciphers) == 1;
}

// All keys of the session, from the hellos and the own key, which has done its work after this. What is made
// halfway when it fails is freed with the session.
static bool make_keys(kex_session *session)
{
    bool client = session->mode == KEXCLI_MODE_CLIENT;
    const uint8_t *peer_hello = client ? session->server_hello : session->client_hello;
    uint8_t secret[PUBLIC_KEY_SIZE];
    key_block keys;
    bool made = derive_secret(session->own_key, peer_hello + HEAD_SIZE, secret) &&
                derive_block(session, secret, &keys);
    if (made) {
        memcpy(session->client_confirm_key, keys.client_confirm_key, KEY_SIZE);
        memcpy(session->server_confirm_key, keys.server_confirm_key, KEY_SIZE);
        made = open_direction(&session->sending, client ? &keys.client_to_server : &keys.server_to_client,
                              true) &&
               open_direction(&session->receiving, client ? &keys.server_to_client : &keys.client_to_server,
                              false);
    }
    OPENSSL_cleanse(secret, sizeof secret);
    OPENSSL_cleanse(&keys, sizeof keys);
    EVP_PKEY_free(session->own_key);
    session->own_key = nullptr;
    return made;
}

// The proof of one side: HMAC-SHA256 under its confirm key over the hash of what has gone before. The
// server's stands in its own hello and so covers only the part in front of it; the client's covers all.
static bool make_proof(const kex_session *session, const uint8_t *confirm_key, size_t server_bytes,
                       uint8_t *proof)
{
    uint8_t digest[SHA256_DIGEST_LENGTH];
    unsigned int length = 0;
    return hash_hellos(session, server_bytes, digest) &&
           HMAC(EVP_sha256(), confirm_key, KEY_SIZE, digest, sizeof digest, proof, &length) != nullptr &&
           length == CONFIRM_SIZE;
}

static bool proof_holds(const kex_session *session, const uint8_t *confirm_key, size_t server_bytes,
                        const uint8_t *claimed)
{
    uint8_t proof[CONFIRM_SIZE];
    bool holds = make_proof(session, confirm_key, server_bytes, proof) &&
                 CRYPTO_memcmp(proof, claimed, CONFIRM_SIZE) == 0;
    OPENSSL_cleanse(proof, sizeof proof);
    return holds;
}

static void establish(kex_session *session)
{
    OPENSSL_cleanse(session->client_confirm_key, KEY_SIZE);
    OPENSSL_cleanse(session->server_confirm_key, KEY_SIZE);
    session->state = KEX_ESTABLISHED;
}

static int give_out(const uint8_t *message, size_t length, uint8_t *out, int32_t *out_len, int result)
{
    memcpy(out, message, length);
    *out_len = static_cast<int32_t>(length);
    return result;
}

static int client_opens(kex_session *session, const uint8_t *, size_t in_len, uint8_t *out, int32_t *out_len)
{
    if (in_len != 0 || !put_hello(session, session->client_hello, MESSAGE_CLIENT_HELLO))
        return KEXCLI_FAILURE;
    session->state = KEX_WAIT_HELLO;
    return give_out(session->client_hello, CLIENT_HELLO_SIZE, out, out_len, KEXCLI_EXCHANGE);
}

static int client_finishes(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out,
                           int32_t *out_len)
{
    uint8_t finish[CLIENT_FINISH_SIZE];
    if (!_kex_head_is(in, in_len, MESSAGE_SERVER_HELLO, SERVER_HELLO_SIZE))
        return KEXCLI_FAILURE;
    memcpy(session->server_hello, in, SERVER_HELLO_SIZE);
    if (!make_keys(session) ||
        !proof_holds(session, session->server_confirm_key, HELLO_SIZE, session->server_hello + HELLO_SIZE))
        return KEXCLI_FAILURE;
    _kex_put_head(finish, MESSAGE_CLIENT_FINISH);
    if (!make_proof(session, session->client_confirm_key, SERVER_HELLO_SIZE, finish + HEAD_SIZE))
        return KEXCLI_FAILURE;
    establish(session);
    return give_out(finish, CLIENT_FINISH_SIZE, out, out_len, KEXCLI_SEND_LAST);
}

static int server_answers(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out,
                          int32_t *out_len)
{
    if (in_len == 0)
        return KEXCLI_RECEIVE;
    if (!_kex_head_is(in, in_len, MESSAGE_CLIENT_HELLO, CLIENT_HELLO_SIZE))
        return KEXCLI_FAILURE;
    memcpy(session->client_hello, in, CLIENT_HELLO_SIZE);
    if (!put_hello(session, session->server_hello, MESSAGE_SERVER_HELLO) || !make_keys(session) ||
        !make_proof(session, session->server_confirm_key, HELLO_SIZE, session->server_hello + HELLO_SIZE))
        return KEXCLI_FAILURE;
    session->state = KEX_WAIT_FINISH;
    return give_out(session->server_hello, SERVER_HELLO_SIZE, out, out_len, KEXCLI_EXCHANGE);
}

static int server_finishes(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *, int32_t *)
{
    if (!_kex_head_is(in, in_len, MESSAGE_CLIENT_FINISH, CLIENT_FINISH_SIZE) ||
        !proof_holds(session, session->client_confirm_key, SERVER_HELLO_SIZE, in + HEAD_SIZE))
        return KEXCLI_FAILURE;
    establish(session);
    return KEXCLI_FINISHED;
}

typedef int kex_step_function(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out,
                              int32_t *out_len);

// Every state in which a step can be taken. What is not in here is no step of the exchange.
static const struct {
    int mode;
    kex_state state;
    kex_step_function *step;
} STEPS[] = {
    {KEXCLI_MODE_CLIENT, KEX_START, client_opens},
    {KEXCLI_MODE_CLIENT, KEX_WAIT_HELLO, client_finishes},
    {KEXCLI_MODE_SERVER, KEX_START, server_answers},
    {KEXCLI_MODE_SERVER, KEX_WAIT_FINISH, server_finishes},
};

int _kex_step(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out, int32_t *out_len)
{
    for (const auto &row : STEPS) {
        if (row.mode == session->mode && row.state == session->state)
            return row.step(session, in, in_len, out, out_len);
    }
    return KEXCLI_FAILURE;
}

}  // extern "C"
