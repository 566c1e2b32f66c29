#include "vindral_interval.h"

std::atomic<int> current_poll_interval{60};

void set_poll_interval(int poll_interval) {
    current_poll_interval = poll_interval;
}
int get_poll_interval() {
    return current_poll_interval;
}
