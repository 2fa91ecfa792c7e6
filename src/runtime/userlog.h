// The user log: the application's lines, sent to the server or written to a dated local file. The calls
// themselves are in vorn/log.h.
#ifndef VORN_RUNTIME_USERLOG_H
#define VORN_RUNTIME_USERLOG_H

#include "vorn/log.h"

#include <pthread.h>
#include <stdint.h>
#include <time.h>

extern "C" {

// local_flag: what the environment asks for.
constexpr int32_t ULOG_UNDECIDED = -1, ULOG_TO_SERVER = 0, ULOG_TO_FILE = 1;

extern pthread_mutex_t _ulog_mutex;  // held over the whole way out of a userlog or UserLog line
extern int32_t local_flag;
extern int32_t ulogfd;        // the local file; -1: none
extern char *pulogpfx;        // prefix of its name
extern int32_t ulog_date[3];  // month, day, year of the open file
extern time_t _cur_time;      // of the last line

// Opens the file of a day and writes its banner; the descriptor or -1. Expects _ulog_mutex.
int ulog_open(const int *date, const char *prefix);
int date_cmp(const int *a, const int *b);  // 0, 1 if `a` is later, -1 if earlier

// Closes the local file if one is open. Takes no lock: whoever gets the descriptor out of ulogfd closes it.
void close_user_log(void);
// As that, and lets the next line decide anew where the log goes.
void reset_user_log(void);
}

#endif
