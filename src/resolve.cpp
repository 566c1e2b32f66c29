#include "resolve.h"

#include "guards.h"
#include "thread_start.h"

#include <csignal>
#include <cstring>
#include <new>
#include <utility>

static constexpr thread_kind RESOLVER = {.stack_size = 256 * 1024, .detached = true};

namespace {

/* One name on its way, owned by the caller and the resolver thread until both have let go. */
struct lookup {
    heap_text host, port; /* with hints the order: written before the thread starts */
    addrinfo hints;

    mutex guard;
    condition answered;
    int owners GUARDED_BY(guard) = 1;
    bool done GUARDED_BY(guard) = false;
    int code GUARDED_BY(guard) = 0;
    addrinfo* list GUARDED_BY(guard) = nullptr; /* until the caller takes it */
};

struct let_go {
    void operator()(lookup* l) const {
        host_addresses unclaimed;
        {
            lock hold(l->guard);
            if (--l->owners > 0) {
                return;
            }
            unclaimed.reset(l->list);
        }
        delete l;
    }
};
using lookup_share = std::unique_ptr<lookup, let_go>;

} // namespace

static void* resolver_thread(void* arg) {
    lookup_share l(static_cast<lookup*>(arg));
    pthread_setname_np(pthread_self(), "resolver");
    addrinfo* list = nullptr;
    int code = getaddrinfo(l->host.get(), l->port.get(), &l->hints, &list);
    lock hold(l->guard);
    l->done = true;
    l->code = code;
    l->list = code == 0 ? list : nullptr;
    pthread_cond_signal(&l->answered.handle);
    return nullptr;
}

/* Gives a second share of `l` to a new resolver thread. Returns 1, or 0 when there is none. */
static int start_resolver(lookup* l) {
    {
        lock hold(l->guard);
        l->owners++;
    }
    /* The new thread inherits the mask: no signal ever meets it unblocked, but for that of a crash,
     * which is to be reported. */
    sigset_t most, before;
    sigfillset(&most);
    sigdelset(&most, SIGSEGV);
    pthread_sigmask(SIG_SETMASK, &most, &before);
    int failed = thread_start(RESOLVER, resolver_thread, l);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failed) {
        lock hold(l->guard);
        l->owners--;
        return 0;
    }
    return 1;
}

static heap_text copy_text(const char* text) {
    return heap_text(text != nullptr ? strdup(text) : nullptr);
}

static int resolve_name(const char* host, const char* port, const addrinfo* hints,
                        addrinfo** list) {
    lookup_share l(new (std::nothrow) lookup);
    if (!l) {
        return EAI_MEMORY;
    }
    l->host = copy_text(host);
    l->port = copy_text(port);
    l->hints = *hints;
    if ((host != nullptr && !l->host) || (port != nullptr && !l->port)) {
        return EAI_MEMORY;
    }
    if (!start_resolver(l.get())) {
        return getaddrinfo(host, port, hints, list);
    }
    lock hold(l->guard);
    while (!l->done) {
        cancel_on may_end;
        pthread_cond_wait(&l->answered.handle, &l->guard.handle);
    }
    if (l->code == 0) {
        *list = std::exchange(l->list, nullptr);
    }
    return l->code;
}

int resolve_host(const char* host, const char* port, const addrinfo* hints, addrinfo** list) {
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    int code = getaddrinfo(host, port, &numeric, list);
    return code == EAI_NONAME ? resolve_name(host, port, hints, list) : code;
}
