// One seek and one read per file per batch: the stages touch each raster in
// a single contiguous stretch, the cheapest access a disk or a network file
// system offers.
#include "catalogue/raster.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "config/fatal.h"

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
    (void)got;
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

lib::Status write_batch(const char* folder, const char* name, int64_t batch_first, const float* samples,
                        int64_t count)
{
    const Path path = join_path(folder, name);
    return write_samples(path.c_str(), batch_mode(batch_first), samples, count);
}

}  // namespace com
