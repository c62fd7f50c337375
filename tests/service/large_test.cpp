// Files large enough that the FAT outgrows the header's slots: streams
// written in direct mode through many table switches, with a stream
// destroyed on the way, must read back everywhere, and a disk that stops
// working at any point must leave a file that loads with every stream a
// prefix of what was written to it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "service/gxsTreeWalk.h"
#include "support/gxMemoryFile.h"

namespace {

constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Appends seeded chunks to three streams, 12 MiB in all, destroying "b"
// halfway; `written` receives everything each stream was given.
HRESULT grow(IStorage* root, gxRtTree& written) {
  const std::u16string names[] = {u"a", u"b", u"c"};
  std::mt19937 rng(7);
  IStream* s[3] = {};
  HRESULT hr = S_OK;
  for (int i = 0; i < 3 && hr == S_OK; ++i)
    hr = root->CreateStream(gxsOle(names[i]), kRW, 0, 0, &s[i]);
  for (uint64_t total = 0; hr == S_OK && total < (12u << 20);) {
    const int i = static_cast<int>(rng() % 3);
    if (s[i] == nullptr) continue;
    std::string chunk(rng() % (192u << 10) + 1, char('a' + rng() % 26));
    written[names[i]].second += chunk;
    total += chunk.size();
    hr = s[i]->Write(chunk.data(), static_cast<ULONG>(chunk.size()), nullptr);
    if (hr == S_OK && total > (6u << 20) && s[1] != nullptr) {
      s[1]->Release(), s[1] = nullptr;
      hr = root->DestroyElement(gxsOle(u"b"));
    }
  }
  for (IStream* one : s)
    if (one != nullptr) one->Release();
  return hr;
}

// The tree of the file in `bytes`, as the service reads it.
gxRtTree treeOf(const std::shared_ptr<gxMemoryBytes>& bytes) {
  gxRtTree tree;
  IStorage* root = nullptr;
  EXPECT_EQ(gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes), kRW, &root),
            S_OK);
  if (root == nullptr) return tree;
  EXPECT_EQ(gxsWalk(root, u"", tree), S_OK);
  root->Release();
  return tree;
}

}  // namespace

TEST(ServiceLargeFiles, GrowthPastTheHeaderSlotsReadsBackAndSurvivesCuts) {
  auto base = std::make_shared<gxMemoryBytes>();
  IStorage* root = nullptr;
  ASSERT_EQ(gxsStgCreateOnFile(std::make_unique<gxMemoryFile>(base),
                               kRW | STGM_CREATE, &root),
            S_OK);
  IStream* keep = nullptr;
  ASSERT_EQ(root->CreateStream(gxsOle(u"keep"), kRW, 0, 0, &keep), S_OK);
  ASSERT_EQ(keep->Write("kept", 4, nullptr), S_OK);
  keep->Release();
  root->Release();

  auto whole = std::make_shared<gxMemoryBytes>(*base);
  gxRtTree written = {{u"keep", {false, "kept"}}};
  ASSERT_EQ(gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(whole), kRW, &root),
            S_OK);
  ASSERT_EQ(grow(root, written), S_OK);
  root->Release();
  ASSERT_GT(whole->bytes[72], 0) << "the FAT needs a DIFAT sector";
  written.erase(u"b");
  EXPECT_TRUE(treeOf(whole) == written);
#ifndef _WIN32
  const auto path = std::filesystem::temp_directory_path() / "gx-large.cfb";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(whole->bytes.data()),
             static_cast<std::streamsize>(whole->bytes.size()));
  gxExpectOlefileReads(path, written);
  std::filesystem::remove(path);
#endif

  // The disk stops at change n: every stream that is left reads as a
  // prefix of what it was given, and "keep" is untouched.
  for (long n = 3; n < whole->changes; n += whole->changes / 6 + 1) {
    SCOPED_TRACE(n);
    auto cut = std::make_shared<gxMemoryBytes>(*base);
    cut->changesLeft = n;
    gxRtTree given = {{u"keep", {false, "kept"}}};
    ASSERT_EQ(gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(cut), kRW, &root),
              S_OK);
    grow(root, given);
    root->Release();
    EXPECT_GT(cut->failed, 0);
    cut->changesLeft = -1;
    const gxRtTree seen = treeOf(cut);
    EXPECT_EQ(seen.count(u"keep"), 1u);
    for (const auto& [name, element] : seen)
      EXPECT_EQ(element.second,
                given[name].second.substr(0, element.second.size()))
          << std::string(name.begin(), name.end());
  }
}
