#include <gtest/gtest.h>

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
}

TEST(RListSort, EmptyAndSingle) {
    RList<SortObject> list;
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_EQ(list.pFront, nullptr);
    EXPECT_EQ(list.pRear, nullptr);
    list.push_back(SortObject{7, 1});
    list.msort(CompareStruct<SortObject>{byDistance});
    EXPECT_TRUE(list.sorted);
    EXPECT_EQ(list.pRear, list.pFront);
}

TEST(RListIndex, NonPositiveIndexGivesFirst) {
    RList<SortObject> list;
    list.push_back(SortObject{10, 0});
    list.push_back(SortObject{11, 0});
    EXPECT_EQ(list[0].index, 10);
    EXPECT_EQ(list[-4].index, 10);
    EXPECT_EQ(list[1].index, 11);
}

}  // namespace
