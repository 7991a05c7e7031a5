#!/usr/bin/env bash
# Makes the library a subfolder of another project, with that project's settings: it brings what was
# asked for and nothing else. To compile all of it takes long: with a folder to build in, or with
# QVDBASE_TEST_ALL=1 in the environment, the project is built as well, and its programs run.
#
# Usage: subfolder_test.sh PROJECT-FOLDER CC CXX [BUILD-FOLDER [CMAKE-OPTION...]]
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
project=$1 cc=$2 cxx=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
build=$scratch/build
builds=${QVDBASE_TEST_ALL-}
if [ $# -gt 0 ]; then
  build=$1 builds=1
  shift
fi

cmake -G Ninja -S "$here/subfolder" -B "$build" -DQVDBASE_FOLDER="$project" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" "$@"
if [ -e "$build/qvdbase/cmake_install.cmake" ] &&
  grep -q libqvdbase "$build/qvdbase/cmake_install.cmake"; then
  echo "the subfolder makes install rules without being asked to"
  exit 1
fi
[ "$builds" = 1 ] || exit 0
cmake --build "$build" --parallel "$(nproc)"
for program in c_qvdbase c_qvdbase_static cxx_qvdb cxx_qvdb_static; do
  "$build/$program" "$scratch/$program.qvdb"
done
