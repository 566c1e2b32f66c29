#include "thread_start.h"

#include <cstring>

thread_starter::thread_starter(const thread_kind& kind) : kind_(kind), error_(set_attributes()) {}

thread_starter::~thread_starter() {
    if (initialized_) {
        pthread_attr_destroy(&attributes_);
    }
}

/* Returns 0, or the error that was logged. */
int thread_starter::set_attributes() {
    if (int error = pthread_attr_init(&attributes_)) {
        return failed(error, kind_.attr_message);
    }
    initialized_ = true;
    if (kind_.detached) {
        if (int error = pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED)) {
            return failed(error, kind_.detach_message);
        }
    }
    if (kind_.stack_size != 0) {
        if (int error = pthread_attr_setstacksize(&attributes_, kind_.stack_size)) {
            return failed(error, kind_.stack_message);
        }
    }
    return 0;
}

int thread_starter::failed(int error, const char* message) const {
    if (kind_.log != nullptr && message != nullptr) {
        kind_.log(kind_.log_level, message, error, strerror(error));
    }
    return error;
}

int thread_starter::start(void* (*body)(void*), void* arg, pthread_t* handle) const {
    if (error_ != 0) {
        return error_;
    }
    pthread_t thread;
    if (int error = pthread_create(&thread, &attributes_, body, arg)) {
        return failed(error, kind_.create_message);
    }
    if (kind_.name != nullptr && !kind_.detached) {
        pthread_setname_np(thread, kind_.name);
    }
    if (handle != nullptr) {
        *handle = thread;
    }
    return 0;
}

int thread_start(const thread_kind& kind, void* (*body)(void*), void* arg, pthread_t* handle) {
    return thread_starter(kind).start(body, arg, handle);
}
