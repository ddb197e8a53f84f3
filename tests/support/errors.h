// Test support for calls that report errors as values.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "numerics/error.h"

namespace testing_support {

// The value of a call that must succeed; the test stops with the message
// of the error otherwise.
template <typename T>
T must(lib::Result<T> result)
{
    if (!result.ok()) {
        ADD_FAILURE() << "unexpected error: " << result.error().message;
        std::abort();
    }
    return std::move(*result);
}

inline void must(const lib::Status& status)
{
    if (!status.ok()) {
        ADD_FAILURE() << "unexpected error: " << status.error().message;
        std::abort();
    }
}

// The message a call reported, prefixed "out: " or "err: " by its stream;
// "" when it reported nothing.
template <typename R>
std::string reported(const R& result)
{
    if (result.ok()) return "";
    return (result.error().stream == lib::Stream::out ? "out: " : "err: ") + result.error().message;
}

// For calls made in a child process (run_in_child) whose output is
// compared with a run's: the value, or the error written as the entry point
// writes it and the child ended with status 0, as a run that stops.
template <typename T>
T or_stop(lib::Result<T> result)
{
    if (!result.ok()) {
        lib::write(result.error());
        std::fflush(nullptr);
        std::_Exit(0);
    }
    return std::move(*result);
}

inline void or_stop(const lib::Status& status)
{
    if (!status.ok()) {
        lib::write(status.error());
        std::fflush(nullptr);
        std::_Exit(0);
    }
}

}  // namespace testing_support
