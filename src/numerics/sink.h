// The one sink for errors that end a run.
//
// Errors are not thrown. A fatal input error writes one message and ends the
// process with exit status 0, never a failure status: the contract fixes the
// status, and tests/e2e/run_test.cpp pins it for every stop. If several
// threads fail at once, only the first message is written.
//
// The sink sits at the bottom of the library so that every layer, the array
// helpers included, can end a run the same way.
//
// A fuzz harness feeds the readers thousands of inputs in one process, and
// for it a fatal message is an expected outcome, not the end: it points the
// sink's ending elsewhere with set_run_end.
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

// What ends a run after its message is written: null (the default) ends the
// process with _Exit(0). A harness passes a function that leaves the failing
// call by its own means (a C++ exception, so that the readers' streams and
// buffers are released as the stack unwinds); the sink's lock is released
// before it is called. Should the function return, the process ends as
// usual. Set it before any reader runs; it is not meant to change mid-run.
using RunEnd = void (*)();
void set_run_end(RunEnd end);

}  // namespace lib
