/* CPU time of one pass of each local checker with 1, 10 and 100 tests; of the process checker and
 * its inventory also among 200 and 5,000 more processes, which sleep. */
#include "cpumon.h"
#include "diskmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "netmon.h"
#include "processmon.h"

#include <benchmark/benchmark.h>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static std::vector<pid_t> sleepers;

/* Brings the number of sleeping processes to `count`. */
static void set_sleepers(size_t count) {
    while (sleepers.size() > count) {
        kill(sleepers.back(), SIGKILL);
        waitpid(sleepers.back(), nullptr, 0);
        sleepers.pop_back();
    }
    while (sleepers.size() < count) {
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, "sleeper");
            for (;;) {
                pause();
            }
        }
        sleepers.push_back(pid);
    }
}

static void drop(int (*get_results)(char**, int*)) {
    char* data = nullptr;
    int size = 0;
    if (get_results(&data, &size)) {
        free(data);
    }
}

/* Adds state.range(0) tests, measures `pass`, removes them. */
static void measure(benchmark::State& state, void (*add)(int), void (*rem)(int), void (*pass)(),
                    int (*get_results)(char**, int*)) {
    int tests = static_cast<int>(state.range(0));
    for (int id = 1; id <= tests; id++) {
        add(id);
    }
    for (auto _ : state) {
        pass();
        drop(get_results);
    }
    for (int id = 1; id <= tests; id++) {
        rem(id);
    }
    set_sleepers(0);
}

static void load_average(benchmark::State& state) {
    measure(
        state, [](int id) { add_lda(id, 1, 90, 90, 90, nullptr); }, rem_lda, do_lda_check,
        get_lda_results);
}
BENCHMARK(load_average)->Arg(1)->Arg(10)->Arg(100);

static void cpu(benchmark::State& state) {
    if (!init_cpu_mon()) {
        state.SkipWithError("no processors");
        return;
    }
    measure(
        state, [](int id) { add_cpu(id, 1, 101, 101, 101, -1, 101, nullptr, nullptr); }, rem_cpu,
        [] { do_cpu_check(1); }, get_cpu_results);
}
BENCHMARK(cpu)->Arg(1)->Arg(10)->Arg(100);

static void memory(benchmark::State& state) {
    measure(
        state, [](int id) { add_mem(id, 1, 1, -1, -1, -1, -1, nullptr); }, rem_mem, do_mem_check,
        get_mem_results);
}
BENCHMARK(memory)->Arg(1)->Arg(10)->Arg(100);

static void disk_space(benchmark::State& state) {
    measure(
        state,
        [](int id) {
            char root[] = "/(/dev/root|ext4)";
            add_diskdesc(id, 1, root, 0.001, -1.0, -1.0);
        },
        rem_disk, do_disk_check, get_disk_results);
}
BENCHMARK(disk_space)->Arg(1)->Arg(10)->Arg(100);

static void disk_traffic(benchmark::State& state) {
    measure(
        state,
        [](int id) {
            char root[] = "/(/dev/vda|ext4)";
            add_diskdesc(id, 1, root, -1.0, 1e9, 1e9);
        },
        rem_disk, do_disk_check, get_disk_results);
}
BENCHMARK(disk_traffic)->Arg(1)->Arg(10)->Arg(100);

static void network(benchmark::State& state) {
    get_adapter_list(nullptr, nullptr);
    measure(
        state,
        [](int id) {
            char adapter[] = "eth0";
            add_nettest(id, 1, adapter, 0, 0, 0, 1000000, 0, 0);
        },
        rem_nettest, do_net_check, get_net_results);
}
BENCHMARK(network)->Arg(1)->Arg(10)->Arg(100);

/* Every test has a name of its own; one of them runs. */
static void processes(benchmark::State& state) {
    set_sleepers(static_cast<size_t>(state.range(1)));
    measure(
        state,
        [](int id) {
            std::string name = id == 1 ? "checker_bench" : "absent" + std::to_string(id);
            add_proc(name.data(), id, 1, 90, 900, -1);
        },
        rem_proc, do_proc_check, get_proc_results);
}
BENCHMARK(processes)->ArgsProduct({{1, 10, 100}, {0, 200, 5000}});

static void process_inventory(benchmark::State& state) {
    set_sleepers(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        drop(get_proc_name_list);
    }
    set_sleepers(0);
}
BENCHMARK(process_inventory)->Arg(0)->Arg(200)->Arg(5000);

static void disk_inventory(benchmark::State& state) {
    for (auto _ : state) {
        drop(get_mounted_list);
    }
}
BENCHMARK(disk_inventory);

static void interface_inventory(benchmark::State& state) {
    for (auto _ : state) {
        drop(get_adapter_list);
    }
}
BENCHMARK(interface_inventory);

BENCHMARK_MAIN();
