// The directory tree: loading it from the file's directory records, and the
// lookups through which storages and streams find or add their entries.
#include <utility>

#include "engine/gxdCompoundFile.h"

namespace {

// One entry met by the walk, kept until the tree is assembled.
struct WalkNode {
  uint32_t parent;  // index into the walk's nodes; 0 is the starting parent
  uint32_t depth;   // storage nesting below the starting parent
  bool isStorage;
  gxdDirEntry entry;
  std::vector<uint32_t> children;  // nodes taken into this storage, in order
};

}  // namespace

int32_t gxdCompoundFile::loadDirectoryEntry(gxdStorageEntry* parentEntry,
                                            uint32_t entryNumber) {
  if (entryNumber == kNoStream) return 0;
  // One flag per record of the loaded chain; a number beyond it is never
  // marked, and reading its record fails below.
  loadedEntries.resize(directoryData_.size() / kDirRecordSize, false);
  auto seen = [this](uint32_t n) {
    return n < loadedEntries.size() && loadedEntries[n];
  };
  auto mark = [this](uint32_t n) {
    if (n < loadedEntries.size()) loadedEntries[n] = true;
  };
  if (seen(entryNumber)) return 1;

  auto readRecord = [this](uint32_t n, gxdDirRecord& record) -> bool {
    uint64_t offset = static_cast<uint64_t>(n) * kDirRecordSize;
    if (offset + kDirRecordSize > directoryData_.size()) {
      // An entry number beyond the directory chain: the file is corrupt.
      markCorrupt();
      return false;
    }
    return record.load(directoryData_.data() + offset, kDirRecordSize);
  };

  uint32_t start = entryNumber;
  if (parentEntry == nullptr) {
    mark(entryNumber);
    gxdDirRecord record;
    if (!readRecord(entryNumber, record)) return 1;
    if (record.objectType == kObjUnused) return 2;
    if (!rootEntry.name.empty() || record.objectType != kObjRoot) return -1;
    rootEntry.name = record.name();
    rootEntry.dirIndex = 0xFFFFFFFFu;
    rootEntry.startSector = record.startSector;
    rootEntry.size = record.streamSize;
    parentEntry = &rootEntry;
    start = record.child;
    if (start == kNoStream) return 0;
    if (seen(start)) return 1;
  }

  // Pre-order walk with an explicit stack, in the order a recursive walk
  // takes: an entry, then a storage's own children, then the entries behind
  // the left link, then those behind the right link.
  std::vector<WalkNode> nodes(1);
  nodes[0].parent = 0;
  nodes[0].depth = 0;
  nodes[0].isStorage = true;
  std::vector<std::pair<uint32_t, uint32_t>> stack;  // (parent node, entry)
  stack.emplace_back(0, start);
  int32_t result = -2;
  bool corrupt = false;
  while (!stack.empty() && !corrupt) {
    auto [parent, n] = stack.back();
    stack.pop_back();
    int32_t code = 1;
    if (n == kNoStream) {
      code = 0;
    } else if (!seen(n)) {
      mark(n);
      gxdDirRecord record;
      if (!readRecord(n, record)) {
        corrupt = true;
        break;
      }
      if (record.objectType == kObjUnused) {
        code = 2;
      } else {
        stack.emplace_back(parent, record.rightSibling);
        stack.emplace_back(parent, record.leftSibling);
        if (record.objectType == kObjStorage ||
            record.objectType == kObjStream) {
          WalkNode node;
          node.parent = parent;
          node.isStorage = record.objectType == kObjStorage;
          node.depth = nodes[parent].depth + (node.isStorage ? 1 : 0);
          node.entry.name = record.name();
          node.entry.dirIndex = 0xFFFFFFFFu;
          node.entry.startSector = record.startSector;
          node.entry.size = record.streamSize;
          if (node.depth > kMaxDirectoryDepth) {
            markCorrupt();
            corrupt = true;
            break;
          }
          uint32_t index = static_cast<uint32_t>(nodes.size());
          nodes[parent].children.push_back(index);
          nodes.push_back(std::move(node));
          if (record.objectType == kObjStorage)
            stack.emplace_back(index, record.child);
        }
      }
    }
    if (result == -2) result = code;
  }

  // Assemble the tree bottom-up: every node was met after its parent, so in
  // reverse order each storage's children are complete when it is reached.
  std::vector<gxdStorageEntry> built(nodes.size());
  for (size_t i = nodes.size(); i-- > 0;) {
    gxdStorageEntry& target = i == 0 ? *parentEntry : built[i];
    if (i != 0 && !nodes[i].isStorage) continue;
    if (i != 0) static_cast<gxdDirEntry&>(target) = std::move(nodes[i].entry);
    uint32_t storages = 0;
    for (uint32_t c : nodes[i].children) storages += nodes[c].isStorage;
    target.storages.reserve(target.storages.size() + storages);
    target.streams.reserve(target.streams.size() + nodes[i].children.size() -
                           storages);
    for (uint32_t c : nodes[i].children) {
      if (nodes[c].isStorage) {
        target.storages.push_back(std::move(built[c]));
      } else {
        target.streams.push_back(std::move(nodes[c].entry));
      }
    }
  }
  return result == -2 ? 1 : result;
}

bool gxdCompoundFile::findOrAddStorage(gxdStorageEntry* parentEntry,
                                       gxdStorageEntry& entry,
                                       bool createIfMissing) {
  if (parentEntry == nullptr) parentEntry = &rootEntry;
  const size_t count = parentEntry->storages.size();
  for (size_t i = 0; i < count; ++i) {
    const gxdStorageEntry& found = parentEntry->storages[i];
    if (found.name != entry.name) continue;
    entry.name = found.name;
    entry.streams.insert(entry.streams.end(), found.streams.begin(),
                         found.streams.end());
    entry.storages.insert(entry.storages.end(), found.storages.begin(),
                          found.storages.end());
    return true;
  }
  if (createIfMissing) parentEntry->storages.push_back(entry);
  return false;
}

bool gxdCompoundFile::findOrAddStream(gxdStorageEntry* parentEntry,
                                      gxdDirEntry& entry,
                                      bool createIfMissing) {
  if (parentEntry == nullptr) parentEntry = &rootEntry;
  const size_t count = parentEntry->streams.size();
  for (size_t i = 0; i < count; ++i) {
    if (parentEntry->streams[i].name != entry.name) continue;
    entry = parentEntry->streams[i];
    return true;
  }
  if (createIfMissing) parentEntry->streams.push_back(entry);
  return false;
}
