// Paths, directories, processes and small checks.
#include "runtime/common.h"

#include "runtime/mthr.h"
#include "runtime/thrapi.h"
#include "vorn/query.h"

#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

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
    size_t length = path == nullptr ? 0 : strlen(path);
    char copy[PATH_MAX];
    if (length == 0 || length >= sizeof copy) {  // no directory has such a name
        errno = length == 0 ? EINVAL : ENAMETOOLONG;
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

// A file of the queue manager's: by its name in VORN_PATHDIR, otherwise with `below_root` in VORNDIR. No file
// has a longer name than PATH_MAX, and so much room the caller has.
static int find_qmm_file(const char *name, const char *below_root, char *out)
{
    if (out == nullptr)
        return -1;
    const char *directory = getenv("VORN_PATHDIR");
    if (directory == nullptr) {
        directory = getenv("VORNDIR");
        name = below_root;
    }
    if (directory == nullptr)
        return -1;
    size_t length = strlen(directory), name_size = strlen(name) + 1;
    size_t separator = length == 0 || directory[length - 1] != '/';
    if (length + separator + name_size > PATH_MAX)
        return -1;
    memcpy(out, directory, length + 1);
    _slash_check(out);
    memcpy(out + strlen(out), name, name_size);
    return 1;
}

int _get_qmm_path(char *out)
{
    return find_qmm_file("qmmd", "path/qmmd", out);
}

int _vorn_qmm_lockfile(char *out)
{
    return find_qmm_file("qmmld", "path/qmmld", out);
}

// The child of a process of several threads may only do what is safe in a signal handler until it is another
// program: so all that execve needs is there beforehand.
int _vorn_system(const char *command)
{
    if (command == nullptr)
        return 1;
    char *arguments[] = {(char *)"sh", (char *)"-c", (char *)command, nullptr};
    pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        execve("/bin/sh", arguments, environ);
        _exit(127);
    }
    int status;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return status;
}

int _vorn_real_wait(int seconds)
{
    time_t begin = time(nullptr);
    do
        sleep(1);
    while (time(nullptr) - begin < seconds);
    return 0;
}

static constexpr api_text TP_SLEEP = API_TEXT("tp_sleep", "(%d)");
static constexpr api_text TP_USLEEP = API_TEXT("tp_usleep", "(%d)");

// The sleep, which tells of its failure itself, and the exit.
static int sleep_for(struct timeval time, const api_frame *frame, const api_text *text)
{
    int result = tpsleep(&time);
    return result < 0 ? api_error(frame, text) : api_return(text, result);
}

int tp_sleep(int seconds)
{
    api_frame frame;
    if (!API_ENTER(&frame, TP_SLEEP, seconds))
        return -1;
    return sleep_for({seconds, 0}, &frame, &TP_SLEEP);
}

int tp_usleep(int microseconds)
{
    api_frame frame;
    if (!API_ENTER(&frame, TP_USLEEP, microseconds))
        return -1;
    return sleep_for({microseconds / 1000000, microseconds % 1000000}, &frame, &TP_USLEEP);
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

int is_null_data(const char *s)
{
    while (s != nullptr && *s != '\0')
        if (!isspace((unsigned char)*s++))
            return 0;
    return 1;
}

int _make_svcname_from_prodno_funcname(int prodno, const char *function, char *out)
{
    if (function == nullptr || out == nullptr)
        return -1;
    char prefix[16];  // a sign, ten digits
    size_t length = (size_t)snprintf(prefix, sizeof prefix, "p%04d_", prodno);
    memcpy(out, prefix, length);
    memcpy(out + length, function, strlen(function) + 1);
    return 1;
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
