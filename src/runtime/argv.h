// Command lines to argument vectors and back. Helpers for other programs of the system.
#ifndef VORN_RUNTIME_ARGV_H
#define VORN_RUNTIME_ARGV_H

extern "C" {

// One block with the pointers, a null behind them, and the words; the caller frees it with one free. Null
// without memory. `arguments` may be null.
char **_vorn_build_argv(const char *command, const char *arguments);
char **_vorn_build_argv_argc(const char *string, int *argc);
char *_vorn_mkstr_from_argv(int argc, char **argv);  // each argument and a blank; the caller's to free
int _get_argc_from_argv(char **argv);
}

#endif
