// The frame of the API functions, and the calls that move a thread between contexts.
#include "runtime/thrapi.h"

#include "vorn/context.h"
#include "vorn/errors.h"

extern "C" {

api_context api_open_context(api_frame *frame)
{
    if (frame->block->started != 0)
        return API_GO_ON;
    int context = _check_context_with_tpinfo(nullptr, 0);
    if (context < 0)
        return API_NO_CONTEXT;
    if (context == 1)
        return API_NOTHING_TO_DO;
    _thread_lock();
    wthr_elem *row = _get_idle_wthr_ptr();
    if (row == nullptr) {
        _thread_unlock();
        set_tperrno(TPELIMIT);
        return API_NO_CONTEXT;
    }
    wthr_var *block = _wthr_var_init(row);
    if (block == nullptr) {
        _thread_unlock();
        set_tperrno(TPEOS);
        return API_NO_CONTEXT;
    }
    bind_row(row);
    _thread_unlock();
    frame->row = row;
    frame->block = block;
    frame->row_bound = 1;
    set_tperrno(0);
    return API_GO_ON;
}

int api_return(const api_text *text, int result)
{
    VORN_TRACE(text->name, 1, TRACE_RESULT, text->result, result);
    return result;
}

// Ends a context that this call has bound and on which no start was tried. A start that fails inside the call
// ends the context itself, and the thread then stands on another block; one that succeeded leaves it,
// whatever came later. The start's first trace in the block is its seeded sequence number.
static void leave_unused_context(const api_frame *frame)
{
    if (frame->row_bound == 0 || current_block() != frame->block || frame->block->seqno_inited != 0)
        return;
    int code = get_tperrno();
    _context_end();
    set_tperrno(code);
}

int api_error(const api_frame *frame, const api_text *text)
{
    leave_unused_context(frame);
    int code = get_tperrno();
    _vorn_trace(text->name, 1, TRACE_ERROR, text->error, code, tpstrerror(code));
    return -1;
}

int api_fail(const api_frame *frame, const api_text *text, int code)
{
    set_tperrno(code);
    return api_error(frame, text);
}

void *api_give(const api_frame *frame, const api_text *text, void *address)
{
    if (address == nullptr)
        api_error(frame, text);
    else
        VORN_TRACE(text->name, 1, TRACE_RESULT, text->result, address);
    return address;
}

bool api_begin(api_frame *frame, const api_text *text)
{
    set_tperrno(0);
    switch (api_open_context(frame)) {
    case API_NO_CONTEXT:
        frame->result = api_error(frame, text);
        return false;
    case API_NOTHING_TO_DO:
        frame->result = api_return(text, 1);
        return false;
    case API_GO_ON:
        break;
    }
    return true;
}

static constexpr api_text TPSETCTXT = API_TEXT("tpsetctxt", "(%d, %d)");
static constexpr api_text TPGETCTXT = API_TEXT("tpgetctxt", "(%#x, %d)");

// Takes the thread off its context, whose block is null if it was never made; its row keeps its place.
// Expects the table lock.
static void detach_row(wthr_elem *row, wthr_var *block)
{
    if (block != nullptr && block->thread_refs > 0)
        block->thread_refs--;  // written under the table lock only
    if (row->ctxt_index >= 0)
        _ctxt[row->ctxt_index].owner = -1;
}

// The row of a live context; -1 if there is none of this number. Expects the table lock.
static int find_context(int number)
{
    for (int i = 0; i < _wthr_size; i++)
        if (_ctxt[i].ctxt_id == number && _ctxt[i].in_use == 1)
            return i;
    return -1;
}

// Moves the thread to context row `index`. 0, or an error number. Expects the table lock. A context whose
// session hasn't started is refused only after the thread has left the one it stood on.
static int attach_row(int n, wthr_var *old_block, int index)
{
    if (n >= 0) {
        detach_row(&_wthr[n], old_block);
    } else {
        n = _get_idle_wthr_ptr2();
        if (n < 0)
            return TPELIMIT;
    }
    wthr_var *target = _ctxt[index].wthr_var;
    if (target == nullptr || target->started == 0)
        return TPENOENT;
    _wthr[n].ctxt_index = index;
    bind_row(&_wthr[n]);
    target->thread_refs++;
    return 0;
}

int tpsetctxt(int ctxt, long flags)
{
    api_frame frame;
    _vorn_trace(TPSETCTXT.name, 1, TRACE_ENTRY, TPSETCTXT.enter, ctxt, flags);
    _thread_lock();
    if (_init_thrtbl() < 0) {
        _vorn_trace(TPSETCTXT.name, 1, TRACE_ERROR, "tpsetctxt = -1");
        return -1;  // with the table lock held: there is no going on without tables
    }
    int32_t mode = _start_ctxt;
    _thread_unlock();
    api_find(&frame);
    int code = TPEINVAL;
    if (mode == CONTEXT_MODE_SINGLE) {
        code = ctxt == 0 ? 0 : TPEPROTO;
    } else if (ctxt == TPNULLCONTEXT) {
        _thread_lock();
        int n = _get_nth_from_thrtbl();
        if (n >= 0) {
            detach_row(&_wthr[n], frame.block);
            _init_wthr_elem(&_wthr[n]);
        }
        _thread_unlock();
        code = 0;
    } else if (ctxt == 0) {
        code = TPEPROTO;
    } else if (ctxt > 0 && flags == 0) {
        _thread_lock();
        int index = find_context(ctxt);
        code = index < 0 ? TPENOENT : attach_row(_get_nth_from_thrtbl(), frame.block, index);
        _thread_unlock();
    }
    if (code != 0)
        return api_fail(&frame, &TPSETCTXT, code);
    set_tperrno(0);  // the row may have been another thread's
    return api_return(&TPSETCTXT, 1);
}

int tpgetctxt(int *ctxt, long flags)
{
    api_frame frame;
    int number;
    _vorn_trace(TPGETCTXT.name, 1, TRACE_ENTRY, TPGETCTXT.enter, ctxt, flags);
    if (!current_context_number(&number)) {
        _thread_lock();
        _vorn_trace(TPGETCTXT.name, 1, TRACE_ERROR, "tpgetctxt = -1");
        return -1;  // as in tpsetctxt
    }
    api_find(&frame);
    if (ctxt != nullptr)
        *ctxt = number;
    if (ctxt == nullptr || flags != 0)
        return api_fail(&frame, &TPGETCTXT, TPEINVAL);
    set_tperrno(0);
    _vorn_trace(TPGETCTXT.name, 1, TRACE_ERROR, TPGETCTXT.result, 1);  // a success, traced as it always was
    return 1;
}
}
