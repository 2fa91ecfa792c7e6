// The tables of threads and contexts, the rows in them, and the block of variables of a context.
#include "runtime/mthr.h"

#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

#include <errno.h>
#include <set>
#include <stdlib.h>
#include <string.h>

namespace {

int32_t short_self(void)
{
    return (int32_t)(uint32_t)pthread_self();
}

struct TableLock {
    TableLock() { _thread_lock(); }
    ~TableLock() { _thread_unlock(); }
};

bool is_free(pthread_mutex_t *mutex)
{
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

struct Tables : testing::Test {
    void SetUp() override
    {
        TableLock lock;
        ASSERT_EQ(_init_thrtbl(), 1);
    }

    void TearDown() override { EXPECT_TRUE(is_free(&_wthr_mutex)); }

    // A new context for the calling thread, as a start makes it; null if there is no room.
    wthr_elem *take_context(void)
    {
        TableLock lock;
        wthr_elem *row = _get_idle_wthr_ptr();
        if (row == nullptr || _wthr_var_init(row) == nullptr)
            return nullptr;
        bind_row(row);
        return row;
    }

    int row_number(void)
    {
        TableLock lock;
        return _get_nth_from_thrtbl();
    }
};

struct Undecided : testing::Test {
    TPSTART_T record = {};

    // The mode and the result of settling it.
    std::pair<int, int> settle(int mode, const TPSTART_T *with)
    {
        _start_ctxt = mode;
        int result = _check_context_with_tpinfo(with, 0);
        return {result, _start_ctxt};
    }
};

void in_another_thread(const std::function<void()> &work)
{
    std::thread thread(work);
    thread.join();
}

}  // namespace

TEST(TablesBefore, NothingExistsAtTheStart)
{
    EXPECT_EQ(_wthr, nullptr);
    EXPECT_EQ(_ctxt, nullptr);
    EXPECT_EQ(_wthr_size, 0);
    EXPECT_EQ(_next_wthri, 0);
    EXPECT_EQ(_cur_ctxti, 0);
    EXPECT_EQ(_start_ctxt, -1);
    EXPECT_EQ(_init_wthr_flag, 0);
    EXPECT_EQ(_main_wthrv, nullptr);
    EXPECT_EQ(_main_wthrp, nullptr);
    EXPECT_EQ(_endian, 0);
    EXPECT_EQ(_node_type, 0);
    EXPECT_EQ(_my_pid, 0);
    EXPECT_TRUE(is_free(&_wthr_mutex));
}

TEST_F(Tables, HaveFourHundredFreeRowsButTheFirst)
{
    EXPECT_EQ(_init_wthr_flag, 1);
    EXPECT_EQ(_wthr_size, 400);
    EXPECT_EQ(_next_wthri, 0);
    EXPECT_EQ(_cur_ctxti, 0);
    EXPECT_EQ(_start_ctxt, -1);
    for (int i = 0; i < 400; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(_wthr[i].thread_id, -1);
        EXPECT_EQ(_wthr[i].second_word, -1);
        EXPECT_EQ(_wthr[i].in_use, i == 0);
        EXPECT_EQ(_wthr[i].fourth_word, 0);
        EXPECT_EQ(_wthr[i].fifth_word, 0);
        EXPECT_EQ(_wthr[i].ctxt_index, i == 0 ? 0 : -1);
        EXPECT_EQ(_wthr[i].tperrno, 0);
        EXPECT_EQ(_wthr[i].tpurcode, 0);
        EXPECT_EQ(_wthr[i].fberror, 0);
        EXPECT_EQ(_ctxt[i].ctxt_id, -2);
        EXPECT_EQ(_ctxt[i].wthr_var != nullptr, i == 0);
        EXPECT_EQ(_ctxt[i].in_use, i == 0);
        EXPECT_EQ(_ctxt[i].owner, -1);
    }
    EXPECT_EQ(_main_wthrv, _ctxt[0].wthr_var);
    EXPECT_EQ(_main_wthrp, &_wthr[0]);
}

TEST_F(Tables, AreMadeOnce)
{
    wthr_elem *rows = _wthr;
    ctxt_elem *contexts = _ctxt;
    wthr_var *block = _main_wthrv;
    _wthr[3].tperrno = 7;
    {
        TableLock lock;
        EXPECT_EQ(_init_thrtbl(), 1);
    }
    EXPECT_EQ(_wthr, rows);
    EXPECT_EQ(_ctxt, contexts);
    EXPECT_EQ(_main_wthrv, block);
    EXPECT_EQ(_wthr[3].tperrno, 7);
}

TEST_F(Tables, ThreadRowIsResetButForItsErrors)
{
    wthr_elem row = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(_init_wthr_elem(&row), 1);
    EXPECT_EQ(row.thread_id, -1);
    EXPECT_EQ(row.second_word, -1);
    EXPECT_EQ(row.in_use, 0);
    EXPECT_EQ(row.fourth_word, 0);
    EXPECT_EQ(row.fifth_word, 0);
    EXPECT_EQ(row.ctxt_index, -1);
    EXPECT_EQ(row.tperrno, 7);
    EXPECT_EQ(row.tpurcode, 8);
    EXPECT_EQ(row.fberror, 9);
}

TEST_F(Tables, ContextRowIsResetWhole)
{
    ctxt_elem row = {1, _main_wthrv, 3, 4};
    EXPECT_EQ(_init_ctxt_elem(&row), 1);
    EXPECT_EQ(row.ctxt_id, -2);
    EXPECT_EQ(row.wthr_var, nullptr);
    EXPECT_EQ(row.in_use, 0);
    EXPECT_EQ(row.owner, -1);
}

TEST_F(Tables, NewBlockHasItsFirstValues)
{
    TableLock lock;
    wthr_elem row = {};
    row.ctxt_index = 7;
    wthr_var *block = _wthr_var_init(&row);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(_ctxt[7].wthr_var, block);
    EXPECT_EQ(block->node_count, 1);
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(block->compress_threshold, -1);
    EXPECT_EQ(block->default_prio, 50);
    EXPECT_EQ(block->next_prio, 50);
    EXPECT_EQ(block->last_prio, -1);
    EXPECT_EQ(block->sessionid, -1);
    // The other descriptors stay cleared: a session that doesn't set them finds 0 in them.
    EXPECT_EQ(block->new_clhfd, 0);
    EXPECT_EQ(block->old_clhfd, 0);
    EXPECT_EQ(block->session_token, 0);
    EXPECT_EQ(block->started, 0);
    EXPECT_EQ(block->on_backup, 0);
    EXPECT_EQ(block->initout, nullptr);
    EXPECT_EQ(block->initout_nodes, nullptr);
    EXPECT_EQ(block->initout_queues, nullptr);
    EXPECT_EQ(block->initout_svcs, nullptr);
    EXPECT_EQ(block->initout_tail, nullptr);
    EXPECT_EQ(block->unsol_mode, 0);
    EXPECT_EQ(block->start_msg, nullptr);
    EXPECT_EQ(block->txinfo, nullptr);
    EXPECT_EQ(block->acall, nullptr);
    EXPECT_EQ(block->acall_next, 0);
    EXPECT_EQ(block->block_time, 0);
    EXPECT_EQ(block->seqno_inited, 0);
    EXPECT_EQ(block->reader_busy, 0);
    EXPECT_EQ(block->waiter_count, 0);
    EXPECT_EQ(block->thread_refs, 0);
    EXPECT_EQ(block->rolling, 0);
    EXPECT_EQ(block->rolling_failed, 0);
    EXPECT_EQ(block->callid_next[1], 0u);
    EXPECT_TRUE(is_free(&block->msg_mutex));
    EXPECT_TRUE(is_free(&block->roll_mutex));
}

TEST_F(Tables, BlockOfAContextIsMadeOnce)
{
    TableLock lock;
    wthr_elem row = {};
    row.ctxt_index = 7;
    wthr_var *block = _wthr_var_init(&row);
    block->seqno = 99;
    EXPECT_EQ(_wthr_var_init(&row), block);
    EXPECT_EQ(block->seqno, 99);
    row.ctxt_index = -2;  // read as row 0
    EXPECT_EQ(_wthr_var_init(&row), _main_wthrv);
}

TEST_F(Tables, ThreadWithoutARowFallsBack)
{
    {
        TableLock lock;
        EXPECT_EQ(_get_nth_from_thrtbl(), -1);
        EXPECT_EQ(_get_wthr_from_nth(), nullptr);
    }
    EXPECT_EQ(current_row(), _main_wthrp);
    EXPECT_EQ(current_block(), _main_wthrv);
    set_tperrno(TPETIME);
    EXPECT_EQ(_main_wthrp->tperrno, TPETIME);
    EXPECT_EQ(get_tperrno(), TPETIME);
    set_tpurcode(1L << 40);
    EXPECT_EQ(_main_wthrp->tpurcode, 1L << 40);
    // All such threads share the cell.
    in_another_thread([] { EXPECT_EQ(get_tperrno(), TPETIME); });
}

TEST(TablesBefore, AreMadeByTheFirstLookUpOfTheCallersCell)
{
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(_init_wthr_flag, 1);
    EXPECT_EQ(current_row(), _main_wthrp);
}

TEST_F(Tables, FirstContextTakesRowOneAndNumberOne)
{
    wthr_elem *row = take_context();
    ASSERT_EQ(row, &_wthr[1]);
    EXPECT_EQ(row->thread_id, short_self());
    EXPECT_EQ(row->in_use, 1);
    EXPECT_EQ(row->ctxt_index, 1);
    EXPECT_EQ(_ctxt[1].ctxt_id, 1);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    EXPECT_EQ(_ctxt[1].owner, short_self());
    EXPECT_EQ(_next_wthri, 2);
    EXPECT_EQ(_cur_ctxti, 1);
    EXPECT_EQ(row_number(), 1);
    EXPECT_EQ(current_row(), row);
    EXPECT_EQ(current_block(), _ctxt[1].wthr_var);
    EXPECT_NE(current_block(), _main_wthrv);
    {
        TableLock lock;
        EXPECT_EQ(_get_wthr_from_nth(), _ctxt[1].wthr_var);
    }
    set_tperrno(TPELIMIT);
    EXPECT_EQ(row->tperrno, TPELIMIT);
    EXPECT_EQ(_main_wthrp->tperrno, 0);
}

TEST_F(Tables, SecondContextOfAThreadLeavesTheFirstAlive)
{
    wthr_elem *row = take_context();
    wthr_var *first = current_block();
    EXPECT_EQ(take_context(), row);
    EXPECT_EQ(row->ctxt_index, 2);
    EXPECT_EQ(_ctxt[2].ctxt_id, 2);
    EXPECT_NE(current_block(), first);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    EXPECT_EQ(_ctxt[1].wthr_var, first);
    EXPECT_EQ(_next_wthri, 2);
    EXPECT_EQ(_cur_ctxti, 2);
}

TEST_F(Tables, NullContextIndexIsReadAsRowZero)
{
    wthr_elem *row = take_context();
    TableLock lock;
    row->ctxt_index = -2;
    EXPECT_EQ(_get_wthr_from_nth(), _main_wthrv);
    row->ctxt_index = 1;
}

TEST_F(Tables, ThreeHundredNinetyNineContextsFitBesideTheFirstRow)
{
    std::set<wthr_var *> blocks;
    for (int i = 1; i < 400; i++) {
        ASSERT_NE(take_context(), nullptr) << i;
        blocks.insert(current_block());
        EXPECT_EQ(_ctxt[i].ctxt_id, i);
    }
    EXPECT_EQ(blocks.size(), 399u);
    EXPECT_EQ(take_context(), nullptr);
    // One that ends makes room for one.
    int freed = _wthr[1].ctxt_index;
    ASSERT_EQ(_context_end(), 1);
    wthr_elem *row = take_context();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->ctxt_index, freed);
    EXPECT_EQ(_ctxt[freed].ctxt_id, 400);
    EXPECT_EQ(take_context(), nullptr);
}

TEST_F(Tables, ContextNumbersRunToFourThousandAndBeginAgain)
{
    for (int i = 1; i <= 4000; i++) {
        wthr_elem *row = take_context();
        ASSERT_NE(row, nullptr) << i;
        ASSERT_EQ(_ctxt[row->ctxt_index].ctxt_id, i);
        ASSERT_GT(row->ctxt_index, 0);
        ASSERT_LT(row->ctxt_index, 400);
        ASSERT_EQ(_context_end(), 1);
    }
    EXPECT_EQ(_cur_ctxti, 4000);
    wthr_elem *row = take_context();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(_ctxt[row->ctxt_index].ctxt_id, 1);
    EXPECT_EQ(_cur_ctxti, 1);
}

TEST_F(Tables, ContextNumbersRunIndependentOfTheRows)
{
    _cur_ctxti = 398;
    wthr_elem *row = take_context();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->ctxt_index, 398);
    EXPECT_EQ(_ctxt[398].ctxt_id, 399);
    row = take_context();
    EXPECT_EQ(row->ctxt_index, 399);
    EXPECT_EQ(_ctxt[399].ctxt_id, 400);
    row = take_context();  // behind the last row the walk begins at row 0, which is in use
    EXPECT_EQ(row->ctxt_index, 1);
    EXPECT_EQ(_ctxt[1].ctxt_id, 401);
}

TEST_F(Tables, FreeThreadRowsAreSoughtFromTheNextOneOnAndAround)
{
    TableLock lock;
    _next_wthri = 398;
    EXPECT_EQ(_get_idle_wthr_ptr2(), 398);
    EXPECT_EQ(_next_wthri, 399);
    _wthr[398].in_use = 1;
    EXPECT_EQ(_get_idle_wthr_ptr2(), 399);
    _wthr[399].in_use = 1;
    EXPECT_EQ(_get_idle_wthr_ptr2(), 1);
    EXPECT_EQ(_next_wthri, 2);
    for (int i = 1; i < 400; i++)
        _wthr[i].in_use = 1;
    EXPECT_EQ(_get_idle_wthr_ptr2(), -1);
    EXPECT_EQ(_get_idle_wthr_ptr(), nullptr);
    _wthr[57].in_use = 0;
    EXPECT_EQ(_get_idle_wthr_ptr2(), 57);
}

TEST_F(Tables, EveryThreadHasARowOfItsOwn)
{
    constexpr int THREADS = 40;
    std::vector<std::thread> threads;
    std::atomic<int> bound{0};
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&, t] {
            wthr_elem *row = take_context();
            ASSERT_NE(row, nullptr);
            set_tperrno(t + 100);
            set_tpurcode(t);
            bound++;
            ASSERT_TRUE(faults::eventually([&] { return bound == THREADS; }));
            EXPECT_EQ(current_row(), row);
            EXPECT_EQ(get_tperrno(), t + 100);
            EXPECT_EQ(row->tpurcode, t);
            EXPECT_EQ(_ctxt[row->ctxt_index].wthr_var, current_block());
            EXPECT_EQ(_context_end(), 1);
            EXPECT_EQ(current_row(), _main_wthrp);
        });
    for (std::thread &thread : threads)
        thread.join();
    for (int i = 1; i < 400; i++) {
        EXPECT_EQ(_wthr[i].in_use, 0);
        EXPECT_EQ(_ctxt[i].in_use, 0);
        EXPECT_EQ(_ctxt[i].wthr_var, nullptr);
    }
}

TEST_F(Tables, ContextEndNeedsARow)
{
    EXPECT_EQ(_context_end(), -1);
    EXPECT_TRUE(is_free(&_wthr_mutex));
    EXPECT_NE(_ctxt[0].wthr_var, nullptr);
}

TEST_F(Tables, ContextEndClearsItAndTheRowsOfAllItsThreads)
{
    wthr_elem *row = take_context();
    wthr_var *block = current_block();
    block->subscr = (subscr_elem *)malloc(16);  // both belong to the block
    block->offer_msg = (msg_header *)malloc(200);
    set_tperrno(TPESYSTEM);
    wthr_elem *other = nullptr;
    std::atomic<int> step{0};
    std::thread second([&] {
        {
            TableLock lock;
            int n = _get_idle_wthr_ptr2();
            other = &_wthr[n];
            other->ctxt_index = row->ctxt_index;
            bind_row(other);
        }
        EXPECT_EQ(current_block(), block);
        set_tperrno(TPELIMIT);
        step = 1;
        ASSERT_TRUE(faults::eventually([&] { return step == 2; }));
        EXPECT_EQ(row_number(), -1);
        EXPECT_EQ(current_row(), _main_wthrp);
        EXPECT_EQ(current_block(), _main_wthrv);
    });
    ASSERT_TRUE(faults::eventually([&] { return step == 1; }));
    EXPECT_EQ(_context_end(), 1);
    step = 2;
    second.join();
    EXPECT_EQ(row->in_use, 0);
    EXPECT_EQ(row->thread_id, -1);
    EXPECT_EQ(row->ctxt_index, -1);
    EXPECT_EQ(row->tperrno, TPESYSTEM);
    EXPECT_EQ(other->in_use, 0);
    EXPECT_EQ(other->tperrno, TPELIMIT);
    EXPECT_EQ(_ctxt[1].in_use, 0);
    EXPECT_EQ(_ctxt[1].ctxt_id, -2);
    EXPECT_EQ(_ctxt[1].owner, -1);
    EXPECT_EQ(_ctxt[1].wthr_var, nullptr);
    EXPECT_EQ(_wthr[0].in_use, 1);
    EXPECT_EQ(_wthr[0].ctxt_index, 0);
    EXPECT_EQ(row_number(), -1);
}

TEST_F(Tables, ContextEndLeavesOtherContextsAlone)
{
    take_context();
    wthr_var *first = current_block();
    take_context();
    EXPECT_EQ(_context_end(), 1);
    EXPECT_EQ(_ctxt[1].wthr_var, first);
    EXPECT_EQ(_ctxt[1].in_use, 1);
    EXPECT_EQ(_ctxt[2].in_use, 0);
    EXPECT_EQ(_context_end(), -1);
}

TEST_F(Tables, RowOfAContextWithoutABlockIsFatal)
{
    take_context();
    TableLock lock;
    static wthr_var *taken = _ctxt[1].wthr_var;
    _ctxt[1].wthr_var = nullptr;
    EXPECT_EXIT(_get_wthr_from_nth(), testing::ExitedWithCode(1),
                "\\(F\\) CLI 0121 failed to get thread variables \\[CLI0704\\]");
    _ctxt[1].wthr_var = taken;
}

TEST_F(Tables, BlockThatCannotBeMadeIsFatal)
{
    EXPECT_EXIT(
        {
            faults::fail_allocation(1);
            take_context();
        },
        testing::ExitedWithCode(1), "\\(F\\) CLI 0005 memory allocation error : size = [0-9]+ \\[CLI0703\\]");
}

TEST(TablesBefore, ThatCannotBeMadeAreFatal)
{
    EXPECT_EXIT(
        {
            faults::fail_allocation(1);
            TableLock lock;
            _init_thrtbl();
        },
        testing::ExitedWithCode(1), "0005 memory allocation error : size = 9600 \\[CLI0702\\]");
    EXPECT_EXIT(
        {
            faults::fail_allocation(2);
            TableLock lock;
            _init_thrtbl();
        },
        testing::ExitedWithCode(1), "0005 memory allocation error : size = 19200 \\[CLI0701\\]");
    EXPECT_EXIT(
        {
            faults::fail_allocation(3);
            TableLock lock;
            _init_thrtbl();
        },
        testing::ExitedWithCode(1), "\\[CLI0703\\]");
}

// ---- the context mode

TEST_F(Undecided, WithoutARecordTheFirstStartMakesItSingle)
{
    EXPECT_EQ(settle(-1, nullptr), std::make_pair(2, 0));
    EXPECT_EQ(settle(0, nullptr), std::make_pair(2, 0));
    set_tperrno(0);
    EXPECT_EQ(settle(0x40, nullptr), std::make_pair(-1, 0x40));
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Undecided, ARecordDecidesOnceAndMustAgreeAfterwards)
{
    const struct {
        int mode, flags, result, mode_after;
    } cases[] = {
        {-1, 0, 2, 0},          {-1, 0x01, 2, 0},      {-1, 0x40, 2, 0x40},   {-1, 0x47, 2, 0x40},
        {-1, 0x3f, 2, 0},       {0, 0, 2, 0},          {0, 0x01, 2, 0},       {0, 0x40, -1, 0},
        {0, 0x41, -1, 0},       {0x40, 0x40, 2, 0x40}, {0x40, 0x42, 2, 0x40}, {0x40, 0, -1, 0x40},
        {0x40, 0x04, -1, 0x40},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.mode) + " " + std::to_string(row.flags));
        record.flags = row.flags;
        set_tperrno(0);
        EXPECT_EQ(settle(row.mode, &record), std::make_pair(row.result, row.mode_after));
        EXPECT_EQ(get_tperrno(), row.result < 0 ? TPEPROTO : 0);
    }
}

TEST_F(Tables, ThreadWithARowHasItsContextInTheSingleModeOnly)
{
    TPSTART_T record = {};
    take_context();
    const struct {
        int mode, flags, result;
    } cases[] = {
        {-1, 0, 2}, {-1, 0x40, 2}, {0, 0, 1},       {0, 1, 2},
        {0, 7, 2},  {0, 0x40, -1}, {0x40, 0x40, 2}, {0x40, 0, -1},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.mode) + " " + std::to_string(row.flags));
        record.flags = row.flags;
        _start_ctxt = row.mode;
        EXPECT_EQ(_check_context_with_tpinfo(&record, 0), row.result);
        _start_ctxt = row.mode;
        EXPECT_EQ(_check_context_with_tpinfo(&record, 1), row.result);
    }
    const struct {
        int mode, result;
    } without[] = {{-1, 2}, {0, 1}, {0x40, -1}};
    for (const auto &row : without) {
        _start_ctxt = row.mode;
        EXPECT_EQ(_check_context_with_tpinfo(nullptr, 0), row.result) << row.mode;
    }
}

// ---- wrappers of the thread library

TEST(ThreadWrappers, GiveTheResultsOfTheThreadLibrary)
{
    EXPECT_TRUE(pthread_equal(_thread_self(), pthread_self()));
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    EXPECT_EQ(_thread_mutex_init(&mutex), 0);
    EXPECT_EQ(_thread_cond_init(&cond), 0);
    EXPECT_EQ(_thread_mutex_lock(&mutex), 0);
    EXPECT_FALSE(is_free(&mutex));
    EXPECT_EQ(_thread_mutex_unlock(&mutex), 0);
    EXPECT_EQ(_vorn_mutex_lock(&mutex), 0);
    EXPECT_FALSE(is_free(&mutex));
    EXPECT_EQ(_thread_cond_timedwait(&cond, &mutex, 0), ETIMEDOUT);
    EXPECT_EQ(_thread_cond_timedwait(&cond, &mutex, 1), ETIMEDOUT);
    EXPECT_FALSE(is_free(&mutex));
    EXPECT_EQ(_vorn_mutex_unlock(&mutex), 0);
    EXPECT_EQ(_thread_cond_signal(&cond), 0);
    EXPECT_EQ(_thread_cond_broadcast(&cond), 0);
    EXPECT_EQ(_thread_cond_destroy(&cond), 0);
    EXPECT_EQ(_thread_mutex_destroy(&mutex), 0);
}

TEST(ThreadWrappers, TimedWaitCarriesItsFractionOverTheSecond)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_lock(&mutex);
    // Ten waits at different points of the second: each carries or not, and none is refused with EINVAL.
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(_thread_cond_timedwait(&cond, &mutex, 120), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
}

TEST(ThreadWrappers, WaitsEndWithASignal)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    for (int form = 0; form < 3; form++) {
        bool woken = false, waiting = false;
        int result = -1;
        std::thread waiter([&] {
            pthread_mutex_lock(&mutex);
            waiting = true;
            while (!woken)
                result = form == 0   ? _thread_cond_wait(&cond, &mutex)
                         : form == 1 ? _thread_cond_timedwait(&cond, &mutex, -1)
                                     : _thread_cond_timedwait(&cond, &mutex, 60000);
            pthread_mutex_unlock(&mutex);
        });
        ASSERT_TRUE(faults::eventually([&] {
            pthread_mutex_lock(&mutex);
            bool ready = waiting;
            pthread_mutex_unlock(&mutex);
            return ready;
        }));
        pthread_mutex_lock(&mutex);
        woken = true;
        _thread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
        waiter.join();
        EXPECT_EQ(result, 0) << form;
    }
}
