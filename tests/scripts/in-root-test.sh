#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# scripts/in-root runs nothing, as root, in a root folder that someone else made or could change:
# each is planted complete to its eyes, with an env that leaves a trace when run, and is refused
# with its reason. The same plant of root's own does run, which shows that the trace works; a
# folder of the streamer's that holds no root is kept.
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd) t=$(mktemp -d)
trap 'rm -rf --one-file-system "$t"' EXIT
# On a PATH without cmake, in-root takes this machine for one that needs a root; without apt and
# debootstrap, a fault that let it provision a root here cannot install into the system it runs in.
mkdir -p "$t/bin" "$t/mine" "$t/theirs-above" "$t/open-above/in" && touch "$t/mine/mine"
for tool in /usr/sbin/* /usr/bin/*; do
  case ${tool##*/} in cmake | apt | apt-get | debootstrap) ;; *) ln -sf "$tool" "$t/bin/" ;; esac
done
for root in theirs open theirs-above/root open-above/in/root own; do
  mkdir -p "$t/$root"/{usr/bin,var/lib/dpkg,etc,proc,dev,sys,tmp} && touch "$t/$root/.tessivane-base"
  awk '!/^#/ && NF { print "Package: " $1 "\nStatus: install ok installed\nVersion: 1\n" }' \
    "$repo/scripts/packages.txt" >"$t/$root/var/lib/dpkg/status"
  for file in /bin/sh $(ldd /bin/sh | grep -o '/[^ ]*'); do install -D "$file" "$t/$root$file"; done
  printf '#!/bin/sh\necho ran >/ran\n' | install /dev/stdin "$t/$root/usr/bin/env"
done
chown -R 65534 "$t/theirs" && chown 65534 "$t/theirs-above" && ln -s "$t/own" "$t/link"
chgrp 65534 "$t/open" && chmod 1775 "$t/open" && chmod 755 "$t" && chmod 777 "$t/open-above"
status=0
while IFS='|' read -r root says ran; do
  out=$(env -u TESSIVANE_IN_ROOT -u TESSIVANE_DIST -u TESSIVANE_FRESH PATH="$t/bin" \
    TESSIVANE_ROOT="$t/$root" "$repo/scripts/in-root" true 2>&1) || true
  [ -e "$t/$root/ran" ] && trace=yes || trace=no
  [[ $out == *"$says"* && $trace == "$ran" ]] || { echo "FAIL $root: $out (ran: $trace)"; status=1; }
done <<EOF
theirs|$t/theirs belongs to user 65534, not to root|no
open|$t/open can be written by others|no
theirs-above/root|$t/theirs-above belongs to user 65534, not to root|no
open-above/in/root|$t/open-above, a folder above $t/open-above/in/root, can be written by others|no
link|$t/link is a link|no
own||yes
mine|$t/mine is not empty and holds no root made here|no
EOF
[ -e "$t/mine/mine" ] || { echo "FAIL the streamer's folder was emptied"; status=1; }
exit $status
