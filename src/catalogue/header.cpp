// The header is read with the line rules of the configuration file, key order
// rule included: after a key matches, its value stands in the key's place for
// the remaining comparisons of the line. The sizes are read as 32-bit
// integers and widened.
#include "catalogue/header.h"

#include "config/fatal.h"
#include "config/text.h"

namespace com {
namespace {

const lib::Key<HEADER> kKeys[] = {
    {"WIDTH", &HEADER::WIDTH},
    {"FILE_LENGTH", &HEADER::FILE_LENGTH},
    {"X_FIRST", &HEADER::X_FIRST},
    {"Y_FIRST", &HEADER::Y_FIRST},
    {"X_STEP", &HEADER::X_STEP},
    {"Y_STEP", &HEADER::Y_STEP},
};

}  // namespace

lib::Result<HEADER> readheader(const char* path)
{
    HEADER header;
    SBAS_TAKE(const lib::File file, lib::fopen_zq(path, "r"));
    SBAS_TRY(lib::read_keyed(file.get(), path, kKeys, header));
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
