/* Point to point: orders go into a queue, each to one receiver.
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_queue send 'two teas' 'a cup'
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_queue receive
 */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

#define ROOM 400
#define TEXT_ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* Persistent messages outlive the server. Urgent ones, which begin with a "!", go first. */
static int send_one(kmq_producer *producer, const char *text)
{
    char number[20];
    char *msg = kmq_alloc(producer, ROOM);
    long length = sizeof number;
    int type, urgent = text[0] == '!', result = 0;

    if (msg == NULL)
        return failed("kmq_alloc");
    tperrno = 0; /* kmq_sendex takes what stands there for its own failure */
    if (kmq_set_body(msg, (void *)(text + urgent), (long)strlen(text + urgent)) == -1)
        result = failed("kmq_set_body");
    else if (kmq_sendex(producer, msg, 1, urgent ? 9 : 4, 0, 0) == -1)
        result = failed("kmq_sendex");
    else if (kmq_get_property(msg, "$MessageID", &type, number, &length) == -1)
        result = failed("kmq_get_property");
    else
        printf("sent %s as %s\n", text + urgent, number);
    kmq_free(msg);
    return result;
}

static int send_all(kmq_session *session, int count, char **texts)
{
    kmq_producer *producer = kmq_create_producer(session, "ORDERS", 0, NULL, 0);
    int i, result = 0;

    if (producer == NULL)
        return failed("kmq_create_producer");
    for (i = 0; i < count && result == 0; i++)
        result = send_one(producer, texts[i]);
    return result;
}

/* Receives until nothing has come for a second. The message may move with each call. */
static int receive_all(kmq_session *session)
{
    char text[TEXT_ROOM];
    long length;
    kmq_consumer *consumer = kmq_create_consumer(session, "ORDERS", 0, NULL, NULL, NULL, 0);
    char *msg = kmq_alloc(session, ROOM);
    int result = 0;

    if (consumer == NULL || msg == NULL)
        result = failed("kmq_create_consumer");
    while (result == 0) {
        tperrno = 0;
        if (kmq_recvex(consumer, &msg, 1, 0) == -1)
            break;
        length = sizeof text;
        if (kmq_get_body(msg, text, &length) == -1)
            result = failed("kmq_get_body");
        else
            printf("received %.*s\n", (int)length, text);
    }
    if (result == 0 && gettperrno() != TPETIME)
        result = failed("kmq_recvex");
    if (msg != NULL)
        kmq_free(msg);
    return result;
}

int main(int argc, char **argv)
{
    kmq_session *session;
    int result = 2;

    if (argc < 2 || (strcmp(argv[1], "send") != 0 && strcmp(argv[1], "receive") != 0)) {
        fprintf(stderr, "usage: kmq_queue send TEXT... | receive\n");
        return 2;
    }
    /* Opens the session of the process with the server, too. Each message is acknowledged at its receipt. */
    session = kmq_create_session("SHOP", 0, 0, 0);
    if (session == NULL)
        return failed("kmq_create_session");
    if (strcmp(argv[1], "send") == 0)
        result = send_all(session, argc - 2, argv + 2);
    else
        result = receive_all(session);
    if (kmq_close_session(session, 0) == -1)
        result = failed("kmq_close_session");
    if (tpend() == -1)
        result = failed("tpend");
    return result;
}
