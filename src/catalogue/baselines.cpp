// The baselines file is read whole into a table of (date1, date2, bperp), one
// record per line, and each interferogram then takes the first record whose
// two dates equal its own in the same order. The dates of a line are the
// first two found in its first field, by the same scan as the interferogram
// names, so the field may be the raster's name or just the two dates; the
// second field is the baseline.
//
// A pair is matched in the order of the names: the reversed pair would carry
// the opposite sign, so it is not taken. Lists often mark a baseline they
// could not compute with a large negative number; anything below -99999 is
// treated as absent, and so is a value that is not a finite number (NaN, an
// infinity, or a number such as 1e39 that overflows single precision): it
// would turn every output of the run into NaN. A missing baseline stops the
// run, because the DEM-error term of the inversion is meaningless without
// every one of them.
#include "catalogue/baselines.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "catalogue/filelist.h"
#include "config/cfg.h"
#include "config/fatal.h"
#include "config/text.h"
#include "numerics/arrays.h"

namespace com {
namespace {

constexpr float kNoBaseline = -999999.0f;  // marker until a record is found
constexpr double kLowestBaseline = -99999.0;

struct FreeBlock {
    void operator()(BASELINE* p) const { std::free(p); }
};
using Block = std::unique_ptr<BASELINE, FreeBlock>;

lib::Error missing_baseline(const CFG& cfg, const BASELINE& wanted)
{
    return lib::error(lib::Fault::format, cfg.baselines, lib::Stream::err, "baseline for %d-%d not found\n",
                      wanted.date1, wanted.date2);
}

}  // namespace

lib::Result<BASELINE*> get_baselines(const CFG& cfg)
{
    SBAS_TAKE(const lib::File file, lib::fopen_zq(cfg.baselines, "r"));

    size_t lines = 0;
    SBAS_TRY(lib::for_each_line(file.get(), cfg.baselines, true, [&](char*) { ++lines; }));

    // One spare record keeps an empty file from looking like a failed
    // allocation. Both blocks are released on every way out.
    const Block table_block(lib::need<BASELINE>(static_cast<int64_t>(lines) + 1));
    BASELINE* table = table_block.get();

    std::rewind(file.get());
    size_t rows = 0;
    SBAS_TRY(lib::for_each_line(file.get(), cfg.baselines, true, [&](char* line) {
        if (rows == lines) return;  // the file grew between the two passes
        char field[lib::kFieldBytes];
        lib::substr(field, line, 1);
        BASELINE& record = table[rows++];
        record.date1 = phsfilename2date(field, 1);
        record.date2 = phsfilename2date(field, 2);
        lib::substr(field, line, 2);
        record.bperp = static_cast<float>(lib::double_prefix(field));
    }));

    // Never null: an empty interferogram list gives a block with no records
    // in use, released like any other.
    const size_t n = cfg.ifg_names.size();
    Block result_block(lib::need<BASELINE>(n == 0 ? 1 : static_cast<int64_t>(n)));
    BASELINE* result = result_block.get();

    for (size_t i = 0; i < n; ++i) {
        const char* name = cfg.ifg_names[i].c_str();
        BASELINE& wanted = result[i];
        wanted.date1 = phsfilename2date(name, 1);
        wanted.date2 = phsfilename2date(name, 2);
        wanted.bperp = kNoBaseline;
        size_t k = 0;
        while (k < rows && !(table[k].date1 == wanted.date1 && table[k].date2 == wanted.date2)) ++k;
        if (k == rows) return missing_baseline(cfg, wanted);
        wanted.bperp = table[k].bperp;
        if (!(std::isfinite(wanted.bperp) && wanted.bperp >= kLowestBaseline)) return missing_baseline(cfg, wanted);
    }
    return result_block.release();
}

}  // namespace com
