#!/usr/bin/env bash
# Makes the release packages from this source tree:
#   build/package/packages/*.deb                       Debian packages (libquelworks0,
#                                                      libquelworks-dev, quelworks-tools)
#   build/package-win/packages/quelworks-<v>-win64.zip  the Windows zip (mingw-w64 cross-build)
# Usage: bash scripts/package.sh [deb] [zip]   (default: both)
# Installs the Debian packages it needs first (see scripts/install-deps.sh). QW_JOBS sets the
# number of parallel compile jobs.
set -euo pipefail
cd "$(dirname "$0")/.."

what=${*:-"deb zip"}
jobs=${QW_JOBS:-$(nproc)}
want() { [[ " $what " == *" $1 "* ]]; }
for w in $what; do
    case $w in deb | zip) ;; *)
        echo "package.sh: unknown package kind '$w' (deb, zip)" >&2
        exit 2
        ;;
    esac
done

if want zip; then
    bash scripts/install-deps.sh --windows
else
    bash scripts/install-deps.sh
fi

# Only the libraries and the programs: no tests, examples or fuzz harnesses.
lean=(-G Ninja -DCMAKE_BUILD_TYPE=Release -DQUELWORKS_BUILD_TESTS=OFF -DQUELWORKS_BUILD_EXAMPLES=OFF
    -DQUELWORKS_BUILD_FUZZ=OFF -DQUELWORKS_BUILD_BENCH=OFF -DQUELWORKS_BUILD_TOOLS=ON)

if want deb; then
    echo "=== Debian packages ==="
    # Debian's hardening flags: stack protector, checked libc calls, read-only relocations bound
    # at start-up.
    flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
    cmake -S . -B build/package "${lean[@]}" -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_C_FLAGS="$(flags CFLAGS) $(flags CPPFLAGS)" \
        -DCMAKE_CXX_FLAGS="$(flags CXXFLAGS) $(flags CPPFLAGS)" \
        -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" -DCMAKE_SHARED_LINKER_FLAGS="$(flags LDFLAGS)" \
        >/dev/null
    cmake --build build/package -j "$jobs"
    rm -rf build/package/packages
    (cd build/package && cpack -G DEB)
fi

if want zip; then
    echo "=== Windows zip ==="
    cmake -S . -B build/package-win "${lean[@]}" \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" >/dev/null
    cmake --build build/package-win -j "$jobs"
    rm -rf build/package-win/packages
    (cd build/package-win && cpack -G ZIP)
fi

echo "=== made ==="
ls -1 build/package/packages/*.deb build/package-win/packages/*.zip 2>/dev/null || true
