// Hash indexes kept beside the daemon's linked lists (tracker, leases), so
// that a lookup costs one hashed probe instead of a walk of the list.
//
// An index is intrusive: each entry carries one chain pointer per index, and
// the index holds only the bucket array. Chains keep entries of equal keys in
// the order they were inserted, newest first, also across a resize, so a
// lookup finds the same entry as a walk of a newest-first list would. The
// bucket array grows and shrinks with the number of entries (two entries per
// bucket at most, one half at least) and falls back to a small built-in array
// when the index is empty or when the allocator cannot give a larger one.
#ifndef KESTRIX_UTILS_HASH_INDEX_H_
#define KESTRIX_UTILS_HASH_INDEX_H_

#include <stddef.h>
#include <stdint.h>

enum { KX_INDEX_SMALL_BUCKETS = 16 };

// Plain data so that it can live in C structures and zero-filled blocks:
// all zeros is an empty index using its built-in buckets.
typedef struct KxHashIndex {
  void** buckets;  // null: the built-in array below
  uint32_t bucketCount;  // 0: the built-in array's size
  uint32_t size;
  void* small[KX_INDEX_SMALL_BUCKETS];
} KxHashIndex;

#ifdef __cplusplus
#include <cstring>

#include "utils/ksxmem.h"

namespace kestrix {

// Mixes n bytes (a multiple of 8) into a 64-bit hash, continuing from seed.
inline uint64_t HashBytes(const void* data, size_t n, uint64_t seed = 0x9E3779B97F4A7C15ull) {
  const auto* p = static_cast<const uint8_t*>(data);
  uint64_t h = seed;
  for (size_t i = 0; i + 8 <= n; i += 8) {
    uint64_t word;
    std::memcpy(&word, p + i, 8);
    h ^= word;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 31;
  }
  return h;
}

// Operations on a KxHashIndex whose entries are T, chained through the
// member Chain and hashed by HashOf (the same value for as long as the entry
// is in the index).
template <typename T, T* T::*Chain, uint64_t (*HashOf)(const T*)>
class HashIndex {
 public:
  explicit HashIndex(KxHashIndex* index) : x_(index) {}

  // Forgets every entry and gives the bucket array back.
  void Reset() {
    if (x_->buckets != nullptr) ksxmem_free(x_->buckets);
    std::memset(x_, 0, sizeof *x_);
  }

  uint32_t size() const { return x_->size; }

  // Puts entry first among those of its key.
  void Insert(T* entry) {
    T** slot = Bucket(HashOf(entry));
    entry->*Chain = *slot;
    *slot = entry;
    ++x_->size;
    if (x_->size > 2u * Count()) Resize(Count() * 2);
  }

  void Remove(T* entry) {
    for (T** slot = Bucket(HashOf(entry)); *slot != nullptr; slot = &((*slot)->*Chain)) {
      if (*slot != entry) continue;
      *slot = entry->*Chain;
      entry->*Chain = nullptr;
      --x_->size;
      if (x_->size == 0) {
        Reset();
      } else if (Count() > KX_INDEX_SMALL_BUCKETS && x_->size < Count() / 2) {
        Resize(Count() / 2);
      }
      return;
    }
  }

  // The newest entry with this hash that `matches` accepts, or null.
  template <typename Match>
  T* Find(uint64_t hash, Match matches) const {
    for (T* e = *Bucket(hash); e != nullptr; e = e->*Chain) {
      if (matches(e)) return e;
    }
    return nullptr;
  }

 private:
  uint32_t Count() const {
    return x_->bucketCount != 0 ? x_->bucketCount : uint32_t{KX_INDEX_SMALL_BUCKETS};
  }
  T** Table() const {
    return reinterpret_cast<T**>(x_->buckets != nullptr ? x_->buckets : x_->small);
  }
  T** Bucket(uint64_t hash) const { return Table() + (hash & (Count() - 1)); }

  void Resize(uint32_t count) {
    T** fresh;
    if (count <= KX_INDEX_SMALL_BUCKETS) {
      count = KX_INDEX_SMALL_BUCKETS;
      if (x_->buckets == nullptr) return;
      fresh = nullptr;
    } else {
      fresh = static_cast<T**>(
          ksxmem_memalign(-8, static_cast<int32_t>(count * sizeof(T*)), "hidx"));
      if (fresh == nullptr) return;  // longer chains, still correct
    }
    T** old = Table();
    const uint32_t oldCount = Count();
    void** oldBlock = x_->buckets;
    void* oldSmall[KX_INDEX_SMALL_BUCKETS];
    if (oldBlock == nullptr) {
      std::memcpy(oldSmall, x_->small, sizeof oldSmall);
      old = reinterpret_cast<T**>(oldSmall);
    }
    std::memset(x_->small, 0, sizeof x_->small);
    x_->buckets = reinterpret_cast<void**>(fresh);
    x_->bucketCount = fresh != nullptr ? count : 0;
    // Entries of one key share an old chain; reversing it before pushing
    // each entry to the front of its new chain keeps their order.
    for (uint32_t i = 0; i < oldCount; ++i) {
      T* reversed = nullptr;
      for (T* e = old[i]; e != nullptr;) {
        T* next = e->*Chain;
        e->*Chain = reversed;
        reversed = e;
        e = next;
      }
      for (T* e = reversed; e != nullptr;) {
        T* next = e->*Chain;
        T** slot = Bucket(HashOf(e));
        e->*Chain = *slot;
        *slot = e;
        e = next;
      }
    }
    if (oldBlock != nullptr) ksxmem_free(oldBlock);
  }

  KxHashIndex* x_;
};

}  // namespace kestrix
#endif

#endif  // KESTRIX_UTILS_HASH_INDEX_H_
