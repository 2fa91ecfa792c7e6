/* Message service: queues and topics in the manner of an enterprise message API, over the session of the
 * context. A message service session (kmq_session) names a server; in it are made producers, which send,
 * consumers, which receive, and browsers, which look at a queue without taking anything. Messages are field
 * buffers with a body and named properties.
 *
 * Lifecycle. A session lives from one of the three create calls until kmq_close_session, or the end of the
 * context's session: tpend, tpreset, and behind a lost connection also a tpstart or first call that fails;
 * its producers, consumers and browsers from their create call until their closing or that of the session.
 * Don't use a pointer afterwards. The server may close a session: every call on it then fails with TPECLOSE
 * until the application closes it, too, which sends nothing. A connection that is lost leaves the objects.
 * All belong to the context in which they were made. Nothing here is locked: one thread at a time uses an
 * object, two consumers of one context must not wait at the same time (they could get each other's
 * messages), and a session isn't closed while another thread is in it.
 *
 * Errors are told by tperrno, and all calls but three clear it at their entry. kmq_sendex, kmq_recvex and
 * kmq_ack DON'T: a number that an earlier failure left there makes the first two take a good reply for a
 * failure, and stays behind the third. A received message then stands in the buffer all the same,
 * unacknowledged, and a sent one has been sent. Calls in XA sessions clear it on the way; don't count on it.
 * Clear it before each of the three: tperrno = 0. kmq_browser_nextmsg, kmq_browser_get_msgselector and
 * kmq_browser_get_queue don't clear it either, and set it only where it was 0 or as told. */
#ifndef VORN_KMQ_H
#define VORN_KMQ_H

#include "flags.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The objects of the service. They are the library's: an application only hands their addresses over. */
typedef struct kmq_session kmq_session;   /* a session with one server */
typedef struct kmq_producer kmq_producer; /* sends to one queue or topic */
typedef struct kmq_consumer kmq_consumer; /* receives from one queue or topic; also a browser */

/* Flags of a session, as the server gets them. */
#define KMQ_ACKMODE1 0x02   /* acknowledge mode 1: each message at its receipt; kmq_ack may follow */
#define KMQ_ACKMODE2 0x40   /* acknowledge mode 2: none at its receipt, each by kmq_ack */
#define KMQ_TRANSACTED 0x80 /* transacted: kmq_commit and kmq_rollback end its work */
#define KMQ_ASYNC 0x400     /* from kmq_create_async_session */
#define KMQ_XA 0x800        /* from kmq_create_xa_session: part of the tx_* transaction */

/* --- Messages.
 *
 * A message is a typed buffer of type FIELD; it doesn't grow. Properties are kept as pairs of a name and a
 * value of any field type (vorn/fields.h: 1 char, 2 short, 3 int, 4 long, 5 float, 6 double, 7 string, 8
 * carray), the body as one pair more. Names that begin with "$" or "@" below are reserved:
 * "$Data", "$Destination", "$DeliveryMode", "$Expiration", "$Priority", "$MessageID", "$TimeStamp",
 * "$Redelivered", "@KMQStartSec@", "@KMQStartUsec@". */

/* A message with room for `size` bytes and five percent more. `owner` is any pointer but null. Null with
 * TPEINVAL, TPESYSTEM or TPEOS. Free it with kmq_free (or tpfree). */
char *kmq_alloc(void *owner, int size);
/* Frees a message; null, and what is no field buffer, is left alone. */
void kmq_free(char *msg);

/* A property by its name. `*type` (which may be null) takes its field type, `*len` bytes are at `value`, and
 * `*len` takes the property's: of a string without a NUL, which isn't copied; of a long 4, its low half. What
 * the header tells has names of its own:
 *
 *   "$MessageID"     string, 12 hexadecimal digits; `*len` counts the NUL
 *   "$TimeStamp"     int: seconds since 1970 at sending; after kmq_sendex, the seconds that it took
 *   "$Destination"   string, the queue of the producer or consumer; `*len` doesn't count the NUL
 *   "$Redelivered"   int, 1 or 0; `*len` stays
 *   "$DeliveryMode"  int, 1 persistent or 0; the room isn't looked at
 *   "$Expiration"    int, the time to live that the sender gave; the room isn't looked at
 *   "$Priority"      int, as the header has it: of a message that the server has seen, its high 16 bits are
 *                    part of the message's identity; the room isn't looked at
 *
 * 1, or -1 with tperrno: TPEINVAL (null, no message, empty name, too little room), TPENOENT, TPESYSTEM
 * ("$Destination" of a message whose session or object is gone). */
int kmq_get_property(char *msg, char *name, int *type, void *value, long *len);

/* Sets a property, or replaces it. `len` counts for type 8 alone. A number that replaces a longer string
 * leaves the string's rest in the buffer. 1, or -1 with TPEINVAL (null, no message, empty or reserved name,
 * negative length, unknown type, no room). */
int kmq_set_property(char *msg, char *name, int type, void *value, long len);

/* The body: any bytes. `*len` is the room at `data` and takes the length. 1, or -1 with TPEINVAL (null, no
 * message, too little room), TPENOENT (no body). */
int kmq_get_body(char *msg, void *data, long *len); /* fetches the body */
int kmq_set_body(char *msg, void *data, long len);  /* sets the body */

/* --- Sessions. `name` has 1 to 14 characters and selects the server. A session of the context is opened as
 * tpstart(NULL) would, if there is none. Null with tperrno: TPEINVAL (name, mode), TPEPROTO (transacted with
 * a mode), TPESYSTEM, what tpstart or the server gives. The last argument of each is only traced. */

/* A session. `transacted` above 0: messages are sent and acknowledged by kmq_commit. Otherwise `ackmode` 0
 * and 1 acknowledge each message when it is received, 2 leaves it to kmq_ack; in mode 0 kmq_ack fails. */
kmq_session *kmq_create_session(const char *name, int transacted, int ackmode, int extra);
/* A session whose sends and receives are part of the transaction of tx_begin. */
kmq_session *kmq_create_xa_session(const char *name, int extra);
/* A session whose consumers need names of their own. The library keeps `handler` and never calls it. */
kmq_session *kmq_create_async_session(const char *name, void *handler, int extra);

/* Closes the session's producers and consumers, and the session. 1, or -1 with tperrno: TPEINVAL, TPESYSTEM,
 * what the server gives; then it stays, without its objects. 1 may leave in tperrno why one of these couldn't
 * be closed. */
int kmq_close_session(kmq_session *session, int flags);

/* End of a transacted session's work so far. A commit turns into a rollback, and succeeds if that does,
 * where the context's tx transaction can't be committed any more. 1, or -1 with tperrno: TPEINVAL, TPECLOSE
 * (closed by the server), TPEPROTO (not transacted), TPESYSTEM, TPETIME (30 seconds), what the server
 * gives. */
int kmq_commit(kmq_session *session, int flags);   /* makes the work last */
int kmq_rollback(kmq_session *session, int flags); /* undoes the work */
/* Has what isn't acknowledged delivered again; for sessions that aren't transacted. Result and errors as of
 * kmq_commit. */
int kmq_recover(kmq_session *session, int flags);

/* --- Producers, consumers, browsers. `queue` has 1 to 15 characters, `subname` and `consname` up to 31,
 * `selector` up to 1023; these three may be null. Null or -1 with tperrno: TPEINVAL, TPECLOSE, TPEPROTO (name
 * of another consumer in an asynchronous session), TPESYSTEM, what the server gives. */

/* A producer. `kind` 0: a queue, 1: a topic. */
kmq_producer *kmq_create_producer(kmq_session *session, const char *queue, int kind, const char *subname,
                                  int extra);
/* Closes a producer. With any answer of the server it is gone, also where the call fails. */
int kmq_close_producer(kmq_producer *producer, int flags);

/* A consumer. `kind` 0: a queue, 1: a topic, 2: a topic with the durable subscription `subname`, which
 * outlives the consumer. `flags`: 0; kmq_create_browser has its own. */
kmq_consumer *kmq_create_consumer(kmq_session *session, const char *queue, int kind, const char *subname,
                                  const char *selector, const char *consname, int flags);
/* Closes a consumer, as kmq_close_producer does. */
int kmq_close_consumer(kmq_consumer *consumer, int flags);
/* Ends a durable subscription. TPETIME after 30 seconds. */
int kmq_unsubscribe_durable_subscriber(kmq_session *session, const char *queue, const char *subname,
                                       int extra);

/* A browser; bit 1 of `flags` is passed on to the server. */
kmq_consumer *kmq_create_browser(kmq_session *session, const char *queue, const char *selector, int flags);
/* Closes a browser, as kmq_close_producer does. */
int kmq_close_browser(kmq_consumer *browser, int flags);
/* The message behind the last one, in `*msg`, which a larger one replaces. Waits without a limit. 1, or -1
 * with tperrno: TPEINVAL, TPEOTYPE (no typed buffer), TPECLOSE, TPESYSTEM, what the server gives at the
 * queue's end. Where no answer comes at all, the buffer has been freed and `*msg` is null. */
int kmq_browser_nextmsg(kmq_consumer *browser, char **msg, int extra);
/* Copy a text with its NUL; `*len` is the room and takes the length with the NUL. A null `len` is no test.
 * -1 with TPEINVAL, TPENOENT (no selector), TPESYSTEM (no queue). */
int kmq_browser_get_msgselector(kmq_consumer *browser, char *buffer, long *len,
                                int extra); /* copies the selector */
int kmq_browser_get_queue(kmq_consumer *browser, char *buffer, long *len,
                          int extra); /* copies the queue's name */

/* --- Traffic. Of `flags` only TPNOTRAN is read: with it a failure doesn't mark the open transaction
 * rollback-only. These three calls don't clear tperrno, which is told at the top. */

/* Sends a message. `delivery_mode` 0, or 1 persistent; `priority` and `time_to_live` are for the server. The
 * message becomes what the server made of it, with its identity. 1, or -1 with tperrno: TPEINVAL (also a
 * reply larger than the message), TPESYSTEM, TPECLOSE, TPEOS, TPETIME (30 seconds), what the server gives. */
int kmq_sendex(kmq_producer *producer, char *msg, int delivery_mode, int priority, int time_to_live,
               long flags);

/* Receives the next message into `*msg`, a typed buffer that a larger message replaces: take the pointer
 * back. `timeout` in seconds, 0: no limit. After a time-out the request stands: the message that comes in
 * the meantime is what the next receive gives, at once and without acknowledging it. 1, or -1 with tperrno:
 * TPEINVAL, TPEOTYPE, TPECLOSE, TPESYSTEM, TPETIME, what the server gives. */
int kmq_recvex(kmq_consumer *consumer, char **msg, int timeout, long flags);

/* Acknowledges a received message (`flags` 1) or refuses it (2), in sessions of mode 1 or 2: in mode 1 once
 * more, after its receipt did. 1, or -1 with tperrno: TPEINVAL, TPEITYPE (no received message), TPESYSTEM,
 * TPECLOSE, TPEPROTO (mode 0, a transacted session or one of tx_* transactions). */
int kmq_ack(char *msg, int flags);

#ifdef __cplusplus
}
#endif
#endif
