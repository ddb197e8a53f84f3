#!/usr/bin/env bash
# From a fresh machine to results: installs what the build needs, builds
# sbas-ts, and runs it on three jobs:
#   1. real Sentinel-1 interferograms of Mexico City (examples/), where the
#      basin subsides by up to about 0.3 m/yr;
#   2. a synthetic job made by sbas-synth, whose true displacement is known,
#      with two unwrapping errors for the loop-closure check to find,
#      compared with what sbas-ts recovers;
#   3. real ENVISAT interferograms south of Sydney (examples/) with the
#      elevation-dependent correction, then also the orbital one, and how
#      much each changed the interferograms.
# and ends by turning the Mexico City results into GeoTIFFs, a NetCDF cube
# and figures with sbas-view, and an HTML report to open in any browser;
# last, the same interferograms as GeoTIFFs go through sbas-prep, and a run
# without a temporal constraint shows the pixels it cannot determine as no
# data. Results go to demo-output/ in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
sbas_install_packages

root=$(pwd)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target sbas-ts sbas-synth sbas-quicklook sbas-view sbas-prep
sbas_ts=$root/build/sbas-ts
synth=$root/build/tools/synth/sbas-synth
quicklook=$root/build/tools/quicklook/sbas-quicklook
view=$root/build/tools/view/sbas-view
prep=$root/build/tools/prep/sbas-prep
out=$root/demo-output
mkdir -p "$out"

echo
echo "== 1. Sentinel-1, Mexico City: 30 interferograms over 13 dates =="
mexico=$out/mexico_city
rm -rf "$mexico"
cp -r examples/s1_mexico_city_crop "$mexico"
mkdir -p "$mexico/result"
(cd "$mexico" && "$sbas_ts" example_config.txt 2>"$mexico/run.log")
tail -n 2 "$mexico/run.log"
# The loop-closure check: the triangles it closed and what it dropped.
loops=$(grep -c '^Connecting loop' "$mexico/run.log" || true)
echo "Loop closure: $loops loops checked; interferograms dropped:"
if [ -s "$mexico/result/filelist_deleted" ]; then
    sed 's/^/  /' "$mexico/result/filelist_deleted"
else
    echo "  none"
fi
wavelength=$(awk '$1 == "wavelength" {print $2}' "$mexico/example_config.txt")
echo "Mean line-of-sight velocity (rad/yr, then in mm/yr):"
"$quicklook" stats "$mexico/result/linear_mean_velocity" "$mexico/ifg_header.txt" "$wavelength" | sed 's/^/  /'
# The example also asks for linear rate stacking (if_stacking 1) and the
# spatial filter (if_apply_filter 1): their velocities beside the inversion's,
# as line-of-sight ranges.
echo "Velocity range (mm/yr): inversion, stacking, and both filtered in space:"
for name in linear_mean_velocity linear_stacking_mean_velocity linear_mean_velocity.filtered \
    linear_stacking_mean_velocity.filtered; do
    [ -f "$mexico/result/$name" ] || continue
    range=$("$quicklook" stats "$mexico/result/$name" "$mexico/ifg_header.txt" "$wavelength" |
        sed -n 's/^in mm (wavelength [^)]*): //p')
    printf '  %-39s %s\n' "$name" "$range"
done
echo "Outputs: $mexico/result (log: $mexico/run.log)"

echo
echo "== 2. Synthetic job with known truth =="
synthetic=$out/synthetic
"$synth" --out "$synthetic" --force --width 200 --length 150 --dates 30 --spacing 12 --jitter 3 \
    --neighbours 3 --long-links 6 --deformation mixed --bodies 4 --noise 0.2 --nodata-fraction 0.2 \
    --seed 7 --unwrap-error 10,1,40,50,15 --unwrap-error 47,-1,110,150,20 \
    --set if_check_loop_closure=1 --set whole_ifg_closure_std_threshold=-1 --set max_parallel_threads="$(nproc)"
"$sbas_ts" "$synthetic/config.txt" 2>"$synthetic/run.log"
tail -n 2 "$synthetic/run.log"
# Two interferograms were given a disc slipped by one cycle, as an unwrapper
# would; the loop-closure check (automatic threshold) should drop them.
echo "Unwrapping errors put in (interferogram, cycles, row, col, radius):"
grep -v '^#' "$synthetic/truth/unwrapping_errors.txt" | sed 's/^/  /'
echo "Dropped by the loop-closure check ($(grep -c '^Connecting loop' "$synthetic/run.log") loops):"
sed 's/^/  /' "$synthetic/result/filelist_deleted"
echo "Estimate against truth (each map up to the constant the reference removes):"
"$quicklook" compare "$synthetic" | sed 's/^/  /'
echo "Outputs: $synthetic/result, truth: $synthetic/truth (log: $synthetic/run.log)"

echo
echo "== 3. ENVISAT, south of Sydney: corrections of 17 interferograms =="
# Spread of each interferogram's valid samples about its mean, before and
# after a correction, and the RMS of what the correction removed, whole and
# about its own mean (the part that varies across the scene), averaged over
# the list (rad). Samples count where both rasters hold data.
change() {  # list before-folder before-suffix after-folder after-suffix
    local name
    while read -r name; do
        [ -n "$name" ] || continue
        paste <(od -An -v -f -w4 "$2/$name$3") <(od -An -v -f -w4 "$4/$name$5") | awk '
            function data(x) { return x !~ /nan|inf/ && (x + 0 >= 1e-8 || x + 0 <= -1e-8) }
            data($1) && data($2) { n++; a += $1; aa += $1 * $1; b += $2; bb += $2 * $2; d += $1 - $2; dd += ($1 - $2) ^ 2 }
            END { if (n) print sqrt(aa / n - (a / n) ^ 2), sqrt(bb / n - (b / n) ^ 2), sqrt(dd / n), sqrt(dd / n - (d / n) ^ 2) }'
    done <"$1" | awk '{ a += $1; b += $2; c += $3; v += $4; n++ }
        END { printf "RMS about the mean %.3f rad before, %.3f rad after; removed %.3f rad RMS, %.3f rad of it varying\n",
              a / n, b / n, c / n, v / n }'
}
envisat=$out/envisat_nsw
rm -rf "$envisat"
cp -r examples/envisat_nsw_small "$envisat"
mkdir -p "$envisat/elevation" "$envisat/both"
# The corrections on every interferogram: the loop-closure check is left out.
(cd "$envisat" && {
    cat example_config.txt
    printf 'if_check_loop_closure 0\nresultfolder elevation\n'
} >run_elevation.txt && "$sbas_ts" run_elevation.txt 2>"$envisat/elevation.log")
tail -n 2 "$envisat/elevation.log"
(cd "$envisat" && {
    cat example_config.txt
    printf 'if_check_loop_closure 0\nresultfolder both\nif_remove_orbit 1\n'
} >run_both.txt && "$sbas_ts" run_both.txt 2>"$envisat/both.log")
tail -n 2 "$envisat/both.log"
echo "Elevation-dependent correction (blocks of 0.02 degrees, about 24 x 24 pixels):"
echo "  $(change "$envisat/ifg_list.txt" "$envisat/ifg" "" "$envisat/elevation" .remove_hgt)"
echo "Orbital correction after it (quadratic in pixel coordinates; on a 3.6 x 6.7 km scene it also"
echo "takes up real gradients):"
echo "  $(change "$envisat/ifg_list.txt" "$envisat/elevation" .remove_hgt "$envisat/both" .remove_hgt.remove_orbit)"
echo "Mean line-of-sight velocity after both corrections (rad/yr, then in mm/yr):"
wavelength=$(awk '$1 == "wavelength" {print $2}' "$envisat/example_config.txt")
"$quicklook" stats "$envisat/both/linear_mean_velocity" "$envisat/ifg_header.txt" "$wavelength" | sed 's/^/  /'
echo "Outputs: $envisat/elevation and $envisat/both (logs: $envisat/elevation.log, $envisat/both.log)"

echo
echo "== 4. The Mexico City results for a GIS and for the eye (sbas-view) =="
figures=$out/figures
mkdir -p "$figures"
config=$mexico/example_config.txt
exported=$("$view" export "$mexico/result" --config "$config" --unit mm --out "$mexico/export" | wc -l)
echo "$exported files in $mexico/export: a GeoTIFF per raster (mm, mm/yr), and the cube displacement.nc"
"$view" map "$mexico/result/linear_mean_velocity" --config "$config" --unit mm -o "$figures/velocity.png"
# A pixel in the subsiding basin, in the north-east of the crop.
"$view" series "$mexico/result" --config "$config" --lonlat -99.066 19.431 --unit mm \
    -o "$figures/series.png" --csv "$figures/series.csv"
"$view" network --config "$config" -o "$figures/network.png"
"$view" report "$mexico/result" --config "$config" -o "$figures/report.html"
echo "Figures: $figures/velocity.png, series.png (and series.csv), network.png"
echo "Report (open in a browser; add #row=R&col=C for a pixel): $figures/report.html"

echo
echo "== 5. Mexico City as delivered: GeoTIFFs -> sbas-prep -> sbas-ts -> sbas-view =="
# The example's rasters are turned into one GeoTIFF per pair, named as the
# frame services name them, and read back by sbas-prep into a job of its own.
ex=$root/examples/s1_mexico_city_crop
tifs=$out/mexico_city_geotiff
job=$out/mexico_city_prep
rm -rf "$tifs" "$job"
read -r W L X Y DX DY < <(awk '{v[$1]=$2} END {print v["WIDTH"], v["FILE_LENGTH"], v["X_FIRST"], v["Y_FIRST"], v["X_STEP"], v["Y_STEP"]}' "$ex/ifg_header.txt")
# An ENVI "map info" gives the outer corner of the first pixel: half a step before its centre.
ulx=$(awk -v x="$X" -v d="$DX" 'BEGIN {printf "%.17g", x - d / 2}')
uly=$(awk -v y="$Y" -v d="$DY" 'BEGIN {printf "%.17g", y - d / 2}')
while read -r name; do
    pair=${name#geo_}
    pair=${pair%.unw}
    mkdir -p "$tifs/$pair"
    cp "$ex/ifg/$name" "$tifs/$pair/raw"
    printf 'ENVI\nsamples = %s\nlines = %s\nbands = 1\nheader offset = 0\ndata type = 4\ninterleave = bsq\nbyte order = 0\nmap info = {Geographic Lat/Lon, 1, 1, %s, %s, %s, %s, WGS-84}\n' \
        "$W" "$L" "$ulx" "$uly" "$DX" "${DY#-}" >"$tifs/$pair/raw.hdr"
    gdal_translate -q -of GTiff -co COMPRESS=DEFLATE -a_srs EPSG:4326 -a_nodata 0 "$tifs/$pair/raw" \
        "$tifs/$pair/$pair.geo.unw.tif"
    rm "$tifs/$pair/raw" "$tifs/$pair/raw.hdr"
done <"$ex/ifg_list.txt"
echo "$(find "$tifs" -name '*.tif' | wc -l) GeoTIFFs in $tifs"
"$prep" "$tifs" --out "$job" --wavelength 0.0554658 | sed 's/^/  /'
# The job sbas-prep wrote runs as it is; it has no temporal constraint, so a
# pixel whose valid interferograms do not connect all its dates has no
# meaningful estimate, and sbas-view leaves it out of what it exports.
"$sbas_ts" "$job/config.txt" 2>"$job/run.log"
tail -n 1 "$job/run.log"
"$view" export "$job/result" --config "$job/config.txt" --unit mm --out "$job/export" >/dev/null 2>"$job/export.log"
sed 's/^/  /' "$job/export.log"
"$view" map "$job/result/linear_mean_velocity" --config "$job/config.txt" --unit mm -o "$figures/velocity_prep.png"
echo "Outputs: $job/result, $job/export (undetermined.tif marks the split pixels), $figures/velocity_prep.png"
