// The missing-file message: the path and "not found" without a line feed,
// then "file not exit" on a line of its own, all on standard output, as one
// message.
//
// Inputs are opened without waiting (O_NONBLOCK) and their type is taken
// from the open descriptor, so what is checked is what is read: a named
// pipe opens at once and is refused, as are directories and devices (a
// character device such as /dev/zero never reaches end of file). Blocking
// reads are restored before the stream is handed out.
#include "config/fatal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace lib {
namespace {

bool read_only(const char* mode) { return mode[0] == 'r' && !std::strchr(mode, '+'); }

const char* kind_of(mode_t mode)
{
    if (S_ISDIR(mode)) return "directory";
    if (S_ISFIFO(mode)) return "named pipe";
    if (S_ISCHR(mode)) return "character device";
    if (S_ISBLK(mode)) return "block device";
    if (S_ISSOCK(mode)) return "socket";
    return "special file";
}

}  // namespace

Result<File> fopen_zq(const char* path, const char* mode)
{
    if (!read_only(mode)) {
        FILE* f = std::fopen(path, mode);
        if (f) return File(f);
        return not_found(path);
    }
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return not_found(path);
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return not_regular(path, st.st_mode);
    }
    FILE* f = fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0 ? fdopen(fd, mode) : nullptr;
    if (f) return File(f);
    close(fd);
    return not_found(path);
}

bool opens_for_reading(const char* path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    close(fd);
    return true;
}

Error not_found(const char* path)
{
    return error(Fault::missing, path, Stream::out, "%s not found\nfile not exit\n", path);
}

Error not_regular(const char* path, mode_t mode)
{
    return error(Fault::not_regular, path, Stream::err, "%s is a %s, not a regular file\n", path, kind_of(mode));
}

Error exit_zq(const char* message) { return error(Fault::data, "", Stream::out, "%s\n", message); }

}  // namespace lib
