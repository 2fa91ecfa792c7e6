// Makes system calls of this process fail where nothing else does, and tells what was left open.
#ifndef VORN_TESTS_WIRE_REFUSE_H
#define VORN_TESTS_WIRE_REFUSE_H

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// The descriptor that the next socket would get: the same before and after if nothing was left open.
inline int next_descriptor()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

// While one of these stands, no descriptor can be opened.
struct NoDescriptors {
    rlimit before;

    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit none = {(rlim_t)next_descriptor(), before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
};

// One system call fails from now on; every test runs in a process of its own, so it need not be taken back.
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
