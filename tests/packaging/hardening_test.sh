#!/usr/bin/env bash
# The installed library and tool have what compiler and linker offer against the exploitation of a
# mistake: checked stacks, copying with checked sizes, addresses that are bound at the start.
#
# Usage: hardening_test.sh BUILD-FOLDER CHECKS-SIZES     CHECKS-SIZES: ON where the build optimises
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
cmake --install "$1" --prefix "$scratch/prefix" >"$scratch/log" || { cat "$scratch/log"; exit 1; }

failures=0
# expects FILE PATTERN WHAT: in what the file says of itself.
expects() {
  grep -qE -- "$2" "$scratch/facts" ||
    { echo "$(basename -- "$1"): no $3"; failures=1; }
}

files=("$(find "$scratch/prefix" -name 'libqvdbase.so.*.*')")
[ ! -e "$scratch/prefix/bin/qvdb" ] || files+=("$scratch/prefix/bin/qvdb")
for file in "${files[@]}"; do
  readelf --wide --dynamic --program-headers --dyn-syms -- "$file" >"$scratch/facts"
  expects "$file" 'FLAGS.*(BIND_NOW|NOW)' 'binding at the start (BIND_NOW)'
  expects "$file" 'GNU_RELRO' 'read-only relocations (RELRO)'
  expects "$file" '__stack_chk_fail' 'checks of the stack'
  [ "$2" != ON ] || expects "$file" '__[a-z]+_chk\b' 'copying with checked sizes (_FORTIFY_SOURCE)'
  ! grep -qE 'GNU_STACK.* RWE' "$scratch/facts" ||
    { echo "$(basename -- "$file"): the stack is executable"; failures=1; }
done
exit "$failures"
