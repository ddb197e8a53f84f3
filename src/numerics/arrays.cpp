// Allocation helpers. Sizes are 64-bit and the byte count is checked for
// overflow before use: width x length x count readily exceeds 32 bits. The
// messages print the sizes in full (the same text as a 32-bit print for
// every size that fits in 32 bits).
#include "numerics/arrays.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// Blocks of 2 MiB and more (a batch row, a map of a grid) start on a 2 MiB
// boundary and ask the kernel for transparent huge pages: a first touch then
// maps 2 MiB at once instead of 4 KiB, which saves most of the page-fault
// time of a fresh batch and the TLB misses of the kernels that walk many
// rows. A block is rounded up to whole huge pages only when that adds at
// most 1/16 of its size (a row of 10^6 floats: 4.9 %); otherwise its tail
// keeps small pages. Such blocks are released with std::free like any other.
constexpr size_t kHugePage = size_t{2} << 20;

void* block_to_fill(size_t bytes)
{
    if (bytes < kHugePage) return std::malloc(bytes);
    const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    const size_t advised = rounded - bytes <= bytes / 16 ? rounded : bytes - bytes % kHugePage;
    void* p = nullptr;
    if (posix_memalign(&p, kHugePage, std::max(bytes, advised)) != 0) return nullptr;
    madvise(p, advised, MADV_HUGEPAGE);
    return p;
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

// A zero-filled block of 2 MiB and more on huge pages, zeroed here: for
// blocks the caller writes nearly whole anyway (the maps of a batch).
void* zeroed_to_fill(size_t bytes)
{
    if (bytes < kHugePage) return std::calloc(1, bytes);
    void* p = block_to_fill(bytes);
    if (p) std::memset(p, 0, bytes);
    return p;
}

enum class Rows { lazy_zeros, zeros, unset };

template <typename T>
T** two_level(int64_t rows, int64_t cols, Rows kind = Rows::lazy_zeros)
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
        a[i] = static_cast<T*>(row_bytes ? (kind == Rows::lazy_zeros ? std::calloc(1, row_bytes) : kind == Rows::zeros ? zeroed_to_fill(row_bytes) : block_to_fill(row_bytes)) : nullptr);
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
    float** a = two_level<float>(rows, cols, Rows::zeros);
    if (!complete(a, rows, cols)) out_of_memory();
    return a;
}

float** need_rows_to_fill(int64_t rows, int64_t cols)
{
    float** a = two_level<float>(rows, cols, Rows::unset);
    if (!complete(a, rows, cols)) out_of_memory();
    return a;
}

float* per_interferogram(size_t n) { return need<float>(n > 0 ? static_cast<int64_t>(n) : 1); }

}  // namespace lib
