#include "support/gxTestFileBuilder.h"

#include <algorithm>

namespace {
constexpr uint32_t kFatMark = 0xFFFFFFFDu;
constexpr uint32_t kDifatMark = 0xFFFFFFFCu;
constexpr uint32_t kMiniSize = 64;
constexpr uint32_t kCutoff = 4096;

uint32_t ceilDiv(uint64_t a, uint64_t b) {
  return static_cast<uint32_t>((a + b - 1) / b);
}
}  // namespace

void gxPutU32(std::string& f, uint64_t at, uint32_t v, int width) {
  for (int i = 0; i < width; ++i) f[at + i] = static_cast<char>(v >> (8 * i));
}

gxTestFileBuilder::gxTestFileBuilder(uint16_t version)
    : majorVersion(version), sectorShift(version == 4 ? 12 : 9) {
  Entry root;
  root.name = u"Root Entry";
  root.type = 5;
  entries.push_back(root);
  lastChild_.push_back(kNone);
}

uint32_t gxTestFileBuilder::add(uint32_t parent, const std::u16string& name,
                                uint8_t type, std::string data) {
  uint32_t n = static_cast<uint32_t>(entries.size());
  entries.push_back({name, type, kNone, kNone, kNone, std::move(data), kEnd});
  lastChild_.push_back(kNone);
  (lastChild_[parent] == kNone ? entries[parent].child
                               : entries[lastChild_[parent]].right) = n;
  lastChild_[parent] = n;
  return n;
}

uint64_t gxTestFileBuilder::sectorOffset(uint32_t s) const {
  return (static_cast<uint64_t>(s) + 1) << sectorShift;
}

// Each structure occupies consecutive sectors, so offsets are linear.
uint64_t gxTestFileBuilder::entryOffset(uint32_t n) const {
  return sectorOffset(directorySectors[0]) + uint64_t(n) * 128;
}

uint64_t gxTestFileBuilder::fatEntryOffset(uint32_t s) const {
  return sectorOffset(0) + uint64_t(s) * 4;
}

std::string gxTestFileBuilder::build() {
  sectorSize = 1u << sectorShift;
  const uint32_t perSector = sectorSize / 4;
  // Place small streams in the mini stream, in entry order.
  uint32_t miniSectors = 0;
  for (Entry& e : entries) {
    if (e.type != 2 || e.data.size() >= kCutoff || e.data.empty()) continue;
    e.startSector = miniSectors;
    miniSectors += ceilDiv(e.data.size(), kMiniSize);
  }
  miniStreamLength = miniSectors * kMiniSize;
  uint32_t nDir = ceilDiv(entries.size(), sectorSize / 128);
  uint32_t nMiniFat = ceilDiv(miniSectors, perSector);
  uint32_t nMini = ceilDiv(miniStreamLength, sectorSize);
  uint32_t nLarge = 0;
  for (const Entry& e : entries)
    if (e.type == 2 && e.data.size() >= kCutoff)
      nLarge += ceilDiv(e.data.size(), sectorSize);
  // Enough FAT sectors to describe every sector, the FAT and DIFAT included.
  uint32_t nFat = std::max<uint32_t>(minFatSectors, 1), nDifat = 0;
  for (;; ++nFat) {
    nDifat = nFat > 109 ? ceilDiv(nFat - 109, perSector - 1) : 0;
    if (uint64_t(nFat) * perSector >=
        uint64_t(nDir) + nMiniFat + nMini + nLarge + nFat + nDifat)
      break;
  }
  std::vector<uint32_t> fat(size_t(nFat) * perSector, kNone);
  uint32_t next = 0;
  // Gives the next `count` sectors to a structure: FAT and DIFAT sectors
  // carry their mark in the FAT, the others are chained.
  auto take = [&](uint32_t count, std::vector<uint32_t>& out, uint32_t mark) {
    out.clear();
    for (uint32_t i = 0; i < count; ++i, ++next) {
      fat[next] = mark ? mark : i + 1 < count ? next + 1 : kEnd;
      out.push_back(next);
    }
  };
  take(nFat, fatSectors, kFatMark);
  take(nDifat, difatSectors, kDifatMark);
  take(nDir, directorySectors, 0);
  take(nMiniFat, miniFatSectors, 0);
  take(nMini, miniStreamSectors, 0);
  entries[0].startSector = nMini ? miniStreamSectors[0] : kEnd;
  metadataEnd = sectorOffset(next - 1) + sectorSize;
  if (nMini != 0)
    metadataEnd -= uint64_t(nMini) * sectorSize - miniStreamLength;
  for (Entry& e : entries)
    if (e.type == 2 && e.data.size() >= kCutoff)
      e.startSector = next, next += ceilDiv(e.data.size(), sectorSize);

  std::string f(sectorOffset(next), '\0');
  const uint8_t sig[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  f.replace(0, 8, reinterpret_cast<const char*>(sig), 8);
  const uint32_t header[][3] = {
      // offset, value, width
      {24, 0x3E, 2},     {26, majorVersion, 2},
      {28, 0xFFFE, 2},   {30, sectorShift, 2},
      {32, 6, 2},        {40, majorVersion == 4 ? nDir : 0, 4},
      {44, nFat, 4},     {48, directorySectors[0], 4},
      {56, kCutoff, 4},  {60, nMiniFat ? miniFatSectors[0] : kEnd, 4},
      {64, nMiniFat, 4}, {68, nDifat ? difatSectors[0] : kEnd, 4},
      {72, nDifat, 4}};
  for (const auto& h : header) gxPutU32(f, h[0], h[1], int(h[2]));
  for (uint32_t i = 0; i < 109; ++i)
    gxPutU32(f, 76 + 4 * i, i < nFat ? fatSectors[i] : kNone);
  // DIFAT sectors: the FAT sectors after the first 109, then the next link.
  for (uint32_t d = 0; d < nDifat; ++d) {
    uint64_t at = sectorOffset(difatSectors[d]);
    for (uint32_t k = 0; k + 1 < perSector; ++k) {
      uint32_t i = 109 + d * (perSector - 1) + k;
      gxPutU32(f, at + 4 * k, i < nFat ? fatSectors[i] : kNone);
    }
    gxPutU32(f, at + 4 * (perSector - 1),
             d + 1 < nDifat ? difatSectors[d + 1] : kEnd);
  }
  // Stream data and its chains, each in its own range of the mini stream or
  // of sectors, in order.
  std::vector<uint32_t> miniFat(size_t(nMiniFat) * perSector, kNone);
  for (Entry& e : entries) {
    if (e.type != 2 || e.data.empty()) continue;
    const bool small = e.data.size() < kCutoff;
    const uint32_t unit = small ? kMiniSize : sectorSize;
    const uint64_t at = small ? sectorOffset(miniStreamSectors[0]) : unit;
    const uint32_t count = ceilDiv(e.data.size(), unit);
    for (uint32_t i = 0; i < count; ++i) {
      (small ? miniFat : fat)[e.startSector + i] =
          i + 1 < count ? e.startSector + i + 1 : kEnd;
      const std::string part = e.data.substr(uint64_t(i) * unit, unit);
      f.replace(at + uint64_t(e.startSector + i) * unit, part.size(), part);
    }
  }
  for (uint32_t s = 0; s < fat.size(); ++s)
    gxPutU32(f, fatEntryOffset(s), fat[s]);
  for (uint32_t m = 0; m < miniFat.size(); ++m)
    gxPutU32(f, sectorOffset(miniFatSectors[0]) + 4 * m, miniFat[m]);
  // Directory: unused slots have type 0 and no links.
  for (uint32_t n = 0; n < nDir * (sectorSize / 128); ++n) {
    uint64_t at = entryOffset(n);
    Entry e{u"", 0, kNone, kNone, kNone, "", 0};
    if (n < entries.size()) e = entries[n];
    size_t units = std::min<size_t>(e.name.size(), 32);
    for (size_t i = 0; i < units; ++i) gxPutU32(f, at + 2 * i, e.name[i], 2);
    if (units)
      gxPutU32(f, at + 64, uint32_t(std::min<size_t>(units + 1, 32) * 2), 2);
    f[at + 66] = static_cast<char>(e.type);
    f[at + 67] = n == 0 ? 0 : 1;
    gxPutU32(f, at + 68, e.left);
    gxPutU32(f, at + 72, e.right);
    gxPutU32(f, at + 76, e.child);
    gxPutU32(f, at + 116, e.startSector);
    uint64_t size = n == 0 ? miniStreamLength : e.data.size();
    gxPutU32(f, at + 120, static_cast<uint32_t>(size));
    gxPutU32(f, at + 124, static_cast<uint32_t>(size >> 32));
  }
  return f;
}
