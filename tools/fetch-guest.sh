#!/bin/bash
# Fills .cache with what the virtual head unit is made of: the AArch64 kernel with its modules and headers, and the
# run-time and -dev libraries for the guest and for the cross build. Nothing of it is installed on this machine; only
# the tools of group "guest" in packages.txt are. A second run needs no network.
#
#   .cache/debs/            the packages as downloaded
#   .cache/arm64/           sysroot and guest run-time (lib, bin, sbin are links into usr)
#   .cache/kernel/          boot/vmlinuz-*, lib/modules/<release>, usr/src/linux-headers-* (usable in place)
#   .cache/kernel-release   name of the kernel, e.g. 6.1.0-56-arm64
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cache=$root/.cache
list=$root/tools/packages.txt
stamp=$cache/guest.stamp

step() { printf 'guest: %s\n' "$*"; }
fail() { printf 'guest: FAILED: %s\n' "$*" >&2; exit 1; }

"$root/tools/install-packages.sh" guest || fail "installing the packages of group guest"

mapfile -t wanted < <(awk '$1 == "arm64" { print $2 }' "$list")
[ "${#wanted[@]}" -gt 0 ] || fail "no packages of group arm64 in $list"

# What the cache was made from: the package list and this script.
key=$({ printf '%s\n' "${wanted[@]}"; cat "$0"; echo "$root"; } | sha256sum | cut -d' ' -f1)
IsWarm() { [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ] && [ -f "$cache/kernel-release" ]; }

mkdir -p "$cache/debs" || fail "cannot write $cache"
exec 9> "$cache/guest.lock"
flock 9
if IsWarm; then
    step "cache is warm ($(cat "$cache/kernel-release"))"
    exit 0
fi
rm -f "$stamp"

# An apt of its own: another architecture, an empty package database (so every dependency is listed), this machine's
# sources. The machine's own lists, architectures and packages stay as they are.
apt=$cache/apt
mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial"
: > "$apt/status"
cat > "$apt/apt.conf" <<CONF
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
APT::Sandbox::User "root";
Acquire::Retries "3";
Acquire::Languages "none";
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
CONF
export APT_CONFIG=$apt/apt.conf

step "reading the package lists for arm64"
apt-get -qq update || fail "apt-get update for arm64"

# A metapackage stands for the package whose name carries the kernel's version.
Versioned() {
    local name
    name=$(apt-cache depends --important "$1" | sed -n 's/^ *Depends: \(linux-[a-z]*-[0-9][^ ]*\)$/\1/p' | head -n 1)
    [ -n "$name" ] || fail "$1 depends on no kernel package"
    printf '%s\n' "$name"
}

# What a -dev package depends on is not taken: the C library's own files for building come with the cross compiler, and
# a second set of them beside the libraries would be found first. The library itself is in the list, too.
kernel= headers= programs=() develop=()
for package in "${wanted[@]}"; do
    case $package in
    linux-image-*) kernel=$(Versioned "$package") ;;
    linux-headers-*) headers=$(Versioned "$package") ;;
    *-dev) develop+=("$package") ;;
    *) programs+=("$package") ;;
    esac
done
[ -n "$kernel" ] && [ -n "$headers" ] || fail "the list names no kernel or no headers"
release=${kernel#linux-image-}
[ "$release" = "${headers#linux-headers-}" ] || fail "kernel $kernel and headers $headers do not match"
common=linux-headers-${release%-arm64}-common

# With the empty database, a simulated installation names every library the programs need.
mapfile -t closure < <(apt-get -qq -s --no-install-recommends install "${programs[@]}" |
                       awk '$1 == "Inst" { print $2 }')
[ "${#closure[@]}" -ge "${#programs[@]}" ] || fail "dependencies of ${programs[*]} cannot be resolved"
closure+=("${develop[@]}")

step "downloading $kernel, its headers and ${#closure[@]} packages"
(cd "$cache/debs" && apt-get -qq download "$kernel" "$headers" "$common" "${closure[@]}") ||
    fail "apt-get download"

# $1 package, $2 folder. The links lib -> usr/lib and so on are kept, as on an installed system.
Unpack() {
    local deb
    deb=$(ls -t "$cache"/debs/"$1"_*.deb | head -n 1)
    [ -n "$deb" ] || fail "no package file for $1"
    dpkg-deb --fsys-tarfile "$deb" | tar -x --keep-directory-symlink --no-same-owner -C "$2" || fail "unpacking $deb"
}

step "unpacking"
rm -rf "$cache/arm64" "$cache/kernel"
mkdir -p "$cache/arm64"/usr/{bin,sbin,lib} "$cache/kernel"
ln -s usr/bin usr/sbin usr/lib "$cache/arm64/"
for package in "${closure[@]}"; do Unpack "$package" "$cache/arm64"; done
for package in "$kernel" "$headers" "$common"; do Unpack "$package" "$cache/kernel"; done
# A link that begins at the root means the root of the package's own machine.
find "$cache/arm64" -type l -lname '/*' -printf '%p\t%l\n' | while IFS=$'\t' read -r link target; do
    ln -sfnr "$cache/arm64$target" "$link"
done

# The headers expect to live in /usr/src with linux-kbuild of the same architecture beside them: point them to where
# they are, and to this machine's linux-kbuild.
src=$cache/kernel/usr/src
kbuild=$(ls -d /usr/lib/linux-kbuild-* 2>/dev/null | tail -n 1)
[ -n "$kbuild" ] || fail "no /usr/lib/linux-kbuild-*: is linux-kbuild installed?"
for folder in "$src"/linux-headers-*; do
    for link in scripts tools; do
        rm -rf "${folder:?}/$link"
        ln -s "$kbuild/$link" "$folder/$link"
    done
done
grep -rlI --include=Makefile --include=.kernelvariables '/usr/src/' "$src"/linux-headers-*/{Makefile,.kernelvariables} \
    2>/dev/null | xargs -r sed -i "s#/usr/src/#$src/#g"

[ -f "$cache/kernel/boot/vmlinuz-$release" ] || fail "no vmlinuz-$release in $kernel"
[ -d "$cache/kernel/lib/modules/$release" ] || fail "no modules for $release in $kernel"
rm -rf "$apt"
printf '%s\n' "$release" > "$cache/kernel-release"
printf '%s\n' "$key" > "$stamp"
step "ready: $release"
