// The trace hook of this program: it has one of its own, as an application may.
#ifndef VORN_TESTS_TRACE_HOOK_H
#define VORN_TESTS_TRACE_HOOK_H

#include <string>
#include <vector>

struct traced_line {
    std::string function, text;
    int one, phase;
};

// The lines since the last look, of all threads, and nothing kept.
std::vector<traced_line> take_traced(void);

#endif
