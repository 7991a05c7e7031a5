// qvdb::Reader: views of an open database.
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/reader.hpp>

#include "objects/open_database.h"
#include "objects/sharing/looks.h"
#include "platform/handles/file_views.h"

using namespace qvdbase;

namespace qvdb {

// In the turn of the database, so that no change of it has begun that does not know of the reader.
// Writers in other processes know of it for as long as they know of the database.
Reader Database::reader() const {
  const detail::Operation operation(state_, "make a reader of the database");
  auto view = std::make_shared<detail::OpenDatabase>();
  view->path = state_->path;
  view->place = state_->place;
  view->wait = state_->wait;
  view->viewed = state_;
  view->viewedOpening = state_->opening;
  view->viewedForkDepth = state_->opener.forkDepth();
  int16_t handle = 0;
  if (!platform::openView(operation.db(), &handle)) {
    operation.fail(Reason::cannot_open, "too many files are open, or memory is short");
  }
  view->handle = handle;
  detail::announce(*view);
  if (state_->isAnnounced) {
    view->announcedAt = state_->announcedAt;
    view->mayMissChanges = state_->mayMissChanges;
  }
  return Reader(Database(std::move(view)));
}

}  // namespace qvdb
