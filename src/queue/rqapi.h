// Reliable queues. The calls themselves are in vorn/queue.h.
#ifndef VORN_QUEUE_RQAPI_H
#define VORN_QUEUE_RQAPI_H

struct wthr_var;

extern "C" {

// Names of the parts of a queue, as they stand in `svcname`: all, failed, requests, replies.
constexpr int QUEUE_PARTS = 4;
extern char _rq_sub_queue_name[QUEUE_PARTS][32];

// Takes a message out of a queue; with TPBLOCK it keeps trying. `ctl` isn't looked at. 1, or -1 with tperrno
// set. *data is replaced as by any receive.
int _tpdeq(char *qname, char *svc, void *ctl, char **data, long *len, long flags);
// One round trip of it. 0, or an error number.
int _tpdeq_process(int rqno, char *svc, void *unused, char **data, long *len, long flags, wthr_var *block);
// Fetches the answer to an enqueued request. 1, or -1 with tperrno set.
int _tpqgetrply(char *qname, char **data, long *len, long flags);
}

#endif
