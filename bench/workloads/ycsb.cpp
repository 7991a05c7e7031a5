// The core workloads of YCSB, A to F, on records that are chosen as YCSB chooses them: popular ones
// by a Zipfian distribution, scattered over the store (A, B, C, E, F), or new ones (D).
//
// What is asked is drawn before the time begins. Each value that is read is compared with what was
// last written.
#include <algorithm>

#include "figures/zipfian.h"
#include "workloads/workload.h"

namespace bench {
namespace {

enum class Kind { read, update, insert, walk, readAndUpdate };

struct Request {
  Kind kind;
  size_t number;  // of the record; for insert not used
  size_t count;   // of the records to walk over
};

// Which kinds a workload has: the first with this share, the second otherwise.
struct Mix {
  Kind most;
  unsigned percent;
  Kind rest;
  bool isLatest = false;  // whether new records are the popular ones
  size_t requests = kReads;
};

// Its making takes a while, and depends on the number only.
const Zipfian& zipfianOf(size_t count) {
  static size_t lastCount = count;
  static Zipfian zipfian(count);
  if (count != lastCount) {
    zipfian = Zipfian(count);
    lastCount = count;
  }
  return zipfian;
}

std::vector<Request> draw(Filled& f, const Mix& mix) {
  const size_t records = f.size().records;
  const Zipfian& zipfian = zipfianOf(records);
  std::vector<Request> requests(mix.requests);
  for (Request& request : requests) {
    request.kind = f.random()() % 100 < mix.percent ? mix.most : mix.rest;
    const uint64_t rank = zipfian(f.random());
    // Ranks of D count from the newest record, which moves with each insertion.
    request.number = mix.isLatest ? rank : scrambled(rank, records);
    request.count = 1 + f.random()() % 100;
  }
  return requests;
}

class Client {
 public:
  Client(Filled& f, bool isLatest) : f_(f), isLatest_(isLatest) {}

  void handle(const Request& request) {
    const size_t number = isLatest_ ? f_.count() - 1 - request.number : request.number;
    switch (request.kind) {
      case Kind::read:
        return read(number);
      case Kind::update:
        return update(number);
      case Kind::insert:
        return insert();
      case Kind::walk:
        return walk(number, request.count);
      case Kind::readAndUpdate:
        read(number);
        return update(number);
    }
  }
  size_t wrong() const { return wrong_; }

 private:
  void read(size_t number) {
    const Held& record = f_.at(number);
    const bool isFound = f_.store().get(record.key, &value_);
    wrong_ += !isFound || stampOf(value_) != record.stamp || value_.size() != record.size;
  }
  void update(size_t number) {
    const Held record = f_.willUpdate(number);
    wrong_ += !f_.store().update(record.key, f_.valueOf(record));
  }
  void insert() {
    const uint32_t stamp = f_.willAdd();
    f_.hasAdded(f_.store().append(f_.valueOf(stamp)), stamp);
  }
  void walk(size_t number, size_t count) {
    const size_t there = std::min(count, f_.count() - 1 - number);
    uint64_t stamps = 0;
    for (size_t i = 1; i <= there; ++i) stamps += f_.at(number + i).stamp;
    const Walked seen = f_.store().valuesAfter(f_.at(number).key, count);
    wrong_ += seen.records != there || seen.stamps != stamps;
  }

  Filled& f_;
  bool isLatest_;
  size_t wrong_ = 0;
  Bytes value_;
};

void run(Filled& f, Turn& turn, const Mix& mix) {
  const std::vector<Request> requests = draw(f, mix);
  Client client(f, mix.isLatest);
  turn.timed(requests.size(), [&] {
    for (const Request& request : requests) client.handle(request);
  });
  if (client.wrong() != 0) failed(f.kind().name + ": wrong answers to requests of YCSB");
}

}  // namespace

void ycsbA(Filled& f, Turn& turn) {
  run(f, turn, {Kind::read, 50, Kind::update});
}

void ycsbB(Filled& f, Turn& turn) {
  run(f, turn, {Kind::read, 95, Kind::update});
}

void ycsbC(Filled& f, Turn& turn) {
  run(f, turn, {Kind::read, 100, Kind::read});
}

void ycsbD(Filled& f, Turn& turn) {
  run(f, turn, {Kind::read, 95, Kind::insert, true});
}

void ycsbE(Filled& f, Turn& turn) {
  run(f, turn, {Kind::walk, 95, Kind::insert, false, kReads / 5});
}

void ycsbF(Filled& f, Turn& turn) {
  run(f, turn, {Kind::read, 50, Kind::readAndUpdate});
}

}  // namespace bench
