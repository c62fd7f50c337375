// Files written by an independent implementation, the platform's own
// structured storage (Wine's ole32 under Wine): version 3 and version 4
// files must load with every name, size and data chain right. Small ones are
// kept in tests/data so the native leg reads them too.
#include <gtest/gtest.h>

#include <cstdlib>

#include "support/gxRoundTrip.h"

#ifdef _WIN32
#include <objbase.h>
#endif

namespace {

gxRtTree sampleTree(int children, bool large) {
  const uint32_t kStorage = 0xFFFFFFFFu;
  std::vector<std::pair<std::u16string, uint32_t>> t = {
      {u"Docs", kStorage},        {u"Docs/Inner", kStorage},
      {u"Docs/Inner/deep", 100},  {u"Docs/empty", 0},
      {u"Docs/below cutoff", 4095}, {u"Docs/Cutoff", 4096},
      {u"Many", kStorage},        {u"A name of thirty-one units long", 65},
      {u"notes", 3}};
  for (int i = 0; i < children; ++i)
    t.push_back({u"Many/c" + std::u16string{char16_t(u'A' + i % 26),
                                            char16_t(u'a' + i / 26)},
                 uint32_t(i * 37)});
  if (large) t.push_back({u"Docs/big", 7500000});
  gxRtTree tree;
  for (const auto& [path, size] : t) {
    std::string s(size == kStorage ? 0 : size, '\0');
    for (size_t i = 0; i < s.size(); ++i)
      s[i] = char(i * 31 + path.size() + i / 4096);
    tree[path] = {size == kStorage, s};
  }
  return tree;
}

void checkFile(const std::string& path, int version, const gxRtTree& tree) {
  SCOPED_TRACE(path);
  uint32_t sectorSize = 0;
  gxExpectSameTree(gxReadOurs(std::u16string(path.begin(), path.end()),
                              &sectorSize),
                   tree);
  EXPECT_EQ(version == 4 ? 4096u : 512u, sectorSize);
}

TEST(PlatformFiles, CommittedFixturesLoadWithTheirTree) {
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v3.cfb", 3, sampleTree(12, false));
  checkFile(GXSTORAGE_TEST_DATA_DIR "/ole32_v4.cfb", 4, sampleTree(12, false));
}

#ifdef _WIN32
// Writes `tree` with the platform's structured storage, as a version 3 file
// or a version 4 file with 4096-byte sectors. Parents sort before children.
void writeWithPlatform(const std::string& path, int version,
                       const gxRtTree& tree) {
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
  for (const auto& [path, value] : tree) {
    const size_t slash = path.rfind(u'/');
    IStorage* parent = storages[slash == path.npos ? u"" : path.substr(0, slash)];
    auto name = reinterpret_cast<const wchar_t*>(path.c_str() + slash + 1);
    if (value.first) {
      ASSERT_EQ(S_OK, parent->CreateStorage(name, mode, 0, 0, &storages[path]));
      continue;
    }
    IStream* s = nullptr;
    ASSERT_EQ(S_OK, parent->CreateStream(name, mode, 0, 0, &s));
    EXPECT_EQ(S_OK, s->Write(value.second.data(), ULONG(value.second.size()),
                             nullptr));
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
