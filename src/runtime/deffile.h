// What the readers of definition files share. Both take a list of paths from the environment and files whose
// heads tell how much follows.
#ifndef VORN_RUNTIME_DEFFILE_H
#define VORN_RUNTIME_DEFFILE_H

#include <limits.h>
#include <stdint.h>
#include <stdio.h>

extern "C" {

// The next item of a list that commas separate, of which `*list` is what is left; empty items vanish. False
// at the end. `path` has room for PATH_MAX bytes; an item that is longer is cut, and `*possible` is false:
// the beginning of a name would be another file.
bool next_path(const char **list, char *path, bool *possible);

// Opens the item for reading; null with errno, also for one that isn't possible.
FILE *open_path(const char *path, bool possible);

// Bytes that a regular file still has; INT64_MAX for others, which tell nothing in advance. A count that lies
// must not become an allocation.
int64_t bytes_left(FILE *file);
}

#endif
