#include "buffers/sdli.h"

#include <stdlib.h>

extern "C" {

int32_t _sdlfile_loadsw = 0;

int _sdlfile_load(void)
{
    return getenv("SDLFILE64") == nullptr && getenv("SDLFILE") == nullptr ? 1 : -1;
}

int _get_host_stsize(const char *name)
{
    (void)name;
    return -1;
}

int _get_host_nw_stsize(const char *name, int *host, int *net)
{
    (void)name, (void)host, (void)net;
    return -1;
}
}
