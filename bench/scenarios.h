// The scenarios. Each runs in a process of its own, since the library's state is process-wide.
#ifndef VORN_BENCH_SCENARIOS_H
#define VORN_BENCH_SCENARIOS_H

#include "harness.h"
#include "servers.h"

// Round trips on one thread, against the responder and against clhsim.
void calls(const settings &chosen, placement where);
void calls_to_clhsim(const settings &chosen, placement where);
// A window of asynchronous calls.
void window(const settings &chosen, placement where);
// A conversation's turns, and transactions of one call.
void turns(const settings &chosen, placement where);
void transactions(const settings &chosen, placement where);
// Requests into a queue, messages and answers out of it; calls to all groups of a service.
void queues(const settings &chosen, placement where);
void multicasts(const settings &chosen, placement where);
// Enciphered sessions beside plain ones; a move to another server under load; the key store.
void enciphered(const settings &chosen, placement where);
void rolling(const settings &chosen, placement where);
void keys(const settings &chosen, placement where);
// The message service: sends and receives.
void messages(const settings &chosen, placement where);
// 1 to 16 threads, on one connection and on one each.
void threads(const settings &chosen, placement where);
// What doesn't talk to the server runs on one core, wherever it is asked to.
void buffers(const settings &chosen, placement where);
void frames(const settings &chosen, placement where);
// Field buffers: single calls, a record beside protobuf and flatbuffers, occurrences, the wire form, threads.
void field_calls(const settings &chosen, placement where);
void field_records(const settings &chosen, placement where);
void field_loops(const settings &chosen, placement where);
void field_wire(const settings &chosen, placement where);
void field_threads(const settings &chosen, placement where);
// Ten properties of a message, beside ten fields and protobuf.
void properties(const settings &chosen, placement where);
// An order as plain text, beside protobuf's text format.
void texts(const settings &chosen, placement where);

// Steps that they share. All of them end the program on an error.
void open_session(long flags);
// A responder where it belongs, which lets so many requests stand, this thread where the client belongs, and a
// session between the two; and their end.
server begin_trips(placement where, long flags = 0, uint32_t outstanding = 256);
void end_trips(server *peer);
char *new_carray(size_t size);

// One call of ECHO; `data` is sent, `reply` receives.
trip call_trip(size_t size);
// One message over a bare connection that carries as many bytes as a call with `size` bytes of data, and `behind`
// bytes more one way, once the answer is there.
trip bare_trip(const server &peer, size_t size, size_t behind = 0);

#endif
