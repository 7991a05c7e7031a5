// The standard streams that the tool was started without.
#pragma once

namespace qvdb::tool {

// Opens the null device on each standard stream that is closed, as daemons and schedulers leave
// them, so that no file gets its descriptor. What is printed then is lost; reading standard
// input fails. Must be called before anything else is opened.
void openMissingStreams();

}  // namespace qvdb::tool
