// Client threads on a context of another, for tests in which several of them wait at once.
#ifndef VORN_TESTS_WIRE_CLIENTS_H
#define VORN_TESTS_WIRE_CLIENTS_H

#include <atomic>
#include <functional>
#include <pthread.h>
#include <string>
#include <time.h>

#include "support/peer.h"
#include "vorn/context.h"

constexpr int NO_CONTEXT = -100;

// What came out of one call or wait.
struct outcome {
    int result = 0;
    int error = 0;
    std::string data;
    time_t ended = 0;
};

// A thread on the context of the test's, and what its work gave. Outlives the work.
struct client {
    outcome out;
    std::atomic<pthread_t> thread{0};
    Task task;

    client(Conn &peer, int context, std::function<outcome()> work)
        : task(peer, [this, context, work = std::move(work)]() -> long {
              thread = pthread_self();
              if (tpsetctxt(context, 0) != 1)
                  return NO_CONTEXT;
              out = work();
              tpsetctxt(TPNULLCONTEXT, 0);
              return out.result;
          })
    {}
};

#endif
