// Enciphered sessions.
//
// The exchange runs on the thread that starts the session, before the start message. Afterwards messages are
// enciphered under msg_mutex, by whatever thread sends, and deciphered by the thread with the reader role;
// the two may run at once. The handle of the session can go at any time, when another thread or a signal
// handler closes the connection: crypt_mutex keeps it as long as it is in use, one mutex a direction, so that
// neither waits for the other.
#include "wire/envelope.h"

#include "buffers/dencode.h"
#include "buffers/sdli.h"
#include "kexcli.h"
#include "runtime/mthr.h"
#include "runtime/sigapi.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/frames.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>

extern "C" {

constexpr int STEP_ROOM = KEXCLI_MAX_OUTPUT;
constexpr int OUTPUT_ROOM = 280;  // what a provider may write before it is found too long
constexpr int STEP_SECONDS = 60;
constexpr uint32_t ENCIPHERED_MSGTYPE = 3;  // in every envelope that isn't a step, whatever its message

// --- The session of the cipher.

int decipher(void *to, const void *payload, int length, wthr_var *block)
{
    pthread_mutex_t *in = &block->crypt_mutex[CRYPT_IN];
    _thread_mutex_lock(in);
    int result = _dh_decrypt(block->crypt_sess, to, payload, length);
    _thread_mutex_unlock(in);
    return result;
}

static int encipher(void *to, const void *message, int length, wthr_var *block)
{
    pthread_mutex_t *out = &block->crypt_mutex[CRYPT_OUT];
    _thread_mutex_lock(out);
    int result = _dh_encrypt(block->crypt_sess, to, message, length);
    _thread_mutex_unlock(out);
    return result;
}

static bool take_mutex(pthread_mutex_t *mutex, bool may_wait)
{
    return (may_wait ? _thread_mutex_lock(mutex) : pthread_mutex_trylock(mutex)) == 0;
}

void end_cipher(wthr_var *block)
{
    bool may_wait = !in_signal_handler();
    if (!take_mutex(&block->crypt_mutex[CRYPT_IN], may_wait))
        return;
    if (take_mutex(&block->crypt_mutex[CRYPT_OUT], may_wait)) {
        _dh_close_sess(block->crypt_sess.exchange(nullptr));
        _thread_mutex_unlock(&block->crypt_mutex[CRYPT_OUT]);
    }
    _thread_mutex_unlock(&block->crypt_mutex[CRYPT_IN]);
}

// --- The exchange.

// A step in the exchange of keys, in either direction, with room for STEP_ROOM bytes at least.
static msg_header *make_step(void)
{
    msg_header *step = (msg_header *)calloc(1, STEP_ROOM + BLOCK_OVERHEAD);
    if (step == nullptr)
        set_tperrno(TPEOS);
    return step;
}

static void fill_step(msg_header *step, int length)
{
    memset(step, 0, sizeof *step);
    step->magic = MESSAGE_MAGIC;
    step->buftype = BUF_NEGOTIATION;
    step->msgtype = MSG_TPSTART;
    step->bufsize = length;
    step->datalen = length;
}

static int negotiate(const msg_header *input, void *output, int32_t *length, wthr_var *block)
{
    pthread_mutex_t *in = &block->crypt_mutex[CRYPT_IN];
    *length = 0;
    _thread_mutex_lock(in);
    int state =
        _dh_negotiate(block->crypt_sess, (const char *)input + HEADER_SIZE, input->datalen, output, length);
    _thread_mutex_unlock(in);
    return state;
}

static bool send_step(msg_header *step, const void *bytes, int length, wthr_var *block)
{
    fill_step(step, length);
    memcpy(message_data(step), bytes, (size_t)length);
    return _send_csmsg_to_clh(step, block) > 0;
}

// Waits for the peer's step on the block of ours, which is used up. Null with tperrno set.
static msg_header *receive_step(msg_header *step, wthr_var *block)
{
    fill_step(step, STEP_ROOM);
    msg_header *answer = _read_csmsg_from_clh_timeout(step, STEP_SECONDS, block);
    if (answer != nullptr)
        return answer;
    free(step);
    if (get_tperrno() == 0)  // something that no key deciphers
        set_tperrno(TPESYSTEM);
    return nullptr;
}

int _vorn_negotiate(wthr_var *block)
{
    end_cipher(block);  // one that a signal handler had to leave
    void *session = _dh_init_sess(KEXCLI_MODE_CLIENT, block->clhfd);
    block->crypt_sess = session;
    if (session == nullptr) {
        set_tperrno(TPESYSTEM);
        return -1;
    }
    msg_header *input = make_step();
    while (input != nullptr) {
        char output[OUTPUT_ROOM];
        int32_t length;
        int state = negotiate(input, output, &length, block);
        free(input);
        if (state == KEXCLI_FINISHED)
            return 1;
        bool sends = state == KEXCLI_EXCHANGE || state == KEXCLI_SEND_LAST;
        if ((!sends && state != KEXCLI_RECEIVE) || (sends && (length < 0 || length > STEP_ROOM))) {
            set_tperrno(TPEOS);
            return -1;
        }
        msg_header *step = make_step();
        if (step == nullptr)
            return -1;
        if (sends && !send_step(step, output, length, block)) {
            free(step);
            return -1;
        }
        if (state == KEXCLI_SEND_LAST) {
            free(step);
            return 1;
        }
        input = receive_step(step, block);
    }
    return -1;
}

// --- Sending.

static void put_envelope_head(char *head, uint32_t length, uint32_t msgtype)
{
    put_word(head, FRAME_ENVELOPE);
    put_word(head + 4, length);
    put_word(head + 8, BUF_NEGOTIATION);
    put_word(head + 12, msgtype);
}

static int fail_to_send(char *frame)
{
    free(frame);
    errno = 0;  // an earlier call's would be taken for this one's
    set_tperrno(TPEOS);
    return -1;
}

// The head of the envelope takes the place of the last 16 bytes of the header, so that it and the payload are
// one piece.
static int send_in_clear(msg_header *message, int datalen, wthr_var *block)
{
    if (datalen < 0 || datalen > INT32_MAX - ENVELOPE_FRAME_HEAD)
        return fail_to_send(nullptr);
    uint32_t msgtype = get_word(&message->msgtype);
    char *head = message_data(message) - ENVELOPE_FRAME_HEAD;
    put_envelope_head(head, (uint32_t)datalen, msgtype);
    int length = datalen + ENVELOPE_FRAME_HEAD;
    return _vorn_writen(block->clhfd, head, length) == length ? 1 : -1;
}

// Enciphers a message and sends it; `*written` tells whether the socket took all of it. 1, or -1 with tperrno
// set if it couldn't be enciphered.
static int send_enciphered(const msg_header *message, int datalen, bool *written, wthr_var *block)
{
    int64_t length = (int64_t)datalen + HEADER_SIZE;
    int64_t size = length + KEXCLI_MAX_OVERHEAD + ENVELOPE_FRAME_HEAD;
    char *frame = datalen < 0 || size > INT32_MAX ? nullptr : (char *)malloc((size_t)size);
    if (frame == nullptr)
        return fail_to_send(frame);
    int payload = encipher(frame + ENVELOPE_FRAME_HEAD, message, (int)length, block);
    if (payload < 0 || payload > length + KEXCLI_MAX_OVERHEAD)
        return fail_to_send(frame);
    put_envelope_head(frame, (uint32_t)payload, ENCIPHERED_MSGTYPE);
    int size_of_frame = payload + ENVELOPE_FRAME_HEAD;
    *written = _vorn_writen(block->clhfd, frame, size_of_frame) == size_of_frame;
    int cause = errno;
    if (!*written)
        shutdown(block->clhfd, SHUT_RDWR);  // the peer would refuse every message behind this one
    free(frame);
    errno = cause;
    return 1;
}

int _crypt_noenc_send(msg_header *message, wthr_var *block)
{
    int datalen = (int32_t)get_word(&message->datalen);
    if (get_word(&message->buftype) == (uint32_t)BUF_NEGOTIATION)
        return send_in_clear(message, datalen, block);
    bool written = false;
    int result = send_enciphered(message, datalen, &written, block);
    return result > 0 && written ? 1 : -1;
}

int _crypt_enc_send(msg_header *message, int datalen, wthr_var *block)
{
    bool written;
    return send_enciphered(message, datalen, &written, block);
}

// --- Reading.

// Turns the data of a deciphered message, which stays the caller's, into the block of `message`. The block,
// or null with tperrno set.
static msg_header *take_converted(msg_header *message, msg_header *plain)
{
    memcpy(message, plain, sizeof *message);
    int length = message->datalen;
    char *from = message_data(plain), *to = message_data(message);
    bool records = message->buftype == BUF_STRUCT;
    char *done = records ? _ntoh_data_sdl(message, from, to, &length) : _ntoh_data_fdl(message, from, to);
    if (done == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    message->datalen = length;
    return message;
}

// True if the data of a deciphered message fits the block of `message`, in its host form.
static bool has_room(const msg_header *message, const msg_header *plain)
{
    int host = 1, net = 1;
    bool records = plain->buftype == BUF_STRUCT;
    if (records && (_get_host_nw_stsize(plain->subtype, &host, &net) < 0 || host < 1 || net < 1))
        return false;
    return (int64_t)plain->datalen / net * host <= message->bufsize && plain->datalen <= message->bufsize;
}

msg_header *_read_crypt_data(msg_header *message, wthr_var *block)
{
    int length = message->datalen, fd = block->clhfd;
    bool is_step = message->msgtype == MSG_TPSTART + REPLY;
    if (length < 0 || message->bufsize < 0 || (is_step && length > message->bufsize)) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    char *payload = is_step ? message_data(message) : (char *)malloc((size_t)length + 1);
    if (payload == nullptr) {
        set_tperrno(TPEOS);
        return nullptr;
    }
    int got = _vorn_readn(fd, payload, length, block);
    if (got != length) {
        _clh_read_error(fd, got, 0, block);
        if (!is_step)
            free(payload);
        return nullptr;
    }
    if (is_step)
        return message;
    size_t room = (size_t)(message->bufsize > length ? message->bufsize : length);
    msg_header *plain = (msg_header *)malloc(room + BLOCK_OVERHEAD);
    int size = plain == nullptr ? 0 : decipher(plain, payload, length, block);
    free(payload);
    if (size < HEADER_SIZE || size > length) {
        free(plain);
        if (plain == nullptr)
            set_tperrno(TPEOS);
        return nullptr;
    }
    _ntoh_header(plain, plain);
    if (plain->datalen < 0 || plain->datalen > size - HEADER_SIZE) {
        free(plain);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    if (!has_wire_form(plain)) {
        plain->bufsize = (int32_t)room;
        free(message);
        return plain;
    }
    int32_t bufsize = message->bufsize;
    msg_header *converted = has_room(message, plain) ? take_converted(message, plain) : nullptr;
    if (converted == nullptr)
        set_tperrno(TPESYSTEM);
    message->bufsize = bufsize;
    free(plain);
    return converted;
}
}
