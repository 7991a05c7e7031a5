#!/usr/bin/env bash
# The script of the conformance files makes the files that are there, byte for byte.
#
# Usage: made_test.sh DOCS
set -euo pipefail

if ! command -v python3 >/dev/null; then
  echo "skipped: python3 is missing, with which the conformance files are made"
  exit 77
fi
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
python3 "$1/conformance/make_files.py" "$scratch"
diff -r --exclude=README.md --exclude='make_files.py' "$1/conformance" "$scratch"
