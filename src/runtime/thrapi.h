// The frame of the API functions.
//
// An exported function opens with api_enter, which yields the caller's row and block and traces the entry,
// and leaves through api_return, api_error or api_fail, which trace the exit. Its trace texts are one
// constant record, made with API_TEXT.
#ifndef VORN_RUNTIME_THRAPI_H
#define VORN_RUNTIME_THRAPI_H

#include "runtime/mthr.h"
#include "runtime/trace.h"

extern "C" {

struct api_text {
    const char *name;
    const char *enter;   // "tpcancel(%d)"
    const char *result;  // "tpcancel = %d"
    const char *error;   // "tpcancel = -1 [%d : %s]"
};

#define API_TEXT(function, arguments) \
    { \
        function, function arguments, function " = %d", function " = -1 [%d : %s]" \
    }

// Of a call that gives an address.
#define API_POINTER_TEXT(function, arguments) \
    { \
        function, function arguments, function " = %#x", function " = NULL [%d : %s]" \
    }

struct api_frame {
    wthr_elem *row;   // the caller's row, row 0 if it has none
    wthr_var *block;  // its block, or the fall-back block
    int row_bound;    // 1 once api_open_context has bound a row in this call
    int result;       // of a call that api_begin has ended
};

// Finds row and block; false if the tables can't be made: the caller then returns its failure value at once,
// there being no cell to leave an error in. Takes no lock when the thread's hint still holds.
inline bool api_find(api_frame *frame)
{
    frame->row = current_row();
    frame->block = frame->row != nullptr ? current_hint.block : nullptr;
    frame->row_bound = 0;
    frame->result = -1;
    return frame->row != nullptr;
}

// api_find, and the entry trace.
#define API_ENTER(frame, text, ...) \
    (api_find(frame) && \
     (VORN_TRACE((text).name, 1, TRACE_ENTRY, (text).enter __VA_OPT__(, ) __VA_ARGS__), true))

// A name as the entry trace shows it.
inline const char *shown(const char *name)
{
    return name != nullptr ? name : "";
}

// The starting form of the session check: a call that may open a session by itself goes on only on API_GO_ON.
enum api_context { API_GO_ON, API_NOTHING_TO_DO, API_NO_CONTEXT };
api_context api_open_context(api_frame *frame);

// The opening of such a call behind its entry: clears the error and opens a context if there is none. False
// if the call is over; its exit is traced and frame->result is what it returns.
bool api_begin(api_frame *frame, const api_text *text);

// Exits. api_error reports the error that stands in the caller's cell; api_fail sets it first. Both give -1.
// Where the call has bound a row and then failed before it tried to start a session, they end that context,
// so that the next call of the thread starts afresh; the error stays readable.
int api_return(const api_text *text, int result);
int api_error(const api_frame *frame, const api_text *text);
int api_fail(const api_frame *frame, const api_text *text, int code);

// The exit of a call that gives an address: the address, or null with the error that stands in the cell.
void *api_give(const api_frame *frame, const api_text *text, void *address);

int tpsetctxt(int ctxt, long flags);
int tpgetctxt(int *ctxt, long flags);
}

#endif
