#!/usr/bin/env bash
# Runs the README's example twice on a new database; the second run must list both notes.
#
# Usage: example_test.sh PROGRAM
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

"$1" "$scratch/my notes.qvdb" "buy bread" >"$scratch/first"
"$1" "$scratch/my notes.qvdb" "" >"$scratch/second"
"$1" "$scratch/my notes.qvdb" "bake some" >"$scratch/third"

printf '%s\n' "buy bread" | diff - "$scratch/first"
printf '%s\n' "buy bread" "" | diff - "$scratch/second"
printf '%s\n' "buy bread" "" "bake some" | diff - "$scratch/third"
