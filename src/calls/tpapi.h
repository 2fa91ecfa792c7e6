// Call and reply. The calls themselves are in vorn/calls.h.
#ifndef VORN_CALLS_TPAPI_H
#define VORN_CALLS_TPAPI_H

struct msg_header;
struct wthr_var;

extern "C" {

// The priority that was set for this request; the next one has the default again.
void take_priority(msg_header *message, wthr_var *block);

// tpacall to a server group (`target`), and to one process of it; -1: not directed.
int _tpacall(char *svc, int target, char *data, long len, long flags);
int _tpacall2(char *svc, int target, int process, char *data, long len, long flags);
}

#endif
