#!/usr/bin/env bash
# Runs one example in a device root of its own: it must succeed, say what it should and leave the
# incident of the watch that hung, with the stack of the thread that did.
#
#   examples_test.sh TEXT WATCH FRAME [EMULATOR...] PROGRAM
set -euo pipefail
text=$1 watch=$2 frame=$3
program=("${@:4}")

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/data/log/reliability/quorvel"
code=0
QUORVEL_HOST_ROOT=$root "${program[@]}" >"$root/output" 2>&1 || code=$?
cat "$root/output"
[[ $code == 0 ]]
grep -q "$text" "$root/output"
incident=("$root"/data/log/reliability/quorvel/quorvel@*.log)
[[ ${#incident[@]} == 1 ]]
grep -qx "timeout function: $watch" "${incident[0]}"
grep -q "^  #.*$frame" "${incident[0]}"
