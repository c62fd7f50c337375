// The compound file format: constants, little-endian load/store helpers and
// the two fixed-layout records (the 512-byte header and the 128-byte
// directory entry). Records are decoded and encoded field by field from byte
// buffers; nothing is type-punned.
#ifndef GXSTORAGE_ENGINE_GXDFORMAT_H_
#define GXSTORAGE_ENGINE_GXDFORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string>

// Special sector values.
constexpr uint32_t kFreeSect = 0xFFFFFFFFu;
constexpr uint32_t kEndOfChain = 0xFFFFFFFEu;
constexpr uint32_t kFatSect = 0xFFFFFFFDu;
constexpr uint32_t kDifSect = 0xFFFFFFFCu;
constexpr uint32_t kMaxRegSect = 0xFFFFFFFAu;
constexpr uint32_t kNoStream = 0xFFFFFFFFu;

constexpr size_t kHeaderSize = 512;
constexpr size_t kDirRecordSize = 128;
constexpr size_t kHeaderDifatSlots = 109;
constexpr size_t kNameFieldUnits = 32;  // name field incl. terminator
constexpr size_t kMaxWrittenNameUnits = 31;
constexpr size_t kTempBlockSize = 512;

constexpr uint8_t kGxdSignature[8] = {0xD0, 0xCF, 0x11, 0xE0,
                                      0xA1, 0xB1, 0x1A, 0xE1};

// Directory object types.
constexpr uint8_t kObjUnused = 0;
constexpr uint8_t kObjStorage = 1;
constexpr uint8_t kObjStream = 2;
constexpr uint8_t kObjRoot = 5;

// Header offsets of the fields the probe checks.
constexpr size_t kHeaderMajorVersionOffset = 26;
constexpr size_t kHeaderReserved1Offset = 34;
constexpr size_t kHeaderReserved2Offset = 36;

inline uint16_t loadU16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t loadU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t loadU64(const uint8_t* p) {
  return static_cast<uint64_t>(loadU32(p)) |
         (static_cast<uint64_t>(loadU32(p + 4)) << 32);
}
inline void storeU16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void storeU32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}
inline void storeU64(uint8_t* p, uint64_t v) {
  storeU32(p, static_cast<uint32_t>(v));
  storeU32(p + 4, static_cast<uint32_t>(v >> 32));
}

// File offset of sector `sector` (the header stands in place of sector -1),
// computed in 64 bits so that it never wraps.
inline uint64_t sectorOffset(uint32_t sector, uint16_t sectorShift) {
  return (static_cast<uint64_t>(sector) + 1) << sectorShift;
}

// The 512-byte file header.
struct gxdFileHeader {
  uint8_t signature[8] = {};
  uint8_t clsid[16] = {};
  uint16_t minorVersion = {};
  uint16_t majorVersion = {};
  uint16_t byteOrder = {};
  uint16_t sectorShift = {};
  uint16_t miniSectorShift = {};
  uint16_t reserved1 = {};
  uint32_t reserved2 = {};
  uint32_t numDirectorySectors = {};
  uint32_t numFatSectors = {};
  uint32_t firstDirectorySector = {};
  uint32_t transactionSignature = {};
  uint32_t miniStreamCutoff = {};
  uint32_t firstMiniFatSector = {};
  uint32_t numMiniFatSectors = {};
  uint32_t firstDifatSector = {};
  uint32_t numDifatSectors = {};
  uint32_t difat[kHeaderDifatSlots] = {};


  // Decodes from `size` bytes at `bytes`; false when fewer than 512 bytes.
  bool load(const uint8_t* bytes, size_t size);
  // Encodes into exactly 512 bytes at `bytes`.
  void store(uint8_t* bytes) const;

  // The checks a reader makes before trusting anything else: signature,
  // major version 3 or 4, reserved bytes zero.
  bool isAcceptable() const;
  // The header of a new file, before a save sets its counts and links.
  static gxdFileHeader newFileHeader();
};

// One 128-byte directory entry.
struct gxdDirRecord {
  char16_t entryName[kNameFieldUnits] = {};
  uint16_t nameLength = {};  // bytes, terminator included
  uint8_t objectType = {};
  uint8_t colour = {};
  uint32_t leftSibling = {};
  uint32_t rightSibling = {};
  uint32_t child = {};
  uint8_t entryClsid[16] = {};
  uint32_t stateBits = {};
  uint64_t creationTime = {};
  uint64_t modifiedTime = {};
  uint32_t startSector = {};
  uint64_t streamSize = {};


  bool load(const uint8_t* bytes, size_t size);
  void store(uint8_t* bytes) const;

  // The name as read: the units before the first zero, at most 32.
  std::u16string name() const;
  // Writes at most the first 31 units of `name`, zero-fills the rest and
  // sets nameLength to (units written + 1) * 2.
  void setName(const std::u16string& name);
};

// Accessors on a directory record in place, for the save, which builds the
// directory as consecutive 128-byte records.
namespace gxdDirField {
constexpr size_t kName = 0;
constexpr size_t kNameLength = 64;
constexpr size_t kObjectType = 66;
constexpr size_t kColour = 67;
constexpr size_t kLeftSibling = 68;
constexpr size_t kRightSibling = 72;
constexpr size_t kChild = 76;
constexpr size_t kStartSector = 116;
constexpr size_t kStreamSize = 120;
}  // namespace gxdDirField

#endif  // GXSTORAGE_ENGINE_GXDFORMAT_H_
