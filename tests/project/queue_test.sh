#!/usr/bin/env bash
# Runs the example of a queue, and kills it again and again: each line is taken once, in order.
#
# Usage: queue_test.sh PROGRAM
set -euo pipefail

program=$1
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT

lines=3000
seq "$lines" | "$program" "$scratch/queue.qvd" put | tail -n 1 | diff - <(echo "$lines")

for ((kills = 0; kills < 20; ++kills)); do
  "$program" "$scratch/queue.qvd" take >>"$scratch/taken" &
  taker=$!
  sleep "0.0$((RANDOM % 10))"
  kill -9 "$taker" 2>/dev/null || true
  wait "$taker" 2>/dev/null || true
done
"$program" "$scratch/queue.qvd" take >>"$scratch/taken"

# The nth line that is done is line n; one that was not printed was taken when its process ended.
awk -v lines="$lines" -v kills="$kills" '
  $1 != $2 || $1 <= last { print "wrong: " $0; exit bad = 1 }
  { missing += $1 - last - 1; last = $1 }
  END {
    if (bad) exit 1
    if (last + missing < lines || missing > kills) { print "lost lines: " missing; exit 1 }
  }' "$scratch/taken"

# Where nothing can be printed one line is taken at most, and that is said.
seq 5 | "$program" "$scratch/closed.qvd" put >/dev/null
status=0
"$program" "$scratch/closed.qvd" take >&- 2>"$scratch/errors" || status=$?
[ "$status" -eq 1 ]
grep -qxF "queue: cannot write the line 1 1" "$scratch/errors"
"$program" "$scratch/closed.qvd" take | diff - <(printf '%s\n' "2 2" "3 3" "4 4" "5 5")
