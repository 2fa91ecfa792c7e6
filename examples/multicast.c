/* Calls every server group that offers a service, and prints what became of each call:
 *
 *     clhsim --group WHICH=1,2,65537 --port 7000
 *     VORN_HOST_ADDR=127.0.0.1:7000 multicast WHICH hello
 */
#include <vorn.h>

#include <stdio.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The upper part of a group's number is the number of its node. The result belongs to the library. */
static int print_result(const mcallx_result *result)
{
    int i, bad = 0;

    for (i = 0; i < result->count; i++) {
        printf("node %d group %d: ", result->list[i] >> 16 & 0x7ff, result->list[i] & 0xffff);
        if (result->errors[i] != 0)
            printf("%s\n", tpstrerror(result->errors[i]));
        else
            printf("done, code %d\n", result->urcodes[i]);
        bad += result->errors[i] != 0;
    }
    printf("%d groups called, %d of them failed\n", result->count, bad);
    return bad != 0;
}

int main(int argc, char **argv)
{
    mcallx_result *result;
    char *buffer;
    int status;

    if (argc < 2) {
        fprintf(stderr, "usage: multicast SERVICE [TEXT]\n");
        return 2;
    }
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    snprintf(buffer, ROOM, "%s", argc > 2 ? argv[2] : "");
    result = tpmcallx(argv[1], buffer, 0, 0);
    status = result ? print_result(result) : failed("tpmcallx");
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return status;
}
