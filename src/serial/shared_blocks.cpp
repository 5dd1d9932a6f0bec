#include "serial/shared_blocks.h"

#include <cstdlib>
#include <mutex>
#include <unordered_map>

namespace quelworks::detail {
namespace {

struct Registry {
    std::mutex lock;
    std::unordered_map<void*, long> holders;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: links may be released during exit
    return *r;
}

}  // namespace

void adoptBlock(void* block) {
    if (block == nullptr) return;
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.lock);
    r.holders[block] = 1;
}

void retainBlock(void* block) {
    if (block == nullptr) return;
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.holders.find(block);
    if (it != r.holders.end()) ++it->second;
}

void releaseBlock(void* block) {
    if (block == nullptr) return;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> guard(r.lock);
        auto it = r.holders.find(block);
        if (it == r.holders.end()) return;
        if (--it->second > 0) return;
        r.holders.erase(it);
    }
    std::free(block);
}

}  // namespace quelworks::detail
