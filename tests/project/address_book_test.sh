#!/usr/bin/env bash
# Runs the example with keys: people are found by the beginning of a name, in its order, and by each
# of their addresses; an address that another person has is refused.
#
# Usage: address_book_test.sh PROGRAM
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
book() { "$program" "$scratch/people.qvd" "$@"; }
program=$1

book add "Grace Hopper" grace@navy.example
book add "Ada Lovelace" ada@engine.example ada@home.example
book add "Adam Ries" adam@annaberg.example

book name Ada | diff - <(printf '%s \n' "Ada Lovelace ada@engine.example ada@home.example" \
  "Adam Ries adam@annaberg.example")
book name Z | diff - /dev/null
book mail ada@home.example | diff - <(printf '%s \n' \
  "Ada Lovelace ada@engine.example ada@home.example")

! book add "Someone Else" else@where.example ada@home.example 2>"$scratch/errors"
grep -qF "has one of its keys" "$scratch/errors"
! book mail else@where.example 2>"$scratch/errors"
grep -qF "no person has the address" "$scratch/errors"

book remove ada@engine.example
book add "Someone Else" else@where.example ada@home.example
book name Ada | diff - <(printf '%s \n' "Adam Ries adam@annaberg.example")

status=0
book add "No Address" 2>"$scratch/errors" || status=$?
[ "$status" -eq 0 ]
status=0
book find x 2>"$scratch/errors" || status=$?
[ "$status" -eq 2 ]
grep -qF "usage: " "$scratch/errors"
