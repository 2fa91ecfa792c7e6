// The trace hook and what is left of the facility around it.
#include "runtime/trace.h"

#include <ctype.h>

extern "C" {

// Never inlined: a program's own function takes the place of this one when it is loaded.
__attribute__((noinline)) int _vorn_trace(const char *, int, int, const char *, ...)
{
    return 1;
}

int idle_trace(const char *, int, int, const char *, ...) __attribute__((alias("_vorn_trace"), nothrow));

int _trace_dbg(void)
{
    return 1;
}

int _chk_trace(void)
{
    return 1;
}

int _parse_trace(void)
{
    return 1;
}

int _spel_chk(void)
{
    return 1;
}

int _internal_call_chk(void)
{
    return 1;
}

int _get_spec(void)
{
    return 0;
}

// Meant to stop behind the bracket that closes a group; it has never done so, and what is behind a bracket
// belongs to the field in which it opened.
int advbrace(char **p)
{
    int count = 0;
    while (**p != '\0') {
        (*p)++;
        count++;
    }
    return count;
}

int split_trcfld(char *text, char **fields)
{
    constexpr int FIELDS = 3;  // what a fourth colon begins is left out: `fields` has no room for it
    int count = 0;
    char *start = nullptr;
    for (char *p = text; *p != '\0' && count < FIELDS;) {
        if (*p == ':') {
            *p++ = '\0';
            fields[count++] = start;
            start = nullptr;
            continue;
        }
        if (isspace((unsigned char)*p)) {
            p++;
            continue;
        }
        if (start == nullptr)
            start = p;
        if (*p == '(')
            advbrace(&p);
        else
            p++;
    }
    for (; count < FIELDS; start = nullptr)
        fields[count++] = start;
    return 1;
}
}
