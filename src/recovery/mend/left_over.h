// Whole records and table data of writes that were cut off.
#pragma once

#include <cstdint>
#include <vector>

#include "recovery/survey/survey.h"

namespace qvdbase::mend {

// Whether it is a whole record block that a write had not brought into its table yet.
bool isLeftOver(const survey::Block& block);

// The records that belong after the last one of a chain which is whole without them: the first of
// them names the last record of the chain, and they name each other. They are a batch that was
// never linked, or what a link repair has cut off. The slot's counts do not always show which, but
// either way they belong to the table. Empty when other records are apart from the chain as well,
// or when they are not in the order of writing.
std::vector<uint32_t> tailApart(const survey::Survey& survey, const survey::Table& table);

// That tail; empty when it was part of the table once. That is known when the slot has one of its
// records as the last written one: only a record that was counted is ever noted there.
std::vector<uint32_t> tailToDiscard(const survey::Survey& survey, const survey::Table& table);

// Whether it is a whole block that was to become the first data of its table, but the slot was
// never written.
bool isLeftOverData(const survey::Survey& survey, const survey::Block& block);

}  // namespace qvdbase::mend
