/* One call over an enciphered session, to a server that proves who it is:
 *
 *     clhsim --keygen server.key
 *     KEXCLI_OWN_KEY=server.key clhsim --encipher --port 7000
 *     VORN_SEMANTICS=CRYPT_SW=Y KEXCLI_PEER_KEY=server.key.pub VORN_HOST_ADDR=127.0.0.1:7000 encipher "hello"
 *
 * Nothing in the program knows of it: the session is enciphered because the environment says so. */
#include <vorn.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* A program that relies on the cipher does well to look whether it is on. */
static int check_settings(void)
{
    const char *switches = tpgetenv("VORN_SEMANTICS");

    if (switches == NULL || strstr(switches, "CRYPT_SW=Y") == NULL) {
        fprintf(stderr, "VORN_SEMANTICS doesn't say CRYPT_SW=Y: everything would travel in clear\n");
        return 1;
    }
    if (tpgetenv("KEXCLI_PEER_KEY") == NULL)
        printf("without KEXCLI_PEER_KEY nobody knows whose server this is\n");
    return 0;
}

int main(int argc, char **argv)
{
    const char *text = argc > 1 ? argv[1] : "hello";
    long length = 0;
    char *buffer;

    if (check_settings() != 0)
        return 2;
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    printf("the session is enciphered\n");
    buffer = tpalloc("STRING", NULL, (long)strlen(text) + 1);
    if (buffer == NULL)
        return failed("tpalloc");
    strcpy(buffer, text);
    if (tpcall("TOUPPER", buffer, 0, &buffer, &length, 0) == -1)
        return failed("tpcall");
    printf("%s\n", buffer);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return 0;
}
