// Calls to groups and multicasts. The calls themselves are in vorn/groups.h.
#ifndef VORN_CALLS_SVGAPI_H
#define VORN_CALLS_SVGAPI_H

struct wthr_var;

extern "C" {

// Frees what the context keeps of answers: its list of groups, the results of multicasts.
void free_answers(wthr_var *block);
}

#endif
