#!/usr/bin/env bash
# Runs the example with backups: each run adds a copy and keeps the last ones; another file in the
# folder stays, and a database that cannot be opened leaves everything as it is.
#
# Usage: nightly_backup_test.sh PROGRAM NOTES-PROGRAM
set -euo pipefail

program=$1 notes=$2
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
cd -- "$scratch"

"$notes" mine.qvd first >/dev/null
"$program" mine.qvd backups 2 | grep -qE '^backups/mine-[0-9]{8}T[0-9]{6}Z\.qvd: [0-9]+ bytes$'
cmp mine.qvd backups/mine-*.qvd
for old in 19990101T000000Z 20000101T000000Z; do cp mine.qvd "backups/mine-$old.qvd"; done
touch backups/mine-notes.qvd backups/readme
sleep 1.1 # another second, another name
"$notes" mine.qvd second >/dev/null
"$program" mine.qvd backups 2 >/dev/null
[ "$(ls backups | grep -c '^mine-2[0-9]*T')" -eq 2 ]
[ ! -e backups/mine-20000101T000000Z.qvd ]
cmp mine.qvd "backups/$(ls backups | grep '^mine-2[0-9]*T' | tail -n 1)"
[ -e backups/mine-notes.qvd ]
[ -e backups/readme ]

before=$(ls backups)
! "$program" missing.qvd backups 1 2>errors
grep -q '^nightly_backup: missing.qvd' errors
! "$program" mine.qvd 2>errors
[ "$(ls backups)" = "$before" ]
