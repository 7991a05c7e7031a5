#!/usr/bin/env bash
# Every public header compiles without warnings: on its own, twice, and before and after each of the
# others. The headers for C do so as C11 and as C++20, the others as C++20. Each one
# of the C++ layer says what it needs when it is compiled as C++17.
#
# Usage: headers_test.sh INCLUDE-FOLDER CC CXX
set -euo pipefail

include=$1 cc=$2 cxx=$3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
failures=0

all=()
both=()
while IFS= read -r header; do
  all+=("$header")
  case $header in
    *.hpp | */caches.h | */QVFile.h | */QVList.h | */QVWString.h) ;; # C++ only
    *) both+=("$header") ;;
  esac
done < <(cd -- "$include" && find qvdbase -type f | sort)
[ ${#both[@]} -gt 0 ] || { echo "no headers in $include"; exit 1; }

# compiles LANGUAGE HEADER...: a file that includes these headers, in this order, and nothing else.
compiles() {
  local language=$1 header
  shift
  local source=$scratch/order.$language
  for header in "$@"; do printf '#include <%s>\n' "$header"; done >"$source"
  # A translation unit without a declaration is no C.
  echo 'extern int something;' >>"$source"
  local compiler=("$cc" -std=c11)
  [ "$language" = c ] || compiler=("$cxx" -std=c++20)
  if ! "${compiler[@]}" -Wall -Wextra -pedantic -Werror -I "$include" \
    -fsyntax-only "$source"; then
    echo "as $language: $*"
    failures=$((failures + 1))
    [ "$failures" -lt 3 ] || exit 1
  fi
}

# orders LANGUAGE HEADER...: each header alone, then all in this order, each twice, and all in the
# opposite order. So each comes before and after each other.
orders() {
  local language=$1 header
  shift
  local forward=() backward=()
  for header in "$@"; do
    compiles "$language" "$header"
    forward+=("$header" "$header")
    backward=("$header" ${backward[@]+"${backward[@]}"})
  done
  compiles "$language" "${forward[@]}"
  compiles "$language" "${backward[@]}"
}

# refused HEADER: the first thing that the compiler reports of it as C++17 is what it needs.
refused() {
  printf '#include <%s>\n' "$1" >"$scratch/old.cpp"
  if "$cxx" -std=c++17 -I "$include" -fsyntax-only -Wfatal-errors "$scratch/old.cpp" \
    2>"$scratch/said"; then
    echo "as C++17: $1 is not refused"
    failures=$((failures + 1))
  elif ! grep -m 1 'error:' "$scratch/said" | grep -q 'needs C++20: compile with -std=c++20'; then
    echo "as C++17: $1"
    head -n 5 "$scratch/said"
    failures=$((failures + 1))
  fi
}

orders c "${both[@]}"
orders cpp "${all[@]}"
for header in "${all[@]}"; do
  case $header in *.hpp) refused "$header" ;; esac
done
echo "${#all[@]} headers, ${#both[@]} of them for C"
exit "$failures"
