// Whole records of writes that were cut off.
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

}  // namespace qvdbase::mend
