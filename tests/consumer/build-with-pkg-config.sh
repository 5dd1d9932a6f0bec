#!/usr/bin/env bash
# Builds the consumer programs with nothing but `pkg-config --cflags --libs`, the way a Makefile
# user does: build-with-pkg-config.sh OUTDIR. pkg-config finds the installed quelworks.pc and
# quelworks_c.pc on its usual path (or PKG_CONFIG_PATH / PKG_CONFIG_LIBDIR); CXX and CC choose the
# compilers (c++ and cc by default), LDFLAGS adds link options, EXE a program suffix (.exe).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=${1:?usage: build-with-pkg-config.sh OUTDIR}
mkdir -p "$out"
pkg=${PKG_CONFIG:-pkg-config}
cxx=${CXX:-c++}
cc=${CC:-cc}
exe=${EXE:-}
# shellcheck disable=SC2086,SC2046
"$cxx" -std=c++17 -Wall -Wextra -pedantic -Wshadow -Wwrite-strings -Werror \
    $($pkg --cflags quelworks) "$here/main.cpp" -o "$out/consumer_pc$exe" \
    $($pkg --libs quelworks) ${LDFLAGS:-}
# shellcheck disable=SC2086,SC2046
"$cc" -std=c99 -Wall -Wextra -Werror $($pkg --cflags quelworks_c) "$here/main.c" \
    -o "$out/consumer_c_pc$exe" $($pkg --libs quelworks_c) ${LDFLAGS:-}
echo "built with pkg-config $($pkg --modversion quelworks) (C interface $($pkg --modversion quelworks_c)): $out"
