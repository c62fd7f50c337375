// Memory for the engine's large tables (FAT, MiniFAT, mini stream, the
// directory bytes being loaded), which are filled right after they are
// allocated: it is never zero-filled first, and where the host offers them
// it comes in large pages, so that a table of megabytes costs a few page
// faults rather than one per 4 KiB. Memory that is zero-filled and then
// overwritten is paid for twice, and page faults are dear on virtual
// machines.
#ifndef GXSTORAGE_PORTING_GXDTABLE_H_
#define GXSTORAGE_PORTING_GXDTABLE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

// `bytes` bytes of uninitialised memory; throws std::bad_alloc like operator
// new. Freed by pdTableFree with the same size.
void* pdTableAllocate(size_t bytes);
void pdTableFree(void* table, size_t bytes);
// The size from which pdTableAllocate hands out large pages; 0 where the
// host gives none.
size_t pdTableLargeBytes();

// An allocator over pdTableAllocate whose elements are default-initialised:
// resize(n) on a vector of integers leaves the new elements unset, while
// resize(n, value) and assign(n, value) still fill them.
template <typename T>
class pdTableAllocator {
 public:
  using value_type = T;

  pdTableAllocator() noexcept = default;
  template <typename U>
  pdTableAllocator(const pdTableAllocator<U>&) noexcept {}

  T* allocate(size_t n) {
    if (n > std::numeric_limits<size_t>::max() / sizeof(T))
      throw std::bad_alloc();
    return static_cast<T*>(pdTableAllocate(n * sizeof(T)));
  }
  void deallocate(T* p, size_t n) noexcept { pdTableFree(p, n * sizeof(T)); }

  template <typename U>
  void construct(U* p) noexcept(
      std::is_nothrow_default_constructible<U>::value) {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

template <typename T, typename U>
bool operator==(const pdTableAllocator<T>&, const pdTableAllocator<U>&) {
  return true;
}
template <typename T, typename U>
bool operator!=(const pdTableAllocator<T>&, const pdTableAllocator<U>&) {
  return false;
}

// The engine's tables: 32-bit entries (FAT, MiniFAT) and bytes.
using pdTable = std::vector<uint32_t, pdTableAllocator<uint32_t>>;
using pdBytes = std::vector<uint8_t, pdTableAllocator<uint8_t>>;

// Makes room for `n` elements in a table that grows a step at a time (the
// FAT of a file being written, a stream's chain). Capacity doubles, and once
// it passes 64 KiB it goes straight to the size where large pages begin:
// every step below that would be a new copy in 4 KiB pages, each of them a
// page fault, and page faults are dear on virtual machines.
template <typename T>
void pdTableReserve(std::vector<T, pdTableAllocator<T>>& table, size_t n) {
  if (n <= table.capacity()) return;
  size_t want = std::max(n, 2 * table.capacity());
  const size_t large = pdTableLargeBytes() / sizeof(T);
  if (want >= (size_t{64} << 10) / sizeof(T) && want < large) want = large;
  table.reserve(want);
}

#endif  // GXSTORAGE_PORTING_GXDTABLE_H_
