# Installs the Debian packages the build needs when they are missing.
# Sourced by test.sh and demo.sh; works as root or through sudo.
# sbas-ts needs the first five (and OpenMPI to run one job over several
# machines), and the fuzz harnesses of its readers clang with its sanitizer
# runtime and OpenMP; the companion sbas-view needs GDAL, netCDF and PLplot
# with its cairo PNG driver (found through pkg-config), and the test of its
# HTML report a headless Chromium; the importer sbas-prep needs GDAL and
# HDF5, and the demo GDAL's command-line tools.

sbas_install_packages() {
    local needed=(g++ cmake make libfftw3-dev libgtest-dev clang libclang-rt-14-dev libomp-dev
                  pkg-config libgdal-dev libnetcdf-dev libplplot-dev plplot-driver-cairo
                  libhdf5-dev gdal-bin chromium libopenmpi-dev openmpi-bin)
    local missing=()
    local p
    for p in "${needed[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -q
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}
