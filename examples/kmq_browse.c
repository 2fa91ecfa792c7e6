/* Looks at a queue without taking anything:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_browse ORDERS
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_browse ORDERS "CUSTOMER = 'ann'"
 */
#include <vorn.h>

#include <stdio.h>

#define ROOM 400
#define TEXT_ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The low 16 bits of the priority are the sender's; the others belong to the identity. */
static int show(char *msg)
{
    char text[TEXT_ROOM], number[20];
    long length = sizeof text, number_length = sizeof number, word_length = sizeof(int);
    int type, priority;

    if (kmq_get_property(msg, "$MessageID", &type, number, &number_length) == -1 ||
        kmq_get_property(msg, "$Priority", &type, &priority, &word_length) == -1)
        return failed("kmq_get_property");
    if (kmq_get_body(msg, text, &length) == -1)
        return failed("kmq_get_body");
    printf("%s priority %d: %.*s\n", number, priority & 0xffff, (int)length, text);
    return 0;
}

static int browse(kmq_session *session, const char *queue, const char *selector)
{
    kmq_consumer *browser = kmq_create_browser(session, queue, selector, 0);
    char *msg = kmq_alloc(session, ROOM);
    int result = 0, count = 0;

    if (browser == NULL || msg == NULL)
        result = failed("kmq_create_browser");
    while (result == 0) {
        tperrno = 0;
        if (kmq_browser_nextmsg(browser, &msg, 0) == -1)
            break;
        result = show(msg);
        count++;
    }
    if (result == 0 && gettperrno() != TPEMATCH) /* TPEMATCH: the queue's end */
        result = failed("kmq_browser_nextmsg");
    if (msg != NULL)
        kmq_free(msg);
    if (result == 0)
        printf("%d messages in %s\n", count, queue);
    if (browser != NULL && kmq_close_browser(browser, 0) == -1)
        result = failed("kmq_close_browser");
    return result;
}

int main(int argc, char **argv)
{
    kmq_session *session;
    int result;

    if (argc < 2) {
        fprintf(stderr, "usage: kmq_browse QUEUE [SELECTOR]\n");
        return 2;
    }
    session = kmq_create_session("SHOP", 0, 0, 0);
    if (session == NULL)
        return failed("kmq_create_session");
    result = browse(session, argv[1], argc > 2 ? argv[2] : NULL);
    if (kmq_close_session(session, 0) == -1)
        result = failed("kmq_close_session");
    if (tpend() == -1)
        result = failed("tpend");
    return result;
}
