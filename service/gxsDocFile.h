// The read-write core of the service: one open compound file. It holds the
// header, FAT, DIFAT, MiniFAT and directory in memory (never stream data),
// reads and writes stream data in place, allocates and frees sectors and
// mini sectors (reusing freed ones before the file grows, zeroing what is
// freed), keeps each storage's children in a red-black tree ordered as the
// platform orders them, and writes changed tables on flush() or commit()
// to free sectors before the header switches to them. Directory entries
// are named by their index ("id"); id 0 is the root entry.
//
// Every operation checks what it reads from the file: a damaged table, chain
// or entry makes the call fail with STG_E_DOCFILECORRUPT and marks the file
// corrupt, after which nothing is written to it again.
#ifndef GXSTORAGE_SERVICE_GXSDOCFILE_H_
#define GXSTORAGE_SERVICE_GXSDOCFILE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/gxdFormat.h"
#include "platform/gxPlatform.h"
#include "porting/gxdFile.h"
#include "porting/gxdTable.h"
#include "service/gxsBlockCache.h"

class gxsDocFile {
 public:
  static constexpr uint32_t kRootId = 0;

  gxsDocFile(const gxsDocFile&) = delete;
  gxsDocFile& operator=(const gxsDocFile&) = delete;
  ~gxsDocFile();

  // Loads an existing file. `writable` allows changes. Refuses a bad header
  // with STG_E_INVALIDHEADER (or STG_E_FILEALREADYEXISTS for a file that is
  // not a compound file at all, as the platform answers) and damage with
  // STG_E_DOCFILECORRUPT; a failed read gives STG_E_READFAULT.
  static HRESULT open(std::unique_ptr<pdFile> file, bool writable,
                      std::unique_ptr<gxsDocFile>& out);
  // Writes a new, empty version 3 file (header, one FAT sector, one
  // directory sector holding the root entry) over `file`, which is empty.
  // With `transacted`, nothing is written before the first commit (a
  // release without one leaves the empty file).
  static HRESULT create(std::unique_ptr<pdFile> file,
                        std::unique_ptr<gxsDocFile>& out,
                        bool transacted = false);

  bool writable() const { return writable_; }
  bool corrupt() const { return corrupt_; }
  uint16_t majorVersion() const { return header_.majorVersion; }
  // Largest stream size this file's version can record.
  uint64_t maxStreamSize() const;

  // ---- Directory -------------------------------------------------------
  // The entry `id`; valid until the next call that adds entries.
  const gxdDirRecord& entry(uint32_t id) const { return entries_[id]; }
  // Changes the fields of entry `id` that do not affect the tree (class id,
  // state bits, times): `change` edits a copy which is stored back.
  HRESULT setEntryTimes(uint32_t id, const FILETIME* created,
                        const FILETIME* modified);
  HRESULT setEntryClass(uint32_t id, const uint8_t clsid[16]);
  HRESULT setEntryStateBits(uint32_t id, uint32_t bits, uint32_t mask);

  // Looks `name` up among the children of storage `parent`: an exact match
  // first, then one equal when folded to upper case. S_OK with `id` set,
  // STG_E_FILENOTFOUND, or STG_E_DOCFILECORRUPT.
  HRESULT find(uint32_t parent, const std::u16string& name, uint32_t& id);
  // Every child of `parent`, in the tree's order (the order the platform
  // enumerates in).
  HRESULT children(uint32_t parent, std::vector<uint32_t>& ids);
  // Adds an empty stream (kObjStream) or storage (kObjStorage) named `name`
  // under `parent`; the caller has checked that no child of that name
  // exists. Creation and modification times are left zero for streams and
  // set to now for storages.
  HRESULT addEntry(uint32_t parent, const std::u16string& name, uint8_t type,
                   uint32_t& id);
  // Removes child `id` of `parent` with everything below it: stream data is
  // freed (and zeroed), entries are cleared. `removed` receives every id
  // that was cleared (id itself first), so that open objects can be
  // reverted.
  HRESULT removeEntry(uint32_t parent, uint32_t id,
                      std::vector<uint32_t>& removed);
  // Gives child `id` of `parent` a new name; the caller has checked that the
  // name is free.
  HRESULT renameEntry(uint32_t parent, uint32_t id,
                      const std::u16string& newName);

  // ---- Stream data (id of a stream entry) ------------------------------
  // Reads up to `size` bytes at `offset`; `done` is what was read (short at
  // the end of the stream).
  HRESULT readStream(uint32_t id, uint64_t offset, void* data, uint32_t size,
                     uint32_t& done);
  // Writes `size` bytes at `offset`, growing the stream (a gap before
  // `offset` reads as zeros). On failure `done` tells how many were written.
  HRESULT writeStream(uint32_t id, uint64_t offset, const void* data,
                      uint32_t size, uint32_t& done);
  // Grows (with zeros) or shrinks the stream, moving it into or out of the
  // mini stream when it crosses the cutoff.
  HRESULT setStreamSize(uint32_t id, uint64_t size);
  // Forgets the cached sector chain of stream `id` (its last open object
  // went away).
  void dropChain(uint32_t id);

  // ---- Persistence -----------------------------------------------------
  // Direct mode (the default) writes stream data in place and the tables on
  // flush(). Transacted mode keeps the file's committed state intact: no
  // sector that state uses is written, stream data goes to free sectors
  // (copied on first write), and the tables stay in memory until commit().
  // In both modes sectors freed since the last flush or commit are not
  // handed out again before it. Switch right after open or create, before
  // any change.
  void setTransacted(bool transacted);
  bool transacted() const { return transacted_; }
  // Direct: makes the changes so far the file's state in one step, as
  // commit() does in transacted mode but without syncing: the changed table
  // sectors go to sectors the file's state does not use, and then the
  // header switches to them. Whichever write is the last to reach the disk,
  // the file holds the old tables or the new ones (stream data written in
  // place is not part of that guarantee). Nothing is written when no table
  // changed. Transacted: does nothing.
  HRESULT flush();
  // Direct mode, at the end of every changing call: flush() once the sectors
  // taken or freed since the last switch reach kDirectFlushBytes. Between
  // switches the file keeps its last state whole (new data lies in sectors
  // that state does not use); this bounds both what a crash can drop and
  // the freed space that cannot be reused before the next switch, without
  // writing the tables and the header on every call.
  HRESULT flushIfDue();
  static constexpr uint64_t kDirectFlushBytes = 8u << 20;
  // Makes every change durable. Transacted: the changed table sectors go to
  // sectors the committed state does not use, are synced, and only then is
  // the header (the one place that says where the state lives) written in
  // one 512-byte write and synced; space the old state alone used is then
  // zeroed and free sectors at the end are cut off. A failure leaves the
  // committed state and the changes as they were, so commit can be retried.
  HRESULT commit();
  // Transacted: drops every change since the last commit (zeroing the
  // sectors they used) and reloads the committed state. Direct: nothing.
  HRESULT revert();
  // Ends the session: direct mode flushes and cuts free sectors off the end
  // when anything changed; transacted mode drops uncommitted changes.
  HRESULT close();
  // True once anything was changed since the file was opened or created.
  bool changed() const { return changed_; }

 private:
  struct Chain {
    pdTable sectors;  // regular or mini sectors, in order
    bool mini = false;
  };

  explicit gxsDocFile(std::unique_ptr<pdFile> file);

  // Loading (gxsDocFile.cpp).
  HRESULT load();
  void initEmpty();
  HRESULT loadFat();
  HRESULT loadDirectory();
  HRESULT loadMiniFat();
  HRESULT checkTree();
  // `small`: a read of the mini stream, served from the block cache.
  HRESULT readBytes(uint64_t offset, void* data, size_t size,
                    bool small = false);
  // Reads sectors[0..] in order, those that lie back to back in one call
  // (up to 1 MiB), and hands each to `use(index, bytes)`.
  template <typename Use>
  HRESULT readSectors(const pdTable& sectors, Use use);
  HRESULT writeBytes(uint64_t offset, const void* data, size_t size);
  HRESULT fail(HRESULT code);  // records damage and returns `code`
  HRESULT checkWritable() const;
  HRESULT ioFailure(bool writing) const;

  // Sector tables (gxsAllocation.cpp).
  uint32_t sectorSize() const { return 1u << header_.sectorShift; }
  uint32_t entriesPerSector() const { return sectorSize() / 4; }
  uint64_t offsetOf(uint32_t sector) const {
    return sectorOffset(sector, header_.sectorShift);
  }
  HRESULT chainOf(uint32_t start, uint64_t minLength, pdTable& out) const;
  HRESULT miniChainOf(uint32_t start, uint64_t minLength, pdTable& out) const;
  bool isProtected(uint32_t sector) const {
    return sector < protected_.size() && protected_[sector];
  }
  HRESULT unshare(uint32_t owner, pdTable& chain, uint64_t first, uint64_t last,
                  uint64_t keepFrom, uint64_t keepTo);
  HRESULT unshareMini(const pdTable& miniSectors);
  HRESULT prepareWrite(uint32_t owner, Chain& chain, uint64_t offset,
                       uint64_t size);
  HRESULT relocateTables(bool& moved);
  HRESULT writeTables();
  HRESULT switchState(bool sync);
  bool zeroReleased();
  void dropUncommitted();
  void trimEnd();
  HRESULT allocateSector(uint32_t& sector, uint32_t mark);
  HRESULT addFatSector();
  HRESULT placeTables();
  void setFat(uint32_t sector, uint32_t value);
  void setMiniFat(uint32_t miniSector, uint32_t value);
  HRESULT freeSectors(const pdTable& sectors, size_t from);
  HRESULT extendChain(pdTable& chain, size_t count, uint32_t& head);
  HRESULT allocateMiniSector(uint32_t& miniSector);
  HRESULT freeMiniSectors(const pdTable& sectors, size_t from);
  HRESULT extendMiniChain(pdTable& chain, size_t count, uint32_t& head);
  HRESULT miniOffset(uint32_t miniSector, uint64_t& offset);
  HRESULT ensureMiniStream(uint64_t bytes);
  uint64_t maxSectors() const;

  // Directory tree (gxsDirTree.cpp).
  int compareNames(const std::u16string& a, uint32_t id) const;
  HRESULT allocateEntry(uint32_t& id);
  void touchEntry(uint32_t id);
  HRESULT prepareTree(uint32_t parent);
  HRESULT collectChildren(uint32_t parent, std::vector<uint32_t>& ids) const;
  void rebuildTree(uint32_t parent, std::vector<uint32_t> ids);
  HRESULT prepareChange(uint32_t parent);
  void insertNode(uint32_t parent, uint32_t id);
  void eraseNode(uint32_t parent, uint32_t id);
  bool pathTo(uint32_t parent, uint32_t id, std::vector<uint32_t>& path);
  uint32_t& linkTo(uint32_t parent, const std::vector<uint32_t>& path,
                   size_t i);
  void rotate(uint32_t x, bool toRight, uint32_t& link);
  uint8_t colourOf(uint32_t id) const;
  void paint(uint32_t id, uint8_t colour);

  // Stream data (gxsStreamData.cpp).
  HRESULT streamChain(uint32_t id, Chain*& chain);
  template <typename Move>
  HRESULT forEachRun(const Chain& chain, uint64_t offset, uint64_t size,
                     Move move);
  HRESULT unitOffset(const Chain& chain, uint64_t index, uint64_t& offset);
  HRESULT readChain(const Chain& chain, uint64_t offset, uint8_t* data,
                    uint64_t size);
  HRESULT writeChain(uint32_t owner, Chain& chain, uint64_t offset,
                     const uint8_t* data, uint64_t size);
  HRESULT zeroChain(uint32_t owner, Chain& chain, uint64_t offset,
                    uint64_t size);
  HRESULT resize(uint32_t id, uint64_t newSize, uint64_t zeroEnd);
  HRESULT freeStreamData(uint32_t id);

  std::unique_ptr<pdFile> file_;  // a gxsBlockCache over the file
  gxsBlockCache* cache_ = nullptr;
  bool writable_ = false;
  bool corrupt_ = false;
  bool changed_ = false;
  bool transacted_ = false;
  pdBytes protected_;                  // sectors the file's state uses
  std::vector<uint32_t> pendingZero_;  // freed, but the committed state's
  std::vector<uint32_t> taken_;        // sectors taken since the last switch
  uint64_t committedBytes_ = 0;        // file length at the last commit
  uint64_t fileBytes_ = 0;             // physical length of the file
  uint64_t allocatedEnd_ = 0;          // the file must reach this far at flush
  gxdFileHeader header_;
  bool headerDirty_ = false;

  pdTable fat_;                 // whole FAT, entries of all FAT sectors
  pdTable fatSectors_;          // where each FAT sector lives
  std::vector<bool> fatDirty_;  // per FAT sector
  pdTable difatSectors_;        // the DIFAT chain
  // A FAT or DIFAT sector added since the last switch has no place yet.
  static constexpr uint32_t kUnplaced = kFreeSect;
  static constexpr size_t kTableRunSectors = 256;  // per write of a table
  size_t unplaced_ = 0;
  bool difatDirty_ = false;
  uint32_t freeHint_ = 0;  // no free sector below this

  pdTable miniFat_;
  pdTable miniFatChain_;            // sectors of the MiniFAT
  std::vector<bool> miniFatDirty_;  // per MiniFAT sector
  uint32_t miniFreeHint_ = 0;
  Chain miniStream_;  // the root entry's chain

  std::vector<gxdDirRecord> entries_;
  pdTable dirChain_;            // sectors of the directory
  std::vector<bool> dirDirty_;  // per directory sector
  uint32_t entryFreeHint_ = 1;
  std::vector<uint32_t> parentOf_;  // storage holding each entry
  std::vector<uint8_t> treeState_;  // per storage: sibling tree checked?

  std::map<uint32_t, Chain> chains_;  // cached chains of streams in use
};

// The current time in the platform's FILETIME units (100 ns since 1601).
uint64_t gxsNow();

#endif  // GXSTORAGE_SERVICE_GXSDOCFILE_H_
