#!/usr/bin/env bash
# scripts/setup before a package manager that only writes down what it was asked.
#
#   setup_test.sh SOURCE
set -euo pipefail
source=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
export WORK=$work

tool() {  # a command of that name, its body from stdin
  { echo '#!/bin/bash'; cat; } >"$work/bin/$1"
  chmod +x "$work/bin/$1"
}
tool dpkg-query <<<'exit 1'  # nothing is installed
tool id <<<"cat '$work/uid'"
tool apt-get <<'BODY'
echo "$*" >>"$WORK/asked"
case "$*" in *--simulate*) cat "$WORK/simulation" ;; esac
BODY
for name in awk bash cat mktemp paste rm sort tail; do ln -s "$(command -v $name)" "$work/bin/$name"; done

# Runs it for a user id, where an installation would do what the second argument says.
setup() {
  echo "$1" >"$work/uid"
  echo "$2" >"$work/simulation"
  : >"$work/asked"
  PATH=$work/bin "$BASH" "$source/scripts/setup" build >"$work/said" 2>&1
}

echo "-- packages of the machine that stand in the way are named, and nothing is installed"
! setup 0 'Remv libc++-dev [1]' || exit 1
grep -q 'stand in the way.*libc++-dev' "$work/said"
! grep -q -- '--yes' "$work/asked" || exit 1

echo "-- nothing may be removed"
setup 0 'Inst cmake'
grep -qx 'install --no-remove .*libunwind-dev.*--yes' "$work/asked"

echo "-- without rights the command for root is printed, and nothing is tried"
! setup 1000 '' || exit 1
grep -q '^  apt-get update && apt-get install --no-remove .*libunwind-dev' "$work/said"
! grep . "$work/asked" || exit 1
