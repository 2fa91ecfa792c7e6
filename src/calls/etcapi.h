// Questions to the server. The calls themselves are in vorn/query.h.
#ifndef VORN_CALLS_ETCAPI_H
#define VORN_CALLS_ETCAPI_H

#include "vorn/query.h"

#include <stdint.h>

struct wthr_var;

extern "C" {

struct group_numbers {
    int32_t count;
    int32_t *numbers;  // on the heap, the caller's; null if there are none
};

// Asks for the server groups of a service, as tpgetsvglist, whose record takes them too. The copy is the
// caller's own, whatever other threads of the context ask meanwhile. False, with tperrno set or 0 if the
// server knows none.
bool fetch_groups(const char *svc, group_numbers *groups, wthr_var *block);

inline int node_of_group(int32_t group)
{
    return (group >> 16) & 0x7ff;
}

void free_groups(svg_list *list);  // what the record holds; it is empty then
}

#endif
