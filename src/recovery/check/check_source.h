// The check of a source that no other process can change.
#pragma once

#include <qvdbase/qvdb/check.hpp>

#include <string>

#include "recovery/survey/byte_source.h"
#include "recovery/survey/survey.h"

namespace qvdbase::check {

// Without the findings: what they come to.
qvdb::CheckReport checkSource(const survey::ByteSource& source);

// The same with a survey of it that is there already; the visitor gets every finding.
qvdb::CheckReport checkSurvey(const survey::ByteSource& source, const survey::Survey& survey,
                              const qvdb::FindingVisitor& visitor);

// A finding inside another sentence: code and message, without the full stop.
std::string inSentence(const qvdb::Finding& finding);

}  // namespace qvdbase::check
