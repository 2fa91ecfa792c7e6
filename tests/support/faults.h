// Faults put under the library at link time: allocation, send, recv, select, connect and the clock.
//
// By default each call goes straight through and is counted. A test arms what it needs; every test runs in a
// process of its own, so nothing has to be disarmed at the end. Calls of other shared libraries (and operator
// new) are not touched, and the scripted peer uses calls that aren't wrapped.
#ifndef VORN_TESTS_SUPPORT_FAULTS_H
#define VORN_TESTS_SUPPORT_FAULTS_H

#include <stddef.h>

#include <functional>

namespace faults {

enum call { ALLOCATE, SEND, RECV, SELECT, CONNECT, CALLS };

// Calls since the last reset() of the counters, those that were made to fail included. Allocations are
// counted only while allocation is armed (arm_allocations or fail_allocation).
int count(call which);
void reset();  // counters to 0, everything disarmed

// The n-th allocation from now on fails (1: the next one); with `from_then_on` all later ones too.
void fail_allocation(int nth, bool from_then_on = false);
void arm_allocations();     // count only
void disarm_allocations();  // the count stays readable
// Allocations of more than this many bytes fail, as where memory is short; 0 takes the limit away.
void limit_allocation(size_t most_bytes);
// True if the armed failure has happened. A sweep goes on until a run in which it has not.
bool allocation_failed();

// The n-th call from now on (1: the next one), and `times` - 1 behind it, fail with `error`.
// For RECV and SEND an `error` of 0 gives the result 0: a closed peer.
void fail(call which, int nth, int error, int times = 1);

// send and recv move at most this many bytes a call; 0 takes the limit away.
void limit(call which, int most_bytes);

// Runs `action` just before the n-th call from now on, in the calling thread: the way to let something happen
// while the library is on its way into a wait.
void before(call which, int nth, std::function<void()> action);

// Seconds added to what time() gives; `step_at_call` moves the clock on by `seconds` at the n-th time() call.
void shift_clock(long seconds);
void step_clock_at_call(int nth, long seconds);
int clock_reads();

// The time limit of the last select, in microseconds; -1 without one.
long long last_select_limit();

// How long a test waits for what must come. Far longer than a busy machine takes for anything: only a failure
// costs it.
constexpr int PATIENCE_SECONDS = 40;

// Waits until the count of a call has reached `least`. False if it hasn't when the patience is at an end.
bool wait_for_calls(call which, int least);
// Waits for anything: polls `done`. False if it never held.
bool eventually(const std::function<bool()> &done);

}

#endif
