#!/usr/bin/env bash
# From a fresh machine to results: installs what the build needs, builds
# sbas-ts, and runs it on two jobs:
#   1. real Sentinel-1 interferograms of Mexico City (examples/), where the
#      basin subsides by up to about 0.3 m/yr;
#   2. a synthetic job made by sbas-synth, whose true displacement is known,
#      compared with what sbas-ts recovers;
# and ends by turning the Mexico City results into GeoTIFFs, a NetCDF cube
# and figures with sbas-view. Results go to demo-output/ in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
sbas_install_packages

root=$(pwd)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target sbas-ts sbas-synth sbas-quicklook sbas-view
sbas_ts=$root/build/sbas-ts
synth=$root/build/tools/synth/sbas-synth
quicklook=$root/build/tools/quicklook/sbas-quicklook
view=$root/build/tools/view/sbas-view
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
    --seed 7 --set max_parallel_threads="$(nproc)"
"$sbas_ts" "$synthetic/config.txt" 2>"$synthetic/run.log"
tail -n 2 "$synthetic/run.log"
echo "Estimate against truth (each map up to the constant the reference removes):"
"$quicklook" compare "$synthetic" | sed 's/^/  /'
echo "Outputs: $synthetic/result, truth: $synthetic/truth (log: $synthetic/run.log)"

echo
echo "== 3. The Mexico City results for a GIS and for the eye (sbas-view) =="
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
