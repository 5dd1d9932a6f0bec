#!/usr/bin/env bash
# Builds and runs the whole quelworks test suite:
#   format   clang-format check of every C++ file
#   dev      Debug build (warnings as errors), all tests
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer build, all tests
#   tsan     ThreadSanitizer build, the tests labelled "threads"
#   scalar   the plain loops that stand in for the SSE2 ones (QUELWORKS_FORCE_SCALAR), with the
#            tests of the code that has both: containment, cover, hatching, INI reading, CRC
#   fuzz     clang libFuzzer build: corpus replay, then each harness fuzzed for a bounded time
#   consumer install the library and build a separate project against it with find_package
#   python   the Python package's tests (pytest) against the dev build and the simulated device
#   dotnet   the C# package built with Mono, its tests against the dev build and the simulated device
#   windows  mingw-w64 cross-build of the DLL and the tests, run under Wine in a private prefix
#   docs     the API reference (Doxygen); any warning or undocumented public name fails
#   package  the .deb files and the Windows zip: installed, used and removed (scripts/check-packages.sh)
# Choose stages with QW_STAGES="dev asan" (default: all); QW_FUZZ_SECONDS sets the fuzzing time
# per harness (default 20).
set -euo pipefail
cd "$(dirname "$0")/.."

stages=${QW_STAGES:-"format dev scalar asan tsan fuzz consumer python dotnet windows docs package"}
fuzz_seconds=${QW_FUZZ_SECONDS:-20}
jobs=${QW_JOBS:-$(nproc)}

step() { printf '\n=== %s ===\n' "$*"; }
has() { [[ " $stages " == *" $1 "* ]]; }

if has windows || has package; then
    bash scripts/install-deps.sh --windows
else
    bash scripts/install-deps.sh
fi
if has dotnet; then
    bash scripts/install-deps.sh --dotnet
fi

start_all=$SECONDS
total_passed=0
total_failed=0
total_skipped=0
ctest_log=$(mktemp)
# Runs ctest, keeping its output for the closing count.
run_ctest() {
    local rc=0
    ctest "$@" 2>&1 | tee "$ctest_log" || rc=$?
    local line passed total failed skipped
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$ctest_log" | tail -n 1 || true)
    if [ -n "$line" ]; then
        total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
        failed=$(sed -E 's/.*tests passed, ([0-9]+) tests? failed.*/\1/' <<<"$line")
        # ctest counts a skipped test among the passed ones and lists it as "(Skipped)".
        skipped=$(grep -cE '^[[:space:]]*[0-9]+ - .* \(Skipped\)$' "$ctest_log" || true)
        passed=$((total - failed - skipped))
        total_passed=$((total_passed + passed))
        total_skipped=$((total_skipped + skipped))
        total_failed=$((total_failed + failed))
    fi
    return $rc
}

build_and_test() {  # preset [ctest args...]
    local preset=$1
    shift
    step "build: $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j "$jobs"
    step "test: $preset"
    run_ctest --preset "$preset" -j "$jobs" "$@"
}

# Fuzzes every harness of the fuzz build for $fuzz_seconds each, on a copy of its seed corpus.
# An input that crashes, leaks or hangs a harness is kept in build/fuzz/artifacts/NAME/ (the log
# there and the lines printed here name it); replay it with build/fuzz/fuzz/fuzz_NAME FILE and
# add it to fuzz/corpus/NAME so that every build replays it. Fails after trying every harness if
# any of them found something.
fuzz_harnesses() {
    local fuzzer name artifacts work log rc found=0
    for fuzzer in build/fuzz/fuzz/fuzz_*; do
        [ -x "$fuzzer" ] || continue
        name=${fuzzer##*/fuzz_}
        step "fuzzing $name for ${fuzz_seconds}s"
        artifacts="$PWD/build/fuzz/artifacts/$name"
        mkdir -p "$artifacts"
        log="$artifacts/fuzz.log"
        work=$(mktemp -d)
        cp -r "fuzz/corpus/$name/." "$work/" 2>/dev/null || true
        rc=0
        "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$artifacts/" "$work" >"$log" 2>&1 || rc=$?
        rm -rf "$work"
        if [ "$rc" -eq 0 ]; then
            tail -n 8 "$log"
            continue
        fi
        found=$((found + 1))
        tail -n 40 "$log"
        echo "fuzz_$name failed (exit $rc); full log: $log"
        grep -E 'Test unit written to|artifact_prefix' "$log" | sed 's/^/  /' || true
        echo "  replay: $fuzzer FILE   (then add FILE to fuzz/corpus/$name)"
    done
    if [ "$found" -gt 0 ]; then
        total_failed=$((total_failed + found))
        echo "fuzzing: $found harness(es) found failing inputs, kept in build/fuzz/artifacts/" >&2
        return 1
    fi
}

if has format; then
    step "format check"
    files=$(git ls-files '*.h' '*.hpp' '*.cpp' '*.cc' 2>/dev/null || find include src tests tools bench fuzz examples -name '*.[ch]pp' -o -name '*.h')
    echo "$files" | xargs -r clang-format --dry-run -Werror
    echo "formatted: $(echo "$files" | wc -l) files"
fi

has dev && build_and_test dev
if has scalar; then
    step "build: scalar"
    scalar_tests="qw_test_polygon qw_test_polygon_cover qw_test_ini qw_test_util"
    cmake -S . -B build/scalar -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUELWORKS_WERROR=ON \
        -DQUELWORKS_FORCE_SCALAR=ON -DQUELWORKS_BUILD_TOOLS=OFF -DQUELWORKS_BUILD_EXAMPLES=OFF \
        -DQUELWORKS_BUILD_FUZZ=OFF >/dev/null
    # shellcheck disable=SC2086
    cmake --build build/scalar -j "$jobs" --target $scalar_tests
    step "test: scalar"
    run_ctest --test-dir build/scalar -j "$jobs" \
        -R '^(IsPointInPolygon|BeginSpreadPolygon|FragmentToLines|OutlineIndex|Ini(Format|Query|Edit|Reference)|CrcCcitt)\.'
fi
has asan && build_and_test asan
has tsan && build_and_test tsan -L threads

if has fuzz; then
    step "build: fuzz"
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -j "$jobs"
    step "test: fuzz corpus replay"
    run_ctest --test-dir build/fuzz -L fuzz --output-on-failure -j "$jobs"
    fuzz_harnesses
fi

if has consumer; then
    step "consumer: install and find_package"
    prefix=$(mktemp -d)
    cmake -S . -B build/install -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUELWORKS_BUILD_TESTS=OFF \
        -DQUELWORKS_BUILD_TOOLS=ON -DQUELWORKS_BUILD_EXAMPLES=OFF -DQUELWORKS_BUILD_FUZZ=OFF >/dev/null
    cmake --build build/install -j "$jobs"
    cmake --install build/install --prefix "$prefix" >/dev/null
    rm -rf build/consumer
    cmake -S tests/consumer -B build/consumer -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build build/consumer
    LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" build/consumer/consumer
    LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" build/consumer/consumer_c
    # The installed programs find the installed library by their own run path.
    # The same programs built with nothing but pkg-config.
    PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib64/pkgconfig" \
        bash tests/consumer/build-with-pkg-config.sh build/consumer-pc
    LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" build/consumer-pc/consumer_pc
    LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" build/consumer-pc/consumer_c_pc
    env -u LD_LIBRARY_PATH "$prefix/bin/quelworks" --version
    env -u LD_LIBRARY_PATH "$prefix/bin/quelworks" ports >/dev/null
    devsim_out=$(mktemp)
    env -u LD_LIBRARY_PATH "$prefix/bin/quelworks-devsim" >"$devsim_out" &
    devsim_pid=$!
    for _ in $(seq 50); do [ -s "$devsim_out" ] && break; sleep 0.1; done
    env -u LD_LIBRARY_PATH "$prefix/bin/quelworks" info "$(head -n 1 "$devsim_out")"
    kill "$devsim_pid"
    wait "$devsim_pid" || true
    rm -f "$devsim_out"
    rm -rf "$prefix"
fi

if has python; then
    step "test: python package"
    cmake --preset dev >/dev/null
    cmake --build --preset dev -j "$jobs" --target quelworks_c quelworks-devsim
    # Debian's interpreter, which has Debian's pytest (another python3 may come first on PATH).
    pytest_log=$(mktemp)
    rc=0
    QUELWORKS_LIBRARY="$PWD/build/dev/libquelworks_c.so" \
        QUELWORKS_DEVSIM="$PWD/build/dev/tools/devsim/quelworks-devsim" \
        /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests 2>&1 | tee "$pytest_log" || rc=$?
    summary=$(tail -n 1 "$pytest_log")
    passed=$(grep -oE '[0-9]+ passed' <<<"$summary" | grep -oE '[0-9]+' || echo 0)
    failed=$(grep -oE '[0-9]+ failed' <<<"$summary" | grep -oE '[0-9]+' || echo 0)
    skipped=$(grep -oE '[0-9]+ skipped' <<<"$summary" | grep -oE '[0-9]+' || echo 0)
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
    total_skipped=$((total_skipped + skipped))
    rm -f "$pytest_log"
    [ "$rc" -eq 0 ] || exit "$rc"
fi

if has dotnet; then
    step "test: C# package (Mono)"
    cmake --preset dev >/dev/null
    cmake --build --preset dev -j "$jobs" --target quelworks_c quelworks-devsim
    bash dotnet/build.sh "$PWD/build/dotnet"
    dotnet_log=$(mktemp)
    rc=0
    LD_LIBRARY_PATH="$PWD/build/dev${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
        QUELWORKS_DEVSIM="$PWD/build/dev/tools/devsim/quelworks-devsim" \
        mono build/dotnet/Tests.exe 2>&1 | tee "$dotnet_log" || rc=$?
    # The closing line: "N passed, N failed, N skipped" (missing if the program died).
    summary=$(grep -E '^[0-9]+ passed, [0-9]+ failed' "$dotnet_log" | tail -n 1 || true)
    passed=$(grep -oE '[0-9]+ passed' <<<"$summary" | grep -oE '[0-9]+' || echo 0)
    failed=$(grep -oE '[0-9]+ failed' <<<"$summary" | grep -oE '[0-9]+' || echo 1)
    skipped=$(grep -oE '[0-9]+ skipped' <<<"$summary" | grep -oE '[0-9]+' || echo 0)
    total_passed=$((total_passed + passed))
    total_failed=$((total_failed + failed))
    total_skipped=$((total_skipped + skipped))
    rm -f "$dotnet_log"
    [ "$rc" -eq 0 ] || exit "$rc"
fi

if has windows; then
    step "build: mingw (Windows DLL)"
    # The Windows tests reach the simulated device, a Linux program, through Wine COM ports.
    cmake --preset dev >/dev/null
    cmake --build --preset dev -j "$jobs" --target quelworks-devsim
    cmake --preset mingw -DQW_HOST_DEVSIM="$PWD/build/dev/tools/devsim/quelworks-devsim" >/dev/null
    cmake --build --preset mingw -j "$jobs"
    step "test: mingw under Wine"
    # shellcheck source=scripts/wine-env.sh
    source scripts/wine-env.sh
    trap qw_wine_stop EXIT
    run_ctest --preset mingw -j "$jobs"
    qw_wine_stop
    trap - EXIT
fi

if has docs; then
    step "docs: API reference"
    cmake --preset dev >/dev/null
    cmake --build --preset dev --target docs
fi

if has package; then
    step "package: Debian packages and Windows zip"
    bash scripts/check-packages.sh
fi

rm -f "$ctest_log"
step "all stages passed in $((SECONDS - start_all)) s: $stages"
echo "tests: ${total_passed} passed, ${total_failed} failed, ${total_skipped} skipped"
