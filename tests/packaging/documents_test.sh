#!/usr/bin/env bash
# What is installed besides libraries, headers and tool: the licence; the documents for users, whose
# references to one another lead somewhere; and with the tool its manual and completion.
#
# Usage: documents_test.sh BUILD-FOLDER
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
cmake --install "$1" --prefix "$scratch/prefix" >"$scratch/log" || { cat "$scratch/log"; exit 1; }

documents=$scratch/prefix/share/doc/qvdbase
failures=0
for document in LICENSE README.md CHANGELOG.md SECURITY.md docs/format.md docs/recovery.md; do
  [ -s "$documents/$document" ] || { echo "$document is not installed"; failures=1; }
done
if [ -e "$scratch/prefix/bin/qvdb" ]; then
  if grep -q "^QVDBASE_SQLITE_HEADERS:PATH=/" "$1/CMakeCache.txt"; then
    [ -n "$(find "$scratch/prefix" -path "*/qvdbase/qvdbsql.so")" ] || { echo "qvdbsql.so is not installed"; failures=1; }
  fi
  for file in man/man1/qvdb.1 man/man1/qvdb-import.1 man/man3/qvdbase.3 \
    man/man5/qvdbase.5 man/man7/qvdbase-recovery.7 bash-completion/completions/qvdb \
    zsh/site-functions/_qvdb fish/vendor_completions.d/qvdb.fish; do
    [ -s "$scratch/prefix/share/$file" ] || { echo "$file is not installed"; failures=1; }
  done
fi
magic=$scratch/prefix/share/qvdbase/qvdb.magic
if [ -e "$scratch/prefix/bin/qvdb" ] && command -v file >/dev/null; then
  answer=$(file -b -m "$magic" "$documents/docs/conformance/full.qvd")
  [ "$answer" = 'QVDbase database, version 199, 31 tables' ] || { echo "file says: $answer"; failures=1; }
  answer=$(file -b -m "$magic" "$documents/LICENSE")
  case $answer in *QVDbase*) echo "file says of LICENSE: $answer"; failures=1 ;; esac
fi
[ "$failures" = 0 ] || exit 1

# Headers lie elsewhere in an installation; what is about the sources is for those who have them.
while IFS=: read -r document target; do
  target=${target#](}
  target=${target%%[#)]*}
  case $target in
    '' | *://* | *CONTRIBUTING.md | include/* | ../include/* | ../tests/* | ../bench/* | ../fuzz/* | ../scripts/*) continue ;;
  esac
  [ -e "$(dirname -- "$document")/$target" ] ||
    { echo "${document#"$documents/"} refers to $target, which is not installed"; failures=1; }
done < <(grep -roE --include='*.md' '\]\([^) ]*\)' -- "$documents")
exit "$failures"
