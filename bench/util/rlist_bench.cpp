// Sorting 1M nodes: RList<SortObject>::msort next to std::list<SortObject>::sort (with its
// comparison inlined, its best case) and next to a straightforward transcription of the merge sort
// (split by walking, pRear found by walking, the same comparator calls as msort).
//
// Linked-list sorts depend on where the nodes lie in memory, so every run of every side fills its
// list from the same allocator state: the nodes are freed and malloc_trim() merges the freed
// chunks before the next fill, which then gets nodes in address order again. Both node types take
// the same 32-byte heap chunk.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <list>
#include <random>
#include <vector>

#include "quelworks/util/rlist.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

// Merges the heap's freed chunks, so that the next fill gets its nodes in address order.
void freshHeap() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

constexpr int kMaxNodes = 1 << 20;

std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
}

const std::vector<SortObject>& keys() {
    static const std::vector<SortObject> k = [] {
        std::mt19937 rng(2024);
        std::uniform_real_distribution<float> dist(0.0f, 1000.0f);
        std::vector<SortObject> v(kMaxNodes);
        for (int i = 0; i < kMaxNodes; ++i) v[i] = SortObject{i, dist(rng)};
        return v;
    }();
    return k;
}

// The comparator reaches the sorts as a run-time value, as it reaches msort inside the library,
// so that no side can inline it.
CompareStruct<SortObject> volatile gCompare{byDistance};

// The merge sort as one would first write it down: find each split point by walking, merge, and
// walk the result once more for the rear.
struct StraightSort {
    using N = Node<SortObject>;
    static N* merge(N* a, N* b, CompareStruct<SortObject> cmp) {
        if (a == nullptr) return b;
        if (b == nullptr) return a;
        N* head = nullptr;
        N* last = nullptr;
        while (a != nullptr && b != nullptr) {
            N* taken;
            if (cmp.compare(a->data, b->data) == -1 || cmp.compare(a->data, b->data) == 0) {
                taken = a;
                a = a->pNext;
            } else {
                taken = b;
                b = b->pNext;
            }
            if (head == nullptr) {
                head = taken;
            } else {
                last->pNext = taken;
            }
            last = taken;
        }
        last->pNext = (a != nullptr) ? a : b;
        return head;
    }
    static void sort(N*& head, int n, CompareStruct<SortObject> cmp) {
        if (n < 2) return;
        N* mid = head;
        for (int i = 0; i < n - n / 2 - 1; ++i) mid = mid->pNext;
        N* second = mid->pNext;
        mid->pNext = nullptr;
        sort(head, n - n / 2, cmp);
        sort(second, n / 2, cmp);
        head = merge(head, second, cmp);
    }
    static void run(RList<SortObject>& list) {
        N* front = list.pFront;
        sort(front, list.count, CompareStruct<SortObject>{gCompare.compare});
        list.pFront = front;
        N* rear = front;
        while (rear->pNext != nullptr) rear = rear->pNext;
        list.pRear = rear;
    }
};

void fill(RList<SortObject>& list, int n) {
    for (int i = 0; i < n; ++i) list.push_back(keys()[i]);
}

template <typename SortFn>
void runRList(benchmark::State& state, SortFn sortFn) {
    keys();
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        freshHeap();
        RList<SortObject> list;
        fill(list, n);
        state.ResumeTiming();
        sortFn(list);
        state.PauseTiming();
        benchmark::DoNotOptimize(list.pRear->data.distance);
        list.free();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
}

void BM_RListMsort(benchmark::State& state) {
    runRList(state,
             [](RList<SortObject>& l) { l.msort(CompareStruct<SortObject>{gCompare.compare}); });
}

// The same sort without fetching ahead on long runs: what the fetching gains.
void BM_RListSortNoFetchAhead(benchmark::State& state) {
    runRList(state, [](RList<SortObject>& l) {
        Node<SortObject>* rest = l.pFront;
        const auto run = quelworks::detail::ListSort<SortObject, false>::sort(
            rest, l.count, CompareStruct<SortObject>{gCompare.compare}.compare);
        l.pFront = run.head;
        l.pRear = run.tail;
    });
}

void BM_StraightMergeSort(benchmark::State& state) {
    runRList(state, [](RList<SortObject>& l) { StraightSort::run(l); });
}

void BM_StdListSort(benchmark::State& state) {
    keys();
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        freshHeap();
        std::list<SortObject> list(keys().begin(), keys().begin() + n);
        state.ResumeTiming();
        list.sort([](const SortObject& a, const SortObject& b) { return a.distance < b.distance; });
        state.PauseTiming();
        benchmark::DoNotOptimize(list.back().distance);
        list.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
}

// 1M nodes (32 MB, beyond the caches) is the measure; 16K nodes (512 KB) shows the cost of the
// merge loop itself when every node is in cache.
BENCHMARK(BM_RListMsort)->Arg(1 << 14)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
// With and without fetching ahead, from where it starts (runs of 32K nodes) up.
BENCHMARK(BM_RListMsort)->Arg(1 << 15)->Arg(1 << 17)->Arg(1 << 19)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RListSortNoFetchAhead)
    ->Arg(1 << 15)
    ->Arg(1 << 17)
    ->Arg(1 << 19)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdListSort)->Arg(1 << 14)->Arg(1 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StraightMergeSort)->Arg(1 << 14)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
