// Initialization of one device whose header has 10,000 or 100,000 columns:
// the header run (a stand-in tool that copies a prepared file), the parse,
// the field typing and the event type's registration. Measured so its
// growth with the column count stays near linear.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "bench_support.h"
#include "tarvik_initialize.h"
#include "tarvik_provider.h"
#include "vyr_type_system.h"

namespace {

void BM_InitializeColumns(benchmark::State &state) {
    const size_t columns = (size_t)state.range(0);
    vyrbench::TempDir dir;
    // The device name is unique to this process: the header path is fixed under /tmp.
    const std::string name = "bench_init_" + std::to_string(getpid());
    const std::string prepared = dir.path() + "/header.csv";
    std::vector<vyr_event_tarvik_type_t> types;
    std::ofstream(prepared) << vyrbench::make_header_line(columns) << '\n'
                            << vyrbench::make_value_line(columns, &types) << '\n';
    // phyprobe -d <dev> --tarvik_collect <file>: the file is the fourth argument.
    std::ofstream(dir.path() + "/phyprobe") << "#!/bin/sh\ncp '" << prepared << "' \"$4\"\n";
    chmod((dir.path() + "/phyprobe").c_str(), 0755);
    const std::string path = dir.path() + ":" + getenv("PATH");
    setenv("PATH", path.c_str(), 1);

    tarvik_provider_t *p = tarvik_provider_instance();
    p->provider.version = 1;
    for (auto _ : state) {
        p->devices.clear();
        tarvik_provider_add_device(name.c_str(), 10);
        vyr_type_system_t *ts = vyr_create_type_system();
        if (!tarvik_provider_initialize(&p->provider, ts) || p->devices.begin()->second.disabled)
            state.SkipWithError("initialization failed");
        state.PauseTiming();
        for (auto &e : p->devices) free(e.second.service_command);  // destroy keeps it
        tarvik_provider_destroy(&p->provider);
        vyr_destroy_type_system(ts);
        state.ResumeTiming();
    }
    unlink(("/tmp/tarvik_collect_" + name + "hdr.csv").c_str());
    state.counters["columns"] = (double)columns;
}

}  // namespace

BENCHMARK(BM_InitializeColumns)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
