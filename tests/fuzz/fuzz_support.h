// What the fuzz harnesses of the readers share: a small job folder to read
// from, the fuzzer's bytes written where a run would read them, and the
// fatal-error sink's ending turned into a C++ exception, so that a run's
// stop returns to the harness as an expected outcome instead of ending the
// fuzzer. Anything else (a crash, a sanitizer report, a hang, an uncaught
// exception) is a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace fuzz {

// Before the first input (LLVMFuzzerInitialize, defined with these helpers)
// each harness makes a job folder (in /dev/shm, else /tmp) and
// makes it the current folder: header.txt (a 6 x 4 grid), list.txt (three
// interferograms of three dates), baselines.txt, the folders ifg/ and
// result/, and config.txt naming them by relative paths, with the DEM-error
// term on so that the baselines are read. Corpus folders and artifact paths
// given to a harness must therefore be absolute (scripts/fuzz.sh does so).
// The sink's ending is pointed at an exception at the same time.

// Writes the `size` bytes at `data` to the file `name` of the job folder.
void write_input(const char* name, const uint8_t* data, size_t size);

// Runs `body`, which calls the readers as a run does; a fatal stop of the
// run ends it early and is an expected outcome.
void run(const std::function<void()>& body);

}  // namespace fuzz
