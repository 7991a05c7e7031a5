#!/usr/bin/env bash
# Plants includes that point the wrong way, one at a time, in a small tree of its own, and expects
# the include check to name each of them; a tree without any passes.
#
# Usage: check_includes_test.sh CHECK-INCLUDES
set -euo pipefail

check=$1
tree=$(mktemp -d)
trap 'rm -rf -- "$tree"' EXIT
failures=0

# plant FILE LINE: writes LINE as the whole of FILE.
plant() {
  mkdir -p -- "$tree/$(dirname -- "$1")"
  printf '%s\n' "$2" >"$tree/$1"
}

# freshTree: includes that are all allowed, one of each kind.
freshTree() {
  rm -rf -- "$tree"
  plant src/platform/files.cpp '#include <fcntl.h>'
  plant src/support/QVFile.cpp '#include "platform/files.h"'
  plant src/format/layout.h '#include <cstdint>'
  plant src/QVDbase/tables.cpp '#include "format/layout.h"'
  plant src/QVDbase/header.cpp '#include "QVDbase/position.h"'
  plant src/exports/short_names.cpp '#include <qvdbase/qvdbase.h>'
  plant src/recovery/survey/survey.cpp '#include "format/layout.h"'
  plant src/upkeep/compact.cpp '#include <qvdbase/qvdb/maintenance.hpp>'
  plant src/objects/database.cpp '#include <qvdbase/qvdb.hpp>'
  plant src/objects/table.cpp '#include <qvdbase/qvdb/table.hpp>'
  plant include/qvdbase/qvdb.hpp '#include <qvdbase/qvdb/error.hpp>'
  plant include/qvdbase/qvdb/error.hpp '#include <qvdbase/base.h>'
  plant tools/qvdb/main.cpp '#include <qvdbase/qvdb.hpp>'
  plant tools/qvdb/commands/stat.cpp '#include "command_line/command.h"'
  plant tools/qvdb/streams/text.cpp '#include "format/layout.h"'
}

# refuses FILE LINE: the check must fail on a fresh tree with this line, and name the file.
refuses() {
  freshTree
  plant "$1" "$2"
  if output=$("$check" "$tree"); then
    echo "not caught: $1: $2"
    failures=$((failures + 1))
  elif ! grep -qF -- "$1:1: " <<<"$output"; then
    echo "caught without naming $1: $output"
    failures=$((failures + 1))
  fi
}

freshTree
"$check" "$tree" || { echo "a sound tree is refused"; failures=1; }

refuses src/platform/up.cpp '#include "support/QVFile.h"'
refuses src/support/up.cpp '#include "QVDbase/position.h"'
refuses src/format/up.h '#include <QVDbase/header.h>'
refuses src/QVDbase/up.cpp '  #  include "maintenance/pack.h" // why not'
refuses src/maintenance/up.cpp '#include "exports/names.h"'
refuses src/exports/up.cpp '#include "objects/database.h"'
refuses src/exports/up.cpp '#include <qvdbase/qvdb.hpp>'
refuses src/QVDbase/around.cpp '#include "../maintenance/pack.h"'
refuses src/QVDbase/bare.cpp '#include "position.h"'
refuses src/QVDbase/host.cpp '#include <errno.h>'
refuses src/support/host.cpp '#include <sys/stat.h>'
refuses include/qvdbase/inner.h '#include "format/layout.h"'
refuses include/qvdbase/inner.h '#include <platform/files.h>'
refuses include/qvdbase/upper.h '#include <qvdbase/qvdb.hpp>'
refuses include/qvdbase/upper.h '#include <qvdbase/qvdb/error.hpp>'
refuses src/maintenance/upper.cpp '#include <qvdbase/qvdb/error.hpp>'
refuses src/recovery/check/sideways.cpp '#include "QVDbase/header.h"'
refuses src/failure/up.cpp '#include "recovery/survey/survey.h"'
refuses src/upkeep/up.cpp '#include "objects/open_database.h"'
refuses src/upkeep/held.cpp '#include <qvdbase/qvdb/database.hpp>'
refuses src/upkeep/held.cpp '#include <qvdbase/qvdb.hpp>'
refuses src/recovery/check/held.cpp '#include <qvdbase/qvdb/table.hpp>'
refuses tools/qvdb/inner.cpp '#include "QVDbase/header.h"'
refuses tools/qvdb/inner.cpp '#include "objects/indexes/table_index.h"'
refuses tools/qvdb/inner.cpp '#include "recovery/survey/survey.h"'
refuses tools/qvdb/inner.cpp '#include "qvdb/command.h"'

exit "$failures"
