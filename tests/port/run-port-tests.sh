#!/usr/bin/env bash
# Runs the port tests and the quelworks command against simulated devices.
#
#   run-port-tests.sh native TEST_PROGRAM DEVSIM [QUELWORKS]
#   run-port-tests.sh wine   TEST_PROGRAM.exe DEVSIM [QUELWORKS.exe]
#
# Starts three quelworks-devsim instances (a normal device, a silent one, one that refuses the
# second firmware block). In wine mode each pty is registered as a Wine COM port (COM7, COM8,
# COM9), so the Windows build reaches it through the real Win32 serial calls; WINEPREFIX must
# point to a prefix made by scripts/wine-env.sh. Then runs the test program and, when given, a
# flash with the quelworks command whose written image is compared byte for byte.
set -euo pipefail

mode=$1
test_program=$2
devsim=$3
cli=${4:-}

work=$(mktemp -d /tmp/qw-port.XXXXXX)
pids=()

cleanup() {
    if [ "$mode" = wine ]; then
        # Wine holds the ptys as controlling terminals: stop it before the devices.
        wineserver -k >/dev/null 2>&1 || true
        wineserver -w >/dev/null 2>&1 || true
    fi
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    if [ "$mode" = wine ]; then
        # Leave a running wineserver behind, started away from any pipe (see scripts/wine-env.sh).
        wineserver -p >/dev/null 2>&1 || true
        wine cmd /c exit </dev/null >/dev/null 2>&1 || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# start_device NAME ARGS...: starts a simulated device and sets port_NAME to its pty path.
start_device() {
    local name=$1
    shift
    "$devsim" "$@" >"$work/$name.port" 2>"$work/$name.log" </dev/null &
    pids+=($!)
    for _ in $(seq 1 100); do
        if [ -s "$work/$name.port" ]; then
            printf -v "port_$name" '%s' "$(head -n 1 "$work/$name.port")"
            return 0
        fi
        sleep 0.05
    done
    echo "run-port-tests: the simulated device '$name' did not start:" >&2
    cat "$work/$name.log" >&2
    exit 1
}

identity=(--type 291 --sub-type 2 --revision 3 --firmware 261 --bootloader 2
    --serial QW123456 --description "port test device" --max-baud 115200 --block-size 256)
start_device normal "${identity[@]}" --image-out "$work/image-out.bin"
start_device silent "${identity[@]}" --silent
start_device reject "${identity[@]}" --reject-block 2
cli_image_out="$work/image-out.bin"

if [ "$mode" = wine ]; then
    register() {
        wine reg add 'HKLM\Software\Wine\Ports' /v "$1" /t REG_SZ /d "$2" /f >/dev/null 2>&1
    }
    register COM7 "$port_normal"
    register COM8 "$port_silent"
    register COM9 "$port_reject"
    # Wine reads its port mapping when the server starts.
    wineserver -k >/dev/null 2>&1 || true
    wineserver -w >/dev/null 2>&1 || true
    wineserver -p >/dev/null 2>&1 || true
    wine cmd /c exit </dev/null >/dev/null 2>&1 || true
    export QW_TEST_PORT=COM7 QW_TEST_PORT_SILENT=COM8 QW_TEST_PORT_REJECT=COM9
    run=(wine)
else
    export QW_TEST_PORT=$port_normal QW_TEST_PORT_SILENT=$port_silent QW_TEST_PORT_REJECT=$port_reject
    run=()
fi
export QW_TEST_IMAGE_OUT="$work/image-out.bin"

echo "devices: $QW_TEST_PORT (normal), $QW_TEST_PORT_SILENT (silent), $QW_TEST_PORT_REJECT (rejects block 2)"
"${run[@]}" "$test_program"

if [ -n "$cli" ]; then
    head -c 20000 /dev/urandom >"$work/cli-image.bin"
    rm -f "$cli_image_out"
    image_arg="$work/cli-image.bin"
    [ "$mode" = wine ] && image_arg="Z:$image_arg"
    echo "--- quelworks ports"
    "${run[@]}" "$cli" ports | tee "$work/ports.txt"
    if [ "$mode" = wine ] && ! grep -qx 'COM7' <(tr -d '\r' <"$work/ports.txt"); then
        echo "run-port-tests: COM7 is not in the port listing" >&2
        exit 1
    fi
    echo "--- quelworks info $QW_TEST_PORT"
    "${run[@]}" "$cli" info "$QW_TEST_PORT"
    echo "--- quelworks flash $QW_TEST_PORT"
    "${run[@]}" "$cli" flash "$QW_TEST_PORT" "$image_arg" </dev/null
    for _ in $(seq 1 40); do
        cmp -s "$work/cli-image.bin" "$cli_image_out" && break
        sleep 0.05
    done
    cmp "$work/cli-image.bin" "$cli_image_out"
    echo "the device received the image byte for byte"
    set +e
    "${run[@]}" "$cli" info "$QW_TEST_PORT_SILENT" --timeout 100 >/dev/null 2>&1
    rc=$?
    set -e
    if [ "$rc" -eq 0 ]; then
        echo "run-port-tests: 'quelworks info' on a silent device succeeded" >&2
        exit 1
    fi
    echo "a silent device makes 'quelworks info' fail with exit code $rc"

    echo "--- quelworks ports --long, --json"
    "${run[@]}" "$cli" ports --long
    "${run[@]}" "$cli" ports --json | tr -d '\r' >"$work/ports.json"
    if [ "$mode" = wine ] && ! grep -q "\"name\": \"$QW_TEST_PORT\"" "$work/ports.json"; then
        echo "run-port-tests: $QW_TEST_PORT is not in 'quelworks ports --json'" >&2
        exit 1
    fi

    echo "--- quelworks flash on three devices at once"
    rm -f "$cli_image_out"
    set +e
    "${run[@]}" "$cli" flash "$image_arg" --timeout 300 --port "$QW_TEST_PORT" \
        --port "$QW_TEST_PORT_SILENT" --port "$QW_TEST_PORT_REJECT" </dev/null \
        | tr -d '\r' >"$work/multi.txt"
    rc=${PIPESTATUS[0]}
    set -e
    cat "$work/multi.txt"
    verdict() { grep "^$1 " "$work/multi.txt" | awk '{print $3}'; }
    if [ "$rc" -eq 0 ] || [ "$(verdict "$QW_TEST_PORT")" != verified ] ||
        [ "$(verdict "$QW_TEST_PORT_SILENT")" != FAILED ] ||
        [ "$(verdict "$QW_TEST_PORT_REJECT")" != FAILED ]; then
        echo "run-port-tests: the flash on three devices did not report one verified and two" \
            "failed devices (exit code $rc)" >&2
        exit 1
    fi
    for _ in $(seq 1 40); do
        cmp -s "$work/cli-image.bin" "$cli_image_out" && break
        sleep 0.05
    done
    cmp "$work/cli-image.bin" "$cli_image_out"
    echo "three devices at once: one verified byte for byte, two failed, exit code $rc"
fi
