#include "engine/gxdFormat.h"

#include <cstring>

bool gxdFileHeader::load(const uint8_t* b, size_t size) {
  if (b == nullptr || size < kHeaderSize) return false;
  std::memcpy(signature, b, 8);
  std::memcpy(clsid, b + 8, 16);
  minorVersion = loadU16(b + 24);
  majorVersion = loadU16(b + 26);
  byteOrder = loadU16(b + 28);
  sectorShift = loadU16(b + 30);
  miniSectorShift = loadU16(b + 32);
  reserved1 = loadU16(b + 34);
  reserved2 = loadU32(b + 36);
  numDirectorySectors = loadU32(b + 40);
  numFatSectors = loadU32(b + 44);
  firstDirectorySector = loadU32(b + 48);
  transactionSignature = loadU32(b + 52);
  miniStreamCutoff = loadU32(b + 56);
  firstMiniFatSector = loadU32(b + 60);
  numMiniFatSectors = loadU32(b + 64);
  firstDifatSector = loadU32(b + 68);
  numDifatSectors = loadU32(b + 72);
  for (size_t i = 0; i < kHeaderDifatSlots; ++i)
    difat[i] = loadU32(b + 76 + 4 * i);
  return true;
}

void gxdFileHeader::store(uint8_t* b) const {
  std::memcpy(b, signature, 8);
  std::memcpy(b + 8, clsid, 16);
  storeU16(b + 24, minorVersion);
  storeU16(b + 26, majorVersion);
  storeU16(b + 28, byteOrder);
  storeU16(b + 30, sectorShift);
  storeU16(b + 32, miniSectorShift);
  storeU16(b + 34, reserved1);
  storeU32(b + 36, reserved2);
  storeU32(b + 40, numDirectorySectors);
  storeU32(b + 44, numFatSectors);
  storeU32(b + 48, firstDirectorySector);
  storeU32(b + 52, transactionSignature);
  storeU32(b + 56, miniStreamCutoff);
  storeU32(b + 60, firstMiniFatSector);
  storeU32(b + 64, numMiniFatSectors);
  storeU32(b + 68, firstDifatSector);
  storeU32(b + 72, numDifatSectors);
  for (size_t i = 0; i < kHeaderDifatSlots; ++i)
    storeU32(b + 76 + 4 * i, difat[i]);
}

bool gxdFileHeader::isAcceptable() const {
  return std::memcmp(signature, kGxdSignature, 8) == 0 &&
         (majorVersion == 3 || majorVersion == 4) && reserved1 == 0 &&
         reserved2 == 0;
}

gxdFileHeader gxdFileHeader::newFileHeader() {
  gxdFileHeader h;
  std::memcpy(h.signature, kGxdSignature, 8);
  h.minorVersion = 0x003E;
  h.majorVersion = 3;
  h.byteOrder = 0xFFFE;
  h.sectorShift = 9;
  h.miniSectorShift = 6;
  h.firstDirectorySector = kEndOfChain;
  h.miniStreamCutoff = 4096;
  h.firstMiniFatSector = kEndOfChain;
  h.firstDifatSector = kEndOfChain;
  for (size_t i = 0; i < kHeaderDifatSlots; ++i) h.difat[i] = kFreeSect;
  return h;
}

bool gxdDirRecord::load(const uint8_t* b, size_t size) {
  if (b == nullptr || size < kDirRecordSize) return false;
  for (size_t i = 0; i < kNameFieldUnits; ++i)
    entryName[i] = static_cast<char16_t>(loadU16(b + 2 * i));
  nameLength = loadU16(b + 64);
  objectType = b[66];
  colour = b[67];
  leftSibling = loadU32(b + 68);
  rightSibling = loadU32(b + 72);
  child = loadU32(b + 76);
  std::memcpy(entryClsid, b + 80, 16);
  stateBits = loadU32(b + 96);
  creationTime = loadU64(b + 100);
  modifiedTime = loadU64(b + 108);
  startSector = loadU32(b + 116);
  streamSize = loadU64(b + 120);
  return true;
}

void gxdDirRecord::store(uint8_t* b) const {
  for (size_t i = 0; i < kNameFieldUnits; ++i)
    storeU16(b + 2 * i, static_cast<uint16_t>(entryName[i]));
  storeU16(b + 64, nameLength);
  b[66] = objectType;
  b[67] = colour;
  storeU32(b + 68, leftSibling);
  storeU32(b + 72, rightSibling);
  storeU32(b + 76, child);
  std::memcpy(b + 80, entryClsid, 16);
  storeU32(b + 96, stateBits);
  storeU64(b + 100, creationTime);
  storeU64(b + 108, modifiedTime);
  storeU32(b + 116, startSector);
  storeU64(b + 120, streamSize);
}

std::u16string gxdDirRecord::name() const {
  size_t n = 0;
  while (n < kNameFieldUnits && entryName[n] != 0) ++n;
  return std::u16string(entryName, n);
}

void gxdDirRecord::setName(const std::u16string& name) {
  size_t n = name.size() < kMaxWrittenNameUnits ? name.size()
                                                : kMaxWrittenNameUnits;
  for (size_t i = 0; i < kNameFieldUnits; ++i)
    entryName[i] = i < n ? name[i] : 0;
  nameLength = static_cast<uint16_t>((n + 1) * 2);
}
