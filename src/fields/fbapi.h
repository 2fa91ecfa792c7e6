// The frame of the field calls: that of runtime/thrapi.h, with fberror in place of tperrno. No session is
// needed, and the error cell is cleared at the entry.
#ifndef VORN_FIELDS_FBAPI_H
#define VORN_FIELDS_FBAPI_H

#include "runtime/thrapi.h"
#include "vorn/errors.h"

#include <atomic>

extern "C" {

// Texts of calls that give a number and fail with -1 or with 0, that give an address, and that give a string.
#define FB_TEXT(function, arguments) API_TEXT(function, arguments)
#define FB_ZERO_TEXT(function, arguments) \
    { \
        function, function arguments, function " = %d", function " = 0 [%d : %s]" \
    }
#define FB_POINTER_TEXT(function, arguments) API_POINTER_TEXT(function, arguments)
#define FB_STRING_TEXT(function, arguments) \
    { \
        function, function arguments, function " = \"%s\"", function " = NULL [%d : %s]" \
    }

// The cell of the caller's row. It is atomic because threads without a row share that of row 0, and only
// written when it changes: rows of other threads lie in the same cache line.
inline void put_fberror(wthr_elem *row, int code)
{
    std::atomic_ref<int32_t> cell(row->fberror);
    if (cell.load(std::memory_order_relaxed) != code)
        cell.store(code, std::memory_order_relaxed);
}

inline void set_fberror(int code)
{
    wthr_elem *row = current_row();
    if (row != nullptr)
        put_fberror(row, code);
}

inline int refused(int code)
{
    set_fberror(code);
    return -1;
}

inline bool fb_clear_error(const api_frame *frame)
{
    put_fberror(frame->row, 0);
    return true;
}

// Row, block and entry trace, and fberror 0. False without tables: the call then returns its failure value.
#define FB_ENTER(frame, text, ...) \
    (API_ENTER(frame, text __VA_OPT__(, ) __VA_ARGS__) && fb_clear_error(frame))

// All that the frame does while the thread's hint holds and nobody traces: fberror 0. True if so, and the
// call is then its work alone, whose result tells by itself whether it failed. This is for the calls of which
// a record takes one for each field.
inline bool fb_enter_untraced(void)
{
    if (!hint_holds() || is_traced())
        return false;
    put_fberror(current_hint.row, 0);
    return true;
}

// Exits. fb_error reports what stands in fberror, fb_fail sets it first; both give -1. The forms for an
// address give null.
inline int fb_return(const api_text *text, int result)
{
    VORN_TRACE(text->name, 1, TRACE_RESULT, text->result, result);
    return result;
}

inline char *fb_return_pointer(const api_text *text, char *result)
{
    VORN_TRACE(text->name, 1, TRACE_RESULT, text->result, result);
    return result;
}

int fb_error(const api_text *text);
int fb_fail(const api_text *text, int code);
char *fb_null_error(const api_text *text);
char *fb_null(const api_text *text, int code);

// An exit for a result that tells by itself whether the call failed: negative, or null.
inline int fb_result(const api_text *text, int result)
{
    return result < 0 ? fb_error(text) : fb_return(text, result);
}

inline char *fb_pointer_result(const api_text *text, char *result)
{
    return result == nullptr ? fb_null_error(text) : fb_return_pointer(text, result);
}
}

#endif
