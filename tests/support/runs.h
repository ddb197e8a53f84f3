// Whole runs of sbas-ts: how a run ends, the lines of one stage, and
// synthetic jobs (the sbas_synth generator) in temporary folders.
#pragma once

#include <string>
#include <vector>

#include "support/child.h"
#include "synth/synth.h"

namespace testing_support {

// Ended by exit with status 0 after "finish!", nothing on standard output.
void expect_finished(const Outcome& o);

// Stopped on bad input: status 0, no "finish!", and `message` alone on
// standard output or last on standard error.
void expect_stop(const Outcome& o, const std::string& message, bool on_stdout);

// The part of `err` from `first` to the end of `last`; when either is
// missing, a note followed by all of `err`, for the failure message.
std::string between(const std::string& err, const std::string& first, const std::string& last);

// A synthetic job written by one generator thread (the tests fork, so this
// process must not start OpenMP threads) in a temporary folder.
struct SynthJob {
    explicit SynthJob(synth::Options options);

    // Runs sbas-ts on the job's configuration followed by `extra` lines. The
    // configuration is written beside the job folder, which keeps only the
    // generated files and the run's outputs.
    Outcome run(const std::string& extra = "") const;
    // Empties the result folder.
    void clear_results() const;
    std::string result(const std::string& name) const { return job.result_folder + "/" + name; }
    std::vector<float> raster(const std::string& path) const { return synth::read_raster(path, job.grid); }

    TempDir dir;
    synth::Job job;
};

// A truth map of the job minus its mean over the reference window (clipped
// to the grid), as the run refers every interferogram.
std::vector<double> referred_truth(const synth::Job& job, const std::string& truth_name);

// A velocity map of the run (the inversion's by default) minus the true
// velocity referred to its mean over the reference window, as the run refers
// every interferogram, pixel by pixel; NaN where the run made no estimate (0).
std::vector<double> velocity_error(const SynthJob& s, const std::string& name = synth::velocity_name);

}  // namespace testing_support
