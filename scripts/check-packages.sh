#!/usr/bin/env bash
# Checks the release packages the way a user meets them (the `package` stage of scripts/test.sh):
#   Debian: lintian; install the .deb files with dpkg -i; build the consumer against the system's
#           copy with CMake and with pkg-config and run it; run the programs; purge the packages
#           and check that no file of theirs is left.
#   Windows: unpack the zip into a fresh folder; under Wine run quelworks.exe --version and the
#           consumer built from nothing but the zip's contents (CMake and pkg-config).
# Makes the packages first with scripts/package.sh. Installing needs root (or sudo); the check
# refuses to run when the packages are already installed, so it never removes a user's copy.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n=== %s ===\n' "$*"; }
fail() {
    echo "check-packages: $*" >&2
    exit 1
}

bash scripts/package.sh deb zip
version=$(sed -nE 's/^project\(quelworks VERSION ([0-9]+\.[0-9]+\.[0-9]+).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || fail "no project version in CMakeLists.txt"
shopt -s nullglob
debs=(build/package/packages/*.deb)
shopt -u nullglob
[ ${#debs[@]} -eq 3 ] || fail "expected 3 Debian packages, found ${#debs[@]}"
zip=build/package-win/packages/quelworks-$version-win64.zip
[ -f "$zip" ] || fail "no $zip"
work=$(mktemp -d)

step "lintian"
# Accepted: no bug closed by a first upload (only meaningful for Debian's archive), no manual pages
# yet, and the ldconfig call that cpack writes into the scripts besides the trigger.
lintian --fail-on error,warning \
    --suppress-tags initial-upload-closes-no-bugs,no-manual-page,maintscript-calls-ldconfig \
    "${debs[@]}" 2>&1 | grep -v 'running with root privileges' || [ "${PIPESTATUS[0]}" -eq 0 ]

step "install the Debian packages"
if [ "$(id -u)" -eq 0 ]; then
    as_root=()
elif command -v sudo >/dev/null 2>&1; then
    as_root=(sudo)
else
    fail "installing packages needs root or sudo"
fi
packages=()
for d in "${debs[@]}"; do packages+=("$(dpkg-deb -f "$d" Package)"); done
for p in "${packages[@]}"; do
    if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        fail "$p is already installed here; purge it first (dpkg --purge $p)"
    fi
done
purge() { "${as_root[@]}" dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true; }
trap 'purge; rm -rf "$work"' EXIT
"${as_root[@]}" dpkg -i "${debs[@]}"
dpkg -L "${packages[@]}" | sort -u >"$work/installed-files"
for p in "${packages[@]}"; do
    echo "$p $(dpkg-query -W -f='${Version}' "$p")"
done

step "use the system's copy"
[ "$(quelworks --version)" = "quelworks $version" ] || fail "quelworks --version: $(quelworks --version)"
[ "$(quelworks-devsim --version)" = "quelworks-devsim $version" ] || fail "quelworks-devsim --version"
quelworks-devsim --help >/dev/null
ldd /usr/bin/quelworks | grep -E "libquelworks.so.[0-9]+ => /(usr/)?lib/" >/dev/null || fail "quelworks does not use the system's library"
rm -rf "$work/consumer"
cmake -S tests/consumer -B "$work/consumer" -G Ninja >/dev/null
grep -q '^quelworks_DIR:PATH=/usr/lib/' "$work/consumer/CMakeCache.txt" ||
    fail "the consumer found another quelworks: $(grep '^quelworks_DIR' "$work/consumer/CMakeCache.txt")"
cmake --build "$work/consumer"
env -u LD_LIBRARY_PATH "$work/consumer/consumer"
env -u LD_LIBRARY_PATH "$work/consumer/consumer_c"
env -u PKG_CONFIG_PATH bash tests/consumer/build-with-pkg-config.sh "$work/consumer-pc"
env -u LD_LIBRARY_PATH "$work/consumer-pc/consumer_pc"
env -u LD_LIBRARY_PATH "$work/consumer-pc/consumer_c_pc"

step "purge the Debian packages"
"${as_root[@]}" dpkg --purge "${packages[@]}"
left=0
while IFS= read -r path; do
    [ -e "$path" ] || [ -L "$path" ] || continue
    # Shared folders such as /usr/lib stay; any file, and any folder of our own, must be gone.
    if [ ! -d "$path" ] || [ -L "$path" ] || [[ "$path" == *quelworks* ]]; then
        echo "left behind: $path" >&2
        left=1
    fi
done <"$work/installed-files"
[ "$left" -eq 0 ] || fail "files left after purging"
echo "purged: no file left ($(wc -l <"$work/installed-files") paths checked)"

step "Windows zip under Wine"
unzip -q "$zip" -d "$work/win"
root=$work/win/quelworks-$version-win64
for f in bin/quelworks.dll bin/quelworks_c.dll bin/quelworks.exe lib/quelworks.dll.a \
    lib/quelworks_c.dll.a lib/quelworks_c.lib lib/cmake/quelworks/quelworksConfig.cmake \
    lib/pkgconfig/quelworks.pc include/quelworks/quelworks.h include/quelworks/quelworks_c.h \
    README.md LICENSE CHANGELOG.md; do
    [ -e "$root/$f" ] || fail "the zip lacks $f"
done
# shellcheck source=scripts/wine-env.sh
source scripts/wine-env.sh
trap 'qw_wine_stop; purge; rm -rf "$work"' EXIT
out=$(wine "$root/bin/quelworks.exe" --version | tr -d '\r')
[ "$out" = "quelworks $version" ] || fail "quelworks.exe --version: $out"
echo "$out"
# The consumer sees nothing but the unpacked zip: its CMake package, and its pkg-config files.
cmake -S tests/consumer -B "$work/win-consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" \
    -Dquelworks_DIR="$root/lib/cmake/quelworks" >/dev/null
cmake --build "$work/win-consumer"
# Linked as a mingw user links by hand: the compiler runtime static, its thread library
# (libwinpthread-1.dll) from the toolchain's folder. (-static would keep the linker from taking
# the import library quelworks.dll.a for -lquelworks.)
PKG_CONFIG_LIBDIR="$root/lib/pkgconfig" CXX=x86_64-w64-mingw32-g++-posix \
    CC=x86_64-w64-mingw32-gcc-posix LDFLAGS="-static-libgcc -static-libstdc++" EXE=.exe \
    bash tests/consumer/build-with-pkg-config.sh "$work/win-consumer-pc"
mingw_runtime=$(dirname "$(x86_64-w64-mingw32-gcc-posix -print-file-name=libwinpthread-1.dll)")
WINEPATH="$(winepath -w "$root/bin");$(winepath -w "$mingw_runtime")"
export WINEPATH
for program in win-consumer/consumer win-consumer/consumer_c win-consumer-pc/consumer_pc \
    win-consumer-pc/consumer_c_pc; do
    wine "$work/$program.exe" </dev/null | tr -d '\r'
done
step "packages checked: ${debs[*]##*/} ${zip##*/}"
