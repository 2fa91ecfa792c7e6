/* Takes messages out of a reliable queue, each in a transaction of its own, until there are no more, or as
 * many as it is told:
 *
 *     clhsim --queues ORDERS --port 7000
 *     VORN_HOST_ADDR=127.0.0.1:7000 consumer ORDERS 10
 *
 * A message leaves the queue with the commit. If this program ends before, it is there for the next one. */
#include <vorn.h>

#include <stdio.h>
#include <stdlib.h>

#define ROOM 200
#define ALL 1000000

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

static int tx_failed(const char *call, int code)
{
    fprintf(stderr, "%s failed: %s\n", call, txstrerror(code));
    return 1;
}

/* A message that couldn't be taken leaves nothing to commit. An empty queue is no failure. */
static int leave_transaction(void)
{
    int empty = gettperrno() == TPEMATCH;
    int result = empty ? 0 : failed("tpdeq_ctl");
    int code = tx_rollback();

    return code == TX_OK ? result : tx_failed("tx_rollback", code);
}

/* `*taken` tells whether there was one. What is done with the message belongs between the two calls: if that
 * fails, a rollback puts the message back in its place. */
static int take_one(char *queue, char **buffer, int *taken)
{
    long length = 0;
    int code = tx_begin();

    *taken = 0;
    if (code != TX_OK)
        return tx_failed("tx_begin", code);
    if (tpdeq_ctl(queue, NULL, NULL, buffer, &length, TPRQDIRECT) == -1)
        return leave_transaction();
    printf("taken: %s\n", *buffer);
    code = tx_commit();
    if (code != TX_OK)
        return tx_failed("tx_commit", code);
    *taken = 1;
    return 0;
}

int main(int argc, char **argv)
{
    char *buffer;
    int left, result = 0, taken = 1;

    if (argc < 2) {
        fprintf(stderr, "usage: consumer QUEUE [COUNT]\n");
        return 2;
    }
    left = argc > 2 ? atoi(argv[2]) : ALL;
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    while (result == 0 && taken && left-- > 0)
        result = take_one(argv[1], &buffer, &taken);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
