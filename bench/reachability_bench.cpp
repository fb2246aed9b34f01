// Measures what one status query costs: on Linux a fresh netlink socket, a dump of the links and
// either a dump of the routes (the network in general) or one route lookup (a numeric host).
// NetworkManager is kept out of the figures.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "terrane/reachability/reachability_factory.hpp"

namespace {

using namespace terrane::common;

void statusQuery(benchmark::State& state, const optional<std::string>& host) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/terrane-bench-bus", 1);
    auto service = ReachabilityFactory::reachability(host);
    // Started, so that the monitor keeps the metered hint and the query asks only the kernel.
    service->start();
    for (auto _ : state) {
        benchmark::DoNotOptimize(service->currentNetworkStatus());
    }
}

void BM_NetworkStatus(benchmark::State& state) {
    statusQuery(state, nullopt);
}
BENCHMARK(BM_NetworkStatus);

void BM_NumericHostStatus(benchmark::State& state) {
    statusQuery(state, std::string("127.0.0.1"));
}
BENCHMARK(BM_NumericHostStatus);

}  // namespace

BENCHMARK_MAIN();
