// Producers, consumers and browsers. The calls are in vorn/kmq.h.
#ifndef VORN_KMQ_KMQOBJ_H
#define VORN_KMQ_KMQOBJ_H

#include "kmq/kmqapi.h"

extern "C" {

// What _create_something makes.
constexpr int KMQ_MAKE_SESSION = 0, KMQ_MAKE_PRODUCER = 1, KMQ_MAKE_CONSUMER = 2;
// Asks the server for an object and makes it: identified by the reply, named by the request, linked nowhere.
// The request of a producer or consumer has an object_names behind its header, and stays the caller's. The
// object is the caller's; null with tperrno set.
void *_create_something(int kind, msg_header *message, wthr_var *block);

// Among the objects of the session; null.
kmq_producer *_search_prod_by_id(kmq_session *session, int id);
kmq_consumer *_search_cons_by_id(kmq_session *session, int id);
}

#endif
