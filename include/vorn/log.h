/* The application's log, and the trace hook.
 *
 * With ULOGPFX (or ULOG) in the environment the log goes to the local file "<prefix>.MMDDYYYY", one a day;
 * without it each line is sent to the server, which needs a session. A line reads "cli.<pid>.HHMMSS:
 * text", with "xid = ..: " before the text while a transaction is open. */
#ifndef VORN_LOG_H
#define VORN_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#define VORN_LOG_FORMAT __attribute__((format(printf, 1, 2)))
#else
#define VORN_LOG_FORMAT
#endif

/* One line of the user log, as printf; a newline is added. A line is cut behind 8096 bytes, prefix
 * included. None of these calls clears tperrno. 1, or -1 with tperrno: TPEOS (the file can't be opened or
 * written), or what the sending set. */
int userlog(const char *format, ...) VORN_LOG_FORMAT;

/* The same; the result is the number of bytes written to the file, or handed over to the server with their
 * terminator. */
int UserLog(const char *format, ...) VORN_LOG_FORMAT;

/* A counted text, always sent to the server, without a newline added. Cut so that prefix and text have at
 * most 8099 bytes. 1 or -1; TPEINVAL for NULL or a negative length. */
int userlog2(const char *data, int length);

/* Closes the local file (the next line opens it again), or has the server write out its own. 1 or -1. */
int ulogsync(void);

/* For a program that hosts the library and decides itself what is said where. The library reads these words at
 * each line of its error log and never writes them. */
extern int _vorn_init_phase; /* at first 7; VORN_ERR_MSG silences the log only above 6 */
extern int _daemon;          /* at first 0; with another value no line is written at all */
extern int tlog_use;         /* at first 0; not 0, with dlogid 0 or more, no line goes to the console */
extern int dlogid;           /* at first -1; see tlog_use. The file of VORN_DEBUG has the lines in any case */

/* The trace. The library calls it at the entry (phase 1), the normal exit (2) and the error exit (4) of
 * each of its functions with the function's name, 1, and a format with its arguments. The library's own
 * does nothing and gives 1; a program may define its own in its place. It runs on the calling thread and
 * must not call back. */
int _vorn_trace(const char *function, int one, int phase, const char *format, ...);

#ifdef __cplusplus
}
#endif
#endif
