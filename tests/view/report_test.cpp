// sbas-view on whole runs: the undetermined pixels of the Mexico City example
// without a temporal constraint, and the HTML report of a synthetic run large
// enough to be decimated, opened in headless Chromium.
#include <gdal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <regex>
#include <string>
#include <vector>

#include "support/child.h"

namespace {

using namespace testing_support;

Outcome view(const std::vector<std::string>& args) { return run_program(args, "/", 300, SBAS_VIEW_BIN); }

// A copy of the Mexico City example run without a temporal constraint.
TEST(ViewRuns, MexicoCityWithoutConstraintHasSixteenUndeterminedPixelsAtTheSwathEdge)
{
    TempDir dir;
    std::filesystem::copy(SBAS_EXAMPLES "/s1_mexico_city_crop", dir.path(), std::filesystem::copy_options::recursive);
    const std::string config = dir / "example_config.txt";
    write_text(config, read_text(config) + "\ntemporal_constraint 0\n");
    make_dir(dir / "result");
    const Outcome run = run_program({config}, dir.path());
    ASSERT_TRUE(contains(run.err, "finish!")) << run.err;

    Outcome out = view({"export", dir / "result", "--config", config, "--out", dir / "out"});
    ASSERT_EQ(out.status, 0) << out.err;
    EXPECT_TRUE(contains(out.err, "16 pixels are undetermined")) << out.err;
    EXPECT_TRUE(contains(out.out, "undetermined.tif"));
    GDALAllRegister();
    const auto band = [&](const std::string& name) {
        std::vector<float> v(6000);
        GDALDatasetH set = GDALOpen((dir / ("out/" + name)).c_str(), GA_ReadOnly);
        if (!set) return std::vector<float>{};
        EXPECT_EQ(GDALRasterIO(GDALGetRasterBand(set, 1), GF_Read, 0, 0, 100, 60, v.data(), 100, 60, GDT_Float32, 0, 0),
                  CE_None);
        GDALClose(set);
        return v;
    };
    const std::vector<float> mask = band("undetermined.tif"), velocity = band("linear_mean_velocity.tif");
    ASSERT_TRUE(mask.size() == 6000 && velocity.size() == 6000);
    const std::vector<float> written = read_floats(dir / "result/linear_mean_velocity");
    int undetermined = 0;
    for (int p = 0; p < 6000; ++p) {
        if (mask[p] != 1.0f) continue;
        ++undetermined;
        EXPECT_LE(p % 100, 6) << "row " << p / 100;     // the western swath edge
        EXPECT_TRUE(std::isnan(velocity[p])) << p;       // left as no data
        EXPECT_GT(std::fabs(written[p]), 100.0f) << p;   // sbas-ts's own file keeps its values
    }
    EXPECT_EQ(undetermined, 16);

    // Kept on request; the reference pixel of a history is drawn.
    out = view({"export", dir / "result", "--config", config, "--out", dir / "raw", "--keep-undetermined"});
    ASSERT_EQ(out.status, 0) << out.err;
    EXPECT_FALSE(file_exists(dir / "raw/undetermined.tif"));
    out = view({"series", dir / "result", "--config", config, "--pixel", "30", "0", "-o", dir / "s.png"});
    EXPECT_EQ(out.status, 0);
    EXPECT_TRUE(contains(out.err, "is undetermined")) << out.err;
}

// The value of column `column` (from 0) of each data row of the table with id
// series-table in a DOM dump.
std::vector<std::pair<std::string, std::string>> table_rows(const std::string& dom)
{
    std::vector<std::pair<std::string, std::string>> rows;
    const size_t table = dom.find("id=\"series-table\"");
    if (table == std::string::npos) return rows;
    const std::string body = dom.substr(table, dom.find("</table>", table) - table);
    const std::regex row("<tr><td>([0-9-]+)</td><td>([^<]*)</td>");
    for (auto it = std::sregex_iterator(body.begin(), body.end(), row); it != std::sregex_iterator(); ++it)
        rows.emplace_back((*it)[1], (*it)[2]);
    return rows;
}

// The URLs of the requests a page made, from a Chromium net log: requests with
// an initiator. The browser's own service requests (updates, time, accounts)
// have none ("not an origin") and are no business of the page.
std::vector<std::string> page_requests(const std::string& log)
{
    std::vector<std::string> urls;
    const std::regex request("\"initiator\":\"([^\"]*)\".*?\"url\":\"([^\"]*)\"");
    for (auto it = std::sregex_iterator(log.begin(), log.end(), request); it != std::sregex_iterator(); ++it)
        if ((*it)[1] != "not an origin") urls.push_back((*it)[2]);
    return urls;
}

TEST(ViewRuns, ReportOfADecimatedGridShowsAPixelsHistoryAndRequestsNothing)
{
    const std::string chromium = "/usr/bin/chromium";
    if (!std::filesystem::exists(chromium)) GTEST_SKIP() << "chromium is not installed";
    TempDir dir;
    const std::string job = dir / "job";
    Outcome run = run_program({"--out", job, "--width", "320", "--length", "280", "--dates", "8"}, dir.path(), 120,
                              SBAS_SYNTH_BIN);
    ASSERT_EQ(run.status, 0) << run.err;
    run = run_program({job + "/config.txt"}, job);
    ASSERT_TRUE(contains(run.err, "finish!")) << run.err;

    const std::string html = dir / "report.html";
    run = view({"report", job + "/result", "--config", job + "/config.txt", "-o", html, "--pixel", "101,37"});
    ASSERT_EQ(run.status, 0) << run.err;
    const auto bytes = std::filesystem::file_size(html);
    EXPECT_LT(bytes, 8u << 20);
    EXPECT_EQ(read_text(html).find("src=\"http"), std::string::npos);

    const auto open_page = [&](const std::string& url, const std::string& netlog) {
        return run_program({"--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                            "--disable-background-networking", "--virtual-time-budget=5000",
                            "--log-net-log=" + netlog, "--dump-dom", url},
                           dir.path(), 120, chromium);
    };
    const auto open = [&](const std::string& fragment, const std::string& netlog) {
        return open_page("file://" + html + fragment, netlog);
    };
    // A chosen pixel off the decimated grid: held in full, its table the run's maps in mm.
    const Outcome page = open("#row=101&col=37", dir / "net.json");
    ASSERT_EQ(page.status, 0) << page.err;
    EXPECT_TRUE(contains(page.out, "Histories are held for every 2-th row and column")) << "decimation label";
    const auto rows = table_rows(page.out);
    std::vector<std::string> maps;
    for (const auto& entry : std::filesystem::directory_iterator(job + "/result")) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("culmap-") && name.ends_with(".disp")) maps.push_back(name);
    }
    std::sort(maps.begin(), maps.end());
    ASSERT_EQ(rows.size(), maps.size() + 1);
    EXPECT_EQ(rows[0].second, "0.000");
    std::smatch found;
    const std::string settings = read_text(job + "/config.txt");
    ASSERT_TRUE(std::regex_search(settings, found, std::regex("\\nwavelength\\s+(\\S+)")));
    const double wavelength = std::stod(found[1]);
    for (size_t k = 0; k < maps.size(); ++k) {
        const float phase = read_floats(job + "/result/" + maps[k])[101 * 320 + 37];
        const std::string date = maps[k].substr(7, 8);
        EXPECT_EQ(rows[k + 1].first, date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6, 2));
        EXPECT_NEAR(std::stod(rows[k + 1].second), phase * wavelength / (4 * std::numbers::pi) * 1000, 6e-4) << k;
    }
    // Nothing but the page itself and its inline data was requested; the same
    // log of a page with one remote image shows that request.
    for (const std::string& url : page_requests(read_text(dir / "net.json")))
        EXPECT_TRUE(url.starts_with("file:") || url.starts_with("data:")) << url;
    write_text(dir / "control.html", "<html><body><img src=\"http://192.0.2.1/x.png\"></body></html>");
    open_page("file://" + dir / "control.html", dir / "control.json");
    const auto control = page_requests(read_text(dir / "control.json"));
    EXPECT_NE(std::find(control.begin(), control.end(), "http://192.0.2.1/x.png"), control.end());

    // A pixel the page does not hold: it says so and shows the nearest one.
    const Outcome other = open("#row=3&col=5", dir / "net2.json");
    EXPECT_TRUE(contains(other.out, "does not hold the history of pixel row 3, col 5")) << other.out.size();
    EXPECT_EQ(table_rows(other.out).size(), maps.size() + 1);
}

}  // namespace
