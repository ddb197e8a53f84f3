// The header is read with the line rules of the configuration file, key order
// rule included: after a key matches, its value stands in the key's place for
// the remaining comparisons of the line. The sizes are read as 32-bit
// integers and widened.
#include "catalogue/header.h"

#include <cstring>

#include "config/fatal.h"
#include "config/text.h"

namespace com {
namespace {

struct Key {
    const char* name;
    int64_t HEADER::*size;  // set for the two sizes
    double HEADER::*coordinate;  // set for the four coordinates
};

const Key kKeys[] = {
    {"WIDTH", &HEADER::WIDTH, nullptr},
    {"FILE_LENGTH", &HEADER::FILE_LENGTH, nullptr},
    {"X_FIRST", nullptr, &HEADER::X_FIRST},
    {"Y_FIRST", nullptr, &HEADER::Y_FIRST},
    {"X_STEP", nullptr, &HEADER::X_STEP},
    {"Y_STEP", nullptr, &HEADER::Y_STEP},
};

}  // namespace

HEADER readheader(const char* path)
{
    HEADER header;
    FILE* file = lib::fopen_zq(path, "r");
    lib::for_each_line(file, false, [&](char* line) {
        lib::strtruc(line);
        char key[lib::kFieldBytes];
        char value[lib::kFieldBytes];
        lib::substr(key, line, 1);
        for (const Key& k : kKeys) {
            if (std::strcmp(key, k.name) != 0) continue;
            lib::substr(value, line, 2);
            std::strcpy(key, value);
            if (k.size) header.*k.size = lib::int_prefix(value);
            else header.*k.coordinate = lib::double_prefix(value);
        }
    });
    std::fclose(file);
    return header;
}

int64_t pixel_count(const HEADER& header)
{
    if (header.WIDTH < 1 || header.FILE_LENGTH < 1) return 0;
    return header.WIDTH * header.FILE_LENGTH;
}

float readonerecord(FILE* raster, int64_t row, int64_t col, const HEADER& header)
{
    if (row < 0 || row >= header.FILE_LENGTH || col < 0 || col >= header.WIDTH) return 0;
    float value = 0;
    if (std::fseek(raster, static_cast<long>(4 * (row * header.WIDTH + col)), SEEK_SET) != 0) return 0;
    if (std::fread(&value, sizeof value, 1, raster) != 1) return 0;
    return value;
}

}  // namespace com
