// QVDbase: a doubly linked list of byte blocks, each of which the list copies and owns.
#pragma once

#include <qvdbase/base.h>

// One element of a list.
struct QVNode {
  QVNode* next;  // null for the last element
  QVNode* prev;  // null for the first element
  void* data;    // exactly dataSize bytes, owned by the node; null when dataSize is 0
  int dataSize;  // in bytes
};

// A list. Elements are addressed by a 0-based index; every access walks from the head, so the cost
// grows with the index. An index is valid when 0 <= index < count. Not locked: one thread at a
// time.
//
// The allocators are the ordinary ones: where memory runs out, std::bad_alloc leaves the function
// and the list is unchanged (after ModAt the element has lost its old data).
class QVDBASE_API QVList {
 public:
  QVList();   // empty
  ~QVList();  // frees every element
  QVList(const QVList&) = delete;
  QVList& operator=(const QVList&) = delete;

  // Makes an unlinked node that owns a copy of `size` bytes; with a size below 1 a node without
  // data. The caller owns it until it is linked into a list: sets its links, or frees it with
  // FreeOneNode.
  QVNode* CreateNewNodeWithData(const void* bytes, int size);

  // Appends a copy at the tail. Returns 1, or 0 when no node could be made.
  int Add(const void* bytes, int size);

  // Inserts a copy before the element at `index`. Into an empty list it appends, whatever the
  // index. Returns 1; 0 when the index is not valid and the list is not empty, so that inserting
  // just past the end fails: appending is Add's.
  int InsAt(const void* bytes, int size, int index);

  // Removes and frees the element at `index`. Returns 1, or 0 for an index that is not valid.
  // Deleting the only element leaves the count at -1 until the next Add or DelAll.
  int DelAt(int index);

  // Replaces the element's bytes by a copy of the new ones; a size below 1 drops them. Returns 1,
  // or 0 for an index that is not valid.
  int ModAt(const void* bytes, int size, int index);

  // Copies the element's bytes to `buffer`, which must be large enough for them, and stores
  // their number in `size`. With a null buffer only the size is stored. Returns 1, or 0 for an
  // index that is not valid (nothing is stored then).
  int GetAt(void* buffer, int* size, int index);

  // Returns the element's own bytes and stores their number; null with size 0 for an element
  // without data, null with the size unwritten for an index that is not valid. The pointer is
  // borrowed: it holds until that element is modified or deleted.
  void* GetAtNoCopy(int* size, int index);

  // Returns the node at `index`, which stays the list's, or null for an index that is not
  // valid.
  QVNode* GetNodeAt(int index);

  // The number of elements; -1 after the only element was deleted with DelAt.
  int GetSize() const;

  // Frees a node and its data without unlinking it; null is ignored.
  void FreeOneNode(QVNode* node);

  // Frees every element; the count becomes 0.
  void DelAll();

 private:
  QVNode* head;
  QVNode* tail;
  int count;
};
