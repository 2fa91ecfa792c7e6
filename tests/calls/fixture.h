// What the tests of calls share: a session with buffers for a request and a reply.
#ifndef VORN_TESTS_CALLS_FIXTURE_H
#define VORN_TESTS_CALLS_FIXTURE_H

#include "calls/cscommon.h"
#include "calls/tpapi.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <atomic>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

static inline char *svc(const char *name)
{
    return (char *)name;
}

static inline char *new_buffer(const char *type, const std::string &text = "", long size = 0)
{
    char *data = tpalloc((char *)type, nullptr, size);
    EXPECT_NE(data, nullptr);
    if (data != nullptr)
        memcpy(data, text.data(), text.size());
    return data;
}

static inline bool is_unlocked(pthread_mutex_t *mutex)
{
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

struct CallTest : SessionTest {
    char *in = new_buffer("STRING", "hello");
    char *out = new_buffer("STRING");
    long len = 0;

    ~CallTest() override
    {
        tpfree(in);
        tpfree(out);
    }

    // Opens or marks a transaction of this context, as a begin would.
    void open_transaction(int stage = TX_STAGE_RUNNING, int state = TX_STATE_ACTIVE)
    {
        block()->txinfo->tx_active = 1;
        block()->txinfo->tx_stage = stage;
        set_tx_state(block(), state);
    }

    std::atomic<int> finished{0};  // calls that have come back

    int note(int result)
    {
        finished++;
        return result;
    }
    int call(long flags = 0, const char *name = "TOUPPER")
    {
        return note(tpcall(svc(name), in, 0, &out, &len, flags));
    }
    int acall(long flags = 0, const char *name = "TOUPPER") { return note(tpacall(svc(name), in, 0, flags)); }
    int getrply(int *cd, long flags = 0) { return note(tpgetrply(cd, &out, &len, flags)); }

    // For the peer's script: lets the clock run on until the call that waits has come back. A message that nobody
    // wants makes the wait look at the clock; it is repeated, since the call may not have begun to wait yet.
    void let_time_run_out(int seconds)
    {
        int before = finished;
        EXPECT_TRUE(faults::eventually([&] {
            faults::shift_clock(seconds);
            peer.send(wire::message(1012));
            return finished != before;
        }));
    }

    std::string reply_data(void) const { return std::string(out, (size_t)len); }

    void expect_idle(void)
    {
        EXPECT_TRUE(is_unlocked(&_wthr_mutex));
        EXPECT_TRUE(is_unlocked(&block()->msg_mutex));
        EXPECT_TRUE(is_unlocked(&block()->roll_mutex));
        EXPECT_EQ(block()->reader_busy, 0);
        EXPECT_EQ(block()->waiter_count, 0);
    }

    // The session still serves: one call goes through.
    void expect_usable(void)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL).svcname("PROOF");
            peer.reply("fine");
        });
        char *reply = new_buffer("STRING");
        long length = 0;
        EXPECT_EQ(tpcall(svc("PROOF"), nullptr, 0, &reply, &length, 0), 1) << get_tperrno();
        EXPECT_EQ(std::string(reply, (size_t)length), "fine");
        tpfree(reply);
        peer.done();
    }

    // Waits until `count` messages of stored replies stand in the table.
    bool stored(int cd)
    {
        int index = _get_acall_cd_ind(cd, block());
        return index >= 0 && block()->acall[index].reply != nullptr;
    }
};

#endif
