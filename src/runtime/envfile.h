// The environment file. The calls themselves are in vorn/environment.h.
#ifndef VORN_RUNTIME_ENVFILE_H
#define VORN_RUNTIME_ENVFILE_H

#include "vorn/environment.h"

#include <stddef.h>

extern "C" {

// Classes of a line, as _process_env_line gives them; -1 for a line in error.
enum env_line { ENV_COMMENT = 1, ENV_LABEL = 2, ENV_LABEL_END = 3, ENV_ASSIGNMENT = 4, ENV_BLANK = 5 };

constexpr int ENV_LINE_SIZE = 1024;  // a longer line falls into several
// Room that `out` of _process_env_line must have: the longest string that the system lets into an
// environment, and a line. What is longer all the same is refused.
constexpr size_t ENV_OUT_SIZE = 0x20000 + ENV_LINE_SIZE;

const char *_dflt_env_file(void);
int _set_vornenv(const char *file, const char *label);  // 1; -1 for no file, no memory, or no assignment
// `out` holds the label or "NAME=value"; `line` is the same again afterwards. A variable that isn't set
// leaves `out` without a terminator of its own, so `out` must hold a terminated string beforehand.
int _process_env_line(char *line, char *out);
void _vorn_clrenvflag(void);
}

#endif
