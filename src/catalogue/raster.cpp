// One seek and one read per file per batch: the stages touch each raster in
// a single contiguous stretch, the cheapest access a disk or a network file
// system offers.
#include "catalogue/raster.h"

#include "config/fatal.h"

namespace com {

Path join_path(const char* folder, const char* name)
{
    Path path;
    std::snprintf(path.text, sizeof path.text, "%s/%s", folder, name);
    return path;
}

void read_samples(FILE* stream, const char* path, int64_t first, int64_t count, float* out)
{
    if (count < 0) count = 0;
    size_t got = 0;
    if (std::fseek(stream, static_cast<long>(4 * first), SEEK_SET) == 0 && count > 0)
        got = std::fread(out, sizeof(float), static_cast<size_t>(count), stream);
    (void)got;
    const long position = std::ftell(stream);
    if (position != 4 * (first + count))
        lib::die("%s file size wrong %d\n", path, static_cast<int>(position));
}

void read_raster(const char* path, int64_t first, int64_t count, float* out)
{
    FILE* stream = lib::fopen_zq(path, "rb");
    read_samples(stream, path, first, count, out);
    std::fclose(stream);
}

const char* batch_mode(int64_t batch_first) { return batch_first == 0 ? "wb" : "ab"; }

void write_batch(const char* folder, const char* name, int64_t batch_first, const float* samples,
                 int64_t count)
{
    const Path path = join_path(folder, name);
    FILE* stream = lib::fopen_zq(path.c_str(), batch_mode(batch_first));
    size_t written = 0;
    if (count > 0) written = std::fwrite(samples, sizeof(float), static_cast<size_t>(count), stream);
    // A full disk must not leave a silently shortened result behind.
    if (std::fclose(stream) != 0 || static_cast<int64_t>(written) != (count > 0 ? count : 0))
        lib::die("%s could not be written\n", path.c_str());
}

}  // namespace com
