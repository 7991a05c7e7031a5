// The list of byte blocks: order, indexes, ownership and the odd rules of its count.
#include <gtest/gtest.h>
#include <qvdbase/QVList.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "QVDbase/directory_cache.h"

namespace {
// Allocations of this program that have not been freed yet.
long g_liveAllocations = 0;
// How many more succeed before one fails; none fails while this is negative.
long g_allocationsLeft = -1;

void* countedAllocation(size_t size) {
  if (g_allocationsLeft >= 0 && g_allocationsLeft-- == 0) throw std::bad_alloc();
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++g_liveAllocations;
  return memory;
}

void countedFree(void* memory) noexcept {
  if (memory != nullptr) --g_liveAllocations;
  std::free(memory);
}
}  // namespace

// The ordinary allocators, counted.
void* operator new(size_t size) {
  return countedAllocation(size);
}
void* operator new[](size_t size) {
  return countedAllocation(size);
}
// std::stable_sort asks for memory in this way, and gives it back as any other.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return countedAllocation(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept {
  countedFree(memory);
}
void operator delete[](void* memory) noexcept {
  countedFree(memory);
}
void operator delete(void* memory, size_t) noexcept {
  countedFree(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  countedFree(memory);
}

namespace {

int add(QVList& list, const std::string& text) {
  return list.Add(text.data(), static_cast<int>(text.size()));
}

int insert(QVList& list, const std::string& text, int index) {
  return list.InsAt(text.data(), static_cast<int>(text.size()), index);
}

std::string at(QVList& list, int index) {
  int size = -7;
  const void* data = list.GetAtNoCopy(&size, index);
  if (size == -7) return "(none)";
  if (data == nullptr) return "";
  return {static_cast<const char*>(data), static_cast<size_t>(size)};
}

// The elements by following the chain forwards, checked against the chain followed backwards.
std::vector<std::string> elements(QVList& list) {
  std::vector<std::string> forwards;
  const QVNode* last = nullptr;
  for (const QVNode* node = list.GetNodeAt(0); node != nullptr; node = node->next) {
    EXPECT_EQ(node->prev, last) << "a back link does not name the predecessor";
    forwards.emplace_back(node->data == nullptr ? "" : static_cast<const char*>(node->data),
                          static_cast<size_t>(node->dataSize));
    last = node;
  }
  EXPECT_EQ(list.GetSize(), static_cast<int>(forwards.size()));
  return forwards;
}

using Elements = std::vector<std::string>;

QVList& fill(QVList& list, const Elements& texts) {
  for (const std::string& each : texts) EXPECT_EQ(add(list, each), 1);
  return list;
}

TEST(List, StartsEmpty) {
  QVList list;
  EXPECT_EQ(list.GetSize(), 0);
  EXPECT_EQ(list.GetNodeAt(0), nullptr);
}

TEST(ListAdd, AppendsInOrder) {
  QVList list;
  fill(list, {"a", "bb", "ccc"});
  EXPECT_EQ(elements(list), (Elements{"a", "bb", "ccc"}));
}

TEST(ListAdd, CopiesTheBytes) {
  QVList list;
  char text[] = "abc";
  EXPECT_EQ(list.Add(text, 3), 1);
  std::memset(text, 'x', 3);
  EXPECT_EQ(at(list, 0), "abc");
}

TEST(ListAdd, StoresASizeOfZeroOrLessWithoutData) {
  QVList list;
  EXPECT_EQ(list.Add("abc", 0), 1);
  EXPECT_EQ(list.Add("abc", -3), 1);
  EXPECT_EQ(list.Add(nullptr, 0), 1);
  ASSERT_EQ(list.GetSize(), 3);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(list.GetNodeAt(i)->data, nullptr);
    EXPECT_EQ(list.GetNodeAt(i)->dataSize, 0);
  }
}

TEST(ListInsAt, TakesTheIndexOfTheElementAfterIt) {
  QVList list;
  fill(list, {"a", "b", "c"});
  EXPECT_EQ(insert(list, "x", 1), 1);
  EXPECT_EQ(elements(list), (Elements{"a", "x", "b", "c"}));
  EXPECT_EQ(insert(list, "y", 3), 1);
  EXPECT_EQ(elements(list), (Elements{"a", "x", "b", "y", "c"}));
}

TEST(ListInsAt, MakesANewHeadAtIndexZero) {
  QVList list;
  fill(list, {"a"});
  EXPECT_EQ(insert(list, "head", 0), 1);
  EXPECT_EQ(elements(list), (Elements{"head", "a"}));
}

TEST(ListInsAt, AppendsToAnEmptyListWhateverTheIndex) {
  for (const int index : {5, 0, -1}) {
    QVList list;
    EXPECT_EQ(insert(list, "only", index), 1);
    EXPECT_EQ(elements(list), Elements{"only"});
  }
}

TEST(ListInsAt, RefusesAnIndexOutsideAListWithElements) {
  QVList list;
  fill(list, {"a", "b"});
  EXPECT_EQ(insert(list, "x", 2), 0);
  EXPECT_EQ(insert(list, "x", -1), 0);
  EXPECT_EQ(elements(list), (Elements{"a", "b"}));
}

TEST(ListInsAt, StoresASizeOfZeroWithoutData) {
  QVList list;
  fill(list, {"a"});
  EXPECT_EQ(list.InsAt("abc", 0, 0), 1);
  EXPECT_EQ(elements(list), (Elements{"", "a"}));
  EXPECT_EQ(list.GetNodeAt(0)->data, nullptr);
}

TEST(ListInsAt, LeavesTheTailWhereItWas) {
  QVList list;
  fill(list, {"a", "b"});
  insert(list, "x", 1);
  add(list, "last");
  EXPECT_EQ(elements(list), (Elements{"a", "x", "b", "last"}));
}

TEST(ListDelAt, RemovesHeadMiddleAndTail) {
  QVList list;
  fill(list, {"a", "b", "c", "d", "e"});
  EXPECT_EQ(list.DelAt(2), 1);
  EXPECT_EQ(elements(list), (Elements{"a", "b", "d", "e"}));
  EXPECT_EQ(list.DelAt(0), 1);
  EXPECT_EQ(elements(list), (Elements{"b", "d", "e"}));
  EXPECT_EQ(list.DelAt(2), 1);
  EXPECT_EQ(elements(list), (Elements{"b", "d"}));
  add(list, "f");
  EXPECT_EQ(elements(list), (Elements{"b", "d", "f"}));
}

TEST(ListDelAt, LeavesTheCountAtMinusOneAfterTheOnlyElement) {
  QVList list;
  fill(list, {"a"});
  EXPECT_EQ(list.DelAt(0), 1);
  EXPECT_EQ(list.GetSize(), -1);
  EXPECT_EQ(list.GetNodeAt(0), nullptr);
}

TEST(ListDelAt, MakesEveryIndexedOperationFailAfterTheOnlyElement) {
  QVList list;
  fill(list, {"a"});
  list.DelAt(0);
  int size = 99;
  for (const int index : {-1, 0, 1}) {
    EXPECT_EQ(list.GetAt(nullptr, &size, index), 0);
    EXPECT_EQ(list.GetAtNoCopy(&size, index), nullptr);
    EXPECT_EQ(list.GetNodeAt(index), nullptr);
    EXPECT_EQ(list.DelAt(index), 0);
    EXPECT_EQ(list.ModAt("x", 1, index), 0);
    EXPECT_EQ(insert(list, "x", index), 0);
  }
  EXPECT_EQ(size, 99);
  EXPECT_EQ(list.GetSize(), -1);
}

TEST(ListAdd, SetsTheCountToOneAfterTheOnlyElementWasDeleted) {
  QVList list;
  fill(list, {"a"});
  list.DelAt(0);
  add(list, "b");
  EXPECT_EQ(list.GetSize(), 1);
  EXPECT_EQ(elements(list), Elements{"b"});
}

TEST(ListDelAll, SetsTheCountToZeroAfterTheOnlyElementWasDeleted) {
  QVList list;
  fill(list, {"a"});
  list.DelAt(0);
  list.DelAll();
  EXPECT_EQ(list.GetSize(), 0);
  EXPECT_EQ(insert(list, "b", 7), 1);
  EXPECT_EQ(elements(list), Elements{"b"});
}

TEST(ListDelAll, EmptiesTheList) {
  QVList list;
  fill(list, {"a", "b", "c"});
  list.DelAll();
  EXPECT_EQ(list.GetSize(), 0);
  EXPECT_EQ(list.GetNodeAt(0), nullptr);
  list.DelAll();
  EXPECT_EQ(list.GetSize(), 0);
  add(list, "again");
  EXPECT_EQ(elements(list), Elements{"again"});
}

TEST(ListModAt, ReplacesTheBytes) {
  QVList list;
  fill(list, {"a", "b", "c"});
  char text[] = "longer";
  EXPECT_EQ(list.ModAt(text, 6, 1), 1);
  text[0] = 'X';
  EXPECT_EQ(elements(list), (Elements{"a", "longer", "c"}));
}

TEST(ListModAt, DropsTheDataWithSizeZeroAndKeepsTheElement) {
  QVList list;
  fill(list, {"a", "b", "c"});
  EXPECT_EQ(list.ModAt("zzz", 0, 1), 1);
  EXPECT_EQ(elements(list), (Elements{"a", "", "c"}));
  EXPECT_EQ(list.GetNodeAt(1)->data, nullptr);
  EXPECT_EQ(list.ModAt("zzz", -1, 2), 1);
  EXPECT_EQ(list.GetNodeAt(2)->data, nullptr);
  EXPECT_EQ(list.GetNodeAt(2)->dataSize, 0);
  EXPECT_EQ(list.ModAt("back", 4, 1), 1);
  EXPECT_EQ(at(list, 1), "back");
}

TEST(ListGetAt, CopiesTheBytesAndTheSize) {
  QVList list;
  fill(list, {"a", "bcd"});
  char buffer[] = "######";
  int size = 0;
  EXPECT_EQ(list.GetAt(buffer, &size, 1), 1);
  EXPECT_EQ(size, 3);
  EXPECT_STREQ(buffer, "bcd###");
  buffer[0] = 'X';
  EXPECT_EQ(at(list, 1), "bcd");
}

TEST(ListGetAt, OnlyReportsTheSizeWithANullBuffer) {
  QVList list;
  fill(list, {"abcd"});
  int size = 0;
  EXPECT_EQ(list.GetAt(nullptr, &size, 0), 1);
  EXPECT_EQ(size, 4);
}

TEST(ListGetAt, CopiesNothingOfAnElementWithoutData) {
  QVList list;
  list.Add(nullptr, 0);
  char buffer[] = "##";
  int size = 99;
  EXPECT_EQ(list.GetAt(buffer, &size, 0), 1);
  EXPECT_EQ(size, 0);
  EXPECT_STREQ(buffer, "##");
  size = 99;
  EXPECT_EQ(list.GetAt(nullptr, &size, 0), 1);
  EXPECT_EQ(size, 0);
}

TEST(ListGetAtNoCopy, GivesTheElementsOwnBytes) {
  QVList list;
  fill(list, {"abc"});
  int size = 0;
  char* own = static_cast<char*>(list.GetAtNoCopy(&size, 0));
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(own, list.GetNodeAt(0)->data);
  own[0] = 'X';
  EXPECT_EQ(at(list, 0), "Xbc");
}

TEST(ListGetAtNoCopy, GivesNullWithSizeZeroForAnElementWithoutData) {
  QVList list;
  list.Add(nullptr, 0);
  int size = 99;
  EXPECT_EQ(list.GetAtNoCopy(&size, 0), nullptr);
  EXPECT_EQ(size, 0);
}

TEST(List, RefusesEveryIndexOutsideAndChangesNothing) {
  QVList list;
  fill(list, {"a", "b"});
  for (const int index : {-1, 2, 3, -2147483647 - 1, 2147483647}) {
    char buffer[] = "##";
    int size = 99;
    EXPECT_EQ(list.GetAt(buffer, &size, index), 0);
    EXPECT_EQ(list.GetAtNoCopy(&size, index), nullptr);
    EXPECT_EQ(list.GetNodeAt(index), nullptr);
    EXPECT_EQ(list.DelAt(index), 0);
    EXPECT_EQ(list.ModAt("x", 1, index), 0);
    EXPECT_EQ(size, 99);
    EXPECT_STREQ(buffer, "##");
  }
  EXPECT_EQ(elements(list), (Elements{"a", "b"}));
}

TEST(ListGetNodeAt, GivesEachNodeByItsIndex) {
  QVList list;
  fill(list, {"a", "b", "c"});
  EXPECT_EQ(list.GetNodeAt(1), list.GetNodeAt(0)->next);
  EXPECT_EQ(list.GetNodeAt(2), list.GetNodeAt(1)->next);
  EXPECT_EQ(list.GetNodeAt(2)->next, nullptr);
  EXPECT_EQ(list.GetNodeAt(0)->prev, nullptr);
}

TEST(ListNode, IsMadeUnlinkedWithACopyAndFreedAlone) {
  const long before = g_liveAllocations;
  QVList list;
  char text[] = "abc";
  QVNode* node = list.CreateNewNodeWithData(text, 3);
  ASSERT_NE(node, nullptr);
  text[0] = 'X';
  EXPECT_EQ(node->dataSize, 3);
  EXPECT_EQ(std::memcmp(node->data, "abc", 3), 0);
  EXPECT_EQ(list.GetSize(), 0);
  list.FreeOneNode(node);
  EXPECT_EQ(g_liveAllocations, before);
}

TEST(ListNode, HoldsNoDataWithASizeBelowOne) {
  QVList list;
  for (const int size : {0, -1}) {
    QVNode* node = list.CreateNewNodeWithData("abc", size);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->data, nullptr);
    EXPECT_EQ(node->dataSize, 0);
    list.FreeOneNode(node);
  }
}

TEST(ListNode, FreeingNullDoesNothing) {
  const long before = g_liveAllocations;
  QVList list;
  list.FreeOneNode(nullptr);
  EXPECT_EQ(g_liveAllocations, before);
}

TEST(List, FreesEveryNodeAndEveryBlockWhenItGoes) {
  const std::string text(100, 'x');
  const long before = g_liveAllocations;
  {
    QVList list;
    for (int i = 0; i < 10; ++i) list.Add(text.data(), 100);
    list.Add(nullptr, 0);
    EXPECT_EQ(g_liveAllocations - before, 21);  // a node and a block each, one without a block
  }
  EXPECT_EQ(g_liveAllocations, before);
}

TEST(List, FreesWhatIsDeletedOrReplaced) {
  const std::string text(100, 'x');
  const long before = g_liveAllocations;
  QVList list;
  for (int i = 0; i < 3; ++i) list.Add(text.data(), 100);
  list.DelAt(1);
  EXPECT_EQ(g_liveAllocations - before, 4);
  list.ModAt(text.data(), 50, 0);
  EXPECT_EQ(g_liveAllocations - before, 4);
  list.ModAt(nullptr, 0, 0);
  EXPECT_EQ(g_liveAllocations - before, 3);
  list.DelAll();
  EXPECT_EQ(g_liveAllocations, before);
}

TEST(List, StaysAsItIsWhenTheMemoryForANewElementCannotBeObtained) {
  const std::string text(100, 'x');
  QVList list;
  fill(list, {"a", "b"});
  const long before = g_liveAllocations;
  for (long left = 0; left < 2; ++left) {  // the node, and its bytes
    g_allocationsLeft = left;
    EXPECT_THROW(list.Add(text.data(), 100), std::bad_alloc);
    g_allocationsLeft = left;
    EXPECT_THROW(list.InsAt(text.data(), 100, 0), std::bad_alloc);
    EXPECT_EQ(g_liveAllocations, before);
    EXPECT_EQ(elements(list), (Elements{"a", "b"}));
  }
}

// No exception may leave an operation on a database: without memory nothing is cached.
TEST(List, OfCachedDirectoriesIsLeftAsItIsWhenItsMemoryCannotBeObtained) {
  const long before = g_liveAllocations;
  for (long left = 0; left < 2; ++left) {
    g_allocationsLeft = left;
    qvdbase::engine::addDirectoryEntry({}, internal_Head1{});
    EXPECT_EQ(g_allocationsLeft, -1);
    EXPECT_EQ(g_liveAllocations, before);
    EXPECT_EQ(gbl_Gdb2tDQ.GetSize(), 0);
  }
}

}  // namespace
