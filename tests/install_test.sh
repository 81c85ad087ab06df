#!/usr/bin/env bash
# The installed library as another project meets it: its header, its symbols, pkg-config, CMake, and
# a service that hangs under a watch.
#
#   install_test.sh SOURCE BUILD STAGE NM CC CXX C_FLAGS CXX_FLAGS LINK_FLAGS [TOOLCHAIN EMULATOR...]
#
# The last are for a cross-build; the emulator runs what was built.
set -euo pipefail
source=$1 build=$2 stage=$3 nm=$4 cc=$5 cxx=$6 c_flags=$7 cxx_flags=$8 link_flags=$9
toolchain=${10:-}
emulator=("${@:11}")

rm -rf "$stage"
cmake --install "$build" --prefix "$stage/usr" >/dev/null
mv "$stage/usr" "$stage/moved"  # an installed tree may be moved
prefix=$stage/moved library=$stage/moved/lib/libquorvel.so

echo "-- exactly the listed symbols are exported, under the name that programs load"
diff <(sed -n 's/^ \(.*\)@Base .*/\1/p' "$source/packaging/symbols") \
  <("$nm" -D --defined-only "$library" | awk '{print $3}' | LC_ALL=C sort)
readelf -d "$library" | grep -q 'SONAME.*\[libquorvel.so\]'

echo "-- C99 and C++17 by pkg-config, the header's version, find_package"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig  # flags are lists of words below
strict="-Wall -Wextra -Wpedantic -Werror"
flags="$(pkg-config --cflags --libs quorvel) $link_flags -pthread"
# shellcheck disable=SC2086
"$cc" -std=c99 $strict $c_flags "$source/examples/hang_service.c" $flags -o "$stage/service"
# shellcheck disable=SC2086
"$cxx" -x c++ -std=c++17 $strict $cxx_flags - $flags -o "$stage/idle" <<<'
#include <quorvel/durations.hpp>
int main() { return quorvel::Watch("", std::chrono::seconds(1)).armed(); }'
# shellcheck disable=SC2086
[[ $("$cc" -E -P $flags - <<<$'#include <quorvel/quorvel.h>\nQUORVEL_VERSION_STRING' | tail -n 1) == \
  "\"$(pkg-config --modversion quorvel)\"" ]]
cmake -G Ninja -S "$source/tests/outside" -B "$stage/outside" -Dquorvel_DIR="$prefix/lib/cmake/quorvel" \
  ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_C_FLAGS="$c_flags" >/dev/null
cmake --build "$stage/outside" >/dev/null

echo "-- a vendor program that hangs leaves its reason and is ended, which is counted"
[[ $c_flags != *=thread* ]] || exit 0  # the sanitizer's own thread must not meet the unwinder's signal
export QUORVEL_HOST_ROOT=$stage/root
data=$QUORVEL_HOST_ROOT/data properties=$QUORVEL_HOST_ROOT/dev/__properties__
mkdir -p "$QUORVEL_HOST_ROOT"/vendor/bin "$data"/{,vendor/}log/{dravik,reliability/quorvel} "$properties"
echo 1 >"$properties/dravik.event.12.config"
cp "$stage/outside/service" "$QUORVEL_HOST_ROOT/vendor/bin"
exec 9>"$stage/contended"
flock 9
trap 'cat "$stage/log"' ERR
code=0
"${emulator[@]}" "$QUORVEL_HOST_ROOT/vendor/bin/service" serve "$stage/contended" --recovery \
  2>"$stage/log" 9>&- || code=$?
[[ $code == 1 ]]
grep -q ' E QUORVEL : exit process from quorvel$' "$stage/log"
incident=$(ls "$data"/vendor/log/reliability/quorvel/quorvel@?????????????.log)
grep -q '^timeout function: reload-configuration$' "$incident"
grep -q '^  #.*(lock_configuration+' "$incident"
grep -qF "Z=copy_systrace_to_cache+quorvel+service\",\"message\":\"service,$incident\"" "$data/log/dravik/events.jsonl"
record=$(ls "$properties"/odm.quorvel.rec.*)
grep -qx '1,[0-9]*' "$record"
