// The rasters as a run reads them: the input is every interferogram of the
// job (6 x 4 grid, three interferograms), read whole with the size check, a
// sample at a time off and on the grid, and as batches of the stack loader
// with the reference values subtracted and a closure mask. The first two
// bytes choose the batch.
#include <cstdint>
#include <cstdio>

#include "app/job.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "config/cfg.h"
#include "fuzz_support.h"
#include "numerics/arrays.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    for (const char* name : {"ifg/geo_20200101_20200113.unw", "ifg/geo_20200113_20200125.unw",
                             "ifg/geo_20200101_20200125.unw"})
        fuzz::write_input(name, data, size);
    const int64_t first = size > 0 ? data[0] % 30 : 0;
    const int64_t length = size > 1 ? data[1] % 30 : 24;
    fuzz::run([&]() -> lib::Status {
        SBAS_TAKE(const JOB job, app::load_job("config.txt"));
        const CFG& cfg = job.cfg;
        const int64_t pixels = com::pixel_count(job.header);
        const lib::Owned<float> whole(pixels);
        const lib::Status read = com::read_raster("ifg/geo_20200101_20200113.unw", 0, pixels, whole.get());
        static_cast<void>(read);
        if (FILE* raster = std::fopen("ifg/geo_20200113_20200125.unw", "rb")) {
            for (int64_t row = -1; row <= job.header.FILE_LENGTH; ++row)
                static_cast<void>(com::readonerecord(raster, row, first - 1, job.header));
            std::fclose(raster);
        }
        const int64_t end = first + length < pixels ? first + length : pixels;
        if (first >= end) return {};
        const lib::Owned<float> reference(static_cast<int64_t>(cfg.ifg_names.size()));
        reference[1] = 0.5f;
        lib::Owned<float> mask(pixels);
        mask[first] = 1.0f;
        const lib::Owned<int> counts(end - first);
        SBAS_TAKE(float** stack, com::readallfile(cfg, first, end, reference.get(), mask.get(), counts.get()));
        lib::free2d_float(stack, static_cast<int>(cfg.ifg_names.size()));
        return {};
    });
    return 0;
}
