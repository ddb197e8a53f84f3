// PLplot set-up and the pieces of drawing every figure shares.
//
// PLplot keeps its own global state, one page at a time; sbas-view draws one
// figure per process, so the page factor below (text scale for the page
// size) is the only state kept here. PLplot's calendar axes step by a fixed
// number of seconds, which drifts against month starts; date_axis draws its
// own ticks at the first of the month instead.
#include "view/plot.h"

#include <plplot/plplot.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "view/fail.h"

namespace view {
namespace {

double page_factor = 1.0;  // size of text and marks in pixels, relative to a 1200 x 800 page
double plplot_factor = 1.0;  // how PLplot itself scales text with the page
PageSize page;             // pixels of the open page

int on_plplot_exit(const char* message)
{
    fail("PLplot: %s", message ? message : "error");
}

struct Rgb {
    double r, g, b;
};

void load_map1(const std::vector<Rgb>& colours)
{
    const int n = static_cast<int>(colours.size());
    std::vector<double> position(n), r(n), g(n), b(n);
    for (int i = 0; i < n; ++i) {
        position[i] = static_cast<double>(i) / (n - 1);
        r[i] = colours[i].r / 255.0;
        g[i] = colours[i].g / 255.0;
        b[i] = colours[i].b / 255.0;
    }
    plscmap1n(256);
    plscmap1l(1, n, position.data(), r.data(), g.data(), b.data(), nullptr);
}

std::chrono::year_month_day calendar(double day)
{
    return std::chrono::year_month_day{std::chrono::sys_days{std::chrono::days{static_cast<long>(std::floor(day))}}};
}

double day_of(std::chrono::year_month_day ymd) { return std::chrono::sys_days(ymd).time_since_epoch().count(); }

}  // namespace

void open_figure(const std::string& path, PageSize size)
{
    FILE* probe = std::fopen(path.c_str(), "wb");
    if (!probe) fail("cannot write %s: %s", path.c_str(), std::strerror(errno));
    std::fclose(probe);

    plsexit(on_plplot_exit);
    plsdev("pngcairo");
    plsfnam(path.c_str());
    plspage(0, 0, size.width, size.height, 0, 0);
    plscolbg(255, 255, 255);
    plinit();
    // Colour map 0: the palette of Colour.
    const int palette[][3] = {{255, 255, 255}, {0, 0, 0},     {140, 140, 140}, {225, 225, 225},
                              {33, 102, 172},  {202, 0, 32},  {230, 120, 0},   {80, 80, 80}};
    for (int i = 0; i < 8; ++i) plscol0(i, palette[i][0], palette[i][1], palette[i][2]);
    plcol0(kBlack);
    page = size;
    // Text grows with the page, but shrinks more slowly on small pages so
    // that labels stay readable. PLplot already scales its character height
    // with the mean of the page's sides; text_size undoes that.
    page_factor = std::min(size.width / 1200.0, size.height / 800.0);
    if (page_factor < 1) page_factor = std::sqrt(page_factor);
    plplot_factor = (size.width + size.height) / 2000.0;
    pladv(0);
    text_size(1.0);
}

void close_figure(const std::string& path)
{
    plend();
    std::error_code error;
    if (std::filesystem::file_size(path, error) < 8 || error) fail("PLplot wrote no image to %s", path.c_str());
}

double text_scale(double scale) { return 0.85 * scale * page_factor / plplot_factor; }

void text_size(double scale) { plschr(0, text_scale(scale)); }

double pixels(double at_default) { return at_default * page_factor; }

void viewport(double left, double right, double bottom, double top, double aspect)
{
    const double x0 = std::min(pixels(left) / page.width, 0.4);
    const double x1 = std::max(1 - pixels(right) / page.width, 0.6);
    const double y0 = std::min(pixels(bottom) / page.height, 0.4);
    const double y1 = std::max(1 - pixels(top) / page.height, 0.6);
    if (aspect > 0) plvpas(x0, x1, y0, y1, aspect);
    else plvpor(x0, x1, y0, y1);
}

double fitted(const std::string& line, double size, double room)
{
    // About 12 pixels per character at text size 1 on the default page (the
    // mean advance of the sans-serif font), counting UTF-8 characters.
    const double chars = static_cast<double>(std::count_if(
        line.begin(), line.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    return std::min(size, room / (std::max(chars, 1.0) * pixels(12.0)));
}

void titles(const std::string& title, const std::string& subtitle)
{
    // Centred on the viewport, so they must fit on its narrower side.
    PLFLT vx0, vx1, vy0, vy1;
    plgvpd(&vx0, &vx1, &vy0, &vy1);
    const double room = 2 * std::min((vx0 + vx1) / 2, 1 - (vx0 + vx1) / 2) * page.width * 0.97;
    plcol0(kBlack);
    text_size(fitted(title, 1.35, room));
    plmtex("t", 2.9, 0.5, 0.5, title.c_str());
    // Clear of a tick label at the frame's top corner.
    text_size(fitted(subtitle, 0.95, room));
    plmtex("t", 1.8, 0.5, 0.5, subtitle.c_str());
}

void dots(const std::vector<double>& x, const std::vector<double>& y, double radius, int colour)
{
    PLFLT vx0, vx1, vy0, vy1, wx0, wx1, wy0, wy1;
    plgvpd(&vx0, &vx1, &vy0, &vy1);
    plgvpw(&wx0, &wx1, &wy0, &wy1);
    const double r = pixels(radius);
    const double a = r / ((vx1 - vx0) * page.width) * (wx1 - wx0);
    const double b = r / ((vy1 - vy0) * page.height) * (wy1 - wy0);
    for (size_t i = 0; i < x.size(); ++i) {
        plcol0(colour);
        plarc(x[i], y[i], a, b, 0, 360, 0, 1);
        plcol0(kWhite);
        plarc(x[i], y[i], a, b, 0, 360, 0, 0);
    }
    plcol0(kBlack);
}

double nice_step(double range, int most)
{
    const double raw = range / std::max(most, 1);
    const double decade = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (m * decade >= raw) return m * decade;
    return 10 * decade;
}

void date_axis(double first_day, double last_day, double ymin, double ymax, bool grid)
{
    using namespace std::chrono;
    PLFLT wx0, wx1, wy0, wy1;
    plgvpw(&wx0, &wx1, &wy0, &wy1);
    // At most one "yyyy-mm" label per 110 pixels of axis, and ten in all.
    PLFLT vx0, vx1, vy0, vy1;
    plgvpd(&vx0, &vx1, &vy0, &vy1);
    const int most = std::clamp(static_cast<int>((vx1 - vx0) * page.width / pixels(110)), 2, 10);
    const int span_months = std::max(1, static_cast<int>((last_day - first_day) / 30.44) + 1);
    int step = 240;
    for (int candidate : {1, 2, 3, 6, 12, 24, 60, 120, 240})
        if (span_months / candidate <= most) {
            step = candidate;
            break;
        }
    year_month_day start = calendar(wx0);
    year_month_day tick{start.year(), start.month(), day{1}};
    if (step >= 12) tick = year_month_day{tick.year(), month{1}, day{1}};
    // First tick on the step's grid (months counted from year 0).
    auto index = [](year_month_day d) {
        return static_cast<int>(d.year()) * 12 + static_cast<int>(unsigned(d.month())) - 1;
    };
    const double tick_length = 0.015 * (ymax - ymin);
    for (int m = index(tick); ; ++m) {
        if (m % step != 0) continue;
        const year_month_day at{year{m / 12}, month{static_cast<unsigned>(m % 12 + 1)}, day{1}};
        const double x = day_of(at);
        if (x > wx1) break;
        if (x < wx0) continue;
        if (grid) {
            plcol0(kLightGrey);
            pljoin(x, ymin, x, ymax);
        }
        plcol0(kBlack);
        pljoin(x, ymin, x, ymin + tick_length);
        pljoin(x, ymax, x, ymax - tick_length);
        char label[16];
        if (step >= 12) std::snprintf(label, sizeof label, "%d", static_cast<int>(at.year()));
        else std::snprintf(label, sizeof label, "%d-%02u", static_cast<int>(at.year()), unsigned(at.month()));
        plmtex("b", 1.6, (x - wx0) / (wx1 - wx0), 0.5, label);
    }
}

void legend_below(const std::vector<std::string>& texts, const std::vector<int>& flags,
                  const std::vector<int>& colours, const std::vector<int>& styles, const std::vector<double>& widths)
{
    const size_t n = texts.size();
    std::vector<const char*> text(n), symbols(n, "●");
    for (size_t i = 0; i < n; ++i) text[i] = texts[i].c_str();
    std::vector<PLINT> text_colours(n, kBlack), zeros(n, 0), symbol_numbers(n, 1);
    // The legend sizes its text and symbols from PLplot's default height,
    // not from the current one: the scales carry text_size's correction.
    std::vector<PLFLT> zero_scales(n, 0.0), symbol_scales(n, text_scale(0.6));
    PLFLT width = 0, height = 0;
    text_size(1.0);
    pllegend(&width, &height, 0, PL_POSITION_BOTTOM | PL_POSITION_OUTSIDE | PL_POSITION_VIEWPORT, 0.0, 0.10, 0.05,
             kWhite, kBlack, 1, 1, static_cast<PLINT>(n), static_cast<PLINT>(n), flags.data(), 0.8, text_scale(0.85),
             2.0, 0.0, text_colours.data(), text.data(), zeros.data(), zeros.data(), zero_scales.data(),
             zero_scales.data(), colours.data(), styles.data(), widths.data(), colours.data(), symbol_scales.data(),
             symbol_numbers.data(), symbols.data());
}

void robust_range(std::vector<float>& values, double& low, double& high)
{
    const size_t n = values.size();
    const size_t i2 = static_cast<size_t>(std::floor(0.02 * static_cast<double>(n - 1)));
    const size_t i98 = static_cast<size_t>(std::ceil(0.98 * static_cast<double>(n - 1)));
    std::nth_element(values.begin(), values.begin() + i2, values.end());
    low = values[i2];
    std::nth_element(values.begin(), values.begin() + i98, values.end());
    high = values[i98];
}

void diverging_colours()
{
    load_map1({{5, 48, 97},
               {33, 102, 172},
               {67, 147, 195},
               {146, 197, 222},
               {209, 229, 240},
               {247, 247, 247},
               {253, 219, 199},
               {244, 165, 130},
               {214, 96, 77},
               {178, 24, 43},
               {103, 0, 31}});
}

void sequential_colours()
{
    load_map1({{255, 255, 229},
               {255, 247, 188},
               {254, 227, 145},
               {254, 196, 79},
               {254, 153, 41},
               {236, 112, 20},
               {204, 76, 2},
               {153, 52, 4},
               {102, 37, 6}});
}

}  // namespace view
