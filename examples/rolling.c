/* Calls without a pause, from several threads on one session, while the server goes down and the session
 * moves to the backup:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 VORN_BACKUP_ADDR=127.0.0.1:7001 rolling [CALLS [THREADS]]
 *
 * Each call brings a number of its own to the service COUNT, which returns it; on the servers' side the
 * numbers tell whether a call was done twice. */
#include <vorn.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define MOST_THREADS 16
#define ROOM 32
#define TELL_EVERY 1000

struct caller {
    pthread_t thread;
    int context;
    int first; /* its numbers: every `step`-th from here */
    int step;
    int end;
    int answered;
    int wrong; /* answers to another call */
    int failures;
};

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The buffer may move with each call. */
static void call_one(struct caller *me, char **buffer, int number)
{
    long length = 0;

    snprintf(*buffer, ROOM, "%d", number);
    if (tpcall("COUNT", *buffer, 0, buffer, &length, 0) == -1) {
        failed("tpcall");
        me->failures++;
        return;
    }
    if (atoi(*buffer) != number)
        me->wrong++;
    else
        me->answered++;
}

static void *run_caller(void *argument)
{
    struct caller *me = argument;
    char *buffer;
    int number;

    if (tpsetctxt(me->context, 0) == -1 || (buffer = tpalloc("STRING", NULL, ROOM)) == NULL) {
        me->failures += failed("tpsetctxt or tpalloc");
        return NULL;
    }
    for (number = me->first; number < me->end; number += me->step) {
        call_one(me, &buffer, number);
        if (number % TELL_EVERY == 0) {
            printf("call %d\n", number);
            fflush(stdout);
        }
    }
    tpfree(buffer);
    tpsetctxt(TPNULLCONTEXT, 0);
    return NULL;
}

static int start_session(int *context)
{
    TPSTART_T *record = (TPSTART_T *)tpalloc("TPSTART", NULL, 0);

    if (record == NULL)
        return failed("tpalloc");
    record->flags = TPMULTICONTEXTS;
    if (tpstart(record) == -1)
        return failed("tpstart");
    tpfree((char *)record);
    return tpgetctxt(context, 0) == -1 ? failed("tpgetctxt") : 0;
}

static int where(void)
{
    return tpgethostaddr(NULL, NULL, 0);
}

int main(int argc, char **argv)
{
    int calls = argc > 1 ? atoi(argv[1]) : 20000, threads = argc > 2 ? atoi(argv[2]) : 4;
    struct caller callers[MOST_THREADS];
    int i, context, before, answered = 0, wrong = 0, failures = 0;

    if (calls < 1 || threads < 1 || threads > MOST_THREADS) {
        fprintf(stderr, "usage: rolling [CALLS [THREADS]], at most %d threads\n", MOST_THREADS);
        return 2;
    }
    if (start_session(&context) != 0)
        return 1;
    before = where();
    memset(callers, 0, sizeof callers);
    for (i = 0; i < threads; i++) {
        callers[i].context = context;
        callers[i].first = i;
        callers[i].step = threads;
        callers[i].end = calls;
        if (pthread_create(&callers[i].thread, NULL, run_caller, &callers[i]) != 0)
            return 1;
    }
    for (i = 0; i < threads; i++) {
        pthread_join(callers[i].thread, NULL);
        answered += callers[i].answered;
        wrong += callers[i].wrong;
        failures += callers[i].failures;
    }
    printf("%d calls, %d answered, %d lost, %d with another's answer\n", calls, answered, failures, wrong);
    printf("the session %s\n", where() == before ? "hasn't moved" : "has moved to the other server");
    if (tpend() == -1)
        return failed("tpend");
    return answered != calls;
}
