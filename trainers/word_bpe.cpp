/*
** word_bpe.cpp -- tokenizer training over the words of a whole corpus (word_bpe.h).
**
** Pair counts live in one hash table; a max-heap of (count, pair) entries finds the most frequent
** pair, and entries whose count has changed since they were pushed are skipped when they come up
** (every change pushes a fresh entry). Each pair also lists the units it occurs in, so a merge
** rewrites only those units: it takes away the unit's pairs, merges, and adds the new ones back.
*/
#include "word_bpe.h"

#include <algorithm>
#include <queue>
#include <tuple>

namespace trn_train
{

namespace
{

constexpr uint32_t FIRST_MERGE_ID = 260;

enum class ByteClass { Letter, Digit, Space, Mark };

ByteClass class_of(unsigned char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c >= 0x80) {
        return ByteClass::Letter;
    }
    if (c >= '0' && c <= '9') {
        return ByteClass::Digit;
    }
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' ? ByteClass::Space : ByteClass::Mark;
}

uint64_t key_of(uint32_t left, uint32_t right)
{
    return (uint64_t)left << 32 | right;
}

struct Unit {
    std::vector<uint32_t> ids;
    int64_t count;
};

/* The heap's order: the larger count first, then the smaller key. */
struct Entry {
    int64_t count;
    uint64_t key;
    bool operator<(const Entry &o) const { return std::tie(count, o.key) < std::tie(o.count, key); }
};

class PairTable
{
public:
    void add(const Unit &u, uint32_t unit_no)
    {
        for (size_t j = 0; j + 1 < u.ids.size(); j++) {
            const uint64_t k = key_of(u.ids[j], u.ids[j + 1]);
            int64_t &c = count_[k];
            c += u.count;
            heap_.push(Entry{c, k});
            auto &where = where_[k];
            if (where.empty() || where.back() != unit_no) {
                where.push_back(unit_no);
            }
        }
    }

    void take(const Unit &u)
    {
        for (size_t j = 0; j + 1 < u.ids.size(); j++) {
            const uint64_t k = key_of(u.ids[j], u.ids[j + 1]);
            int64_t &c = count_[k];
            c -= u.count;
            heap_.push(Entry{c, k});
        }
    }

    /* The most frequent pair's key and count, or count 0 when none is left. */
    Entry best()
    {
        while (!heap_.empty()) {
            const Entry top = heap_.top();
            auto it = count_.find(top.key);
            if (it != count_.end() && it->second == top.count && top.count > 0) {
                return top;
            }
            heap_.pop();
        }
        return Entry{0, 0};
    }

    /* The units a pair was ever added from (some may no longer hold it); the list is handed over.
     */
    std::vector<uint32_t> take_units(uint64_t k)
    {
        std::vector<uint32_t> out;
        auto it = where_.find(k);
        if (it != where_.end()) {
            out.swap(it->second);
            where_.erase(it);
        }
        return out;
    }

private:
    std::unordered_map<uint64_t, int64_t> count_;
    std::unordered_map<uint64_t, std::vector<uint32_t>> where_;
    std::priority_queue<Entry> heap_;
};

/* Left to right, non-overlapping, as the engine's encoding does. */
bool merge_in(std::vector<uint32_t> *ids, uint32_t left, uint32_t right, uint32_t id)
{
    size_t w = 0;
    bool merged = false;
    for (size_t r = 0; r < ids->size(); r++) {
        if (r + 1 < ids->size() && (*ids)[r] == left && (*ids)[r + 1] == right) {
            (*ids)[w++] = id;
            r++;
            merged = true;
        } else {
            (*ids)[w++] = (*ids)[r];
        }
    }
    ids->resize(w);
    return merged;
}

} // namespace

void count_word_units(const char *text, size_t n, UnitCounts *counts)
{
    size_t i = 0;
    while (i < n) {
        const size_t start = i;
        size_t j = i;
        if (class_of((unsigned char)text[i]) == ByteClass::Space) {
            while (j < n && class_of((unsigned char)text[j]) == ByteClass::Space) {
                j++;
            }
            /* The last space before a word or a mark belongs to it, as it does in the middle
            ** of a line. */
            if (j < n && text[j - 1] == ' ' && j - 1 > i) {
                j--;
            }
            const bool starts_next = j == i + 1 && text[i] == ' ' && j < n
                                     && class_of((unsigned char)text[j]) != ByteClass::Space;
            if (!starts_next) {
                (*counts)[std::string(text + start, j - start)]++;
                i = j;
                continue;
            }
        }
        const ByteClass c = class_of((unsigned char)text[j]);
        while (j < n && class_of((unsigned char)text[j]) == c) {
            j++;
        }
        (*counts)[std::string(text + start, j - start)]++;
        i = j;
    }
}

std::vector<std::array<uint32_t, 2>> train_word_bpe(const UnitCounts &counts, int64_t min_count,
                                                    int32_t max_merges,
                                                    void (*progress)(int32_t done))
{
    std::vector<Unit> units;
    for (const auto &[text, count] : counts) {
        if (count >= min_count && text.size() > 1) {
            Unit u{std::vector<uint32_t>(text.begin(), text.end()), count};
            for (auto &id : u.ids) {
                id &= 0xff; /* the bytes of a char that may be signed */
            }
            units.push_back(std::move(u));
        }
    }
    /* The table's order decides nothing (ties are broken by the pair), but a fixed order keeps the
    ** heap's work the same from run to run. */
    std::sort(units.begin(), units.end(), [](const Unit &a, const Unit &b) {
        return a.ids < b.ids;
    });
    PairTable pairs;
    for (uint32_t u = 0; u < units.size(); u++) {
        pairs.add(units[u], u);
    }
    std::vector<std::array<uint32_t, 2>> merges;
    while ((int32_t)merges.size() < max_merges) {
        const Entry best = pairs.best();
        if (best.count < 2) {
            break;
        }
        const uint32_t left = (uint32_t)(best.key >> 32), right = (uint32_t)best.key;
        const uint32_t id = FIRST_MERGE_ID + (uint32_t)merges.size();
        merges.push_back({left, right});
        for (uint32_t u : pairs.take_units(best.key)) {
            Unit &unit = units[u];
            std::vector<uint32_t> before = unit.ids;
            if (!merge_in(&unit.ids, left, right, id)) {
                continue;
            }
            std::swap(before, unit.ids);
            pairs.take(unit);
            std::swap(before, unit.ids);
            pairs.add(unit, u);
        }
        if (progress && merges.size() % 1000 == 0) {
            progress((int32_t)merges.size());
        }
    }
    return merges;
}

} // namespace trn_train
