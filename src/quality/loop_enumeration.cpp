// Finding the closure loops of a list by the dates of its entries.
//
// The rule walks every pair i < j of the list and, for a pair spanning at
// most three dates, searches forward from j + 1 for the first entry whose
// two dates both lie among them: cubic in the list on a dense network. Here
// the entries are indexed by their (first, second) dates, each index list in
// increasing order, so the first k > j with both dates in a set is the
// least of the first index past j in the lists of the set's ordered date
// pairs (nine pairs at most, the reversed and the one-date ones included).
//
// Only pairs that share a date can span three dates or fewer, unless an
// entry joins a date to itself; so for each i the j are taken from the
// entries of i's two dates, merged in increasing order, and every j when a
// one-date entry is in the list. When no entry repeats a pair of dates
// (either way round) and none joins a date to itself, the only entries
// within the three dates {s, u, v} of two entries (s, u) and (s, v) other
// than those two are the entries of {u, v}: one lookup per pair.
//
// The loops, their order and the first error met are those of the rule
// itself (LoopEnumeration.MatchesTheRuleOnRandomLists compares the two).
#include "quality/loop_enumeration.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <unordered_map>
#include <utility>

namespace quality {
namespace {

lib::Error loop_format_error()
{
    return lib::error(lib::Fault::format, "", lib::Stream::out, "file format error, cannot form loop closure");
}

struct PairHash {
    size_t operator()(const std::pair<int64_t, int64_t>& key) const
    {
        uint64_t h = static_cast<uint64_t>(key.first) * 0x9e3779b97f4a7c15ULL;
        h ^= static_cast<uint64_t>(key.second) + 0x7f4a7c159e3779b9ULL + (h << 6) + (h >> 2);
        return static_cast<size_t>(h * 0xff51afd7ed558ccdULL);
    }
};

using PairIndex = std::unordered_map<std::pair<int64_t, int64_t>, std::vector<int64_t>, PairHash>;

// The first index past j among the entries written (x, y); n when none.
int64_t first_after(const PairIndex& index, int64_t x, int64_t y, int64_t j, int64_t n)
{
    const auto found = index.find({x, y});
    if (found == index.end()) return n;
    const std::vector<int64_t>& list = found->second;
    const auto at = std::upper_bound(list.begin(), list.end(), j);
    return at == list.end() ? n : *at;
}

}  // namespace

lib::Result<std::vector<LOOPORDER>> find_loops(const std::vector<int64_t>& first, const std::vector<int64_t>& second)
{
    const int64_t n = static_cast<int64_t>(first.size());
    // Dates numbered 0 .. D-1 in increasing order.
    std::vector<int64_t> calendar(first);
    calendar.insert(calendar.end(), second.begin(), second.end());
    std::sort(calendar.begin(), calendar.end());
    calendar.erase(std::unique(calendar.begin(), calendar.end()), calendar.end());
    const auto id = [&](int64_t date) {
        return std::lower_bound(calendar.begin(), calendar.end(), date) - calendar.begin();
    };
    const int64_t D = static_cast<int64_t>(calendar.size());
    std::vector<int64_t> fid(static_cast<size_t>(n)), sid(static_cast<size_t>(n));
    // Per date: the entries holding it, increasing; and its partner dates,
    // each with the entries joining the two (either way round).
    std::vector<std::vector<int64_t>> by_date(static_cast<size_t>(D));
    std::vector<std::vector<std::pair<int64_t, int64_t>>> partner_of(static_cast<size_t>(D));
    std::vector<std::vector<int64_t>> joining;  // per unordered pair of dates
    PairIndex ordered;                          // (first, second) -> entries, increasing
    bool one_date = false;
    bool repeated = false;
    for (int64_t k = 0; k < n; ++k) {
        const int64_t a = id(first[k]), b = id(second[k]);
        fid[k] = a;
        sid[k] = b;
        ordered[{first[k], second[k]}].push_back(k);
        by_date[a].push_back(k);
        if (b == a) {
            one_date = true;
            continue;
        }
        by_date[b].push_back(k);
        auto& partners = partner_of[a];
        auto known = std::find_if(partners.begin(), partners.end(), [&](const auto& e) { return e.first == b; });
        if (known != partners.end()) {
            repeated = true;
            joining[static_cast<size_t>(known->second)].push_back(k);
            continue;
        }
        partner_of[a].push_back({b, static_cast<int64_t>(joining.size())});
        partner_of[b].push_back({a, static_cast<int64_t>(joining.size())});
        joining.push_back({k});
    }
    for (auto& partners : partner_of) std::sort(partners.begin(), partners.end());
    const bool simple = !one_date && !repeated;
    // The first entry past j joining dates u and v (ids), n when none.
    const auto joined_after = [&](int64_t u, int64_t v, int64_t j) -> int64_t {
        if (partner_of[u].size() > partner_of[v].size()) std::swap(u, v);
        const auto& partners = partner_of[u];
        const auto at = std::lower_bound(partners.begin(), partners.end(), std::pair<int64_t, int64_t>{v, -1});
        if (at == partners.end() || at->first != v) return n;
        const std::vector<int64_t>& list = joining[static_cast<size_t>(at->second)];
        const auto next = std::upper_bound(list.begin(), list.end(), j);
        return next == list.end() ? n : *next;
    };

    std::vector<LOOPORDER> loops;
    std::vector<int64_t> partners;
    for (int64_t i = 0; i < n; ++i) {
        // The j > i that may span three dates or fewer with i, increasing.
        partners.clear();
        if (one_date) {
            for (int64_t j = i + 1; j < n; ++j) partners.push_back(j);
        } else {
            const std::vector<int64_t>& one = by_date[static_cast<size_t>(fid[i])];
            const std::vector<int64_t>& other = by_date[static_cast<size_t>(sid[i])];
            std::merge(std::upper_bound(one.begin(), one.end(), i), one.end(),
                       std::upper_bound(other.begin(), other.end(), i), other.end(), std::back_inserter(partners));
            partners.erase(std::unique(partners.begin(), partners.end()), partners.end());
        }
        for (const int64_t j : partners) {
            int64_t k = n;
            if (simple) {
                // i and j share exactly one date s; their other dates u, v.
                const int64_t s = fid[i] == fid[j] || fid[i] == sid[j] ? fid[i] : sid[i];
                const int64_t u = fid[i] == s ? sid[i] : fid[i];
                const int64_t v = fid[j] == s ? sid[j] : fid[j];
                k = joined_after(u, v, j);
                if (k == n) continue;
            }
            std::array<int64_t, 4> set = {first[i], second[i], first[j], second[j]};
            std::sort(set.begin(), set.end());
            const int64_t dates = std::unique(set.begin(), set.end()) - set.begin();
            if (dates > 3) continue;
            if (!simple)
                for (int64_t x = 0; x < dates; ++x)
                    for (int64_t y = 0; y < dates; ++y) k = std::min(k, first_after(ordered, set[x], set[y], j, n));
            if (k == n) continue;
            // Two dates only (a pair listed twice, or a one-date name) cannot
            // make a triangle: that is a broken list too.
            if (dates < 3) return loop_format_error();
            LOOPORDER loop{set[0], set[1], set[2], -1, -1, -1};
            for (const int64_t m : {i, j, k}) {
                if (first[m] == loop.date0 && second[m] == loop.date1) loop.ifg01 = m;
                if (first[m] == loop.date0 && second[m] == loop.date2) loop.ifg02 = m;
                if (first[m] == loop.date1 && second[m] == loop.date2) loop.ifg12 = m;
            }
            if (loop.ifg01 < 0 || loop.ifg02 < 0 || loop.ifg12 < 0) return loop_format_error();
            loops.push_back(loop);
        }
    }
    return loops;
}

}  // namespace quality
