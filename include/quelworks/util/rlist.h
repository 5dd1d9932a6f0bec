/// \file
/// RList: the library's singly linked list with a stable, relinking merge sort.
///
/// The list owns its nodes but never what pointer elements point to: freeing an RList<char*> leaves
/// the strings allocated (they belong to whoever filled the list).
#ifndef QUELWORKS_UTIL_RLIST_H
#define QUELWORKS_UTIL_RLIST_H

#include <cstdint>

#include "quelworks/export.h"

// A hint to start loading the memory at p; it never faults, whatever p is.
#if defined(__GNUC__) || defined(__clang__)
#define QUELWORKS_PREFETCH(p) __builtin_prefetch(p)
#else
#define QUELWORKS_PREFETCH(p) ((void)0)
#endif

template <typename T>
/// One element of an RList and the link to the next (null at the rear).
struct Node {
    T data;          ///< the element
    Node<T>* pNext;  ///< the next node, or null
};

template <typename T>
/// Forward iterator over an RList's nodes; end() is the null node.
class Iter {
public:
    Node<T>* pNode;  ///< the current node (null at the end)

    /// The end iterator.
    Iter() : pNode(nullptr) {}
    /// An iterator at node.
    explicit Iter(Node<T>* node) : pNode(node) {}

    /// The current element.
    T& operator*() const { return pNode->data; }
    /// The current element's address.
    T* operator->() const { return &pNode->data; }
    /// Steps to the next node.
    Iter& operator++() {
        pNode = pNode->pNext;
        return *this;
    }
    /// Steps to the next node and returns the old position.
    Iter operator++(int) {
        Iter old = *this;
        pNode = pNode->pNext;
        return old;
    }
    /// Whether both are at the same node.
    bool operator==(const Iter& other) const { return pNode == other.pNode; }
    /// Whether they are at different nodes.
    bool operator!=(const Iter& other) const { return pNode != other.pNode; }
};

/// A sort key for ranking the elements of another list: `index` is the element's position there.
struct SortObject {
    std::int32_t index;  ///< the element's position in the other list
    float distance;      ///< the key to sort by
};

/// Three-way comparator: -1 when left comes before right, 0 when equal, anything else otherwise.
template <typename T>
struct CompareStruct {
    std::int32_t (*compare)(T left, T right);  ///< the comparator
};

namespace quelworks::detail {

/// The merge sort behind RList::msort and RList::merge_sort.
///
/// It splits and merges exactly as the plain recursive merge sort does (first part n - n/2 nodes,
/// the first part sorted before the second, equal elements taken from the first part, the
/// comparator asked a second time when its first answer is not -1), so a comparator sees the same
/// calls in the same order. It is faster in three ways:
///  - runs are taken off the front of the chain as the recursion reaches them, so no chain is ever
///    walked to find a split point, and every merge knows its last node, so neither is the result
///    walked to find the rear;
///  - the merge of short runs links a node only when it switches from one run to the other (within
///    a stretch taken from one run the nodes are linked already); every merge prefetches each
///    run's next node as soon as its head is known;
///  - beyond the caches, where each step would wait for a node to come from memory, the merge
///    fetches ahead: every run of at least kLongRun nodes comes with marks, nodes at known
///    positions along it, and while two such runs are merged a set of walkers steps through the
///    stretches just ahead of the merge, from mark to mark, prefetching each node one step before
///    reading its link. The walkers only read links, so nothing changes but the speed.
/// Nothing is allocated: the marks live on the stack (12 KB for each level of long runs, so about
/// 70 KB for a million nodes).
template <typename T>
class ListSort {
public:
    using CompareFn = std::int32_t (*)(T, T);

    struct Run {
        Node<T>* head;
        Node<T>* tail;
    };

    /// Sorts the next n nodes (n >= 1) of the chain at `head`, leaves `head` at the node after
    /// them and returns the sorted, null-terminated run.
    static Run sort(Node<T>*& head, int n, CompareFn compare) {
        return n >= 2 * kLongRun ? sortLong(head, n, compare, nullptr)
                                 : sortShort(head, n, compare);
    }

    /// Merges two non-empty, null-terminated sorted runs.
    static Run merge(Run left, Run right, CompareFn compare);

    /// Takes the node of `a` when the comparator answers -1 or, asked a second time, 0.
    static bool takeLeft(const Node<T>* a, const Node<T>* b, CompareFn compare) {
        return compare(a->data, b->data) == -1 || compare(a->data, b->data) == 0;
    }

private:
    static constexpr int kLongRun = 1 << 14;  // runs from here on carry marks
    static constexpr int kMaxMarks = 512;     // per run
    static constexpr int kMinSpacing = 128;   // nodes between marks, at least
    static constexpr int kWalkers = 12;       // per run being merged

    /// Nodes of a run at known positions (ascending, the first at 0).
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

    /// One run being merged: how much of it the merge has taken, and the walkers ahead of that.
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

        /// One step of walker w: read the link of the node prefetched on its last step and
        /// prefetch the node it leads to; an idle walker takes the next stretch, as long as that is
        /// at most kWalkers stretches ahead of the merge.
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

    /// Like sortShort, for n >= kLongRun; fills `marks` for the result when asked.
    static Run sortLong(Node<T>*& head, int n, CompareFn compare, Marks* marks) {
        if (n < 2 * kLongRun) {
            const Run run = sortShort(head, n, compare);
            if (marks != nullptr) {
                /// Walk the run while it is still in the cache.
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

    /// Marks for the rest of a run that the merge appends whole: the run's own marks past what
    /// the merge took, moved to the output's positions.
    static void addRest(Marks* out, const Ahead& side, int outPosition) {
        if (out == nullptr) return;
        for (int m = 0; m < side.marks->count; ++m) {
            const int at = side.marks->position[m];
            if (at >= side.taken) out->add(side.marks->node[m], outPosition + (at - side.taken));
        }
    }
};

template <typename T>
typename ListSort<T>::Run ListSort<T>::merge(Run left, Run right, CompareFn compare) {
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

template <typename T>
typename ListSort<T>::Run ListSort<T>::mergeLong(Run left, const Marks& leftMarks, int leftLength,
                                                 Run right, const Marks& rightMarks,
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

template <typename T>
/// A singly linked list owning its nodes (not what pointer elements point to), with a stable
/// merge sort. Its fields are public and may be relinked by the caller.
class RList {
public:
    Node<T>* pFront;     ///< the first node, or null
    Node<T>* pRear;      ///< the last node, or null
    std::int32_t count;  ///< the number of nodes
    /// 1 after construction, free() and msort(); 0 after push_back(). The list never reads it.
    bool sorted;

    /// An empty list.
    RList();
    /// A deep copy: new nodes holding the same elements.
    RList(const RList& other);
    /// Deep copy, so that assigning one list to another never shares (and double-frees) nodes.
    RList& operator=(const RList& other);
    /// Frees the nodes (not what pointer elements point to).
    ~RList();

    /// Appends value at the rear.
    void push_back(T value);
    /// Walks from the front on every call; i <= 0 gives the first element. No bounds check.
    T& operator[](int i);
    /// The number of elements (count).
    std::int32_t length() const;
    /// An iterator at the first element.
    Iter<T> begin();
    /// The end iterator.
    Iter<T> end();
    /// Frees every node and empties the list; pointer elements' targets stay allocated.
    void free();
    void msort(CompareStruct<T> cmp);
    /// Makes node the front and walks from it to set the rear (count is not changed).
    void set_pFront_pRear(Node<T>* node);
    /// Walks from the front to set the rear (count is not changed).
    void update_pRear();

private:
    void merge_sort(Node<T>*& head, int n, CompareStruct<T> cmp);
    Node<T>* merge(Node<T>* a, Node<T>* b, CompareStruct<T> cmp);
};

template <typename T>
RList<T>::RList() : pFront(nullptr), pRear(nullptr), count(0), sorted(true) {}

template <typename T>
RList<T>::RList(const RList& other) : pFront(nullptr), pRear(nullptr), count(0), sorted(true) {
    for (Node<T>* n = other.pFront; n != nullptr; n = n->pNext) push_back(n->data);
    sorted = other.sorted;
}

template <typename T>
RList<T>& RList<T>::operator=(const RList& other) {
    if (this != &other) {
        RList copy(other);
        free();
        pFront = copy.pFront;
        pRear = copy.pRear;
        count = copy.count;
        sorted = copy.sorted;
        copy.pFront = copy.pRear = nullptr;
        copy.count = 0;
    }
    return *this;
}

template <typename T>
RList<T>::~RList() {
    free();
}

template <typename T>
void RList<T>::push_back(T value) {
    Node<T>* node = new Node<T>{value, nullptr};
    if (pFront == nullptr) {
        pFront = node;
    } else {
        pRear->pNext = node;
    }
    ++count;
    pRear = node;
    sorted = false;
}

template <typename T>
T& RList<T>::operator[](int i) {
    Node<T>* n = pFront;
    for (int k = 0; k < i; ++k) n = n->pNext;
    return n->data;
}

template <typename T>
std::int32_t RList<T>::length() const {
    return count;
}

template <typename T>
Iter<T> RList<T>::begin() {
    return Iter<T>(pFront);
}

template <typename T>
Iter<T> RList<T>::end() {
    return Iter<T>(nullptr);
}

template <typename T>
void RList<T>::free() {
    Node<T>* n = pFront;
    while (n != nullptr) {
        Node<T>* next = n->pNext;
        delete n;
        n = next;
    }
    pFront = pRear = nullptr;
    count = 0;
    sorted = true;
}

template <typename T>
void RList<T>::msort(CompareStruct<T> cmp) {
    const int n = count;
    if (n >= 2) {
        Node<T>* rest = pFront;
        const auto run = quelworks::detail::ListSort<T>::sort(rest, n, cmp.compare);
        pFront = run.head;
        pRear = run.tail;
        if (rest != nullptr) {
            /// More nodes than `count` (a client edited the links): keep them, behind the run.
            run.tail->pNext = rest;
            update_pRear();
        }
    } else {
        set_pFront_pRear(pFront);
    }
    sorted = true;
}

template <typename T>
void RList<T>::merge_sort(Node<T>*& head, int n, CompareStruct<T> cmp) {
    if (n < 2) return;
    Node<T>* rest = head;
    const auto run = quelworks::detail::ListSort<T>::sort(rest, n, cmp.compare);
    run.tail->pNext = rest;  // nothing for an exact chain; keeps any further nodes reachable
    head = run.head;
}

template <typename T>
Node<T>* RList<T>::merge(Node<T>* a, Node<T>* b, CompareStruct<T> cmp) {
    if (a == nullptr) return b;
    if (b == nullptr) return a;
    using Sort = quelworks::detail::ListSort<T>;
    return Sort::merge(typename Sort::Run{a, nullptr}, typename Sort::Run{b, nullptr}, cmp.compare)
        .head;
}

template <typename T>
void RList<T>::set_pFront_pRear(Node<T>* node) {
    pFront = node;
    pRear = node;
    if (node != nullptr) {
        while (pRear->pNext != nullptr) pRear = pRear->pNext;
    }
}

template <typename T>
void RList<T>::update_pRear() {
    set_pFront_pRear(pFront);
}

QUELWORKS_EXTERN_TEMPLATE RList<char*>;
QUELWORKS_EXTERN_TEMPLATE RList<wchar_t*>;
QUELWORKS_EXTERN_TEMPLATE RList<SortObject>;

#endif  // QUELWORKS_UTIL_RLIST_H
