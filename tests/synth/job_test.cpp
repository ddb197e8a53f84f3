// What the synthetic-job generator promises: the files pinned below do not
// change with the thread count or over time (the benchmark and the demo
// depend on them); without noise an interferogram is the difference of its
// dates' truth; each nuisance term adds what it claims; given unwrapping
// errors are checked before any file is written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <numbers>
#include <string>
#include <vector>

#include "support/child.h"
#include "synth/synth.h"

namespace {

using namespace testing_support;

// FNV-1a over the names and contents of every file of a job, in name order,
// the folder's own path in the configuration replaced by "JOB".
std::uint64_t hash_of(const synth::Job& job)
{
    std::uint64_t h = 1469598103934665603ULL;
    const auto add = [&h](const std::string& s) {
        for (unsigned char c : s) h = (h ^ c) * 1099511628211ULL;
        h = (h ^ 0xffu) * 1099511628211ULL;
    };
    for (auto [name, text] : files_under(job.folder)) {
        for (std::size_t at; (at = text.find(job.folder)) != std::string::npos;)
            text.replace(at, job.folder.size(), "JOB");
        add(name);
        add(text);
    }
    return h;
}

// A change of any of these hashes changes the synthetic jobs the benchmark,
// the demo and the whole-run tests use: update them only with an intended
// change of the generator. The seed and every term and kind of patch take
// part; one or three generator threads write the same bytes.
TEST(SynthJob, PinnedJobsKeepTheirBytesOnAnyThreadCount)
{
    const std::pair<synth::Options, std::uint64_t> cases[] = {
        {{}, 859722710112251057ULL},
        {{.jitter = 3, .long_gaps = 2, .long_links = 4, .deformation = synth::Deformation::mixed,
          .nodata_fraction = 0.3, .invalid_corner = 0.1, .unwrap_errors = 3, .ramps = true, .elevation_term = true,
          .dem_oversample = 2, .dem_error = true},
         13907198375354980634ULL},
        {{.dates = 20, .seed = 11, .deformation = synth::Deformation::seasonal, .noise = 0.3, .noise_scale = 2,
          .ifg_noise = 0.1, .ref_row = 5, .ref_col = 7, .ref_window = 3},
         10137850419148890451ULL},
        {{.width = 50, .length = 33, .dates = 15, .seed = 99, .deformation = synth::Deformation::log,
          .log_origin = 20161201, .background = 0.5, .unwrap_errors = 5},
         3967302260309939034ULL},
    };
    for (auto [options, hash] : cases) {
        for (int threads : {1, 3}) {
            TempDir dir;
            options.threads = threads;
            EXPECT_EQ(hash_of(synth::write_job(options, dir / "job")), hash) << hash << ", threads " << threads;
        }
    }
}

std::vector<float> ifg(const synth::Job& job, int k)
{
    return synth::read_raster(job.ifg_folder + "/" + job.ifgs[k], job.grid);
}

TEST(SynthJob, NoiseFreeInterferogramsAreDifferencesOfTheTruth)
{
    TempDir dir;
    const synth::Job job = synth::write_job({.jitter = 3, .long_links = 4, .deformation = synth::Deformation::mixed,
                                             .nodata_fraction = 0.5, .invalid_corner = 0.1},
                                            dir / "job");
    std::vector<std::vector<float>> truth;
    for (int date : job.dates)
        truth.push_back(synth::read_raster(job.truth_folder + "/" + synth::truth_disp_name(date), job.grid));
    for (float x : truth[0]) ASSERT_EQ(x, 0.0f) << "the truth is relative to the first date";

    double worst = 0.0;
    std::size_t valid = 0, missing = 0;
    for (std::size_t k = 0; k < job.ifgs.size(); ++k) {
        const auto values = ifg(job, static_cast<int>(k));
        const auto& [a, b] = job.pairs[k];
        for (std::size_t p = 0; p < values.size(); ++p) {
            if (!synth::is_data(values[p])) {
                ++missing;
                continue;
            }
            ++valid;
            worst = std::max(worst, std::fabs(double(values[p]) - (double(truth[b][p]) - truth[a][p])));
        }
    }
    EXPECT_LT(worst, 1e-5);
    EXPECT_GT(missing, 0u);
    EXPECT_GT(valid, 20 * missing);

    const auto velocity = synth::read_raster(job.truth_folder + "/" + synth::truth_velocity_name, job.grid);
    const double years = (job.mjd.back() - job.mjd.front()) / 365.25;
    worst = 0.0;
    for (std::size_t p = 0; p < velocity.size(); ++p)
        worst = std::max(worst, std::fabs(velocity[p] - truth.back()[p] / years));
    EXPECT_LT(worst, 1e-5);
}

// Each term switched on alone changes every interferogram k by what it
// claims at pixel (i, j) (NaN: not checked).
TEST(SynthJob, EachNuisanceTermAddsWhatItClaims)
{
    using Change = std::function<double(const synth::Job&, int k, int i, int j)>;
    const struct {
        const char* name;
        synth::Options options;
        Change expected;
    } cases[] = {
        {"unwrapping errors",
         {.unwrap_errors = 2, .unwrap_error_patches = {{4, 2, 6.0, 8.0, 3.0}, {4, -1, 7.0, 9.5, 2.0}}},
         [](const synth::Job& job, int k, int i, int j) {
             double change = 0.0;
             for (const synth::UnwrapError& e : job.unwrap_errors)
                 if (e.ifg == k && (i - e.row) * (i - e.row) + (j - e.col) * (j - e.col) <= e.radius * e.radius)
                     change += 2 * std::numbers::pi * e.cycles;
             return change;
         }},
        {"DEM error", {.dem_error = true},
         [dz = std::vector<float>()](const synth::Job& job, int k, int i, int j) mutable {
             if (dz.empty()) dz = synth::read_raster(job.truth_folder + "/" + synth::truth_dem_error_name, job.grid);
             return job.bperp[k] * job.dem_error_factor * dz[i * job.grid.width + j];
         }},
        {"elevation term on an oversampled DEM", {.elevation_term = true, .dem_oversample = 2},
         [dem = std::vector<float>()](const synth::Job& job, int k, int i, int j) mutable {
             if (dem.empty()) dem = synth::read_raster(job.dem, job.dem_grid);
             const auto [first, second] = job.pairs[k];
             return (job.elevation_coef[second] - job.elevation_coef[first]) * dem[2 * i * job.dem_grid.width + 2 * j];
         }},
        {"ramps, zero at the reference pixel", {.ramps = true},
         [](const synth::Job& job, int, int i, int j) {
             return i == job.clean_row && j == job.clean_col ? 0.0 : std::nan("");
         }},
    };
    TempDir dir;
    const synth::Job plain = synth::write_job({.deformation = synth::Deformation::seasonal}, dir / "plain");
    for (const auto& c : cases) {
        synth::Options with = c.options;
        with.deformation = synth::Deformation::seasonal;
        const synth::Job job = synth::write_job(with, dir / ("job" + std::to_string(&c - cases)));
        ASSERT_EQ(job.ifgs, plain.ifgs) << c.name;
        double worst = 0.0, moved = 0.0;
        for (int k = 0; k < static_cast<int>(job.ifgs.size()); ++k) {
            const auto before = ifg(plain, k), after = ifg(job, k);
            for (std::size_t p = 0; p < after.size(); ++p) {
                const double change = double(after[p]) - before[p];
                const double expected = c.expected(job, k, p / job.grid.width, p % job.grid.width);
                moved = std::max(moved, std::fabs(change));
                if (!std::isnan(expected)) worst = std::max(worst, std::fabs(change - expected));
            }
        }
        EXPECT_LT(worst, 2e-5) << c.name;
        EXPECT_GT(moved, 0.5) << c.name;
    }
    // Given errors follow the random ones of their interferogram, in order.
    const std::string given = plain.ifgs[4] + " 2 6 8 3\n" + plain.ifgs[4] + " -1 7 9.5 2\n";
    EXPECT_TRUE(contains(read_text(dir / "job0/truth/unwrapping_errors.txt"), given));
}

TEST(SynthJob, GivenUnwrappingErrorsAreCheckedBeforeAnyFileIsWritten)
{
    TempDir dir;
    const std::pair<synth::UnwrapError, std::string> cases[] = {
        {{30, 1, 5.0, 5.0, 2.0}, "--unwrap-error: no interferogram 30 (the job has 30, counted from 0)"},
        {{3, 1, 15.0, 14.0, 3.0}, "--unwrap-error: the disc in interferogram 3 reaches the reference window"},
        {{3, 0, 5.0, 5.0, 2.0}, "--unwrap-error: the number of cycles must not be 0"},
    };
    for (const auto& [error, message] : cases) {
        try {
            synth::write_job({.unwrap_error_patches = {error}}, dir / "job");
            ADD_FAILURE() << "no error for " << message;
        } catch (const synth::Error& e) {
            EXPECT_EQ(e.what(), message);
        }
        EXPECT_FALSE(std::filesystem::exists(dir / "job"));
    }
}

}  // namespace
