/* An application that happens to have a function of every name that the library shows (the header is made by the
   test: OWN_FUNCTION(name) for each but the trace hook). It reaches the library's calls past its own, makes a
   few, and tells which of its own functions came to be called in the course of them. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int called, traced;

#define OWN_FUNCTION(name) \
    long name(void); \
    long name(void) \
    { \
        printf("called %s\n", #name); \
        called++; \
        return -1; \
    }
#include "own_names.h"

int _vorn_trace(const char *function, int one, int phase, const char *format, ...);
int _vorn_trace(const char *function, int one, int phase, const char *format, ...)
{
    (void)function, (void)one, (void)phase, (void)format;
    traced++;
    return 1;
}

#define OF_LIBRARY(type, name) (*(type **)&(void *[]){dlsym(RTLD_NEXT, name)}[0])

typedef int start_call(void *tpinfo);
typedef int end_call(void);
typedef char *alloc_call(const char *type, const char *subtype, long size);
typedef void free_call(char *data);
typedef int call_call(char *service, char *in, long in_length, char **out, long *out_length, long flags);
typedef int acall_call(char *service, char *in, long in_length, long flags);
typedef int reply_call(int *cd, char **out, long *out_length, long flags);
typedef int error_call(void);

int main(void)
{
    long length = 0;
    int cd;
    char *data;

    if (OF_LIBRARY(start_call, "tpstart")(NULL) == -1) {
        printf("tpstart failed: %d\n", OF_LIBRARY(error_call, "gettperrno")());
        return 1;
    }
    data = OF_LIBRARY(alloc_call, "tpalloc")("STRING", NULL, 64);
    if (data == NULL) {
        return 1;
    }
    strcpy(data, "one");
    if (OF_LIBRARY(call_call, "tpcall")("TOUPPER", data, 0, &data, &length, 0) == -1) {
        printf("tpcall failed: %d\n", OF_LIBRARY(error_call, "gettperrno")());
        return 1;
    }
    printf("reply %s\n", data);
    strcpy(data, "two");
    cd = OF_LIBRARY(acall_call, "tpacall")("TOUPPER", data, 0, 0);
    if (cd == -1 || OF_LIBRARY(reply_call, "tpgetrply")(&cd, &data, &length, 0) == -1) {
        printf("tpacall failed: %d\n", OF_LIBRARY(error_call, "gettperrno")());
        return 1;
    }
    printf("reply %s\n", data);
    OF_LIBRARY(free_call, "tpfree")(data);
    OF_LIBRARY(end_call, "tpend")();
    printf("own functions called: %d\ntraced: %s\n", called, traced > 0 ? "yes" : "no");
    return called != 0;
}
