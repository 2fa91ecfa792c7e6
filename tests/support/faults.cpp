#include "support/faults.h"

#include <errno.h>
#include <stddef.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// What is armed for one kind of call. `fail_at` and `action_at` are positions in the count.
struct plan {
    std::atomic<int> made{0};
    std::atomic<int> fail_at{0};
    std::atomic<int> fail_times{0};
    std::atomic<int> error{0};
    std::atomic<int> most_bytes{0};
    std::atomic<int> action_at{0};
    std::mutex action_lock;
    std::function<void()> action;
};

plan plans[faults::CALLS];
std::atomic<long long> select_limit{-1};
std::atomic<bool> allocations_armed{false};
std::atomic<bool> allocation_has_failed{false};
std::atomic<size_t> largest_allocation{0};
std::atomic<long> clock_shift{0};
std::atomic<int> clock_calls{0};
std::atomic<int> clock_step_at{0};
std::atomic<long> clock_step{0};

// Counts a call and runs its action. True if it is to fail; errno is then set.
bool count_and_judge(plan &which)
{
    int nth = ++which.made;
    if (which.action_at.load() == nth) {
        std::function<void()> action;
        {
            std::lock_guard<std::mutex> guard(which.action_lock);
            action = std::exchange(which.action, nullptr);
        }
        if (action)
            action();
    }
    int first = which.fail_at.load();
    if (first == 0 || nth < first || nth - first >= which.fail_times.load())
        return false;
    errno = which.error.load();
    return true;
}

size_t cut(const plan &which, size_t length)
{
    size_t most = (size_t)which.most_bytes.load();
    return most != 0 && length > most ? most : length;
}

bool allocation_fails(size_t size)
{
    size_t most = largest_allocation.load(std::memory_order_relaxed);
    if (most != 0 && size > most) {
        errno = ENOMEM;
        return true;
    }
    if (!allocations_armed.load(std::memory_order_relaxed) || !count_and_judge(plans[faults::ALLOCATE]))
        return false;
    allocation_has_failed = true;
    return true;
}

}

namespace faults {

int count(call which)
{
    return plans[which].made.load();
}

void reset()
{
    for (plan &one : plans) {
        one.made = one.fail_at = one.fail_times = one.error = one.most_bytes = one.action_at = 0;
        std::lock_guard<std::mutex> guard(one.action_lock);
        one.action = nullptr;
    }
    allocations_armed = allocation_has_failed = false;
    clock_shift = clock_step = 0;
    clock_calls = clock_step_at = 0;
    largest_allocation = 0;
}

void fail_allocation(int nth, bool from_then_on)
{
    allocation_has_failed = false;
    fail(ALLOCATE, nth, ENOMEM, from_then_on ? 1 << 30 : 1);
    allocations_armed = true;
}

void limit_allocation(size_t most_bytes)
{
    largest_allocation = most_bytes;
}

void arm_allocations()
{
    plans[ALLOCATE].fail_at = 0;
    plans[ALLOCATE].made = 0;
    allocations_armed = true;
}

void disarm_allocations()
{
    allocations_armed = false;
}
bool allocation_failed()
{
    return allocation_has_failed;
}

void fail(call which, int nth, int error, int times)
{
    plan &one = plans[which];
    one.error = error;
    one.fail_times = times;
    one.fail_at = one.made + nth;
}

void limit(call which, int most_bytes)
{
    plans[which].most_bytes = most_bytes;
}

void before(call which, int nth, std::function<void()> action)
{
    plan &one = plans[which];
    {
        std::lock_guard<std::mutex> guard(one.action_lock);
        one.action = std::move(action);
    }
    one.action_at = one.made + nth;
}

void shift_clock(long seconds)
{
    clock_shift += seconds;
}

void step_clock_at_call(int nth, long seconds)
{
    clock_step = seconds;
    clock_step_at = clock_calls + nth;
}

int clock_reads()
{
    return clock_calls;
}

long long last_select_limit()
{
    return select_limit;
}

bool eventually(const std::function<bool()> &done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(PATIENCE_SECONDS);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

bool wait_for_calls(call which, int least)
{
    return eventually([&] { return count(which) >= least; });
}

}

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t rows, size_t size);
void *__real_realloc(void *old, size_t size);
ssize_t __real_send(int fd, const void *bytes, size_t length, int flags);
ssize_t __real_recv(int fd, void *bytes, size_t length, int flags);
int __real_select(int highest, fd_set *readable, fd_set *writable, fd_set *urgent, struct timeval *limit);
int __real_connect(int fd, const struct sockaddr *address, socklen_t length);
time_t __real_time(time_t *out);

void *__wrap_malloc(size_t size)
{
    return allocation_fails(size) ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t rows, size_t size)
{
    return allocation_fails(rows * size) ? nullptr : __real_calloc(rows, size);
}
void *__wrap_realloc(void *old, size_t size)
{
    return allocation_fails(size) ? nullptr : __real_realloc(old, size);
}

ssize_t __wrap_send(int fd, const void *bytes, size_t length, int flags)
{
    plan &mine = plans[faults::SEND];
    if (count_and_judge(mine))
        return errno == 0 ? 0 : -1;
    return __real_send(fd, bytes, cut(mine, length), flags);
}

ssize_t __wrap_recv(int fd, void *bytes, size_t length, int flags)
{
    plan &mine = plans[faults::RECV];
    if (count_and_judge(mine))
        return errno == 0 ? 0 : -1;
    return __real_recv(fd, bytes, cut(mine, length), flags);
}

int __wrap_select(int highest, fd_set *readable, fd_set *writable, fd_set *urgent, struct timeval *limit)
{
    select_limit = limit == nullptr ? -1 : limit->tv_sec * 1000000LL + limit->tv_usec;
    if (count_and_judge(plans[faults::SELECT]))
        return -1;
    return __real_select(highest, readable, writable, urgent, limit);
}

int __wrap_connect(int fd, const struct sockaddr *address, socklen_t length)
{
    if (count_and_judge(plans[faults::CONNECT]))
        return -1;
    return __real_connect(fd, address, length);
}

time_t __wrap_time(time_t *out)
{
    if (++clock_calls == clock_step_at.load())
        clock_shift += clock_step;
    time_t now = __real_time(nullptr) + clock_shift.load();
    if (out != nullptr)
        *out = now;
    return now;
}
}
