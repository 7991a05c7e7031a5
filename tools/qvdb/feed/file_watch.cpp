#include "feed/file_watch.h"

#if defined(__linux__) && !defined(QVDBASE_PORTABLE_POSIX)
#include <sys/inotify.h>
#define QVDB_HAS_NOTIFIER 1
#endif
#include <unistd.h>

#include <utility>

#include "streams/interrupt.h"

namespace qvdb::tool {
namespace {

constexpr int kBriefMilliseconds = 20;
constexpr int kPollMilliseconds = 200;      // without reports of the host
constexpr int kReportMilliseconds = 1'000;  // with them

}  // namespace

FileWatch::FileWatch(std::string path) : path_(std::move(path)) {
#if defined(QVDB_HAS_NOTIFIER)
  notifier_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
#endif
}

FileWatch::~FileWatch() {
  if (notifier_ >= 0) ::close(notifier_);
}

// A file that loses its name, to another file or to none, has changed in its attributes.
void FileWatch::begin() {
#if defined(QVDB_HAS_NOTIFIER)
  if (notifier_ < 0) return;
  const int before = watched_;
  watched_ = ::inotify_add_watch(notifier_, path_.c_str(), IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF);
  if (before >= 0 && before != watched_) ::inotify_rm_watch(notifier_, before);
#endif
}

void FileWatch::wait(bool isBrief) {
  const bool isReported = watched_ >= 0;
  const int longest = isReported ? kReportMilliseconds : kPollMilliseconds;
  waitForNews(isReported && !isBrief ? notifier_ : -1, isBrief ? kBriefMilliseconds : longest);
  forgetChanges();
}

void FileWatch::forgetChanges() {
  if (notifier_ < 0) return;
  char events[4096];
  while (::read(notifier_, events, sizeof events) > 0) continue;
}

}  // namespace qvdb::tool
