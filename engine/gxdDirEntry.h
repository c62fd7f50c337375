// In-memory directory entries of an open compound file, and the change
// records through which the portable objects tell the save what was created
// and written.
#ifndef GXSTORAGE_ENGINE_GXDDIRENTRY_H_
#define GXSTORAGE_ENGINE_GXDDIRENTRY_H_

#include <cstdint>
#include <string>
#include <vector>

#include "engine/gxdFormat.h"

// The entry of a stream, and the leading part of every storage entry.
struct gxdDirEntry {
  std::u16string name;
  uint32_t dirIndex = 0xFFFFFFFFu;     // record number given by the save
  uint32_t startSector = kEndOfChain;  // sector or mini sector of the data
  uint64_t size = 0;

  uint32_t sizeLow() const { return static_cast<uint32_t>(size); }
  uint32_t sizeHigh() const { return static_cast<uint32_t>(size >> 32); }
  void setSizeLow(uint32_t low) { size = (size & 0xFFFFFFFF00000000ull) | low; }
};

// The entry of a storage or of the root. Copies are deep: a copy carries its
// own copy of the whole subtree.
struct gxdStorageEntry : gxdDirEntry {
  std::vector<gxdStorageEntry> storages;
  std::vector<gxdDirEntry> streams;
};

// One pending change of a file being created, replayed in order by the save.
// The record owns nothing; what it points to belongs to the portable objects
// (or the engine's root entry) and lives at least until the save.
struct gxdChangeRecord {
  enum : uint8_t {
    kStorageCreated = 1,  // first: parent entry (null for the root);
                          // second: the storage's own gxdStorageEntry
    kStreamCreated = 2,   // first: parent entry; second: the gxdDirEntry
    kStreamWritten = 3,   // first: the stream's gxdDirEntry;
                          // second: its pdTable of blocks
  };
  uint8_t kind = 0;
  void* first = nullptr;
  void* second = nullptr;
  bool isRoot = false;
};

#endif  // GXSTORAGE_ENGINE_GXDDIRENTRY_H_
