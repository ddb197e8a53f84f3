// An ifgramStack.h5 source: datasets unwrapPhase (n x rows x cols), date
// (n x 2 strings yyyymmdd), bperp (n) and dropIfgram (n booleans, true for a
// pair that is kept), and the frame and wavelength as attributes of the
// file, stored as strings or numbers. X_FIRST, Y_FIRST there are the corner
// of the first pixel.
#include <hdf5.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "prep/fail.h"
#include "prep/prep.h"

namespace prep {
namespace {

void quiet() { H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr); }

hid_t open_file(const std::string& path)
{
    quiet();
    const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    if (file < 0) fail("cannot open the HDF5 file %s", path.c_str());
    return file;
}

// The strings of a string dataset or attribute (fixed or variable length).
std::vector<std::string> read_strings(hid_t object, bool attribute, size_t count)
{
    const hid_t type = attribute ? H5Aget_type(object) : H5Dget_type(object);
    std::vector<std::string> out;
    const hid_t memory = H5Tcopy(H5T_C_S1);
    herr_t status;
    if (H5Tis_variable_str(type) > 0) {
        H5Tset_size(memory, H5T_VARIABLE);
        std::vector<char*> text(count, nullptr);
        status = attribute ? H5Aread(object, memory, text.data())
                           : H5Dread(object, memory, H5S_ALL, H5S_ALL, H5P_DEFAULT, text.data());
        for (char* t : text) {
            out.emplace_back(t ? t : "");
            std::free(t);
        }
    } else {
        const size_t size = H5Tget_size(type);
        H5Tset_size(memory, size);
        std::vector<char> text(size * count + 1, '\0');
        status = attribute ? H5Aread(object, memory, text.data())
                           : H5Dread(object, memory, H5S_ALL, H5S_ALL, H5P_DEFAULT, text.data());
        for (size_t k = 0; k < count; ++k) out.emplace_back(text.data() + k * size, strnlen(text.data() + k * size, size));
    }
    H5Tclose(memory);
    H5Tclose(type);
    if (status < 0) out.clear();
    return out;
}

// A file attribute as a number, whether stored as text or as a number.
std::optional<double> number(hid_t file, const char* name)
{
    if (H5Aexists(file, name) <= 0) return std::nullopt;
    const hid_t attr = H5Aopen(file, name, H5P_DEFAULT);
    const hid_t type = H5Aget_type(attr);
    std::optional<double> value;
    if (H5Tget_class(type) == H5T_STRING) {
        const auto text = read_strings(attr, true, 1);
        char* end = nullptr;
        const double v = text.empty() ? 0 : std::strtod(text[0].c_str(), &end);
        if (!text.empty() && end != text[0].c_str()) value = v;
    } else {
        double v = 0;
        if (H5Aread(attr, H5T_NATIVE_DOUBLE, &v) >= 0) value = v;
    }
    H5Tclose(type);
    H5Aclose(attr);
    return value;
}

std::string text_attribute(hid_t file, const char* name)
{
    if (H5Aexists(file, name) <= 0) return "";
    const hid_t attr = H5Aopen(file, name, H5P_DEFAULT);
    const hid_t type = H5Aget_type(attr);
    const auto text = H5Tget_class(type) == H5T_STRING ? read_strings(attr, true, 1) : std::vector<std::string>{};
    H5Tclose(type);
    H5Aclose(attr);
    return text.empty() ? "" : text[0];
}

std::vector<hsize_t> dims_of(hid_t dataset)
{
    const hid_t space = H5Dget_space(dataset);
    std::vector<hsize_t> dims(std::max(H5Sget_simple_extent_ndims(space), 0));
    H5Sget_simple_extent_dims(space, dims.data(), nullptr);
    H5Sclose(space);
    return dims;
}

double need(hid_t file, const char* name, const std::string& path)
{
    const auto v = number(file, name);
    if (!v || !std::isfinite(*v))
        fail("%s has no attribute %s: the stack is not geocoded (radar coordinates?); sbas-ts needs a geocoded stack",
             path.c_str(), name);
    return *v;
}

}  // namespace

bool is_hdf5(const std::string& path)
{
    quiet();
    return H5Fis_hdf5(path.c_str()) > 0;
}

Plan plan_stack(const Options& o)
{
    Plan plan;
    plan.source = o.source;
    plan.source_kind = "HDF5 stack";
    plan.inputs.push_back(o.source);
    const hid_t file = open_file(o.source);
    if (H5Lexists(file, "unwrapPhase", H5P_DEFAULT) <= 0)
        fail("%s holds no dataset unwrapPhase: not an interferogram stack", o.source.c_str());
    const hid_t phase = H5Dopen2(file, "unwrapPhase", H5P_DEFAULT);
    const auto dims = dims_of(phase);
    H5Dclose(phase);
    if (dims.size() != 3 || dims[0] == 0 || dims[1] == 0 || dims[2] == 0)
        fail("%s: unwrapPhase is not a stack of interferograms x rows x columns", o.source.c_str());
    const size_t n = dims[0];

    if (H5Lexists(file, "date", H5P_DEFAULT) <= 0) fail("%s holds no dataset date", o.source.c_str());
    const hid_t date = H5Dopen2(file, "date", H5P_DEFAULT);
    const auto date_dims = dims_of(date);
    std::vector<std::string> dates;
    if (date_dims.size() == 2 && date_dims[0] == n && date_dims[1] == 2) dates = read_strings(date, false, 2 * n);
    H5Dclose(date);
    if (dates.size() != 2 * n)
        fail("%s: date is not %zu x 2 strings yyyymmdd, one pair per interferogram", o.source.c_str(), n);
    for (std::string& d : dates) {
        d.erase(d.find_last_not_of(" \t") + 1);
        d.erase(0, d.find_first_not_of(" \t"));
    }

    auto read_vector = [&](const char* name, hid_t type, void* into) {
        if (H5Lexists(file, name, H5P_DEFAULT) <= 0) return false;
        const hid_t d = H5Dopen2(file, name, H5P_DEFAULT);
        const auto dd = dims_of(d);
        const bool ok = dd.size() == 1 && dd[0] == n && H5Dread(d, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, into) >= 0;
        H5Dclose(d);
        if (!ok) fail("%s: %s is not one value per interferogram", o.source.c_str(), name);
        return true;
    };
    std::vector<double> bperp(n);
    const bool has_bperp = read_vector("bperp", H5T_NATIVE_DOUBLE, bperp.data());
    // Booleans as written by common HDF5 writers: an 8-bit enum or integer.
    std::vector<signed char> keep(n, 1);
    if (H5Lexists(file, "dropIfgram", H5P_DEFAULT) > 0) {
        const hid_t d = H5Dopen2(file, "dropIfgram", H5P_DEFAULT);
        const hid_t type = H5Dget_type(d);
        const hid_t native = H5Tget_native_type(type, H5T_DIR_ASCEND);
        const auto dd = dims_of(d);
        const bool ok = dd.size() == 1 && dd[0] == n && H5Tget_size(type) == 1 &&
                        H5Dread(d, native, H5S_ALL, H5S_ALL, H5P_DEFAULT, keep.data()) >= 0;
        H5Tclose(native);
        H5Tclose(type);
        H5Dclose(d);
        if (!ok) fail("%s: dropIfgram is not one boolean per interferogram", o.source.c_str());
    }

    const std::string unit = text_attribute(file, "X_UNIT");
    const Grid g{static_cast<int64_t>(dims[2]), static_cast<int64_t>(dims[1]), need(file, "X_FIRST", o.source),
                 need(file, "Y_FIRST", o.source), need(file, "X_STEP", o.source), need(file, "Y_STEP", o.source)};
    if ((!unit.empty() && unit.find("deg") == std::string::npos) || std::fabs(g.x0) > 360 || std::fabs(g.y0) > 90)
        fail("%s is geocoded in projected coordinates (X_FIRST %.10g%s%s); sbas-ts needs longitude/latitude",
             o.source.c_str(), g.x0, unit.empty() ? "" : " ", unit.c_str());
    for (const char* key : {"WIDTH", "LENGTH"}) {
        const auto v = number(file, key);
        const double want = key[0] == 'W' ? static_cast<double>(g.width) : static_cast<double>(g.length);
        if (v && *v != want)
            fail("%s: attribute %s is %.0f but unwrapPhase holds %.0f", o.source.c_str(), key, *v, want);
    }
    if (const auto w = number(file, "WAVELENGTH"); w && *w > 0 && *w < 1)
        plan.wavelength = Found{*w, o.source + " (attribute WAVELENGTH)"};
    H5Fclose(file);
    plan.grid = g;

    for (size_t k = 0; k < n; ++k) {
        if (!keep[k]) {
            ++plan.dropped;
            continue;
        }
        const std::string name = dates[2 * k] + "_" + dates[2 * k + 1];
        const auto d = dates_in(name);
        if (!d || dates[2 * k].size() != 8 || dates[2 * k + 1].size() != 8)
            fail("%s: pair %zu has the dates '%s' and '%s', not yyyymmdd", o.source.c_str(), k,
                 dates[2 * k].c_str(), dates[2 * k + 1].c_str());
        Pair p;
        p.date1 = d->first;
        p.date2 = d->second;
        p.source = o.source;
        p.layer = static_cast<int>(k);
        if (has_bperp) p.bperp = bperp[k];
        plan.pairs.push_back(p);
    }
    if (plan.pairs.empty()) fail("%s: dropIfgram leaves out every interferogram", o.source.c_str());
    std::stable_sort(plan.pairs.begin(), plan.pairs.end(), [](const Pair& a, const Pair& b) {
        return std::pair{a.date1, a.date2} < std::pair{b.date1, b.date2};
    });
    for (size_t k = 1; k < plan.pairs.size(); ++k)
        if (plan.pairs[k].date1 == plan.pairs[k - 1].date1 && plan.pairs[k].date2 == plan.pairs[k - 1].date2)
            fail("%s: the pair %d_%d is there twice", o.source.c_str(), plan.pairs[k].date1, plan.pairs[k].date2);
    return plan;
}

std::vector<float> read_stack_layer(const std::string& path, int layer, const Grid& grid)
{
    const hid_t file = open_file(path);
    const hid_t d = H5Dopen2(file, "unwrapPhase", H5P_DEFAULT);
    const hid_t space = H5Dget_space(d);
    const hsize_t start[3] = {static_cast<hsize_t>(layer), 0, 0};
    const hsize_t count[3] = {1, static_cast<hsize_t>(grid.length), static_cast<hsize_t>(grid.width)};
    H5Sselect_hyperslab(space, H5S_SELECT_SET, start, nullptr, count, nullptr);
    const hid_t memory = H5Screate_simple(3, count, nullptr);
    std::vector<float> samples(static_cast<size_t>(grid.width * grid.length));
    const herr_t status = H5Dread(d, H5T_NATIVE_FLOAT, memory, space, H5P_DEFAULT, samples.data());
    H5Sclose(memory);
    H5Sclose(space);
    H5Dclose(d);
    H5Fclose(file);
    if (status < 0) fail("cannot read layer %d of unwrapPhase in %s", layer, path.c_str());
    for (float& v : samples)
        if (!std::isfinite(v)) v = 0;
    return samples;
}

}  // namespace prep
