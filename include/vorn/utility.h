/* Small services around the library: paths, processes, a few checks on texts, the version banner.
 *
 * They take no session. None sets tperrno. */
#ifndef VORN_UTILITY_H
#define VORN_UTILITY_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Paths. Both "/" and "\" separate. */

/* The path up to and with its last separator, in a buffer of the caller's context that the next call of a
 * thread of it overwrites. Null for null and for "", without a separator, and where the result would have
 * more than 255 bytes. */
char *_vorn_path_prefix(const char *path);

/* What stands behind the last separator; the whole path if there is none. It points into `path`. Null for
 * null and for "". */
char *_vorn_path_basename(const char *path);

/* Makes a directory (mode 0777 less the umask) and all that is missing above it. 0, or -1 with errno; one
 * that exists already is a failure. */
int _vorn_create_dir(const char *path);

/* Turns each "\" into "/", in place. */
void _vorn_conv_slash(char *s);

/* Appends "/" unless the path ends in one; there must be room for it. 1 if it ended in one, else 0. */
int _slash_check(char *path);

/* Takes "//", "/./" and "/x/../" out, in place, and turns "\" into "/". What stands at the very end stays.
 * 1. */
int _vorn_proc_path(char *path);

/* The path of the queue manager's contact file, or of its lock file: "qmmd" or "qmmld" in the directory
 * VORN_PATHDIR, otherwise in "path" below VORNDIR. `out` must have room for 4096 bytes. 1, or -1: `out` is
 * null, neither variable is set, or the path has 4096 bytes or more. */
int _get_qmm_path(char *out);      /* path of the contact file */
int _vorn_qmm_lockfile(char *out); /* path of the lock file */

/* ---- Processes. */

/* Runs a command by "/bin/sh -c" with the environment of the process and waits for it. The status as waitpid
 * gives it (127 in WEXITSTATUS: no shell, or no such command), or -1 with errno. 1 for null: there is a
 * shell. Other than system() it leaves all signals as they are; a program that ignores SIGCHLD gets -1. */
int _vorn_system(const char *command);

/* Puts the three standard streams on /dev/null. */
void _vorn_detach_console(void);

/* Sleeps until so many seconds have passed by the clock, whatever signals arrive; at least once for a second,
 * or up to a signal. 0. */
int _vorn_real_wait(int seconds);

/* ---- Texts. */

/* 1 if there is nothing but white space in `s`, or nothing at all; null counts as "". Otherwise 0. */
int is_null_data(const char *s);

/* Writes the name of a service that is a function of a program: "p", the program's number with at least four
 * digits, "_", the function. `out` must have room for it: the function's length and 14 bytes. 1, or -1 for
 * null. */
int _make_svcname_from_prodno_funcname(int prodno, const char *function, char *out);

/* ---- Version. */

/* Such as "5.0 SP #1 Fix #1 r11706". It stays the library's. */
const char *_vorn_version(void);

/* Prints the banner as a line to stdout, behind "name for" if a name is given. 0. */
int _vorn_show_version(const char *name);

#ifdef __cplusplus
}
#endif
#endif
