// The files of a job on disk: text files, raster headers of `KEY value`
// lines, and headerless little-endian float32 arrays of FILE_LENGTH rows of
// WIDTH samples.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace synth {

// A geographic grid: longitude of column j is x_first + j * x_step, latitude
// of row i is y_first + i * y_step (degrees; y_step < 0 for north-up).
struct Grid {
    int width = 0;   // samples per row
    int length = 0;  // rows
    double x_first = 0.0;
    double y_first = 0.0;
    double x_step = 0.0;
    double y_step = 0.0;
};

// True when a sample holds data: not NaN, not infinite and |x| >= 1e-8 once
// widened to double (exact 0 is the usual no-data marker).
bool is_data(float x);

// Shortest text that reads back to exactly `value` ("%.17g"-exact, but
// without trailing noise digits).
std::string format_double(double value);

// Writes `text` to `path` as it is. Throws Error when the file can't be written.
void write_text(const std::string& path, const std::string& text);

// Writes the six header keys WIDTH, FILE_LENGTH, X_FIRST, Y_FIRST, X_STEP,
// Y_STEP, one `KEY value` line each. Throws Error when the file can't be written.
void write_header(const std::string& path, const Grid& grid);

// Reads a header with sbas-ts's reader (com::readheader). WIDTH and
// FILE_LENGTH must be from 1 to 1e9; the other keys are 0 when absent;
// unknown keys are ignored. Throws Error when the file is missing or the
// sizes are out of range.
Grid read_header(const std::string& path);

// Writes `count` samples with one fwrite. Throws Error on failure.
void write_raster(const std::string& path, const float* data, std::size_t count);

// Reads a raster of grid.width * grid.length samples with sbas-ts's reader
// (com::read_raster). Throws Error when the file is missing or shorter.
std::vector<float> read_raster(const std::string& path, const Grid& grid);

}  // namespace synth
