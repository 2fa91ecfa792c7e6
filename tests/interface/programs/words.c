/* Writes the words with which a hosting process steers the error log, and lets the library log a line after
   each: what it wrote must be what the library reads. */
#include <stdio.h>
#include <string.h>

extern int _daemon, tlog_use, dlogid, _vorn_init_phase;
extern void _real_errwork(int use_errno, int level, const char *code, const char *format, ...);

int main(int argc, char **argv)
{
    const char *what = argc > 1 ? argv[1] : "";

    if (_daemon != 0 || tlog_use != 0 || dlogid != -1 || _vorn_init_phase != 7) {
        printf("words start as %d %d %d %d\n", _daemon, tlog_use, dlogid, _vorn_init_phase);
        return 1;
    }
    if (strcmp(what, "daemon") == 0) {
        _daemon = 1;
    } else if (strcmp(what, "tlog") == 0) {
        tlog_use = 1;
        dlogid = 0;
    } else if (strcmp(what, "phase") == 0) {
        _vorn_init_phase = 6;
    }
    _real_errwork(0, 2, "COM0001", "0209 a line");
    return 0;
}
