#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "quelworks/util/rlist.h"

namespace {

std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
}

std::vector<int> indexes(RList<SortObject>& list) {
    std::vector<int> out;
    for (Iter<SortObject> it = list.begin(); it != list.end(); ++it) out.push_back((*it).index);
    return out;
}

// Checks the list's links against its bookkeeping: count nodes, pRear is the last, its pNext null.
void expectConsistent(const RList<SortObject>& list) {
    int n = 0;
    const Node<SortObject>* last = nullptr;
    for (const Node<SortObject>* p = list.pFront; p != nullptr; p = p->pNext) {
        last = p;
        ++n;
        ASSERT_LE(n, list.count) << "more nodes than count (a cycle?)";
    }
    EXPECT_EQ(n, list.count);
    EXPECT_EQ(list.pRear, last);
}

// A comparator whose answers come from a script, recording every call. The answers need not be
// consistent (or even -1/0/1): the sort must still ask in exactly the same order as the reference
// below and end with the same order of elements.
struct Script {
    std::vector<std::int32_t> answers;
    std::size_t next = 0;
    std::vector<std::pair<int, int>> calls;
    bool useKeys = false;
};
Script* gScript = nullptr;

std::int32_t scripted(SortObject left, SortObject right) {
    Script& s = *gScript;
    s.calls.emplace_back(left.index, right.index);
    if (s.useKeys) {
        // Keyed, but with "greater" as an arbitrary non-zero value other than 1 now and then.
        const std::int32_t r = byDistance(left, right);
        return r == 1 ? (s.calls.size() % 3 == 0 ? 7 : 1) : r;
    }
    return s.answers[s.next++ % s.answers.size()];
}

// The merge sort written down plainly on a vector: split n - n/2 | n/2, sort left then right,
// merge taking from the left on -1 or (asked again) 0.
using Compare = std::int32_t (*)(SortObject, SortObject);

std::vector<SortObject> referenceMerge(const std::vector<SortObject>& a,
                                       const std::vector<SortObject>& b, Compare cmp) {
    std::vector<SortObject> out;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (cmp(a[i], b[j]) == -1) {
            out.push_back(a[i++]);
        } else if (cmp(a[i], b[j]) == 0) {
            out.push_back(a[i++]);
        } else {
            out.push_back(b[j++]);
        }
    }
    while (i < a.size()) out.push_back(a[i++]);
    while (j < b.size()) out.push_back(b[j++]);
    return out;
}

std::vector<SortObject> referenceSort(const std::vector<SortObject>& v, Compare cmp) {
    if (v.size() < 2) return v;
    const std::size_t first = v.size() - v.size() / 2;
    std::vector<SortObject> left(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(first));
    std::vector<SortObject> right(v.begin() + static_cast<std::ptrdiff_t>(first), v.end());
    left = referenceSort(left, cmp);
    right = referenceSort(right, cmp);
    return referenceMerge(left, right, cmp);
}

TEST(RListSort, StableAndRelinksRear) {
    RList<SortObject> list;
    const float keys[] = {3, 1, 2, 1, 0.5f};
    for (int i = 0; i < 5; ++i) list.push_back(SortObject{i, keys[i]});
    EXPECT_FALSE(list.sorted);
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_TRUE(list.sorted);
    EXPECT_EQ(indexes(list), (std::vector<int>{4, 1, 3, 2, 0}));
    EXPECT_EQ(list.pRear->data.index, 0);
    EXPECT_EQ(list.pRear->pNext, nullptr);
    EXPECT_EQ(list.length(), 5);
    expectConsistent(list);
    list.push_back(SortObject{9, 0});
    EXPECT_FALSE(list.sorted);
    EXPECT_EQ(list.pRear->data.index, 9);
}

TEST(RListSort, EmptyAndSingle) {
    RList<SortObject> list;
    list.sorted = false;
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_TRUE(list.sorted);
    EXPECT_EQ(list.pFront, nullptr);
    EXPECT_EQ(list.pRear, nullptr);
    list.push_back(SortObject{7, 1});
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_TRUE(list.sorted);
    EXPECT_EQ(list.pRear, list.pFront);
    EXPECT_EQ(list.pFront->pNext, nullptr);
}

// Same calls, same order, same result as the plain reference, for every length up to 70 and some
// longer lists, with keys full of duplicates and NaNs, and with comparators that answer
// arbitrarily (including values other than -1, 0 and 1).
TEST(RListSort, ComparatorCallsMatchReference) {
    std::mt19937 rng(20240601);
    std::vector<int> lengths;
    for (int n = 0; n <= 70; ++n) lengths.push_back(n);
    // Past 32768 nodes the long-list merge (with its walkers) takes over.
    for (int n : {127, 128, 129, 1000, 4097, 32767, 32768, 70001}) lengths.push_back(n);
    for (int mode = 0; mode < 2; ++mode) {
        for (int n : lengths) {
            std::vector<SortObject> items;
            for (int i = 0; i < n; ++i) {
                const unsigned r = rng() % 10;
                const float key = r == 0 ? std::nanf("") : static_cast<float>(rng() % 8);
                items.push_back(SortObject{i, key});
            }
            Script script;
            script.useKeys = mode == 0;
            for (int k = 0; k < 97; ++k) {
                const std::int32_t choices[] = {-1, 0, 1, 2, -7};
                script.answers.push_back(choices[rng() % 5]);
            }
            gScript = &script;
            const std::vector<SortObject> expected = referenceSort(items, scripted);
            const auto expectedCalls = script.calls;

            script.calls.clear();
            script.next = 0;
            RList<SortObject> list;
            for (const SortObject& s : items) list.push_back(s);
            list.msort(CompareStruct<SortObject>{scripted});
            gScript = nullptr;

            ASSERT_EQ(script.calls, expectedCalls) << "n=" << n << " mode=" << mode;
            std::vector<int> expectedOrder;
            for (const SortObject& s : expected) expectedOrder.push_back(s.index);
            ASSERT_EQ(indexes(list), expectedOrder) << "n=" << n << " mode=" << mode;
            expectConsistent(list);
            EXPECT_EQ(list.length(), n);
            EXPECT_TRUE(list.sorted);
        }
    }
}

// Long lists (where the merges fetch ahead through marks along the runs) in several shapes:
// random keys, few distinct keys, already sorted, reversed, and sorted runs glued together. The
// calls are checked through a running hash of their arguments; every node keeps its address and
// its element (no element moves, no node is allocated).
std::uint64_t gCallHash = 0;
std::uint64_t gCallCount = 0;

std::int32_t hashingByDistance(SortObject left, SortObject right) {
    gCallHash =
        (gCallHash ^ (static_cast<std::uint64_t>(static_cast<std::uint32_t>(left.index)) << 32 |
                      static_cast<std::uint32_t>(right.index))) *
        0x100000001B3ull;
    ++gCallCount;
    return byDistance(left, right);
}

TEST(RListSort, LongListsMatchReference) {
    const int n = 140001;
    std::mt19937 rng(77);
    for (int shape = 0; shape < 5; ++shape) {
        std::vector<SortObject> items;
        for (int i = 0; i < n; ++i) {
            float key = 0;
            switch (shape) {
                case 0:
                    key = static_cast<float>(rng() % 1000000);
                    break;
                case 1:
                    key = static_cast<float>(rng() % 4);
                    break;
                case 2:
                    key = static_cast<float>(i);
                    break;
                case 3:
                    key = static_cast<float>(n - i);
                    break;
                default:
                    key = static_cast<float>(i % 50000);
                    break;
            }
            items.push_back(SortObject{i, key});
        }
        gCallHash = 0;
        gCallCount = 0;
        const std::vector<SortObject> expected = referenceSort(items, hashingByDistance);
        const std::uint64_t expectedHash = gCallHash;
        const std::uint64_t expectedCount = gCallCount;

        gCallHash = 0;
        gCallCount = 0;
        RList<SortObject> list;
        for (const SortObject& s : items) list.push_back(s);
        // Each node with its element, before and after: the sort only relinks.
        std::set<std::pair<const Node<SortObject>*, int>> placed;
        for (const Node<SortObject>* p = list.pFront; p != nullptr; p = p->pNext) {
            placed.emplace(p, p->data.index);
        }
        list.msort(CompareStruct<SortObject>{hashingByDistance});
        for (const Node<SortObject>* p = list.pFront; p != nullptr; p = p->pNext) {
            ASSERT_EQ(placed.count({p, p->data.index}), 1u);
        }
        EXPECT_EQ(gCallCount, expectedCount) << "shape " << shape;
        EXPECT_EQ(gCallHash, expectedHash) << "shape " << shape;
        std::vector<int> expectedOrder;
        for (const SortObject& s : expected) expectedOrder.push_back(s.index);
        ASSERT_EQ(indexes(list), expectedOrder) << "shape " << shape;
        expectConsistent(list);
    }
}

TEST(RListCopy, CopiesElementsAndSortedFlag) {
    RList<SortObject> list;
    for (int i = 0; i < 4; ++i) list.push_back(SortObject{i, static_cast<float>(4 - i)});
    RList<SortObject> unsortedCopy(list);
    EXPECT_FALSE(unsortedCopy.sorted);
    list.msort(CompareStruct<SortObject>{byDistance});
    RList<SortObject> sortedCopy(list);
    EXPECT_TRUE(sortedCopy.sorted);
    EXPECT_EQ(indexes(sortedCopy), (std::vector<int>{3, 2, 1, 0}));
    EXPECT_NE(sortedCopy.pFront, list.pFront);  // its own nodes
    expectConsistent(sortedCopy);

    // Assignment copies too, so that both lists can be freed.
    RList<SortObject> assigned;
    assigned.push_back(SortObject{42, 0});
    assigned = unsortedCopy;
    EXPECT_EQ(indexes(assigned), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_FALSE(assigned.sorted);
    EXPECT_NE(assigned.pFront, unsortedCopy.pFront);
}

TEST(RListIndex, WalksFromTheFront) {
    RList<SortObject> list;
    list.push_back(SortObject{10, 0});
    list.push_back(SortObject{11, 0});
    list.push_back(SortObject{12, 0});
    EXPECT_EQ(list[0].index, 10);
    EXPECT_EQ(list[-4].index, 10);
    EXPECT_EQ(list[2].index, 12);
    list[1].index = 99;  // a reference into the node
    EXPECT_EQ(list.pFront->pNext->data.index, 99);
}

TEST(RListFree, LeavesPointedToStringsAndCanRefill) {
    char* a = static_cast<char*>(std::malloc(8));
    char* b = static_cast<char*>(std::malloc(8));
    std::strcpy(a, "COM1");
    std::strcpy(b, "COM2");
    {
        RList<char*> names;
        names.push_back(a);
        names.push_back(b);
        names.free();
        EXPECT_EQ(names.pFront, nullptr);
        EXPECT_EQ(names.pRear, nullptr);
        EXPECT_EQ(names.count, 0);
        EXPECT_TRUE(names.sorted);
        names.free();  // again: harmless
        names.push_back(b);
        EXPECT_EQ(names.begin().pNode, names.pRear);
        EXPECT_STREQ(*names.begin(), "COM2");
    }  // the destructor frees the node, not the string
    // Still allocated and intact (AddressSanitizer would report a use after free here).
    EXPECT_STREQ(a, "COM1");
    EXPECT_STREQ(b, "COM2");
    std::free(a);
    std::free(b);

    wchar_t w[] = L"COM3";
    RList<wchar_t*> wide;
    wide.push_back(w);
    wide.push_back(w);
    EXPECT_EQ(wide.length(), 2);
    int seen = 0;
    for (Iter<wchar_t*> it = wide.begin(); it != wide.end(); ++it) seen += (*it == w);
    EXPECT_EQ(seen, 2);
}

// The template is usable with element types beyond the exported four.
TEST(RListTemplate, WorksForOtherTypes) {
    RList<double> list;
    const double values[] = {2.5, -1, 2.5, 0};
    for (double v : values) list.push_back(v);
    list.msort(CompareStruct<double>{
        [](double l, double r) -> std::int32_t { return l < r ? -1 : (l == r ? 0 : 1); }});
    std::vector<double> out;
    for (Iter<double> it = list.begin(); it != list.end(); ++it) out.push_back(*it);
    EXPECT_EQ(out, (std::vector<double>{-1, 0, 2.5, 2.5}));
    EXPECT_EQ(list.pRear->data, 2.5);
    list.update_pRear();
    EXPECT_EQ(list.pRear->pNext, nullptr);
    Node<double>* first = list.pFront;
    list.set_pFront_pRear(first->pNext);  // the first node out of view
    EXPECT_EQ(list.pFront->data, 0);
    EXPECT_EQ(list.pRear->data, 2.5);
    EXPECT_EQ(list.count, 4);  // set_pFront_pRear leaves count alone
    list.pFront = first;       // back, so that free() releases it
}

}  // namespace
