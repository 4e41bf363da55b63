#!/bin/sh
# Builds one of the trees below build/, configured as the tests and the demo expect them:
#   tools/build.sh native [TARGET...]   for this machine
#   tools/build.sh test   [TARGET...]   the same with the tests and their sanitized variants
#   tools/build.sh arm64  [TARGET...]   for the head unit's processor (needs tools/fetch-guest.sh)
#   tools/build.sh fuzz   [TARGET...]   fuzz targets, by clang
#   tools/build.sh bench  [TARGET...]   the benchmarks, and the service as for the car
# Without targets all that is installed is built. Prints the end of the build's output when it fails.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
tree=$1
shift
[ $# -gt 0 ] || set -- usbservice css kipcmon kipcsend usbservice-ports

case $tree in
native) options="-DUSB_TESTS=OFF" ;;
test) options="-DUSB_SANITIZED_TESTS=ON" ;;
arm64)
    options="-DCMAKE_TOOLCHAIN_FILE=$root/tools/headunit/aarch64.cmake -DUSB_TESTS=OFF -DUSB_GUEST=ON"
    # The generator of the table runs on this machine: the native tree's output is the same for every processor.
    "$0" native mtp_table
    options="$options -DUSB_MTP_TABLE=$root/build/native/platform/mtp_table.cpp"
    ;;
fuzz) options="-DCMAKE_CXX_COMPILER=clang++ -DUSB_FUZZ=ON" ;;
bench) options="-DUSB_TESTS=OFF -DUSB_BENCH=ON" ;;
*)
    echo "usage: $0 native|test|arm64|fuzz|bench [TARGET...]" >&2
    exit 2
    ;;
esac

build=$root/build/$tree
mkdir -p "$build"
log=$build/build.log
started=$(date +%s)
# shellcheck disable=SC2086 # options are words
if ! { cmake -S "$root" -B "$build" -G Ninja $options && cmake --build "$build" --target "$@"; } >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    echo "build of the $tree tree failed; all of it: build/$tree/build.log" >&2
    exit 1
fi
echo "built $tree: $* ($(($(date +%s) - started)) s)"
