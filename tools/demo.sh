#!/bin/bash
# make demo: builds the service for the head unit's processor, boots the virtual head unit and shows sticks and phones
# come and go. Everything that is missing is installed or fetched first.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/alive.sh

alive "packages that are missing" tools/install-packages.sh build guest
alive "kernel and libraries of the head unit" tools/fetch-guest.sh
alive "service and phones for this machine" tools/build.sh native usbservice headunit_phone
alive "service, agent and board for the head unit" tools/build.sh arm64 all
alive "image of the head unit" tools/headunit/make-image.py
exec /usr/bin/python3 -B tools/demo/main.py
