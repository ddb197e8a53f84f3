// The four subcommands of sbas-view. Each takes its parsed options, reads
// what it needs, writes its files and prints their paths on standard output;
// an error ends the process through view::fail.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "view/rasters.h"

namespace view {

// Size of a figure in pixels.
struct PageSize {
    int width = 1200;
    int height = 800;
};

// export RESULTDIR --config CFG [--out DIR] [--unit rad|mm|m]
struct ExportOptions {
    std::string result_dir;
    std::string config;
    std::string out_dir;  // empty: RESULTDIR/export
    Unit unit = Unit::rad;
    bool keep_undetermined = false;  // keep the raw values of undetermined pixels
};
void run_export(const ExportOptions& options);

// map RASTER --config CFG [--unit rad|mm|m] -o PNG [--size WxH]
struct MapOptions {
    std::string raster;
    std::string config;
    std::string png;
    Unit unit = Unit::rad;
    PageSize size;
};
void run_map(const MapOptions& options);

// series RESULTDIR --config CFG (--pixel ROW COL | --lonlat LON LAT) -o PNG
//        [--csv FILE] [--unit rad|mm|m] [--size WxH]
struct SeriesOptions {
    std::string result_dir;
    std::string config;
    std::string png;
    std::string csv;
    Unit unit = Unit::rad;
    bool by_lonlat = false;
    int64_t row = 0, col = 0;   // --pixel, 0-based like ref_row/ref_col
    double lon = 0, lat = 0;    // --lonlat, degrees
    PageSize size;
};
void run_series(const SeriesOptions& options);

// network --config CFG -o PNG [--size WxH]; the result folder is the
// configuration's, where the loop-closure check lists what it dropped.
struct NetworkOptions {
    std::string config;
    std::string png;
    PageSize size;
};
void run_network(const NetworkOptions& options);

// report RESULTDIR --config CFG -o HTML [--pixel R,C ...]
struct ReportOptions {
    std::string result_dir;
    std::string config;
    std::string html;
    std::vector<std::pair<int64_t, int64_t>> pixels;  // held in full whatever the decimation
};
void run_report(const ReportOptions& options);

// The network figure of `job` as a PNG at `png` (the output already claimed).
void draw_network(const Job& job, const std::string& png, PageSize size);

}  // namespace view
