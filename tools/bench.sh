#!/bin/bash
# make bench [PEERS="udevd busybox"]: builds what is measured, measures it, prints the table and writes it as JSON.
# Everything that is missing is installed or fetched first.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/alive.sh

alive "packages that are missing" tools/install-packages.sh build bench guest
alive "kernel and libraries of the head unit" tools/fetch-guest.sh
alive "benchmarks for this machine" tools/build.sh bench bench_programs
alive "phones of the head unit" tools/build.sh native headunit_phone
alive "service, agent and board for the head unit" tools/build.sh arm64 all
alive "image of the head unit" tools/headunit/make-image.py
exec bench/run.py ${1:+--peers "$@"}
