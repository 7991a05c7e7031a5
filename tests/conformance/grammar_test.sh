#!/usr/bin/env bash
# Compiles the grammar docs/qvdb.ksy and reads the conformance files with it (read_files.js).
#
# Usage: grammar_test.sh DOCS BUILD-FOLDER
#
# The compiler and the runtime come from npm, at the versions of package-lock.json, into a folder under
# BUILD-FOLDER. Where npm is missing or cannot reach its registry the test is skipped (status 77),
# unless QVDBASE_GRAMMAR_REQUIRED is set.
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
docs=$1
modules=$2/grammar

skip() {
  echo "skipped: the grammar docs/qvdb.ksy is not tested: $1"
  if [ -n "${QVDBASE_GRAMMAR_REQUIRED:-}" ]; then exit 1; fi
  exit 77
}

command -v node >/dev/null || skip "node is missing (Debian package nodejs)"
command -v npm >/dev/null || skip "npm is missing (Debian package npm)"

mkdir -p -- "$modules"
if ! cmp -s -- "$here/package-lock.json" "$modules/installed.json"; then
  cp -- "$here/package.json" "$here/package-lock.json" "$modules"
  (cd -- "$modules" && npm ci --ignore-scripts --no-audit --no-fund \
    --fetch-retries=1 --fetch-timeout=30000 >npm.log 2>&1 </dev/null) ||
    skip "npm cannot install the compiler: $(grep -v '^npm warn' "$modules/npm.log" | head -n 1)"
  cp -- "$here/package-lock.json" "$modules/installed.json"
fi
exec node "$here/read_files.js" "$docs" "$modules"
