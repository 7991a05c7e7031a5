// qvdb::KeyIndex: records of one table by keys that an application makes of them.
#pragma once

#include <qvdbase/base.h>
#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/record.hpp>
#include <qvdbase/qvdb/table.hpp>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace qvdb {

// What an index of keys is asked to do.
struct KeyIndexOptions {
  // Whether a key may be that of one record only.
  bool unique = false;

  // Whether the keys are kept in order too, for KeyIndex::range, prefix and records.
  bool ordered = false;

  // Under which name, of up to 255 bytes, the index is kept in a file beside the database: see
  // Database::keep_indexes(). Empty: in memory only. The name stands for the function that makes
  // the keys: whoever changes what that makes, changes the name too ("name 2"), or what is kept
  // misses records.
  //
  // The database holds a kept index until it is closed, and calls the function until then, also
  // when no KeyIndex object is left. A second index of the table with the same name, type and
  // options is the same index, with the function of the first.
  std::string kept_as = {};
};

// The types of keys: text, bytes, whole numbers and enumerations.
template <typename Key>
concept IndexKey = std::same_as<Key, std::string> || std::same_as<Key, std::vector<std::byte>> ||
    ((std::integral<Key> || std::is_enum_v<Key>)&&sizeof(Key) <= sizeof(uint64_t));

namespace detail {

struct TableKeys;
struct KeyMatches;

// The keys of one record, each as the bytes by which it is compared.
class QVDBASE_API KeyList {
 public:
  void add(std::string_view key) {
    keys_.push_back({bytes_.size(), key.size()});
    bytes_.append(key);
  }
  void clear() noexcept {
    bytes_.clear();
    keys_.clear();
  }

  // Sorts them, each once. To be called after the last one was added.
  void complete();

  size_t size() const noexcept { return keys_.size(); }
  std::string_view operator[](size_t i) const noexcept { return at(keys_[i]); }
  bool contains(std::string_view key) const noexcept;

 private:
  struct Place {
    size_t begin;
    size_t length;
  };
  std::string_view at(const Place& place) const noexcept {
    return {bytes_.data() + place.begin, place.length};
  }

  std::string bytes_;  // one after the other
  std::vector<Place> keys_;
};

using MakeKeys = std::function<void(std::span<const std::byte> payload, KeyList& keys)>;

// Which keys are looked for.
struct KeyBounds {
  bool isExact = false;  // `from` alone
  bool isFind = false;   // one record is enough
  std::string from;
  std::optional<std::string> to;  // the first one after them
};

QVDBASE_API std::shared_ptr<TableKeys> makeTableKeys(const Table& table, MakeKeys make,
                                                     const KeyIndexOptions& options,
                                                     uint32_t keyType);
QVDBASE_API size_t keysIn(const TableKeys* keys) noexcept;
QVDBASE_API size_t bytesOfKeys(const TableKeys* keys) noexcept;
QVDBASE_API bool isFromFile(const TableKeys* keys) noexcept;

// The records that have certain keys.
class QVDBASE_API KeyWalk {
 public:
  KeyWalk(std::shared_ptr<TableKeys> keys, KeyBounds bounds);
  KeyWalk(KeyWalk&&) noexcept;
  KeyWalk& operator=(KeyWalk&&) noexcept;
  ~KeyWalk();

  bool next();
  std::string_view key() const noexcept;
  Record takeRecord() noexcept;

 private:
  std::unique_ptr<KeyMatches> matches_;
};

// What follows everything that begins so; nothing when nothing does.
inline std::optional<std::string> endOfPrefix(std::string prefix) {
  while (!prefix.empty() && prefix.back() == '\xFF') prefix.pop_back();
  if (prefix.empty()) return std::nullopt;
  prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
  return prefix;
}

template <typename Key>
struct NumberOf {
  using type = Key;
};
template <typename Key>
requires std::is_enum_v<Key>
struct NumberOf<Key> {
  using type = std::underlying_type_t<Key>;
};

// Types of keys whose bytes differ have different numbers: 0 for text and bytes, else the size of a
// number, and whether it has a sign.
template <typename Key>
constexpr uint32_t typeOfKeys() {
  if constexpr (std::integral<Key> || std::is_enum_v<Key>) {
    using Number = typename NumberOf<Key>::type;
    return sizeof(Number) * 2 + (std::is_signed_v<Number> ? 1 : 0);
  } else {
    return 0;
  }
}

// Keys as bytes, in whose order they are: numbers begin with the byte of the highest value, with
// the sign turned round.
template <typename Key>
struct KeyCodec {
  using Argument = Key;
  using Number = typename NumberOf<Key>::type;

  static std::string encode(Key key) {
    const auto bits = static_cast<uint64_t>(static_cast<Number>(key)) ^ kSign;
    std::string bytes(sizeof(Number), '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(static_cast<unsigned char>(bits >> 8 * (bytes.size() - 1 - i)));
    }
    return bytes;
  }
  static Key decode(std::string_view bytes) {
    uint64_t bits = 0;
    for (const char byte : bytes) bits = bits << 8 | static_cast<unsigned char>(byte);
    return static_cast<Key>(static_cast<Number>(bits ^ kSign));
  }

 private:
  static constexpr uint64_t kSign =
      std::is_signed_v<Number> ? uint64_t{1} << (8 * sizeof(Number) - 1) : 0;
};

template <>
struct KeyCodec<std::string> {
  using Argument = std::string_view;
  static std::string_view encode(std::string_view key) { return key; }
  static std::string decode(std::string_view bytes) { return std::string(bytes); }
};

template <>
struct KeyCodec<std::vector<std::byte>> {
  using Argument = ByteView;
  static std::string_view encode(ByteView key) {
    return {reinterpret_cast<const char*>(key.data()), key.size()};
  }
  static std::vector<std::byte> decode(std::string_view bytes) {
    const auto* begin = reinterpret_cast<const std::byte*>(bytes.data());
    return {begin, begin + bytes.size()};
  }
};

// What a function can return for its keys: one, perhaps one, or a range of them. A number has the
// type of the key, so that none is changed on the way.
template <typename Made, typename Key>
concept OneKey = std::same_as<std::remove_cvref_t<Made>, Key> ||
    (!std::integral<Key> && !std::is_enum_v<Key> &&
     std::convertible_to<Made, typename KeyCodec<Key>::Argument>);
template <typename Made, typename Key>
concept PerhapsOneKey = requires(const Made& made) {
  { made.has_value() } -> std::convertible_to<bool>;
  { *made } -> OneKey<Key>;
};
template <typename Made, typename Key>
concept SeveralKeys =
    std::ranges::input_range<Made> && OneKey<std::ranges::range_reference_t<Made>, Key>;
template <typename Made, typename Key>
concept MadeKeys = OneKey<Made, Key> || PerhapsOneKey<Made, Key> || SeveralKeys<Made, Key>;

template <typename Key, typename Made>
void addKeys(Made&& made, KeyList& keys) {
  if constexpr (OneKey<Made, Key>) {
    keys.add(KeyCodec<Key>::encode(made));
  } else if constexpr (PerhapsOneKey<Made, Key>) {
    if (made.has_value()) keys.add(KeyCodec<Key>::encode(*made));
  } else {
    for (auto&& each : made) keys.add(KeyCodec<Key>::encode(each));
  }
}

template <typename Extractor>
decltype(auto) extract(Extractor& extractor, std::span<const std::byte> payload) {
  if constexpr (std::invocable<Extractor&, std::span<const std::byte>>) {
    return std::invoke(extractor, payload);
  } else {
    return std::invoke(
        extractor, std::string_view(reinterpret_cast<const char*>(payload.data()), payload.size()));
  }
}

}  // namespace detail

// A function that makes the keys of a record from its payload, which it takes as a span of bytes or
// as a std::string_view. It returns
//   a key; text and bytes also as what converts to std::string_view or ByteView;
//   a std::optional of one, for records that may have none; or
//   a range of keys, for records that may have several.
// The keys of a record depend on nothing but its payload.
//
// The function is moved into the index. It lives, with what it has captured, as long as the index,
// copies and ranges of it, and operations of other threads that are using it; with a name also
// until the database is closed. What it refers to has to live as long, or the first change of the
// table afterwards uses what is gone. The thread that ends the last of these destroys it, perhaps
// within an operation: its destructor must not use the database.
//
// It is called in the thread of the operation that needs it: lookups, and adding and changing
// records of the table by any thread. So several threads may call it at once: what it changes needs
// a lock of its own. It may use the library, and the database: no lock is held while it runs.
// Removing records and closing the database do not call it.
//
// Exceptions that it throws pass to the caller of that operation. A change has written nothing
// then; an index that was being made is none; a lookup or the increment of a range can be tried
// again, and goes on at the same place; keep_indexes() has left the file as it was. No record is
// skipped: whoever does not want one in the index returns no key for it.
template <typename Extractor, typename Key>
concept KeyExtractor = (std::invocable<Extractor&, std::span<const std::byte>> ||
                        std::invocable<Extractor&, std::string_view>)&&requires(Extractor& make) {
  { detail::extract(make, std::span<const std::byte>()) } -> detail::MadeKeys<Key>;
};

// A record, and the key by which it was found.
template <IndexKey Key>
struct KeyMatch {
  Key key;        // one of those that the record has
  Record record;  // with its payload, as it was then: see Record::loaded()
};

// Records with certain keys, in the order of these: an input range that is walked once.
//
//   for (const auto& [name, record] : people.prefix("An")) ...
//
// It is read in small batches while it is walked. A record that has the key from the beginning of
// the walk to its end is delivered for it once. Where records are changed meanwhile, they are
// delivered as they were or as they are. A range of an unordered index, which has one key only,
// begins with the records whose blocks come first in the file.
//
// A range belongs to one thread at a time; others may change the table meanwhile. Where the index
// has to be built again and the chain is damaged, it delivers the records before the damage and
// then throws chain_damaged.
template <IndexKey Key>
class KeyRange {
 public:
  class iterator;

  // Starts the walk; to be called once. Throws as KeyIndex::find() does, as do the increments.
  iterator begin() & {
    advance();
    return iterator(this);
  }
  iterator begin() && = delete;

  // The end of every walk.
  std::default_sentinel_t end() const noexcept { return std::default_sentinel; }

 private:
  template <IndexKey>
  friend class KeyIndex;
  explicit KeyRange(detail::KeyWalk walk) : walk_(std::move(walk)) {}

  void advance() {
    match_.reset();
    if (!walk_.next()) return;
    match_ = KeyMatch<Key>{detail::KeyCodec<Key>::decode(walk_.key()), walk_.takeRecord()};
  }

  detail::KeyWalk walk_;
  std::optional<KeyMatch<Key>> match_;
};

// The place of such a walk: an input iterator. All iterators of a range are at the same place.
template <IndexKey Key>
class KeyRange<Key>::iterator {
 public:
  using iterator_concept = std::input_iterator_tag;  // walks once, forward
  using value_type = KeyMatch<Key>;                  // what it points to
  using difference_type = std::ptrdiff_t;            // required of every iterator

  iterator() = default;  // at the end

  // Key and record, which belong to the range and are valid until the next increment.
  const KeyMatch<Key>& operator*() const noexcept { return *range_->match_; }

  // The same for their members.
  const KeyMatch<Key>* operator->() const noexcept { return &*range_->match_; }

  // Goes to the next match.
  iterator& operator++() {
    range_->advance();
    return *this;
  }

  // Goes to the next match likewise.
  void operator++(int) { range_->advance(); }

  // Whether the walk has ended.
  friend bool operator==(const iterator& i, std::default_sentinel_t) noexcept { return i.isDone(); }

 private:
  friend class KeyRange;
  explicit iterator(KeyRange* range) : range_(range) {}
  bool isDone() const noexcept { return range_ == nullptr || !range_->match_; }

  KeyRange* range_ = nullptr;
};

// Finds the records of one table by keys of the application's own, in constant time. A function
// makes the keys of a record: none, one or several.
//
//   const qvdb::KeyIndex<std::string> by_name(people, [](std::string_view text) {
//     return text.substr(0, text.find('\n'));
//   });
//   if (auto record = by_name.find("Ada Lovelace")) use(record->loaded());
//
// It lives in memory, as long as this object or a copy of it does, and is built in one walk over
// the table; one with a name (KeyIndexOptions::kept_as) is also kept in a file beside the database,
// from which the next one begins without a walk: see Database::keep_indexes(). For each key it
// takes 24 bytes, up to 27 when it has grown; the walk makes space for one key of
// each record. Where several records have one key, it takes about 8 bytes more for each of them.
// Keys in order take 32 to 64 bytes more, and what a key is longer than 8 bytes, with the cost of
// its allocation. Records that were changed or removed leave entries that lookups take out; before
// they outnumber half of the others, and a thousand, the index is emptied and built again when it
// is next used. Building it again may take up the memory twice for a moment.
//
// Every operation of this layer on the table keeps the index up to date: adding, changing and
// removing records, appenders and writers, and Database::reopen(). Adding and changing call the
// function before anything is written: when it throws, nothing is, and its exception passes to the
// caller. Record writers keep the payload in memory for it.
//
// The file decides, not the index. A record is found only after it was read: it must be in the
// table, and the function must make the key of its payload. That no record has a key, and the
// completeness of a range, rest on the index where nothing but this Database object has written to
// the file since it was built, and on another walk over the table where anything else has:
//   - In a database that is open exclusively, the C functions of the same process count.
//   - Beside writers, every change of the file counts, also of another table, and one of this
//     object in Mode::shared; and as the times of files change in ticks, so does one that was made
//     up to 12 milliseconds before the index was built. A key that was added at the table's end is
//     found without a walk; a key that is missing costs one after each change.
//
// A unique index refuses changes by which two records would have one key. So it needs the only
// writer: Mode::exclusive, or a database that is open for reading.
//
// Several threads may use an index, or copies of it, at once.
template <IndexKey Key>
class KeyIndex {
 public:
  // How keys are passed: text as std::string_view, bytes as ByteView, numbers as they are.
  using Argument = typename detail::KeyCodec<Key>::Argument;

  // No index, to be assigned to: lookups throw not_open.
  KeyIndex() = default;

  // Builds an index of the table.
  //
  // Throws what the function throws; chain_damaged when the records cannot all be reached,
  // data_damaged when a payload cannot; key_exists when it is to be unique and two records have one
  // key; bad_argument when it is to be unique in a database that others may write to; appender_open
  // while records are being added to this table; std::bad_alloc.
  template <KeyExtractor<Key> Extractor>
  KeyIndex(const Table& table, Extractor extractor, const KeyIndexOptions& options = {})
      : keys_(detail::makeTableKeys(table, makerOf(std::move(extractor)), options,
                                    detail::typeOfKeys<Key>())) {}

  // The record with a key; of several any one. Nothing when there is none. Its payload is loaded.
  // Throws what the function throws, and as Table::find() does.
  std::optional<Record> find(Argument key) const {
    detail::KeyWalk walk = walkTo(key, true);
    if (!walk.next()) return std::nullopt;
    return walk.takeRecord();
  }

  // Whether there is such a record. Throws as find().
  bool contains(Argument key) const { return walkTo(key, true).next(); }

  // All records with a key. Throws as find().
  KeyRange<Key> records(Argument key) const { return KeyRange<Key>(walkTo(key, false)); }

  // All records that have keys, in the order of these; those with several come several times. Of
  // ordered indexes only, as the next two are: throws bad_argument. Text and bytes are in the order
  // of their bytes, each from 0 to 255.
  KeyRange<Key> records() const { return between(std::string(), std::nullopt); }

  // The records with keys from `from` on, up to but not including `to`.
  KeyRange<Key> range(Argument from, Argument to) const {
    return between(std::string(detail::KeyCodec<Key>::encode(from)),
                   std::string(detail::KeyCodec<Key>::encode(to)));
  }

  // The records with keys that begin so: for text and bytes.
  KeyRange<Key> prefix(Argument beginning) const
      requires(!std::integral<Key> && !std::is_enum_v<Key>) {
    const std::string from(detail::KeyCodec<Key>::encode(beginning));
    return between(from, detail::endOfPrefix(from));
  }

  // The number of keys in it, each for every record that has it; with those that changes have left
  // and no lookup has taken out. 0 once the database is closed.
  size_t size() const noexcept { return detail::keysIn(keys_.get()); }

  // The memory that it takes, in bytes, apart from the cost of allocations. 0 once the database is
  // closed.
  size_t bytes() const noexcept { return detail::bytesOfKeys(keys_.get()); }

  // Whether it uses the file in which it is kept, so that it takes memory for what has changed
  // since only. False for one that was built, and once the database is closed.
  bool is_from_file() const noexcept { return detail::isFromFile(keys_.get()); }

 private:
  template <typename Extractor>
  static detail::MakeKeys makerOf(Extractor extractor) {
    auto shared = std::make_shared<Extractor>(std::move(extractor));
    return [shared](std::span<const std::byte> payload, detail::KeyList& keys) {
      detail::addKeys<Key>(detail::extract(*shared, payload), keys);
    };
  }

  detail::KeyWalk walkTo(Argument key, bool isFind) const {
    return {keys_, {true, isFind, std::string(detail::KeyCodec<Key>::encode(key)), std::nullopt}};
  }
  KeyRange<Key> between(std::string from, std::optional<std::string> to) const {
    return KeyRange<Key>(detail::KeyWalk(keys_, {false, false, std::move(from), std::move(to)}));
  }

  std::shared_ptr<detail::TableKeys> keys_;
};

}  // namespace qvdb
