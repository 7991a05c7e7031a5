// What holds for every identifier, every slot and every list, tried on random ones. Seeds and
// RC_PARAMS as in random_operations_test.cpp.
#include <gtest/gtest.h>
#include <qvdbase/QVList.h>
#include <rapidcheck.h>

#include <cstring>
#include <vector>

#include "format/Aliment8.h"
#include "format/identifiers.h"
#include "kit/file_fields.h"
#include "kit/layers.h"

namespace qvdbase::test {
namespace {

Bytes tenBytesOf(uint64_t number) {
  Bytes id(10);
  internal_ConvertInt64_2UuID(number, id.data());
  return id;
}

TEST(AnyIdentifier, IsTheNumbersBytesAndTheirSum) {
  EXPECT_TRUE(rc::check([](uint64_t number) {
    const Bytes id = tenBytesOf(number);
    RC_ASSERT(id == identifier(number));
    uint64_t back = ~number;
    internal_ConvertUuID_2Int64(id.data(), &back);
    RC_ASSERT(back == number);
  }));
}

rc::Gen<Bytes> anyBytes(size_t count) {
  return rc::gen::map(
      rc::gen::container<std::vector<uint8_t>>(count, rc::gen::arbitrary<uint8_t>()),
      [](const std::vector<uint8_t>& bytes) { return Bytes(bytes.begin(), bytes.end()); });
}

// Decoding 144 bytes and encoding them again gives them back, but for the filler and the three
// group sizes.
TEST(AnySlot, ComesBackFromMemoryAsItWasInTheFile) {
  EXPECT_TRUE(rc::check([] {
    const Bytes image = *anyBytes(144);
    tablePart1 slot;
    qvdbase::format::decodeSlot(image.data(), &slot);
    Bytes again(144);
    qvdbase::format::encodeSlot(slot, again.data());

    SlotFields expected = decodeSlot(Bytes().zeros(22).add(image), 0);
    expected.infoSize = 50;
    expected.recordsInfoSize = expected.dataInfoSize = 40;
    RC_ASSERT(again == expected.encode());
  }));
}

// Adding, inserting, replacing and deleting at random, against a vector.
struct ListStep {
  int kind = 0;
  int index = 0;
  int size = 0;
};

std::ostream& operator<<(std::ostream& out, const ListStep& step) {
  return out << "kind " << step.kind << " index " << step.index << " size " << step.size << "\n";
}

// The vector beside the list; -1 in `count` after the only element was deleted.
struct ListModel {
  std::vector<Bytes> elements;
  bool lostItsOnly = false;

  bool valid(int index) const { return index >= 0 && index < static_cast<int>(elements.size()); }
  int count() const { return lostItsOnly ? -1 : static_cast<int>(elements.size()); }
};

void apply(QVList& list, ListModel& model, const ListStep& step, unsigned seed) {
  const Bytes bytes = pattern(static_cast<size_t>(step.size), seed);
  auto& elements = model.elements;
  const auto place = elements.begin() + (model.valid(step.index) ? step.index : 0);
  switch (step.kind) {
    case 0:
      RC_ASSERT(list.Add(bytes.data(), step.size) == 1);
      elements.push_back(bytes);
      model.lostItsOnly = false;
      return;
    case 1: {
      const bool works = model.valid(step.index) || model.count() == 0;
      RC_ASSERT(list.InsAt(bytes.data(), step.size, step.index) == (works ? 1 : 0));
      if (works) elements.insert(place, bytes);
      return;
    }
    case 2:
      RC_ASSERT(list.ModAt(bytes.data(), step.size, step.index) ==
                (model.valid(step.index) ? 1 : 0));
      if (model.valid(step.index)) *place = bytes;
      return;
    default:
      RC_ASSERT(list.DelAt(step.index) == (model.valid(step.index) ? 1 : 0));
      if (!model.valid(step.index)) return;
      elements.erase(place);
      model.lostItsOnly = elements.empty();
  }
}

void compare(QVList& list, const ListModel& model) {
  RC_ASSERT(list.GetSize() == model.count());
  for (int i = 0; i < model.count(); ++i) {
    int size = -1;
    const auto* data = static_cast<const uint8_t*>(list.GetAtNoCopy(&size, i));
    const Bytes& expected = model.elements[static_cast<size_t>(i)];
    RC_ASSERT(size == static_cast<int>(expected.size()));
    RC_ASSERT((data == nullptr) == expected.empty());
    RC_ASSERT(Bytes(data, data + size) == expected);
  }
}

TEST(AnyList, HoldsWhatAVectorWouldHold) {
  EXPECT_TRUE(rc::check([] {
    const auto anyStep =
        rc::gen::build<ListStep>(rc::gen::set(&ListStep::kind, rc::gen::inRange(0, 4)),
                                 rc::gen::set(&ListStep::index, rc::gen::inRange(-1, 6)),
                                 rc::gen::set(&ListStep::size, rc::gen::inRange(0, 5)));
    const auto steps = *rc::gen::container<std::vector<ListStep>>(anyStep);
    QVList list;
    ListModel model;
    unsigned seed = 0;
    for (const ListStep& each : steps) {
      apply(list, model, each, ++seed);
      compare(list, model);
    }
  }));
}

}  // namespace
}  // namespace qvdbase::test
