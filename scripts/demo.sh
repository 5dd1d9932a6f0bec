#!/usr/bin/env bash
# The quelworks demo: builds the command and the simulated device, starts the simulator on a
# pseudo-terminal, lists the serial ports, reads the device's identity, flashes a sample image
# over an emulated 115200-baud line (a progress bar on a terminal, plain lines otherwise),
# verifies what the device received byte for byte, stops the simulator, hatches a sample outline
# into an SVG picture, checks a sample calibration (finding its mistyped point, drawn into an SVG
# picture), maps a camera position through it, and runs the examples.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
examples=()
for source in examples/*.cpp; do
    [ -e "$source" ] || continue
    name=${source##*/}
    examples+=("example_${name%.cpp}")
done
cmake --build --preset release -j "$(nproc)" --target quelworks-cli quelworks-devsim "${examples[@]}"

bin=build/release/tools
work=$(mktemp -d)
devsim_pid=""
cleanup() {
    if [ -n "$devsim_pid" ] && kill -0 "$devsim_pid" 2>/dev/null; then
        kill -TERM "$devsim_pid" 2>/dev/null || true
        wait "$devsim_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

if [ -t 1 ]; then
    step() { printf '\n\033[1m$ %s\033[0m\n' "$*"; }
else
    step() { printf '\n$ %s\n' "$*"; }
fi

# The simulator prints its port on the first line. Its line follows the device's own baud rate:
# 9600 until the client switches it to the maximum, 115200.
"$bin/devsim/quelworks-devsim" --line-rate device --max-baud 115200 \
    --image-out "$work/received.bin" >"$work/devsim.out" &
devsim_pid=$!
for _ in $(seq 100); do
    [ -s "$work/devsim.out" ] && break
    sleep 0.05
done
port=$(head -n 1 "$work/devsim.out")
[ -n "$port" ] || { echo "demo: the simulator did not start" >&2; exit 1; }
echo "quelworks-devsim serves a simulated device on $port"

step quelworks ports
"$bin/cli/quelworks" ports || true
echo "(a pty is not a serial port the system lists; the simulator's is $port)"

step quelworks info "$port"
"$bin/cli/quelworks" info "$port"

head -c $((48 * 1024)) /dev/urandom >"$work/sample.bin"
step quelworks flash "$port" sample.bin --max-baud
"$bin/cli/quelworks" flash "$port" "$work/sample.bin" --max-baud

step cmp sample.bin received.bin
cmp "$work/sample.bin" "$work/received.bin"
echo "the device received the image byte for byte"

kill -TERM "$devsim_pid"
wait "$devsim_pid"
devsim_pid=""
echo "simulator stopped"

if [ -f examples/outline.txt ]; then
    step quelworks hatch examples/outline.txt --spacing 10 --svg build/release/outline-hatch.svg
    "$bin/cli/quelworks" hatch examples/outline.txt --spacing 10 --svg build/release/outline-hatch.svg
fi

if [ -f examples/calibration-12x12.txt ]; then
    # The sample calibration holds one mistyped point: check finds it (exit 12) and draws where.
    step quelworks calibrate check examples/calibration-12x12.txt --svg build/release/calibration-check.svg
    status=0
    "$bin/cli/quelworks" calibrate check examples/calibration-12x12.txt \
        --svg build/release/calibration-check.svg || status=$?
    [ "$status" -eq 12 ] || { echo "demo: calibrate check should have found the mistyped point" >&2; exit 1; }
    step "echo 640 480 | quelworks calibrate map examples/calibration-12x12.txt"
    echo "640 480" | "$bin/cli/quelworks" calibrate map examples/calibration-12x12.txt
fi

for example in "${examples[@]}"; do
    step "$example"
    "build/release/examples/$example"
done
