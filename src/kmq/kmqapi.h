// The message service: its sessions, and what its files share.
//
// Sessions hang in a ring of the context, producers and consumers in rings of their session. Nothing is
// locked but what the reading thread writes: `open` of a session, and the message that a consumer saved.
#ifndef VORN_KMQ_KMQAPI_H
#define VORN_KMQ_KMQAPI_H

#include "runtime/mthr.h"
#include "vorn/kmq.h"

#include <atomic>
#include <stddef.h>
#include <stdint.h>

struct msg_header;

extern "C" {

constexpr size_t KMQ_NAME = 16, KMQ_LONG_NAME = 32;

struct kmq_session {
    char name[KMQ_NAME];  // "_" and the name given; svcname of all its messages
    int32_t id;           // from the server
    uint32_t flags;       // KMQ_*
    int32_t producer_count, consumer_count;
    kmq_producer *producers;
    kmq_consumer *consumers;
    shared_int32 open;  // 0 once the server has closed it
    int32_t socket;     // clhfd at creation
    void *handler;      // of an asynchronous session; kept, never called
    kmq_session *next, *prev;
};

struct kmq_producer {
    kmq_session *session;
    int32_t id;      // from the server
    uint32_t flags;  // 0, or KMQ_TOPIC
    char queue[KMQ_NAME];
    char subname[KMQ_LONG_NAME];
    kmq_producer *next, *prev;
};

struct kmq_consumer {
    kmq_session *session;
    int32_t id;
    uint32_t flags;
    int32_t state;  // 1 while a request for a message is outstanding
    char queue[KMQ_NAME];
    char subname[KMQ_LONG_NAME];
    char consname[KMQ_LONG_NAME];
    char *selector;               // on the heap, or null
    uint32_t last_cd, last_word;  // what a browser saw last; all ones: nothing
    msg_header *saved;            // came while nobody waited; under msg_mutex
    kmq_consumer *next, *prev;
};

// Flags of producers and consumers.
constexpr uint32_t KMQ_CONSUMES = 0x02, KMQ_DURABLE = 0x40, KMQ_TOPIC = 0x80, KMQ_BROWSES = 0x800,
                   KMQ_BROWSES_ON = 0x1000;

// Words of a message's header that mean something else in this service.
//
//   prio           the producer or consumer that the message belongs to
//   cd             low word of the message's identity
//   callid[0]      time of sending, seconds since 1970
//   callid[1]      time to live, as the sender gave it
//   callid[2]      priority, as the sender gave it; the high 16 bits: high part of the message's identity
//   flags          KMQ_PERSISTENT, KMQ_IN_TRANSACTION, KMQ_REDELIVERED
constexpr int WORD_TIME = 0, WORD_EXPIRATION = 1, WORD_PRIORITY = 2;  // of callid
constexpr uint32_t KMQ_PERSISTENT = 0x02, KMQ_IN_TRANSACTION = 0x40, KMQ_REDELIVERED = 0x80;

constexpr int KMQ_REPLY_SECONDS = 30;  // of everything like a commit, and of sends

// Sessions.
kmq_session *_search_sess_by_id(int id, wthr_var *block);
int _close_session_notify(int waiter_id, int closed_id, wthr_var *block);  // true if the ids are equal
int _close_session_by_clhclose(void);
int _close_session_by_clhstart(int socket);
int _tms_check_tx_flag(kmq_session *session, wthr_var *block);
void close_kmq_sessions(wthr_var *block);  // at the end of the context's session
// The same without a word to the server, where the connection was lost before.
void forget_kmq_sessions(wthr_var *block);

// A request of the session, header only, with its name, identity and flags; null with TPESYSTEM.
msg_header *session_message(const kmq_session *session, int32_t msgtype, uint32_t flags);
// False, with tperrno set, for a session that isn't there (TPESYSTEM) or was closed by the server (TPECLOSE).
bool session_is_open(const kmq_session *session);
// The rings: `head` is where the pointer to the first record stands, `links` the place of `next` in a record.
void link_into_ring(void *head, void *record, size_t links);  // at the end
void unlink_from_ring(void *head, void *record, size_t links);

// Sets tperrno unless an earlier error stands there.
void set_tperrno_if_none(int code);

// Messages for consumers; expects nothing, takes msg_mutex. -1: no such consumer; frees the message.
int _save_in_consumer_buffer(msg_header *message, wthr_var *block);
// What was saved for the consumer that `want` names; null. Expects msg_mutex.
msg_header *take_saved_message(const msg_header *want, wthr_var *block);
}

#endif
