#include "support/runs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace testing_support {

void expect_finished(const Outcome& o)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_TRUE(o.err.ends_with("finish!\n")) << o.err;
    EXPECT_EQ(o.out, "");
}

void expect_stop(const Outcome& o, const std::string& message, bool on_stdout)
{
    EXPECT_TRUE(o.exited) << "signal " << o.signal;
    EXPECT_EQ(o.status, 0);
    EXPECT_FALSE(contains(o.err, "finish!"));
    EXPECT_EQ(o.out, on_stdout ? message : "");
    EXPECT_TRUE(on_stdout || o.err.ends_with(message)) << o.err;
}

std::string between(const std::string& err, const std::string& first, const std::string& last)
{
    const size_t from = err.find(first);
    const size_t to = err.find(last, from == std::string::npos ? 0 : from);
    if (from == std::string::npos || to == std::string::npos)
        return "(no \"" + first + "\" ... \"" + last + "\" in)\n" + err;
    return err.substr(from, to + last.size() - from);
}

SynthJob::SynthJob(synth::Options options)
{
    options.threads = 1;
    job = synth::write_job(options, dir / "job");
}

Outcome SynthJob::run(const std::string& extra) const
{
    write_text(dir / "run.txt", read_text(job.config) + extra);
    return run_program({dir / "run.txt"});
}

void SynthJob::clear_results() const
{
    std::filesystem::remove_all(job.result_folder);
    std::filesystem::create_directory(job.result_folder);
}

std::vector<double> referred_truth(const synth::Job& j, const std::string& name)
{
    const auto truth = synth::read_raster(j.truth_folder + "/" + name, j.grid);
    const int h = j.ref_window / 2;  // ceil((w - 1) / 2): an even window grows to the next odd size
    double sum = 0;
    int n = 0;
    for (int r = std::max(j.ref_row - h, 0); r <= std::min(j.ref_row + h, j.grid.length - 1); ++r)
        for (int c = std::max(j.ref_col - h, 0); c <= std::min(j.ref_col + h, j.grid.width - 1); ++c, ++n)
            sum += truth[size_t(r) * j.grid.width + c];
    std::vector<double> out(truth.begin(), truth.end());
    for (double& v : out) v -= sum / n;
    return out;
}

std::vector<double> velocity_error(const SynthJob& s, const std::string& name)
{
    const auto estimate = s.raster(s.result(name));
    std::vector<double> error = referred_truth(s.job, synth::truth_velocity_name);
    for (size_t p = 0; p < error.size(); ++p) error[p] = estimate[p] == 0.0f ? std::nan("") : estimate[p] - error[p];
    return error;
}

}  // namespace testing_support
