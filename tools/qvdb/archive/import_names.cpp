// The names of an import's files.
#include "archive/import_names.h"

#include <algorithm>

#include "streams/failure.h"
#include "streams/given_time.h"

namespace qvdb::tool {

ImportNames::ImportNames(Database& database, Table& table, const FileTree& tree,
                         ImportedFiles names)
    : database_(database), table_(table), now_(timeNow()), tree_(tree), names_(std::move(names)) {
  names_.renew(now_);
  hadNames_ = names_.list().size();
  entries_.reserve(tree.files.size());
  for (const FoundFile& found : tree.files) {
    entries_.push_back(names_.find(found.file.name).value_or(kNew));
  }
}

void ImportNames::giveKey() {
  names_.giveKey();
  if (names_.isRewritten()) haveChanged_ = true;
}

const ImportedFile* ImportNames::present(size_t file) const {
  return entries_[file] == kNew ? nullptr : &names_.list()[entries_[file]];
}

bool ImportNames::isNewOrChanged(size_t file) const {
  const ImportedFile* old = present(file);
  const ImportedFile& now = tree_.files[file].file;
  return old == nullptr || (now.kind == FileKind::link && old->target != now.target);
}

void ImportNames::addNew() {
  for (size_t i = 0; i < tree_.files.size(); ++i) {
    if (!isNewOrChanged(i)) continue;
    if (entries_[i] != kNew) oldLinks_.emplace(i, entries_[i]);
    ImportedFile file = tree_.files[i].file;
    if (file.kind == FileKind::file) file.record = new_id();
    file.since = now_;
    entries_[i] = names_.list().size();
    names_.add(std::move(file));
    haveChanged_ = true;
  }
  if (!names_.isReadable()) {
    throw Failure(
        "the list of names would be too long to be read again; nothing was stored; import into "
        "another table, or from a folder further down");
  }
  if (hadNames_ == 0) haveChanged_ = true;
}

void ImportNames::note(size_t file, const ImportedFile& now) {
  const ImportedFile& old = of(file);
  std::string fields = renewedFields(old.fields, tree_.files[file].file.fields, tree_.fields);
  if (now.mode == old.mode && now.seconds == old.seconds && now.nanoseconds == old.nanoseconds &&
      fields == old.fields) {
    return;
  }
  ImportedFile renewed = now;
  renewed.record = old.record;
  haveChanged_ = true;
  if (entries_[file] >= hadNames_) return names_.update(entries_[file], renewed);
  renewed.kind = old.kind;
  renewed.target = old.target;
  renewed.fields = std::move(fields);
  renewed.since = timeNow();
  changed_.emplace_back(entries_[file], std::move(renewed));
}

void ImportNames::forget(size_t file) {
  if (entries_[file] < hadNames_) return;
  names_.remove(entries_[file], now_);  // it was never there
  haveChanged_ = true;
}

void ImportNames::cutFrom(size_t firstMissing) {
  for (size_t i = firstMissing; i < entries_.size(); ++i) {
    if (entries_[i] < hadNames_) continue;
    names_.cut(entries_[i]);  // new names are in the order of the files
    return;
  }
}

void ImportNames::replaceOld(size_t firstMissing) {
  for (const auto& each : changed_) names_.add(each.second);
  if (!changed_.empty()) store();
  for (const auto& [entry, now] : changed_) names_.remove(entry, now.since);
  changed_.clear();
  for (const auto& [file, old] : oldLinks_) {
    if (file >= firstMissing) continue;
    names_.remove(old, now_);
    haveChanged_ = true;
  }
}

// The capacity only ever grows by a half more than needed, so that many small imports into one
// table do not copy all names each time.
void ImportNames::store() {
  const uint64_t size = names_.bytes().size();
  const auto present = table_.data_size();
  const uint64_t reserve = present ? size + size / 2 : size;
  const auto set = [&] {
    table_.set_data(names_.bytes(), static_cast<uint32_t>(std::min<uint64_t>(reserve, 0xFFFFFFFF)));
  };
  if (names_.isRewritten() && present) {
    // In a transaction it gets a new block: it is another list from the first byte on.
    database_.transaction([&](Transaction&) { set(); });
  } else {
    set();
  }
  names_.noteStored();
}

void ImportNames::storeIfChanged() {
  if (haveChanged_) store();
  haveChanged_ = false;
}

}  // namespace qvdb::tool
