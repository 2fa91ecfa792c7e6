// The error log: the library's own diagnostic line, to a debug file or the console.
#ifndef VORN_RUNTIME_ERRLOG_H
#define VORN_RUNTIME_ERRLOG_H

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

extern "C" {

enum log_level {
    LEVEL_FATAL = 1,  // the process exits
    LEVEL_ERROR = 2,
    LEVEL_WARNING = 4,
    LEVEL_INFO = 8,
    LEVEL_DEBUG1 = 0x10,
    LEVEL_DEBUG2 = 0x20,
    LEVEL_DEBUG3 = 0x40,
    LEVEL_DEBUG4 = 0x80,
    LEVEL_ABORT = 0x100,  // the process aborts
    LEVEL_DROPPED = 0x200
};

constexpr int LEVEL_BITS_DEBUG = 0xF0;  // lines of these levels go to stdout and get no newline
constexpr int TPROC_ROWS = 34;

extern pthread_mutex_t _log_mutex;  // guards _log_fp, _log_filename, _log_pid
extern FILE *_log_fp;
extern char _log_filename[256];
extern int32_t _log_pid;
extern int32_t _no_out_flag;

// Kinds of processes; _my_tproc is this library's row.
extern const char *const _tproc_name[TPROC_ROWS];
extern const int32_t _my_tproc;

int _vorn_check_loglvl(int level);    // not 0: the line is wanted
const char *_vorn_loglvl(int level);  // the letter of a level
// Any thread. Writes the line; doesn't return for LEVEL_FATAL and LEVEL_ABORT. errno is kept. A null code
// leaves the code out.
void _real_errwork(int use_errno, int level, const char *code, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
void err_doit(int level, int errnum, const char *code, const char *format, va_list args)
    __attribute__((format(printf, 4, 0)));
void _printlog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A log site: a level test and the line. `use_errno` is 1 behind a failed system call.
#define VORN_LOG(use_errno, level, code, ...) \
    do { \
        if (_vorn_check_loglvl(level) != 0) \
            _real_errwork(use_errno, level, code, __VA_ARGS__); \
    } while (0)
}

#endif
