// The scenarios. Each runs in a process of its own, since the library's state is process-wide.
#ifndef VORN_BENCH_SCENARIOS_H
#define VORN_BENCH_SCENARIOS_H

#include "harness.h"
#include "servers.h"

void calls_on_one_core(const settings &chosen);
void calls_unpinned(const settings &chosen);
void calls_to_clhsim_on_one_core(const settings &chosen);
void calls_to_clhsim_unpinned(const settings &chosen);
void threads_unpinned(const settings &chosen);
void threads_on_one_core(const settings &chosen);
void window_on_one_core(const settings &chosen);
void window_unpinned(const settings &chosen);
void buffers(const settings &chosen);
void frames(const settings &chosen);

// Steps that they share. All of them end the program on an error.
void open_session(long flags);
char *new_carray(size_t size);

// One call of ECHO; `data` is sent, `reply` receives.
trip call_trip(size_t size);
// One message over a bare connection that carries as many bytes as a call with `size` bytes of data.
trip bare_trip(const server &peer, size_t size);

#endif
