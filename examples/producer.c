/* Puts texts into a reliable queue, and tells how many wait there:
 *
 *     clhsim --queues ORDERS --port 7000
 *     VORN_HOST_ADDR=127.0.0.1:7000 producer ORDERS "two teas" "a cup"
 *
 * What tpenq has accepted outlives this program and the server; the program consumer fetches it. */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* TPRQDIRECT: a message that is kept until somebody takes it, not a request for a service. */
static int put(char *queue, char *buffer, const char *text)
{
    int number;

    if (strlen(text) >= ROOM) {
        fprintf(stderr, "texts have at most %d characters\n", ROOM - 1);
        return 1;
    }
    strcpy(buffer, text);
    number = tpenq(queue, NULL, buffer, 0, TPRQDIRECT);
    if (number == -1)
        return failed("tpenq");
    printf("message %d: %s\n", number, text);
    return 0;
}

int main(int argc, char **argv)
{
    char *buffer;
    int i, result = 0, waiting = 0;

    if (argc < 3) {
        fprintf(stderr, "usage: producer QUEUE TEXT...\n");
        return 2;
    }
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    for (i = 2; i < argc && result == 0; i++)
        result = put(argv[1], buffer, argv[i]);
    tpfree(buffer);
    if (result == 0) {
        waiting = tpqstat(argv[1], 0);
        result = waiting == -1 ? failed("tpqstat") : 0;
    }
    if (result == 0)
        printf("%d wait in %s\n", waiting, argv[1]);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
