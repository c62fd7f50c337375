// Files written by an independent implementation, the platform's own
// structured storage (Wine's ole32 under Wine): version 3 and version 4
// files must load with every name, size and data chain right. Small ones are
// kept in tests/data so the native leg reads them too.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>

#include "engine/gxdCompoundFile.h"

#ifdef _WIN32
#include <objbase.h>
#endif

namespace {

// The sample tree; '/' separates storages; size 0xFFFFFFFF marks a storage.
using Tree = std::vector<std::pair<std::u16string, uint32_t>>;
constexpr uint32_t kStorage = 0xFFFFFFFFu;

Tree sampleTree(int children, bool large) {
  Tree t = {{u"Docs", kStorage},
            {u"Docs/Inner", kStorage},
            {u"Docs/Inner/deep", 100},
            {u"Docs/empty", 0},
            {u"Docs/below cutoff", 4095},
            {u"Docs/Cutoff", 4096},
            {u"Many", kStorage},
            {u"A name of thirty-one units long", 65},
            {u"notes", 3}};
  for (int i = 0; i < children; ++i)
    t.push_back({u"Many/c" + std::u16string{char16_t(u'A' + i % 26),
                                            char16_t(u'a' + i / 26)},
                 uint32_t(i * 37)});
  if (large) t.push_back({u"Docs/big", 7500000});
  return t;
}

std::string pattern(const std::u16string& path, uint32_t size) {
  std::string s(size, '\0');
  for (size_t i = 0; i < s.size(); ++i)
    s[i] = char(i * 31 + path.size() + i / 4096);
  return s;
}

// A stream's data through the engine's tables, following its chain the way a
// reader does; every walk is bounded by the stream's size.
std::string readData(gxdCompoundFile& f, const gxdDirEntry& e) {
  std::string out, sector(f.sectorSize, '\0');
  uint32_t s = e.startSector;
  for (uint64_t n = 0; out.size() < e.size; ++n) {
    if (e.size < f.header.miniStreamCutoff) {
      size_t at = size_t(s) * f.miniSectorSize;
      if (s >= f.miniFat.size() || at >= f.miniStream.size()) return "bad";
      out.append(f.miniStream.begin() + at,
                 f.miniStream.begin() +
                     std::min(f.miniStream.size(), at + f.miniSectorSize));
      s = f.miniFat[s];
      continue;
    }
    if (s >= f.fat.size() || n > e.size / f.sectorSize) return "bad";
    f.fileStream->seekg(
        std::streamoff((uint64_t(s) + 1) << f.header.sectorShift));
    f.fileStream->read(&sector[0], f.sectorSize);
    out.append(sector, 0, size_t(f.fileStream->gcount()));
    s = f.fat[s];
  }
  out.resize(e.size);
  return out;
}

size_t countEntries(const gxdStorageEntry& e) {
  size_t n = e.streams.size();
  for (const auto& s : e.storages) n += 1 + countEntries(s);
  return n;
}

// Loads `path` and checks its whole tree against `tree`.
void checkFile(const std::string& path, int version, const Tree& tree) {
  SCOPED_TRACE(path);
  std::fstream stream(path, std::ios::in | std::ios::binary);
  ASSERT_TRUE(stream.is_open());
  gxdCompoundFile f(&stream, nullptr, true);
  ASSERT_FALSE(stream.fail());
  EXPECT_EQ(version == 4 ? 4096 : 512, f.sectorSize);
  EXPECT_EQ(tree.size(), countEntries(f.rootEntry));
  for (const auto& [path, size] : tree) {
    SCOPED_TRACE(std::string(path.begin(), path.end()));
    gxdStorageEntry parent = f.rootEntry, st;
    size_t from = 0, slash;
    for (; (slash = path.find(u'/', from)) != std::u16string::npos;
         from = slash + 1) {
      gxdStorageEntry child;
      child.name = path.substr(from, slash - from);
      ASSERT_TRUE(f.findOrAddStorage(&parent, child, false));
      parent = child;
    }
    gxdDirEntry sm;
    st.name = sm.name = path.substr(from);
    EXPECT_EQ(size == kStorage, f.findOrAddStorage(&parent, st, false));
    if (size != kStorage) {
      ASSERT_TRUE(f.findOrAddStream(&parent, sm, false));
      EXPECT_EQ(size, sm.size);
      EXPECT_TRUE(readData(f, sm) == pattern(path, size));
      stream.clear();
    }
  }
}

TEST(PlatformFiles, CommittedFixturesLoadWithTheirTree) {
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v3.cfb", 3, sampleTree(12, false));
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v4.cfb", 4, sampleTree(12, false));
}

#ifdef _WIN32
// Writes `tree` with the platform's structured storage, as a version 3 file
// or a version 4 file with 4096-byte sectors.
void writeWithPlatform(const std::string& path, int version, const Tree& tree) {
  std::wstring wpath(path.begin(), path.end());
  const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
  STGOPTIONS options = {};
  options.usVersion = 1;
  options.ulSectorSize = 4096;
  IStorage* root = nullptr;
  ASSERT_EQ(S_OK, version == 3
                      ? StgCreateDocfile(wpath.c_str(), mode, 0, &root)
                      : StgCreateStorageEx(wpath.c_str(), mode, STGFMT_DOCFILE,
                                           0, &options, nullptr, IID_IStorage,
                                           reinterpret_cast<void**>(&root)));
  std::map<std::u16string, IStorage*> storages = {{u"", root}};
  for (const auto& [path, size] : tree) {
    size_t slash = path.rfind(u'/'),
           cut = slash == std::u16string::npos ? 0 : slash;
    IStorage* parent = storages[path.substr(0, cut)];
    auto name =
        reinterpret_cast<const wchar_t*>(path.c_str() + (cut ? cut + 1 : 0));
    if (size == kStorage) {
      ASSERT_EQ(S_OK, parent->CreateStorage(name, mode, 0, 0, &storages[path]));
      continue;
    }
    IStream* s = nullptr;
    ASSERT_EQ(S_OK, parent->CreateStream(name, mode, 0, 0, &s));
    std::string data = pattern(path, size);
    EXPECT_EQ(S_OK, s->Write(data.data(), ULONG(data.size()), nullptr));
    s->Release();
  }
  for (auto it = storages.rbegin(); it != storages.rend(); ++it) {
    EXPECT_EQ(S_OK, it->second->Commit(STGC_DEFAULT));
    it->second->Release();
  }
}

// GXSTORAGE_FIXTURE_OUT names a directory to write the small files into, to
// refresh the committed fixtures.
TEST(PlatformFiles, FilesWrittenByThePlatformLoadWithTheirTree) {
  const char* out = std::getenv("GXSTORAGE_FIXTURE_OUT");
  for (int version : {3, 4}) {
    for (bool large : {false, true}) {
      std::string path = large ? "platform_large_v"
                         : out ? std::string(out) + "/ole32_v"
                               : "ole32_v";
      path += std::to_string(version) + ".cfb";
      writeWithPlatform(path, version, sampleTree(large ? 300 : 12, large));
      checkFile(path, version, sampleTree(large ? 300 : 12, large));
    }
  }
}
#endif

}  // namespace
