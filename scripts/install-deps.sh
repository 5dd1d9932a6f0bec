#!/usr/bin/env bash
# Installs what building and testing quelworks needs, from Debian's packages, when it is missing.
# Works non-interactively as root; as another user it uses sudo when there is one, or prints the
# apt-get command to run.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang clang-format libclang-rt-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
    python3 python3-pytest python3-numpy
    # Releases: packages (cpack, dpkg-shlibdeps, lintian), pkg-config, the API reference.
    dpkg-dev file lintian pkgconf unzip doxygen
    # Checks that large geometry pictures stay readable.
    librsvg2-bin
)
if [ "${1:-}" = "--windows" ]; then
    # lld: links a program the way Visual Studio does, against quelworks_c.lib.
    packages+=(g++-mingw-w64-x86-64-posix wine wine64 lld)
fi
if [ "${1:-}" = "--dotnet" ]; then
    # Mono's C# compiler and runtime (with System and System.Core), for the C# package.
    packages+=(mono-mcs mono-runtime)
fi
if [ "${1:-}" = "--bench" ]; then
    packages+=(libboost-dev libinih-dev libsimpleini-dev libgeos-dev)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
    sudo=""
elif command -v sudo >/dev/null 2>&1; then
    sudo="sudo"
else
    echo "please run as root: apt-get install -y --no-install-recommends ${missing[*]}" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
