// The loops found by date-pair lookup against the rule they follow, walked
// literally: for each pair i < j spanning at most three dates, the first
// k > j with both dates among them.
#include "quality/loop_enumeration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <random>

namespace {

lib::Result<std::vector<LOOPORDER>> by_the_rule(const std::vector<int64_t>& first, const std::vector<int64_t>& second)
{
    const int64_t n = static_cast<int64_t>(first.size());
    std::vector<LOOPORDER> loops;
    for (int64_t i = 0; i < n; ++i)
        for (int64_t j = i + 1; j < n; ++j) {
            std::array<int64_t, 4> set = {first[i], second[i], first[j], second[j]};
            std::sort(set.begin(), set.end());
            const int64_t dates = std::unique(set.begin(), set.end()) - set.begin();
            if (dates > 3) continue;
            const auto in = [&](int64_t d) { return std::find(set.begin(), set.begin() + dates, d) != set.begin() + dates; };
            int64_t k = j + 1;
            while (k < n && !(in(first[k]) && in(second[k]))) ++k;
            if (k == n) continue;
            const lib::Error broken = lib::error(lib::Fault::format, "", lib::Stream::out, "broken");
            if (dates < 3) return broken;
            LOOPORDER loop{set[0], set[1], set[2], -1, -1, -1};
            for (const int64_t m : {i, j, k}) {
                if (first[m] == loop.date0 && second[m] == loop.date1) loop.ifg01 = m;
                if (first[m] == loop.date0 && second[m] == loop.date2) loop.ifg02 = m;
                if (first[m] == loop.date1 && second[m] == loop.date2) loop.ifg12 = m;
            }
            if (loop.ifg01 < 0 || loop.ifg02 < 0 || loop.ifg12 < 0) return broken;
            loops.push_back(loop);
        }
    return loops;
}

void expect_same(const std::vector<int64_t>& first, const std::vector<int64_t>& second)
{
    auto expected = by_the_rule(first, second);
    auto found = quality::find_loops(first, second);
    ASSERT_EQ(expected.ok(), found.ok());
    if (!found.ok()) {
        EXPECT_EQ(found.error().message, "file format error, cannot form loop closure");
        return;
    }
    ASSERT_EQ(expected->size(), found->size());
    for (size_t l = 0; l < found->size(); ++l) {
        const LOOPORDER& a = (*expected)[l];
        const LOOPORDER& b = (*found)[l];
        EXPECT_EQ(std::tie(a.date0, a.date1, a.date2, a.ifg01, a.ifg02, a.ifg12),
                  std::tie(b.date0, b.date1, b.date2, b.ifg01, b.ifg02, b.ifg12))
            << "loop " << l;
    }
}

TEST(LoopEnumeration, MatchesTheRuleOnRandomLists)
{
    std::mt19937_64 random(7);
    int broken = 0, looped = 0;
    for (int trial = 0; trial < 600; ++trial) {
        const int dates = 3 + static_cast<int>(random() % 12);
        const int n = 1 + static_cast<int>(random() % 40);
        const int mode = trial % 4;  // 0 clean, 1 reversed, 2 repeated, 3 one-date and all
        std::vector<int64_t> first, second;
        for (int k = 0; k < n; ++k) {
            int64_t a = static_cast<int64_t>(random() % dates), b = static_cast<int64_t>(random() % dates);
            if (mode == 0 || mode == 2) {
                if (a == b) b = (b + 1) % dates;
                if (a > b) std::swap(a, b);
            }
            if (mode == 1 && a == b) b = (b + 1) % dates;
            if (mode == 2 && k > 0 && random() % 5 == 0) {
                const size_t pick = static_cast<size_t>(random() % k);
                a = first[pick] - 20200000;
                b = second[pick] - 20200000;
            }
            first.push_back(20200000 + a);
            second.push_back(20200000 + b);
        }
        expect_same(first, second);
        auto found = quality::find_loops(first, second);
        broken += !found.ok();
        looped += found.ok() && !found->empty();
    }
    // Both outcomes were met often enough to mean something.
    EXPECT_GT(broken, 50);
    EXPECT_GT(looped, 5);
}

TEST(LoopEnumeration, DenseNetworksMatchAndSingleReferenceIsFast)
{
    // Every pair of 30 dates, earlier date first, in a shuffled order.
    std::vector<int64_t> first, second;
    for (int64_t a = 0; a < 30; ++a)
        for (int64_t b = a + 1; b < 30; ++b) {
            first.push_back(20200101 + a);
            second.push_back(20200101 + b);
        }
    std::mt19937_64 random(3);
    for (size_t k = first.size(); k > 1; --k) {
        const size_t pick = static_cast<size_t>(random() % k);
        std::swap(first[k - 1], first[pick]);
        std::swap(second[k - 1], second[pick]);
    }
    expect_same(first, second);

    // 6,000 interferograms from one reference date, then a few links.
    first.assign(6000, 100000000);
    second.clear();
    for (int64_t d = 1; d <= 6000; ++d) second.push_back(100000000 + d);
    for (int64_t d = 1; d < 6000; d += 500) first.push_back(100000000 + d), second.push_back(100000000 + d + 1);
    const auto start = std::chrono::steady_clock::now();
    auto found = quality::find_loops(first, second);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(found.ok());
    EXPECT_EQ(found->size(), 12u);
    // A bound with a wide margin (the rule walked literally takes minutes),
    // not a benchmark; the sanitizers slow everything by an unknown factor.
#ifndef SBAS_SANITIZED
    EXPECT_LT(seconds, 5.0);
#else
    static_cast<void>(seconds);
#endif
}

}  // namespace
