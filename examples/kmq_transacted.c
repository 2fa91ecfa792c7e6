/* A transacted session: an order is taken from one queue and its invoice put into another, both or neither.
 * The order has to be there within a second; the program kmq_queue sends one:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_queue send 'two teas'
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_transacted rollback
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_transacted commit
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

/* The order goes back to its place with a rollback, and says so when it is received again. */
static int take_order(kmq_consumer *consumer, char **msg, char *order, long *length)
{
    int type, again;
    long again_length = sizeof again;

    tperrno = 0;
    if (kmq_recvex(consumer, msg, 1, 0) == -1)
        return failed("kmq_recvex");
    if (kmq_get_body(*msg, order, length) == -1)
        return failed("kmq_get_body");
    if (kmq_get_property(*msg, "$Redelivered", &type, &again, &again_length) == -1)
        return failed("kmq_get_property");
    printf("took %.*s%s\n", (int)*length, order, again ? ", not for the first time" : "");
    return 0;
}

static int send_invoice(kmq_producer *producer, char *msg, const char *order, int length)
{
    char invoice[TEXT_ROOM + 20];

    snprintf(invoice, sizeof invoice, "invoice for %.*s", length, order);
    if (kmq_set_body(msg, invoice, (long)strlen(invoice)) == -1)
        return failed("kmq_set_body");
    tperrno = 0;
    if (kmq_sendex(producer, msg, 1, 4, 0, 0) == -1)
        return failed("kmq_sendex");
    printf("sent %s\n", invoice);
    return 0;
}

static int work(kmq_session *session, int commits)
{
    char order[TEXT_ROOM];
    long length = sizeof order;
    kmq_consumer *consumer = kmq_create_consumer(session, "ORDERS", 0, NULL, NULL, NULL, 0);
    kmq_producer *producer = kmq_create_producer(session, "INVOICES", 0, NULL, 0);
    char *received = kmq_alloc(session, ROOM), *invoice = kmq_alloc(session, ROOM);
    int result = 1;

    if (consumer == NULL || producer == NULL || received == NULL || invoice == NULL)
        failed("making a consumer and a producer");
    else if (take_order(consumer, &received, order, &length) == 0)
        result = send_invoice(producer, invoice, order, (int)length);
    if (result == 0 && commits)
        result = kmq_commit(session, 0) == -1 ? failed("kmq_commit") : 0;
    else if (kmq_rollback(session, 0) == -1)
        result = failed("kmq_rollback");
    if (result == 0)
        printf("%s\n", commits ? "committed" : "rolled back");
    if (received != NULL)
        kmq_free(received);
    if (invoice != NULL)
        kmq_free(invoice);
    return result;
}

int main(int argc, char **argv)
{
    kmq_session *session;
    int result;

    if (argc != 2 || (strcmp(argv[1], "commit") != 0 && strcmp(argv[1], "rollback") != 0)) {
        fprintf(stderr, "usage: kmq_transacted commit | rollback\n");
        return 2;
    }
    session = kmq_create_session("SHOP", 1, 0, 0);
    if (session == NULL)
        return failed("kmq_create_session");
    result = work(session, strcmp(argv[1], "commit") == 0);
    if (kmq_close_session(session, 0) == -1)
        result = failed("kmq_close_session");
    if (tpend() == -1)
        result = failed("tpend");
    return result;
}
