// Array allocation for the stages.
//
// Flat arrays are one block of n x m elements, row-major, released with
// std::free. Two-level arrays are a block of row pointers, each row its own
// block, released with the matching free2d_* helper.
//
// The helpers report a failed allocation on standard output and return null
// (a two-level array may come back with null rows); they never end the run.
//
// The idiom for every buffer whose size comes from the input (a grid, a list,
// a batch) is need<T>() or need_rows(): the helper above, and when memory
// fails its message followed by "Could not allocate memory!\n" and the end
// of the run, never a crash on null. Small fixed-shape scratch may be a
// std::vector; the program's entry point turns a failed operator new into
// the same stop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "numerics/sink.h"

namespace lib {

// Zero-filled blocks of n*m elements; null (without a message) when n < 1 or
// m < 1, null with "Memory allocation error: n=%lld,m=%lld\n" (m first, the
// sizes in 64 bits) when memory fails.
int* zeros_int(int64_t n, int64_t m);
float* zeros_float(int64_t n, int64_t m);
double* zeros(int64_t n, int64_t m);

// Uninitialised blocks of n*m doubles / int32; null when n < 1 or m < 1.
double* mat(int64_t n, int64_t m);
int* imat(int64_t n, int64_t m);

// rows pointers to zero-filled rows of cols elements. A failed pointer block
// or row prints "Allocating memory wrong, no enough memory!" and goes on.
int** create_2d_array_int(int64_t rows, int64_t cols);
float** create_2d_array_float(int64_t rows, int64_t cols);
double** create_2d_array(int64_t rows, int64_t cols);

// Free each of the first `rows` rows, then the pointer block. Null is ignored.
void free2d_int(int** a, int rows);
void free2d_float(float** a, int rows);
void free2d_double(double** a, int rows);

// A zero-filled block of n elements of `size` bytes with the overflow check
// and the message of zeros(n, 1); null when n < 1 or memory fails.
void* zeros_bytes(int64_t n, size_t size);

// A zero-filled block of n elements of `size` bytes, null without a message
// when n < 1, the byte count overflows or memory fails: for a size claimed by
// an input, which the caller then reports naming that input.
void* try_zeros_bytes(int64_t n, size_t size);

// True when a block of n elements of `size` bytes can be had now (n < 1
// needs nothing). The probe is released at once; calloc only reserves the
// pages, so it costs no time even for a large grid.
bool fits_in_memory(int64_t n, size_t size);

// A zero-filled block of n elements (std::free), or the end of the run when
// memory fails. n < 1 gives null: nothing to hold. T is a plain record or
// number whose all-zero bytes are its zero value.
template <typename T>
T* need(int64_t n)
{
    static_assert(std::is_trivially_copyable_v<T>, "need<T> holds plain records only");
    T* p = static_cast<T*>(zeros_bytes(n, sizeof(T)));
    if (!p && n > 0) out_of_memory();
    return p;
}

// A block from need<T> that frees itself: for work buffers sized by the
// input that live as long as a scope or a record. Movable, not copyable.
template <typename T>
class Owned {
public:
    Owned() = default;
    explicit Owned(int64_t n) : data_(need<T>(n)) {}
    ~Owned() { std::free(data_); }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    Owned(Owned&& other) noexcept : data_(other.data_) { other.data_ = nullptr; }
    Owned& operator=(Owned&& other) noexcept
    {
        T* held = data_;
        data_ = other.data_;
        other.data_ = held;
        return *this;
    }
    T* get() const { return data_; }
    T& operator[](int64_t i) const { return data_[i]; }
    // Takes charge of a block of the helpers above (std::free).
    static Owned adopt(T* block)
    {
        Owned owned;
        owned.data_ = block;
        return owned;
    }
    // Hands the block to the caller, who frees it.
    T* release()
    {
        T* held = data_;
        data_ = nullptr;
        return held;
    }

private:
    T* data_ = nullptr;
};

// rows x cols zero-filled floats (lib::free2d_float), or the end of the run
// when any part fails. rows < 1 gives null. Rows of 2 MiB and more lie on
// transparent huge pages and are zeroed here at once: for arrays that are
// written nearly whole (the maps of a batch), where this saves most of the
// page faults.
float** need_rows(int64_t rows, int64_t cols);

// need_rows without the zeros, for a caller that writes every element of
// every row before reading any (a batch read from the files).
float** need_rows_to_fill(int64_t rows, int64_t cols);

// One zero float per interferogram of a list of n, and never an empty block
// (one entry when n is 0), so that callers may index and free it alike.
float* per_interferogram(size_t n);

// True when a 2-D array of rows x cols is fully allocated (every row present
// when cols > 0).
template <typename T>
bool complete(T** a, int64_t rows, int64_t cols)
{
    if (rows < 1) return true;
    if (!a) return false;
    if (cols < 1) return true;
    for (int64_t i = 0; i < rows; ++i)
        if (!a[i]) return false;
    return true;
}

}  // namespace lib
