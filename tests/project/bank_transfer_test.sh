#!/usr/bin/env bash
# Runs the example of a transaction: money is moved whole, or not at all.
#
# Usage: bank_transfer_test.sh PROGRAM
set -euo pipefail

program=$1
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
bank() { "$program" "$scratch/bank.qvd" "$@"; }

bank open alice 100
bank open bob 20
bank move alice bob 30
bank list | diff - <(printf '%s\n' "alice 70" "bob 50")

! bank move alice nobody 10 2>"$scratch/errors"
grep -qxF "bank_transfer: there is no account nobody" "$scratch/errors"
! bank move bob alice 51 2>"$scratch/errors"
grep -qxF "bank_transfer: account bob has too little" "$scratch/errors"
! bank move alice bob -5 2>"$scratch/errors"
grep -qxF "bank_transfer: not an amount: -5" "$scratch/errors"
! bank open "two words" 5 2>"$scratch/errors"
grep -qxF "bank_transfer: not a name of one word: two words" "$scratch/errors"
! bank open bob 1 2>"$scratch/errors"
grep -qF "has one of its keys" "$scratch/errors"
bank list | diff - <(printf '%s\n' "alice 70" "bob 50")

status=0
bank steal 2>"$scratch/errors" || status=$?
[ "$status" -eq 2 ]
grep -qF "usage: " "$scratch/errors"
