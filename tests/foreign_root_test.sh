#!/usr/bin/env bash
# A device root that was there before the tests: whatever they do, they do it elsewhere.
#
#   foreign_root_test.sh [EMULATOR...] UNIT_TESTS
set -euo pipefail
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/data/log/{dravik,reliability/quorvel} "$root/dev/__properties__"
echo kept >"$root/data/log/reliability/quorvel/quorvel@1700000000000.log"
state() { (cd "$root" && find . -type f -exec cksum {} + -o -print | LC_ALL=C sort); }
before=$(state)
QUORVEL_HOST_ROOT=$root "$@" --gtest_filter='Incident*' >/dev/null
diff <(echo "$before") <(state)
