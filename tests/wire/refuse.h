// Makes one system call of this process fail from now on, where nothing else makes it fail. Every test runs in
// a process of its own, so it need not be taken back.
#ifndef VORN_TESTS_WIRE_REFUSE_H
#define VORN_TESTS_WIRE_REFUSE_H

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

// False where the kernel doesn't allow it.
inline bool refuse_call(unsigned number, unsigned error)
{
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {sizeof steps / sizeof *steps, steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

#endif
