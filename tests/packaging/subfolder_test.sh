#!/usr/bin/env bash
# Builds the library as a subfolder of another project, with that project's settings, and runs the
# project's programs.
#
# Usage: subfolder_test.sh PROJECT-FOLDER CC CXX
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

cmake -G Ninja -S "$here/subfolder" -B "$scratch/build" -DQVDBASE_FOLDER="$1" \
  -DCMAKE_C_COMPILER="$2" -DCMAKE_CXX_COMPILER="$3"
cmake --build "$scratch/build"
for program in c_qvdbase c_qvdbase_static cxx_qvdb cxx_qvdb_static; do
  "$scratch/build/$program" "$scratch/$program.qvdb"
done
if [ -e "$scratch/build/qvdbase/cmake_install.cmake" ] &&
  grep -q libqvdbase "$scratch/build/qvdbase/cmake_install.cmake"; then
  echo "the subfolder makes install rules without being asked to"
  exit 1
fi
