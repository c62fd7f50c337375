// The one-time save of a created file: the change records are replayed into
// directory records and placed stream data, then the directory, MiniFAT,
// mini stream, FAT, DIFAT sectors and finally the header are written over
// the placeholders reserved for them.
//
// Failures of the output or of the temporary file are not reported through
// commit (it returns nothing). They leave the output stream in its failed
// state, which is how the engine tells of trouble; the save itself always
// ends, since every loop runs over in-memory tables, and it never writes
// beyond the positions it has allocated.
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

void fillRecord(uint8_t* record, const std::u16string& name,
                uint8_t objectType, uint8_t colour) {
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
  // The mini stream grows sector by sector while the records are replayed;
  // the small streams written bound its final size, so it is allocated once
  // instead of being copied at every doubling.
  uint64_t miniBytes = 0;
  for (const gxdChangeRecord& change : pendingChanges) {
    if (change.kind != gxdChangeRecord::kStreamWritten) continue;
    const gxdDirEntry& e = *static_cast<const gxdDirEntry*>(change.first);
    if (e.sizeHigh() == 0 && e.sizeLow() < header.miniStreamCutoff)
      miniBytes += (uint64_t{e.sizeLow()} + miniSectorSize - 1) /
                   miniSectorSize * miniSectorSize;
  }
  if (miniBytes > 0) miniStream.reserve(miniBytes + sectorSize);
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
                          *static_cast<const std::vector<uint32_t>*>(
                              change.second));
        break;
      default:
        break;
    }
  }
  // Without the root's record nothing was laid out: there is no file to
  // write.
  if (outputStarted == 0) return;

  const uint32_t e = sectorSize / 4;
  std::vector<uint8_t> sector(sectorSize);

  // Directory, MiniFAT and mini stream chains.
  writeChain(directorySectors, directoryBuffer.data(),
             &header.firstDirectorySector);
  if (!miniFatSectors.empty()) {
    std::vector<uint8_t> bytes(miniFat.size() * 4);
    for (size_t i = 0; i < miniFat.size(); ++i)
      storeU32(bytes.data() + 4 * i, miniFat[i]);
    writeChain(miniFatSectors, bytes.data(), &header.firstMiniFatSector);
  }
  if (!miniStreamSectors.empty())
    writeChain(miniStreamSectors, miniStream.data(), nullptr);

  auto writeFatSector = [&](uint64_t index, uint32_t at) {
    for (uint32_t k = 0; k < e; ++k) {
      uint64_t entry = index * e + k;
      storeU32(sector.data() + 4 * k,
               entry < fat.size() ? fat[entry] : kFreeSect);
    }
    writeOutput(sectorOffset(at, header.sectorShift), sector.data(),
                sectorSize);
  };

  // FAT sectors listed in the header.
  for (uint32_t j = 0; j < kHeaderDifatSlots; ++j) {
    if (header.difat[j] == kFreeSect) break;
    writeFatSector(j, header.difat[j]);
  }
  // FAT sectors listed in DIFAT sectors, and the DIFAT sectors themselves.
  if (header.difat[kHeaderDifatSlots - 1] != kFreeSect &&
      header.numDifatSectors > 0) {
    for (size_t k = 1; k < difatSectors.size(); ++k)
      difatBuffer[(k - 1) * e + e - 1] = difatSectors[k];
    for (size_t k = 0; k < difatSectors.size(); ++k) {
      for (uint32_t j = 0; j + 1 < e; ++j) {
        uint32_t at = difatBuffer[k * e + j];
        if (at == kFreeSect) break;
        writeFatSector(kHeaderDifatSlots + k * (e - 1) + j, at);
      }
      for (uint32_t j = 0; j < e; ++j)
        storeU32(sector.data() + 4 * j, difatBuffer[k * e + j]);
      writeOutput(sectorOffset(difatSectors[k], header.sectorShift),
                  sector.data(), sectorSize);
    }
  }

  // The header last: until now offset 0 holds zero bytes.
  uint8_t raw[kHeaderSize];
  header.store(raw);
  writeOutput(static_cast<uint64_t>(headerPosition) * sectorSize, raw,
              kHeaderSize);
  fileStream->flush();
}

// Writes one sector of `data` per sector of `sectors`, chaining them in the
// FAT, and stores the first sector in `*firstField` when given.
void gxdCompoundFile::writeChain(const std::vector<uint32_t>& sectors,
                                 const uint8_t* data, uint32_t* firstField) {
  for (size_t i = 0; i < sectors.size(); ++i) {
    writeOutput(sectorOffset(sectors[i], header.sectorShift),
                data + i * sectorSize, sectorSize);
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
