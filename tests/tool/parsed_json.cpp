#include "tool/parsed_json.h"

namespace qvdbase::test {

nlohmann::json parsedJson(const std::string& text) {
  return nlohmann::json::parse(text);
}

}  // namespace qvdbase::test
