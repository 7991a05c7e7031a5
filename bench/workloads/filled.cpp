#include "workloads/filled.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bench {
namespace {

std::filesystem::path newFolder(const std::filesystem::path& scratch) {
  std::string pattern = scratch / "store-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) failed("no folder for a store");
  return pattern;
}

// So that no writing to the device disturbs what is measured next.
void waitForDevice(const std::filesystem::path& folder) {
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY);
  if (descriptor < 0) return;
  syncfs(descriptor);
  ::close(descriptor);
}

}  // namespace

Filled::Filled(const StoreKind& kind, Size size, const std::filesystem::path& scratch)
    : kind_(kind),
      size_(size),
      folder_(newFolder(scratch)),
      base_(size.value),
      grown_(size.value + size.value / 2) {
  create();
}

Filled::~Filled() {
  destroy();
}

void Filled::create() {
  std::filesystem::create_directories(folder_);
  store_ = kind_.make(size_.records);
  store_->open(folder_);
}

void Filled::destroy() {
  store_->close();
  store_.reset();
  std::filesystem::remove_all(folder_);
}

void Filled::empty() {
  destroy();
  create();
  records_.clear();
  changes_ = 0;
}

void Filled::load(Turn& turn) {
  std::vector<Key> keys(size_.records);
  turn.timed(keys.size(), [&] { store_->appendMany(base_, nextStamp_, keys); });
  records_.reserve(keys.size() + keys.size() / 2);
  for (const Key key : keys) {
    records_.push_back({key, nextStamp_++, static_cast<uint32_t>(base_.size())});
  }
}

void Filled::refill() {
  empty();
  Turn untimed;
  load(untimed);
  waitForDevice(folder_);
}

void Filled::provideFor(size_t changes) {
  if (records_.empty() || (changes_ > 0 && changes_ + changes > size_.records / 2)) refill();
}

Held Filled::willUpdate(size_t number) {
  records_[number].stamp = nextStamp_++;
  return records_[number];
}

Held Filled::willGrow() {
  size_t number = anyNumber();
  while (records_[number].size != base_.size()) number = anyNumber();
  records_[number].size = static_cast<uint32_t>(grown_.size());
  ++changes_;
  return willUpdate(number);
}

Held Filled::willRemove() {
  const size_t number = anyNumber();
  const Held removed = records_[number];
  records_[number] = records_.back();
  records_.pop_back();
  ++changes_;
  return removed;
}

void Filled::hasAdded(Key key, uint32_t stamp) {
  records_.push_back({key, stamp, static_cast<uint32_t>(base_.size())});
  ++changes_;
}

std::span<const char> Filled::valueOf(const Held& record) {
  return record.size == base_.size() ? base_.of(record.stamp) : grown_.of(record.stamp);
}

void Filled::change() {
  store_->expectLookups(true);
  const size_t changes = size_.records / 2;
  for (size_t i = 0; i < changes; i += 3) {
    const uint32_t stamp = willAdd();
    hasAdded(store_->append(valueOf(stamp)), stamp);
    if (!store_->remove(willRemove().key)) failed(kind_.name + ": a record to remove is missing");
    const Held grown = willGrow();
    if (!store_->update(grown.key, valueOf(grown))) failed(kind_.name + ": a record is missing");
  }
}

void Filled::verifyKeys(const Walked& seen) const {
  uint64_t sum = 0;
  for (const Held& record : records_) sum += record.key;
  if (seen.records != records_.size() || seen.keys != sum) failed(kind_.name + ": wrong keys");
}

void Filled::verifyValues(const Walked& seen) const {
  uint64_t stamps = 0;
  uint64_t bytes = 0;
  for (const Held& record : records_) {
    stamps += record.stamp;
    bytes += record.size;
  }
  if (seen.records != records_.size() || seen.stamps != stamps || seen.bytes != bytes) {
    failed(kind_.name + ": wrong values");
  }
}

void Filled::verify(size_t number) {
  const Held& record = records_[number];
  Bytes value;
  if (!store_->get(record.key, &value)) failed(kind_.name + ": a record is missing");
  const std::span<const char> expected = valueOf(record);
  if (!std::equal(value.begin(), value.end(), expected.begin(), expected.end())) {
    failed(kind_.name + ": a wrong value");
  }
}

void Filled::verifySample() {
  const bool looksUp = (kind_.abilities & kLookUp) != 0;
  store_->expectLookups(looksUp);
  const size_t sample = looksUp ? 50 : 1;  // where a lookup walks over the records
  for (size_t i = 0; i < sample && !records_.empty(); ++i) {
    verify(records_.size() - 1 - i % records_.size());
    verify(anyNumber());
  }
}

uint64_t Filled::bytesOnDisk() const {
  uint64_t bytes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_)) {
    struct stat status;
    if (stat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      bytes += static_cast<uint64_t>(status.st_blocks) * 512;
    }
  }
  return bytes;
}

}  // namespace bench
