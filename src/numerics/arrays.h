// Array allocation for the stages.
//
// Flat arrays are one block of n x m elements, row-major, released with
// std::free. Two-level arrays are a block of row pointers, each row its own
// block, released with the matching free2d_* helper.
//
// The helpers report a failed allocation on standard output and return null
// (a two-level array may come back with null rows); they never end the run.
// Callers that cannot go on without the memory end the run themselves with
// out_of_memory().
#pragma once

#include <cstdint>

namespace lib {

// Zero-filled blocks of n*m elements; null (without a message) when n < 1 or
// m < 1, null with "Memory allocation error: n=%d,m=%d\n" when memory fails.
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

// Ends the run (status 0) with "Could not allocate memory!\n" on standard
// error, for callers whose allocation came back null.
[[noreturn]] void out_of_memory();

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
