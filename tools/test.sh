#!/bin/bash
# make test [LABEL=...]: installs what is missing, builds what the tests of that label need, runs them through ctest.
# Labels: unit (no root), service (root: namespaces, loop devices), vm (the virtual head unit), asan and tsan (unit and
# some service tests under sanitizers), perf (instructions counted), fuzz. Without a label: all.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
. tools/alive.sh
label=${1:-}

groups=(build test)
targets=()
case $label in
"")      groups+=(guest); targets=(all unit_tests service_tests sanitized_tests) ;;
unit)    targets=(unit_tests) ;;
service) targets=(usbservice service_tests) ;;
vm)      groups+=(guest); targets=(usbservice) ;;
asan | tsan) targets=(sanitized_tests) ;;
perf)    targets=(perf_tests) ;;
fuzz)    targets=(mtp_table) ;;
*)       echo "make test: there is no label '$label'; see 'make help'" >&2; exit 2 ;;
esac

alive "packages that are missing" tools/install-packages.sh "${groups[@]}"
# The guest first: its download is the longest step of a first run, and fails soonest when there is no network.
case $label in "" | vm) alive "kernel and libraries of the virtual head unit" tools/fetch-guest.sh ;; esac
alive "service and tests for this machine" tools/build.sh test "${targets[@]}"
case $label in "" | fuzz) alive "fuzz targets" tools/build.sh fuzz fuzz_tests ;; esac
case $label in "" | vm)
    alive "phones of the head unit" tools/build.sh native headunit_phone
    alive "service, agent and board for the head unit" tools/build.sh arm64 all
    alive "image of the head unit" tools/headunit/make-image.py
    ;;
esac

# Tests that need the machine for themselves say so (RUN_SERIAL); the rest share the processors, two at a time on each,
# since the roads of the virtual head unit mostly wait.
select=()
[ -z "$label" ] || select=(-L "^$label\$")
exec ctest --test-dir build/test --no-tests=error --output-on-failure -j "$((2 * $(nproc)))" "${select[@]}"
