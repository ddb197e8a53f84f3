// `sbas-view report`: one self-contained HTML page of a run, to open from disk
// in any current browser: the velocity map (hover for a pixel's values,
// click for its history), the interferogram network and a summary.
//
// Nothing is loaded from a network: the data are inline (float32 arrays in
// base64), the script and styles are inline, the network figure is an inline
// PNG, and the page's content security policy forbids every other source.
// The map is drawn by the page's own script on a canvas.
//
// Size. The map holds at most kMapCells cells: every s-th row and column of
// the grid, s the smallest stride that fits. Histories are held on a coarser
// grid (a multiple of s) so that they hold at most kHistoryValues values,
// plus the pixels asked for with --pixel. Both strides are 1 on the
// examples; the page says when they are not. At 4 bytes per value in base64
// (5.33 characters), the data stay under about 8 MB.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "view/commands.h"
#include "view/determined.h"
#include "view/fail.h"
#include "view/guard.h"
#include "view/outputs.h"
#include "view/plot.h"
#include "view/report_page.h"

namespace view {
namespace {

constexpr int64_t kMapCells = 500000;
constexpr int64_t kHistoryValues = 600000;

std::string base64(const void* data, size_t bytes)
{
    static const char* const kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* in = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve((bytes + 2) / 3 * 4);
    for (size_t i = 0; i < bytes; i += 3) {
        const unsigned v = in[i] << 16 | (i + 1 < bytes ? in[i + 1] << 8 : 0) | (i + 2 < bytes ? in[i + 2] : 0);
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += i + 1 < bytes ? kAlphabet[v >> 6 & 63] : '=';
        out += i + 2 < bytes ? kAlphabet[v & 63] : '=';
    }
    return out;
}

std::string floats64(const std::vector<float>& v) { return base64(v.data(), v.size() * sizeof(float)); }

// A JavaScript string literal (also safe inside a <script> element).
std::string js_string(const std::string& text)
{
    std::string out = "\"";
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c == '<' || c == '>' || c == '&') {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", c);
            out += code;
        } else out += ch;
    }
    return out + "\"";
}

std::string number(double v)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.10g", v);
    return std::isfinite(v) ? text : "null";
}

std::string read_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// The network figure as PNG bytes, drawn into a temporary file.
std::string network_png(const Job& job)
{
    std::string name = (std::filesystem::temp_directory_path() / "sbas-view-network-XXXXXX").string();
    const int fd = mkstemp(name.data());
    if (fd < 0) fail("cannot create a temporary file for the network figure");
    close(fd);
    draw_network(job, name, {900, 520});
    std::string png = read_bytes(name);
    std::remove(name.c_str());
    return png;
}

int64_t stride_for(int64_t width, int64_t length, int64_t per_cell, int64_t budget, int64_t base)
{
    for (int64_t s = base;; s += base) {
        const int64_t cells = ((width + s - 1) / s) * ((length + s - 1) / s);
        if (cells * per_cell <= budget || (s >= width && s >= length)) return s;
    }
}

const char* filter_words(int filter)
{
    switch (filter) {
    case 1: return "spatial filter";
    case 2: return "temporal filter";
    case 3: return "temporal then spatial filter";
    case 4: return "spatial then temporal filter";
    case 5: return "spatio-temporal filter";
    default: return "no filter";
    }
}

}  // namespace

void run_report(const ReportOptions& options)
{
    if (!is_folder(options.result_dir)) fail("result folder %s does not exist", options.result_dir.c_str());
    const Job job = read_job(options.config);
    const Grid& grid = job.grid;
    const std::string& dir = options.result_dir;
    for (const auto& [row, col] : options.pixels)
        if (row < 0 || row >= grid.length || col < 0 || col >= grid.width)
            fail("--pixel %lld,%lld lies outside the grid of %lld rows x %lld columns (counted from 0)",
                 static_cast<long long>(row), static_cast<long long>(col), static_cast<long long>(grid.length),
                 static_cast<long long>(grid.width));
    claim_outputs(job_inputs(job, dir, true), {options.html});

    const std::vector<Pair> used = pairs_used(job, dir);
    const std::vector<int> dates = dates_of(used);
    if (dates.size() < 2) fail("the run's list has one date only: there is no history to show");
    bool have_filtered = true;
    for (size_t k = 1; k < dates.size(); ++k) {
        const std::string map = dir + "/" + culmap_name(dates[k], dates[0]);
        if (!is_file(map)) fail("result folder %s lacks %s", dir.c_str(), culmap_name(dates[k], dates[0]).c_str());
        have_filtered = have_filtered && is_file(map + ".filtered");
    }
    const std::string velocity_path = dir + "/linear_mean_velocity";
    if (!is_file(velocity_path)) fail("result folder %s lacks linear_mean_velocity", dir.c_str());
    const bool map_filtered = is_file(velocity_path + ".filtered");
    const Determination det = find_undetermined(job, dir);
    const Reference ref = reference_of(job, dir);

    // The map: every sm-th row and column.
    const int64_t sm = stride_for(grid.width, grid.length, 1, kMapCells, 1);
    const int64_t map_cols = (grid.width + sm - 1) / sm, map_rows = (grid.length + sm - 1) / sm;
    const std::string map_path = map_filtered ? velocity_path + ".filtered" : velocity_path;
    const Quantity vq = *quantity_of(map_path);
    std::vector<float> map_values(static_cast<size_t>(map_cols * map_rows));
    std::vector<unsigned char> map_status(map_values.size());
    std::vector<float> valid;
    {
        const std::vector<float> all = load_converted(map_path, vq, grid, Unit::mm, job.wavelength, &det);
        for (int64_t i = 0; i < map_rows; ++i)
            for (int64_t j = 0; j < map_cols; ++j) {
                const size_t p = static_cast<size_t>(i * sm * grid.width + j * sm);
                const size_t c = static_cast<size_t>(i * map_cols + j);
                map_values[c] = all[p];
                map_status[c] = det.undetermined[p] ? 2 : std::isnan(all[p]) ? 1 : 0;
            }
        for (float v : all)
            if (!std::isnan(v)) valid.push_back(v);
    }
    double low = 0, high = 0;
    if (!valid.empty()) robust_range(valid, low, high);
    const double limit = std::max({std::fabs(low), std::fabs(high), 1e-6});

    // The held pixels: a grid of stride sh, then the --pixel ones.
    const int64_t layers = have_filtered ? 2 : 1;
    const int64_t per_pixel = static_cast<int64_t>(dates.size() - 1) * layers + 1;
    const int64_t sh = stride_for(grid.width, grid.length, per_pixel, kHistoryValues, sm);
    const int64_t held_cols = (grid.width + sh - 1) / sh, held_rows = (grid.length + sh - 1) / sh;
    std::vector<std::pair<int64_t, int64_t>> held;
    for (int64_t i = 0; i < held_rows; ++i)
        for (int64_t j = 0; j < held_cols; ++j) held.emplace_back(i * sh, j * sh);
    std::vector<std::pair<int64_t, int64_t>> extras;
    for (const auto& pixel : options.pixels)
        if ((pixel.first % sh || pixel.second % sh) && std::find(extras.begin(), extras.end(), pixel) == extras.end())
            extras.push_back(pixel);
    held.insert(held.end(), extras.begin(), extras.end());

    const size_t steps = dates.size() - 1;
    std::vector<float> raw(held.size() * steps), filtered(have_filtered ? held.size() * steps : 0),
        speed(held.size());
    auto pick = [&](const std::string& path, std::vector<float>& into, size_t step, size_t count) {
        const std::vector<float> all = load_converted(path, *quantity_of(path), grid, Unit::mm, job.wavelength, &det);
        for (size_t h = 0; h < held.size(); ++h)
            into[h * count + step] = all[static_cast<size_t>(held[h].first * grid.width + held[h].second)];
    };
    for (size_t k = 1; k < dates.size(); ++k) {
        const std::string map = dir + "/" + culmap_name(dates[k], dates[0]);
        pick(map, raw, k - 1, steps);
        if (have_filtered) pick(map + ".filtered", filtered, k - 1, steps);
    }
    pick(velocity_path, speed, 0, 1);
    std::vector<unsigned char> status(held.size(), 0);
    for (size_t h = 0; h < held.size(); ++h) {
        const auto [row, col] = held[h];
        bool any = false;
        for (size_t k = 0; k < steps; ++k) any = any || !std::isnan(raw[h * steps + k]);
        if (ref.known && row == ref.row && col == ref.col) {
            status[h] = 3;
            if (!any) std::fill(raw.begin() + static_cast<long>(h * steps), raw.begin() + static_cast<long>((h + 1) * steps), 0.0f);
            if (std::isnan(speed[h])) speed[h] = 0.0f;
        } else if (det.at(row, col, grid.width)) status[h] = 2;
        else if (!any) status[h] = 1;
    }

    // The summary.
    const std::vector<Pair> listed = read_pairs(job.filelist);
    const std::vector<std::string> deleted = read_names(dir + "/filelist_deleted");
    const Switches& sw = job.switches;
    std::vector<std::string> stages;
    stages.push_back(is_file(dir + "/phase_loop_closure_mask") && sw.if_check_loop_closure == 1
                         ? "loop-closure check (" + std::to_string(deleted.size()) + " interferograms dropped)"
                         : "no loop-closure check");
    if (sw.if_remove_eds == 1) stages.push_back("elevation-dependent correction");
    if (sw.if_remove_orbit == 1) stages.push_back("orbital ramp correction");
    if (is_file(dir + "/linear_stacking_mean_velocity")) stages.push_back("linear stacking");
    stages.push_back(std::string("network inversion, ") +
                     (sw.temporal_constraint == 1   ? "linear temporal constraint"
                      : sw.temporal_constraint == 2 ? "logarithmic temporal constraint"
                                                    : "no temporal constraint") +
                     (sw.if_est_hgt == 1 ? ", DEM-error term" : ""));
    stages.push_back(have_filtered || map_filtered ? filter_words(sw.if_apply_filter) : "no filter");

    std::vector<int> all_dates = dates_of(listed);
    std::ostringstream data;
    data << "const DATA={";
    data << "title:" << js_string(dir) << ",";
    data << "width:" << grid.width << ",length:" << grid.length << ",";
    data << "x_first:" << number(grid.x_first) << ",y_first:" << number(grid.y_first) << ",x_step:"
         << number(grid.x_step) << ",y_step:" << number(grid.y_step) << ",";
    data << "wavelength:" << number(job.wavelength) << ",";
    data << "map:{stride:" << sm << ",cols:" << map_cols << ",rows:" << map_rows << ",filtered:"
         << (map_filtered ? "true" : "false") << ",limit:" << number(limit) << ",values:\"" << floats64(map_values)
         << "\",status:\"" << base64(map_status.data(), map_status.size()) << "\"},";
    data << "held:{stride:" << sh << ",cols:" << held_cols << ",rows:" << held_rows << ",extras:[";
    for (size_t e = 0; e < extras.size(); ++e) data << (e ? "," : "") << "[" << extras[e].first << "," << extras[e].second << "]";
    data << "],raw:\"" << floats64(raw) << "\",filtered:" << (have_filtered ? "\"" + floats64(filtered) + "\"" : "null")
         << ",velocity:\"" << floats64(speed) << "\",status:\"" << base64(status.data(), status.size()) << "\"},";
    data << "dates:[";
    for (size_t k = 0; k < dates.size(); ++k) data << (k ? "," : "") << js_string(iso_date(dates[k]));
    data << "],days:[";
    for (size_t k = 0; k < dates.size(); ++k) data << (k ? "," : "") << day_number(dates[k]) - day_number(dates[0]);
    data << "],";
    data << "reference:" << (ref.known ? "[" + std::to_string(ref.row) + "," + std::to_string(ref.col) + "]" : "null")
         << ",";
    data << "undetermined:" << (det.bridged ? -1 : det.undetermined_count) << ",noEstimate:" << det.no_estimate_count
         << ",";
    data << "summary:{dates:" << all_dates.size() << ",usedDates:" << dates.size() << ",first:"
         << js_string(iso_date(all_dates.front())) << ",last:" << js_string(iso_date(all_dates.back()))
         << ",listed:" << listed.size() << ",used:" << used.size() << ",dropped:[";
    for (size_t k = 0; k < deleted.size(); ++k) data << (k ? "," : "") << js_string(deleted[k]);
    data << "],stages:[";
    for (size_t k = 0; k < stages.size(); ++k) data << (k ? "," : "") << js_string(stages[k]);
    data << "]}};\n";

    const std::string png = network_png(job);
    std::string page = report_page();
    auto put = [&](const std::string& slot, const std::string& text) {
        const size_t at = page.find(slot);
        if (at != std::string::npos) page.replace(at, slot.size(), text);
    };
    put("@DATA@", data.str());
    put("@NETWORK@", base64(png.data(), png.size()));

    FILE* file = std::fopen(options.html.c_str(), "wb");
    if (!file) fail("cannot write %s: %s", options.html.c_str(), std::strerror(errno));
    const bool ok = std::fwrite(page.data(), 1, page.size(), file) == page.size();
    if (std::fclose(file) != 0 || !ok) fail("cannot write %s", options.html.c_str());
    std::printf("%s\n", options.html.c_str());
}

}  // namespace view
