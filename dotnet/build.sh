#!/usr/bin/env bash
# Builds the C# package with Mono's compiler: Quelworks.dll (with its Mono library map), the test
# program Tests.exe and the example Flash.exe, into the given folder (default build/dotnet).
#   bash dotnet/build.sh [OUTDIR]
# Run them with the C library on the library path, e.g.
#   LD_LIBRARY_PATH=build/dev mono build/dotnet/Tests.exe
# The sources keep to C# 5, so the compiler that comes with .NET Framework 4 on every Windows
# (csc.exe) builds them too.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
out=${1:-$here/../build/dotnet}
mkdir -p "$out"
mcs -nologo -warnaserror -langversion:5 -target:library -doc:"$out/Quelworks.xml" \
    -out:"$out/Quelworks.dll" "$here"/Quelworks/*.cs
cp "$here/Quelworks/Quelworks.dll.config" "$out/"
mcs -nologo -warnaserror -langversion:5 -r:"$out/Quelworks.dll" -r:System.Core -out:"$out/Tests.exe" "$here/tests/Tests.cs"
mcs -nologo -warnaserror -langversion:5 -r:"$out/Quelworks.dll" -out:"$out/Flash.exe" "$here/examples/Flash.cs"
echo "built $out/Quelworks.dll, Tests.exe, Flash.exe"
