// The engine behind one open compound file of the portable backend. It holds
// in memory everything of the file except the data of large streams: the
// header, the whole FAT and MiniFAT, the directory as a tree of entries and
// the whole mini stream. A created file is written once, whole, by save().
// The tables are pdTable / pdBytes (porting/gxdTable.h): resize(n) leaves
// new elements unset, for tables that are read or computed right away.
//
// The engine works on a std::iostream that it does not own. It reports a
// failed load only through that stream's state: failed or bad after the
// constructor means the file was refused.
#ifndef GXSTORAGE_ENGINE_GXDCOMPOUNDFILE_H_
#define GXSTORAGE_ENGINE_GXDCOMPOUNDFILE_H_

#include <cstdint>
#include <iosfwd>
#include <vector>

#include "engine/gxdDirEntry.h"
#include "engine/gxdFormat.h"
#include "porting/gxdTable.h"

class gxdCompoundFile {
 public:
  // `fileStream` is the compound file (may be null: the engine then stays
  // with an all-zero header). `tempStream` is the temporary block file of a
  // file being created, null for an opened file. With `loadExisting` the
  // file is read from the stream's current position (its start); otherwise
  // the new-file defaults apply and nothing is read or written.
  gxdCompoundFile(std::iostream* fileStream, std::iostream* tempStream,
                  bool loadExisting);
  gxdCompoundFile(const gxdCompoundFile&) = delete;
  gxdCompoundFile& operator=(const gxdCompoundFile&) = delete;
  ~gxdCompoundFile();

  // ---- Directory tree -------------------------------------------------
  // Takes entry `entryNumber` and everything reachable from it into
  // `parentEntry` (null: the root entry itself). Returns 0 for NOSTREAM, 1
  // when the entry was taken or seen before, 2 for an unused entry, -1 when
  // the root entry cannot be taken. Walks iteratively, so sibling chains of
  // any length cost no stack.
  int32_t loadDirectoryEntry(gxdStorageEntry* parentEntry,
                             uint32_t entryNumber);
  // Looks a child storage up by exact name in `parentEntry` (null: the root
  // entry). On a match fills `entry` with the name and copies of the child
  // arrays and returns true. Otherwise appends a copy of `entry` when
  // `createIfMissing` and returns false.
  bool findOrAddStorage(gxdStorageEntry* parentEntry, gxdStorageEntry& entry,
                        bool createIfMissing);
  // The same over child streams; a match is copied whole into `entry`.
  bool findOrAddStream(gxdStorageEntry* parentEntry, gxdDirEntry& entry,
                       bool createIfMissing);

  // ---- Sector allocation (write side, inside one save) -----------------
  // Sectors are numbered in the order they are needed; nothing is written
  // while the save lays the file out. Each sector's content is recorded as
  // where it comes from, and the file is written once, front to back, when
  // every table is final (writeLayout).
  enum SectorKind : uint8_t {
    kFatSector,         // source: FAT sector ordinal (entries ordinal * E on)
    kDifatSector,       // source: DIFAT sector ordinal
    kDirectorySector,   // source: sector ordinal within directoryBuffer
    kMiniFatSector,     // source: sector ordinal within miniFat
    kMiniStreamSector,  // source: sector ordinal within miniStream
    kDataSector,        // source: byte offset in the temporary file
  };
  // Takes position sectorCount for a sector of `kind` whose content comes
  // from `source`; returns its id.
  uint32_t appendSector(SectorKind kind, uint64_t source);
  // Reserves the header's position, FAT sector 0 and directory sector 1.
  void startOutput();
  // Grows the FAT (with DIFAT slots and sectors) until entry `sector` exists.
  void ensureFatEntry(uint32_t sector);
  // Appends a directory sector when directoryBuffer has no free record.
  void ensureDirectorySlot();
  // Appends a MiniFAT sector when entry `miniSector` does not exist.
  void ensureMiniFatEntry(uint32_t miniSector);
  // Adds one regular sector to the mini stream.
  void growMiniStream();

  // ---- Stream data ----------------------------------------------------
  // Appends one 512-byte block to the temporary file and returns its number
  // (0 for the first), or 0xFFFFFFFF when there is no temporary file or it
  // would pass its 2 GiB limit. Block b lies at byte b * 512.
  uint32_t writeTempBlock(const uint8_t* block);
  // Appends `count` consecutive blocks from `data` in one transfer; returns
  // the number of the first, or 0xFFFFFFFF (nothing written) as above.
  uint32_t writeTempBlocks(const uint8_t* data, uint32_t count);
  // Blocks the temporary file can still take.
  uint32_t tempBlocksLeft() const;
  // Places a stream's data by its final size: into the mini stream when
  // below the cutoff, else into appended sectors; records its start.
  void writeStreamData(gxdDirEntry& entry, const pdTable& blocks);
  uint32_t writeSmallStream(uint64_t size, const pdTable& blocks);
  uint32_t writeLargeStream(uint32_t size, const pdTable& blocks);

  // ---- Saving ---------------------------------------------------------
  // Writes the whole created file once; later calls do nothing.
  void save();
  void addStorageEntry(gxdStorageEntry* parent, gxdStorageEntry& storage,
                       bool isRoot);
  void addStreamEntry(gxdStorageEntry* parent, gxdDirEntry& stream);
  void linkChild(uint32_t parentIndex, uint32_t childIndex);

  // ---- Inspection helpers ---------------------------------------------
  // True when `sector` is an ordinary sector whose start lies inside the
  // file (reads of it may still be short at the file's end).
  bool isSectorInFile(uint32_t sector) const;
  // Number of sector positions after the header that the file reaches.
  uint64_t fileSectorCount() const { return fileSectorCount_; }
  // Length of the directory chain that was loaded (0 for a new file).
  uint64_t loadedDirectorySectors() const { return loadedDirectorySectors_; }

  // ---- Fields (read directly by the portable objects) -----------------
  uint32_t sectorCount = 0;  // output positions used, header's included
  uint32_t headerPosition = 0xFFFFFFFFu;
  uint32_t fatSectorCount = 0;
  std::vector<uint32_t> directorySectors;
  std::vector<uint32_t> miniFatSectors;
  std::vector<uint32_t> miniStreamSectors;
  std::vector<uint32_t> difatSectors;
  uint32_t outputStarted = 0;  // 1 once startOutput ran; save runs only at 0
  pdBytes directoryBuffer;     // 128-byte records being built
  uint32_t nextDirectoryIndex = 0xFFFFFFFFu;
  bool loadExisting;
  std::iostream* fileStream;  // not owned
  std::iostream* tempStream;  // not owned; null for an opened file
  uint32_t lastTempBlock = 0xFFFFFFFFu;
  gxdFileHeader header;
  pdTable fat;
  std::vector<uint32_t> difatBuffer;  // entries of all DIFAT sectors
  size_t currentDifatSector = 0;      // index in difatBuffer of the last one
  uint32_t difatSlot = 0xFFFFFFFFu;
  pdTable miniFat;
  uint32_t lastMiniSector = 0xFFFFFFFFu;
  uint16_t sectorSize = 0;
  uint16_t miniSectorSize = 0;
  pdBytes miniStream;
  uint32_t miniStreamSectorCount = 0;
  uint32_t entriesPerSector = 0;
  gxdStorageEntry rootEntry;
  std::vector<gxdChangeRecord> pendingChanges;
  std::vector<bool> loadedEntries;  // by entry number, while loading

  // Storages nested deeper than this make a loaded file corrupt: the tree
  // is copied and destroyed recursively, so its depth must stay bounded.
  static constexpr uint32_t kMaxDirectoryDepth = 256;

 private:
  void applyNewFileDefaults();
  void load();
  bool loadFat();
  bool loadMiniFat();
  bool loadDirectoryChain();
  bool loadMiniStream();
  void markCorrupt();
  // Reads `size` bytes at absolute `offset` of the file; false on failure.
  bool readAt(uint64_t offset, void* data, size_t size);
  // Reads the sectors of `chain` into `data`, one read per run of
  // consecutive sectors, `length` bytes in all (the last sector may be
  // read in part); false on failure.
  bool readChain(const std::vector<uint32_t>& chain, uint8_t* data,
                 uint64_t length);
  // Follows a FAT chain from `start`, validating every link; stops at
  // ENDOFCHAIN or after `maxLength` sectors. False on a bad link or a loop.
  bool followChain(uint32_t start, uint64_t maxLength,
                   std::vector<uint32_t>& out) const;
  uint8_t* directoryRecord(uint32_t index);
  void writeOutput(uint64_t offset, const void* data, size_t size);
  void readTemp(uint64_t offset, void* data, size_t size);
  // Serves a small read of the temporary file from one of two windows read
  // ahead, so that alternating between two places (the whole blocks of a
  // stream, then its last block flushed at commit) costs no seek per block.
  // False when the bytes could not be read.
  bool readTempWindowed(uint64_t offset, void* data, size_t size);
  // Chains `sectors` in the FAT and stores the first in `*firstField` when
  // given.
  void linkChain(const std::vector<uint32_t>& sectors, uint32_t* firstField);
  // Writes every sector the layout holds, in file order: tables gathered
  // from memory into large writes, stream data copied from the temporary
  // file (inside the kernel where the host can).
  void writeLayout();
  // The bytes of one table sector, `sectorSize` of them, into `out`.
  void tableSector(SectorKind kind, uint64_t ordinal, uint8_t* out) const;
  // Copies `size` bytes at `from` of the temporary file to `to` of the
  // output; a failure leaves the output failed.
  void copyFromTemp(uint64_t from, uint64_t to, uint64_t size);

  // One run of consecutive output sectors of one kind whose sources follow
  // each other.
  struct Extent {
    uint32_t first;  // sector id
    uint32_t count;
    SectorKind kind;
    uint64_t source;  // of the first sector
  };
  std::vector<Extent> layout_;  // in sector order, without gaps

  uint64_t fileLength_ = 0;
  uint64_t fileSectorCount_ = 0;
  uint64_t loadedDirectorySectors_ = 0;
  pdBytes directoryData_;           // loaded directory chain, in order
  uint64_t outputAt_ = UINT64_MAX;  // where the output's put position stands
  uint64_t tempAt_ = UINT64_MAX;    // where the temp file's position stands
  bool tempWriting_ = false;        // the temp file's last transfer was a write
  struct TempWindow {
    uint64_t at = UINT64_MAX;  // temp file offset of bytes[0]; none if MAX
    uint64_t lastUse = 0;
    std::vector<uint8_t> bytes;
  };
  TempWindow tempWindows_[2];
  uint64_t tempWindowUses_ = 0;
};

#endif  // GXSTORAGE_ENGINE_GXDCOMPOUNDFILE_H_
