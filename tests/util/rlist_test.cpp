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
    return left.distance < right.distance ? -1 : (left.distance == right.distance ? 0 : 1);
}

// The elements' indexes in list order; checks that count and pRear agree with the links.
std::vector<int> indexes(const RList<SortObject>& list) {
    std::vector<int> out;
    const Node<SortObject>* last = nullptr;
    for (const Node<SortObject>* p = list.pFront;
         p != nullptr && out.size() <= static_cast<std::size_t>(list.count); p = p->pNext) {
        out.push_back(p->data.index);
        last = p;
    }
    EXPECT_EQ(static_cast<int>(out.size()), list.count);
    EXPECT_EQ(list.pRear, last);
    return out;
}

// Every comparator call, hashed in order. Keyed, it answers by distance (with 7 instead of 1 now
// and then); scripted, it answers from a fixed list whatever the elements are.
struct Calls {
    std::uint64_t hash = 0;
    std::uint64_t count = 0;
    const std::vector<std::int32_t>* script = nullptr;
};
Calls gCalls;

std::int32_t recorded(SortObject left, SortObject right) {
    const std::uint64_t args = (std::uint64_t{static_cast<std::uint32_t>(left.index)} << 32) |
                               static_cast<std::uint32_t>(right.index);
    gCalls.hash = (gCalls.hash ^ args) * 0x100000001B3ull;
    ++gCalls.count;
    if (gCalls.script != nullptr) return (*gCalls.script)[gCalls.count % gCalls.script->size()];
    const std::int32_t r = byDistance(left, right);
    return r == 1 && gCalls.count % 3 == 0 ? 7 : r;
}

// The merge sort written plainly on a vector: the first part has n - n/2 elements and is sorted
// first; the merge takes the left element on -1 or, asked a second time, 0.
std::vector<SortObject> referenceSort(const std::vector<SortObject>& v) {
    if (v.size() < 2) return v;
    const auto middle = v.begin() + static_cast<std::ptrdiff_t>(v.size() - v.size() / 2);
    const std::vector<SortObject> a = referenceSort({v.begin(), middle});
    const std::vector<SortObject> b = referenceSort({middle, v.end()});
    std::vector<SortObject> out;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (recorded(a[i], b[j]) == -1 || recorded(a[i], b[j]) == 0) {
            out.push_back(a[i++]);
        } else {
            out.push_back(b[j++]);
        }
    }
    out.insert(out.end(), a.begin() + static_cast<std::ptrdiff_t>(i), a.end());
    out.insert(out.end(), b.begin() + static_cast<std::ptrdiff_t>(j), b.end());
    return out;
}

TEST(RListSort, StableAndRelinksRear) {
    RList<SortObject> list;
    const float keys[] = {3, 1, 2, 1, 0.5f};
    for (int i = 0; i < 5; ++i) list.push_back(SortObject{i, keys[i]});
    EXPECT_FALSE(list.sorted);
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_TRUE(list.sorted);
    EXPECT_EQ(indexes(list), (std::vector<int>{4, 1, 3, 2, 0}));
    list.push_back(SortObject{9, 0});
    EXPECT_FALSE(list.sorted);
    EXPECT_EQ(indexes(list), (std::vector<int>{4, 1, 3, 2, 0, 9}));
}

// The same calls in the same order and the same result as the reference, for every length up to
// 70 and long lists (from 32768 nodes on the long-run merge takes over; sorted runs glued together
// make either run end first there), with duplicate and NaN keys and with answers that are not even
// consistent. The sort only relinks: every node keeps its element.
TEST(RListSort, SameCallsAndOrderAsTheReference) {
    std::mt19937 rng(20240601);
    std::vector<std::int32_t> script;
    const std::int32_t choices[] = {-1, 0, 1, 2, -7};
    for (int k = 0; k < 97; ++k) script.push_back(choices[rng() % 5]);
    std::vector<int> lengths;
    for (int n = 0; n <= 70; ++n) lengths.push_back(n);
    for (int n : {1000, 32767, 32768, 70001, 140001}) lengths.push_back(n);
    const std::vector<std::int32_t>* modes[] = {&script, nullptr};
    for (const std::vector<std::int32_t>* answers : modes) {
        for (int n : lengths) {
            std::vector<SortObject> items;
            for (int i = 0; i < n; ++i) {
                float key = rng() % 10 == 0 ? std::nanf("") : static_cast<float>(rng() % 8);
                if (n > 70000) key = static_cast<float>(i % 50000);  // sorted runs glued together
                items.push_back(SortObject{i, key});
            }
            gCalls = Calls{0, 0, answers};
            std::vector<int> expected;
            for (const SortObject& s : referenceSort(items)) expected.push_back(s.index);
            const Calls reference = gCalls;

            RList<SortObject> list;
            for (const SortObject& s : items) list.push_back(s);
            std::set<std::pair<const Node<SortObject>*, int>> placed;
            for (const Node<SortObject>* p = list.pFront; p != nullptr; p = p->pNext)
                placed.emplace(p, p->data.index);
            gCalls = Calls{0, 0, answers};
            list.msort(CompareStruct<SortObject>{recorded});
            ASSERT_EQ(gCalls.count, reference.count) << "n=" << n;
            ASSERT_EQ(gCalls.hash, reference.hash);
            ASSERT_EQ(indexes(list), expected) << "n=" << n;
            for (const Node<SortObject>* p = list.pFront; p != nullptr; p = p->pNext)
                ASSERT_EQ(placed.count({p, p->data.index}), 1u);
            EXPECT_TRUE(list.sorted);
        }
    }
}

TEST(RList, CopiesAreDeepAndKeepTheSortedFlag) {
    RList<SortObject> list;
    for (int i = 0; i < 4; ++i) list.push_back(SortObject{i, static_cast<float>(4 - i)});
    RList<SortObject> unsortedCopy(list);
    list.msort(CompareStruct<SortObject>{byDistance});
    RList<SortObject> sortedCopy(list);
    EXPECT_FALSE(unsortedCopy.sorted);
    EXPECT_TRUE(sortedCopy.sorted);
    EXPECT_EQ(indexes(sortedCopy), (std::vector<int>{3, 2, 1, 0}));
    RList<SortObject> assigned;
    assigned.push_back(SortObject{42, 0});
    assigned = unsortedCopy;
    EXPECT_EQ(indexes(assigned), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_NE(assigned.pFront, unsortedCopy.pFront);
    // Indexing walks from the front; a negative index gives the first element.
    EXPECT_EQ(assigned[-4].index, 0);
    EXPECT_EQ(&assigned[2], &assigned.pFront->pNext->pNext->data);
}

// Freeing a list of pointers leaves what they point to; the list can be filled again.
TEST(RList, FreeLeavesPointedToStrings) {
    char* name = static_cast<char*>(std::malloc(8));
    std::strcpy(name, "COM1");
    {
        RList<char*> names;
        names.push_back(name);
        names.free();
        EXPECT_EQ(names.pRear, nullptr);
        EXPECT_EQ(names.count, 0);
        EXPECT_TRUE(names.sorted);
        names.push_back(name);
        EXPECT_EQ(names.begin().pNode, names.pRear);
    }
    EXPECT_STREQ(name, "COM1");  // AddressSanitizer reports a use after free here
    std::free(name);
}

}  // namespace
