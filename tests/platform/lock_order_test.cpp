// The order in which threads take what others may wait for. Debug builds notice violations.
#include "platform/host/lock_order.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "kit/bytes.h"
#include "kit/temp_folder.h"
#include "platform/handles/file_views.h"
#include "platform/handles/lock_bytes.h"
#include "platform/handles/open_files.h"
#include "platform/host/lock.h"

namespace qvdbase::test {
namespace {

using platform::LockByte;
using platform::Shared;
using platform::SharedLock;
using platform::Sharing;
using platform::Turn;

// Two files, each with a view.
class LockOrder : public testing::Test {
 protected:
  LockOrder() {
    EXPECT_TRUE(directory_.enterRoot());
    for (const auto& part : folder_.path().relative_path()) {
      EXPECT_TRUE(directory_.enter(platform::EntryName(WideText(part.u16string()))));
    }
    open(u"a", &file_, &view_);
    open(u"b", &otherFile_, &otherView_);
  }
  ~LockOrder() override {
    for (const int16_t file : {view_, file_, otherView_, otherFile_}) platform::closeFile(file);
  }

  void open(const char16_t* name, int16_t* file, int16_t* view) {
    writeFile(folder_ / std::filesystem::path(name), bytesOf("bytes"));
    EXPECT_TRUE(platform::openFile(directory_, platform::EntryName(WideText(name)),
                                   platform::kSharedWriters, file));
    EXPECT_TRUE(platform::openView(*file, view));
  }

  TempFolder folder_;
  platform::Directory directory_;
  int16_t file_ = 0;
  int16_t view_ = 0;
  int16_t otherFile_ = 0;
  int16_t otherView_ = 0;
};

TEST_F(LockOrder, OfAChangeIsTurnThenWritersThenChangeThenItsByte) {
  const Turn turn(file_);
  EXPECT_EQ(platform::takeWritersTurn(file_, this), platform::LockOutcome::taken);
  platform::beginChange(file_);
  EXPECT_EQ(platform::takeLockByte(file_, LockByte::change, Sharing::exclusive),
            platform::LockOutcome::taken);
  { const Turn again(file_); }
  { const SharedLock lock(Shared::directoryCache); }
  platform::releaseLockByte(file_, LockByte::change, Sharing::exclusive);
  platform::endChange(file_);
  platform::releaseWritersTurn(file_, this);
}

TEST_F(LockOrder, OfALookIsTurnOfTheViewThenLookThenItsByte) {
  const Turn turn(view_);
  platform::beginViewLook(view_);
  EXPECT_EQ(platform::takeLook(view_), platform::LockOutcome::taken);
  { const Turn again(view_); }
  { const SharedLock lock(Shared::callBuffers); }
  platform::releaseLook(view_);
  platform::endViewLook(view_);
}

#ifndef NDEBUG

// All is taken in the child that dies: a fork waits for the locks of what is shared, and ends
// changes and looks.
TEST_F(LockOrder, OfSharedThingsIsThatOfTheirList) {
  const auto take = [](Shared first, Shared second) {
    const SharedLock lock(first);
    const SharedLock another(second);
  };
  take(Shared::handles, Shared::identifiers);
  EXPECT_DEATH(take(Shared::handles, Shared::directoryCache), "wrong order");
  EXPECT_DEATH(take(Shared::handles, Shared::handles), "wrong order");
}

TEST_F(LockOrder, HasTurnsBeforeSharedThings) {
  EXPECT_DEATH(
      {
        const SharedLock lock(Shared::callBuffers);
        const Turn turn(file_);
      },
      "while a lock is held");
}

// A change waits for the looks with the turn of the file.
TEST_F(LockOrder, HasTurnsBeforeLooks) {
  const auto lookThenTake = [&](int16_t file) {
    platform::beginViewLook(view_);
    const Turn turn(file);
  };
  EXPECT_DEATH(lookThenTake(file_), "within a look");
  EXPECT_DEATH(lookThenTake(otherFile_), "within a look");
}

TEST_F(LockOrder, HasNoChangeOrLookWithinAnother) {
  using Begin = void (*)(int16_t);
  const Begin change = platform::beginChange;
  const Begin look = platform::beginViewLook;
  const auto both = [](Begin first, int16_t one, Begin second, int16_t other) {
    first(one);
    second(other);
  };
  EXPECT_DEATH(both(change, file_, change, otherFile_), "wrong order");
  EXPECT_DEATH(both(change, file_, look, view_), "wrong order");
  EXPECT_DEATH(both(look, view_, change, file_), "wrong order");
  EXPECT_DEATH(both(look, view_, look, otherView_), "wrong order");
}

TEST_F(LockOrder, HasChangesAndLooksBeforeTheirBytes) {
  EXPECT_DEATH(
      {
        platform::takeLockByte(file_, LockByte::change, Sharing::exclusive);
        platform::beginChange(file_);
      },
      "wrong order");
  EXPECT_DEATH(
      {
        platform::takeLook(view_);
        platform::beginViewLook(view_);
      },
      "wrong order");
}

TEST_F(LockOrder, HasTheTurnOfWritersBeforeChanges) {
  EXPECT_DEATH(
      {
        const Turn turn(file_);
        platform::beginChange(file_);
        platform::takeWritersTurn(file_, this);
      },
      "within a change");
}

TEST_F(LockOrder, HasNoFunctionOfTheCallersWithinAChange) {
  EXPECT_DEATH(
      {
        const Turn turn(file_);
        platform::beginChange(file_);
        const platform::TurnPause pause;
      },
      "within a change");
}

#endif

}  // namespace
}  // namespace qvdbase::test
