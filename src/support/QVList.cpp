// A doubly linked list of byte blocks, each copied on insertion and owned by the list.
#include <qvdbase/QVList.h>

#include <cstddef>
#include <cstring>

namespace {

// Gives the node its own copy of the bytes; a size below 1 leaves it without data.
void storeBytes(QVNode* node, const void* bytes, int size) {
  node->data = nullptr;
  node->dataSize = 0;
  if (size < 1) return;
  node->data = new unsigned char[static_cast<size_t>(size)];
  std::memcpy(node->data, bytes, static_cast<size_t>(size));
  node->dataSize = size;
}

void freeBytes(QVNode* node) {
  if (node->data != nullptr && node->dataSize > 0) delete[] static_cast<unsigned char*>(node->data);
  node->dataSize = 0;
}

}  // namespace

QVList::QVList() : head(nullptr), tail(nullptr), count(0) {}

QVList::~QVList() {
  DelAll();
}

QVNode* QVList::CreateNewNodeWithData(const void* bytes, int size) {
  auto* node = new QVNode{nullptr, nullptr, nullptr, 0};
  try {
    storeBytes(node, bytes, size);
  } catch (...) {
    delete node;
    throw;
  }
  return node;
}

int QVList::Add(const void* bytes, int size) {
  QVNode* node = CreateNewNodeWithData(bytes, size);
  if (node == nullptr) return 0;
  if (head == nullptr) {
    head = node;
    tail = node;
    count = 1;  // set, not counted up: the count may be -1
    return 1;
  }
  tail->next = node;
  node->prev = tail;
  tail = node;
  ++count;
  return 1;
}

int QVList::InsAt(const void* bytes, int size, int index) {
  QVNode* successor = GetNodeAt(index);
  if (successor == nullptr) return count == 0 ? Add(bytes, size) : 0;
  QVNode* node = CreateNewNodeWithData(bytes, size);
  if (node == nullptr) return 0;
  node->prev = successor->prev;
  node->next = successor;
  if (successor->prev == nullptr) {
    head = node;
  } else {
    successor->prev->next = node;
  }
  successor->prev = node;
  ++count;
  return 1;
}

int QVList::DelAt(int index) {
  QVNode* node = GetNodeAt(index);
  if (node == nullptr) return 0;
  if (node->prev != nullptr) {
    node->prev->next = node->next;
    if (node->next != nullptr) {
      node->next->prev = node->prev;
    } else {
      tail = node->prev;
    }
  } else if (node->next != nullptr) {
    node->next->prev = nullptr;
    head = node->next;
  } else {
    count = 0;
    head = nullptr;
    tail = nullptr;
  }
  FreeOneNode(node);
  // Counted down in every case, so that a list that has lost its only element counts -1 until the
  // next Add or DelAll: part of the contract.
  --count;
  return 1;
}

int QVList::ModAt(const void* bytes, int size, int index) {
  QVNode* node = GetNodeAt(index);
  if (node == nullptr) return 0;
  freeBytes(node);
  storeBytes(node, bytes, size);
  return 1;
}

int QVList::GetAt(void* buffer, int* size, int index) {
  const QVNode* node = GetNodeAt(index);
  if (node == nullptr) return 0;
  const bool hasData = node->data != nullptr && node->dataSize > 0;
  *size = hasData ? node->dataSize : 0;
  if (hasData && buffer != nullptr) {
    std::memcpy(buffer, node->data, static_cast<size_t>(node->dataSize));
  }
  return 1;
}

void* QVList::GetAtNoCopy(int* size, int index) {
  const QVNode* node = GetNodeAt(index);
  if (node == nullptr) return nullptr;
  *size = node->dataSize;
  return node->data;
}

QVNode* QVList::GetNodeAt(int index) {
  if (index < 0 || index >= count) return nullptr;
  QVNode* node = head;
  for (int i = 0; i < index && node != nullptr; ++i) node = node->next;
  return node;
}

int QVList::GetSize() const {
  return count;
}

void QVList::FreeOneNode(QVNode* node) {
  if (node == nullptr) return;
  freeBytes(node);
  delete node;
}

void QVList::DelAll() {
  for (QVNode* node = head; node != nullptr;) {
    QVNode* next = node->next;
    FreeOneNode(node);
    node = next;
  }
  head = nullptr;
  tail = nullptr;
  count = 0;
}
