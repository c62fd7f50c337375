// The one-time save of a created file: the change records are replayed into
// directory records and placed stream data, the chains of the directory,
// MiniFAT and mini stream are linked, and once every table is final the
// file is written front to back, each byte once, the header last.
//
// Failures of the output or of the temporary file are not reported through
// commit (it returns nothing). They leave the output stream in its failed
// state, which is how the engine tells of trouble; the save itself always
// ends, since every loop runs over in-memory tables, and it never writes
// beyond the positions it has allocated.
#include <cstring>
#include <ostream>

#include "engine/gxdCompoundFile.h"
#include "porting/gxdPorting.h"

namespace {

// Reads the name of a directory record in place: its units before the first
// zero, at most 32.
size_t recordName(const uint8_t* record, char16_t (&units)[kNameFieldUnits]) {
  size_t n = 0;
  while (n < kNameFieldUnits) {
    units[n] = static_cast<char16_t>(loadU16(record + 2 * n));
    if (units[n] == 0) break;
    ++n;
  }
  return n;
}

void fillRecord(uint8_t* record, const std::u16string& name, uint8_t objectType,
                uint8_t colour) {
  gxdDirRecord r;
  r.setName(name);
  r.objectType = objectType;
  r.colour = colour;
  r.leftSibling = kNoStream;
  r.rightSibling = kNoStream;
  r.child = kNoStream;
  r.startSector = kEndOfChain;
  r.store(record);
}

}  // namespace

void gxdCompoundFile::save() {
  if (outputStarted == 1 || fileStream == nullptr) return;
  // The tables grow sector by sector while the records are replayed; what
  // was created and written bounds their final sizes, so each is allocated
  // once instead of being copied at every doubling.
  uint64_t miniBytes = 0, largeSectors = 0, records = 1;
  for (const gxdChangeRecord& change : pendingChanges) {
    if (change.kind != gxdChangeRecord::kStreamWritten) {
      ++records;
      continue;
    }
    const gxdDirEntry& e = *static_cast<const gxdDirEntry*>(change.first);
    if (e.sizeHigh() == 0 && e.sizeLow() < header.miniStreamCutoff) {
      miniBytes += (uint64_t{e.sizeLow()} + miniSectorSize - 1) /
                   miniSectorSize * miniSectorSize;
    } else {
      largeSectors += static_cast<const pdTable*>(change.second)->size();
    }
  }
  const uint64_t perSector = sectorSize / 4;
  const uint64_t miniEstimate = miniBytes / sectorSize + 1;
  const uint64_t miniFatEstimate = miniBytes / miniSectorSize / perSector + 1;
  const uint64_t directoryEstimate = records / entriesPerSector + 1;
  const uint64_t sectorEstimate =
      1 + directoryEstimate + miniFatEstimate + miniEstimate + largeSectors;
  // Each FAT sector covers perSector sectors, itself among them.
  const uint64_t fatEstimate = sectorEstimate / (perSector - 1) + 2;
  fat.reserve(static_cast<size_t>(fatEstimate * perSector));
  miniFat.reserve(static_cast<size_t>(miniFatEstimate * perSector));
  directoryBuffer.reserve(static_cast<size_t>(directoryEstimate * sectorSize));
  if (miniBytes > 0)
    miniStream.reserve(static_cast<size_t>(miniEstimate * sectorSize));
  for (const gxdChangeRecord& change : pendingChanges) {
    switch (change.kind) {
      case gxdChangeRecord::kStorageCreated:
        addStorageEntry(static_cast<gxdStorageEntry*>(change.first),
                        *static_cast<gxdStorageEntry*>(change.second),
                        change.isRoot);
        break;
      case gxdChangeRecord::kStreamCreated:
        addStreamEntry(static_cast<gxdStorageEntry*>(change.first),
                       *static_cast<gxdDirEntry*>(change.second));
        break;
      case gxdChangeRecord::kStreamWritten:
        if (outputStarted == 1)
          writeStreamData(*static_cast<gxdDirEntry*>(change.first),
                          *static_cast<const pdTable*>(change.second));
        break;
      default:
        break;
    }
  }
  // Without the root's record nothing was laid out: there is no file to
  // write.
  if (outputStarted == 0) return;

  // Directory, MiniFAT and mini stream chains. Linking them may still add
  // FAT and DIFAT sectors at the end.
  linkChain(directorySectors, &header.firstDirectorySector);
  if (!miniFatSectors.empty())
    linkChain(miniFatSectors, &header.firstMiniFatSector);
  if (!miniStreamSectors.empty()) linkChain(miniStreamSectors, nullptr);

  // Each DIFAT sector's last slot names the next one.
  const uint32_t e = sectorSize / 4;
  for (size_t k = 1; k < difatSectors.size(); ++k)
    difatBuffer[(k - 1) * e + e - 1] = difatSectors[k];

  // Small streams took mini sectors from 0 on without gaps, each filled as
  // it was taken; only the end of the mini stream's last sector that no
  // stream took is still to be cleared.
  const size_t usedMini =
      lastMiniSector == 0xFFFFFFFFu
          ? 0
          : (static_cast<size_t>(lastMiniSector) + 1) * miniSectorSize;
  if (usedMini < miniStream.size())
    std::memset(miniStream.data() + usedMini, 0, miniStream.size() - usedMini);

  writeLayout();

  // The header last: until now offset 0 holds no bytes of it.
  uint8_t raw[kHeaderSize];
  header.store(raw);
  writeOutput(static_cast<uint64_t>(headerPosition) * sectorSize, raw,
              kHeaderSize);
  fileStream->flush();
}

void gxdCompoundFile::linkChain(const std::vector<uint32_t>& sectors,
                                uint32_t* firstField) {
  for (size_t i = 0; i < sectors.size(); ++i) {
    if (i == 0) {
      if (firstField != nullptr) *firstField = sectors[0];
    } else {
      ensureFatEntry(sectors[i - 1]);
      fat[sectors[i - 1]] = sectors[i];
    }
  }
  if (!sectors.empty()) {
    ensureFatEntry(sectors.back());
    fat[sectors.back()] = kEndOfChain;
  }
}

void gxdCompoundFile::tableSector(SectorKind kind, uint64_t ordinal,
                                  uint8_t* out) const {
  const size_t e = sectorSize / 4;
  const size_t from = static_cast<size_t>(ordinal) * e;
  switch (kind) {
    case kFatSector:
      for (size_t k = 0; k < e; ++k)
        storeU32(out + 4 * k,
                 from + k < fat.size() ? fat[from + k] : kFreeSect);
      break;
    case kDifatSector:
      for (size_t k = 0; k < e; ++k)
        storeU32(out + 4 * k, difatBuffer[from + k]);
      break;
    case kMiniFatSector:
      for (size_t k = 0; k < e; ++k) storeU32(out + 4 * k, miniFat[from + k]);
      break;
    case kDirectorySector:
      std::memcpy(out, directoryBuffer.data() + ordinal * sectorSize,
                  sectorSize);
      break;
    case kMiniStreamSector:
      std::memcpy(out, miniStream.data() + ordinal * sectorSize, sectorSize);
      break;
    case kDataSector:
      break;
  }
}

void gxdCompoundFile::writeLayout() {
  // Table sectors gather into writes of up to this many sectors.
  constexpr size_t kGatherSectors = 512;
  pdBytes gather;
  gather.reserve(kGatherSectors * sectorSize);
  uint32_t gatherFirst = 0;  // sector id of gather[0]
  auto writeGathered = [&] {
    if (gather.empty()) return;
    writeOutput(sectorOffset(gatherFirst, header.sectorShift), gather.data(),
                gather.size());
    gather.clear();
  };
  for (const Extent& x : layout_) {
    if (!fileStream->good()) return;
    if (x.kind == kDataSector) {
      writeGathered();
      copyFromTemp(x.source, sectorOffset(x.first, header.sectorShift),
                   uint64_t{x.count} * sectorSize);
      continue;
    }
    for (uint32_t i = 0; i < x.count; ++i) {
      if (gather.empty()) gatherFirst = x.first + i;
      const size_t at = gather.size();
      gather.resize(at + sectorSize);
      tableSector(x.kind, x.source + i, gather.data() + at);
      if (gather.size() >= kGatherSectors * sectorSize) writeGathered();
    }
  }
  writeGathered();
}

void gxdCompoundFile::addStorageEntry(gxdStorageEntry* parent,
                                      gxdStorageEntry& storage, bool isRoot) {
  // A storage below a parent that has no record of its own cannot be linked
  // into the tree; it is left out of the file.
  if (!isRoot && parent != nullptr && parent->dirIndex == 0xFFFFFFFFu) return;
  if (outputStarted == 0) startOutput();
  const uint32_t n = nextDirectoryIndex;
  uint8_t* record = directoryRecord(n);
  if (record == nullptr) return;
  fillRecord(record, storage.name, isRoot ? kObjRoot : kObjStorage,
             isRoot ? 0 : 1);
  storage.dirIndex = n;
  ++nextDirectoryIndex;
  ensureDirectorySlot();
  if (!isRoot && parent != nullptr) linkChild(parent->dirIndex, n);
}

void gxdCompoundFile::addStreamEntry(gxdStorageEntry* parent,
                                     gxdDirEntry& stream) {
  if (parent != nullptr && parent->dirIndex == 0xFFFFFFFFu) return;
  if (outputStarted == 0) startOutput();
  const uint32_t n = nextDirectoryIndex;
  uint8_t* record = directoryRecord(n);
  if (record == nullptr) return;
  fillRecord(record, stream.name, kObjStream, 1);
  storeU32(record + gxdDirField::kStartSector, 0);
  storeU64(record + gxdDirField::kStreamSize, stream.size);
  stream.dirIndex = n;
  ++nextDirectoryIndex;
  ensureDirectorySlot();
  if (parent != nullptr) linkChild(parent->dirIndex, n);
}

// Inserts record `childIndex` into the children tree of record `parentIndex`:
// a plain search tree ordered by name length, then case-insensitively; never
// rebalanced. The new name is decoded once; each node's name is read in place.
void gxdCompoundFile::linkChild(uint32_t parentIndex, uint32_t childIndex) {
  uint8_t* parent = directoryRecord(parentIndex);
  uint8_t* child = directoryRecord(childIndex);
  if (parent == nullptr || child == nullptr) return;
  uint32_t cur = loadU32(parent + gxdDirField::kChild);
  if (cur == kNoStream) {
    storeU32(parent + gxdDirField::kChild, childIndex);
    return;
  }
  char16_t newName[kNameFieldUnits];
  const size_t newLength = recordName(child, newName);
  char16_t curName[kNameFieldUnits];
  // The tree is built here and has no cycles; the bound only guards against
  // a record that was never meant to be a node.
  for (uint32_t steps = 0; steps <= nextDirectoryIndex; ++steps) {
    uint8_t* node = directoryRecord(cur);
    if (node == nullptr) return;
    const size_t curLength = recordName(node, curName);
    const bool before =
        newLength < curLength ||
        (newLength == curLength &&
         pdCompareNoCase(newName, newLength, curName, curLength) < 0);
    const size_t link =
        before ? gxdDirField::kLeftSibling : gxdDirField::kRightSibling;
    const uint32_t next = loadU32(node + link);
    if (next == kNoStream) {
      storeU32(node + link, childIndex);
      return;
    }
    cur = next;
  }
}
