#!/bin/bash
# make console [PORT=...]: builds the service for the head unit's processor, boots the virtual head unit and serves it
# on a local web page until Ctrl-C. Everything that is missing is installed or fetched first.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/alive.sh

alive "packages that are missing" tools/install-packages.sh build guest
alive "kernel and libraries of the head unit" tools/fetch-guest.sh
alive "phones for this machine" tools/build.sh native headunit_phone
alive "service, agent and board for the head unit" tools/build.sh arm64 all
alive "image of the head unit" tools/headunit/make-image.py
exec /usr/bin/python3 -B tools/console/main.py --port "$1"
