// Whole records and table data of writes that were cut off.
#pragma once

#include <cstdint>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::mend {

// A record that a write was about to bring into its table, as far as it is in the file whole.
bool isLeftOver(const survey::Block& block);

// The records that belong after the last one of a chain which is whole without them: the first of
// them names it, and they name each other. They are a batch that was never linked, or what a link
// repair has cut off; the slot's counts do not always show which, and in their table they are
// right either way. None where there are others besides, or where their order is not that of
// writing.
std::vector<uint32_t> tailApart(const survey::Survey& survey, const survey::Table& table);

// That tail, unless records of it were part of the table once: only what was counted is ever the
// one that was written last.
std::vector<uint32_t> tailToDiscard(const survey::Survey& survey, const survey::Table& table);

// The first data of a table, whole, whose slot was never written.
bool isLeftOverData(const survey::Survey& survey, const survey::Block& block);

}  // namespace qvdbase::mend
