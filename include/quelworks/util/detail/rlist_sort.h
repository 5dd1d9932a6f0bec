// The merge sort behind RList::msort and RList::merge_sort. An implementation detail of
// quelworks/util/rlist.h (included from there), installed because RList is a template.
#ifndef QUELWORKS_UTIL_DETAIL_RLIST_SORT_H
#define QUELWORKS_UTIL_DETAIL_RLIST_SORT_H

#include <cstdint>

// A list node (defined in quelworks/util/rlist.h).
template <typename T>
struct Node;

// A hint to start loading the memory at p; it never faults, whatever p is. Undefined at the end
// of this header.
#if defined(__GNUC__) || defined(__clang__)
#define QUELWORKS_PREFETCH(p) __builtin_prefetch(p)
#else
#define QUELWORKS_PREFETCH(p) ((void)0)
#endif

namespace quelworks::detail {

// The merge sort behind RList::msort and RList::merge_sort.
//
// It splits and merges exactly as the plain recursive merge sort does (first part n - n/2 nodes,
// the first part sorted before the second, equal elements taken from the first part, the
// comparator asked a second time when its first answer is not -1), so a comparator sees the same
// calls in the same order. It is faster in three ways:
//  - runs are taken off the front of the chain as the recursion reaches them, so no chain is ever
//    walked to find a split point, and every merge knows its last node, so neither is the result
//    walked to find the rear;
//  - the merge of short runs links a node only when it switches from one run to the other (within
//    a stretch taken from one run the nodes are linked already); every merge prefetches each
//    run's next node as soon as its head is known;
//  - beyond the caches, where each step would wait for a node to come from memory, the merge
//    fetches ahead: every run of at least kLongRun nodes comes with marks, nodes at known
//    positions along it, and while two such runs are merged a set of walkers steps through the
//    stretches just ahead of the merge, from mark to mark, prefetching each node one step before
//    reading its link. The walkers only read links, so nothing changes but the speed.
// Nothing is allocated: the marks live on the stack (12 KB for each level of long runs, so about
// 70 KB for a million nodes).
//
// FetchAhead = false leaves out the fetching ahead (every run is sorted as a short one), for
// measuring what it gains (bench/util/rlist_bench.cpp): about even up to 128K nodes, about 1.4x
// faster from 512K nodes on, where the nodes no longer fit in the caches.
template <typename T, bool FetchAhead = true>
class ListSort {
public:
    using CompareFn = std::int32_t (*)(T, T);

    struct Run {
        Node<T>* head;
        Node<T>* tail;
    };

    // Sorts the next n nodes (n >= 1) of the chain at `head`, leaves `head` at the node after
    // them and returns the sorted, null-terminated run.
    static Run sort(Node<T>*& head, int n, CompareFn compare) {
        return FetchAhead && n >= 2 * kLongRun ? sortLong(head, n, compare, nullptr)
                                               : sortShort(head, n, compare);
    }

    // Merges two non-empty, null-terminated sorted runs.
    static Run merge(Run left, Run right, CompareFn compare);

    // Takes the node of `a` when the comparator answers -1 or, asked a second time, 0.
    static bool takeLeft(const Node<T>* a, const Node<T>* b, CompareFn compare) {
        return compare(a->data, b->data) == -1 || compare(a->data, b->data) == 0;
    }

private:
    static constexpr int kLongRun = 1 << 14;  // runs from here on carry marks
    static constexpr int kMaxMarks = 512;     // per run
    static constexpr int kMinSpacing = 128;   // nodes between marks, at least
    static constexpr int kWalkers = 12;       // per run being merged

    // Nodes of a run at known positions (ascending, the first at 0).
    struct Marks {
        Node<T>* node[kMaxMarks];
        int position[kMaxMarks];
        int count;
        void add(Node<T>* n, int pos) {
            if (count < kMaxMarks) {
                node[count] = n;
                position[count] = pos;
                ++count;
            }
        }
    };

    static int spacingFor(int n) {
        const int spacing = (n + kMaxMarks - 1) / kMaxMarks;
        return spacing < kMinSpacing ? kMinSpacing : spacing;
    }

    // One run being merged: how much of it the merge has taken, and the walkers ahead of that.
    struct Ahead {
        struct Walker {
            Node<T>* node;  // null when idle
            int left;       // nodes still to step over
        };
        const Marks* marks;
        int length;
        int taken = 0;
        int current = 0;  // the mark at or before `taken`
        int next = 1;     // the next stretch to hand to a walker
        Walker walker[kWalkers] = {};

        Ahead(const Marks* m, int n) : marks(m), length(n) {}

        // One step of walker w: read the link of the node prefetched on its last step and
        // prefetch the node it leads to; an idle walker takes the next stretch, as long as that is
        // at most kWalkers stretches ahead of the merge.
        void step(int w) {
            Walker& k = walker[w];
            if (k.node != nullptr) {
                Node<T>* following = k.node->pNext;
                QUELWORKS_PREFETCH(following);
                k.node = (--k.left == 0 || following == nullptr) ? nullptr : following;
                return;
            }
            if (next >= marks->count) return;
            while (current + 1 < marks->count && marks->position[current + 1] <= taken) ++current;
            if (next > current + kWalkers) return;
            if (next <= current) next = current + 1;
            if (next >= marks->count) return;
            const int end = next + 1 < marks->count ? marks->position[next + 1] : length;
            k.node = marks->node[next];
            k.left = end - marks->position[next];
            QUELWORKS_PREFETCH(k.node);
            ++next;
        }
    };

    static Run sortShort(Node<T>*& head, int n, CompareFn compare) {
        if (n == 1) {
            Node<T>* node = head;
            head = node->pNext;
            node->pNext = nullptr;
            return Run{node, node};
        }
        if (n == 2) {
            Node<T>* a = head;
            Node<T>* b = a->pNext;
            head = b->pNext;
            if (takeLeft(a, b, compare)) {
                b->pNext = nullptr;
                return Run{a, b};
            }
            b->pNext = a;
            a->pNext = nullptr;
            return Run{b, a};
        }
        const Run left = sortShort(head, n - n / 2, compare);
        const Run right = sortShort(head, n / 2, compare);
        return merge(left, right, compare);
    }

    // Like sortShort, for n >= kLongRun; fills `marks` for the result when asked.
    static Run sortLong(Node<T>*& head, int n, CompareFn compare, Marks* marks) {
        if (n < 2 * kLongRun) {
            const Run run = sortShort(head, n, compare);
            if (marks != nullptr) {
                // Walk the run while it is still in the cache.
                marks->count = 0;
                const int spacing = spacingFor(n);
                Node<T>* p = run.head;
                for (int i = 0; i < n; i += spacing) {
                    marks->add(p, i);
                    for (int k = 0; k < spacing && p != nullptr; ++k) p = p->pNext;
                }
            }
            return run;
        }
        Marks leftMarks;
        Marks rightMarks;
        const Run left = sortLong(head, n - n / 2, compare, &leftMarks);
        const Run right = sortLong(head, n / 2, compare, &rightMarks);
        return mergeLong(left, leftMarks, n - n / 2, right, rightMarks, n / 2, compare, marks);
    }

    static Run mergeLong(Run left, const Marks& leftMarks, int leftLength, Run right,
                         const Marks& rightMarks, int rightLength, CompareFn compare, Marks* marks);

    // Marks for the rest of a run that the merge appends whole: the run's own marks past what
    // the merge took, moved to the output's positions.
    static void addRest(Marks* out, const Ahead& side, int outPosition) {
        if (out == nullptr) return;
        for (int m = 0; m < side.marks->count; ++m) {
            const int at = side.marks->position[m];
            if (at >= side.taken) out->add(side.marks->node[m], outPosition + (at - side.taken));
        }
    }
};

template <typename T, bool FetchAhead>
typename ListSort<T, FetchAhead>::Run ListSort<T, FetchAhead>::merge(Run left, Run right,
                                                                     CompareFn compare) {
    Node<T>* a = left.head;
    Node<T>* b = right.head;
    QUELWORKS_PREFETCH(a->pNext);
    QUELWORKS_PREFETCH(b->pNext);
    Node<T>* head;
    Node<T>* last;
    bool lastFromA = takeLeft(a, b, compare);
    if (lastFromA) {
        head = last = a;
        a = a->pNext;
        if (a == nullptr) {
            last->pNext = b;
            return Run{head, right.tail};
        }
        QUELWORKS_PREFETCH(a->pNext);
    } else {
        head = last = b;
        b = b->pNext;
        if (b == nullptr) {
            last->pNext = a;
            return Run{head, left.tail};
        }
        QUELWORKS_PREFETCH(b->pNext);
    }
    for (;;) {
        if (takeLeft(a, b, compare)) {
            if (!lastFromA) {
                last->pNext = a;
                lastFromA = true;
            }
            last = a;
            a = a->pNext;
            if (a == nullptr) {
                last->pNext = b;
                return Run{head, right.tail};
            }
            QUELWORKS_PREFETCH(a->pNext);
        } else {
            if (lastFromA) {
                last->pNext = b;
                lastFromA = false;
            }
            last = b;
            b = b->pNext;
            if (b == nullptr) {
                last->pNext = a;
                return Run{head, left.tail};
            }
            QUELWORKS_PREFETCH(b->pNext);
        }
    }
}

template <typename T, bool FetchAhead>
typename ListSort<T, FetchAhead>::Run ListSort<T, FetchAhead>::mergeLong(
    Run left, const Marks& leftMarks, int leftLength, Run right, const Marks& rightMarks,
    int rightLength, CompareFn compare, Marks* marks) {
    Ahead aheadA(&leftMarks, leftLength);
    Ahead aheadB(&rightMarks, rightLength);
    int spacing = 0;
    int nextMark = 0;  // a position past the end when no marks are wanted
    int position = 0;  // of the next node in the output
    const int total = leftLength + rightLength;
    if (marks != nullptr) {
        marks->count = 0;
        spacing = spacingFor(total);
    }
    Node<T>* a = left.head;
    Node<T>* b = right.head;
    QUELWORKS_PREFETCH(a->pNext);
    QUELWORKS_PREFETCH(b->pNext);
    Node<T>* head = nullptr;
    Node<T>* last = nullptr;
    int w = 0;
    for (;;) {
        aheadA.step(w);
        aheadB.step(w);
        if (++w == kWalkers) w = 0;
        Node<T>* taken;
        if (takeLeft(a, b, compare)) {
            taken = a;
            a = a->pNext;
            ++aheadA.taken;
        } else {
            taken = b;
            b = b->pNext;
            ++aheadB.taken;
        }
        if (last == nullptr) {
            head = taken;
        } else {
            last->pNext = taken;
        }
        last = taken;
        if (marks != nullptr && position == nextMark) {
            marks->add(taken, position);
            const bool more =
                marks->count < kMaxMarks && static_cast<std::int64_t>(nextMark) + spacing < total;
            nextMark = more ? nextMark + spacing : -1;
        }
        ++position;
        if (a == nullptr) {
            last->pNext = b;
            addRest(marks, aheadB, position);
            return Run{head, right.tail};
        }
        if (b == nullptr) {
            last->pNext = a;
            addRest(marks, aheadA, position);
            return Run{head, left.tail};
        }
        QUELWORKS_PREFETCH(a->pNext);
        QUELWORKS_PREFETCH(b->pNext);
    }
}

}  // namespace quelworks::detail

#undef QUELWORKS_PREFETCH

#endif  // QUELWORKS_UTIL_DETAIL_RLIST_SORT_H
