// Loading a batch of the stack: referencing, masking, counting, dropping
// sparsely observed pixels, and the size check.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "config/cfg.h"
#include "catalogue/stack.h"
#include "numerics/arrays.h"
#include "support/tiny_job.h"

namespace {

using testing_support::TinyJob;

// Ten interferograms of a 4 x 1 grid. Pixel 0 is valid everywhere, pixel 1
// in 3 of the 10, pixel 2 in 5, pixel 3 nowhere.
class TenInterferograms : public ::testing::Test {
protected:
    TinyJob job{4, 1};
    void SetUp() override
    {
        for (int k = 0; k < 10; ++k) {
            const std::string name = "ifg_" + std::to_string(20200101 + k) + "_" + std::to_string(20200111 + k);
            job.add_ifg(name, {10.0f + k, k < 3 ? 2.0f : 0.0f, k % 2 ? 0.0f : 5.0f, 0.0f});
        }
    }
    struct Batch {
        std::vector<std::vector<float>> rows;
        std::vector<int> count;
    };
    Batch load(const std::string& extra, int64_t start, int64_t end, const std::vector<float>& refs,
               const std::vector<float>& mask)
    {
        const CFG cfg = lib::loadcfg(job.config(extra).c_str());
        std::vector<int> count(static_cast<size_t>(end - start), 0);
        float** stack = com::readallfile(cfg, start, end, refs.data(), mask.data(), count.data());
        Batch batch;
        for (int k = 0; k < 10; ++k) batch.rows.emplace_back(stack[k], stack[k] + (end - start));
        batch.count = count;
        lib::free2d_float(stack, 10);
        return batch;
    }
};

TEST_F(TenInterferograms, ThreeOfTenPassAQuarterButNotAHalfNorPointThree)
{
    const std::vector<float> refs(10, 0.0f), mask(4, 0.0f);
    auto quarter = load("minimum_temporal_ifg_ratio 0.25\n", 0, 4, refs, mask);
    EXPECT_EQ(quarter.count, (std::vector<int>{10, 3, 5, 0}));
    EXPECT_EQ(quarter.rows[0][1], 2.0f);
    for (const char* ratio : {"0.5", "0.3"}) {  // 0.3 held as a float is above 3/10
        auto batch = load(std::string("minimum_temporal_ifg_ratio ") + ratio + "\n", 0, 4, refs, mask);
        EXPECT_EQ(batch.count[1], 0) << ratio;
        for (int k = 0; k < 10; ++k) EXPECT_EQ(batch.rows[k][1], 0.0f) << ratio;
        EXPECT_EQ(batch.count[2], 5) << ratio;  // 5 of 10 is not below a half
    }
}

TEST_F(TenInterferograms, ReferenceValuesAreSubtractedAndASampleEqualToItStopsCounting)
{
    std::vector<float> refs(10, 1.0f);
    refs[4] = 14.0f;  // equals the sample of pixel 0 in interferogram 4
    const auto batch = load("minimum_temporal_ifg_ratio 0\n", 0, 4, refs, std::vector<float>(4, 0.0f));
    EXPECT_EQ(batch.rows[0][0], 9.0f);
    EXPECT_EQ(batch.rows[4][0], 0.0f);
    EXPECT_EQ(batch.count[0], 9);
    EXPECT_EQ(batch.rows[0][3], 0.0f);  // no data stays 0, never 0 - reference
}

TEST_F(TenInterferograms, MaskedPixelsAreDropped)
{
    const std::vector<float> mask = {0.49f, 1.0f, 0.5f, 0.0f};
    const auto batch = load("minimum_temporal_ifg_ratio 0\n", 0, 4, std::vector<float>(10, 0.0f), mask);
    EXPECT_EQ(batch.count, (std::vector<int>{10, 0, 0, 0}));
    EXPECT_EQ(batch.rows[0][1], 0.0f);
}

TEST_F(TenInterferograms, ABatchReadsItsOwnStretchWhateverTheThreads)
{
    const std::vector<float> refs(10, 0.5f), mask(4, 0.0f);
    const auto whole = load("minimum_temporal_ifg_ratio 0.25\nmax_parallel_threads 1\n", 0, 4, refs, mask);
    for (const char* threads : {"2", "3", "4", "16", "0"}) {
        const auto part = load("minimum_temporal_ifg_ratio 0.25\nmax_parallel_threads " + std::string(threads) + "\n",
                               1, 3, refs, mask);
        for (int k = 0; k < 10; ++k) {
            EXPECT_EQ(part.rows[k][0], whole.rows[k][1]) << threads;
            EXPECT_EQ(part.rows[k][1], whole.rows[k][2]) << threads;
        }
        EXPECT_EQ(part.count, (std::vector<int>{3, 5}));
    }
}

TEST_F(TenInterferograms, WithoutTheMaskNothingIsCountedOrDropped)
{
    const CFG cfg = lib::loadcfg(job.config().c_str());
    const std::vector<float> refs(10, 0.0f);
    float** stack = com::readallfile_nomask(cfg, 0, 4, refs.data());
    EXPECT_EQ(stack[0][1], 2.0f);  // seen by 3 of 10, kept
    EXPECT_EQ(stack[5][1], 0.0f);
    lib::free2d_float(stack, 10);
}

}  // namespace
