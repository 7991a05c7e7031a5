#!/usr/bin/env bash
# Installs the library into a scratch folder, moves the installation, and builds and runs programs
# against it: in C11 and C++20, shared and static, through CMake and through pkg-config.
#
# Usage: packaging_test.sh BUILD-FOLDER CC CXX
set -euo pipefail

build=$1 cc=$2 cxx=$3
here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

note() {
  printf -- '-- %s\n' "$*"
}

# runs PROGRAM: it must end well on a database of its own.
databases=0
runs() {
  databases=$((databases + 1))
  note "run $(basename -- "$1")"
  "$1" "$scratch/database $databases.qvdb"
}

note "install, then move"
cmake --install "$build" --prefix "$scratch/first" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
prefix="$scratch/moved"
mv -- "$scratch/first" "$prefix"
libraries=$(dirname -- "$(find "$prefix" -name libqvdbase.a)")
export LD_LIBRARY_PATH=
if grep -rlF -e "$scratch/first" -e "$build" -- "$libraries/cmake" "$libraries/pkgconfig" "$prefix/include"; then
  echo "the files above name the folder of the build or of the first installation"
  exit 1
fi
readelf -d "$libraries/libqvdbase.so" | grep -qF 'soname: [libqvdbase.so.1]' ||
  { echo "the soname is not libqvdbase.so.1"; exit 1; }
for header in base.h qvdbase.h; do
  [ -f "$prefix/include/qvdbase/$header" ] || { echo "$header is not installed"; exit 1; }
done
if [ -e "$prefix/bin/qvdb" ]; then
  note "the tool runs from where it was moved to"
  "$prefix/bin/qvdb" --version
fi

note "CMake, C and C++"
cmake -G Ninja -S "$here/consumer" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --build "$scratch/cmake"
for program in c_qvdbase c_qvdbase_static cxx_qvdb cxx_qvdb_static cxx_qvdbase cxx_qvdbase_static; do
  runs "$scratch/cmake/$program"
done

note "CMake, a project that knows no C++"
cmake -G Ninja -S "$here/consumer" -B "$scratch/cmake_c" -DCMAKE_PREFIX_PATH="$prefix" -DWITH_CXX=OFF \
  -DCMAKE_C_COMPILER="$cc" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --build "$scratch/cmake_c"
for program in c_qvdbase c_qvdbase_static; do
  runs "$scratch/cmake_c/$program"
done

# pkg-config's answers are words of a command line; the scratch path has none of the characters
# that would need care.
export PKG_CONFIG_PATH=$libraries/pkgconfig
pkg-config --validate qvdbase
version=$(sed -n 's/.*PACKAGE_VERSION "\(.*\)".*/\1/p' "$libraries/cmake/QVDbase/QVDbaseConfigVersion.cmake" | head -1)
[ "$(pkg-config --modversion qvdbase)" = "$version" ] ||
  { echo "pkg-config says $(pkg-config --modversion qvdbase), CMake $version"; exit 1; }
warnings=(-Wall -Wextra -Wpedantic -Werror)
cflags=$(pkg-config --cflags qvdbase)
shared=$(pkg-config --libs qvdbase)
static=$(pkg-config --static --libs qvdbase)

note "pkg-config, shared: $shared"
"$cc" -std=c11 "${warnings[@]}" $cflags "$here/consumer/consumer.c" -o "$scratch/pc_c" $shared
"$cxx" -std=c++20 "${warnings[@]}" $cflags "$here/consumer/consumer.cpp" -o "$scratch/pc_cxx" $shared
for program in pc_c pc_cxx; do
  LD_LIBRARY_PATH=$libraries runs "$scratch/$program"
done

note "pkg-config, static: $static"
"$cc" -static -std=c11 "${warnings[@]}" $cflags "$here/consumer/consumer.c" -o "$scratch/pc_c_static" $static
"$cxx" -static -std=c++20 "${warnings[@]}" $cflags "$here/consumer/consumer.cpp" -o "$scratch/pc_cxx_static" $static
for program in pc_c_static pc_cxx_static; do
  runs "$scratch/$program"
done
