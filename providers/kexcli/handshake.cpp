// The exchange: two hellos with fresh X25519 keys, keys by HKDF from their secret and both hellos, and a
// proof from each side that it has the same keys. With a lasting key of the server that the client knows, a
// second secret goes into the keys, which only the owner of that key can find. FORMAT.md tells the bytes.
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
#include <stdlib.h>
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

constexpr size_t LABEL_SIZE = sizeof "vornthr kexcli 1 keys" - 1;

// What a version, from VERSION_UNPROVED on, derives its keys from: the label of HKDF, and how many secrets
// stand one behind the other.
static const struct {
    char label[LABEL_SIZE + 1];
    size_t secrets;
} VERSIONS[] = {
    {"vornthr kexcli 1 keys", 1},
    {"vornthr kexcli 2 keys", 2},
};
constexpr size_t MOST_SECRETS = 2;

static bool proves_server(const kex_session *session)
{
    return session->version == VERSION_PROVED;
}

void _kex_put_head(const kex_session *session, uint8_t *message, uint8_t kind)
{
    message[0] = HEAD_MARK_0;
    message[1] = HEAD_MARK_1;
    message[2] = session->version;
    message[3] = kind;
}

bool _kex_head_is(const kex_session *session, const uint8_t *message, size_t length, uint8_t kind,
                  size_t expected_length)
{
    return length == expected_length && message[0] == HEAD_MARK_0 && message[1] == HEAD_MARK_1 &&
           message[2] == session->version && message[3] == kind;
}

static bool public_half(const EVP_PKEY *key, uint8_t *half)
{
    size_t length = PUBLIC_KEY_SIZE;
    return EVP_PKEY_get_raw_public_key(key, half, &length) == 1 && length == PUBLIC_KEY_SIZE;
}

// The client demands the proof by having the file; whatever else the server then offers is refused.
static bool client_takes_key(kex_session *session)
{
    const char *path = getenv(KEXCLI_PEER_KEY);
    session->version = path == nullptr ? VERSION_UNPROVED : VERSION_PROVED;
    return path == nullptr || _kex_read_key_file(path, PUBLIC_KEY, session->server_public);
}

static bool server_takes_key(kex_session *session)
{
    const char *path = getenv(KEXCLI_OWN_KEY);
    uint8_t key[RAW_KEY_SIZE];
    if (path == nullptr)
        return true;
    if (_kex_read_key_file(path, PRIVATE_KEY, key))
        session->lasting_key = EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, key, sizeof key);
    OPENSSL_cleanse(key, sizeof key);
    return session->lasting_key != nullptr && public_half(session->lasting_key, session->server_public);
}

// A name that is there and empty is a name: with it as without a file there is no session. The variables are
// read with plain getenv; a reader that hides them from privileged programs would take the proof from them.
bool _kex_take_lasting_key(kex_session *session)
{
    return session->mode == KEXCLI_MODE_CLIENT ? client_takes_key(session) : server_takes_key(session);
}

bool _kex_make_key(kex_session *session)
{
    session->own_key = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    return session->own_key != nullptr;
}

// Head and own public key into `hello`.
static bool put_hello(const kex_session *session, uint8_t *hello, uint8_t kind)
{
    _kex_put_head(session, hello, kind);
    return public_half(session->own_key, hello + HEAD_SIZE);
}

// The secret of an own key and one of the peer's. A point of small order, for which the secret is all zeros
// whatever the own key is, is refused.
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

// The secrets of the session's version, one behind the other. The second one is of the server's lasting key
// and the client's fresh one: without either private half nobody can find it.
static bool derive_secrets(const kex_session *session, uint8_t *secrets)
{
    bool client = session->mode == KEXCLI_MODE_CLIENT;
    const uint8_t *client_public = session->client_hello + HEAD_SIZE;
    const uint8_t *peer_public = client ? session->server_hello + HEAD_SIZE : client_public;
    if (!derive_secret(session->own_key, peer_public, secrets))
        return false;
    if (!proves_server(session))
        return true;
    return client ? derive_secret(session->own_key, session->server_public, secrets + PUBLIC_KEY_SIZE)
                  : derive_secret(session->lasting_key, client_public, secrets + PUBLIC_KEY_SIZE);
}

// SHA-256 of the client's hello, the first `server_bytes` of the server's, and the server's lasting key where
// it is part of the exchange.
static bool hash_hellos(const kex_session *session, size_t server_bytes, uint8_t *digest)
{
    uint8_t all[CLIENT_HELLO_SIZE + SERVER_HELLO_SIZE + PUBLIC_KEY_SIZE];
    size_t length = CLIENT_HELLO_SIZE + server_bytes;
    memcpy(all, session->client_hello, CLIENT_HELLO_SIZE);
    memcpy(all + CLIENT_HELLO_SIZE, session->server_hello, server_bytes);
    if (proves_server(session)) {
        memcpy(all + length, session->server_public, PUBLIC_KEY_SIZE);
        length += PUBLIC_KEY_SIZE;
    }
    return EVP_Digest(all, length, digest, nullptr, EVP_sha256(), nullptr) == 1;
}

// HKDF-SHA256 over the secrets; the salt is the hash of both hellos, so that two sides that saw different
// hellos have nothing in common.
static bool derive_block(const kex_session *session, uint8_t *secrets, key_block *keys)
{
    const auto *version = &VERSIONS[session->version - VERSION_UNPROVED];
    uint8_t salt[SHA256_DIGEST_LENGTH];
    char digest[] = "SHA256", label[LABEL_SIZE];
    memcpy(label, version->label, LABEL_SIZE);
    if (!hash_hellos(session, HELLO_SIZE, salt))
        return false;
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secrets, version->secrets * PUBLIC_KEY_SIZE),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt, sizeof salt),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, label, sizeof label),
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

// All keys of the session, from the hellos and the own keys, which have done their work after this. What is
// made halfway when it fails is freed with the session.
static bool make_keys(kex_session *session)
{
    bool client = session->mode == KEXCLI_MODE_CLIENT;
    uint8_t secrets[MOST_SECRETS * PUBLIC_KEY_SIZE];
    key_block keys;
    bool made = derive_secrets(session, secrets) && derive_block(session, secrets, &keys);
    if (made) {
        memcpy(session->client_confirm_key, keys.client_confirm_key, KEY_SIZE);
        memcpy(session->server_confirm_key, keys.server_confirm_key, KEY_SIZE);
        made = open_direction(&session->sending, client ? &keys.client_to_server : &keys.server_to_client,
                              true) &&
               open_direction(&session->receiving, client ? &keys.server_to_client : &keys.client_to_server,
                              false);
    }
    OPENSSL_cleanse(secrets, sizeof secrets);
    OPENSSL_cleanse(&keys, sizeof keys);
    EVP_PKEY_free(session->own_key);
    EVP_PKEY_free(session->lasting_key);
    session->own_key = session->lasting_key = nullptr;
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
    if (!_kex_head_is(session, in, in_len, MESSAGE_SERVER_HELLO, SERVER_HELLO_SIZE))
        return KEXCLI_FAILURE;
    memcpy(session->server_hello, in, SERVER_HELLO_SIZE);
    if (!make_keys(session) ||
        !proof_holds(session, session->server_confirm_key, HELLO_SIZE, session->server_hello + HELLO_SIZE))
        return KEXCLI_FAILURE;
    _kex_put_head(session, finish, MESSAGE_CLIENT_FINISH);
    if (!make_proof(session, session->client_confirm_key, SERVER_HELLO_SIZE, finish + HEAD_SIZE))
        return KEXCLI_FAILURE;
    establish(session);
    return give_out(finish, CLIENT_FINISH_SIZE, out, out_len, KEXCLI_SEND_LAST);
}

// The client says which exchange it wants. A server with a lasting key goes on answering clients that ask for
// no proof: refusing them would protect nobody, since whoever stands in the middle of such a client's
// connection asks for the proof himself.
static bool take_version(kex_session *session, const uint8_t *hello, size_t length)
{
    session->version = length > 2 ? hello[2] : 0;
    return session->version == VERSION_UNPROVED ||
           (session->version == VERSION_PROVED && session->lasting_key != nullptr);
}

static int server_answers(kex_session *session, const uint8_t *in, size_t in_len, uint8_t *out,
                          int32_t *out_len)
{
    if (in_len == 0)
        return KEXCLI_RECEIVE;
    if (!take_version(session, in, in_len) ||
        !_kex_head_is(session, in, in_len, MESSAGE_CLIENT_HELLO, CLIENT_HELLO_SIZE))
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
    if (!_kex_head_is(session, in, in_len, MESSAGE_CLIENT_FINISH, CLIENT_FINISH_SIZE) ||
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
