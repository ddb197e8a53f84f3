// The drawing kit shared by the three figures, over PLplot and its cairo PNG
// device: one page per process, a fixed palette, calendar-date axes and
// robust colour limits.
#pragma once

#include <string>
#include <vector>

#include "view/commands.h"

namespace view {

// Palette entries (PLplot colour map 0) set by open_figure.
enum Colour { kWhite = 0, kBlack = 1, kGrey = 2, kLightGrey = 3, kBlue = 4, kRed = 5, kOrange = 6, kDarkGrey = 7 };

// Starts a PNG page of `size` pixels at `path`, white background, black
// ink, sans-serif text. The path is tried for writing first, so an
// unwritable path is reported by sbas-view rather than by PLplot.
void open_figure(const std::string& path, PageSize size);

// Finishes the page and checks that the PNG was written.
void close_figure(const std::string& path);

// Text sizes relative to PLplot's default character height, scaled to the
// page so that labels stay readable at any --size. text_scale is the factor
// text_size hands PLplot, for the calls that take a scale of their own.
void text_size(double scale);
double text_scale(double scale);

// Sets the viewport by its margins in pixels of the default page (scaled as
// text is), and, when `aspect` is positive, shrinks it to that height over
// width, centred.
void viewport(double left, double right, double bottom, double top, double aspect = 0);

// The text size, at most `size`, at which `line` spans at most `room` pixels.
double fitted(const std::string& line, double size, double room);

// The title and subtitle above the viewport, each made smaller when it would
// not fit in the page's width.
void titles(const std::string& title, const std::string& subtitle);

// A length of `at_default` pixels on a 1200 x 800 page, scaled as text is.
double pixels(double at_default);

// Draws the bottom axis of a window whose x runs in days since 1970-01-01:
// ticks and labels at month starts (every 1, 2, 3, 6 or 12 months, whichever
// keeps at most about ten labels), "yyyy-mm" or "yyyy", and vertical grid
// lines in light grey when `grid` is set.
void date_axis(double first_day, double last_day, double ymin, double ymax, bool grid);

// Filled circles of `radius` pixels (at the 1200 x 800 page; scaled with the
// page) with a thin white rim, at world coordinates of the current window.
void dots(const std::vector<double>& x, const std::vector<double>& y, double radius, int colour);

// A round tick spacing giving at most `most` intervals over `range`: 1, 2 or
// 5 times a power of ten, so that no label needs more decimals than PLplot
// prints for the spacing.
double nice_step(double range, int most);

// A legend in one row centred below the x axis: per entry its text, PLplot
// legend flags (PL_LEGEND_LINE and/or PL_LEGEND_SYMBOL), colour, line style
// and line width; symbols are filled circles.
void legend_below(const std::vector<std::string>& texts, const std::vector<int>& flags,
                  const std::vector<int>& colours, const std::vector<int>& styles, const std::vector<double>& widths);

// The 2nd and 98th percentiles of `values` (not empty; reordered in place).
void robust_range(std::vector<float>& values, double& low, double& high);

// Loads colour map 1: diverging blue-white-red (negative blue) or
// sequential white-yellow-red-purple.
void diverging_colours();
void sequential_colours();

}  // namespace view
