// Construction, new-file defaults and the loading of an existing file.
//
// Loading trusts nothing in the file: every count is checked against what
// the file's length can hold before anything is allocated, every link is
// checked against the tables, and every chain walk is bounded. Anything
// beyond that counts as a corrupt file, reported as the failed state of the
// file stream.
#include "engine/gxdCompoundFile.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <unordered_set>

gxdCompoundFile::gxdCompoundFile(std::iostream* fileStreamIn,
                                 std::iostream* tempStreamIn,
                                 bool loadExistingIn)
    : loadExisting(loadExistingIn),
      fileStream(fileStreamIn),
      tempStream(tempStreamIn) {
  if (fileStream == nullptr) return;
  if (!loadExisting) {
    applyNewFileDefaults();
  } else {
    load();
  }
}

gxdCompoundFile::~gxdCompoundFile() = default;

void gxdCompoundFile::applyNewFileDefaults() {
  header = gxdFileHeader::newFileHeader();
  sectorSize = 512;
  entriesPerSector = 4;
  miniSectorSize = 64;
  rootEntry.name = u"Root Entry";
  rootEntry.dirIndex = 0xFFFFFFFFu;
  rootEntry.startSector = kEndOfChain;
  rootEntry.size = 0;
}

void gxdCompoundFile::markCorrupt() { fileStream->setstate(std::ios::failbit); }

bool gxdCompoundFile::readAt(uint64_t offset, void* data, size_t size) {
  if (!fileStream->good()) return false;
  fileStream->seekg(static_cast<std::streamoff>(offset));
  fileStream->read(static_cast<char*>(data),
                   static_cast<std::streamsize>(size));
  return fileStream->good();
}

bool gxdCompoundFile::isSectorInFile(uint32_t sector) const {
  return sector <= kMaxRegSect && sector < fileSectorCount_;
}

bool gxdCompoundFile::followChain(uint32_t start, uint64_t maxLength,
                                  std::vector<uint32_t>& out) const {
  out.clear();
  std::vector<bool> seen(fat.size(), false);
  uint32_t s = start;
  while (s != kEndOfChain && out.size() < maxLength) {
    if (s >= fat.size() || !isSectorInFile(s) || seen[s]) return false;
    seen[s] = true;
    out.push_back(s);
    s = fat[s];
  }
  return true;
}

void gxdCompoundFile::load() {
  uint8_t raw[kHeaderSize];
  fileStream->read(reinterpret_cast<char*>(raw), kHeaderSize);
  if (fileStream->gcount() != static_cast<std::streamsize>(kHeaderSize)) {
    fileStream->setstate(std::ios::failbit);
    return;
  }
  header.load(raw, kHeaderSize);
  if (!header.isAcceptable()) {
    markCorrupt();
    return;
  }
  if (!fileStream->good()) return;

  // Only the two sector sizes of the format, and a mini sector that fits in
  // a sector, give a file that any reader can use.
  if ((header.sectorShift != 9 && header.sectorShift != 12) ||
      header.miniSectorShift > header.sectorShift) {
    markCorrupt();
    return;
  }
  sectorSize = static_cast<uint16_t>(1u << header.sectorShift);
  miniSectorSize = static_cast<uint16_t>(1u << header.miniSectorShift);
  entriesPerSector = sectorSize / kDirRecordSize;

  fileStream->seekg(0, std::ios::end);
  std::streamoff end = fileStream->tellg();
  if (!fileStream->good() || end < 0) {
    markCorrupt();
    return;
  }
  fileLength_ = static_cast<uint64_t>(end);
  fileSectorCount_ =
      fileLength_ <= sectorSize
          ? 0
          : (fileLength_ - sectorSize + sectorSize - 1) / sectorSize;

  if (!loadFat()) return;
  if (!loadMiniFat()) return;
  if (!loadDirectoryChain()) return;
  loadDirectoryEntry(nullptr, 0);
  directoryData_.clear();
  directoryData_.shrink_to_fit();
  if (!fileStream->good()) return;
  loadMiniStream();
}

bool gxdCompoundFile::readChain(const std::vector<uint32_t>& chain,
                                uint8_t* data, uint64_t length) {
  size_t i = 0;
  while (i < chain.size()) {
    size_t run = 1;
    while (i + run < chain.size() && chain[i + run] == chain[i] + run) ++run;
    const uint64_t from = static_cast<uint64_t>(i) * sectorSize;
    if (from >= length) break;
    const uint64_t n = std::min<uint64_t>(
        static_cast<uint64_t>(run) * sectorSize, length - from);
    if (!readAt(sectorOffset(chain[i], header.sectorShift), data + from,
                static_cast<size_t>(n)))
      return false;
    i += run;
  }
  return true;
}

// Turns a table read as little-endian bytes into its entries, in place.
static void decodeEntries(uint32_t* table, size_t count) {
  uint8_t* bytes = reinterpret_cast<uint8_t*>(table);
  for (size_t i = 0; i < count; ++i) table[i] = loadU32(bytes + 4 * i);
}

// The FAT: its sectors listed in DIFAT order, first the header's 109 slots,
// then the DIFAT sectors, are gathered and checked first, then read straight
// into the table, one read per run of consecutive sectors. A file cannot
// hold more FAT or DIFAT sectors than it has sectors, which bounds the table
// by the file's length.
bool gxdCompoundFile::loadFat() {
  const uint32_t perSector = sectorSize / 4;
  const uint32_t idsPerDifat = perSector - 1;
  if (header.numFatSectors > fileSectorCount_ ||
      header.numDifatSectors > fileSectorCount_) {
    markCorrupt();
    return false;
  }
  const uint64_t capacity =
      static_cast<uint64_t>(header.numFatSectors) +
      static_cast<uint64_t>(header.numDifatSectors) * idsPerDifat;
  // A FAT or DIFAT sector listed twice (a DIFAT loop among them) would read
  // the same sector again and again up to the counts: the file is corrupt.
  std::unordered_set<uint32_t> listed;
  std::vector<uint32_t> fatSectors;
  fatSectors.reserve(header.numFatSectors);
  auto take = [&](uint32_t id) -> bool {
    if (fatSectors.size() >= capacity ||
        fatSectors.size() >= fileSectorCount_ || !isSectorInFile(id) ||
        !listed.insert(id).second) {
      markCorrupt();
      return false;
    }
    fatSectors.push_back(id);
    return true;
  };

  for (size_t i = 0; i < kHeaderDifatSlots; ++i) {
    if (header.difat[i] == kFreeSect) break;
    if (!take(header.difat[i])) return false;
  }
  if (header.numDifatSectors != 0) {
    std::vector<uint8_t> difat(sectorSize);
    uint32_t d = header.firstDifatSector;
    for (uint32_t n = 0; n < header.numDifatSectors; ++n) {
      if (d == kEndOfChain) break;
      if (!isSectorInFile(d) || !listed.insert(d).second) {
        markCorrupt();
        return false;
      }
      if (!readAt(sectorOffset(d, header.sectorShift), difat.data(),
                  sectorSize))
        return false;
      for (uint32_t k = 0; k < idsPerDifat; ++k) {
        uint32_t id = loadU32(difat.data() + 4 * k);
        if (id == kFreeSect) break;
        if (!take(id)) return false;
      }
      d = loadU32(difat.data() + 4 * idsPerDifat);
    }
  }
  fat.resize(fatSectors.size() * static_cast<size_t>(perSector));
  if (!readChain(fatSectors, reinterpret_cast<uint8_t*>(fat.data()),
                 uint64_t{fat.size()} * 4))
    return false;
  decodeEntries(fat.data(), fat.size());
  return fileStream->good();
}

bool gxdCompoundFile::loadMiniFat() {
  if (header.firstMiniFatSector == kEndOfChain) return true;
  if (header.numMiniFatSectors > fileSectorCount_) {
    markCorrupt();
    return false;
  }
  std::vector<uint32_t> chain;
  if (!followChain(header.firstMiniFatSector, header.numMiniFatSectors,
                   chain) ||
      chain.size() != header.numMiniFatSectors) {
    markCorrupt();
    return false;
  }
  miniFat.resize(chain.size() * static_cast<size_t>(sectorSize / 4));
  if (!readChain(chain, reinterpret_cast<uint8_t*>(miniFat.data()),
                 uint64_t{miniFat.size()} * 4))
    return false;
  decodeEntries(miniFat.data(), miniFat.size());
  return fileStream->good();
}

// Reads the whole directory chain once; entries are then decoded from memory.
bool gxdCompoundFile::loadDirectoryChain() {
  std::vector<uint32_t> chain;
  if (header.firstDirectorySector == kEndOfChain ||
      !followChain(header.firstDirectorySector, UINT64_MAX, chain) ||
      chain.empty()) {
    markCorrupt();
    return false;
  }
  loadedDirectorySectors_ = chain.size();
  directoryData_.resize(chain.size() * static_cast<size_t>(sectorSize));
  return readChain(chain, directoryData_.data(), directoryData_.size());
}

// The mini stream is the root entry's data, held whole in memory and read
// straight into place. Its declared length must fit in the file, and its
// chain must cover it.
bool gxdCompoundFile::loadMiniStream() {
  if (header.firstMiniFatSector == kEndOfChain || rootEntry.size == 0)
    return true;
  const uint32_t length = rootEntry.sizeLow();
  if (length == 0) return true;
  const uint64_t sectors =
      (static_cast<uint64_t>(length) + sectorSize - 1) / sectorSize;
  std::vector<uint32_t> chain;
  if (sectors > fileSectorCount_ ||
      !followChain(rootEntry.startSector, sectors, chain) ||
      chain.size() != sectors) {
    markCorrupt();
    return false;
  }
  miniStream.resize(length);
  return readChain(chain, miniStream.data(), length);
}
