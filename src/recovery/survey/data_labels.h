// Step 5 of a survey, for table data.
#pragma once

#include "recovery/survey/survey.h"

namespace qvdbase::survey {

// Of the blocks of table data of a table, the one that its slot leads to is in use; without such a
// one, the newest that is whole was.
void labelTableData(Survey* survey);

}  // namespace qvdbase::survey
