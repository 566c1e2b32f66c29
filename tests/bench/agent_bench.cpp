/* Records built and wrapped per second, command lines parsed per second. */
#include "udc.h"
#include "vindral_commands.h"
#include "vindral_log.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <string>

/* One load-average record, as the checker builds it. */
static UDC* build_record(int i) {
    UDCW* w = nullptr;
    create_new_udcw(&w, 0, 4, 1, 0, 3, 1);
    udcw_add(w, UDC_UI32, 66);
    udcw_add(w, UDC_UI32, i);
    udcw_add(w, UDC_UI32, 1);
    udcw_add(w, UDC_I64, 1700000000L + i);
    udcw_add(w, UDC_D64, 0.5);
    udcw_add(w, UDC_D64, 0.25);
    udcw_add(w, UDC_D64, 0.125);
    udcw_add(w, UDC_STRING, "Load Average values are within acceptable limits\n");
    udcw_add(w, UDC_UI32, 0);
    UDC* record = w->udc;
    udcw_free(&w);
    return record;
}

static void record_building(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) {
        UDC* record = build_record(i++);
        benchmark::DoNotOptimize(record);
        free(record);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(record_building);

static void record_wrapping(benchmark::State& state) {
    UDC* record = build_record(1);
    for (auto _ : state) {
        UDCW* w = nullptr;
        benchmark::DoNotOptimize(udcw_from_udc(record, &w, record->size));
        udcw_free(&w);
    }
    free(record);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(record_wrapping);

/* A reply of state.range(0) lines that change the same test again and again. */
static void command_parsing(benchmark::State& state) {
    std::string reply;
    for (int i = 0; i < state.range(0); i++) {
        reply += "LAM\t" + std::to_string(i + 1) + "\t1\t10\t20\t30\n";
    }
    for (auto _ : state) {
        parse_data(reply.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(command_parsing)->Arg(10)->Arg(1000)->Arg(100000);

BENCHMARK_MAIN();
