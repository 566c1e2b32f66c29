#include "fork_gate.h"

#include "guards.h"

#include <cerrno>
#include <pthread.h>
#include <unistd.h>

static pthread_rwlock_t gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

/* Held by the one thread that waits at the gate or forks, so that behind it no other fork waits yet
 * and those who want to pass come first. */
static mutex next_to_fork;

static bool ended GUARDED_BY(next_to_fork) = false;

fork_gate::fork_gate() {
    pthread_rwlock_rdlock(&gate);
}

fork_gate::~fork_gate() {
    pthread_rwlock_unlock(&gate);
}

pid_t gated_fork() {
    lock hold(next_to_fork);
    if (ended) {
        errno = ECANCELED;
        return -1;
    }
    pthread_rwlock_wrlock(&gate);
    pid_t child = fork();
    if (child == 0) {
        /* To the child, whose thread has a number of its own, the holder is somebody else. */
        gate = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
    } else {
        pthread_rwlock_unlock(&gate);
    }
    return child;
}

void end_gated_forks() {
    lock hold(next_to_fork);
    ended = true;
}
