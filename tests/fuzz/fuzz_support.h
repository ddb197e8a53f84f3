// What the fuzz harnesses of the readers share: a small job folder to read
// from, and the fuzzer's bytes written where a run would read them. A
// reader's error is an expected outcome; so is memory running out, whose
// ending is turned into a C++ exception that returns to the harness instead
// of ending the fuzzer. Anything else (a crash, a sanitizer report, a hang,
// an uncaught exception) is a finding.
#include "numerics/error.h"

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
// The memory sink's ending is pointed at an exception at the same time.

// Writes the `size` bytes at `data` to the file `name` of the job folder.
void write_input(const char* name, const uint8_t* data, size_t size);

// Runs `body`, which calls the readers as a run does and returns the first
// error they report; an error, or memory running out, is an expected
// outcome.
void run(const std::function<lib::Status()>& body);

}  // namespace fuzz
