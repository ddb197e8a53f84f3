// Ending a run from any thread. A worker inside an OpenMP region may hit a
// fatal input error while its siblings still read files, so the sink takes a
// lock it never releases (later failures wait for the process to end), flushes
// every stdio stream, and leaves with _Exit so that no static destructor runs
// under a live thread.
#include "config/fatal.h"

#include <cstdarg>
#include <cstdlib>
#include <mutex>

namespace lib {
namespace {

std::recursive_mutex& sink_lock()
{
    static std::recursive_mutex lock;
    return lock;
}

[[noreturn]] void end_run()
{
    std::fflush(nullptr);
    std::_Exit(0);
}

[[noreturn]] void vdie(FILE* stream, const char* format, va_list args)
{
    sink_lock().lock();
    std::vfprintf(stream, format, args);
    end_run();
}

}  // namespace

FILE* fopen_zq(const char* path, const char* mode)
{
    FILE* f = std::fopen(path, mode);
    if (f) return f;
    sink_lock().lock();
    std::printf("%s not found", path);
    exit_zq("\nfile not exit");
}

void exit_zq(const char* message)
{
    sink_lock().lock();
    std::printf("%s\n", message);
    end_run();
}

void die(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vdie(stderr, format, args);
}

void die_stdout(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vdie(stdout, format, args);
}

}  // namespace lib
