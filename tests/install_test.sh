#!/usr/bin/env bash
# The installed library as another project meets it: its header, its symbols, pkg-config, CMake.
# What it builds is what the whole-process tests run.
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
prefix=$stage/moved
library=$prefix/lib/libquorvel.so

echo "-- exactly the listed symbols are exported"
diff "$source/tests/exported_symbols.txt" <("$nm" -D --defined-only "$library" | awk '{print $3}' | LC_ALL=C sort)

echo "-- the name under which programs load it"
readelf -d "$library" | grep -q 'SONAME.*\[libquorvel.so\]'

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig  # flags are lists of words below
strict="-Wall -Wextra -Wpedantic -Werror"
flags="$(pkg-config --cflags --libs quorvel) -Wl,-rpath,$prefix/lib $link_flags"
echo "-- C99 and C++11 by pkg-config"
# shellcheck disable=SC2086
"$cc" -std=c99 $strict $c_flags "$source/tests/outside/header_check.c" $flags -o "$stage/check_c"
# shellcheck disable=SC2086
"$cxx" -x c++ -std=c++11 $strict $cxx_flags "$source/tests/outside/header_check.c" -x none $flags \
  -o "$stage/check_cxx"

echo "-- find_package"
cmake -G Ninja -S "$source/tests/outside" -B "$stage/outside" -Dquorvel_DIR="$prefix/lib/cmake/quorvel" \
  ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$c_flags" -DCMAKE_CXX_FLAGS="$cxx_flags" >/dev/null
cmake --build "$stage/outside" >/dev/null

echo "-- they run"
for program in check_c check_cxx; do
  QUORVEL_HOST_ROOT=$stage "${emulator[@]}" "$stage/$program"
done
