// qvdb: the command-line tool. Runs the command that was named and turns failures into one line on
// standard error and an exit status.
#include <exception>
#include <filesystem>
#include <new>

#include "command_line/command_line.h"
#include "streams/failure.h"
#include "streams/interrupt.h"
#include "streams/output.h"
#include "streams/standard_streams.h"

namespace {

using namespace qvdb::tool;

// What was printed before a failure is printed; if that fails too, the first failure counts.
void flushWhatThereIs() {
  try {
    flushOutput();
  } catch (...) {
    discardOutput();
  }
}

int fail(const std::string& message, int status) {
  flushWhatThereIs();
  complain(message);
  return status;
}

int failWithError(const qvdb::Error& error) {
  const std::string advice = adviceFor(error);
  const int status = error.reason() == qvdb::Reason::in_use ? kInUse : kFailed;
  return fail(advice.empty() ? error.what() : error.what() + ("; " + advice), status);
}

int run(int argc, char** argv) {
  const auto action = readCommandLine(argc, argv);
  const int status = action ? (*action)() : kDone;
  flushOutput();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  holdInterrupts();
  openMissingStreams();
  catchInterrupts();
  try {
    return run(argc, argv);
  } catch (const Failure& failure) {
    return fail(failure.what(), failure.status());
  } catch (const qvdb::Error& error) {
    return failWithError(error);
  } catch (const Interrupted&) {
    return fail("interrupted", kFailed);
  } catch (const OutputClosed&) {
    return kFailed;
  } catch (const std::bad_alloc&) {
    return fail("there is not enough memory", kFailed);
  } catch (const std::exception& exception) {
    return fail(exception.what(), kFailed);
  }
}
