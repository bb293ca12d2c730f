#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# scripts/in-root runs nothing, as root, in a root folder that someone else could have made or
# changed. Each such folder is planted complete (the mark, a dpkg status that lists every package,
# the mount points) with a /usr/bin/env that leaves a trace when run, and must be refused with its
# reason. The same plant in a folder of root's own is run, which shows the trace works; a folder of
# the streamer's that holds no root is kept as it is.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
t=$(mktemp -d)
trap 'rm -rf --one-file-system "$t"' EXIT
chmod 755 "$t"

# On a PATH without cmake, in-root takes this machine for one that needs a root; without apt and
# debootstrap, a fault that let it provision a root here cannot install into the system it runs in.
mkdir "$t/bin"
for tool in /usr/sbin/* /usr/bin/*; do
  case ${tool##*/} in cmake | apt | apt-get | debootstrap) ;; *) ln -sf "$tool" "$t/bin/" ;; esac
done

plant() {
  mkdir -p "$1"/{usr/bin,var/lib/dpkg,etc,proc,dev,sys,tmp}
  touch "$1/.tessivane-base"
  awk '!/^#/ && NF { printf "Package: %s\nStatus: install ok installed\nVersion: 1\n\n", $1 }' \
    "$repo/scripts/packages.txt" >"$1/var/lib/dpkg/status"
  local file
  for file in /bin/sh $(ldd /bin/sh | grep -o '/[^ ]*'); do
    mkdir -p "$1${file%/*}"
    cp -L "$file" "$1$file"
  done
  printf '#!/bin/sh\necho ran >/ran\n' >"$1/usr/bin/env"
  chmod 755 "$1/usr/bin/env"
}

failed=0
# in-root on the root folder $2 says $3 and leaves its trace, or not, as $4 says.
expect() {
  local out trace=no
  out=$(env -u TESSIVANE_IN_ROOT -u TESSIVANE_DIST -u TESSIVANE_FRESH PATH="$t/bin" \
    TESSIVANE_ROOT="$2" "$repo/scripts/in-root" true 2>&1) || true
  [ ! -e "$2/ran" ] || trace=yes
  if [[ $out != *"$3"* ]] || [ "$trace" != "$4" ]; then
    printf 'FAIL %s: said "%s", ran: %s\n' "$1" "$out" "$trace"
    failed=1
  else
    echo "ok   $1"
  fi
}

plant "$t/theirs"
chown -R 65534:65534 "$t/theirs"
expect "a root of another user's" "$t/theirs" "$t/theirs belongs to user 65534, not to root" no

plant "$t/open"
chgrp 65534 "$t/open"
chmod 1775 "$t/open"
expect "a root that its group may write to" "$t/open" "$t/open can be written by others" no

mkdir "$t/theirs-above"
plant "$t/theirs-above/root"
chown 65534 "$t/theirs-above"
expect "a root in another user's folder" "$t/theirs-above/root" \
  "$t/theirs-above belongs to user 65534, not to root" no
# Two folders up: any folder above the root counts, not only the nearest.
mkdir -p "$t/open-above/in"
plant "$t/open-above/in/root"
chmod 777 "$t/open-above"
expect "a root under a folder anyone may write to" "$t/open-above/in/root" \
  "$t/open-above, a folder above $t/open-above/in/root, can be written by others" no

plant "$t/own"
ln -s "$t/own" "$t/link"
expect "a link to a root" "$t/link" "$t/link is a link" no
rm -f "$t/own/ran"
expect "a root of root's own" "$t/own" "" yes

mkdir "$t/mine"
touch "$t/mine/mine"
expect "a folder with something else in it" "$t/mine" "holds no root made here" no
[ -e "$t/mine/mine" ] || { echo "FAIL the folder's content is gone"; failed=1; }
exit $failed
