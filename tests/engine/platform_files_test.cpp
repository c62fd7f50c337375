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

// One element of the sample tree; '/' separates the storages of a path.
struct Item {
  std::u16string path;
  bool storage;
  uint32_t size;
};

std::vector<Item> sampleTree(int children, bool large) {
  std::vector<Item> v = {{u"Docs", true, 0},
                         {u"Docs/Inner", true, 0},
                         {u"Docs/Inner/deep", false, 100},
                         {u"Docs/empty", false, 0},
                         {u"Docs/below cutoff", false, 4095},
                         {u"Docs/Cutoff", false, 4096},
                         {u"Many", true, 0},
                         {u"A name of thirty-one units long", false, 65},
                         {u"notes", false, 3}};
  for (int i = 0; i < children; ++i)
    v.push_back({u"Many/c" + std::u16string(1, char16_t(u'A' + i % 26)) +
                     std::u16string(1, char16_t(u'a' + i / 26)),
                 false, uint32_t(i * 37)});
  if (large) v.push_back({u"Docs/big", false, 7500000});
  return v;
}

std::string pattern(const Item& item) {
  std::string s(item.size, '\0');
  for (size_t i = 0; i < s.size(); ++i)
    s[i] = static_cast<char>(i * 31 + item.path.size() + i / 4096);
  return s;
}

// Reads a stream's data through the engine's tables, the way a reader
// follows the chains; every step is bounded by the stream's size.
std::string readData(gxdCompoundFile& f, const gxdDirEntry& e) {
  std::string out;
  uint32_t s = e.startSector;
  if (e.size < f.header.miniStreamCutoff) {
    while (out.size() < e.size) {
      size_t at = size_t(s) * f.miniSectorSize;
      if (s >= f.miniFat.size() || at >= f.miniStream.size()) return "bad";
      out.append(f.miniStream.begin() + at,
                 f.miniStream.begin() +
                     std::min(f.miniStream.size(), at + f.miniSectorSize));
      s = f.miniFat[s];
    }
  } else {
    std::string sector(f.sectorSize, '\0');
    for (uint64_t n = 0; out.size() < e.size; ++n) {
      if (s >= f.fat.size() || n > e.size / f.sectorSize) return "bad";
      f.fileStream->seekg(
          std::streamoff((uint64_t(s) + 1) << f.header.sectorShift));
      f.fileStream->read(&sector[0], f.sectorSize);
      out.append(sector, 0, size_t(f.fileStream->gcount()));
      s = f.fat[s];
    }
  }
  out.resize(e.size);
  return out;
}

size_t countEntries(const gxdStorageEntry& e) {
  size_t n = e.streams.size();
  for (const auto& s : e.storages) n += 1 + countEntries(s);
  return n;
}

// Loads `path` and checks its whole tree against `items`.
void checkFile(const std::string& path, int version,
               const std::vector<Item>& items) {
  SCOPED_TRACE(path);
  std::fstream stream(path, std::ios::in | std::ios::binary);
  ASSERT_TRUE(stream.is_open());
  gxdCompoundFile f(&stream, nullptr, true);
  ASSERT_FALSE(stream.fail());
  EXPECT_EQ(version == 4 ? 4096 : 512, f.sectorSize);
  EXPECT_EQ(items.size(), countEntries(f.rootEntry));
  for (const Item& item : items) {
    SCOPED_TRACE(std::string(item.path.begin(), item.path.end()));
    gxdStorageEntry parent = f.rootEntry;
    size_t from = 0, slash;
    while ((slash = item.path.find(u'/', from)) != std::u16string::npos) {
      gxdStorageEntry child;
      child.name = item.path.substr(from, slash - from);
      ASSERT_TRUE(f.findOrAddStorage(&parent, child, false));
      parent = child;
      from = slash + 1;
    }
    gxdStorageEntry st;
    gxdDirEntry sm;
    st.name = sm.name = item.path.substr(from);
    EXPECT_EQ(item.storage, f.findOrAddStorage(&parent, st, false));
    EXPECT_EQ(!item.storage, f.findOrAddStream(&parent, sm, false));
    if (!item.storage) {
      EXPECT_EQ(item.size, sm.size);
      EXPECT_TRUE(readData(f, sm) == pattern(item));
      stream.clear();
    }
  }
}

TEST(PlatformFiles, CommittedFixturesLoadWithTheirTree) {
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v3.cfb", 3, sampleTree(12, false));
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v4.cfb", 4, sampleTree(12, false));
}

#ifdef _WIN32
// Writes `items` with the platform's structured storage, as a version 3 file
// or a version 4 file with 4096-byte sectors.
void writeWithPlatform(const std::string& path, int version,
                       const std::vector<Item>& items) {
  std::wstring wpath(path.begin(), path.end());
  const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
  IStorage* root = nullptr;
  if (version == 3) {
    ASSERT_EQ(S_OK, StgCreateDocfile(wpath.c_str(), mode, 0, &root));
  } else {
    STGOPTIONS options = {};
    options.usVersion = 1;
    options.ulSectorSize = 4096;
    ASSERT_EQ(S_OK, StgCreateStorageEx(wpath.c_str(), mode, STGFMT_DOCFILE, 0,
                                       &options, nullptr, IID_IStorage,
                                       reinterpret_cast<void**>(&root)));
  }
  std::map<std::u16string, IStorage*> storages = {{u"", root}};
  for (const Item& item : items) {
    size_t slash = item.path.rfind(u'/');
    std::u16string dir =
        slash == std::u16string::npos ? u"" : item.path.substr(0, slash);
    std::u16string name =
        item.path.substr(slash == std::u16string::npos ? 0 : slash + 1);
    const wchar_t* wname = reinterpret_cast<const wchar_t*>(name.c_str());
    if (item.storage) {
      IStorage* child = nullptr;
      ASSERT_EQ(S_OK, storages[dir]->CreateStorage(wname, mode, 0, 0, &child));
      storages[item.path] = child;
      continue;
    }
    IStream* s = nullptr;
    ASSERT_EQ(S_OK, storages[dir]->CreateStream(wname, mode, 0, 0, &s));
    std::string data = pattern(item);
    ULONG written = 0;
    EXPECT_EQ(S_OK, s->Write(data.data(), ULONG(data.size()), &written));
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
      std::vector<Item> items = sampleTree(large ? 300 : 12, large);
      std::string path = large ? "platform_large_v"
                         : out ? std::string(out) + "/ole32_v"
                               : "ole32_v";
      path += std::to_string(version) + ".cfb";
      writeWithPlatform(path, version, items);
      checkFile(path, version, items);
    }
  }
}
#endif

}  // namespace
