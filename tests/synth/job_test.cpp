// What the synthetic-job generator promises: equal options and seed give the
// same files whatever the thread count, and the files pinned below do not
// change (the benchmark and the demo depend on them); without noise an
// interferogram is the difference of its dates' truth; each nuisance term
// adds what it claims; given unwrapping errors are checked before any file
// is written.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <numbers>
#include <string>
#include <vector>

#include "support/child.h"
#include "synth/synth.h"

namespace {

namespace fs = std::filesystem;
using testing_support::read_text;
using testing_support::TempDir;

// Every file of a job by its path inside the folder, the folder's own path
// in the configuration replaced by "JOB".
std::map<std::string, std::string> files_of(const synth::Job& job)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(job.folder)) {
        if (!entry.is_regular_file()) continue;
        std::string text = read_text(entry.path().string());
        for (std::size_t at; (at = text.find(job.folder)) != std::string::npos;)
            text.replace(at, job.folder.size(), "JOB");
        files[fs::relative(entry.path(), job.folder).string()] = text;
    }
    return files;
}

// FNV-1a over the names and contents, in name order.
std::uint64_t hash_of(const std::map<std::string, std::string>& files)
{
    std::uint64_t h = 1469598103934665603ULL;
    for (const auto& [name, text] : files)
        for (const std::string* s : {&name, &text}) {
            for (unsigned char c : *s) h = (h ^ c) * 1099511628211ULL;
            h = (h ^ 0xffu) * 1099511628211ULL;
        }
    return h;
}

// Every term and kind of patch at once.
synth::Options busy()
{
    synth::Options o;
    o.deformation = synth::Deformation::mixed;
    o.jitter = 3;
    o.long_gaps = 2;
    o.long_links = 4;
    o.unwrap_errors = 3;
    o.unwrap_error_patches = {{5, -1, 3.0, 4.0, 2.5}};
    o.ramps = true;
    o.elevation_term = true;
    o.dem_oversample = 2;
    o.dem_error = true;
    o.nodata_fraction = 0.3;
    o.invalid_corner = 0.1;
    o.noise = 0.3;
    o.ifg_noise = 0.1;
    return o;
}

TEST(SynthJob, EqualOptionsAndSeedGiveEqualFilesOnAnyThreadCount)
{
    TempDir dir;
    synth::Options o = busy();
    o.threads = 1;
    const auto first = files_of(synth::write_job(o, dir / "job"));
    o.threads = 3;
    o.overwrite = true;
    EXPECT_EQ(files_of(synth::write_job(o, dir / "job")), first);
    o.seed = 2;
    EXPECT_NE(files_of(synth::write_job(o, dir / "job")), first);
}

// Hashes of fixed jobs: a change of any of them changes the synthetic jobs
// the benchmark, the demo and the whole-run tests use. Update them only with
// an intended change of the generator.
TEST(SynthJob, PinnedJobsKeepTheirBytes)
{
    struct Case {
        const char* name;
        std::function<void(synth::Options&)> shape;
        std::uint64_t hash;
    };
    const Case cases[] = {
        {"defaults", [](synth::Options&) {}, 859722710112251057ULL},
        {"every nuisance",
         [](synth::Options& o) {
             o.deformation = synth::Deformation::mixed;
             o.unwrap_errors = 3;
             o.ramps = o.elevation_term = o.dem_error = true;
             o.dem_oversample = 2;
             o.nodata_fraction = 0.3;
             o.invalid_corner = 0.1;
             o.jitter = 3;
             o.long_gaps = 2;
             o.long_links = 4;
         },
         13907198375354980634ULL},
        {"seasonal with noise",
         [](synth::Options& o) {
             o.deformation = synth::Deformation::seasonal;
             o.seed = 11;
             o.dates = 20;
             o.noise = 0.3;
             o.noise_scale = 2;
             o.ifg_noise = 0.1;
             o.ref_row = 5;
             o.ref_col = 7;
             o.ref_window = 3;
         },
         10137850419148890451ULL},
        {"log",
         [](synth::Options& o) {
             o.deformation = synth::Deformation::log;
             o.log_origin = 20161201;
             o.background = 0.5;
             o.dates = 15;
             o.width = 50;
             o.length = 33;
             o.unwrap_errors = 5;
             o.seed = 99;
         },
         3967302260309939034ULL},
    };
    for (const Case& c : cases) {
        TempDir dir;
        synth::Options o;
        c.shape(o);
        EXPECT_EQ(hash_of(files_of(synth::write_job(o, dir / "job"))), c.hash) << c.name;
    }
}

std::vector<float> raster(const synth::Job& job, const std::string& path)
{
    return synth::read_raster(path, job.grid);
}

std::vector<float> ifg(const synth::Job& job, int k)
{
    return raster(job, job.ifg_folder + "/" + job.ifgs[k]);
}

TEST(SynthJob, NoiseFreeInterferogramsAreDifferencesOfTheTruth)
{
    TempDir dir;
    synth::Options o;
    o.deformation = synth::Deformation::mixed;
    o.jitter = 3;
    o.long_links = 4;
    o.nodata_fraction = 0.5;
    o.invalid_corner = 0.1;
    const synth::Job job = synth::write_job(o, dir / "job");
    std::vector<std::vector<float>> truth;
    for (int date : job.dates) truth.push_back(raster(job, job.truth_folder + "/" + synth::truth_disp_name(date)));
    for (float x : truth[0]) ASSERT_EQ(x, 0.0f) << "the truth is relative to the first date";

    double worst = 0.0;
    std::size_t valid = 0;
    std::size_t missing = 0;
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

    const auto velocity = raster(job, job.truth_folder + "/" + synth::truth_velocity_name);
    const double years = (job.mjd.back() - job.mjd.front()) / 365.25;
    worst = 0.0;
    for (std::size_t p = 0; p < velocity.size(); ++p)
        worst = std::max(worst, std::fabs(velocity[p] - truth.back()[p] / years));
    EXPECT_LT(worst, 1e-5);
}

// Each term switched on alone changes every interferogram by what it claims.
// `expected` gives the change at every pixel of interferogram k (NaN: not
// checked).
TEST(SynthJob, EachNuisanceTermAddsWhatItClaims)
{
    using Expected = std::function<std::vector<double>(const synth::Job&, int k)>;
    struct Case {
        const char* name;
        void (*on)(synth::Options&);
        Expected expected;
    };
    const auto pixels = [](const synth::Job& job) { return std::size_t(job.grid.width) * job.grid.length; };
    const Case cases[] = {
        {"unwrapping errors",
         [](synth::Options& o) {
             o.unwrap_errors = 2;
             o.unwrap_error_patches = {{4, 2, 6.0, 8.0, 3.0}, {4, -1, 7.0, 9.5, 2.0}};
         },
         [&](const synth::Job& job, int k) {
             std::vector<double> change(pixels(job), 0.0);
             for (const synth::UnwrapError& e : job.unwrap_errors) {
                 if (e.ifg != k) continue;
                 for (int i = 0; i < job.grid.length; ++i)
                     for (int j = 0; j < job.grid.width; ++j)
                         if ((i - e.row) * (i - e.row) + (j - e.col) * (j - e.col) <= e.radius * e.radius)
                             change[std::size_t(i) * job.grid.width + j] += 2 * std::numbers::pi * e.cycles;
             }
             return change;
         }},
        {"DEM error",
         [](synth::Options& o) { o.dem_error = true; },
         [&](const synth::Job& job, int k) {
             const auto dz = raster(job, job.truth_folder + "/" + synth::truth_dem_error_name);
             std::vector<double> change(pixels(job));
             for (std::size_t p = 0; p < change.size(); ++p) change[p] = job.bperp[k] * job.dem_error_factor * dz[p];
             return change;
         }},
        {"elevation term on an oversampled DEM",
         [](synth::Options& o) {
             o.elevation_term = true;
             o.dem_oversample = 2;
         },
         [&](const synth::Job& job, int k) {
             const auto dem = synth::read_raster(job.dem, job.dem_grid);
             const double c = job.elevation_coef[job.pairs[k].second] - job.elevation_coef[job.pairs[k].first];
             std::vector<double> change(pixels(job));
             for (int i = 0; i < job.grid.length; ++i)
                 for (int j = 0; j < job.grid.width; ++j)
                     change[std::size_t(i) * job.grid.width + j] =
                         c * dem[std::size_t(2 * i) * job.dem_grid.width + 2 * j];
             return change;
         }},
        {"ramps, zero at the reference pixel",
         [](synth::Options& o) { o.ramps = true; },
         [&](const synth::Job& job, int) {
             std::vector<double> change(pixels(job), std::nan(""));
             change[std::size_t(job.clean_row) * job.grid.width + job.clean_col] = 0.0;
             return change;
         }},
    };
    TempDir dir;
    synth::Options o;
    o.deformation = synth::Deformation::seasonal;
    const synth::Job plain = synth::write_job(o, dir / "plain");
    for (const Case& c : cases) {
        synth::Options with = o;
        c.on(with);
        const synth::Job job = synth::write_job(with, dir / ("job" + std::to_string(&c - cases)));
        ASSERT_EQ(job.ifgs, plain.ifgs) << c.name;
        double worst = 0.0;
        double moved = 0.0;
        for (int k = 0; k < static_cast<int>(job.ifgs.size()); ++k) {
            const auto before = ifg(plain, k);
            const auto after = ifg(job, k);
            const auto expected = c.expected(job, k);
            for (std::size_t p = 0; p < after.size(); ++p) {
                moved = std::max(moved, std::fabs(double(after[p]) - before[p]));
                if (!std::isnan(expected[p]))
                    worst = std::max(worst, std::fabs(double(after[p]) - before[p] - expected[p]));
            }
        }
        EXPECT_LT(worst, 2e-5) << c.name;
        EXPECT_GT(moved, 0.5) << c.name;
    }
    // Given errors follow the random ones of their interferogram, in order.
    const std::string given = plain.ifgs[4] + " 2 6 8 3\n" + plain.ifgs[4] + " -1 7 9.5 2\n";
    EXPECT_NE(read_text(dir / "job0/truth/unwrapping_errors.txt").find(given), std::string::npos);
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
        synth::Options o;
        o.unwrap_error_patches = {error};
        try {
            synth::write_job(o, dir / "job");
            ADD_FAILURE() << "no error for " << message;
        } catch (const synth::Error& e) {
            EXPECT_EQ(e.what(), message);
        }
        EXPECT_FALSE(fs::exists(dir / "job"));
    }
}

}  // namespace
