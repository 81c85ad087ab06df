#!/usr/bin/env bash
# The library by add_subdirectory, installed where a distribution wants its libraries.
#
#   subproject_test.sh SOURCE STAGE
set -euo pipefail
source=$1 stage=$2
rm -rf "$stage"
libdir=lib/some-machine
cmake -G Ninja -S "$source/tests/subproject" -B "$stage/build" -DQUORVEL_SOURCE="$source" \
  -DCMAKE_INSTALL_LIBDIR=$libdir -DCMAKE_CXX_FLAGS=-O0 >/dev/null

echo "-- only the parent's own tests are its tests"
[[ $(ctest --test-dir "$stage/build" -N | grep -c 'Test *#') == 1 ]]

echo "-- it builds and links as quorvel::quorvel"
cmake --build "$stage/build" >/dev/null
[[ $("$stage/build/service" 2>&1 || true) == usage* ]]

echo "-- the chosen directory is where everything lies, also after a move"
cmake --install "$stage/build" --prefix "$stage/prefix" >/dev/null
mv "$stage/prefix" "$stage/moved"
PKG_CONFIG_PATH=$stage/moved/$libdir/pkgconfig pkg-config --variable=libdir quorvel |
  xargs realpath | grep -qx "$(realpath "$stage/moved/$libdir")"
[[ -f $stage/moved/$libdir/libquorvel.so && -d $stage/moved/$libdir/cmake/quorvel ]]
