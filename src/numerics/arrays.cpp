// Allocation helpers. Sizes are 64-bit and the byte count is checked for
// overflow before use: width x length x count readily exceeds 32 bits. The
// messages print the sizes in full (the same text as a 32-bit print for
// every size that fits in 32 bits).
#include "numerics/arrays.h"

#include <cstdio>
#include <cstdlib>
#include <limits>


namespace lib {
namespace {

// Byte count of n*m elements of `size` bytes, or 0 when it does not fit.
size_t block_bytes(int64_t n, int64_t m, size_t size)
{
    const auto limit = std::numeric_limits<size_t>::max() / size;
    const auto un = static_cast<uint64_t>(n);
    const auto um = static_cast<uint64_t>(m);
    if (un > limit || um > limit / un) return 0;
    return static_cast<size_t>(un * um) * size;
}

void* zero_bytes(int64_t n, int64_t m, size_t size)
{
    if (n < 1 || m < 1) return nullptr;
    const size_t bytes = block_bytes(n, m, size);
    void* p = bytes ? std::calloc(1, bytes) : nullptr;
    if (!p) std::printf("Memory allocation error: n=%lld,m=%lld\n", static_cast<long long>(m), static_cast<long long>(n));
    return p;
}

template <typename T>
T* zero_block(int64_t n, int64_t m)
{
    return static_cast<T*>(zero_bytes(n, m, sizeof(T)));
}

template <typename T>
T* raw_block(int64_t n, int64_t m, const char* what)
{
    if (n < 1 || m < 1) return nullptr;
    const size_t bytes = block_bytes(n, m, sizeof(T));
    void* p = bytes ? std::malloc(bytes) : nullptr;
    if (!p)
        std::printf("%smemory allocation error: n=%lld,m=%lld\n", what, static_cast<long long>(n),
                    static_cast<long long>(m));
    return static_cast<T*>(p);
}

template <typename T>
T** two_level(int64_t rows, int64_t cols)
{
    if (rows < 1) return nullptr;
    const size_t pointer_bytes = block_bytes(rows, 1, sizeof(T*));
    auto** a = static_cast<T**>(pointer_bytes ? std::calloc(1, pointer_bytes) : nullptr);
    if (!a) {
        std::printf("Allocating memory wrong, no enough memory!");
        return nullptr;
    }
    if (cols < 1) return a;
    const size_t row_bytes = block_bytes(cols, 1, sizeof(T));
    for (int64_t i = 0; i < rows; ++i) {
        a[i] = static_cast<T*>(row_bytes ? std::calloc(1, row_bytes) : nullptr);
        if (!a[i]) std::printf("Allocating memory wrong, no enough memory!");
    }
    return a;
}

template <typename T>
void free_two_level(T** a, int rows)
{
    if (!a) return;
    for (int i = 0; i < rows; ++i) std::free(a[i]);
    std::free(a);
}

}  // namespace

void* zeros_bytes(int64_t n, size_t size) { return zero_bytes(n, 1, size); }

void* try_zeros_bytes(int64_t n, size_t size)
{
    if (n < 1) return nullptr;
    const size_t bytes = block_bytes(n, 1, size);
    return bytes ? std::calloc(1, bytes) : nullptr;
}

bool fits_in_memory(int64_t n, size_t size)
{
    void* probe = try_zeros_bytes(n, size);
    std::free(probe);
    return n < 1 || probe != nullptr;
}

int* zeros_int(int64_t n, int64_t m) { return zero_block<int>(n, m); }
float* zeros_float(int64_t n, int64_t m) { return zero_block<float>(n, m); }
double* zeros(int64_t n, int64_t m) { return zero_block<double>(n, m); }

double* mat(int64_t n, int64_t m) { return raw_block<double>(n, m, "matrix "); }
int* imat(int64_t n, int64_t m) { return raw_block<int>(n, m, "integer matrix "); }

int** create_2d_array_int(int64_t rows, int64_t cols) { return two_level<int>(rows, cols); }
float** create_2d_array_float(int64_t rows, int64_t cols) { return two_level<float>(rows, cols); }
double** create_2d_array(int64_t rows, int64_t cols) { return two_level<double>(rows, cols); }

void free2d_int(int** a, int rows) { free_two_level(a, rows); }
void free2d_float(float** a, int rows) { free_two_level(a, rows); }
void free2d_double(double** a, int rows) { free_two_level(a, rows); }

float** need_rows(int64_t rows, int64_t cols)
{
    float** a = create_2d_array_float(rows, cols);
    if (!complete(a, rows, cols)) out_of_memory();
    return a;
}

float* per_interferogram(size_t n) { return need<float>(n > 0 ? static_cast<int64_t>(n) : 1); }

}  // namespace lib
