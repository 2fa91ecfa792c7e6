// The transaction record.
#include "tx/tx.h"

#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <atomic>
#include <stdlib.h>

extern "C" {

// The last table made and the row in use: process-wide, so a new session's table takes their place.
txinfo_elem *_internal_txinfo = nullptr;
int32_t _cur_txinfo_ind = 0;

int _init_txinfo_elem(txinfo_elem *row)
{
    memset(row, 0, sizeof *row);
    row->spare2 = 1;
    row->formatID = 1;
    row->gtrid_length = 8;
    row->bqual_length = 4;
    row->transaction_state = TX_STATE_NONE;
    return 1;
}

int _init_txinfo(wthr_var *block)
{
    if (block->txinfo != nullptr)
        _init_txinfo_elem(block->txinfo);
    return 1;
}

int _make_txinfo(wthr_var *block)
{
    txinfo_elem *table = (txinfo_elem *)calloc(TXINFO_ROWS, sizeof(txinfo_elem));
    if (table == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "CSC5108", "0004 memory allocation error : size = %d",
                 (int)(TXINFO_ROWS * sizeof(txinfo_elem)));
        return -1;
    }
    for (int i = 0; i < TXINFO_ROWS; i++)
        _init_txinfo_elem(&table[i]);
    std::atomic_ref<txinfo_elem *>(_internal_txinfo).store(table, std::memory_order_relaxed);
    std::atomic_ref<int32_t>(_cur_txinfo_ind).store(0, std::memory_order_relaxed);
    block->txinfo = table;
    return 1;
}

int _txinfo_end(wthr_var *block)
{
    txinfo_elem *table = block->txinfo;
    block->txinfo = nullptr;  // before it goes: an alarm may come in between
    std::atomic_ref<txinfo_elem *> last(_internal_txinfo);
    txinfo_elem *made = last.load(std::memory_order_relaxed);
    if (made != nullptr && table >= made && table < made + TXINFO_ROWS) {
        table = made;  // the row in use need not be the first
        last.compare_exchange_strong(made, nullptr);
    }
    free(table);
    return 1;
}

static int32_t stage_of(const wthr_var *block)
{
    if (block->txinfo == nullptr)
        return TX_STAGE_NONE;
    return std::atomic_ref<int32_t>(block->txinfo->tx_stage).load(std::memory_order_relaxed);
}

bool in_transaction(const wthr_var *block)
{
    return stage_of(block) != TX_STAGE_NONE;
}

bool is_running(const wthr_var *block)
{
    return stage_of(block) == TX_STAGE_RUNNING;
}

static bool move_stage(wthr_var *block, int32_t from, int32_t to)
{
    return block->txinfo != nullptr &&
           std::atomic_ref<int32_t>(block->txinfo->tx_stage).compare_exchange_strong(from, to);
}

bool begin_record(wthr_var *block)
{
    return move_stage(block, TX_STAGE_NONE, TX_STAGE_BEGUN);
}

bool begin_to_run(wthr_var *block)
{
    return move_stage(block, TX_STAGE_BEGUN, TX_STAGE_RUNNING);
}

bool leave_unsent(wthr_var *block)
{
    return move_stage(block, TX_STAGE_BEGUN, TX_STAGE_NONE);
}

int32_t tx_state_of(const wthr_var *block)
{
    if (block->txinfo == nullptr)
        return TX_STATE_NONE;
    return std::atomic_ref<int32_t>(block->txinfo->transaction_state).load(std::memory_order_relaxed);
}

void set_tx_state(wthr_var *block, int32_t state)
{
    if (block->txinfo != nullptr)
        std::atomic_ref<int32_t>(block->txinfo->transaction_state).store(state, std::memory_order_relaxed);
}

int _check_tx_state(int msgtype, int mark, wthr_var *block)
{
    (void)msgtype;
    if (mark != 0 && in_transaction(block))
        set_tx_state(block, TX_STATE_ROLLBACK);
    return 1;
}

int _check_rollback(wthr_var *block)
{
    return _check_tx_state(0, 1, block);
}

int _tx_start_check(int msgtype)
{
    (void)msgtype;
    wthr_var *block = current_block();
    if (block == nullptr || !in_transaction(block))
        return 1;
    int32_t state = tx_state_of(block);
    if (state != TX_STATE_TIMED_OUT && state != TX_STATE_ROLLBACK)
        return 1;
    set_tperrno(state == TX_STATE_TIMED_OUT ? TPETIME : TPEPROTO);
    return -1;
}

int _tx_timeout_check(const msg_header *message)
{
    wthr_var *block = current_block();
    if (block == nullptr || !in_transaction(block))
        return 0;
    if (message != nullptr && (message->msgtype == MSG_TX_COMMIT || message->msgtype == MSG_TX_ROLLBACK))
        return 0;
    return tx_state_of(block) == TX_STATE_TIMED_OUT ? -TPETIME : 0;
}
}
