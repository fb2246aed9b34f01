#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a small consumer against it, once
# through find_package and once through pkg-config, then runs both.
set -euo pipefail

cmake=$1
build_dir=$2
consumer_dir=$3
work=$4

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix

"$cmake" --install "$build_dir" --prefix "$prefix" >"$work/install.log"

"$cmake" -S "$consumer_dir" -B "$work/cmake-build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" \
    -DCMAKE_CXX_FLAGS="$CXXFLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" >"$work/configure.log"
"$cmake" --build "$work/cmake-build" >"$work/build.log"
"$work/cmake-build/consumer"

libdir=$(dirname "$(find "$prefix" -name terrane-common.pc | head -n 1)")
export PKG_CONFIG_PATH=$libdir
# shellcheck disable=SC2046,SC2086
"$CXX" $CXXFLAGS -o "$work/consumer-pkg-config" "$consumer_dir/consumer.cpp" \
    $(pkg-config --cflags --libs terrane-common) $LDFLAGS
LD_LIBRARY_PATH=$(pkg-config --variable=libdir terrane-common) "$work/consumer-pkg-config"
