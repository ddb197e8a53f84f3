// The raster grid shared by every raster of a job, read from its text header.
//
// Rasters are headerless little-endian float32 files of FILE_LENGTH rows of
// WIDTH samples, row-major: the sample of row i, column j is at byte
// 4*(i*WIDTH + j) and lies at longitude X_FIRST + j*X_STEP, latitude
// Y_FIRST + i*Y_STEP (the corner sample, no half-pixel shift).
#pragma once

#include <cstdint>
#include <cstdio>

#include "numerics/error.h"

struct HEADER {
    int64_t WIDTH = 0;        // columns (samples per row)
    int64_t FILE_LENGTH = 0;  // rows
    double X_FIRST = 0;       // longitude of the first column, degrees
    double Y_FIRST = 0;       // latitude of the first row, degrees
    double X_STEP = 0;        // longitude step between columns
    double Y_STEP = 0;        // latitude step between rows (negative north-up)
};

namespace com {

// Reads the header file at `path` (keys WIDTH, FILE_LENGTH, X_FIRST, Y_FIRST,
// X_STEP, Y_STEP; other lines ignored; a missing key stays 0). Sizes are not
// range-checked. A missing file is reported (lib::not_found).
lib::Result<HEADER> readheader(const char* path);

// Pixels of the grid, WIDTH x FILE_LENGTH; a header with a size below 1
// describes no grid (0), even when both sizes are negative.
int64_t pixel_count(const HEADER& header);

// The sample at (row, col) of an open raster, or 0 when the position lies
// off the grid (the stream is then not touched) or the read fails.
float readonerecord(FILE* raster, int64_t row, int64_t col, const HEADER& header);

}  // namespace com
