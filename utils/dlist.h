// Circular doubly linked lists through a sentinel of the entry's own type:
// the tracker, the lease list, the dispatcher list and the loader's
// candidates. An entry type has `next` and `prev` pointers of its own type.
#ifndef KESTRIX_UTILS_DLIST_H_
#define KESTRIX_UTILS_DLIST_H_

namespace kestrix::dlist {

template <typename T>
void MakeEmpty(T* sentinel) {
  sentinel->next = sentinel;
  sentinel->prev = sentinel;
}

template <typename T>
bool IsEmpty(const T* sentinel) {
  return sentinel->next == sentinel;
}

// Puts entry directly after the sentinel (the front of the list).
template <typename T>
void InsertFront(T* sentinel, T* entry) {
  entry->next = sentinel->next;
  entry->prev = sentinel;
  sentinel->next->prev = entry;
  sentinel->next = entry;
}

// Puts entry directly before the sentinel (the back of the list).
template <typename T>
void InsertBack(T* sentinel, T* entry) {
  entry->next = sentinel;
  entry->prev = sentinel->prev;
  sentinel->prev->next = entry;
  sentinel->prev = entry;
}

template <typename T>
void Unlink(T* entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
}

}  // namespace kestrix::dlist

#endif  // KESTRIX_UTILS_DLIST_H_
