// The recorder of system calls under its short name, for tests that need no more than a clock that
// stands still and a call that fails.
#pragma once

#include "kit/recorded_calls.h"

namespace qvdbase::test {

using FakeHost = RecordedCalls;

}  // namespace qvdbase::test
