/* What one poll with many results costs the agent: its own exchange (make_poll) against a
 * collector.
 *
 *   poll_block PORT [MEGABYTES [POLLS]]
 *
 * Logs in, then posts blocks of load-average records. Prints processor time per poll and how far
 * the peak of memory rose above what the block itself takes. */
#include "compression_routine.h"
#include "libsslloader.h"
#include "sslutiles_poll.h"
#include "udc.h"
#include "vindral_config.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/resource.h>

static std::string make_block(size_t size, int poll) {
    std::string block;
    for (int i = 0; block.size() < size; i++) {
        UDCW* w = nullptr;
        create_new_udcw(&w, 0, 4, 1, 0, 3, 1);
        for (int v : {66, i + 1, 1}) {
            udcw_add(w, UDC_UI32, v);
        }
        udcw_add(w, UDC_I64, 1700000000L + poll);
        for (double v : {i * 0.01, i * 0.02, i * 0.03}) {
            udcw_add(w, UDC_D64, v);
        }
        udcw_add(w, UDC_STRING, "Load Average values are within acceptable limits\n");
        udcw_add(w, UDC_UI32, 0);
        block.append(reinterpret_cast<char*>(w->udc), w->udc->size);
        free(w->udc);
        udcw_free(&w);
    }
    return block;
}

static double cpu_ms() {
    rusage use;
    getrusage(RUSAGE_SELF, &use);
    return static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1000.0 +
           static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1000.0;
}

static long status_kb(const char* key) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            return atol(line.c_str() + strlen(key));
        }
    }
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: poll_block PORT [MEGABYTES [POLLS]]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    double megabytes = argc > 2 ? atof(argv[2]) : 1;
    int polls = argc > 3 ? atoi(argv[3]) : 20;
    char host[] = "127.0.0.1", email[] = "bench@example.org", name[] = "poll_block";
    alt_server = host;
    alt_port = argv[1];
    user_email = email;
    agent_name = name;
    char* reply = nullptr;
    size_t length = 0;
    if (!init_ssl_variables() || make_poll(nullptr, 0, &reply, &length) != 1) {
        fprintf(stderr, "no session\n");
        return 1;
    }
    free(reply);
    double spent = 0;
    long raised = 0;
    for (int i = 0; i < polls; i++) {
        std::string block = make_block(static_cast<size_t>(megabytes * 1e6), i);
        std::ofstream("/proc/self/clear_refs") << "5"; /* the peak starts anew */
        long before_kb = status_kb("VmRSS:");
        double before = cpu_ms();
        int result = make_poll(block.data(), block.size(), &reply, &length);
        spent += cpu_ms() - before;
        raised = std::max(raised, status_kb("VmHWM:") - before_kb);
        free(reply);
        if (result != 1) {
            fprintf(stderr, "poll %d gave %d\n", i, result);
            return 1;
        }
    }
    printf("%.1f MB a poll: %.2f ms of processor time each, peak memory %ld KB above the block\n",
           megabytes, spent / polls, raised);
    return 0;
}
