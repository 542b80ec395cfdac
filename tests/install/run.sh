#!/usr/bin/env bash
# Installs the build to an empty prefix, moves it, and builds a small outside project against it in the three ways the
# package offers: find_package, the example that uses it, and pkg-config.
#
#   run.sh CMAKE SOURCE_DIRECTORY BUILD_DIRECTORY CXX
set -euo pipefail

cmake=$1 source=$2 build=$3 cxx=$4
work=$build/install_consumer
rm -rf "$work"
mkdir -p "$work"

"$cmake" --install "$build" --prefix "$work/first" >"$work/install.log"
# An installed tree names no place: what was configured into it must not be where it was installed.
mv "$work/first" "$work/prefix"
prefix=$work/prefix
if grep -rlF -e "$source" "$prefix/include" "$prefix/lib/cmake" "$prefix/lib/pkgconfig"; then
  echo "install: these files name the source tree" >&2
  exit 1
fi

echo "-- find_package"
"$cmake" -G Ninja -S "$source/tests/install" -B "$work/consumer" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/consumer.log"
"$cmake" --build "$work/consumer"
# Only root hears of processes on every kernel.
how=()
if [[ $(id -u) -ne 0 ]]; then
  how=(list)
  echo "not root: the consumer listens to no events"
fi
"$work/consumer/consumer" "$prefix/lib/libprocess_manager.so" "${how[@]}" >"$work/consumer.out"
tail -n 1 "$work/consumer.out"

if compgen -G "$source/examples/minimal_host/*.cpp" >/dev/null; then
  echo "-- the example, by itself"
  "$cmake" -G Ninja -S "$source/examples/minimal_host" -B "$work/minimal_host" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/minimal_host.log"
  "$cmake" --build "$work/minimal_host"
fi

echo "-- pkg-config"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
read -ra flags <<<"$(pkg-config --cflags libprocess_manager)"
read -ra libraries <<<"$(pkg-config --libs libprocess_manager)"
"$cxx" -std=c++20 "${flags[@]}" "$source/tests/install/main.cpp" -o "$work/by_pkg_config" "${libraries[@]}"
"$work/by_pkg_config" "$(pkg-config --variable=module libprocess_manager)" list >/dev/null

if [[ -x $prefix/bin/pmhost ]]; then
  echo "-- pmhost, from where it was moved to"
  "$prefix/bin/pmhost" --version
fi
