// Append-only sector allocation for the save of a created file. Sectors are
// numbered at the end of the output in the order they are needed and never
// freed or moved; tables grow by one sector's worth at a time (amortised by
// the vectors that hold them). Allocation writes nothing: each sector's
// source is recorded in the layout, which the save writes out once the
// tables are final.
#include <istream>
#include <ostream>

#include "engine/gxdCompoundFile.h"

// Output failures are not reported by the allocation: a seek or write that
// fails leaves the output stream failed, later writes do nothing, and every
// loop of the save is bounded by in-memory tables, so the save still ends.
void gxdCompoundFile::writeOutput(uint64_t offset, const void* data,
                                  size_t size) {
  if (outputAt_ != offset) {
    fileStream->seekp(static_cast<std::streamoff>(offset));
  }
  fileStream->write(static_cast<const char*>(data),
                    static_cast<std::streamsize>(size));
  outputAt_ = fileStream->good() ? offset + size : UINT64_MAX;
}

uint32_t gxdCompoundFile::appendSector(SectorKind kind, uint64_t source) {
  const uint32_t id = sectorCount - 1;
  Extent* last = layout_.empty() ? nullptr : &layout_.back();
  const uint64_t step = kind == kDataSector ? kTempBlockSize : 1;
  if (last != nullptr && last->kind == kind &&
      uint64_t{last->first} + last->count == id &&
      last->source + step * last->count == source) {
    ++last->count;
  } else {
    layout_.push_back(Extent{id, 1, kind, source});
  }
  ++sectorCount;
  return id;
}

void gxdCompoundFile::startOutput() {
  if (fileStream == nullptr || outputStarted == 1) return;
  // Position 0 is the header's, written last by the save.
  headerPosition = 0;
  sectorCount = 1;
  ensureFatEntry(0);
  ensureDirectorySlot();
  outputStarted = 1;
}

void gxdCompoundFile::ensureFatEntry(uint32_t sector) {
  const uint32_t e = sectorSize / 4;
  while (static_cast<uint64_t>(sector) + 1 >
         static_cast<uint64_t>(e) * fatSectorCount) {
    ++fatSectorCount;
    header.numFatSectors = fatSectorCount;
    const uint32_t k = fatSectorCount - 1;
    uint32_t f;
    if (k < kHeaderDifatSlots) {
      f = appendSector(kFatSector, k);
      header.difat[k] = f;
    } else if (!difatSectors.empty() && difatSlot < e - 1) {
      f = appendSector(kFatSector, k);
      difatBuffer[currentDifatSector + difatSlot] = f;
      ++difatSlot;
    } else {
      // A new DIFAT sector comes directly before the FAT sector it lists.
      uint32_t d = appendSector(kDifatSector, difatSectors.size());
      difatSectors.push_back(d);
      header.numDifatSectors = static_cast<uint32_t>(difatSectors.size());
      if (difatSectors.size() == 1) header.firstDifatSector = d;
      currentDifatSector = difatBuffer.size();
      difatBuffer.resize(difatBuffer.size() + e, kFreeSect);
      difatBuffer[currentDifatSector + e - 1] = kEndOfChain;
      f = appendSector(kFatSector, k);
      difatBuffer[currentDifatSector] = f;
      difatSlot = 1;
    }
    fat.resize(fat.size() + e, kFreeSect);
    if (static_cast<uint64_t>(f) + 1 >
        static_cast<uint64_t>(e) * fatSectorCount)
      ensureFatEntry(f);
    fat[f] = kFatSect;
  }
}

void gxdCompoundFile::ensureDirectorySlot() {
  if (!directorySectors.empty() &&
      nextDirectoryIndex < entriesPerSector * directorySectors.size())
    return;
  uint32_t d = appendSector(kDirectorySector, directorySectors.size());
  directorySectors.push_back(d);
  directoryBuffer.resize(
      directoryBuffer.size() + entriesPerSector * kDirRecordSize, 0);
  nextDirectoryIndex =
      entriesPerSector * static_cast<uint32_t>(directorySectors.size() - 1);
}

void gxdCompoundFile::ensureMiniFatEntry(uint32_t miniSector) {
  const uint32_t e = sectorSize / 4;
  if (!miniFatSectors.empty() &&
      miniSector < static_cast<uint64_t>(e) * miniFatSectors.size())
    return;
  uint32_t t = appendSector(kMiniFatSector, miniFatSectors.size());
  miniFatSectors.push_back(t);
  if (header.firstMiniFatSector == kEndOfChain) header.firstMiniFatSector = t;
  miniFat.resize(miniFat.size() + e, kFreeSect);
  ++header.numMiniFatSectors;
}

void gxdCompoundFile::growMiniStream() {
  ++miniStreamSectorCount;
  uint32_t g = appendSector(kMiniStreamSector, miniStreamSectors.size());
  miniStreamSectors.push_back(g);
  uint8_t* root = directoryRecord(0);
  if (root != nullptr) {
    if (loadU32(root + gxdDirField::kStartSector) == kEndOfChain)
      storeU32(root + gxdDirField::kStartSector, g);
    storeU32(root + gxdDirField::kStreamSize,
             loadU32(root + gxdDirField::kStreamSize) + sectorSize);
  }
  // Left unset: every mini sector is filled when a small stream takes it,
  // and the save clears what no stream took (see save()).
  miniStream.resize(static_cast<size_t>(sectorSize) * miniStreamSectorCount);
}

uint8_t* gxdCompoundFile::directoryRecord(uint32_t index) {
  uint64_t offset = static_cast<uint64_t>(index) * kDirRecordSize;
  if (offset + kDirRecordSize > directoryBuffer.size()) return nullptr;
  return directoryBuffer.data() + offset;
}
