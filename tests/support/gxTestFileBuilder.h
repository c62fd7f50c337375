// Lays out valid compound files byte by byte, so that a test states only
// what it changes. It shares no code with the library: it is an independent
// writer whose output the engine must read.
//
//   gxTestFileBuilder b;                        // version 3, 512-byte sectors
//   uint32_t dir = b.addStorage(0, u"Dir");     // entry 0 is the root
//   b.addStream(dir, u"Small", std::string(100, 'x'));  // in the mini stream
//   b.addStream(0, u"Big", std::string(5000, 'y'));     // in regular sectors
//   std::string file = b.build();
//   gxPutU32(file, b.entryOffset(dir) + 68, dir);       // corrupt one link
//
// Children are linked in the order added as a chain of right siblings under
// their parent's child link; a test that needs another shape (or an odd
// object type or name) edits `entries` before build(). Sector layout, in
// order: FAT, DIFAT, directory, MiniFAT, mini stream, then the data of large
// streams, so everything the load reads ends at `metadataEnd`.
#ifndef GXSTORAGE_TESTS_SUPPORT_GXTESTFILEBUILDER_H_
#define GXSTORAGE_TESTS_SUPPORT_GXTESTFILEBUILDER_H_

#include <cstdint>
#include <string>
#include <vector>

class gxTestFileBuilder {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;  // NOSTREAM / FREESECT
  static constexpr uint32_t kEnd = 0xFFFFFFFEu;   // ENDOFCHAIN

  struct Entry {
    std::u16string name;  // more than 32 units are cut to 32
    uint8_t type = 2;     // 1 storage, 2 stream, 5 root; any value is written
    uint32_t left = kNone, right = kNone, child = kNone;
    std::string data;  // stream data: below 4096 bytes in the mini stream
    uint32_t startSector = kEnd;  // set by build()
  };

  // Version 3 gives 512-byte sectors, version 4 4096-byte sectors.
  explicit gxTestFileBuilder(uint16_t majorVersion = 3);

  // Append an entry under entry `parent` and return its entry number.
  uint32_t addStorage(uint32_t parent, const std::u16string& name) {
    return add(parent, name, 1, std::string());
  }
  uint32_t addStream(uint32_t parent, const std::u16string& name,
                     std::string data) {
    return add(parent, name, 2, std::move(data));
  }

  // Lays the file out and returns its bytes. Call once.
  std::string build();

  // File offset of sector `s` and of directory entry `n` (after build()).
  uint64_t sectorOffset(uint32_t s) const;
  uint64_t entryOffset(uint32_t n) const;
  // File offset of the FAT entry of sector `s` (after build()).
  uint64_t fatEntryOffset(uint32_t s) const;

  // ---- Options, set before build() --------------------------------------
  uint16_t majorVersion;
  uint16_t sectorShift;        // 9 for version 3, 12 for version 4
  uint32_t minFatSectors = 1;  // 110 puts the last FAT sector in the DIFAT
  std::vector<Entry> entries;  // entries[0] is the root

  // ---- Layout, set by build(): sector numbers in chain order -------------
  uint32_t sectorSize = 0;
  std::vector<uint32_t> fatSectors, difatSectors, directorySectors,
      miniFatSectors, miniStreamSectors;
  uint32_t miniStreamLength = 0;  // the root entry's size
  uint64_t metadataEnd = 0;       // end of the last byte a load reads

 private:
  std::vector<uint32_t> lastChild_;  // per entry, its last child added
  uint32_t add(uint32_t parent, const std::u16string& name, uint8_t type,
               std::string data);
};

// Little-endian store of the low `width` bytes of `value`.
void gxPutU32(std::string& file, uint64_t offset, uint32_t value,
              int width = 4);

#endif  // GXSTORAGE_TESTS_SUPPORT_GXTESTFILEBUILDER_H_
