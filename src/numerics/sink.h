// The end of a run whose memory runs out.
//
// Bad input is reported as an Error value (numerics/error.h) and ends the run
// at the entry point. Memory is different: it runs out inside any kernel, on
// any thread, where no caller could do better than stop. So a failed
// allocation of an input-sized buffer ends the process here, with
// "Could not allocate memory!\n" on standard error and the run's failure
// status (0, or 1 when the user asked for --error-status). Only the first
// of several failing threads writes; the others wait for the end.
//
// A fuzz harness feeds the readers thousands of inputs in one process; it
// points the ending elsewhere with set_run_end.
#pragma once

namespace lib {

// Ends the run with "Could not allocate memory!\n" on standard error.
[[noreturn]] void out_of_memory();

// The exit status of a run that stops before it finishes: 0 (the default,
// which scripts of long standing expect) or 1. Set once, by the entry point,
// before any stage runs.
void set_failure_status(int status);
int failure_status();

// What ends a run after its message is written: null (the default) ends the
// process with _Exit(failure_status()). A harness passes a function that
// leaves the failing call by its own means; the sink's lock is released
// before it is called. Should the function return, the process ends as
// usual.
using RunEnd = void (*)();
void set_run_end(RunEnd end);

}  // namespace lib
