// The filters work on complex copies of real rasters: a transform pair needs
// two arrays of the transformed size, taken from FFTW's own allocator so that
// every array of a given size has the alignment FFTW plans for. Their
// sizes are the only thing that can fail here, and a failure ends the run
// the way every failed allocation of the program does.
#include "filter/shared.h"

#include <climits>
#include <cstdio>
#include <limits>
#include <string>

#include "numerics/sink.h"

namespace com {

FftBuffers fft_buffers(int64_t n)
{
    FftBuffers buffers;
    if (n < 1) return buffers;
    if (static_cast<uint64_t>(n) > SIZE_MAX / sizeof(fftw_complex)) lib::out_of_memory();
    const size_t bytes = sizeof(fftw_complex) * static_cast<size_t>(n);
    buffers.a = static_cast<fftw_complex*>(fftw_malloc(bytes));
    buffers.b = static_cast<fftw_complex*>(fftw_malloc(bytes));
    if (!buffers.a || !buffers.b) lib::out_of_memory();
    return buffers;
}

void free_fft_buffers(FftBuffers& buffers)
{
    if (buffers.a) fftw_free(buffers.a);
    if (buffers.b) fftw_free(buffers.b);
    buffers = {};
}

int fft_size(int64_t n)
{
    if (n > INT_MAX) lib::out_of_memory();
    return static_cast<int>(n);
}

int64_t even_cut(int64_t n) { return n < 1 ? 0 : n - (n % 2); }

SeriesPadding pad_series(int64_t n)
{
    SeriesPadding padding;
    if (n < 1) return padding;
    padding.pad = n / 2;
    padding.length = n + 2 * padding.pad;
    if (padding.length % 2 != 0) ++padding.length;
    return padding;
}

double gauss_exponent(int64_t k, int64_t size, double sigma)
{
    const int64_t offset = k - size / 2;
    return static_cast<double>(offset * offset) / (2 * sigma * sigma);
}

double mean_date_spacing(const std::vector<DATEORDER>& dates)
{
    if (dates.empty()) return std::numeric_limits<double>::quiet_NaN();
    return (dates.back().mjd - dates.front().mjd) / static_cast<double>(dates.size() - 1);
}

Path map_path(const CFG& cfg, const std::vector<DATEORDER>& dates, size_t k, const char* suffix)
{
    const std::string name = "culmap-" + std::to_string(static_cast<int>(dates[k].date)) + "-" +
                             std::to_string(static_cast<int>(dates[0].date)) + ".disp" + suffix;
    return join_path(cfg.resultfolder, name.c_str());
}

}  // namespace com
