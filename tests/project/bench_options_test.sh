#!/usr/bin/env bash
# scripts/bench explains every option that it takes, and refuses what it does not know before it
# builds anything.
#
# Usage: bench_options_test.sh PROJECT-FOLDER
set -euo pipefail

help=$("$1/scripts/bench" --help)
options=$(sed -n '/^while /,/^done/p' "$1/scripts/bench" | grep -oE -- '--[a-z]+' | sort -u)
[ "$(wc -w <<<"$options")" -ge 9 ] || { echo "options not found"; exit 1; }
for option in $options; do
  [ "$option" = --help ] || grep -qE -- "(^|[ |[])$option\b" <<<"$help" ||
    { echo "--help does not explain $option"; exit 1; }
done

# refuses PATTERN ARGUMENT...
refuses() {
  local pattern=$1 status=0 message
  shift
  message=$("$1" "${@:2}" 2>&1) || status=$?
  [ "$status" -eq 2 ] && grep -qE -- "^bench: $pattern" <<<"$message" ||
    { echo "'${*:2}' ends with $status: $message"; exit 1; }
}
refuses "unknown option '--fast'" "$1/scripts/bench" --fast
refuses "--case wants VALUE/RECORDS, not '100'" "$1/scripts/bench" --case 100
refuses '--minutes wants a value' "$1/scripts/bench" --minutes
refuses "--minutes wants a number, not 'ten'" "$1/scripts/bench" --minutes ten
refuses "unexpected argument 'b'" "$1/scripts/bench" a b
