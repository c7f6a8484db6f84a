// Allocation and look-up costs of the foundation against the standard library.
//
// Arena: a request-like burst of small allocations of mixed sizes, released at once,
// against malloc/free of the same sizes. Table and Map: look-ups of header-like keys
// against std::unordered_map.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <strings.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Map.h>
#include <vesk/Str.h>
#include <vesk/Table.h>

namespace {

// Sizes as a request allocates them: header records, short texts, a few buffers.
constexpr int kSizes[] = {24, 48, 16, 96, 32, 200, 64, 8, 512, 40, 24, 1024, 16, 72, 48, 32};
constexpr int kBurst = 64;

void ArenaRequest(benchmark::State& state) {
        Arena_T A = Arena_new();
        for (auto _ : state) {
                for (int i = 0; i < kBurst; i++)
                        benchmark::DoNotOptimize(ARENA_ALLOC(A, kSizes[i % 16]));
                Arena_free(A);
        }
        Arena_dispose(&A);
        state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(ArenaRequest);

void MallocRequest(benchmark::State& state) {
        void* blocks[kBurst];
        for (auto _ : state) {
                for (int i = 0; i < kBurst; i++)
                        benchmark::DoNotOptimize(blocks[i] = malloc(kSizes[i % 16]));
                for (int i = 0; i < kBurst; i++)
                        free(blocks[i]);
        }
        state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(MallocRequest);

const std::vector<std::string>& headerNames() {
        static const std::vector<std::string> names = {"Host",
                                                       "User-Agent",
                                                       "Accept",
                                                       "Accept-Language",
                                                       "Accept-Encoding",
                                                       "Connection",
                                                       "Cookie",
                                                       "Referer",
                                                       "Cache-Control",
                                                       "If-None-Match",
                                                       "If-Modified-Since",
                                                       "Content-Type",
                                                       "Content-Length",
                                                       "Authorization",
                                                       "Upgrade-Insecure-Requests",
                                                       "Origin"};
        return names;
}

void TableGet(benchmark::State& state) {
        Table_T T = Table_new(0, Str_cmp, Str_hash);
        for (auto& n : headerNames())
                Table_put(T, n.c_str(), const_cast<char*>(n.c_str()));
        // Keys from elsewhere in memory, as a parsed request has them.
        std::vector<std::string> keys(headerNames());
        for (auto _ : state)
                for (auto& k : keys)
                        benchmark::DoNotOptimize(Table_get(T, k.c_str()));
        Table_free(&T);
        state.SetItemsProcessed(state.iterations() * keys.size());
}
BENCHMARK(TableGet);

void MapGet(benchmark::State& state) {
        Map_T M = Map_new();
        for (auto& n : headerNames())
                Map_put(M, n.c_str(), n.c_str());
        std::vector<std::string> keys;
        for (auto& n : headerNames()) {
                std::string lower = n;
                for (auto& c : lower)
                        c = static_cast<char>(tolower(c));
                keys.push_back(lower);  // header names come in any case
        }
        for (auto _ : state)
                for (auto& k : keys)
                        benchmark::DoNotOptimize(Map_get(M, k.c_str()));
        Map_free(&M);
        state.SetItemsProcessed(state.iterations() * keys.size());
}
BENCHMARK(MapGet);

void UnorderedMapGet(benchmark::State& state) {
        std::unordered_map<std::string_view, const char*> m;
        for (auto& n : headerNames())
                m.emplace(n, n.c_str());
        std::vector<std::string> keys(headerNames());
        for (auto _ : state)
                for (auto& k : keys)
                        benchmark::DoNotOptimize(m.find(std::string_view(k)));
        state.SetItemsProcessed(state.iterations() * keys.size());
}
BENCHMARK(UnorderedMapGet);

}  // namespace

BENCHMARK_MAIN();
