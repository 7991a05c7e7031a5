#!/usr/bin/env bash
# The code in the README is the code of the examples, which are built and run: compares each block
# that is marked as C or C++ with its file.
#
# Usage: readme_test.sh PROJECT-FOLDER
set -euo pipefail

cd -- "$1"
failures=0
for language in c cpp; do
  if ! awk -v fence='```' -v language="$language" '
      $0 == fence { inside = 0 }
      inside { print }
      $0 == fence language { inside = 1 }' README.md | diff - "examples/notes.$language"; then
    echo "README.md (above: <) and examples/notes.$language (>) differ"
    failures=1
  fi
done
exit "$failures"
