// Transactions by other names: calls that report through tperrno, and calls that report through a pointer.
#include "runtime/thrapi.h"
#include "tx/txapi.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"

extern "C" {

static constexpr api_text TPBEGIN = API_TEXT("tpbegin", "(%d, %d)");
static constexpr api_text TPCOMMIT = API_TEXT("tpcommit", "(%d)");
static constexpr api_text TPABORT = API_TEXT("tpabort", "(%d)");
static constexpr api_text TPSCMT = API_TEXT("tpscmt", "(%d)");
static constexpr api_text TPGETLEV = API_TEXT("tpgetlev", "(void)");

int _map_tx2tperrno(int code)
{
    if (code >= 0)
        return 0;
    return code == TX_EINVAL ? TPEINVAL : code == TX_PROTOCOL_ERROR ? TPEPROTO : TPETRAN;
}

// 1, or -1 with the error that the call under it left, or that its code stands for.
static int tx_result(const api_frame *frame, const api_text *text, int code)
{
    if (code >= 0)
        return api_return(text, 1);
    if (get_tperrno() == 0)
        set_tperrno(_map_tx2tperrno(code));
    return api_error(frame, text);
}

// The session that the transaction needs is opened first: before it there is no record to hold the time-out.
int tpbegin(unsigned long timeout, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPBEGIN, (int)timeout, (int)flags))
        return -1;
    if (frame.block->started == 0 && tpstart(nullptr) < 0)
        return api_error(&frame, &TPBEGIN);
    tx_set_transaction_timeout((long)timeout);
    return tx_result(&frame, &TPBEGIN, tx_begin());
}

int tpcommit(long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCOMMIT, (int)flags))
        return -1;
    return tx_result(&frame, &TPCOMMIT, tx_commit());
}

int tpabort(long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPABORT, (int)flags))
        return -1;
    return tx_result(&frame, &TPABORT, tx_rollback());
}

int tpscmt(long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSCMT, (int)flags))
        return -1;
    set_tperrno(0);
    if (flags != TP_CMT_LOGGED && flags != TP_CMT_COMPLETE)
        return api_fail(&frame, &TPSCMT, TPEINVAL);
    return tx_result(
        &frame, &TPSCMT,
        tx_set_commit_return(flags == TP_CMT_LOGGED ? TX_COMMIT_DECISION_LOGGED : TX_COMMIT_COMPLETED));
}

int tpgetlev(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETLEV))
        return -1;
    int level = tx_info(nullptr);
    if (level < 0)
        return api_fail(&frame, &TPGETLEV, TPEPROTO);
    set_tperrno(0);
    return api_return(&TPGETLEV, level);
}

static void store(int *result, int code)
{
    if (result != nullptr)
        *result = code;
}

void TXBEGIN(int *result)
{
    store(result, tx_begin());
}

void TXCOMMIT(int *result)
{
    store(result, tx_commit());
}

void TXROLLBACK(int *result)
{
    store(result, tx_rollback());
}
}
