#!/usr/bin/env bash
# Every public header compiles without warnings: on its own, twice, and before and behind all of the
# others. The headers for C do so as C11 and as C++20, the others as C++20.
#
# Usage: headers_test.sh INCLUDE-FOLDER CC CXX
set -euo pipefail

include=$1 cc=$2 cxx=$3
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
failures=0

all=()
both=()
for path in "$include"/qvdbase/*; do
  header=qvdbase/$(basename -- "$path")
  all+=("$header")
  case $header in
    *.hpp | */caches.h | */QVFile.h | */QVList.h | */QVWString.h) ;; # C++ only
    *) both+=("$header") ;;
  esac
done
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
  if ! "${compiler[@]}" -Wall -Wextra -pedantic -Werror -fsyntax-only -I "$include" "$source"; then
    echo "as $language: $*"
    failures=$((failures + 1))
  fi
}

# orders LANGUAGE HEADER...: each header alone and doubled, and first with all others behind it, the
# others once in forward and once in backward order. So each stands before and behind each other.
orders() {
  local language=$1 first other
  shift
  for first in "$@"; do
    local forward=("$first" "$first") backward=("$first")
    for other in "$@"; do
      [ "$other" = "$first" ] || forward+=("$other")
      [ "$other" = "$first" ] || backward=("$first" "$other" "${backward[@]:1}")
    done
    compiles "$language" "$first"
    compiles "$language" "${forward[@]}"
    compiles "$language" "${backward[@]}"
  done
}

orders c "${both[@]}"
orders cpp "${all[@]}"
echo "${#all[@]} headers, ${#both[@]} of them for C"
exit "$failures"
