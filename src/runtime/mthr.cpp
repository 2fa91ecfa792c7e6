// Thread and context tables.
//
// Rows are found by the caller's thread identity. A walk of 400 rows under a process-wide lock would be paid
// at each call, so every thread keeps a hint: its row and block, stamped with the generation of the tables in
// which it found them. Whoever changes what a lookup could give (binding, release, a new block, a moved
// context) counts the generation up under the table lock, and all hints are void. Rows never move, and a
// block lives as long as its context, so a hint that carries the current generation is as good as a walk. To
// end a context while other threads are inside calls on it is the application's mistake: the block goes under
// them.
#include "runtime/mthr.h"

#include "calls/svgapi.h"
#include "wire/envelope.h"
#include "wire/waiters.h"

#include "runtime/errlog.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/session.h"

#include <atomic>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>
#include <string.h>

extern "C" {

wthr_elem *_wthr = nullptr;
ctxt_elem *_ctxt = nullptr;
int32_t _wthr_size = 0;
int32_t _next_wthri = 0;
int32_t _cur_ctxti = 0;
int32_t _start_ctxt = CONTEXT_MODE_UNDECIDED;
int32_t _init_wthr_flag = 0;
wthr_var *_main_wthrv = nullptr;
wthr_elem *_main_wthrp = nullptr;
pthread_mutex_t _wthr_mutex = PTHREAD_MUTEX_INITIALIZER;
int32_t _endian = 0;
int32_t _node_type = 0;
int32_t _my_pid = 0;

// Threads whose identities agree in their low 32 bits stand some 4 GiB of stacks apart, which a program of
// 500 threads reaches. The rows hold the short form; this column tells such threads from one another.
static pthread_t row_threads[TABLE_ROWS];

std::atomic<uint64_t> table_generation{0};
constinit thread_local thread_hint current_hint __attribute__((tls_model("initial-exec"))) = {};

// Expects the table lock.
static void tables_changed(void)
{
    table_generation.fetch_add(1, std::memory_order_release);
}

static int32_t short_identity(pthread_t thread)
{
    return (int32_t)(uint32_t)thread;
}

// The context row on which a thread row stands; null if it stands on none.
static ctxt_elem *context_row(const wthr_elem *row)
{
    int32_t index = row->ctxt_index == MAIN_CONTEXT_INDEX ? 0 : row->ctxt_index;
    return index >= 0 && index < _wthr_size ? &_ctxt[index] : nullptr;
}

// A fatal line ends the process, and what the application does at its exit may call in here again: the table
// lock must be free by then. Expects it, and takes it back.
static void fatal_without_memory(const char *code, size_t size)
{
    int cause = errno;
    _thread_unlock();
    errno = cause;
    VORN_LOG(1, LEVEL_FATAL, code, "0005 memory allocation error : size = %d", (int)size);
    _thread_lock();
}

int _init_wthr_elem(wthr_elem *row)
{
    row->thread_id = -1;
    row->second_word = -1;
    row->in_use = 0;
    row->fourth_word = 0;
    row->fifth_word = 0;
    row->ctxt_index = -1;
    tables_changed();
    return 1;
}

int _init_ctxt_elem(ctxt_elem *row)
{
    row->ctxt_id = TPNULLCONTEXT;
    row->wthr_var = nullptr;
    row->in_use = 0;
    row->owner = -1;
    tables_changed();
    return 1;
}

int _init_ctxt(int32_t rows)
{
    _ctxt = (ctxt_elem *)calloc((size_t)rows, sizeof(ctxt_elem));
    if (_ctxt == nullptr) {
        fatal_without_memory("CLI0702", rows * sizeof(ctxt_elem));
        return -1;
    }
    for (int32_t i = 0; i < rows; i++)
        _init_ctxt_elem(&_ctxt[i]);
    _ctxt[0].in_use = 1;
    return 1;
}

int _init_wthr(int32_t rows)
{
    _wthr = (wthr_elem *)calloc((size_t)rows, sizeof(wthr_elem));
    if (_wthr == nullptr) {
        fatal_without_memory("CLI0701", rows * sizeof(wthr_elem));
        return -1;
    }
    for (int32_t i = 0; i < rows; i++)
        _init_wthr_elem(&_wthr[i]);
    _wthr_size = rows;
    _next_wthri = 0;
    _wthr[0].ctxt_index = 0;
    wthr_var *block = _wthr_var_init(&_wthr[0]);
    if (block == nullptr)
        return -1;
    _main_wthrv = block;
    _main_wthrp = &_wthr[0];
    _wthr[0].thread_id = -1;
    _wthr[0].in_use = 1;
    return 1;
}

int _init_thrtbl(void)
{
    if (_init_wthr_flag != 0)
        return 1;
    if (_init_ctxt(TABLE_ROWS) < 0 || _init_wthr(TABLE_ROWS) < 0)
        return -1;
    _init_wthr_flag = 1;
    tables_changed();
    return 1;
}

wthr_var *_wthr_var_init(wthr_elem *row)
{
    ctxt_elem *context = context_row(row);
    if (context == nullptr)
        return nullptr;
    if (context->wthr_var != nullptr)
        return context->wthr_var;
    wthr_var *block = (wthr_var *)calloc(1, sizeof *block);
    if (block == nullptr) {
        fatal_without_memory("CLI0703", sizeof *block);
        return nullptr;
    }
    block->node_count = 1;
    block->clhfd = -1;
    block->wake_fd = -1;
    block->reader_sent_fd = -1;
    block->compress_threshold = -1;
    block->default_prio = 50;
    block->next_prio = 50;
    block->last_prio = -1;
    block->sessionid = -1;
    block->ahead.fd = -1;
    _thread_mutex_init(&block->roll_mutex);
    _thread_cond_init(&block->roll_cond);
    _thread_mutex_init(&block->msg_mutex);
    for (pthread_mutex_t &mutex : block->crypt_mutex)
        _thread_mutex_init(&mutex);
    block->cvt_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    _thread_cond_init(&block->reader_cond);
    _thread_cond_init(&block->offer_done_cond);
    context->wthr_var = block;
    tables_changed();
    return block;
}

int _get_nth_from_thrtbl(void)
{
    pthread_t self = pthread_self();
    int32_t identity = short_identity(self);
    for (int32_t i = 0; i < _wthr_size; i++)
        if (_wthr[i].thread_id == identity && _wthr[i].in_use != 0 && pthread_equal(row_threads[i], self))
            return i;
    return -1;
}

wthr_var *_get_wthr_from_nth(void)
{
    int n = _get_nth_from_thrtbl();
    if (n < 0)
        return nullptr;
    ctxt_elem *context = context_row(&_wthr[n]);
    if (context == nullptr)
        return nullptr;
    if (context->wthr_var == nullptr) {
        _thread_unlock();
        VORN_LOG(0, LEVEL_FATAL, "CLI0704", "0121 failed to get thread variables");
        _thread_lock();
    }
    return context->wthr_var;
}

// First free thread row from `_next_wthri` on, -1 if there is none.
static int free_thread_row(void)
{
    for (int32_t walked = 0, i = _next_wthri; walked < _wthr_size; walked++, i++) {
        if (i >= _wthr_size)
            i = 0;
        if (_wthr[i].in_use == 0) {
            _next_wthri = i + 1;
            return i;
        }
    }
    return -1;
}

int _get_idle_wthr_ptr2(void)
{
    int n = _get_nth_from_thrtbl();
    return n >= 0 ? n : free_thread_row();
}

wthr_elem *_get_idle_wthr_ptr(void)
{
    if (_cur_ctxti == HIGHEST_CONTEXT_NUMBER)
        _cur_ctxti = 0;
    int n = _get_idle_wthr_ptr2();
    if (n < 0)
        return nullptr;
    // The number runs on to 4000, the rows only to 400: as a row it counts modulo the table.
    int32_t start = _cur_ctxti % _wthr_size;
    for (int32_t walked = 0, i = start; walked < _wthr_size; walked++, i++) {
        if (i >= _wthr_size)
            i = 0;
        if (_ctxt[i].in_use == 0) {
            _cur_ctxti++;
            _ctxt[i].ctxt_id = _cur_ctxti;
            _wthr[n].ctxt_index = i;
            tables_changed();
            return &_wthr[n];
        }
    }
    return nullptr;
}

void bind_row(wthr_elem *row)
{
    pthread_t self = pthread_self();
    row->thread_id = short_identity(self);
    row->in_use = 1;
    row_threads[row - _wthr] = self;
    ctxt_elem *context = context_row(row);
    if (context != nullptr) {
        context->owner = short_identity(self);
        context->in_use = 1;
    }
    tables_changed();
}

struct retired_block {
    void *memory;
    retired_block *next;
};

void retire(void *memory, wthr_var *block)
{
    if (block->rolling != 0)
        keep_until_end(memory, block);
    else
        free(memory);
}

void keep_until_end(void *memory, wthr_var *block)
{
    if (memory == nullptr)
        return;
    retired_block *kept = (retired_block *)malloc(sizeof *kept);
    if (kept == nullptr)
        return;  // better lost than taken from under a thread that reads it
    *kept = {memory, nullptr};
    std::atomic_ref<retired_block *> list(block->retired);  // threads may come at once, with msg_mutex or not
    kept->next = list.load();
    while (!list.compare_exchange_weak(kept->next, kept))
        continue;
}

void free_retired(wthr_var *block)
{
    retired_block *kept = std::atomic_ref<retired_block *>(block->retired).exchange(nullptr);
    while (kept != nullptr) {
        retired_block *next = kept->next;
        free(kept->memory);
        free(kept);
        kept = next;
    }
}

void free_field_memory(wthr_var *block)
{
    free(block->fcache.exchange(nullptr));
    free(block->cvt_buf);
    block->cvt_buf = nullptr;
    block->cvt_buf_size = 0;
}

// A block that no table names any more. Threads that wait for a reader after the last socket went can't leave
// their calls; where there are any the block stays for them. Nobody can hold roll_mutex at this point, and it
// is left as it is.
static void free_block(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool needed = block->waiting > 0;
    if (!needed)
        free(block->offer_msg);
    _thread_mutex_unlock(&block->msg_mutex);
    if (needed)
        return;
    free(block->subscr);
    free_answers(block);
    end_cipher(block);  // a signal handler may have had to leave it
    free_retired(block);
    forget_sent_again(block);
    if (block->wake_fd >= 0)
        close(block->wake_fd);
    free_field_memory(block);
    _thread_mutex_destroy(&block->msg_mutex);
    for (pthread_mutex_t &mutex : block->crypt_mutex)
        _thread_mutex_destroy(&mutex);
    _thread_mutex_destroy(&block->cvt_mutex);
    _thread_cond_destroy(&block->reader_cond);
    _thread_cond_destroy(&block->offer_done_cond);
    _thread_cond_destroy(&block->roll_cond);
    free(block);
}

// The block is freed behind the table lock: a sender takes the table lock inside msg_mutex, so nobody may
// take them the other way round.
int _context_end(void)
{
    _thread_lock();
    int n = _get_nth_from_thrtbl();
    if (n < 0) {
        _thread_unlock();
        return -1;
    }
    int32_t index = _wthr[n].ctxt_index;
    ctxt_elem *context = context_row(&_wthr[n]);
    wthr_var *block = context != nullptr ? context->wthr_var : nullptr;
    for (int32_t i = 1; i < _wthr_size; i++)
        if (_wthr[i].ctxt_index == index)
            _init_wthr_elem(&_wthr[i]);
    if (context != nullptr)
        _init_ctxt_elem(context);
    _thread_unlock();
    if (block != nullptr)
        free_block(block);
    return 1;
}

// The start record's flags word; the low half of a TPINIT's stands in the same place.
static int32_t start_record_flags(const void *tpinfo)
{
    int32_t flags;
    memcpy(&flags, (const char *)tpinfo + offsetof(TPSTART_T, flags), sizeof flags);
    return flags;
}

int _check_context_with_tpinfo(const void *tpinfo, int unused)
{
    (void)unused;
    _thread_lock();
    int by_row = _get_nth_from_thrtbl() >= 0 ? 1 : 2;  // a thread with a row has its context already
    int32_t flags = tpinfo == nullptr ? 0 : start_record_flags(tpinfo);
    int result = 2;
    if (tpinfo == nullptr) {
        if (_start_ctxt == CONTEXT_MODE_SINGLE)
            result = by_row;
        else if (_start_ctxt == CONTEXT_MODE_MULTIPLE)
            result = -1;
        else if (_start_ctxt == CONTEXT_MODE_UNDECIDED)
            _start_ctxt = CONTEXT_MODE_SINGLE;
    } else if (_start_ctxt == CONTEXT_MODE_UNDECIDED) {
        _start_ctxt = flags & CONTEXT_MODE_MULTIPLE;
    } else if (flags == 0 && _start_ctxt == CONTEXT_MODE_SINGLE) {
        result = by_row;
    } else if ((flags & CONTEXT_MODE_MULTIPLE) != _start_ctxt) {
        result = -1;
    }
    tables_changed();  // the mode is part of what a thread is told
    _thread_unlock();
    if (result < 0)
        set_tperrno(TPEPROTO);
    return result;
}

// The number of the context on which a thread stands, as tpgetctxt tells it. Expects the table lock.
static int32_t context_number(int n)
{
    if (n < 0)
        return _ctxt[0].ctxt_id;
    if (_start_ctxt == CONTEXT_MODE_SINGLE)
        return TPSINGLECONTEXT;
    const ctxt_elem *context = context_row(&_wthr[n]);
    return context == nullptr || context->ctxt_id == TPNULLCONTEXT ? TPINVALIDCONTEXT : context->ctxt_id;
}

bool renew_hint(void)
{
    _thread_lock();
    if (_init_thrtbl() < 0) {
        _thread_unlock();
        return false;
    }
    int n = _get_nth_from_thrtbl();
    wthr_var *block = _get_wthr_from_nth();
    current_hint.generation = 0;
    current_hint.row = n >= 0 ? &_wthr[n] : _main_wthrp;
    current_hint.block = block != nullptr ? block : _main_wthrv;
    current_hint.context_number = context_number(n);
    current_hint.generation = table_generation.load(std::memory_order_relaxed);
    _thread_unlock();
    return true;
}

bool current_context_number(int *number)
{
    if (!hint_holds() && !renew_hint())
        return false;
    *number = current_hint.context_number;
    return true;
}

// The cells are written with atomic stores because threads without a row share those of row 0.
void set_tperrno(int code)
{
    wthr_elem *row = current_row();
    if (row != nullptr)
        std::atomic_ref<int32_t>(row->tperrno).store(code, std::memory_order_relaxed);
}

int get_tperrno(void)
{
    wthr_elem *row = current_row();
    return row == nullptr ? 0 : std::atomic_ref<int32_t>(row->tperrno).load(std::memory_order_relaxed);
}

void set_tpurcode(int64_t code)
{
    wthr_elem *row = current_row();
    if (row != nullptr)
        std::atomic_ref<int64_t>(row->tpurcode).store(code, std::memory_order_relaxed);
}

void _thread_lock(void)
{
    pthread_mutex_lock(&_wthr_mutex);
}

void _thread_unlock(void)
{
    pthread_mutex_unlock(&_wthr_mutex);
}

pthread_t _thread_self(void)
{
    return pthread_self();
}

int _vorn_mutex_lock(pthread_mutex_t *mutex)
{
    return pthread_mutex_lock(mutex);
}

int _vorn_mutex_unlock(pthread_mutex_t *mutex)
{
    return pthread_mutex_unlock(mutex);
}

int _thread_mutex_init(pthread_mutex_t *mutex)
{
    return pthread_mutex_init(mutex, nullptr);
}

int _thread_mutex_lock(pthread_mutex_t *mutex)
{
    return pthread_mutex_lock(mutex);
}

int _thread_mutex_unlock(pthread_mutex_t *mutex)
{
    return pthread_mutex_unlock(mutex);
}

int _thread_mutex_destroy(pthread_mutex_t *mutex)
{
    return pthread_mutex_destroy(mutex);
}

int _thread_cond_init(pthread_cond_t *cond)
{
    return pthread_cond_init(cond, nullptr);
}

int _thread_cond_signal(pthread_cond_t *cond)
{
    return pthread_cond_signal(cond);
}

int _thread_cond_broadcast(pthread_cond_t *cond)
{
    return pthread_cond_broadcast(cond);
}

int _thread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex)
{
    return pthread_cond_wait(cond, mutex);
}

timespec deadline_in(int milliseconds)
{
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

int _thread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, int milliseconds)
{
    if (milliseconds < 0)
        return pthread_cond_wait(cond, mutex);
    timespec deadline = deadline_in(milliseconds);
    return pthread_cond_timedwait(cond, mutex, &deadline);
}

int _thread_cond_destroy(pthread_cond_t *cond)
{
    return pthread_cond_destroy(cond);
}
}
