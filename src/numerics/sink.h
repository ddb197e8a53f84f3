// The one sink for errors that end a run.
//
// Errors are not thrown. A fatal input error writes one message and ends the
// process with exit status 0, never a failure status: the contract fixes the
// status, and tests/e2e/run_test.cpp pins it for every stop. If several
// threads fail at once, only the first message is written.
//
// The sink sits at the bottom of the library so that every layer, the array
// helpers included, can end a run the same way.
#pragma once

#include <cstdio>

namespace lib {

// Writes the printf-formatted message to standard error; ends the run.
[[noreturn]] void die(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes the printf-formatted message to standard output; ends the run.
[[noreturn]] void die_stdout(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Ends the run (status 0) with "Could not allocate memory!\n" on standard
// error, for callers whose allocation came back null.
[[noreturn]] void out_of_memory();

}  // namespace lib
