// Paths, processes and small checks that the rest of the library shares. Those for applications, too, are in
// vorn/utility.h.
#ifndef VORN_RUNTIME_COMMON_H
#define VORN_RUNTIME_COMMON_H

#include "vorn/utility.h"

extern "C" {

int _vorn_IsHeapPtr(const void *p);  // 1 for what may be a block of malloc: not null, a multiple of 4

// Text for which a format without arguments would be printed: "%%" becomes "%", in place. Every other percent
// sign stands for itself, so that no text makes printf look for arguments that aren't there.
void print_percents(char *text);
}

#endif
