/* An order as plain text, in and out, for programs that have nothing but text. No server is needed:
 *
 *     fdlc -o order.fdb --c-header order_fields.h fields/order.fdl
 *     sdlc -o order.sdb --c-header order.h --fields fields/order.fdl fields/order.sdl
 *     cc text.c -I. $(pkg-config --cflags --libs vornthr) -o text
 *     FDLFILE=order.fdb SDLFILE64=order.sdb text
 *
 * The definitions are those of the example in fields/. */
#include <vorn.h>

#include "order.h"

#include <stdio.h>

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s, %s\n", call, tpstrerror(gettperrno()), fbstrerror(getfberror()));
    return 1;
}

/* Tabs stand between the values of a row, CR LF behind it, 0x7F behind the rows of a block. */
static void show(const char *text)
{
    for (; *text != '\0'; text++) {
        if (*text == '\t')
            printf(" | ");
        else if (*text == 0x7f)
            printf("(end of the block)");
        else if (*text != '\r')
            putchar(*text);
    }
}

/* Names and values become fields; a form says which fields come back, and in which columns. */
static int order_in_fields(void)
{
    char values[] = "ORDER_NO\t4711\nCUSTOMER\tAnn Example\n"
                    "ITEM\ttea\nPRICE\t2.5\nQUANTITY\t4\n"
                    "ITEM\tcups\nPRICE\t1.25\nQUANTITY\t3\n";
    char form[] = "ORDER_NO\nCUSTOMER\n\nITEM\nPRICE\nQUANTITY\n";
    char rows[1000] = ""; /* the calls don't check its size: vorn/bridge.h tells what a value can take */
    FBUF *order = fballoc(20, 200);
    int result = 0;

    if (order == NULL)
        return failed("fballoc");
    if (_make_field_from_pbindata(&order, values) == -1)
        result = failed("_make_field_from_pbindata");
    else if (_make_pbodata_from_field(form, rows, order) == -1)
        result = failed("_make_pbodata_from_field");
    else
        show(rows);
    fbfree(order);
    return result;
}

/* Values alone, in the order of the members, fill records: as many as there is room for. */
static int lines_in_records(void)
{
    char values[] = "tea\t2.5\t100\t4\ncups\t1.25\t200\t3\n";
    char rows[1000] = ""; /* 0x7F ends the text, and no NUL is written behind it */
    const int size = 2 * sizeof(struct order_line);
    struct order_line *lines = (struct order_line *)tpalloc("STRUCT", "order_line", size);
    int result = 0;

    if (lines == NULL)
        return failed("tpalloc");
    if (_make_struct_from_pbindata("order_line", (char *)lines, size, values) == -1) {
        result = failed("_make_struct_from_pbindata");
    } else {
        printf("%d times %s, article %ld\n", lines[1].quantity, lines[1].item, lines[1].article);
        lines[1].quantity = 6;
        if (_make_pbodata_from_struct("order_line", rows, size, (char *)lines) == -1)
            result = failed("_make_pbodata_from_struct");
        else
            show(rows);
    }
    tpfree((char *)lines);
    return result;
}

int main(void)
{
    return order_in_fields() || lines_in_records();
}
