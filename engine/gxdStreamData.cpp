// Stream data of a created file: 512-byte blocks appended to the temporary
// file while the application writes, then placed by the save into the mini
// stream or into a chain of appended sectors.
#include <algorithm>
#include <cstring>
#include <istream>
#include <ostream>

#include "engine/gxdCompoundFile.h"
#include "porting/gxdFileBuf.h"

namespace {
// The temporary file's offsets stay below 2 GiB.
constexpr uint32_t kMaxTempBlocks = 0x80000000u / kTempBlockSize;
// Stream data that cannot be copied between files moves through memory in
// batches of this many sectors.
constexpr uint32_t kBatchSectors = 128;
// Appends of fewer blocks than this go through the temporary file's buffer.
constexpr uint32_t kBufferedBlocks = 16;
// Read-ahead windows over the temporary file, for reads up to half this.
constexpr size_t kTempWindowSize = 64 * 1024;
}  // namespace

uint32_t gxdCompoundFile::tempBlocksLeft() const {
  if (tempStream == nullptr) return 0;
  uint32_t used = lastTempBlock + 1;  // 0xFFFFFFFF (none) wraps to 0
  return used >= kMaxTempBlocks ? 0 : kMaxTempBlocks - used;
}

uint32_t gxdCompoundFile::writeTempBlock(const uint8_t* block) {
  return writeTempBlocks(block, 1);
}

uint32_t gxdCompoundFile::writeTempBlocks(const uint8_t* data, uint32_t count) {
  if (tempStream == nullptr || count == 0 || count > tempBlocksLeft())
    return 0xFFFFFFFFu;
  const uint32_t first = lastTempBlock + 1;
  const uint64_t offset = static_cast<uint64_t>(first) * kTempBlockSize;
  // A file stream shares one position for reading and writing and needs a
  // seek between the two; appends in a row need none.
  if (tempAt_ != offset || !tempWriting_)
    tempStream->seekp(static_cast<std::streamoff>(offset));
  if (count < kBufferedBlocks) {
    // A file stream's buffer takes a piece smaller than itself but hands a
    // larger one straight to the system: the few blocks of a small stream go
    // in one by one, so that many small streams cost no system call each.
    for (uint32_t b = 0; b < count && tempStream->good(); ++b)
      tempStream->write(
          reinterpret_cast<const char*>(data) + size_t{b} * kTempBlockSize,
          kTempBlockSize);
  } else {
    tempStream->write(reinterpret_cast<const char*>(data),
                      static_cast<std::streamsize>(count) * kTempBlockSize);
  }
  tempWriting_ = true;
  for (TempWindow& w : tempWindows_) w.at = UINT64_MAX;
  tempAt_ = tempStream->good() ? offset + uint64_t{count} * kTempBlockSize
                               : UINT64_MAX;
  lastTempBlock += count;
  // A write that did not reach the temporary file (disk full) loses the
  // blocks: the caller is refused rather than handed numbers of blocks that
  // the save could not read back.
  if (!tempStream->good()) return 0xFFFFFFFFu;
  return first;
}

// A read of the temporary file that does not deliver every byte asked for
// means the stream data being placed is lost. The save goes on (it has no way
// to report), but the output stream is set failed, which is how the engine
// tells that the file it wrote is not whole.
void gxdCompoundFile::readTemp(uint64_t offset, void* data, size_t size) {
  if (tempStream == nullptr || !tempStream->good()) {
    fileStream->setstate(std::ios::failbit);
    return;
  }
  if (size <= kTempWindowSize / 2) {
    if (!readTempWindowed(offset, data, size))
      fileStream->setstate(std::ios::failbit);
    return;
  }
  if (tempAt_ != offset || tempWriting_)
    tempStream->seekg(static_cast<std::streamoff>(offset));
  tempStream->read(static_cast<char*>(data),
                   static_cast<std::streamsize>(size));
  tempWriting_ = false;
  tempAt_ = tempStream->good() ? offset + size : UINT64_MAX;
  if (tempStream->gcount() != static_cast<std::streamsize>(size))
    fileStream->setstate(std::ios::failbit);
}

bool gxdCompoundFile::readTempWindowed(uint64_t offset, void* data,
                                       size_t size) {
  for (TempWindow& w : tempWindows_) {
    if (w.at != UINT64_MAX && offset >= w.at &&
        offset + size <= w.at + w.bytes.size()) {
      std::memcpy(data, w.bytes.data() + (offset - w.at), size);
      w.lastUse = ++tempWindowUses_;
      return true;
    }
  }
  TempWindow& w = tempWindows_[0].lastUse <= tempWindows_[1].lastUse
                      ? tempWindows_[0]
                      : tempWindows_[1];
  w.at = UINT64_MAX;
  w.bytes.resize(kTempWindowSize);
  tempStream->seekg(static_cast<std::streamoff>(offset));
  tempStream->read(reinterpret_cast<char*>(w.bytes.data()),
                   static_cast<std::streamsize>(kTempWindowSize));
  const size_t got = static_cast<size_t>(tempStream->gcount());
  tempWriting_ = false;
  tempAt_ = UINT64_MAX;
  if (got < size) return false;
  // A window cut short by the end of the file still holds the bytes asked
  // for; whatever lies beyond is read (and fails) when it is asked for.
  tempStream->clear();
  w.bytes.resize(got);
  w.at = offset;
  w.lastUse = ++tempWindowUses_;
  std::memcpy(data, w.bytes.data(), size);
  return true;
}

void gxdCompoundFile::writeStreamData(gxdDirEntry& entry,
                                      const pdTable& blocks) {
  // Data of a stream without a directory record of its own could never be
  // reached from the written file: it is not placed.
  if (directoryRecord(entry.dirIndex) == nullptr) return;
  // Blocks missing from the list (a flush the temporary file refused) are
  // data lost: what there is gets placed, and the output is set failed.
  if (uint64_t{blocks.size()} * kTempBlockSize < entry.size)
    fileStream->setstate(std::ios::failbit);
  uint32_t start;
  if (entry.sizeHigh() == 0 && entry.sizeLow() < header.miniStreamCutoff) {
    start = writeSmallStream(entry.size, blocks);
  } else {
    start = writeLargeStream(entry.sizeLow(), blocks);
  }
  entry.startSector = start;
  storeU32(directoryRecord(entry.dirIndex) + gxdDirField::kStartSector, start);
}

uint32_t gxdCompoundFile::writeSmallStream(uint64_t size,
                                           const pdTable& blocks) {
  if (size == 0) return kEndOfChain;
  const uint32_t perBlock = sectorSize / miniSectorSize;
  const uint32_t first = lastMiniSector == 0xFFFFFFFFu ? 0 : lastMiniSector + 1;
  ensureMiniFatEntry(first);
  const uint32_t count =
      static_cast<uint32_t>((size + miniSectorSize - 1) / miniSectorSize);
  while (static_cast<uint64_t>(miniStreamSectorCount) * perBlock <
         static_cast<uint64_t>(first) + count)
    growMiniStream();
  uint8_t block[kTempBlockSize];
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t m = first + i;
    miniFat[m] = i == count - 1 ? kEndOfChain : m + 1;
    if (i % perBlock == 0) {
      // Blocks missing from the list (never the case for a flushed stream)
      // contribute zero bytes rather than reads outside the list.
      const size_t b = i / perBlock;
      if (b < blocks.size()) {
        readTemp(uint64_t{blocks[b]} * kTempBlockSize, block, sizeof(block));
      } else {
        std::memset(block, 0, sizeof(block));
      }
    }
    std::memcpy(miniStream.data() + static_cast<size_t>(m) * miniSectorSize,
                block + (i % perBlock) * miniSectorSize, miniSectorSize);
    lastMiniSector = m;
    ensureMiniFatEntry(m + 1);
  }
  return first;
}

// Each temporary block becomes one sector, in list order, chained through
// the FAT; the FAT grows before a sector whose predecessor it cannot hold,
// so a FAT (or DIFAT) sector may come between two data sectors. Only the
// layout is recorded here: the data moves when the save writes the file.
uint32_t gxdCompoundFile::writeLargeStream(uint32_t size,
                                           const pdTable& blocks) {
  if (size == 0 || blocks.empty()) return kEndOfChain;
  const uint32_t start = sectorCount - 1;
  uint32_t prev = start;
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (i > 0) ensureFatEntry(prev);
    const uint32_t id =
        appendSector(kDataSector, uint64_t{blocks[i]} * kTempBlockSize);
    if (i > 0) fat[prev] = id;
    prev = id;
  }
  ensureFatEntry(prev);
  fat[prev] = kEndOfChain;
  return start;
}

void gxdCompoundFile::copyFromTemp(uint64_t from, uint64_t to, uint64_t size) {
  if (!fileStream->good()) return;
  if (tempStream == nullptr || !tempStream->good()) {
    fileStream->setstate(std::ios::failbit);
    return;
  }
  const int copied =
      pdCopyBetweenFiles(*tempStream, from, *fileStream, to, size);
  if (copied == 0) fileStream->setstate(std::ios::failbit);
  if (copied >= 0) return;
  // Streams that are not files of the host: through memory, in batches.
  std::vector<uint8_t> batch(static_cast<size_t>(
      std::min<uint64_t>(size, uint64_t{kBatchSectors} * sectorSize)));
  for (uint64_t done = 0; done < size && fileStream->good();) {
    const size_t n =
        static_cast<size_t>(std::min<uint64_t>(size - done, batch.size()));
    readTemp(from + done, batch.data(), n);
    writeOutput(to + done, batch.data(), n);
    done += n;
  }
}
