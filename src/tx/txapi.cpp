// The TX interface: beginning, ending and looking at a transaction.
//
// A transaction begins without a message: the server hears of it with the first request that isn't outside
// it. Its end is a message of its own, or none if nothing was sent. Whatever the outcome, the record is ready
// for the next transaction afterwards, and the calls and conversations of this one are gone.
#include "tx/txapi.h"

#include "calls/cscommon.h"
#include "runtime/errlog.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/session.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

int32_t _xa_timer_sw = 0;
char _svcxid[12] = {};

static constexpr api_text TX_BEGIN = API_TEXT("tx_begin", "(void)");
static constexpr api_text TX_COMMIT = API_TEXT("tx_commit", "(void)");
static constexpr api_text TX_ROLLBACK_TEXT = API_TEXT("tx_rollback", "(void)");
static constexpr api_text TX_INFO = API_TEXT("tx_info", "(%#x)");
static constexpr api_text TX_SET_RETURN = API_TEXT("tx_set_commit_return", "(%d)");
static constexpr api_text TX_SET_CONTROL = API_TEXT("tx_set_transaction_control", "(%d)");
static constexpr api_text TX_SET_TIMEOUT = API_TEXT("tx_set_transaction_timeout", "(%d)");

// --- The record.

// A word of the record that another thread of the context may meet: the one that reads the connection can be
// told a new time-out by the server at any moment.
static int32_t read_word(int32_t &word)
{
    return std::atomic_ref<int32_t>(word).load(std::memory_order_relaxed);
}

static void write_word(int32_t &word, int32_t value)
{
    std::atomic_ref<int32_t>(word).store(value, std::memory_order_relaxed);
}

// The stage goes last: once it is none, another thread of the context may begin.
static void end_record(wthr_var *block)
{
    if (block->txinfo == nullptr)
        return;
    write_word(block->txinfo->tx_active, 0);
    set_tx_state(block, TX_STATE_NONE);
    std::atomic_ref<int32_t>(block->txinfo->tx_stage).store(TX_STAGE_NONE);
}

// The row so many behind the current index, which other sessions' starts reset and nobody keeps in bounds.
static int ring_index(int tries)
{
    return (int)(((uint32_t)_cur_txinfo_ind + (uint32_t)tries) % TXINFO_ROWS);
}

int _set_next_txinfo(wthr_var *block)
{
    txinfo_elem *table = _internal_txinfo;
    if (table == nullptr)
        return -1;
    _cur_txinfo_ind = (int32_t)((uint32_t)_cur_txinfo_ind + 1);
    for (int tries = 0; tries < TXINFO_ROWS; tries++) {
        txinfo_elem *row = &table[ring_index(tries)];
        if (row->tx_active != 0)
            continue;
        block->txinfo = row;
        return 1;
    }
    return -1;
}

int _set_prev_txinfo(wthr_var *block, int index)
{
    if (index < 0 || index >= TXINFO_ROWS || _internal_txinfo == nullptr) {
        set_tperrno(TPELIMIT);
        return -1;
    }
    block->txinfo = &_internal_txinfo[index];
    _cur_txinfo_ind = (int32_t)((uint32_t)_cur_txinfo_ind - 1);
    return 1;
}

int _get_idx_from_xid(const XID *xid)
{
    const txinfo_elem *table = _internal_txinfo;
    for (int tries = 0; table != nullptr && xid != nullptr && tries < TXINFO_ROWS; tries++) {
        int index = ring_index(tries);
        if (memcmp(table[index].xid_data, xid->data, sizeof table[index].xid_data) == 0)
            return index;
    }
    return -1;
}

int _print_xid(const XID *xid)
{
    uint32_t words[3];
    memcpy(words, xid->data, sizeof words);
    VORN_LOG(0, LEVEL_DEBUG2, nullptr,
             "formatID = %ld, gtrid_length = %ld, bqual_length = %ld, xid = %x, %x, %x \n", xid->formatID,
             xid->gtrid_length, xid->bqual_length, words[0], words[1], words[2]);
    return 1;
}

void xid_to_xid32(const XID *xid, XID32 *xid32)
{
    xid32->formatID = (int32_t)xid->formatID;
    xid32->gtrid_length = (int32_t)xid->gtrid_length;
    xid32->bqual_length = (int32_t)xid->bqual_length;
    memcpy(xid32->data, xid->data, sizeof xid32->data);
}

void xid32_to_xid(const XID32 *xid32, XID *xid)
{
    xid->formatID = xid32->formatID;
    xid->gtrid_length = xid32->gtrid_length;
    xid->bqual_length = xid32->bqual_length;
    memcpy(xid->data, xid32->data, sizeof xid32->data);
}

// --- Beginning.

int tx_begin(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TX_BEGIN))
        return TX_FAIL;
    set_tperrno(0);
    if (frame.block->started == 0 && tpstart(nullptr) < 0)
        return api_return(&TX_BEGIN, TX_FAIL);
    wthr_var *block = current_block();  // the start may have given the thread a context of its own
    txinfo_elem *row = block->txinfo;
    if (row == nullptr)
        return api_return(&TX_BEGIN, TX_FAIL);
    if (!begin_record(block))
        return api_return(&TX_BEGIN, TX_PROTOCOL_ERROR);
    int32_t timeout = read_word(row->transaction_timeout);
    if (timeout > 0)
        _set_tx_timer(timeout, block);
    write_word(row->tx_active, 1);
    set_tx_state(block, TX_STATE_ACTIVE);
    return api_return(&TX_BEGIN, TX_OK);
}

// --- Ending.

int _tx_chain_check(void)
{
    wthr_var *block = current_block();
    if (block == nullptr || block->txinfo == nullptr)
        return 0;
    end_record(block);
    if (read_word(block->txinfo->transaction_control) != TX_CHAINED)
        return 0;
    return tx_begin() < 0 ? TX_NO_BEGIN : 0;
}

// What is still open in the transaction ends with it. True if there was any.
static bool end_open_work(wthr_var *block)
{
    if (block->acall_active <= 0 && block->conv_active <= 0)
        return false;
    int open = _get_active_tran_acall(block) + _get_active_tran_conv(block);
    _make_tran_acall_cd_invalid(block);
    _make_tran_convout_cd_invalid(block);
    return open > 0;
}

// The next transaction of the chained mode begins all the same; the error that is told is this one's.
static int failed_end(void)
{
    int error = get_tperrno();
    _tx_chain_check();
    if (error != 0)
        set_tperrno(error);
    return TX_FAIL;
}

static int failed_exchange(const char *code, const char *text)
{
    VORN_LOG(1, LEVEL_ERROR, code, "%s", text);
    return failed_end();
}

// The sum stays in an int, whatever number the server has sent.
static int with_chain(int32_t result, int chained)
{
    int64_t sum = (int64_t)result + chained;
    return sum < INT_MIN ? INT_MIN : (int)sum;
}

// The exchange with the server. Its result is the transaction's; a chained restart that fails adds to it.
static int end_on_server(int msgtype, wthr_var *block)
{
    msg_header *message = _header_msg_make(msgtype, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return failed_end();
    }
    message->seqno = next_seqno(block);
    put_name(message->svcname, sizeof message->svcname,
             msgtype == MSG_TX_COMMIT ? "_tx_commit" : "_tx_rback");
    if (_send_csmsg_to_clh(message, block) < 0) {
        free(message);
        return failed_exchange("CSC5403", "0027 write error");
    }
    msg_header *reply =
        _read_csmsg_from_clh_timeout(message, read_word(block->txinfo->transaction_timeout), block);
    if (reply == nullptr) {
        free(message);
        return failed_exchange("CSC5404", "0030 read error");
    }
    int result = reply->rcode;
    bool answered = reply->msgtype == msgtype + REPLY;
    free(reply);
    int chained = _tx_chain_check();
    return answered ? with_chain(result, chained) : TX_FAIL;
}

// Also where the limit has been taken away since the begin: the timer would end a later transaction.
static void stop_timer(wthr_var *block)
{
    if (read_word(block->txinfo->transaction_timeout) > 0 || block->tx_deadline != 0)
        _clr_tx_timer(block);
}

int _commit_rback(int msgtype)
{
    wthr_var *block = current_block();
    if (block == nullptr)
        return TX_FAIL;
    set_tperrno(0);
    if (block->started == 0) {
        if (in_transaction(block)) {
            stop_timer(block);
            end_record(block);
        }
        return TX_PROTOCOL_ERROR;
    }
    if (!in_transaction(block))
        return TX_PROTOCOL_ERROR;
    stop_timer(block);
    if (leave_unsent(block)) {
        _tx_chain_check();
        return TX_OK;
    }
    bool commit = msgtype == MSG_TX_COMMIT;
    if (end_open_work(block) && commit)
        set_tx_state(block, TX_STATE_ROLLBACK);
    int32_t state = tx_state_of(block);
    if (commit && (state == TX_STATE_TIMED_OUT || state == TX_STATE_ROLLBACK))
        return _tx_commit_to_rollback();
    return end_on_server(msgtype, block);
}

int _tx_commit_to_rollback(void)
{
    int result = tx_rollback();
    if (result == TX_COMMITTED)
        return TX_OK;
    return result == TX_OK ? TX_ROLLBACK : result;
}

static int end_transaction(const api_text *text, int msgtype)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text))
        return TX_FAIL;
    int result = _commit_rback(msgtype);
    wthr_var *block = current_block();
    block->rq_enq_in_tran = 0;
    block->rq_deq_in_tran = 0;
    return api_return(text, result);
}

int tx_commit(void)
{
    return end_transaction(&TX_COMMIT, MSG_TX_COMMIT);
}

int tx_rollback(void)
{
    return end_transaction(&TX_ROLLBACK_TEXT, MSG_TX_ROLLBACK);
}

// --- The record's settings.

static void copy_record(TXINFO *info, const wthr_var *block)
{
    txinfo_elem *row = block->txinfo;
    info->xid.formatID = row->formatID;
    info->xid.gtrid_length = row->gtrid_length;
    info->xid.bqual_length = row->bqual_length;
    // The word behind the identity comes along.
    static_assert(offsetof(txinfo_elem, xid_data) + sizeof info->xid.data <= sizeof *row);
    memcpy(info->xid.data, (const char *)row + offsetof(txinfo_elem, xid_data), sizeof info->xid.data);
    info->when_return = row->when_return;
    info->transaction_control = read_word(row->transaction_control);
    info->transaction_timeout = read_word(row->transaction_timeout);
    info->transaction_state = tx_state_of(block);
}

int tx_info(TXINFO *info)
{
    api_frame frame;
    if (!API_ENTER(&frame, TX_INFO, info))
        return TX_FAIL;
    set_tperrno(0);
    if (frame.block->txinfo == nullptr)
        return api_return(&TX_INFO, TX_PROTOCOL_ERROR);
    if (info != nullptr)
        copy_record(info, frame.block);
    return api_return(&TX_INFO, in_transaction(frame.block));
}

// Stores a setting, of which there is none before a session has made the record. `highest` bounds it; below 0
// any value will do.
static int set_in_record(const api_text *text, int32_t txinfo_elem::*word, long value, long highest)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text, (int)value))
        return TX_FAIL;
    set_tperrno(0);
    if (highest >= 0 && (value < 0 || value > highest))
        return api_return(text, TX_EINVAL);
    if (frame.block->txinfo == nullptr)
        return api_return(text, TX_PROTOCOL_ERROR);
    write_word(frame.block->txinfo->*word, (int32_t)value);
    return api_return(text, TX_OK);
}

int tx_set_commit_return(long when_return)
{
    return set_in_record(&TX_SET_RETURN, &txinfo_elem::when_return, when_return, TX_COMMIT_DECISION_LOGGED);
}

int tx_set_transaction_control(long control)
{
    return set_in_record(&TX_SET_CONTROL, &txinfo_elem::transaction_control, control, TX_CHAINED);
}

int tx_set_transaction_timeout(long seconds)
{
    return set_in_record(&TX_SET_TIMEOUT, &txinfo_elem::transaction_timeout, seconds, -1);
}
}
