// Writing text files, and reading and writing raster headers and float32
// rasters.
//
// Rasters are written as the host's floats in one fwrite, which is the file
// format only on a little-endian host; the build refuses any other host.
// Headers are printed with the shortest decimal that reads back exactly, so a
// grid survives a round trip through its header bit for bit.
#include "synth/raster.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

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
    std::ifstream in(path);
    if (!in) throw Error("cannot open header " + path);
    Grid grid;
    bool have_width = false;
    bool have_length = false;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        std::string value;
        if (!(fields >> key >> value)) continue;
        char* end = nullptr;
        const double number = std::strtod(value.c_str(), &end);
        const bool numeric = end && *end == '\0';
        if (key == "WIDTH" || key == "FILE_LENGTH") {
            if (!numeric || number < 1 || number > 1e9 || number != std::floor(number))
                throw Error("bad " + key + " '" + value + "' in " + path);
            (key == "WIDTH" ? grid.width : grid.length) = static_cast<int>(number);
            (key == "WIDTH" ? have_width : have_length) = true;
            continue;
        }
        double* target = key == "X_FIRST"  ? &grid.x_first
                         : key == "Y_FIRST" ? &grid.y_first
                         : key == "X_STEP"  ? &grid.x_step
                         : key == "Y_STEP"  ? &grid.y_step
                                            : nullptr;
        if (!target) continue;
        if (!numeric) throw Error("bad " + key + " '" + value + "' in " + path);
        *target = number;
    }
    if (!have_width || !have_length)
        throw Error("header " + path + " lacks WIDTH or FILE_LENGTH");
    return grid;
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
    const std::size_t count = static_cast<std::size_t>(grid.width) * grid.length;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) throw Error("cannot open raster " + path);
    std::vector<float> data(count);
    const std::size_t got = std::fread(data.data(), sizeof(float), count, file);
    const bool at_end = got == count && std::fgetc(file) == EOF;
    std::fclose(file);
    if (!at_end)
        throw Error("raster " + path + " does not hold " + std::to_string(grid.length) + " x " +
                    std::to_string(grid.width) + " float32 samples");
    return data;
}

}  // namespace synth
