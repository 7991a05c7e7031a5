#!/usr/bin/env bash
# What the README says about using the installed library is enough: its lines of CMake build the
# example for C++ with the compiler's own choice of language, and its call of pkg-config does.
#
# Usage: readme_lines_test.sh PROJECT-FOLDER BUILD-FOLDER CC CXX
set -euo pipefail

root=$1 build=$2 cc=$3 cxx=$4
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >"$scratch/log" || { cat "$scratch/log"; exit 1; }

# block FENCE: the lines of the README in the block that is marked so.
block() {
  awk -v fence='```' -v mark="$1" '$0 == fence { inside = 0 } inside { print } $0 == fence mark { inside = 1 }' \
    "$root/README.md"
}

# runs PROGRAM: the example keeps a note and shows it.
runs() {
  local shown
  rm -f -- "$scratch/$(basename -- "$1").qvdb"
  shown=$("$1" "$scratch/$(basename -- "$1").qvdb" "a note")
  [ "$shown" = "a note" ] || { echo "$1 prints '$shown'"; exit 1; }
}

mkdir -- "$scratch/project"
cp -- "$root/examples/notes.cpp" "$root/examples/notes.c" "$scratch/project/"
block cmake >"$scratch/project/CMakeLists.txt"
[ -s "$scratch/project/CMakeLists.txt" ] || { echo "the README shows no lines of CMake"; exit 1; }
echo "-- CMake"
cmake -G Ninja -S "$scratch/project" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --build "$scratch/build"
runs "$scratch/build/notes"

echo "-- pkg-config"
libraries=$(dirname -- "$(find "$scratch/prefix" -name libqvdbase.a)")
export PKG_CONFIG_PATH=$libraries/pkgconfig LD_LIBRARY_PATH=$libraries
mapfile -t commands < <(block sh | grep pkg-config)
[ ${#commands[@]} -ge 2 ] || { echo "the README shows no call of pkg-config"; exit 1; }
cd -- "$scratch/project"
for command in "${commands[@]}"; do
  command=${command/#g++/$cxx}
  command=${command/#cc/$cc}
  echo "$command"
  eval "$command"
  runs ./notes
  rm -- notes
done
