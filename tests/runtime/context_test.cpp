// Several contexts with a session each, and the threads that move between them.
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <atomic>
#include <memory>
#include <stdlib.h>
#include <string.h>

namespace {

// A process with several sessions. Each has a server of its own, which answers every call with its number.
struct Sessions : SessionTest {
    static constexpr int COUNT = 4;
    std::unique_ptr<Conn> connections[COUNT];
    std::thread servers[COUNT];
    wthr_var *blocks[COUNT];

    void SetUp() override
    {
        TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
        ASSERT_NE(record, nullptr);
        record->flags = TPMULTICONTEXTS;
        for (int i = 0; i < COUNT; i++) {
            connections[i] = std::make_unique<Conn>();
            peer.play([&] {
                peer.accept(connections[i].get());
                connections[i]->expect(wire::TPSTART);
                connections[i]->reply_start({});
            });
            ASSERT_EQ(tpstart(record), 0);
            peer.done();
            blocks[i] = current_block();
            servers[i] = std::thread([this, i] {
                wire::frame request;
                while (connections[i]->receive(&request)) {
                    connections[i]->reply(request.msgtype == wire::TPEND ? "" : std::to_string(i + 1));
                    if (request.msgtype == wire::TPEND)
                        return;
                }
            });
        }
        tpfree((char *)record);
    }

    void TearDown() override
    {
        for (int i = 0; i < COUNT; i++)
            if (tpsetctxt(i + 1, 0) == 1) {
                EXPECT_EQ(tpend(), 1);
            }
        for (std::thread &server : servers)
            if (server.joinable())
                server.join();
        EXPECT_EQ(pthread_mutex_trylock(&_wthr_mutex), 0);
        pthread_mutex_unlock(&_wthr_mutex);
    }

    // The number of the server that answers a call of this thread; -1 if it fails.
    static int who_answers(void)
    {
        char *reply = tpalloc((char *)"STRING", nullptr, 0);
        long length = 0;
        int number = -1;
        if (tpcall((char *)"WHO", nullptr, 0, &reply, &length, 0) == 1)
            number = atoi(std::string(reply, (size_t)length).c_str());
        tpfree(reply);
        return number;
    }
};

}  // namespace

TEST_F(Sessions, CallsGoToTheContextOnWhichTheThreadStands)
{
    EXPECT_EQ(who_answers(), COUNT);
    for (int round = 0; round < 3; round++)
        for (int number = 1; number <= COUNT; number++) {
            ASSERT_EQ(tpsetctxt(number, 0), 1);
            EXPECT_EQ(context(), number);
            EXPECT_EQ(current_block(), blocks[number - 1]);
            EXPECT_EQ(who_answers(), number);
        }
}

TEST_F(Sessions, OffAllContextsAThreadHasNoSession)
{
    ASSERT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    EXPECT_EQ(who_answers(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    int number = 0;
    EXPECT_EQ(tpgetctxt(&number, 0), 1);
    EXPECT_EQ(number, -2);
    ASSERT_EQ(tpsetctxt(3, 0), 1);
    EXPECT_EQ(who_answers(), 3);
}

TEST_F(Sessions, EndOfOneLeavesTheOthers)
{
    ASSERT_EQ(tpsetctxt(2, 0), 1);
    ASSERT_EQ(tpend(), 1);
    EXPECT_EQ(who_answers(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpsetctxt(2, 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    for (int number : {1, 3, 4}) {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(who_answers(), number);
    }
}

TEST_F(Sessions, LostSessionCantBeStoodOn)
{
    blocks[1]->started = 0;
    EXPECT_EQ(tpsetctxt(2, 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(_ctxt[4].owner, -1);  // the old context was left on the way
    blocks[1]->started = 1;
    EXPECT_EQ(tpsetctxt(2, 0), 1);
    EXPECT_EQ(who_answers(), 2);
}

TEST_F(Sessions, ThreadsWanderAmongTheContexts)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t] {
            for (int n = 0; n < 50; n++) {
                int number = (t + n) % COUNT + 1;
                ASSERT_EQ(tpsetctxt(number, 0), 1);
                ASSERT_EQ(who_answers(), number) << gettperrno();
            }
            EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
        });
    for (std::thread &thread : threads)
        thread.join();
    for (wthr_var *block : blocks) {
        EXPECT_EQ(block->thread_refs, 0);
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_EQ(block->reader_busy, 0);
    }
}

TEST_F(Sessions, EveryContextCountsItsOwnDescriptors)
{
    for (int number = 1; number <= COUNT; number++) {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        int cd = tpacall((char *)"WHO", nullptr, 0, 0);
        EXPECT_EQ(cd, 1);
    }
    for (int number = 1; number <= COUNT; number++) {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        char *reply = tpalloc((char *)"STRING", nullptr, 0);
        long length = 0;
        int cd = 1;
        EXPECT_EQ(tpgetrply(&cd, &reply, &length, 0), 1);
        EXPECT_EQ(std::string(reply, (size_t)length), std::to_string(number));
        tpfree(reply);
    }
}
