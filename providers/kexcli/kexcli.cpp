// The five calls of libkexcli: the handle's life, and AES-256-GCM over the messages of a session.
//
// A message's nonce is made of its number in its direction, and nothing of it travels: a message that is
// lost, repeated or out of order meets another nonce than it was enciphered with, and its tag doesn't fit.
#include "kexcli.h"

#include <limits.h>
#include <new>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <stdlib.h>
#include <string.h>

#include "session.h"

extern "C" {

void *_dh_init_sess(int mode, int)
{
    if (mode != KEXCLI_MODE_CLIENT && mode != KEXCLI_MODE_SERVER)
        return nullptr;
    void *memory = aligned_alloc(alignof(kex_session), sizeof(kex_session));
    if (memory == nullptr)
        return nullptr;
    kex_session *session = new (memory) kex_session{};
    session->mode = mode;
    ERR_set_mark();
    bool made = _kex_take_lasting_key(session) && _kex_make_key(session);
    ERR_pop_to_mark();
    if (made)
        return session;
    _dh_close_sess(session);
    return nullptr;
}

// The error queue of OpenSSL is left as it was found: an application that uses OpenSSL itself looks into it
// after its own calls.
int _dh_negotiate(void *handle, const void *in, int in_len, void *out, int32_t *out_len)
{
    kex_session *session = static_cast<kex_session *>(handle);
    if (session == nullptr || out == nullptr || out_len == nullptr || in_len < 0 ||
        (in == nullptr && in_len > 0))
        return KEXCLI_FAILURE;
    *out_len = 0;
    // A step too much doesn't break a session that stands.
    if (session->state == KEX_ESTABLISHED)
        return KEXCLI_FAILURE;
    ERR_set_mark();
    int result = _kex_step(session, static_cast<const uint8_t *>(in), static_cast<size_t>(in_len),
                           static_cast<uint8_t *>(out), out_len);
    ERR_pop_to_mark();
    if (result == KEXCLI_FAILURE)
        session->state = KEX_FAILED;
    return result;
}

// The nonce of the next message: the base, with the number xor'ed big-endian into its last 8 bytes.
static void make_nonce(const kex_direction *direction, uint8_t *nonce)
{
    memcpy(nonce, direction->nonce_base, NONCE_SIZE);
    for (size_t i = 0; i < sizeof direction->number; i++)
        nonce[NONCE_SIZE - 1 - i] ^= static_cast<uint8_t>(direction->number >> (8 * i));
}

// Sets the nonce and takes the head in as data that the tag covers.
static bool begin_message(const kex_direction *direction, const uint8_t *head)
{
    uint8_t nonce[NONCE_SIZE];
    int written = 0;
    make_nonce(direction, nonce);
    return EVP_CipherInit_ex(direction->cipher, nullptr, nullptr, nullptr, nonce, -1) == 1 &&
           EVP_CipherUpdate(direction->cipher, nullptr, &written, head, HEAD_SIZE) == 1;
}

static bool seal(const kex_session *session, uint8_t *destination, const uint8_t *source, int length)
{
    const kex_direction *direction = &session->sending;
    uint8_t *content = destination + HEAD_SIZE;
    int written = 0, last = 0;
    _kex_put_head(session, destination, MESSAGE_SEALED);
    return begin_message(direction, destination) &&
           EVP_CipherUpdate(direction->cipher, content, &written, source, length) == 1 && written == length &&
           EVP_CipherFinal_ex(direction->cipher, content + length, &last) == 1 && last == 0 &&
           EVP_CIPHER_CTX_ctrl(direction->cipher, EVP_CTRL_AEAD_GET_TAG, TAG_SIZE, content + length) == 1;
}

// `length` is that of the message without head and tag.
static bool unseal(const kex_direction *direction, uint8_t *destination, const uint8_t *source, int length)
{
    const uint8_t *content = source + HEAD_SIZE;
    uint8_t tag[TAG_SIZE], rest[16];
    int written = 0, last = 0;
    memcpy(tag, content + length, TAG_SIZE);
    return begin_message(direction, source) &&
           EVP_CipherUpdate(direction->cipher, destination, &written, content, length) == 1 &&
           written == length &&
           EVP_CIPHER_CTX_ctrl(direction->cipher, EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, tag) == 1 &&
           EVP_CipherFinal_ex(direction->cipher, rest, &last) == 1 && last == 0;
}

// A handle whose exchange has come to its end, and a direction that has a number left.
static bool can_go_on(const kex_session *session, const kex_direction *direction)
{
    return session->state == KEX_ESTABLISHED && direction->number < MESSAGE_LIMIT;
}

int _dh_encrypt(void *handle, void *destination, const void *source, int length)
{
    constexpr int OVERHEAD = SEAL_OVERHEAD;
    kex_session *session = static_cast<kex_session *>(handle);
    if (session == nullptr || destination == nullptr || source == nullptr || length < 1 ||
        length > INT_MAX - OVERHEAD)
        return -1;
    kex_direction *direction = &session->sending;
    if (!can_go_on(session, direction))
        return -1;
    ERR_set_mark();
    bool sealed =
        seal(session, static_cast<uint8_t *>(destination), static_cast<const uint8_t *>(source), length);
    ERR_pop_to_mark();
    // The number is used up even by a message that failed halfway: a nonce must never serve twice.
    direction->number++;
    return sealed ? length + OVERHEAD : -1;
}

int _dh_decrypt(void *handle, void *destination, const void *source, int length)
{
    constexpr int OVERHEAD = SEAL_OVERHEAD;
    kex_session *session = static_cast<kex_session *>(handle);
    if (session == nullptr || destination == nullptr || source == nullptr || length <= OVERHEAD)
        return 0;
    kex_direction *direction = &session->receiving;
    const uint8_t *message = static_cast<const uint8_t *>(source);
    size_t size = static_cast<size_t>(length);
    if (!can_go_on(session, direction) || !_kex_head_is(session, message, size, MESSAGE_SEALED, size))
        return 0;
    ERR_set_mark();
    bool unsealed = unseal(direction, static_cast<uint8_t *>(destination), message, length - OVERHEAD);
    ERR_pop_to_mark();
    if (!unsealed) {
        // The bytes were deciphered before the tag could tell; nobody may see them.
        OPENSSL_cleanse(destination, size - SEAL_OVERHEAD);
        return 0;
    }
    direction->number++;
    return length - OVERHEAD;
}

void _dh_close_sess(void *handle)
{
    kex_session *session = static_cast<kex_session *>(handle);
    if (session == nullptr)
        return;
    EVP_PKEY_free(session->own_key);
    EVP_PKEY_free(session->lasting_key);
    EVP_CIPHER_CTX_free(session->sending.cipher);
    EVP_CIPHER_CTX_free(session->receiving.cipher);
    OPENSSL_cleanse(session, sizeof *session);
    free(session);
}

}  // extern "C"
