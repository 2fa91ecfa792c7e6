// Paths, directories and small checks.
#include "runtime/common.h"

#include "runtime/mthr.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

extern "C" {

static bool is_separator(char c)
{
    return c == '/' || c == '\\';
}

// Index of the last separator, -1 if there is none.
static ptrdiff_t last_separator(const char *path, size_t length)
{
    ptrdiff_t i = (ptrdiff_t)length - 1;
    while (i >= 0 && !is_separator(path[i]))
        i--;
    return i;
}

char *_vorn_path_prefix(const char *path)
{
    wthr_var *block = current_block();
    if (block == nullptr || path == nullptr || path[0] == '\0')
        return nullptr;
    size_t length = (size_t)(last_separator(path, strlen(path)) + 1);
    // A prefix that the context's buffer can't hold is refused: a cut one would be another directory.
    if (length == 0 || length >= sizeof block->path_buffer)
        return nullptr;
    memcpy(block->path_buffer, path, length);
    block->path_buffer[length] = '\0';
    return block->path_buffer;
}

char *_vorn_path_basename(const char *path)
{
    if (current_block() == nullptr || path == nullptr || path[0] == '\0')
        return nullptr;
    return (char *)path + last_separator(path, strlen(path)) + 1;
}

// The path is path[0, length), in a buffer that this may write terminators into and gives back as it was.
static int create_dir_chain(char *path, size_t length)
{
    while (length > 0 && is_separator(path[length - 1]))
        length--;
    char behind = path[length];
    path[length] = '\0';
    int result = mkdir(path, 0777);
    if (result < 0 && errno == ENOENT) {
        ptrdiff_t separator = last_separator(path, length);
        if (separator > 0 && create_dir_chain(path, (size_t)separator) >= 0)
            result = mkdir(path, 0777);
    }
    path[length] = behind;
    return result;
}

int _vorn_create_dir(const char *path)
{
    if (path == nullptr || path[0] == '\0')
        return -1;
    size_t length = strlen(path);
    char copy[PATH_MAX];
    if (length >= sizeof copy) {  // no directory has such a name
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(copy, path, length + 1);
    return create_dir_chain(copy, length);
}

void _vorn_conv_slash(char *s)
{
    for (; *s != '\0'; s++)
        if (*s == '\\')
            *s = '/';
}

int _slash_check(char *path)
{
    size_t length = strlen(path);
    if (length > 0 && path[length - 1] == '/')
        return 1;
    path[length] = '/';
    path[length + 1] = '\0';
    return 0;
}

// What path[0, length) becomes when a separator follows it; the new length.
static size_t close_component(char *path, size_t length)
{
    if (length >= 1 && path[length - 1] == '/')
        return length;
    if (length >= 2 && memcmp(path + length - 2, "/.", 2) == 0)
        return length - 1;
    if (length >= 4 && memcmp(path + length - 3, "/..", 3) == 0) {
        size_t previous = length - 3;
        while (previous > 0 && path[previous - 1] != '/')
            previous--;
        if (previous > 0)
            return previous;
        // "a/..": going back would leave nothing, and a relative path must not become an absolute one.
    }
    path[length] = '/';
    return length + 1;
}

int _vorn_proc_path(char *path)
{
    size_t written = 0;
    for (const char *from = path; *from != '\0'; from++) {
        if (is_separator(*from))
            written = close_component(path, written);
        else
            path[written++] = *from;
    }
    path[written] = '\0';
    return 1;
}

static void reopen_on_null(const char *mode, FILE *stream)
{
    if (freopen("/dev/null", mode, stream) == nullptr)
        return;  // the stream is closed then, which serves as well
}

void _vorn_detach_console(void)
{
    reopen_on_null("r", stdin);
    reopen_on_null("w", stdout);
    reopen_on_null("w", stderr);
}

int _vorn_IsHeapPtr(const void *p)
{
    return p != nullptr && (uintptr_t)p % 4 == 0;
}

void print_percents(char *text)
{
    char *to = text;
    for (const char *from = text; *from != '\0'; from++) {
        *to++ = *from;
        if (from[0] == '%' && from[1] == '%')
            from++;
    }
    *to = '\0';
}
}
