/* Posts prices as events, and then tells the subscriber that this was all:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 publisher SUBSCRIBER
 *
 * SUBSCRIBER is the number on the first line of the program subscriber. */
#include <vorn.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* tppost waits until the server has the event, and tpurcode is then the number of its receivers. */
static int post_prices(char *buffer)
{
    static const struct {
        const char *event, *text;
    } PRICES[] = {{"price.tea", "tea 2.50"}, {"price.cups", "cups 1.25"}, {"stock.tea", "40 left"}};
    size_t i;

    for (i = 0; i < sizeof PRICES / sizeof PRICES[0]; i++) {
        strcpy(buffer, PRICES[i].text);
        if (tppost(PRICES[i].event, buffer, 0, 0) == -1)
            return failed("tppost");
        printf("%s: %ld receivers\n", PRICES[i].event, gettpurcode());
    }
    return 0;
}

/* Waits until the other client's library has taken the message off its connection. */
static int notify(const char *subscriber, char *buffer)
{
    TPCLIENT_T client = {{0, 0, 0, 0}};

    client.id[0] = atoi(subscriber);
    strcpy(buffer, "that was all");
    if (tpnotify(&client, buffer, 0, TPNOTIFYACK) == -1)
        return failed("tpnotify");
    printf("%s has heard it\n", subscriber);
    return 0;
}

int main(int argc, char **argv)
{
    char *buffer;
    int result;

    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    result = post_prices(buffer);
    if (result == 0 && argc > 1)
        result = notify(argv[1], buffer);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
