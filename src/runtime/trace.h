// The trace hook. Every exported function calls _vorn_trace at its entry and at each exit; here it writes
// nothing. An application may define a _vorn_trace of its own, which then takes these calls: it is the one
// function of the library that is meant to be replaced.
#ifndef VORN_RUNTIME_TRACE_H
#define VORN_RUNTIME_TRACE_H

#include "vorn/log.h"

extern "C" {

enum trace_phase { TRACE_ENTRY = 1, TRACE_RESULT = 2, TRACE_ERROR = 4 };

// The library's own _vorn_trace by a name that nobody replaces. Null in a program that brings one of its own
// and is linked with the archive.
int idle_trace(const char *function, int one, int phase, const char *format, ...)
    __attribute__((weak, nothrow, visibility("hidden")));

// The call of the hook, left out where the hook is the library's own: handing over the arguments costs more
// than most field calls do for their user.
inline bool is_traced(void)
{
    return __builtin_expect(_vorn_trace != idle_trace, 0);
}
#define VORN_TRACE(...) (is_traced() ? (void)_vorn_trace(__VA_ARGS__) : (void)0)

// The rest of the facility, as empty as the hook: 1, and 0 from _get_spec.
int _trace_dbg(void);
int _chk_trace(void);
int _parse_trace(void);
int _spel_chk(void);
int _internal_call_chk(void);
int _get_spec(void);

// The parser of what to trace, without a caller. The first splits "a:b:c" in place into three
// pointers, null for an empty or missing field; 1. The second runs to the end of the string and gives the
// length.
int split_trcfld(char *text, char **fields);
int advbrace(char **p);
}

#endif
