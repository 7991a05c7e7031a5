#!/usr/bin/env bash
# What the shells themselves complete with the files that the build has made: bash and zsh in a
# terminal, as a user types, and fish by its own question. A shell that is not installed is left out.
#
# Usage: completion_test.sh FOLDER
set -euo pipefail

made=$(realpath -- "$1")
scratch=$(mktemp -d)
trap 'rm -rf -- "$scratch"' EXIT
cd -- "$scratch"
touch notes.qvd
failures=0

# expect SHELL LINE FOUND WANTED
expect() {
  [ "$3" = "$4" ] && return
  echo "$1 completes '$2' to '$3', not '$4'"
  failures=$((failures + 1))
}

# ---- bash: what is typed, with a tab at its end, becomes the words of a command.

# inBash LINE WANTED
inBash() {
  local found
  found=$(printf '%s\t\nexit\n' "$1" |
    HOME=$scratch TERM=dumb MADE=$made script -qec 'bash --noprofile --rcfile rc -i' /dev/null |
    sed -n 's/^ran: \(.*[^\r]\) *\r*$/\1/p')
  expect bash "$1" "$found" "$2"
}
cat >rc <<'END'
PS1= ; bind 'set bell-style none'; bind 'set enable-bracketed-paste off'
source "$MADE/bash/qvdb"
qvdb() { echo "ran: $*"; }
END
if command -v script >/dev/null; then
  inBash 'qvdb imp' 'import'
  inBash 'qvdb import a.qvd t --upd' 'import a.qvd t --update'
  inBash 'qvdb sql --attach a=b --att' 'sql --attach a=b --attach'
  inBash 'qvdb help und' 'help undelete'
  inBash 'qvdb map no' 'map notes.qvd'
fi

# ---- zsh: likewise.

# inZsh LINE WANTED
inZsh() {
  local found
  found=$(zsh -f driver "$made/zsh" "$1")
  expect zsh "$1" "$found" "$2"
}
cat >driver <<'END'
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PS1=; fpath=($1 \$fpath); autoload -Uz compinit; compinit -u -d $PWD/dump"
zpty -w shell "unsetopt zle_bracketed_paste; unset zle_bracketed_paste; bindkey '^I' complete-word"
zpty -w shell "qvdb() { print -r -- \"ran\"\": \$* :end\" }; print rea\"\"dy"
zpty -r -m shell text '*ready*' || exit 1
zpty -w shell "$2"$'\t'
zpty -r -m shell text '*ran: * :end*' || exit 1
text=${text##*ran: }
print -r -- ${text%% :end*}
zpty -d shell
END
if command -v zsh >/dev/null; then
  inZsh 'qvdb imp' 'import'
  inZsh 'qvdb --vers' '--version'
  inZsh 'qvdb import a.qvd t --upd' 'import a.qvd t --update'
  inZsh 'qvdb import --exclude a --excl' 'import --exclude a --exclude'
  inZsh 'qvdb import -r --repl' 'import -r --repl' # it is there already
  inZsh 'qvdb help und' 'help undelete'
  inZsh 'qvdb map no' 'map notes.qvd'
fi

# ---- fish: it prints what it would offer, each with its description.

# inFish LINE WANTED
inFish() {
  local found
  found=$(HOME=$scratch fish --no-config -c "source '$made/fish/qvdb.fish'; complete -C '$1'" |
    cut -f 1 | paste -sd ' ')
  expect fish "$1" "$found" "$2"
}
if command -v fish >/dev/null; then
  inFish 'qvdb imp' 'import'
  inFish 'qvdb re' 'records renumber repair restore'
  inFish 'qvdb --vers' '--version'
  inFish 'qvdb import a.qvd t --upd' '--update'
  inFish 'qvdb import --exclude a --excl' '--exclude'
  inFish 'qvdb map data --cel' '--cells' # a file or table may be called as a command is
  inFish 'qvdb map data --rese' ''
  inFish 'qvdb help und' 'undelete'
  inFish 'qvdb map no' 'notes.qvd'
  inFish 'qvdb dump --since no' ''
  inFish 'qvdb dump --output no' 'notes.qvd'
fi
[ $failures -eq 0 ]
