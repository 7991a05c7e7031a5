#!/usr/bin/env bash
# Plants declarations without a comment, one kind at a time, in public headers of a small tree of its
# own, and expects the comment check to name each of them; a tree in which all have one passes.
#
# Usage: check_comments_test.sh CHECK-COMMENTS
set -euo pipefail

check=$1
tree=$(mktemp -d)
trap 'rm -rf -- "$tree"' EXIT
failures=0

# freshTree: one documented declaration of each kind, and some that need no comment.
freshTree() {
  rm -rf -- "$tree"
  mkdir -p -- "$tree/include/qvdbase/qvdb" "$tree/src/exports"
  cat >"$tree/src/exports/visible_symbols.txt" <<'SYMBOLS'
# What is visible.
C    AddTable
C    gbl_count
C++  QVMIN(*
C++  QVList::*
C++  qvdb::*
C++  typeinfo for qvdb::*
SYMBOLS
  cat >"$tree/include/qvdbase/qvdbase.h" <<'HEADER'
/* The functions in C. */
#ifndef QVDBASE_QVDBASE_H
#define QVDBASE_QVDBASE_H

/* The mark of what is visible. */
#if defined(__GNUC__)
#define QVDBASE_API __attribute__((visibility("default")))
#else
#define QVDBASE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A character. */
typedef uint16_t QVWCHAR;

/* A progress function. */
typedef uint16_t (*QVProgressFunction)(int, int, void*);

/* A pair. */
typedef struct Pair {
  uint64_t oldID; /* what is replaced, in a comment of more
                     than one line */
  uint64_t newID; /* what replaces it */
} Pair;

/* Adds a table.
 *
 * Returns its identifier. */
QVDBASE_API uint64_t AddTable(int16_t db,
                              const char* name);

/* How many there are. */
extern QVDBASE_API int32_t gbl_count;

#ifdef __cplusplus
}
#endif
#endif
HEADER
  cat >"$tree/include/qvdbase/QVList.h" <<'HEADER'
// Lists.
#pragma once

// The smaller one.
QVDBASE_API int QVMIN(int a, int b);

// A list.
class QVDBASE_API QVList {
 public:
  QVList();   // empty
  ~QVList();  // frees all
  QVList(const QVList&) = delete;

  // Adds an element.
  int Add(const void* bytes, int size);

 private:
  int count;
};
HEADER
  cat >"$tree/include/qvdbase/qvdb/table.hpp" <<'HEADER'
// Tables.
#pragma once

namespace qvdb {

class Record;

namespace detail {
struct Hidden {
  int member;
};
}  // namespace detail

// How a table is opened.
enum class Mode : int {
  any = 0,  // what can be obtained
  // Reads.
  read_only,
};

// What is asked for.
struct Options {
  std::array<char, 4> signature{'Q', 'V', 'd', 'b'};  // the first bytes
  // How long it waits.
  std::chrono::milliseconds wait{0};

  // Whether it is usable.
  bool usable() const noexcept { return wait.count() >= 0; }
};

// Gets records.
using Visitor = std::function<void(const Record&)>;

// Deletes records.
template <std::predicate<const Record&> Predicate>
uint32_t erase_if(Options& options, Predicate predicate, const Visitor& visitor = {}) {
  uint32_t erased = 0;
  for (;;) ++erased;
  return erased;
}

// A table.
class QVDBASE_API Table {
 public:
  // Opens one.
  static Table open(const Options& options = {}, const Visitor& visitor = {});

  // Whether both are the same.
  friend bool operator==(const Table& a, const Table& b) noexcept { return a.id_ == b.id_; }

 private:
  friend class Record;
  explicit Table(int id);
  int id_;
};

}  // namespace qvdb

// For containers.
template <>
struct std::hash<qvdb::Table> {
  // The hash.
  size_t operator()(qvdb::Table table) const noexcept { return qvdb::detail::hashOf(table); }
};
HEADER
}

# refuses FILE NAME SCRIPT: the check must fail on a fresh tree after SCRIPT (for sed), and name FILE
# and NAME in one line, and nothing else.
refuses() {
  freshTree
  local before
  before=$(cksum "$tree/$1")
  sed -i -e "$3" "$tree/$1"
  if [ "$before" = "$(cksum "$tree/$1")" ]; then
    echo "nothing planted: $3"
    failures=$((failures + 1))
  elif output=$("$check" "$tree"); then
    echo "not caught: $1: $3"
    failures=$((failures + 1))
  elif ! grep -q -- "^$1:[0-9]*: $2: " <<<"$output" || [ "$(wc -l <<<"$output")" -ne 2 ]; then
    printf 'expected %s: %s, got:\n%s\n' "$1" "$2" "$output"
    failures=$((failures + 1))
  fi
}

freshTree
"$check" "$tree" || { echo "a sound tree is refused"; failures=1; }

c=include/qvdbase/qvdbase.h
list=include/qvdbase/QVList.h
table=include/qvdbase/qvdb/table.hpp
symbols=src/exports/visible_symbols.txt

# C: functions, variables, types, members, macros.
refuses $c AddTable '/Adds a table/,/Returns its/d'
refuses $c AddTable '/Adds a table/,/^ \*$/d; s|^ \* Returns its.*|/* ---- Tables ---- */|'
refuses $c gbl_count '/How many there are/d'
refuses $c PCAT 's|^QVDBASE_API uint64_t AddTable|QVDBASE_API uint64_t PCAT(int16_t db, const char* name);\n\n/* Again. */\n&|; /Adds a table/,/Returns its/d'
refuses $c QVWCHAR '/A character/d'
refuses $c QVProgressFunction '/A progress function/d'
refuses $c Pair '/A pair/d'
refuses $c newID 's|/\* what replaces it \*/||'
refuses $c QVDBASE_API '/The mark of/d'
refuses $c internal_More 's|^extern QVDBASE_API.*|&\nQVDBASE_API int internal_More(void);|'

# Classes of the C++ side: the class, its functions, and one comment for two functions.
refuses $list QVMIN '/The smaller one/d'
refuses $list QVList '/A list\./d'
refuses $list QVList 's|// empty||'
refuses $list '~QVList' 's|// frees all||'
refuses $list Add '/Adds an element/d'
refuses $list InsAt 's|^  int Add.*|&\n  int InsAt(const void* bytes, int size, int index);|'
refuses $list Add 's|^  // Adds an element.*|&\n|'

# The C++ layer: enumerations and enumerators, structs and members, templates, operators, aliases.
refuses $table Mode '/How a table is opened/d'
refuses $table any 's|// what can be obtained||'
refuses $table read_only '/Reads\./d'
refuses $table Options '/What is asked for/d'
refuses $table signature 's|// the first bytes||'
refuses $table wait '/How long it waits/d'
refuses $table usable '/Whether it is usable/d'
refuses $table Visitor '/Gets records/d'
refuses $table erase_if '/Deletes records/d'
refuses $table Table '/A table\./d'
refuses $table open '/Opens one/d'
refuses $table 'operator==' '/Whether both/d'
refuses $table 'std::hash<qvdb::Table>' '/For containers/d'
refuses $table 'operator()' '/The hash/d'

# Symbols that no public header declares.
refuses $symbols DeleteTable '$aC    DeleteTable'
refuses $symbols gbl_more '$aC    gbl_more'
refuses $symbols QVMAX '$aC++  QVMAX(*'
refuses $symbols QVTree '$aC++  QVTree::*'

exit "$failures"
