// The version and its banner.
#include "vorn/utility.h"

#include <stdio.h>

extern "C" {

#define MAJOR "5"
#define MINOR "0"
#define SERVICE_PACK "1"
#define FIX "1"
#define REVISION "11706"

// Texts of the compiler's making: no thread ever sees one half written.
static const char version_text[] = MAJOR "." MINOR " SP #" SERVICE_PACK " Fix #" FIX " r" REVISION;
static const char banner[] = "VORN Version " MAJOR "." MINOR " SP #" SERVICE_PACK " Fix #" FIX ", r" REVISION
                             " 64bit binary for x86 Linux kernel 2.6, glibc 2.3 ";

const char *_vorn_version(void)
{
    return version_text;
}

int _vorn_show_version(const char *name)
{
    if (name != nullptr)
        printf("%s for %s\n", name, banner);
    else
        printf(" %s\n", banner);
    return 0;
}
}
