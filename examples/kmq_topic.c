/* Publish and subscribe: prices go to all who have subscribed to them. A durable subscription gathers what is
 * published while its subscriber is away; its selector leaves out what he doesn't want.
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_topic subscribe ann
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_topic publish tea=3 cup=12 spoon=1
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_topic subscribe ann
 *     VORN_HOST_ADDR=127.0.0.1:7000 kmq_topic unsubscribe ann
 */
#include <vorn.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define TOPIC "PRICES"
#define ROOM 400
#define NAME_ROOM 100
#define INT_TYPE 3
#define STRING_TYPE 7

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

static int publish_one(kmq_producer *producer, char *item)
{
    char *equals = strchr(item, '=');
    int price = equals ? atoi(equals + 1) : 0, result = 0;
    char *msg = kmq_alloc(producer, ROOM);

    if (msg == NULL)
        return failed("kmq_alloc");
    if (equals)
        *equals = '\0';
    tperrno = 0;
    if (kmq_set_property(msg, "ITEM", STRING_TYPE, item, 0) == -1 ||
        kmq_set_property(msg, "PRICE", INT_TYPE, &price, sizeof price) == -1)
        result = failed("kmq_set_property");
    else if (kmq_sendex(producer, msg, 1, 4, 0, 0) == -1)
        result = failed("kmq_sendex");
    else
        printf("published %s at %d\n", item, price);
    kmq_free(msg);
    return result;
}

static int publish(kmq_session *session, int count, char **items)
{
    kmq_producer *producer = kmq_create_producer(session, TOPIC, 1, NULL, 0);
    int i, result = 0;

    if (producer == NULL)
        return failed("kmq_create_producer");
    for (i = 0; i < count && result == 0; i++)
        result = publish_one(producer, items[i]);
    return result;
}

/* The length of a text is told without a NUL, and none is put behind it. */
static int show(char *msg)
{
    char item[NAME_ROOM];
    long length = sizeof item, price_length = sizeof(int);
    int type, price;

    if (kmq_get_property(msg, "ITEM", &type, item, &length) == -1 ||
        kmq_get_property(msg, "PRICE", &type, &price, &price_length) == -1)
        return failed("kmq_get_property");
    printf("%.*s costs %d\n", (int)length, item, price);
    return 0;
}

/* What has gathered, and what comes until a second passes without anything. */
static int subscribe(kmq_session *session, const char *name)
{
    kmq_consumer *consumer = kmq_create_consumer(session, TOPIC, 2, name, "PRICE > 2", NULL, 0);
    char *msg = kmq_alloc(session, ROOM);
    int result = 0;

    if (consumer == NULL || msg == NULL)
        result = failed("kmq_create_consumer");
    else
        printf("%s listens\n", name);
    while (result == 0) {
        tperrno = 0;
        if (kmq_recvex(consumer, &msg, 1, 0) == -1)
            break;
        result = show(msg);
    }
    if (result == 0 && gettperrno() != TPETIME)
        result = failed("kmq_recvex");
    if (msg != NULL)
        kmq_free(msg);
    return result;
}

/* The subscription ends only here; the end of its consumer leaves it. */
static int unsubscribe(kmq_session *session, const char *name)
{
    if (kmq_unsubscribe_durable_subscriber(session, TOPIC, name, 0) == -1)
        return failed("kmq_unsubscribe_durable_subscriber");
    printf("%s has unsubscribed\n", name);
    return 0;
}

int main(int argc, char **argv)
{
    kmq_session *session;
    int result = 2;

    if (argc < 3) {
        fprintf(stderr, "usage: kmq_topic publish ITEM=PRICE... | subscribe NAME | unsubscribe NAME\n");
        return 2;
    }
    session = kmq_create_session("SHOP", 0, 0, 0);
    if (session == NULL)
        return failed("kmq_create_session");
    if (strcmp(argv[1], "publish") == 0)
        result = publish(session, argc - 2, argv + 2);
    else if (strcmp(argv[1], "subscribe") == 0)
        result = subscribe(session, argv[2]);
    else if (strcmp(argv[1], "unsubscribe") == 0)
        result = unsubscribe(session, argv[2]);
    if (tpend() == -1) /* closes the session of the message service, too */
        result = failed("tpend");
    return result;
}
