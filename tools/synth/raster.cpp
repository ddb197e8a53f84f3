// Writing text files, and reading and writing raster headers and float32
// rasters.
//
// Rasters are written as the host's floats in one fwrite, which is the file
// format only on a little-endian host; the build refuses any other host.
// Headers are printed with the shortest decimal that reads back exactly, so a
// grid survives a round trip through its header bit for bit. Headers and
// rasters are read with sbas-ts's own readers.
#include "synth/raster.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "synth/error.h"

namespace synth {

static_assert(std::endian::native == std::endian::little,
              "rasters are little-endian float32: build on a little-endian host");
static_assert(sizeof(float) == 4);

bool is_data(float x)
{
    const double widened = x;
    return !(std::fabs(widened) < 1e-8) && !std::isnan(widened) && !std::isinf(widened);
}

std::string format_double(double value)
{
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

void write_text(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
    out.close();
    if (out.fail()) throw Error("cannot write " + path);
}

void write_header(const std::string& path, const Grid& grid)
{
    std::string text;
    text += "WIDTH " + std::to_string(grid.width) + "\n";
    text += "FILE_LENGTH " + std::to_string(grid.length) + "\n";
    text += "X_FIRST " + format_double(grid.x_first) + "\n";
    text += "Y_FIRST " + format_double(grid.y_first) + "\n";
    text += "X_STEP " + format_double(grid.x_step) + "\n";
    text += "Y_STEP " + format_double(grid.y_step) + "\n";
    write_text(path, text);
}

Grid read_header(const std::string& path)
{
    // sbas-ts's own reader, so that a header means the same to both.
    const lib::Result<HEADER> read = com::readheader(path.c_str());
    if (!read.ok()) throw Error("cannot read header " + path + ": " + read.error().message);
    const HEADER& h = *read;
    if (h.WIDTH < 1 || h.FILE_LENGTH < 1 || h.WIDTH > 1000000000 || h.FILE_LENGTH > 1000000000)
        throw Error("header " + path + " lacks a WIDTH or FILE_LENGTH from 1 to 1e9");
    return Grid{static_cast<int>(h.WIDTH), static_cast<int>(h.FILE_LENGTH), h.X_FIRST, h.Y_FIRST, h.X_STEP, h.Y_STEP};
}

void write_raster(const std::string& path, const float* data, std::size_t count)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) throw Error("cannot create " + path);
    const std::size_t written = count ? std::fwrite(data, sizeof(float), count, file) : 0;
    const bool closed = std::fclose(file) == 0;
    if (written != count || !closed) throw Error("cannot write " + path);
}

std::vector<float> read_raster(const std::string& path, const Grid& grid)
{
    const int64_t count = static_cast<int64_t>(grid.width) * grid.length;
    std::vector<float> data(static_cast<std::size_t>(count));
    const lib::Status read = com::read_raster(path.c_str(), 0, count, data.data());
    if (!read.ok())
        throw Error("raster " + path + " does not hold " + std::to_string(grid.length) + " x " +
                    std::to_string(grid.width) + " float32 samples: " + read.error().message);
    return data;
}

}  // namespace synth
