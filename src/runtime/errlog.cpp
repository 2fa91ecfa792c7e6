// The error log.
//
// A line goes to the debug file of VORN_DEBUG if one is open, otherwise to the console: debug levels to
// stdout, all else to stderr. VORN_DEBUG is read for every line, so that a running program can be given a
// debug file; a child after fork gets a file of its own. Nothing in here reports a failure: there is nowhere
// to report it to.
#include "runtime/errlog.h"

#include "runtime/common.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "vorn/log.h"

#include <atomic>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

extern "C" {

pthread_mutex_t _log_mutex = PTHREAD_MUTEX_INITIALIZER;
FILE *_log_fp = nullptr;
char _log_filename[256] = "";
int32_t _log_pid = -1;
int32_t _no_out_flag = -1;

int32_t _vorn_init_phase = 7;
int32_t _daemon = 0;
int32_t tlog_use = 0;
int32_t dlogid = -1;

// The library is one kind of process among those of the system and prints only its own name; the others are
// here for their number.
const char *const _tproc_name[TPROC_ROWS] = {
    "TPROC0",  "TPROC1",  "TPROC2",  "TPROC3",  "TPROC4",  "TPROC5",  "TPROC6",  "TPROC7",  "CLI",
    "TPROC9",  "TPROC10", "TPROC11", "TPROC12", "TPROC13", "TPROC14", "TPROC15", "TPROC16", "TPROC17",
    "TPROC18", "TPROC19", "TPROC20", "TPROC21", "TPROC22", "TPROC23", "TPROC24", "TPROC25", "TPROC26",
    "TPROC27", "TPROC28", "TPROC29", "TPROC30", "TPROC31", "TPROC32", "UNKNOWN",
};
const int32_t _my_tproc = 8;

static constexpr size_t LINE_SIZE = 8192;
// Kept free at the end of a line for the code, the system's error text and the newline.
static constexpr size_t LINE_TAIL = 256;
static constexpr size_t PRINTLOG_SIZE = 65534;
// The start-up phase from which the VORN_ERR_MSG switch works is the one above this.
static constexpr int32_t LAST_SPEAKING_PHASE = 6;

int _vorn_check_loglvl(int level)
{
    return level & 0xFFF;
}

const char *_vorn_loglvl(int level)
{
    static const struct {
        int level;
        const char *letter;
    } letters[] = {
        {LEVEL_FATAL, "F"},   {LEVEL_ERROR, "E"},   {LEVEL_WARNING, "W"}, {LEVEL_INFO, "I"},
        {LEVEL_DEBUG1, "D1"}, {LEVEL_DEBUG2, "D2"}, {LEVEL_DEBUG3, "D3"}, {LEVEL_DEBUG4, "D4"},
    };
    for (const auto &row : letters)
        if (row.level == level)
            return row.letter;
    return "I";
}

static void forget_debug_file(void)
{
    fclose(_log_fp);
    _log_fp = nullptr;
}

// Sees to it that the debug file is the one that `name` asks for in this process. False if it can't be
// opened. Expects _log_mutex. _log_filename holds the first 255 characters of a name; names that differ only
// behind them count as the same.
static bool follow_debug_file(const char *name)
{
    int32_t pid = (int32_t)getpid();
    bool same = strncmp(name, _log_filename, sizeof _log_filename - 1) == 0;
    if (_log_fp != nullptr && same && _log_pid == pid)
        return true;
    if (_log_fp != nullptr)
        forget_debug_file();
    char path[PATH_MAX];
    if ((size_t)snprintf(path, sizeof path, "%s.%d", name, pid) >= sizeof path)
        return false;
    _log_fp = fopen(path, "a+");
    if (_log_fp == nullptr)
        return false;
    snprintf(_log_filename, sizeof _log_filename, "%s", name);
    _log_pid = pid;
    return true;
}

static void append(char *line, size_t *length, size_t size, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
static void append_args(char *line, size_t *length, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 4, 0)));

// Adds to a line of at most `size` - 1 characters; what doesn't fit is cut.
static void append_args(char *line, size_t *length, size_t size, const char *format, va_list args)
{
    int added = vsnprintf(line + *length, size - *length, format, args);
    if (added < 0)  // a format that printf refuses: better its words than none
        added = snprintf(line + *length, size - *length, "%s", format);
    *length += (size_t)added < size - *length ? (size_t)added : size - *length - 1;
}

static void append(char *line, size_t *length, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    append_args(line, length, size, format, args);
    va_end(args);
}

static void build_line(char *line, const timeval *now, int level, int errnum, const char *code,
                       const char *format, va_list args)
{
    tm local;
    localtime_r(&now->tv_sec, &local);
    size_t length = 0;
    append(line, &length, LINE_SIZE, "%02d%02d%02d.%06lld:(%s) %s ", local.tm_hour, local.tm_min,
           local.tm_sec, (long long)now->tv_usec, _vorn_loglvl(level), _tproc_name[_my_tproc]);
    append_args(line, &length, LINE_SIZE - LINE_TAIL, format, args);
    if (code != nullptr)
        append(line, &length, LINE_SIZE - 1, " [%s]", code);
    if (errnum > 0)
        append(line, &length, LINE_SIZE - 1, "[%s]", strerror(errnum));
    if ((level & LEVEL_BITS_DEBUG) == 0)
        append(line, &length, LINE_SIZE, "\n");
}

// True if VORN_ERR_MSG has switched the log off. It is asked once.
static bool log_is_switched_off(void)
{
    std::atomic_ref<int32_t> decided(_no_out_flag);
    int32_t off = decided.load(std::memory_order_relaxed);
    if (off < 0) {
        const char *value = getenv("VORN_ERR_MSG");
        off = value != nullptr && (value[0] == 'N' || value[0] == 'n');
        decided.store(off, std::memory_order_relaxed);
    }
    return off == 1 && _vorn_init_phase > LAST_SPEAKING_PHASE;
}

// False if no debug file is open. A file that fails is given up, and the line with it.
static bool write_to_debug_file(const char *line)
{
    _thread_mutex_lock(&_log_mutex);
    bool had_file = _log_fp != nullptr;
    if (had_file && (fflush(_log_fp) != 0 || fprintf(_log_fp, "[%d] %s", (int)_thread_self(), line) < 0 ||
                     fflush(_log_fp) != 0))
        forget_debug_file();
    _thread_mutex_unlock(&_log_mutex);
    return had_file;
}

// The other stream is flushed first, so that the two stay in order on a console that they share.
static void write_to_console(int level, const char *line)
{
    bool debug = (level & LEVEL_BITS_DEBUG) != 0;
    FILE *other = debug ? stderr : stdout;
    FILE *stream = debug ? stdout : stderr;
    if (fflush(other) != 0)
        _vorn_detach_console();
    if (fputs(line, stream) < 0)
        _vorn_detach_console();
    if (fflush(stream) != 0)
        _vorn_detach_console();
}

void err_doit(int level, int errnum, const char *code, const char *format, va_list args)
{
    timeval now;
    gettimeofday(&now, nullptr);
    const char *name = getenv("VORN_DEBUG");
    if (name != nullptr && name[0] != '0' && name[0] != '\0') {
        _thread_mutex_lock(&_log_mutex);
        bool has_file = follow_debug_file(name);
        _thread_mutex_unlock(&_log_mutex);
        if (!has_file)
            return;
    }
    char line[LINE_SIZE];
    build_line(line, &now, level, errnum, code, format, args);
    if (log_is_switched_off())
        level = LEVEL_DROPPED;
    if (level == LEVEL_DROPPED || _daemon != 0)
        return;
    if (write_to_debug_file(line))
        return;
    if (tlog_use != 0 && dlogid >= 0)
        return;
    write_to_console(level, line);
}

void _real_errwork(int use_errno, int level, const char *code, const char *format, ...)
{
    int error = errno;
    va_list args;
    va_start(args, format);
    err_doit(level, use_errno == 1 ? error : 0, code, format, args);
    va_end(args);
    if (level == LEVEL_FATAL) {
        _abend_control();
        exit(1);
    }
    if (level == LEVEL_ABORT) {
        _abend_control();
        abort();
    }
    errno = error;
}

void _printlog(const char *format, ...)
{
    char text[PRINTLOG_SIZE];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0)
        return;
    print_percents(text);
    VORN_LOG(0, LEVEL_DEBUG4, nullptr, "%s", text);
}
}
