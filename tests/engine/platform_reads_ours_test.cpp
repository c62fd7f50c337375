// The platform's own structured-storage service reads every file we write:
// opened with StgOpenStorage, enumerated and read in full, each file must
// show exactly the tree and bytes that the round-trip writer put into it.
#ifdef _WIN32
#include <gtest/gtest.h>
#include <objbase.h>
#include <objidl.h>

#include <filesystem>
#include <random>

#include "support/gxRoundTrip.h"

namespace {

void readPlatform(IStorage* storage, const std::u16string& prefix,
                  gxRtTree& tree) {
  IEnumSTATSTG* e = nullptr;
  ASSERT_EQ(storage->EnumElements(0, nullptr, 0, &e), S_OK);
  STATSTG st;
  const DWORD mode = STGM_READ | STGM_SHARE_EXCLUSIVE;
  while (e->Next(1, &st, nullptr) == S_OK) {
    const std::u16string name(reinterpret_cast<const char16_t*>(st.pwcsName));
    const std::u16string path = prefix.empty() ? name : prefix + u"/" + name;
    IStorage* child = nullptr;
    IStream* s = nullptr;
    std::string data(static_cast<size_t>(st.cbSize.QuadPart), '\0');
    ULONG got = 0;
    if (st.type == STGTY_STORAGE) {
      EXPECT_EQ(storage->OpenStorage(st.pwcsName, nullptr, mode, nullptr, 0,
                                     &child),
                S_OK);
      if (child != nullptr) readPlatform(child, path, tree), child->Release();
    } else {
      EXPECT_EQ(st.type, static_cast<DWORD>(STGTY_STREAM));
      // Opening by name also checks that the children tree is ordered the
      // way the platform searches it.
      EXPECT_EQ(storage->OpenStream(st.pwcsName, nullptr, mode, 0, &s), S_OK);
      if (s != nullptr && !data.empty()) s->Read(&data[0], ULONG(data.size()), &got);
      if (s != nullptr) s->Release();
    }
    data.resize(got);
    tree[path] = {st.type == STGTY_STORAGE, data};
    CoTaskMemFree(st.pwcsName);
  }
  e->Release();
}

}  // namespace

TEST(PlatformReadsOursTest, StgOpenStorageSeesTreeAndBytesWritten) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-plat-" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  for (const auto& [file, tree] : gxWriteRoundTripFiles(dir.u16string())) {
    SCOPED_TRACE(fs::path(file).filename().string());
    IStorage* root = nullptr;
    ASSERT_EQ(
        StgOpenStorage(reinterpret_cast<const WCHAR*>(file.c_str()), nullptr,
                       STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, &root),
        S_OK);
    gxRtTree seen;
    readPlatform(root, u"", seen);
    root->Release();
    gxExpectSameTree(seen, tree);
  }
  fs::remove_all(dir);
}
#endif  // _WIN32
