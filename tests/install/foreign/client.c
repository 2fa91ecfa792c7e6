/* An application in C99 that has nothing but what is installed. The server's address is in VORN_HOST_ADDR. */
#include <vorn.h>

#include "letter_fields.h"

#include <stdio.h>
#include <string.h>

static int failed(const char *step)
{
    fprintf(stderr, "%s failed: %s; %s\n", step, tpstrerror(gettperrno()), fbstrerror(getfberror()));
    return 1;
}

static int call_with_text(void)
{
    char *buffer = tpalloc("STRING", NULL, 100);
    long length = 0;

    if (buffer == NULL)
        return failed("tpalloc");
    strcpy(buffer, "a foreign program");
    if (tpcall("TOUPPER", buffer, 0, &buffer, &length, 0) == -1)
        return failed("tpcall");
    if (strcmp(buffer, "A FOREIGN PROGRAM") != 0)
        return failed("the reply in capitals");
    printf("%s\n", buffer);
    tpfree(buffer);
    return 0;
}

static int call_with_fields(void)
{
    FBUF *letter = fballoc(10, 200);
    char *buffer = (char *)letter;
    char sender[] = "Ann Example", name[20] = "";
    int pages = 3, answered = 0;
    long length = 0;

    if (letter == NULL)
        return failed("fballoc");
    if (fbput(letter, SENDER, sender, 0) == -1 || fbput(letter, PAGES, (char *)&pages, 0) == -1)
        return failed("fbput");
    if (tpcall("FBECHO", buffer, 0, &buffer, &length, 0) == -1)
        return failed("tpcall with fields");
    letter = (FBUF *)buffer;
    if (fbget_tu(letter, SENDER, 0, name, NULL) == -1 ||
        fbget_tu(letter, PAGES, 0, (char *)&answered, NULL) == -1)
        return failed("fbget_tu");
    if (strcmp(name, sender) != 0 || answered != pages)
        return failed("the fields as they were sent");
    printf("%d pages from %s\n", answered, name);
    tpfree(buffer);
    return 0;
}

int main(void)
{
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    if (call_with_text() != 0 || call_with_fields() != 0)
        return 1;
    return tpend() == -1 ? failed("tpend") : 0;
}
