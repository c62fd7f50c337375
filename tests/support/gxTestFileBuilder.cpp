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

void gxPutU32(std::string& f, uint64_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) f[at + i] = static_cast<char>(v >> (8 * i));
}
void gxPutU16(std::string& f, uint64_t at, uint16_t v) {
  for (int i = 0; i < 2; ++i) f[at + i] = static_cast<char>(v >> (8 * i));
}
uint32_t gxGetU32(const std::string& f, uint64_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(f[at + i]);
  return v;
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
  Entry e;
  e.name = name;
  e.type = type;
  e.data = std::move(data);
  entries.push_back(std::move(e));
  lastChild_.push_back(kNone);
  if (lastChild_[parent] == kNone)
    entries[parent].child = n;
  else
    entries[lastChild_[parent]].right = n;
  lastChild_[parent] = n;
  return n;
}

uint32_t gxTestFileBuilder::addStorage(uint32_t parent,
                                       const std::u16string& name) {
  return add(parent, name, 1, std::string());
}

uint32_t gxTestFileBuilder::addStream(uint32_t parent,
                                      const std::u16string& name,
                                      std::string data) {
  return add(parent, name, 2, std::move(data));
}

uint64_t gxTestFileBuilder::sectorOffset(uint32_t s) const {
  return (static_cast<uint64_t>(s) + 1) << sectorShift;
}

uint64_t gxTestFileBuilder::entryOffset(uint32_t n) const {
  uint32_t perSector = sectorSize / 128;
  return sectorOffset(directorySectors[n / perSector]) + (n % perSector) * 128;
}

uint64_t gxTestFileBuilder::fatEntryOffset(uint32_t s) const {
  uint32_t perSector = sectorSize / 4;
  return sectorOffset(fatSectors[s / perSector]) + (s % perSector) * 4;
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
  auto chain = [&](uint32_t count, std::vector<uint32_t>* out) {
    uint32_t first = count ? next : kEnd;
    for (uint32_t i = 0; i < count; ++i, ++next) {
      fat[next] = i + 1 < count ? next + 1 : kEnd;
      if (out) out->push_back(next);
    }
    return first;
  };
  fatSectors.clear();
  difatSectors.clear();
  directorySectors.clear();
  miniFatSectors.clear();
  miniStreamSectors.clear();
  for (uint32_t i = 0; i < nFat; ++i, ++next) {
    fat[next] = kFatMark;
    fatSectors.push_back(next);
  }
  for (uint32_t i = 0; i < nDifat; ++i, ++next) {
    fat[next] = kDifatMark;
    difatSectors.push_back(next);
  }
  chain(nDir, &directorySectors);
  chain(nMiniFat, &miniFatSectors);
  entries[0].startSector = chain(nMini, &miniStreamSectors);
  metadataEnd = sectorOffset(next - 1) + sectorSize;
  if (nMini != 0)
    metadataEnd -= uint64_t(nMini) * sectorSize - miniStreamLength;
  for (Entry& e : entries)
    if (e.type == 2 && e.data.size() >= kCutoff)
      e.startSector = chain(ceilDiv(e.data.size(), sectorSize), nullptr);

  std::string f(sectorOffset(next), '\0');
  // Header.
  const uint8_t sig[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  for (int i = 0; i < 8; ++i) f[i] = static_cast<char>(sig[i]);
  gxPutU16(f, 24, 0x3E);
  gxPutU16(f, 26, majorVersion);
  gxPutU16(f, 28, 0xFFFE);
  gxPutU16(f, 30, sectorShift);
  gxPutU16(f, 32, 6);
  gxPutU32(f, 40, majorVersion == 4 ? nDir : 0);
  gxPutU32(f, 44, nFat);
  gxPutU32(f, 48, directorySectors[0]);
  gxPutU32(f, 56, kCutoff);
  gxPutU32(f, 60, nMiniFat ? miniFatSectors[0] : kEnd);
  gxPutU32(f, 64, nMiniFat);
  gxPutU32(f, 68, nDifat ? difatSectors[0] : kEnd);
  gxPutU32(f, 72, nDifat);
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
  for (uint32_t s = 0; s < fat.size(); ++s)
    gxPutU32(f, fatEntryOffset(s), fat[s]);
  // Directory: unused slots have type 0 and no links.
  for (uint32_t n = 0; n < nDir * (sectorSize / 128); ++n) {
    uint64_t at = entryOffset(n);
    if (n >= entries.size()) {
      for (int k = 68; k < 80; k += 4) gxPutU32(f, at + k, kNone);
      continue;
    }
    const Entry& e = entries[n];
    size_t units = std::min<size_t>(e.name.size(), 32);
    for (size_t i = 0; i < units; ++i) gxPutU16(f, at + 2 * i, e.name[i]);
    gxPutU16(f, at + 64,
             static_cast<uint16_t>(std::min<size_t>(units + 1, 32) * 2));
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
  // MiniFAT, mini stream and large stream data.
  for (const Entry& e : entries) {
    if (e.type != 2 || e.data.empty()) continue;
    bool small = e.data.size() < kCutoff;
    uint32_t unit = small ? kMiniSize : sectorSize;
    for (uint32_t i = 0, s = e.startSector; i * unit < e.data.size(); ++i) {
      uint32_t n = std::min<uint32_t>(unit, e.data.size() - i * unit);
      uint32_t link = (i + 1) * unit < e.data.size() ? s + 1 : kEnd;
      uint64_t at;
      if (small) {
        uint64_t pos = uint64_t(s) * kMiniSize;
        at = sectorOffset(miniStreamSectors[pos / sectorSize]) +
             pos % sectorSize;
        gxPutU32(
            f,
            sectorOffset(miniFatSectors[s / perSector]) + 4 * (s % perSector),
            link);
      } else {
        at = sectorOffset(s);
      }
      f.replace(at, n, e.data, i * unit, n);
      s = link;
    }
  }
  // Unused MiniFAT entries are free.
  for (uint32_t m = miniSectors; m < nMiniFat * perSector; ++m)
    gxPutU32(f,
             sectorOffset(miniFatSectors[m / perSector]) + 4 * (m % perSector),
             kNone);
  return f;
}
