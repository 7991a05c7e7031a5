#!/usr/bin/env bash
# The pkg-config file names the folders into which headers and libraries are installed, whether
# these are given relative to the prefix or as paths of their own.
#
# Usage: pkg_config_test.sh SOURCE-FOLDER CC CXX
set -euo pipefail

source=$1 cc=$2 cxx=$3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
failures=0

# names PREFIX LIBDIR INCLUDEDIR ARGUMENT...: what the file says after CMake was run with ARGUMENT...
names() {
  local prefix=$1 libdir=$2 includedir=$3 build=$scratch/build
  shift 3
  rm -rf -- "$build"
  cmake -G Ninja -S "$source" -B "$build" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DQVDBASE_BUILD_TESTS=OFF -DQVDBASE_BUILD_EXAMPLES=OFF "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
  # In its place, from which it finds the prefix.
  local place=$prefix/lib/some/pkgconfig
  mkdir -p -- "$place"
  cp -- "$build/qvdbase.pc" "$place"
  export PKG_CONFIG_PATH=$place
  pkg-config --validate qvdbase
  says prefix "$prefix"
  says libdir "$libdir"
  says includedir "$includedir"
  rm -rf -- "$prefix"
}

# says VARIABLE PATH
says() {
  local is
  is=$(pkg-config --variable="$1" qvdbase)
  case $is in
    /*) [ "$(realpath -m -- "$is")" = "$2" ] || fails "$1 is $is, not $2" ;;
    *) fails "$1 is $is, not an absolute path" ;;
  esac
}

fails() {
  echo "$*"
  failures=$((failures + 1))
}

prefix=$scratch/prefix
names "$prefix" "$prefix/lib/some" "$prefix/include" \
  -DCMAKE_INSTALL_PREFIX=/elsewhere -DCMAKE_INSTALL_LIBDIR=lib/some
names "$prefix" "$prefix/lib/some" "$prefix/include" \
  -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR="$prefix/lib/some"
names "$prefix" /opt/lib "$prefix/include" \
  -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=/opt/lib
names "$prefix" "$prefix/lib/some" /opt/include \
  -DCMAKE_INSTALL_PREFIX=/elsewhere -DCMAKE_INSTALL_LIBDIR=lib/some -DCMAKE_INSTALL_INCLUDEDIR=/opt/include
exit "$failures"
