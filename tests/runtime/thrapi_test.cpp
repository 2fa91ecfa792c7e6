// The frame of the API functions, and the calls that move a thread between contexts, on contexts without a
// connection.
#include "runtime/thrapi.h"

#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"

#include <atomic>

namespace {

bool is_free(pthread_mutex_t *mutex)
{
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

struct Contexts : testing::Test {
    void SetUp() override
    {
        _thread_lock();
        ASSERT_EQ(_init_thrtbl(), 1);
        _thread_unlock();
        _start_ctxt = CONTEXT_MODE_MULTIPLE;
    }

    void TearDown() override { EXPECT_TRUE(is_free(&_wthr_mutex)); }

    // A context on which the calling thread stands, with a session if `started`; its number.
    int open_context(bool started = true)
    {
        _thread_lock();
        wthr_elem *row = _get_idle_wthr_ptr();
        wthr_var *block = row == nullptr ? nullptr : _wthr_var_init(row);
        if (block != nullptr) {
            block->started = started;
            bind_row(row);
        }
        _thread_unlock();
        return block == nullptr ? -1 : _ctxt[row->ctxt_index].ctxt_id;
    }

    int context_of_thread(void)
    {
        int number = 12345;
        EXPECT_EQ(tpgetctxt(&number, 0), 1);
        return number;
    }

    // Expects the call to fail with this error.
    void refused(int ctxt, long flags, int error)
    {
        SCOPED_TRACE(std::to_string(ctxt) + " " + std::to_string(flags));
        set_tperrno(0);
        EXPECT_EQ(tpsetctxt(ctxt, flags), -1);
        EXPECT_EQ(get_tperrno(), error);
        EXPECT_TRUE(is_free(&_wthr_mutex));
    }
};

constexpr api_text TEXT = API_TEXT("some_call", "(%d)");

}  // namespace

// ---- tpgetctxt

TEST(ContextNumber, IsMinusTwoBeforeAnyStart)
{
    int number = 7;
    EXPECT_EQ(tpgetctxt(&number, 0), 1);
    EXPECT_EQ(number, -2);
}

TEST(ContextNumber, NeedsAPlaceAndNoFlags)
{
    set_tperrno(0);
    EXPECT_EQ(tpgetctxt(nullptr, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(tpgetctxt(nullptr, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    int number = 7;
    set_tperrno(0);
    EXPECT_EQ(tpgetctxt(&number, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(number, -2);  // written before the flags are looked at
    EXPECT_TRUE(is_free(&_wthr_mutex));
}

TEST_F(Contexts, NumberOfTheThreadsContextIsGiven)
{
    EXPECT_EQ(context_of_thread(), -2);
    EXPECT_EQ(open_context(), 1);
    EXPECT_EQ(context_of_thread(), 1);
    EXPECT_EQ(open_context(), 2);
    EXPECT_EQ(context_of_thread(), 2);
    std::thread([&] { EXPECT_EQ(context_of_thread(), -2); }).join();
    // A row that stands on the fall-back context has no number. Making a row anew tells all threads to look again.
    for (int fall_back : {0, -2}) {
        wthr_elem spare;
        _wthr[1].ctxt_index = fall_back;
        _init_wthr_elem(&spare);
        EXPECT_EQ(context_of_thread(), -1);
    }
    _wthr[1].ctxt_index = 2;
}

TEST_F(Contexts, NumberIsZeroInTheSingleMode)
{
    _start_ctxt = CONTEXT_MODE_SINGLE;
    EXPECT_EQ(context_of_thread(), -2);
    open_context();
    EXPECT_EQ(context_of_thread(), 0);
}

// ---- tpsetctxt

TEST_F(Contexts, SingleModeKnowsContextZeroOnly)
{
    _start_ctxt = CONTEXT_MODE_SINGLE;
    for (int with_row = 0; with_row < 2; with_row++) {
        EXPECT_EQ(tpsetctxt(0, 0), 1);
        EXPECT_EQ(tpsetctxt(0, 99), 1);
        for (int number : {1, -1, -2, 5000, -3})
            for (long flags : {0L, 1L})
                refused(number, flags, TPEPROTO);
        EXPECT_EQ(_wthr[1].in_use, with_row);
        open_context();
    }
    EXPECT_EQ(_wthr[1].ctxt_index, 2);
}

TEST_F(Contexts, ZeroIsRefusedOutsideTheSingleMode)
{
    for (int mode : {CONTEXT_MODE_MULTIPLE, CONTEXT_MODE_UNDECIDED}) {
        _start_ctxt = mode;
        refused(0, 0, TPEPROTO);
        refused(0, 1, TPEPROTO);  // comes before the flags
    }
}

TEST_F(Contexts, FlagsAndNegativeNumbersAreInvalid)
{
    open_context();
    refused(1, 1, TPEINVAL);
    refused(1, -1, TPEINVAL);
    refused(77, 1, TPEINVAL);  // comes before the look-up
    refused(-1, 0, TPEINVAL);
    refused(-3, 0, TPEINVAL);
    refused(-4000, 5, TPEINVAL);
    EXPECT_EQ(context_of_thread(), 1);
}

TEST_F(Contexts, NumbersWithoutAContextAreNotFound)
{
    open_context();
    for (int number : {2, 400, 4000, 4001, 0x7fffffff})
        refused(number, 0, TPENOENT);
    EXPECT_EQ(context_of_thread(), 1);
    EXPECT_EQ(_ctxt[1].owner, (int32_t)(uint32_t)pthread_self());
    _start_ctxt = CONTEXT_MODE_UNDECIDED;
    refused(3, 0, TPENOENT);
}

TEST_F(Contexts, ThreadMovesAndTheReferencesAreCounted)
{
    open_context();
    wthr_var *first = current_block();
    open_context();
    wthr_var *second = current_block();
    EXPECT_EQ(second->thread_refs, 0);  // the thread that starts isn't counted

    EXPECT_EQ(tpsetctxt(1, 0), 1);
    EXPECT_EQ(current_block(), first);
    EXPECT_EQ(context_of_thread(), 1);
    EXPECT_EQ(first->thread_refs, 1);
    EXPECT_EQ(second->thread_refs, 0);
    EXPECT_EQ(_ctxt[1].owner, (int32_t)(uint32_t)pthread_self());
    EXPECT_EQ(_ctxt[2].owner, -1);
    EXPECT_EQ(_ctxt[2].in_use, 1);

    EXPECT_EQ(tpsetctxt(2, 0), 1);
    EXPECT_EQ(first->thread_refs, 0);
    EXPECT_EQ(second->thread_refs, 1);
    EXPECT_EQ(_ctxt[1].owner, -1);

    EXPECT_EQ(tpsetctxt(2, 0), 1);  // onto where it stands
    EXPECT_EQ(second->thread_refs, 1);
    EXPECT_EQ(current_block(), second);
}

TEST_F(Contexts, ThreadWithoutARowTakesOne)
{
    int number = open_context();
    wthr_var *block = current_block();
    std::thread([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(current_row(), &_wthr[2]);
        EXPECT_EQ(current_row()->thread_id, (int32_t)(uint32_t)pthread_self());
        EXPECT_EQ(current_row()->in_use, 1);
        EXPECT_EQ(current_block(), block);
        EXPECT_EQ(block->thread_refs, 1);
        EXPECT_EQ(_ctxt[1].owner, (int32_t)(uint32_t)pthread_self());
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
        EXPECT_EQ(block->thread_refs, 0);
        EXPECT_EQ(_ctxt[1].owner, -1);
        EXPECT_EQ(_wthr[2].in_use, 0);
    }).join();
    EXPECT_EQ(current_block(), block);
}

TEST_F(Contexts, LeavingWorksWithAnyFlagsAndWithoutARow)
{
    for (int mode : {CONTEXT_MODE_MULTIPLE, CONTEXT_MODE_UNDECIDED}) {
        _start_ctxt = mode;
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 5), 1);
    }
    int number = open_context();
    wthr_var *block = current_block();
    EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 5), 1);
    EXPECT_EQ(block->thread_refs, 0);  // wasn't positive
    EXPECT_EQ(_ctxt[1].owner, -1);
    EXPECT_EQ(_ctxt[1].in_use, 1);  // the context lives on without a thread
    EXPECT_EQ(current_row(), _main_wthrp);
    EXPECT_EQ(context_of_thread(), -2);
    EXPECT_EQ(tpsetctxt(number, 0), 1);
    EXPECT_EQ(current_block(), block);
    EXPECT_EQ(block->thread_refs, 1);
}

TEST_F(Contexts, ContextWithoutASessionIsRefusedAfterTheOldOneIsLeft)
{
    int bare = open_context(false);
    int number = open_context();
    wthr_var *block = current_block();
    EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    EXPECT_EQ(tpsetctxt(number, 0), 1);
    EXPECT_EQ(block->thread_refs, 1);
    refused(bare, 0, TPENOENT);
    EXPECT_EQ(_ctxt[2].owner, -1);
    EXPECT_EQ(block->thread_refs, 0);
}

TEST_F(Contexts, ContextWithoutASessionTakesNoRowOfANewThread)
{
    int bare = open_context(false);
    std::thread([&] {
        refused(bare, 0, TPENOENT);
        EXPECT_EQ(_wthr[2].in_use, 0);
    }).join();
}

TEST_F(Contexts, WithoutAFreeRowANewThreadIsRefused)
{
    int number = open_context();
    int bare = open_context(false);
    for (int i = 2; i < 400; i++)
        _wthr[i].in_use = 1;
    std::thread([&] {
        refused(number, 0, TPELIMIT);
        refused(bare, 0, TPELIMIT);  // the row comes before the session
        refused(77, 0, TPENOENT);    // and the look-up before the row
    }).join();
    EXPECT_EQ(tpsetctxt(number, 0), 1);  // a thread that has its row needs none
}

TEST_F(Contexts, ThreadsComeAndGoOnOneContext)
{
    int number = open_context();
    wthr_var *block = current_block();
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                EXPECT_EQ(tpsetctxt(number, 0), 1);
                EXPECT_EQ(current_block(), block);
                EXPECT_EQ(get_tperrno(), 0);  // whatever thread had the row before
                int now = 0;
                EXPECT_EQ(tpgetctxt(&now, 0), 1);
                EXPECT_EQ(now, number);
                set_tperrno(t + 1);
                EXPECT_EQ(get_tperrno(), t + 1);
                EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(block->thread_refs, 0);
}

// ---- the frame

TEST(Frame, FindsTheFallBackRowOfAThreadWithoutOne)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(frame.row, _main_wthrp);
    EXPECT_EQ(frame.block, _main_wthrv);
    EXPECT_EQ(frame.row_bound, 0);
    EXPECT_TRUE(is_free(&_wthr_mutex));
}

TEST(Frame, GivesAndReportsErrors)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(api_fail(&frame, &TEXT, TPETRAN), -1);
    EXPECT_EQ(get_tperrno(), TPETRAN);
    EXPECT_EQ(api_error(&frame, &TEXT), -1);
    EXPECT_EQ(get_tperrno(), TPETRAN);
    EXPECT_EQ(api_return(&TEXT, 42), 42);
    EXPECT_STREQ(TEXT.enter, "some_call(%d)");
    EXPECT_STREQ(TEXT.result, "some_call = %d");
    EXPECT_STREQ(TEXT.error, "some_call = -1 [%d : %s]");
}

TEST(Frame, StartingFormBindsARowAndDecidesTheMode)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(api_open_context(&frame), API_GO_ON);
    EXPECT_EQ(_start_ctxt, 0);
    EXPECT_EQ(frame.row, &_wthr[1]);
    EXPECT_EQ(frame.row->in_use, 1);
    EXPECT_EQ(frame.block, _ctxt[1].wthr_var);
    EXPECT_EQ(_ctxt[1].owner, (int32_t)(uint32_t)pthread_self());
    EXPECT_EQ(frame.row_bound, 1);
    EXPECT_EQ(current_row(), frame.row);
    // A call that fails before a session came about leaves no context behind, but its error.
    EXPECT_EQ(api_fail(&frame, &TEXT, TPEOTYPE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(_wthr[1].in_use, 0);
    EXPECT_EQ(_ctxt[1].in_use, 0);
    EXPECT_EQ(_ctxt[1].wthr_var, nullptr);
}

TEST(Frame, StartingFormDoesNothingForARowWithoutASession)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    ASSERT_EQ(api_open_context(&frame), API_GO_ON);
    api_frame again;
    ASSERT_TRUE(api_find(&again));
    EXPECT_EQ(api_open_context(&again), API_NOTHING_TO_DO);
    EXPECT_EQ(again.row_bound, 0);
    EXPECT_EQ(_ctxt[2].in_use, 0);
    // With a session there is nothing to open.
    again.block->started = 1;
    EXPECT_EQ(api_open_context(&again), API_GO_ON);
    EXPECT_EQ(again.row_bound, 0);
    EXPECT_EQ(api_fail(&again, &TEXT, TPEINVAL), -1);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    again.block->started = 0;
}

TEST_F(Contexts, StartingFormIsRefusedInTheMultipleMode)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    set_tperrno(0);
    EXPECT_EQ(api_open_context(&frame), API_NO_CONTEXT);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_EQ(_wthr[1].in_use, 0);
}

TEST_F(Contexts, StartingFormWithoutARowHitsTheLimit)
{
    _start_ctxt = CONTEXT_MODE_SINGLE;
    for (int i = 1; i < 400; i++)
        _wthr[i].in_use = 1;
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    set_tperrno(0);
    EXPECT_EQ(api_open_context(&frame), API_NO_CONTEXT);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_TRUE(is_free(&_wthr_mutex));
    // The same with rows for threads but none for contexts.
    for (int i = 1; i < 400; i++) {
        _wthr[i].in_use = 0;
        _ctxt[i].in_use = 1;
    }
    set_tperrno(0);
    EXPECT_EQ(api_open_context(&frame), API_NO_CONTEXT);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(_wthr[1].in_use, 0);
}

TEST(Frame, HintOfAThreadFollowsEveryChange)
{
    api_frame frame;
    ASSERT_TRUE(api_find(&frame));
    ASSERT_EQ(api_open_context(&frame), API_GO_ON);
    wthr_var *block = frame.block;
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(api_find(&frame));
        EXPECT_EQ(frame.block, block);
    }
    _start_ctxt = CONTEXT_MODE_MULTIPLE;
    EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(frame.row, _main_wthrp);
    EXPECT_EQ(frame.block, _main_wthrv);
    block->started = 1;
    EXPECT_EQ(tpsetctxt(1, 0), 1);
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(frame.block, block);
    EXPECT_EQ(_context_end(), 1);
    ASSERT_TRUE(api_find(&frame));
    EXPECT_EQ(frame.block, _main_wthrv);
}
