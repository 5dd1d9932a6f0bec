/// \file
/// RList: the library's singly linked list with a stable, relinking merge sort.
///
/// The list owns its nodes but never what pointer elements point to: freeing an RList<char*> leaves
/// the strings allocated (they belong to whoever filled the list).
#ifndef QUELWORKS_UTIL_RLIST_H
#define QUELWORKS_UTIL_RLIST_H

#include <cstdint>

#include "quelworks/export.h"
#include "quelworks/util/detail/rlist_sort.h"

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
