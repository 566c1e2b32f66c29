/* The thread library as a test wants it: brings thread_start.cpp along, which meets failures on
 * demand, and says what was asked for. Included by one file of a program. */
#ifndef VINDRAL_THREAD_LIBRARY_H
#define VINDRAL_THREAD_LIBRARY_H

#include "guards.h"

#include <atomic>
#include <cstring>
#include <pthread.h>

namespace thread_library {

/* What each call returns instead of doing anything; 0 does it. */
inline std::atomic<int> attr_error{0}, detach_error{0}, stack_error{0}, create_error{0};

inline std::atomic<size_t> stack_asked{0};  /* by the last kind that asks for a size */
inline std::atomic<size_t> stack_size{0};   /* of the last thread that was to be created */
inline std::atomic<int> detach_state{-1};   /* likewise */
inline std::atomic<int> threads_created{0}; /* in all */
inline std::atomic<int> running{0};         /* detached threads that have not ended */
inline std::atomic<int> attributes_held{0}; /* not destroyed yet */

/* Asked before each thread; what it returns instead of 0 is the error. Null: never asked. */
inline int (*about_to_create)(void* (*body)(void*), void* arg) = nullptr;

inline void reset() {
    attr_error = detach_error = stack_error = create_error = 0;
    stack_asked = stack_size = 0;
    detach_state = -1;
    threads_created = 0;
}

inline int attr_init(pthread_attr_t* attributes) {
    if (attr_error != 0) {
        return attr_error;
    }
    attributes_held++;
    return pthread_attr_init(attributes);
}

inline int attr_destroy(pthread_attr_t* attributes) {
    attributes_held--;
    return pthread_attr_destroy(attributes);
}

inline int set_detach_state(pthread_attr_t* attributes, int state) {
    return detach_error != 0 ? detach_error.load() : pthread_attr_setdetachstate(attributes, state);
}

inline int set_stack_size(pthread_attr_t* attributes, size_t size) {
    stack_asked = size;
    return stack_error != 0 ? stack_error.load() : pthread_attr_setstacksize(attributes, size);
}

/* The body of a detached thread, counted as long as it runs. */
struct counted {
    void* (*body)(void*);
    void* arg;

    ~counted() { running--; }
};
inline void* run_counted(void* arg) {
    std::unique_ptr<counted> thread(static_cast<counted*>(arg));
    return thread->body(thread->arg);
}

inline int create_thread(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                         void* arg) {
    size_t size = 0;
    int state = -1, error = create_error;
    pthread_attr_getstacksize(attributes, &size);
    pthread_attr_getdetachstate(attributes, &state);
    stack_size = size;
    detach_state = state;
    if (error == 0 && about_to_create != nullptr) {
        error = about_to_create(body, arg);
    }
    if (error != 0) {
        return error;
    }
    threads_created++;
    if (state != PTHREAD_CREATE_DETACHED) {
        return pthread_create(thread, attributes, body, arg);
    }
    running++;
    return pthread_create(thread, attributes, run_counted, new counted{body, arg});
}

} // namespace thread_library

#define pthread_attr_init thread_library::attr_init
#define pthread_attr_destroy thread_library::attr_destroy
#define pthread_attr_setdetachstate thread_library::set_detach_state
#define pthread_attr_setstacksize thread_library::set_stack_size
#define pthread_create thread_library::create_thread
#include "thread_start.cpp"
#undef pthread_attr_init
#undef pthread_attr_destroy
#undef pthread_attr_setdetachstate
#undef pthread_attr_setstacksize
#undef pthread_create

#endif
