// Loading a batch of the stack: referencing, masking, counting, dropping
// sparsely observed pixels. That a batch reads its own stretch whatever the
// threads is shown by the whole-run byte comparisons across maxcap and
// threads (stacking_test.cpp, recovery_test.cpp, loop_closure_test.cpp).
#include <gtest/gtest.h>

#include "app/job.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "catalogue/stack.h"
#include "config/cfg.h"
#include "numerics/arrays.h"
#include "support/child.h"
#include "support/errors.h"

namespace {

using Rows = std::vector<std::vector<float>>;

// Ten interferograms of a 4 x 1 grid. Pixel 0 is valid everywhere, pixel 1
// in 3 of the 10, pixel 2 in 5, pixel 3 nowhere.
class TenInterferograms : public ::testing::Test {
protected:
    testing_support::TinyJob job{4, 1};
    void SetUp() override
    {
        for (int k = 0; k < 10; ++k)
            job.add_ifg("ifg_" + std::to_string(20200101 + k) + "_" + std::to_string(20200111 + k),
                        {10.0f + k, k < 3 ? 2.0f : 0.0f, k % 2 ? 0.0f : 5.0f, 0.0f});
    }
    // The four pixels with reference values `refs` (0.5 by default) and the
    // closure mask `mask` (none by default); `count` gets the counts.
    Rows load(const std::string& extra, std::vector<int>* count, std::vector<float> refs = std::vector<float>(10, 0.5f),
              std::vector<float> mask = {0, 0, 0, 0})
    {
        const CFG cfg = testing_support::must(lib::loadcfg(job.config(extra).c_str()));
        count->assign(4, 0);
        float** stack = testing_support::must(com::readallfile(cfg, 0, 4, refs.data(), mask.data(), count->data()));
        Rows rows;
        for (int k = 0; k < 10; ++k) rows.emplace_back(stack[k], stack[k] + 4);
        lib::free2d_float(stack, 10);
        return rows;
    }
};

TEST_F(TenInterferograms, ThreeOfTenPassAQuarterButNotAHalfNorPointThree)
{
    std::vector<int> count;
    EXPECT_EQ(load("minimum_temporal_ifg_ratio 0.25\n", &count)[0][1], 1.5f);
    EXPECT_EQ(count, (std::vector<int>{10, 3, 5, 0}));
    for (const char* ratio : {"0.5", "0.3"}) {  // 0.3 held as a float is above 3/10
        const Rows rows = load(std::string("minimum_temporal_ifg_ratio ") + ratio + "\n", &count);
        EXPECT_EQ(count, (std::vector<int>{10, 0, 5, 0})) << ratio;  // 5 of 10 is not below a half
        for (int k = 0; k < 10; ++k) EXPECT_EQ(rows[k][1], 0.0f) << ratio;
    }
}

TEST_F(TenInterferograms, ReferencesAreSubtractedMaskedPixelsDroppedAndWithoutTheMaskNothingIs)
{
    std::vector<float> refs(10, 1.0f);
    refs[4] = 14.0f;  // equals the sample of pixel 0 in interferogram 4
    std::vector<int> count;
    Rows rows = load("minimum_temporal_ifg_ratio 0\n", &count, refs, {0.49f, 1.0f, 0.5f, 0.0f});
    EXPECT_EQ(rows[0][0], 9.0f);
    EXPECT_EQ(rows[4][0], 0.0f);  // a sample equal to its reference stops counting
    EXPECT_EQ(rows[0][3], 0.0f);  // no data stays 0, never 0 - reference
    EXPECT_EQ(rows[0][1], 0.0f);
    EXPECT_EQ(count, (std::vector<int>{9, 0, 0, 0}));

    const CFG cfg = testing_support::must(lib::loadcfg(job.config().c_str()));
    float** stack = testing_support::must(com::readallfile_nomask(cfg, 0, 4, refs.data()));
    EXPECT_EQ(stack[0][1], 1.0f);  // seen by 3 of 10, kept
    EXPECT_EQ(stack[5][1], 0.0f);
    lib::free2d_float(stack, 10);
}

// The stages after the loop-closure check take its stack (no mask) masked in
// memory: the same bytes as loading it with the mask, also when the check
// dropped interferograms.
TEST_F(TenInterferograms, MaskingTheStackLoadedWithoutMaskGivesTheBytesOfTheMaskedLoad)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    testing_support::TinyJob odd{4, 1};
    for (int k = 0; k < 10; ++k)
        odd.add_ifg("ifg_" + std::to_string(20200101 + k) + "_" + std::to_string(20200111 + k),
                    {k == 3 ? nan : 10.0f + k, k < 4 ? 2.0f : 1e-9f, k % 2 ? -0.0f : 5.0f,
                     k == 6 ? std::numeric_limits<float>::infinity() : -3.0f + k});
    std::vector<float> refs(10, 0.5f);
    refs[4] = 14.0f;  // pixel 0 of interferogram 4 becomes 0
    const std::vector<float> mask = {0.49f, 0.0f, nan, 0.0f};
    const CFG all = testing_support::must(lib::loadcfg(odd.config("minimum_temporal_ifg_ratio 0.3\n").c_str()));
    for (const std::vector<int64_t>& keep : {std::vector<int64_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9},
                                             std::vector<int64_t>{0, 1, 3, 4, 5, 8, 9}}) {
        CFG cfg = all;
        std::vector<float> kept_refs;
        cfg.ifg_names.clear();
        for (const int64_t k : keep) {
            cfg.ifg_names.push_back(all.ifg_names[static_cast<size_t>(k)]);
            kept_refs.push_back(refs[static_cast<size_t>(k)]);
        }
        std::vector<int> want_count(4, 0), got_count(4, 0);
        float** want = testing_support::must(com::readallfile(cfg, 0, 4, kept_refs.data(), mask.data(), want_count.data()));
        float** loaded = testing_support::must(com::readallfile_nomask(all, 0, 4, refs.data()));
        float** got = com::mask_loaded_stack(cfg, loaded, 10, keep.data(), 0, 4, mask.data(), got_count.data());
        EXPECT_EQ(got_count, want_count);
        for (size_t k = 0; k < keep.size(); ++k)
            EXPECT_EQ(std::memcmp(got[k], want[k], 4 * sizeof(float)), 0) << k;
        lib::free2d_float(want, static_cast<int>(keep.size()));
        lib::free2d_float(got, static_cast<int>(keep.size()));
    }
}

}  // namespace
