// A one-line progress indicator for the long loops of a run (a batch being
// inverted, checked for loop closure, corrected): share done, rate and time
// left, redrawn in place on standard error.
//
// It is drawn only when standard error is a terminal. Logs and scripts, which
// read standard error from a file or a pipe, see exactly the program's own
// lines and nothing more. The line is erased before anything else is written:
// by progress_end, which a stage calls before its next line, and by the
// fatal-error sink. There is one indicator per process, as there is one
// terminal line to draw on.
#pragma once

#include <cstdint>

namespace lib {

// Starts the indicator for `total` units of `unit` ("pixels",
// "interferograms") under `label`. Call from the stage's own thread, outside
// parallel regions.
void progress_begin(const char* label, int64_t total, const char* unit);

// Counts `done` more units. Safe from any thread; redraws at most a few times
// a second, so it may be called once per pixel.
void progress_add(int64_t done);

// Erases the line and stops the indicator.
void progress_end();

// Erases the line if one is drawn; the indicator keeps counting.
void progress_clear();

}  // namespace lib
