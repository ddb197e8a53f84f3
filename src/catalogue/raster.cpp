// One seek and one read per file per batch: the stages touch each raster in
// a single contiguous stretch, the cheapest access a disk or a network file
// system offers.
#include "catalogue/raster.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "config/fatal.h"
#include "numerics/accounting.h"
#include "numerics/ranks.h"

namespace com {

Path join_path(const char* folder, const char* name)
{
    Path path;
    std::snprintf(path.text, sizeof path.text, "%s/%s", folder, name);
    return path;
}

lib::Status read_samples(FILE* stream, const char* path, int64_t first, int64_t count, float* out)
{
    if (count < 0) count = 0;
    size_t got = 0;
    if (std::fseek(stream, static_cast<long>(4 * first), SEEK_SET) == 0 && count > 0)
        got = std::fread(out, sizeof(float), static_cast<size_t>(count), stream);
    lib::count_read(static_cast<int64_t>(4 * got));
    const long position = std::ftell(stream);
    if (position != 4 * (first + count))
        return lib::error(lib::Fault::size, path, lib::Stream::err, "%s file size wrong %ld\n", path, position);
    return {};
}

lib::Status read_raster(const char* path, int64_t first, int64_t count, float* out)
{
    SBAS_TAKE(const lib::File stream, lib::fopen_zq(path, "rb"));
    return read_samples(stream.get(), path, first, count, out);
}

lib::Result<lib::File> open_output(const char* path, const char* mode)
{
    const bool append = mode[0] == 'a';
    // O_NONBLOCK: a named pipe without a reader would hold the open for ever;
    // it fails at once instead (ENXIO) and is refused below, like anything
    // else that is not a regular file.
    const int flags =
        O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | (append ? O_APPEND : O_TRUNC);
    int fd = open(path, flags, 0666);
    // O_NOFOLLOW refuses a link as the last component; a new file replaces it.
    if (fd < 0 && errno == ELOOP && !append && unlink(path) == 0) fd = open(path, flags, 0666);
    struct stat st {};
    if (fd < 0 && (errno == ENXIO || errno == EISDIR) && lstat(path, &st) == 0)
        return lib::not_regular(path, st.st_mode);
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        return lib::not_regular(path, st.st_mode);
    }
    FILE* stream =
        fd >= 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0 ? fdopen(fd, mode) : nullptr;
    if (stream) return lib::File(stream);
    if (fd >= 0) close(fd);
    return lib::not_found(path);
}

const char* batch_mode(int64_t batch_first) { return batch_first == 0 ? "wb" : "ab"; }

lib::Error write_error(const char* path)
{
    return lib::error(lib::Fault::write, path, lib::Stream::err, "%s could not be written\n", path);
}

lib::Status write_samples(const char* path, const char* mode, const float* samples, int64_t count)
{
    SBAS_TAKE(lib::File stream, open_output(path, mode));
    size_t written = 0;
    if (count > 0) written = std::fwrite(samples, sizeof(float), static_cast<size_t>(count), stream.get());
    // A full disk must not leave a silently shortened result behind.
    if (std::fclose(stream.release()) != 0 || static_cast<int64_t>(written) != (count > 0 ? count : 0))
        return write_error(path);
    return {};
}

namespace {

// The batch outputs this rank has written in an MPI run, to be cut to the
// grid's length once every rank is done.
std::vector<std::string>& spread_outputs()
{
    static std::vector<std::string> paths;
    return paths;
}

}  // namespace

lib::Status write_batch(const char* folder, const char* name, int64_t batch_first, const float* samples,
                        int64_t count)
{
    const Path path = join_path(folder, name);
    return write_batch_at(path.c_str(), batch_first, samples, count);
}

lib::Status write_batch_at(const char* path, int64_t batch_first, const float* samples, int64_t count)
{
    if (!lib::spread()) return write_samples(path, batch_mode(batch_first), samples, count);
    // Batches of one file are written by several ranks, each at its place.
    std::vector<std::string>& written = spread_outputs();
    if (std::find(written.begin(), written.end(), path) == written.end()) written.emplace_back(path);
    return lib::write_at(path, batch_first, samples, count);
}

lib::Status trim_spread_outputs(int64_t pixels)
{
    lib::barrier();
    lib::Status trimmed;
    if (lib::ranks().rank == 0)
        for (const std::string& path : spread_outputs())
            if (truncate(path.c_str(), static_cast<off_t>(4 * (pixels > 0 ? pixels : 0))) != 0 && trimmed.ok())
                trimmed = write_error(path.c_str());
    spread_outputs().clear();
    return lib::agree(0, trimmed);
}

}  // namespace com
