#!/bin/sh
# Installs what tools/packages.txt lists for the groups named, as far as it is missing.
# tools/install-packages.sh build test
# Needs root only when something is missing.
set -eu
here=$(dirname "$0")
[ $# -gt 0 ] || { echo "usage: $0 GROUP..." >&2; exit 2; }

wanted=""
for group in "$@"; do
    names=$(sed 's/#.*//' "$here/packages.txt" | awk -v group="$group" '$1 == group { print $2 }')
    [ -n "$names" ] || { echo "install-packages: no package is listed for group '$group'" >&2; exit 2; }
    wanted="$wanted $names"
done

missing=""
for name in $wanted; do
    # Some packages are provided under another name; ask for the installed state only.
    dpkg-query -W -f='${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed || missing="$missing $name"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" != 0 ]; then
    echo "These packages are missing, and only root can install them:$missing" >&2
    exit 1
fi
echo "installing:$missing"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
export DEBIAN_FRONTEND=noninteractive
# The lists of a fresh machine are empty or old; a second try after an update tells a real failure from that.
# shellcheck disable=SC2086 # a list of names
if ! { apt-get update && apt-get install -y --no-install-recommends $missing; } >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "install-packages: apt-get failed, see above" >&2
    exit 1
fi
