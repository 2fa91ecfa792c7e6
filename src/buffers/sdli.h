// Struct definitions. There are none yet, so no struct is known by name: this is the one place to look.
#ifndef VORN_BUFFERS_SDLI_H
#define VORN_BUFFERS_SDLI_H

#include <stdint.h>

extern "C" {
extern int32_t _sdlfile_loadsw;
int _sdlfile_load(void);                                         // 1 with nothing to load, -1 otherwise
int _get_host_stsize(const char *name);                          // -1: unknown
int _get_host_nw_stsize(const char *name, int *host, int *net);  // -1: unknown
}

#endif
