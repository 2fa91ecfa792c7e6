/* Asks the service TOUPPER for its text in capitals:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 toupper "hello, world"
 */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The reply may be larger than the buffer that is passed for it; the library then replaces the buffer, so the
 * pointer is passed by its address. */
static int call_toupper(const char *text)
{
    char *buffer = tpalloc("STRING", NULL, (long)strlen(text) + 1);
    long length = 0;

    if (buffer == NULL)
        return failed("tpalloc");
    strcpy(buffer, text);
    if (tpcall("TOUPPER", buffer, 0, &buffer, &length, 0) == -1) {
        tpfree(buffer);
        return failed("tpcall");
    }
    printf("%s\n", buffer);
    tpfree(buffer);
    return 0;
}

int main(int argc, char **argv)
{
    int result;

    if (tpstart(NULL) == -1)
        return failed("tpstart");
    result = call_toupper(argc > 1 ? argv[1] : "hello, world");
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
