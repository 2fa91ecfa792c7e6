/* Waits for events, and prints them until somebody notifies it:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 subscriber 'price.*'
 *
 * Its first line tells who it is; the publisher is started with that number. */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* Messages that come between two calls are kept, so none is missed. */
static int start_session(void)
{
    TPSTART_T *login = (TPSTART_T *)tpalloc("TPSTART", NULL, 0);
    int result;

    if (login == NULL)
        return -1;
    strcpy(login->usrname, "subscriber");
    login->flags = UNSOL_QUEUE;
    result = tpstart(login);
    tpfree((char *)login);
    return result;
}

/* A subscription isn't answered. The server has read it when the answer to a later call is there. */
static int subscribe(const char *events, char **buffer)
{
    long length = 0;

    if (tpsubscribe(events, NULL, NULL, 0) == -1)
        return failed("tpsubscribe");
    if (tpcall("WHOAMI", *buffer, 0, buffer, &length, 0) == -1)
        return failed("tpcall");
    printf("%s waits for %s\n", *buffer, events);
    fflush(stdout);
    return 0;
}

/* The notification comes behind the events that were posted before it: when it is there, so are they, kept in
 * the order in which they came. */
static int print_events(char **buffer)
{
    long length = 0;

    if (tpgetunsol(UNSOL_NOTIFY, buffer, &length, TPBLOCK) == -1)
        return failed("tpgetunsol");
    printf("notified: %s\n", *buffer);
    while (tpgetunsol(UNSOL_POST, buffer, &length, 0) == 1)
        printf("event: %s\n", *buffer);
    return gettperrno() == TPEBLOCK ? 0 : failed("tpgetunsol");
}

int main(int argc, char **argv)
{
    char *buffer;
    int result;

    if (start_session() == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    result = subscribe(argc > 1 ? argv[1] : "price.*", &buffer) || print_events(&buffer);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
