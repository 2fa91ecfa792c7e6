/* Orders tea and cups from the service ORDER, once in a field buffer and once in a struct:
 *
 *     fdlc -o order.fdb --c-header order_fields.h order.fdl
 *     sdlc -o order.sdb --c-header order.h --fields order.fdl order.sdl
 *     cc fields.c -I. $(pkg-config --cflags --libs vornthr) -o fields
 *     FDLFILE=order.fdb SDLFILE64=order.sdb VORN_HOST_ADDR=127.0.0.1:7000 fields
 *
 * fdlc and sdlc make the two files, and the headers below, out of order.fdl and order.sdl. The files are read
 * when the program runs: by the names of fields and structs that it asks for. The headers are for its
 * compiler: the keys as constants, the struct as C knows it. */
#include <vorn.h>

#include "order.h"
#include "order_fields.h"

#include <stdio.h>
#include <string.h>

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

static int field_failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, fbstrerror(getfberror()));
    return 1;
}

/* A key holds the type of its field, so a value needs none: fbput takes a double from where it points for a
 * double field, and a text up to its NUL for a string field. */
static int put(FBUF *order, char *name, void *value)
{
    int key = fbget_fldkey(name);

    if (key == 0) {
        fprintf(stderr, "no field has the name %s: is FDLFILE set?\n", name);
        return -1;
    }
    if (fbput(order, key, value, 0) == -1) {
        field_failed("fbput");
        return -1;
    }
    return 1;
}

static int put_line(FBUF *order, char *item, double price, int quantity)
{
    if (put(order, "ITEM", item) == -1 || put(order, "PRICE", &price) == -1)
        return -1;
    return put(order, "QUANTITY", &quantity);
}

/* The fields of a buffer one after the other, whatever they are. */
static void list_names(FBUF *order)
{
    int key = 0, nth = 0;

    while (fbnext_tu(order, &key, &nth, NULL, NULL) == 1)
        printf("  %s %d: %s\n", fbget_fldname(key), nth, fbget_strfldtype(key));
}

static int build_order(FBUF *order, int cups)
{
    long number = 4711;

    if (put(order, "ORDER_NO", &number) == -1 || put(order, "CUSTOMER", "Ann Example") == -1)
        return -1;
    if (put_line(order, "tea", 2.5, 4) == -1 || put_line(order, "cups", 1.25, cups) == -1)
        return -1;
    list_names(order);
    return 1;
}

/* The answer to an order. A service that fails may send one too. */
static int show_answer(FBUF *answer)
{
    int lines;
    double total;

    if (fbget_tu(answer, LINES, 0, (char *)&lines, NULL) == -1 ||
        fbget_tu(answer, TOTAL, 0, (char *)&total, NULL) == -1)
        return -1;
    printf("%d lines, total %.2f, %s\n", lines, total, fbgetvals_tu(answer, STATUS, 0));
    return 1;
}

/* The call may replace the buffer by a larger one, so the pointer is passed by its address and taken back. */
static int send_order(char **buffer, const char *what)
{
    long length = 0;

    printf("%s\n", what);
    if (tpcall("ORDER", *buffer, 0, buffer, &length, 0) != -1)
        return 1;
    if (gettperrno() != TPESVCFAIL)
        return -1;
    printf("refused because of line %ld\n", gettpurcode());
    return 1;
}

static int order_by_fields(int cups)
{
    /* For twenty fields and 200 bytes of text. fbput fails in a full buffer; fbrealloc makes it larger. */
    FBUF *order = fballoc(20, 200);
    char *buffer = (char *)order;
    int result = 0;

    if (order == NULL)
        return field_failed("fballoc");
    if (build_order(order, cups) == -1)
        result = 1;
    else if (send_order(&buffer, "order in fields") == -1)
        result = failed("tpcall");
    else if (fbprint((FBUF *)buffer) == -1 || show_answer((FBUF *)buffer) == -1)
        result = field_failed("reading the answer");
    tpfree(buffer);
    return result;
}

/* The members that have a field of their own in order.sdl, as fields. */
static int show_as_fields(struct order *order)
{
    FBUF *fields = fballoc(8, 100);
    int result = 0;

    if (fields == NULL)
        return field_failed("fballoc");
    if (fbstof(fields, (char *)order, FB_CONCAT, "order") == -1 || fbprint(fields) == -1)
        result = field_failed("fbstof");
    fbfree(fields);
    return result;
}

static int order_by_struct(void)
{
    static const struct order_line lines[] = {{"tea", 2.5, 100, 4}, {"cups", 1.25, 200, 3}};
    struct order *order = (struct order *)tpalloc("STRUCT", "order", 0);
    char *buffer = (char *)order;
    int result;

    if (order == NULL)
        return failed("tpalloc");
    strcpy(order->customer, "Ann Example");
    order->number = 4712;
    order->count = 2;
    memcpy(order->lines, lines, sizeof lines);
    if (send_order(&buffer, "order in a struct") == -1) {
        result = failed("tpcall");
    } else {
        order = (struct order *)buffer;
        printf("order %ld: total %.2f, %s\n", order->number, order->total, order->status);
        result = show_as_fields(order);
    }
    tpfree(buffer);
    return result;
}

int main(void)
{
    int result;

    if (tpstart(NULL) == -1)
        return failed("tpstart");
    result = order_by_fields(3) || order_by_fields(0) || order_by_struct();
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
