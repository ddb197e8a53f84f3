#include "numerics/error.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "numerics/progress.h"

namespace lib {

Error error(Fault kind, std::string subject, Stream stream, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string message(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(message.data(), message.size() + 1, format, again);
    va_end(again);
    return Error{kind, std::move(subject), std::move(message), stream};
}

void write(const Error& error)
{
    progress_clear();
    FILE* stream = error.stream == Stream::out ? stdout : stderr;
    std::fwrite(error.message.data(), 1, error.message.size(), stream);
    std::fflush(stream);
}

void exit_with(const Error& error, int code)
{
    write(error);
    std::exit(code);
}

}  // namespace lib
