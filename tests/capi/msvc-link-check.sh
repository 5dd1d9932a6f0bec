#!/usr/bin/env bash
# Builds msvc_app.c as Visual Studio would (clang in Microsoft mode, lld-link against
# quelworks_c.lib, no mingw import library, no mingw runtime) and runs it under Wine beside
# quelworks_c.dll.
#
#   msvc-link-check.sh CLANG LLD_LINK SOURCE INCLUDE_DIR DLL_DIR KERNEL32_LIB
set -euo pipefail
clang=$1
lld_link=$2
source=$3
include=$4
dll_dir=$5
kernel32=$6
work=$(mktemp -d /tmp/qw-msvc.XXXXXX)
trap 'rm -rf "$work"' EXIT

"$clang" --target=x86_64-pc-windows-msvc -ffreestanding -fno-stack-protector -Wall -Werror \
    -I"$include" -c "$source" -o "$work/app.obj"
"$lld_link" /nologo /entry:start /subsystem:console /nodefaultlib "$work/app.obj" \
    "$dll_dir/quelworks_c.lib" "$kernel32" /out:"$work/app.exe"
cp "$dll_dir/quelworks_c.dll" "$work/"
wine "$work/app.exe"
echo "a program linked against quelworks_c.lib in the Microsoft way runs against quelworks_c.dll"
