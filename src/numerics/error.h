// Errors as values: what a reader or a stage reports to its caller when a
// job cannot go on, and the one place that turns it into the end of a run.
//
// Nothing below the entry point ends the process for bad input. A reader
// returns an Error (its kind, the file or key it concerns, the message as
// the run writes it, and the stream it goes to); each caller hands it up
// unchanged, and the entry point writes the message and chooses the exit
// status. The message and the point of the run where it appears are what
// they always were; only the place that ends the process moved.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace lib {

// Where a message is written. Most go to standard error; the missing-file
// and missing-folder messages, the date range checks and a reference value
// that cannot be found go to standard output, as users' scripts expect.
enum class Stream { out, err };

enum class Fault {
    missing,      // a file or folder that is not there
    not_regular,  // a device, pipe or folder where a file is meant
    format,       // a text file or name that does not read
    size,         // a raster shorter than its grid
    read,         // a read that failed
    write,        // an output that could not be written
    setting,      // a configuration value the run cannot use
    data,         // input that holds no usable value (no reference, no loop)
    overlap,      // an output that would overwrite an input
};

struct Error {
    Fault kind = Fault::format;
    std::string subject;  // the file, key or name it concerns
    std::string message;  // written as it stands, line feeds included
    Stream stream = Stream::err;
};

// An Error with a printf-formatted message.
Error error(Fault kind, std::string subject, Stream stream, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Writes the message to its stream, after erasing a progress line that
// may stand on a terminal.
void write(const Error& error);

// Nothing to report, or one Error.
class [[nodiscard]] Status {
public:
    Status() = default;
    Status(Error error) : error_(std::move(error)) {}
    bool ok() const { return !error_; }
    const Error& error() const& { return *error_; }
    Error&& error() && { return std::move(*error_); }

private:
    std::optional<Error> error_;
};

// A value, or the Error that stood in its way.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : held_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : held_(std::in_place_index<1>, std::move(error)) {}
    bool ok() const { return held_.index() == 0; }
    T& operator*() { return std::get<0>(held_); }
    const T& operator*() const { return std::get<0>(held_); }
    T* operator->() { return &std::get<0>(held_); }
    const Error& error() const& { return std::get<1>(held_); }
    Error&& error() && { return std::move(std::get<1>(held_)); }

private:
    std::variant<T, Error> held_;
};

// The error of the lowest item index met by the workers of a parallel
// region. A worker that fails at item i records it; workers skip items past
// the lowest failure so far (nothing after it can change what is
// reported), and the region hands status() to its caller. The message is
// therefore the same whatever the thread count and whichever thread got
// there first: the one a single thread walking the items in order meets.
struct FirstError {
    std::mutex lock;
    int64_t index = INT64_MAX;
    std::optional<Error> error;

    void record(int64_t item, Error failure)
    {
        const std::lock_guard<std::mutex> hold(lock);
        if (item < index) {
            index = item;
            error = std::move(failure);
        }
    }
    // True when an item before `item` already failed.
    bool past(int64_t item)
    {
        const std::lock_guard<std::mutex> hold(lock);
        return item > index;
    }
    Status status() { return error ? Status(std::move(*error)) : Status(); }
};

// For programs built on the library that have no better way out (the
// benchmarks, test fixtures): the value, or the message written and the
// process ended with `code`.
[[noreturn]] void exit_with(const Error& error, int code);

template <typename T>
T value_or_exit(Result<T> result, int code = 1)
{
    if (!result.ok()) exit_with(result.error(), code);
    return std::move(*result);
}

inline void ok_or_exit(const Status& status, int code = 1)
{
    if (!status.ok()) exit_with(status.error(), code);
}

}  // namespace lib

// Hands an error up: evaluates a Status or Result and returns its Error
// from the enclosing function when there is one.
#define SBAS_TRY(expression)                                    \
    do {                                                        \
        auto sbas_try_ = (expression);                          \
        if (!sbas_try_.ok()) return std::move(sbas_try_).error(); \
    } while (0)

#define SBAS_JOIN2(a, b) a##b
#define SBAS_JOIN(a, b) SBAS_JOIN2(a, b)
// `declaration` = the value of a Result, or the enclosing function returns
// its Error: SBAS_TAKE(const HEADER header, com::readheader(path));
#define SBAS_TAKE(declaration, expression)                                          \
    auto SBAS_JOIN(sbas_take_, __LINE__) = (expression);                           \
    if (!SBAS_JOIN(sbas_take_, __LINE__).ok())                                     \
        return std::move(SBAS_JOIN(sbas_take_, __LINE__)).error();                 \
    declaration = std::move(*SBAS_JOIN(sbas_take_, __LINE__))
