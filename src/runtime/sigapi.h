// Signals: one table that says for eight signals what the library and what the application does, and one
// entry point for all of them.
#ifndef VORN_RUNTIME_SIGAPI_H
#define VORN_RUNTIME_SIGAPI_H

#include <stdint.h>

extern "C" {

typedef void signal_handler(int signal);

struct sig_elem {
    int32_t signal;   // -1: end of the table
    int32_t pending;  // arrived while signals were deferred
    signal_handler *user;
    signal_handler *internal;
};
constexpr int SIG_ROWS = 9;

extern sig_elem sig_table[SIG_ROWS];
extern int32_t sig_table_initialized;
extern int32_t sig_defer_counter;
extern int32_t _vorn_coredump;  // 1 once a core dump was asked for
extern char _vorn_coredump_dir[256];

// Operations of _vorn_defer_sigs.
constexpr int DEFER_READ = 0, DEFER_SET = 1, DEFER_ADD = 2;

// Any thread. None of these five takes a lock but the one that finds the thread's block.
int _vorn_signal_control(void);                                     // installs the table, once a process; 1
signal_handler *_vorn_signal(int signal, signal_handler *handler);  // the former handler, or SIG_ERR
signal_handler *_vorn_register_signal(int signal, signal_handler *handler);  // the same, past the table
int _vorn_defer_sigs(int operation, int value);  // the former counter; -1 for another operation
int _vorn_do_sigs(void);                         // runs what was deferred; 1

// Run as signal handlers.
void _vorn_sig_handler(int signal);
void _vorn_sig_alrm(int signal);
void _vorn_sig_pipe(int signal);
void _vorn_sig_urg(int signal);
void _vorn_sig_coredump(int signal);

bool in_signal_handler(void);  // true on a thread whose handler closes the connection: it must not wait

int _vorn_set_coredumpdir(const char *directory);  // null: below VORNDIR; 1
}

#endif
