// Helpers for the daemon's intrusive ring lists (tracker, leases, volume
// dispatchers, loader candidates). Each list has a sentinel of the same type
// as its members, so an empty list is a sentinel pointing at itself and no
// insertion or removal needs a special case. T needs `next` and `prev`
// members of type T*.
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
