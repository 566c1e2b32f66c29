/* System calls that fail on order, for errors that no file or limit can bring about. */
#ifndef VINDRAL_REFUSE_SYSCALL_H
#define VINDRAL_REFUSE_SYSCALL_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

/* From here on the system call `number` fails with `error` in this process, which should be a
 * forked child: there is no way back. With an `argument` (0 to 5) only calls that have `value`
 * there. False when the system does not let us. */
inline bool refuse_syscall(long number, int error, int argument = -1, uint32_t value = 0) {
    bool any = argument < 0;
    uint32_t offset = offsetof(seccomp_data, args) + sizeof(uint64_t) * (any ? 0 : argument);
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset),
        BPF_JUMP(BPF_JMP | (any ? BPF_JA : BPF_JEQ) | BPF_K, any ? 0 : value, 0,
                 static_cast<uint8_t>(any ? 0 : 1)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

#endif
