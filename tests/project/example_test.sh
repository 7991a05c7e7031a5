#!/usr/bin/env bash
# Runs the README's example three times on a new database; the last run must list all notes. Then
# what the example refuses: a database that another program has open stays as it is, and so does one
# that could not be opened for a moment.
#
# Usage: example_test.sh PROGRAM HOLD-OPEN [PROGRAM-WHOSE-OPENING-IS-REFUSED]
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

"$1" "$scratch/my notes.qvdb" "buy bread" >"$scratch/first"
"$1" "$scratch/my notes.qvdb" "" >"$scratch/second"
"$1" "$scratch/my notes.qvdb" "bake some" >"$scratch/third"

printf '%s\n' "buy bread" | diff - "$scratch/first"
printf '%s\n' "buy bread" "" | diff - "$scratch/second"
printf '%s\n' "buy bread" "" "bake some" | diff - "$scratch/third"

# refuses STATUS WORDS PROGRAM ARGUMENT...: ends with the status, prints the words, changes nothing.
refuses() {
  local status=$1 words=$2 found=0
  shift 2
  cp -- "$scratch/my notes.qvdb" "$scratch/before"
  "$@" >"$scratch/output" 2>"$scratch/errors" || found=$?
  if [ "$found" -ne "$status" ] || ! grep -qF -- "$words" "$scratch/errors"; then
    echo "$*: status $found, not $status, or no '$words' in:"
    cat -- "$scratch/errors"
    exit 1
  fi
  cmp -- "$scratch/before" "$scratch/my notes.qvdb"
}

coproc holder { exec "$2" "$scratch/my notes.qvdb"; }
holding=$holder_PID
read -r said <&"${holder[0]}"
[ "$said" = open ]
refuses 1 "$scratch/my notes.qvdb" "$1" "$scratch/my notes.qvdb" "in use"
exec {holder[1]}>&-
wait "$holding"

refuses 1 "$scratch" "$1" "$scratch" "a folder"
refuses 2 "usage: " "$1" "$scratch/my notes.qvdb"

if [ -n "${3:-}" ]; then
  refuses 1 "OpenDBaseW failed" "$3" "$scratch/my notes.qvdb" "refused"
  cd -- "$scratch"
  refuses 2 "usage: " "$1" relative.qvdb "in C only absolute paths"
  [ ! -e relative.qvdb ] && [ ! -e /relative.qvdb ]
fi
