// What the readers of definition files share.
#include "runtime/deffile.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

extern "C" {

bool next_path(const char **list, char *path, bool *possible)
{
    *list += strspn(*list, ",");
    if (**list == '\0')
        return false;
    size_t length = strcspn(*list, ",");
    *possible = length < PATH_MAX;
    size_t kept = *possible ? length : PATH_MAX - 1;
    memcpy(path, *list, kept);
    path[kept] = '\0';
    *list += length;
    return true;
}

FILE *open_path(const char *path, bool possible)
{
    errno = ENAMETOOLONG;
    return possible ? fopen(path, "rb") : nullptr;
}

int64_t bytes_left(FILE *file)
{
    struct stat status;
    if (fstat(fileno(file), &status) < 0 || !S_ISREG(status.st_mode))
        return INT64_MAX;
    return status.st_size - ftell(file);
}
}
