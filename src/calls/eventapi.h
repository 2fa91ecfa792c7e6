// Events and broadcasts: subscriptions of a context. The calls are in vorn/events.h.
#ifndef VORN_CALLS_EVENTAPI_H
#define VORN_CALLS_EVENTAPI_H

#include "vorn/events.h"

struct wthr_var;

extern "C" {

struct subscr_elem {
    char name[36];  // of the event, NUL-terminated; empty: a free row
};
static_assert(sizeof(subscr_elem) == 36);

// The table. The first and the last take msg_mutex; the one between doesn't, and its result is good until
// the table grows: a caller that has to be sure holds msg_mutex.
int _make_subscr_desc(const char *name, wthr_var *block);  // descriptor, or -1 without memory
char *_get_event_name(int desc, wthr_var *block);          // null if there is no such subscription
int _delete_subscr_desc(int desc, wthr_var *block);        // 1, or -1 for a number outside the table

// Sends one message: to one node, or with a `lnid` that is null, "" or "*" to all. 1, or -1 with tperrno set.
int _tpbroadcast(const char *lnid, const char *usrname, const char *cltname, char *data, long len, long flags,
                 wthr_var *block);
}

#endif
