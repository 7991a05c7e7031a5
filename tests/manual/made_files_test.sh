#!/usr/bin/env bash
# The pages and completion files that the build has made: mandoc and the shells accept them, where
# they are installed, and bash completes commands, options and names of files.
#
# Usage: made_files_test.sh FOLDER QVDB
set -euo pipefail

made=$1
for page in man3/qvdbase.3 man5/qvdbase.5 man7/qvdbase-recovery.7; do
  [ -s "$made/$page" ] || { echo "$page is missing"; exit 1; }
done
[ "$(find "$made/man1" -name 'qvdb*.1' | wc -l)" -ge 20 ] || { echo "pages are missing"; exit 1; }

if command -v mandoc >/dev/null; then
  # Each page is read alone: those that it refers to are not installed here.
  complaints=$(mandoc -T lint -W style "$made"/man*/* 2>&1 | grep -v 'referenced manual not found' || true)
  [ -z "$complaints" ] || { echo "$complaints"; exit 1; }
  # 'grep -q' would end before the programs have written all, which then fail.
  mandoc -T utf8 "$made/man1/qvdb-import.1" | col -b | grep -- '-r, --replace' >/dev/null
fi
if command -v zsh >/dev/null; then zsh -n "$made/zsh/_qvdb"; fi
if command -v fish >/dev/null; then fish --no-execute "$made/fish/qvdb.fish"; fi

# shellcheck disable=SC1091
source "$made/bash/qvdb"

# completes WORD... EXPECTED: what bash offers for the last of the words.
completes() {
  local expected=${*: -1}
  COMP_WORDS=("${@:1:$#-1}")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _qvdb
  [ "${COMPREPLY[*]-}" = "$expected" ] ||
    { echo "'${COMP_WORDS[*]}' completes to '${COMPREPLY[*]-}', not '$expected'"; exit 1; }
}
completes qvdb imp import
completes qvdb re 'records restore renumber repair'
completes qvdb tri trim
completes qvdb trim --dry --dry-run
completes qvdb import --rep --replace
completes qvdb import --up --update
completes qvdb import --d '--delete --dry-run'
completes qvdb import --ex --exclude
completes qvdb import a.qvd t --no --no-sync
completes qvdb help und undelete
completes qvdb import a ''  # names of files, by the shell

# What is offered is what the tool has.
for command in $(compgen -W "$("$2" --help | sed -n '/^COMMANDS/,/^$/s/^  \([a-z-]*\) .*/\1/p')"); do
  COMP_WORDS=(qvdb "$command" -) COMP_CWORD=2 COMPREPLY=()
  _qvdb
  help=$("$2" "$command" --help)
  for option in "${COMPREPLY[@]}"; do
    grep -qE -- "^  (-., )?$option( |,|$)" <<<"$help" ||
      { echo "qvdb $command has no $option"; exit 1; }
  done
done
