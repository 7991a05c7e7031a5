// The steps of a survey, one after the other.
#include "recovery/survey/survey.h"

namespace qvdbase::survey {

Survey makeSurvey(const ByteSource& source, const SurveyOptions& options) {
  Survey survey;
  readDirectory(source, options, &survey);
  followChains(source, &survey);
  layExtents(&survey);
  scanGaps(source, options, &survey);
  noteTransactions(source, &survey);
  labelBlocks(&survey);
  findTrimmed(source, &survey);
  return survey;
}

}  // namespace qvdbase::survey
