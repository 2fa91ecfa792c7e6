/* Two conversations: the service STREAM sends a list and ends; the service TURNS answers line by line until
 * it is told to end:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 conversation
 */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The service has the right to send from the start. Each message comes with 1; the last one, with which the
 * service ends, comes as an event. */
static int read_list(char **buffer)
{
    long event = 0, length = 0;
    int conversation;

    strcpy(*buffer, "3");
    conversation = tpconnect("STREAM", *buffer, 0, TPRECVONLY);
    if (conversation == -1)
        return failed("tpconnect");
    while (tprecv(conversation, buffer, &length, 0, &event) == 1)
        printf("%s\n", *buffer);
    if (gettperrno() != TPEEVENT || event != TPEV_SVCSUCC)
        return failed("tprecv");
    printf("%s, the service said %ld\n", *buffer, gettpurcode());
    return 0;
}

/* This side says something and hands over the right to send. The answer brings it back, which is an event
 * too. */
static int say(int conversation, const char *text, char **buffer, long *event)
{
    long length = 0;

    strcpy(*buffer, text);
    if (tpsend(conversation, *buffer, 0, TPRECVONLY, event) == -1)
        return failed("tpsend");
    if (tprecv(conversation, buffer, &length, 0, event) != -1 || gettperrno() != TPEEVENT)
        return failed("tprecv");
    printf("%s -> %s\n", text, *buffer);
    return 0;
}

static int talk(char **buffer)
{
    static const char *const LINES[] = {"good morning", "two teas, please", "end"};
    long event = 0;
    size_t i;
    int conversation = tpconnect("TURNS", NULL, 0, TPSENDONLY);

    if (conversation == -1)
        return failed("tpconnect");
    for (i = 0; i < sizeof LINES / sizeof LINES[0]; i++) {
        if (say(conversation, LINES[i], buffer, &event) != 0)
            return 1;
        if (event != TPEV_SENDONLY)
            break; /* the conversation is over, well or not */
    }
    if (event != TPEV_SVCSUCC)
        return failed("the conversation");
    printf("ended after %ld turns\n", gettpurcode());
    return 0;
}

int main(void)
{
    char *buffer;
    int result;

    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    result = read_list(&buffer) || talk(&buffer);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
