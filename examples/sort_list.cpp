// Sorts a few distances with RList's stable merge sort and prints them with convertFloat.
#include <quelworks/quelworks.h>

#include <cstdio>

static std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
}

int main() {
    RList<SortObject> list;
    const float distances[] = {12.5f, 3.25f, 7.0f, 3.25f, 0.1f};
    for (int i = 0; i < 5; ++i) list.push_back(SortObject{i, distances[i]});
    list.msort(CompareStruct<SortObject>{byDistance});
    for (Iter<SortObject> it = list.begin(); it != list.end(); ++it) {
        std::printf("index %d  distance %s\n", (*it).index, convertFloat((*it).distance).c_str());
    }
    return 0;
}
