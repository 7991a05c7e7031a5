// Indexes of keys beside a process that changes the table: what was changed before a look-up began
// is what it answers, also when the change was made in place and in the same tick of the file's
// times.
//
// The writer says of each change that it begins and that it has ended. An answer counts where no
// change was made meanwhile, and is then compared with what the writer has written. After every
// other change the writer waits for such an answer.
#include <gtest/gtest.h>
#include <qvdbase/qvdbase.h>
#include <sys/mman.h>
#include <qvdbase/qvdb.hpp>

#include <array>
#include <atomic>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "kit/forked.h"
#include "kit/random_seed.h"
#include "kit/test_extent.h"
#include "objects/layer_fixture.h"

namespace qvdbase::test {
namespace {

using qvdb::Database;
using qvdb::Id;
using qvdb::Mode;
using qvdb::Table;
using Names = qvdb::KeyIndex<std::string>;

constexpr size_t kRecords = 12;
constexpr uint32_t kKeys = 40;
constexpr uint32_t kNone = 0;  // there is no such record

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// Memory that all processes see.
struct State {
  std::atomic<uint64_t> moment;  // odd while a change is made
  std::atomic<uint64_t> looked;  // the latest moment for which there was an answer
  std::atomic<bool> isOver;
  std::array<std::atomic<uint32_t>, kRecords + 1> keys;  // of each record
};

class SharedState {
 public:
  SharedState() {
    void* memory =
        ::mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no memory");
    state_ = new (memory) State{};
  }
  ~SharedState() { ::munmap(state_, sizeof(State)); }
  SharedState(const SharedState&) = delete;
  SharedState& operator=(const SharedState&) = delete;

  State* operator->() const { return state_; }
  State& operator*() const { return *state_; }

 private:
  State* state_;
};

std::string keyOf(uint32_t number) {
  return "key" + std::to_string(number);
}

std::string payloadOf(uint32_t key, size_t length) {
  return keyOf(key) + ";" + std::string(length, 'p');
}

constexpr auto kKey = [](std::string_view text) { return text.substr(0, text.find(';')); };

Names namesOf(const Table& table, bool isKept) {
  return Names(table, kKey, {.ordered = true, .kept_as = isKept ? "name" : ""});
}

// ---- The writers

class ByLayer {
 public:
  explicit ByLayer(const std::filesystem::path& path)
      : database_(Database::open(path, Mode::shared)), table_(database_.table("t")) {}
  void modify(uint64_t id, const std::string& payload) { table_.modify(Id{id}, payload); }
  void add(uint64_t id, const std::string& payload) { table_.add_with_id(Id{id}, payload); }
  void remove(uint64_t id) { table_.remove(Id{id}); }

 private:
  Database database_;
  Table table_;
};

class ByFunctions {
 public:
  explicit ByFunctions(const std::filesystem::path& path) {
    const std::u16string wide = Database::native_path(path);
    db_ = OpenDBaseW(reinterpret_cast<const QVWCHAR*>(wide.c_str()), 3);
    table_ = FindTableByName(db_, "t");
    require(db_ != 0 && table_ != 0, "cannot open it");
  }
  ~ByFunctions() { CloseDBase(db_); }
  ByFunctions(const ByFunctions&) = delete;
  ByFunctions& operator=(const ByFunctions&) = delete;

  void modify(uint64_t id, const std::string& payload) {
    require(ModifyRecordData(db_, table_, raw(payload), sizeOf(payload), id, nullptr) == 1,
            "modifying fails");
  }
  void add(uint64_t id, const std::string& payload) {
    require(AddRecordData_AssignRecordID(db_, table_, raw(payload), sizeOf(payload), 0, &id) == 1,
            "adding fails");
  }
  void remove(uint64_t id) {
    require(DeleteOneRecord(db_, table_, id, nullptr) == 1, "removing fails");
  }

 private:
  static const unsigned char* raw(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  }
  static uint32_t sizeOf(const std::string& text) { return static_cast<uint32_t>(text.size()); }

  int16_t db_ = 0;
  uint64_t table_ = 0;
};

template <typename Writer>
void change(Writer& writer, State& state, std::mt19937_64& random) {
  const uint64_t id = random() % kRecords + 1;
  const auto key = static_cast<uint32_t>(random() % kKeys + 1);
  if (state.keys[id] == kNone) {
    writer.add(id, payloadOf(key, 40));
    state.keys[id] = key;
  } else if (random() % 6 == 0) {
    writer.remove(id);
    state.keys[id] = kNone;
  } else {
    // Mostly in place.
    writer.modify(id, payloadOf(key, random() % 8 == 0 ? 60 + random() % 60 : 20));
    state.keys[id] = key;
  }
}

template <typename Writer>
int write(const std::filesystem::path& path, State& state, uint64_t seed, int rounds) {
  struct AtEnd {
    State& state;
    ~AtEnd() { state.isOver = true; }
  };
  const AtEnd atEnd{state};
  std::mt19937_64 random(seed);
  Writer writer(path);
  for (int i = 0; i < rounds; ++i) {
    ++state.moment;
    change(writer, state, random);
    const uint64_t now = ++state.moment;
    for (long turn = 0; i % 2 == 0 && state.looked < now && turn < 20'000'000; ++turn) {
      std::this_thread::yield();
    }
  }
  return 0;
}

// ---- The reader

struct Asked {
  std::string key;
  std::multiset<uint64_t> found;
  bool isFound = false;
  std::optional<size_t> all;  // where all keys were asked for
};

Asked ask(const Names& names, std::mt19937_64& random) {
  Asked asked{keyOf(static_cast<uint32_t>(random() % kKeys + 1)), {}, false, {}};
  asked.isFound = names.find(asked.key).has_value();
  for (const auto& [key, record] : names.records(asked.key)) asked.found.insert(record.id().value);
  if (random() % 4 == 0) {
    asked.all = static_cast<size_t>(std::ranges::distance(names.records()));
  }
  return asked;
}

void requireRight(const Asked& asked, const State& state) {
  std::multiset<uint64_t> expected;
  size_t all = 0;
  for (uint64_t id = 1; id <= kRecords; ++id) {
    const uint32_t key = state.keys[id];
    all += key != kNone ? 1u : 0u;
    if (key != kNone && keyOf(key) == asked.key) expected.insert(id);
  }
  require(asked.found == expected, "records of " + asked.key + ": " +
                                       std::to_string(asked.found.size()) + " instead of " +
                                       std::to_string(expected.size()));
  require(asked.isFound == !expected.empty(), "find() of " + asked.key);
  require(!asked.all || *asked.all == all, "all records");
}

// Returns how many answers counted.
uint64_t readUntilOver(const std::filesystem::path& path, Mode mode, bool isKept, State& state,
                       uint64_t seed) {
  std::mt19937_64 random(seed);
  Database database = Database::open(path, mode);
  Table table = database.table("t");
  std::optional<Names> names(namesOf(table, isKept));
  uint64_t counted = 0;
  for (int i = 0; !state.isOver; ++i) {
    const uint64_t before = state.moment;
    if (before % 2 != 0) continue;
    std::optional<Asked> asked;
    std::string failure;
    try {
      // One that is made while others write.
      if (i % 50 == 49) names.emplace(namesOf(table, isKept));
      asked = ask(*names, random);
    } catch (const qvdb::Error& error) {
      failure = error.what();
    }
    if (asked && state.moment == before) {
      const Asked& answer = *asked;
      std::string wrong;
      try {
        requireRight(answer, state);
      } catch (const std::exception& error) {
        wrong = error.what();
      }
      if (state.moment != before) continue;
      require(wrong.empty(), wrong);
      ++counted;
      state.looked = before;
    } else {
      require(asked || state.moment != before, "an error beside no change: " + failure);
    }
  }
  return counted;
}

class KeyIndexBesideAWriter : public LayerTest {
 protected:
  // A file of indexes belongs to it.
  void make(State& state) {
    Database database = createDatabase();
    Table table = database.add_table("t");
    for (uint32_t id = 1; id <= kRecords; ++id) {
      table.add_with_id(Id{id}, payloadOf(id, 40));
      state.keys[id] = id;
    }
    static_cast<void>(namesOf(table, true));
    database.close();
    ASSERT_TRUE(std::filesystem::exists(path("test.qvdx")));
  }

  template <typename Writer>
  void expectRightAnswers(Mode mode, bool isKept) {
    SharedState state;
    const uint64_t seed = randomSeed();
    const int rounds = testEverything() ? 20'000 : 400;
    make(*state);
    ForkedLater writer([&] { return write<Writer>(path(), *state, seed, rounds); });
    ForkedLater reader([&] {
      const uint64_t counted = readUntilOver(path(), mode, isKept, *state, seed + 1);
      return counted > static_cast<uint64_t>(rounds) / 4 ? 0 : 1;
    });
    writer.begin();
    reader.begin();
    EXPECT_EQ(writer.end(), 0);
    state->isOver = true;
    EXPECT_EQ(reader.end(), 0);
  }
};

TEST_F(KeyIndexBesideAWriter, OfTheLayerInMemory) {
  expectRightAnswers<ByLayer>(Mode::read_only, false);
}

TEST_F(KeyIndexBesideAWriter, OfTheLayerFromTheFile) {
  expectRightAnswers<ByLayer>(Mode::read_only, true);
}

TEST_F(KeyIndexBesideAWriter, OfTheLayerInASharedDatabase) {
  expectRightAnswers<ByLayer>(Mode::shared, true);
}

TEST_F(KeyIndexBesideAWriter, OfTheCFunctionsInMemory) {
  expectRightAnswers<ByFunctions>(Mode::read_only, false);
}

TEST_F(KeyIndexBesideAWriter, OfTheCFunctionsFromTheFile) {
  expectRightAnswers<ByFunctions>(Mode::read_only, true);
}

}  // namespace
}  // namespace qvdbase::test
