#include "vindral_wake.h"

mutex poll_cond_mutex;
condition poll_cond;

void send_pending_data() {
    lock hold(poll_cond_mutex);
    pthread_cond_signal(&poll_cond.handle);
}
