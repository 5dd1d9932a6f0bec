// The merge of neighbouring rectangles.
//
// The merge repeatedly takes the first mergeable pair (i, j) of the array, i ascending then j
// ascending, removes both and appends the merged rectangle. Done literally that is a fresh scan of
// all pairs per merge. Here the same pairs are found in the same order without rescanning:
//
// - Rectangles keep their array order by the order they were added in, so each gets an id that
//   grows with its position; removing rectangles never reorders the others.
// - Mergeability is symmetric, so the first pair always has i < j, and it is the pair (a, p(a))
//   for the smallest id a that has a partner, where p(a) is a's smallest mergeable id above a.
// - Candidates for a pair share an edge, so they are found through hash indexes keyed by
//   (y, height, left x), (y, height, right x), (x, width, bottom y) and (x, width, top y).
// - After a merge of (a, b) into m only two things change: rectangles whose partner was a or b
//   (they are candidates of a or b) look for a new one, and rectangles mergeable with m (its
//   candidates) may take m as partner when they had none (m has the largest id).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <queue>
#include <vector>

#include "geometry/polygon_internal.h"

namespace quelworks {
namespace detail {

bool TryMergeRectangles(const rectanglef& a, const rectanglef& b, rectanglef& merged) {
    const bool sideBySide =
        a.y == b.y && a.height == b.height && (b.x == a.x + a.width || b.x + b.width == a.x);
    const bool stacked =
        a.x == b.x && a.width == b.width && (b.y == a.y + a.height || b.y + b.height == a.y);
    if (!sideBySide && !stacked) return false;
    const float width = sideBySide ? a.width + b.width : a.width;
    const float height = stacked ? a.height + b.height : a.height;
    if (!(width < 255.0f && height < 255.0f)) return false;
    merged = rectanglef(std::min(a.x, b.x), std::min(a.y, b.y), width, height);
    return true;
}

namespace {

constexpr std::uint32_t kNone = UINT32_MAX;

// Three floats compared as float equality: -0 and +0 are one key, and a key holding NaN is never
// stored or looked up (NaN equals nothing).
struct EdgeKey {
    std::uint32_t kind;
    std::uint32_t v[3];
    bool operator==(const EdgeKey& o) const {
        return kind == o.kind && v[0] == o.v[0] && v[1] == o.v[1] && v[2] == o.v[2];
    }
};

struct EdgeKeyHash {
    std::size_t operator()(const EdgeKey& k) const {
        std::uint64_t h = 0x9E3779B97F4A7C15ull * (k.kind + 1);
        for (std::uint32_t x : k.v) {
            h ^= x;
            h *= 0xFF51AFD7ED558CCDull;
            h ^= h >> 32;
        }
        return static_cast<std::size_t>(h);
    }
};

bool makeKey(std::uint32_t kind, float a, float b, float c, EdgeKey& key) {
    if (std::isnan(a) || std::isnan(b) || std::isnan(c)) return false;
    const float values[3] = {a + 0.0f, b + 0.0f, c + 0.0f};  // -0 + 0 is +0
    key.kind = kind;
    for (int i = 0; i < 3; ++i) std::memcpy(&key.v[i], &values[i], sizeof(float));
    return true;
}

enum : std::uint32_t { kLeftEdge, kRightEdge, kBottomEdge, kTopEdge };

// Open-addressing table from edge keys to intrusive lists of rectangle ids: entry id * 4 + kind
// links a rectangle into the list of its key of that kind. Lists are unordered; dead ids are
// unlinked when a walk meets them.
class EdgeTable {
public:
    explicit EdgeTable(std::size_t expectedKeys) { resize(expectedKeys * 2 + 16); }

    void reserveIds(std::size_t ids) { next_.reserve(ids * 4); }

    // Links entry `entry` (id * 4 + kind) into the list of `key`.
    void link(const EdgeKey& key, std::uint32_t entry) {
        if (next_.size() <= entry) next_.resize(entry + 1, kNone);
        if ((used_ + 1) * 2 > slots_.size()) resize(slots_.size() * 2);
        Slot& slot = find(key);
        if (!slot.used) {
            slot.used = true;
            slot.key = key;
            slot.head = kNone;
            ++used_;
        }
        next_[entry] = slot.head;
        slot.head = entry;
    }

    // Calls visit(id) for every linked id of `key`, unlinking the ids for which dead(id) holds.
    template <typename Dead, typename Visit>
    void walk(const EdgeKey& key, Dead&& dead, Visit&& visit) {
        Slot& slot = find(key);
        if (!slot.used) return;
        std::uint32_t* link = &slot.head;
        while (*link != kNone) {
            const std::uint32_t entry = *link;
            const std::uint32_t id = entry >> 2;
            if (dead(id)) {
                *link = next_[entry];
                continue;
            }
            visit(id);
            link = &next_[entry];
        }
    }

private:
    struct Slot {
        EdgeKey key;
        std::uint32_t head = kNone;
        bool used = false;
    };

    Slot& find(const EdgeKey& key) {
        const std::size_t mask = slots_.size() - 1;
        std::size_t i = EdgeKeyHash()(key) & mask;
        while (slots_[i].used && !(slots_[i].key == key)) i = (i + 1) & mask;
        return slots_[i];
    }

    void resize(std::size_t atLeast) {
        std::size_t size = 16;
        while (size < atLeast) size *= 2;
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.assign(size, Slot());
        for (const Slot& s : old) {
            if (s.used) find(s.key) = s;
        }
    }

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
    std::vector<std::uint32_t> next_;
};

class Merger {
public:
    explicit Merger(std::vector<rectanglef>& rects)
        : rects_(rects), items_(rects), table_(rects.size() * 4) {
        const std::size_t n = rects.size();
        items_.reserve(2 * n);
        alive_.reserve(2 * n);
        partner_.reserve(2 * n);
        table_.reserveIds(2 * n);
        alive_.assign(n, 1);
        partner_.assign(n, kNone);
        for (std::uint32_t id = 0; id < n; ++id) insert(id);
    }

    void run() {
        const std::uint32_t n = static_cast<std::uint32_t>(items_.size());
        for (std::uint32_t id = 0; id < n; ++id) {
            partner_[id] = findPartner(id);
            if (partner_[id] != kNone) heap_.push(id);
        }
        std::vector<std::uint32_t> affected;
        while (true) {
            while (!heap_.empty() && (!alive_[heap_.top()] || partner_[heap_.top()] == kNone)) {
                heap_.pop();
            }
            if (heap_.empty()) break;
            const std::uint32_t a = heap_.top();
            heap_.pop();
            const std::uint32_t b = partner_[a];
            rectanglef merged;
            TryMergeRectangles(items_[a], items_[b], merged);
            alive_[a] = 0;
            alive_[b] = 0;
            const std::uint32_t m = static_cast<std::uint32_t>(items_.size());
            items_.push_back(merged);
            alive_.push_back(1);
            partner_.push_back(kNone);
            insert(m);

            affected.clear();
            candidates(a, affected);
            candidates(b, affected);
            for (std::uint32_t c : affected) {
                if (partner_[c] != a && partner_[c] != b) continue;
                partner_[c] = findPartner(c);
                if (partner_[c] != kNone) heap_.push(c);
            }
            affected.clear();
            candidates(m, affected);
            rectanglef unused;
            for (std::uint32_t c : affected) {
                if (c == m || partner_[c] != kNone) continue;
                if (!TryMergeRectangles(items_[c], items_[m], unused)) continue;
                partner_[c] = m;
                heap_.push(c);
            }
        }
        rects_.clear();
        for (std::uint32_t id = 0; id < items_.size(); ++id) {
            if (alive_[id]) rects_.push_back(items_[id]);
        }
    }

private:
    void insert(std::uint32_t id) {
        const rectanglef& r = items_[id];
        EdgeKey key;
        if (makeKey(kLeftEdge, r.y, r.height, r.x, key)) table_.link(key, id * 4 + 0);
        if (makeKey(kRightEdge, r.y, r.height, r.x + r.width, key)) table_.link(key, id * 4 + 1);
        if (makeKey(kBottomEdge, r.x, r.width, r.y, key)) table_.link(key, id * 4 + 2);
        if (makeKey(kTopEdge, r.x, r.width, r.y + r.height, key)) table_.link(key, id * 4 + 3);
    }

    // Every live rectangle that may be mergeable with `id` (a superset: callers check).
    void candidates(std::uint32_t id, std::vector<std::uint32_t>& out) {
        const rectanglef r = items_[id];
        EdgeKey key;
        auto dead = [&](std::uint32_t c) { return !alive_[c]; };
        auto add = [&](std::uint32_t c) { out.push_back(c); };
        // Its right edge against others' left edges, its left edge against others' right edges,
        // and the same for top and bottom.
        if (makeKey(kLeftEdge, r.y, r.height, r.x + r.width, key)) table_.walk(key, dead, add);
        if (makeKey(kRightEdge, r.y, r.height, r.x, key)) table_.walk(key, dead, add);
        if (makeKey(kBottomEdge, r.x, r.width, r.y + r.height, key)) table_.walk(key, dead, add);
        if (makeKey(kTopEdge, r.x, r.width, r.y, key)) table_.walk(key, dead, add);
    }

    std::uint32_t findPartner(std::uint32_t id) {
        scratch_.clear();
        candidates(id, scratch_);
        std::uint32_t best = kNone;
        rectanglef unused;
        for (std::uint32_t c : scratch_) {
            if (c <= id || c >= best) continue;
            if (TryMergeRectangles(items_[id], items_[c], unused)) best = c;
        }
        return best;
    }

    std::vector<rectanglef>& rects_;
    std::vector<rectanglef> items_;
    std::vector<std::uint8_t> alive_;
    std::vector<std::uint32_t> partner_;
    EdgeTable table_;
    std::priority_queue<std::uint32_t, std::vector<std::uint32_t>, std::greater<std::uint32_t>>
        heap_;
    std::vector<std::uint32_t> scratch_;
};

}  // namespace

void MergeRectangles(std::vector<rectanglef>& rects) {
    if (rects.size() < 2) return;
    Merger merger(rects);
    merger.run();
}

}  // namespace detail
}  // namespace quelworks
