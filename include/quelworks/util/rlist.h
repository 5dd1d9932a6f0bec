// RList: the library's singly linked list with a stable, relinking merge sort.
//
// The list owns its nodes but never what pointer elements point to: freeing an RList<char*> leaves
// the strings allocated (they belong to whoever filled the list).
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
struct Node {
    T data;
    Node<T>* pNext;
};

template <typename T>
class Iter {
public:
    Node<T>* pNode;

    Iter() : pNode(nullptr) {}
    explicit Iter(Node<T>* node) : pNode(node) {}

    T& operator*() const { return pNode->data; }
    T* operator->() const { return &pNode->data; }
    Iter& operator++() {
        pNode = pNode->pNext;
        return *this;
    }
    Iter operator++(int) {
        Iter old = *this;
        pNode = pNode->pNext;
        return old;
    }
    bool operator==(const Iter& other) const { return pNode == other.pNode; }
    bool operator!=(const Iter& other) const { return pNode != other.pNode; }
};

// A sort key for ranking the elements of another list: `index` is the element's position there.
struct SortObject {
    std::int32_t index;
    float distance;
};

// Three-way comparator: -1 when left comes before right, 0 when equal, anything else otherwise.
template <typename T>
struct CompareStruct {
    std::int32_t (*compare)(T left, T right);
};

template <typename T>
class RList {
public:
    Node<T>* pFront;
    Node<T>* pRear;
    std::int32_t count;
    // 1 after construction, free() and msort(); 0 after push_back(). The list never reads it.
    bool sorted;

    RList();
    RList(const RList& other);
    // Deep copy, so that assigning one list to another never shares (and double-frees) nodes.
    RList& operator=(const RList& other);
    ~RList();

    void push_back(T value);
    // Walks from the front on every call; i <= 0 gives the first element. No bounds check.
    T& operator[](int i);
    std::int32_t length() const;
    Iter<T> begin();
    Iter<T> end();
    void free();
    void msort(CompareStruct<T> cmp);
    void set_pFront_pRear(Node<T>* node);
    void update_pRear();

private:
    using CompareFn = std::int32_t (*)(T, T);

    void merge_sort(Node<T>*& head, int n, CompareStruct<T> cmp);
    Node<T>* merge(Node<T>* a, Node<T>* b, CompareStruct<T> cmp);

    // The sort proper. sortRun() sorts the next n nodes of the chain at `head` (n >= 1), leaves
    // `head` at the node after them and returns the sorted run with its last node. It splits and
    // merges exactly like merge_sort (first part n - n/2 nodes, left before right), so the
    // comparator sees the same calls in the same order, but it never walks a chain to find a
    // split point or the rear: runs are taken off the front as the recursion reaches them, and
    // every merge knows its last node.
    struct Run {
        Node<T>* head;
        Node<T>* tail;
    };
    static Run sortRun(Node<T>*& head, int n, CompareFn compare);
    static Run mergeRuns(Run a, Run b, CompareFn compare);
    // Takes the node of `a` when the comparator answers -1 or, asked a second time, 0.
    static bool takeLeft(const Node<T>* a, const Node<T>* b, CompareFn compare) {
        return compare(a->data, b->data) == -1 || compare(a->data, b->data) == 0;
    }
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
        const Run run = sortRun(rest, n, cmp.compare);
        pFront = run.head;
        pRear = run.tail;
        if (rest != nullptr) {
            // More nodes than `count` (a client edited the links): keep them, behind the run.
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
    const Run run = sortRun(rest, n, cmp.compare);
    run.tail->pNext = rest;  // nothing for an exact chain; keeps any further nodes reachable
    head = run.head;
}

template <typename T>
Node<T>* RList<T>::merge(Node<T>* a, Node<T>* b, CompareStruct<T> cmp) {
    if (a == nullptr) return b;
    if (b == nullptr) return a;
    Node<T>* head = nullptr;
    Node<T>** link = &head;
    while (a != nullptr && b != nullptr) {
        if (takeLeft(a, b, cmp.compare)) {
            *link = a;
            link = &a->pNext;
            a = a->pNext;
        } else {
            *link = b;
            link = &b->pNext;
            b = b->pNext;
        }
    }
    *link = (a != nullptr) ? a : b;
    return head;
}

template <typename T>
typename RList<T>::Run RList<T>::sortRun(Node<T>*& head, int n, CompareFn compare) {
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
    const Run left = sortRun(head, n - n / 2, compare);
    const Run right = sortRun(head, n / 2, compare);
    return mergeRuns(left, right, compare);
}

// The merge loop of the sort. Both runs are non-empty and null-terminated. A node's link is only
// written when the merge switches from one run to the other (within a stretch taken from one run
// the nodes are already linked), and the node after each run's head is prefetched as soon as that
// head is known, so that the two runs' cache misses overlap instead of queueing.
template <typename T>
typename RList<T>::Run RList<T>::mergeRuns(Run left, Run right, CompareFn compare) {
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
