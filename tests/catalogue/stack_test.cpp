// Loading a batch of the stack: referencing, masking, counting, dropping
// sparsely observed pixels. That a batch reads its own stretch whatever the
// threads is shown by the whole-run byte comparisons across maxcap and
// threads (stacking_test.cpp, recovery_test.cpp, loop_closure_test.cpp).
#include <gtest/gtest.h>

#include "app/job.h"

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

}  // namespace
