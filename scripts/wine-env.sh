#!/usr/bin/env bash
# Source this to get a private, headless Wine prefix for running the Windows build:
#   source scripts/wine-env.sh   # sets WINEPREFIX, starts a persistent wineserver
#   qw_wine_stop                 # stops the wineserver and removes the prefix
# The prefix lives in a temporary folder; creating it takes about 15 s the first time.
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY
export WINEPREFIX=${QW_WINEPREFIX:-$(mktemp -d /tmp/qw-wine.XXXXXX)}
export WINEARCH=win64
if [ ! -f "$WINEPREFIX/system.reg" ]; then
    wineboot -i >/dev/null 2>&1 || true
    wineserver -w
fi
# Keep one wineserver running so that every test program starts in well under a second.
wineserver -p >/dev/null 2>&1 || true
# Start Wine's background services now, detached from any pipe: started by the first test program
# they would inherit its output pipe and keep CTest waiting for it to close.
wine cmd /c exit </dev/null >/dev/null 2>&1 || true

qw_wine_stop() {
    wineserver -k >/dev/null 2>&1 || true
    wineserver -w >/dev/null 2>&1 || true
    if [ -z "${QW_WINEPREFIX:-}" ] && [[ "$WINEPREFIX" == /tmp/qw-wine.* ]]; then
        rm -rf "$WINEPREFIX"
    fi
}
