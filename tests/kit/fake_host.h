// The recorder of system calls under its short name, for tests that need no more than a clock that
// stands still and a call that fails.
#ifndef QVDBASE_TESTS_SUPPORT_FAKE_HOST_H
#define QVDBASE_TESTS_SUPPORT_FAKE_HOST_H

#include "kit/recorded_calls.h"

namespace qvdbase::test {

using FakeHost = RecordedCalls;

}  // namespace qvdbase::test

#endif
