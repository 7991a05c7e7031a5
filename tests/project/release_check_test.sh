#!/usr/bin/env bash
# scripts/release-check runs every check although one fails, keeps a log of each, and sums up in its
# last lines. The checks themselves are replaced here.
#
# Usage: release_check_test.sh PROJECT-FOLDER
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
mkdir -- "$scratch/scripts"
cp -- "$1/scripts/release-check" "$scratch/scripts/"
for check in cross valgrind coverage mutate bench backup-check test; do
  printf '#!/bin/sh\necho "%s: called with: $*"\n' "$check" >"$scratch/scripts/$check"
  chmod +x -- "$scratch/scripts/$check"
done

# expects PATTERN: in what the script has printed.
expects() {
  grep -qE -- "$1" "$scratch/printed" ||
    { echo "expected: $1"; cat -- "$scratch/printed"; exit 1; }
}

export GIT_CEILING_DIRECTORIES=$scratch
all=(cross valgrind coverage mutate test-all test-plain test-single bench backup)
"$scratch/scripts/release-check" "${all[@]}" >"$scratch/printed"
for check in "${all[@]}"; do
  expects "^$check +passed +[0-9]+ s +build/release-check/$check.log: .*called with"
done
expects '^test-single .*: --preset single$'
[ "$(tail -n 1 "$scratch/printed")" = "release-check: 9 passed, 0 failed" ]

printf '#!/bin/sh\necho "a leak"\nexit 3\n' >"$scratch/scripts/valgrind"
! "$scratch/scripts/release-check" cross valgrind bench >"$scratch/printed" ||
  { echo "a check failed, and the exit status is 0"; exit 1; }
expects '^valgrind +FAILED .*: a leak$'
expects '^bench +passed '
[ "$(tail -n 1 "$scratch/printed")" = "release-check: 2 passed, 1 failed" ]
[ "$(cat "$scratch/build/release-check/valgrind.log")" = "a leak" ]
