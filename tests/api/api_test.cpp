// The library as an application sees it: the exported header only, linked
// to the shared library. Entry functions on both backends, a whole tree
// written and read back, and the self-test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gxStorage.h"
#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace {

const unsigned short* units(const char16_t* s) {
  return reinterpret_cast<const unsigned short*>(s);
}

CGxAbsStorage* const kJunk = reinterpret_cast<CGxAbsStorage*>(0x10);

TEST(Api, EntryFunctionsRefuseMissingAndForeignFiles) {
  std::remove("api_test_missing.gxw");
  std::ofstream("api_test_text.gxw") << std::string(2048, 'z');
  for (bool portable : {true, false}) {
    for (const char16_t* path :
         {u"api_test_missing.gxw", u"api_test_text.gxw"}) {
      SCOPED_TRACE(std::string(portable ? "portable " : "platform ") +
                   (path[9] == u'm' ? "missing" : "not compound"));
      CGxAbsStorage* root = kJunk;
      const gxResult result =
          gxStgOpenStorage(units(path), 0x12, &root, portable);
      EXPECT_LT(result, 0);
      EXPECT_EQ(root, nullptr);  // whatever it held before
#ifdef _WIN32
      const gxResult platform =
          path[9] == u'm' ? GX_STG_E_FILENOTFOUND : GX_STG_E_FILEALREADYEXISTS;
#else
      const gxResult platform =
          GX_E_NOTIMPL;  // no platform service on this host
#endif
      EXPECT_EQ(result, portable ? GX_E_FAIL : platform);
    }
    CGxAbsStorage* root = kJunk;
    const gxResult result = gxStgCreateStorage(units(u"api_no_such_dir/x.gxw"),
                                               0x1012, &root, portable);
    EXPECT_LT(result, 0);
    EXPECT_EQ(root, nullptr);
#ifndef _WIN32
    root = kJunk;
    EXPECT_EQ(
        gxStgCreateStorage(units(u"api_test_new.gxw"), 0x1012, &root, false),
        GX_E_NOTIMPL);
    EXPECT_EQ(root, nullptr);
#endif
  }
  gxStgCloseStorage(nullptr);
}

std::vector<char> pattern(size_t n) {
  std::vector<char> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(i * 7 + (i >> 9));
  return out;
}

// Creates dir/data (large) and small, commits, closes, reopens, reads back.
void roundTrip(const char16_t* path, bool portable) {
  CGxAbsStorage *root = nullptr, *dir = nullptr;
  CGxAbsStream *data = nullptr, *small = nullptr;
  ASSERT_EQ(gxStgCreateStorage(units(path), 0x1012, &root, portable), GX_S_OK);
  ASSERT_EQ(root->openIStorage(units(u"dir"), false, &dir), GX_S_OK);
  ASSERT_EQ(dir->openIStream(units(u"data"), false, &data), GX_S_OK);
  ASSERT_EQ(root->openIStream(units(u"small"), false, &small), GX_S_OK);
  CGxAbsStorage* same = nullptr;
  EXPECT_EQ(root->openIStorage(units(u"dir"), false, &same),
            GX_S_OK);  // cached
  EXPECT_EQ(same, dir);
  CGxAbsStream *copy = nullptr, *copy2 = nullptr;
  ASSERT_TRUE(small->clone(&copy) &&
              copy->clone(&copy2));  // go with their maker
  const std::vector<char> bytes = pattern(10000);
  unsigned long long done = 0;
  for (size_t at = 0; at < bytes.size(); at += 999) {
    data->write(&bytes[at], std::min<size_t>(999, bytes.size() - at), &done);
    ASSERT_GT(done, 0u);
  }
  small->write("hello", 5, nullptr);
  root->commit();
  gxStgCloseStorage(root);

  root = nullptr;
  ASSERT_EQ(gxStgOpenStorage(units(path), 0x12, &root, portable), GX_S_OK);
  ASSERT_EQ(root->openIStorage(units(u"dir"), true, &dir), GX_S_OK);
  ASSERT_EQ(dir->openIStream(units(u"data"), true, &data), GX_S_OK);
  ASSERT_EQ(root->openIStream(units(u"small"), true, &small), GX_S_OK);
  if (portable) {  // exact, case-sensitive names; the platform folds case
    EXPECT_EQ(root->openIStorage(units(u"DIR"), true, &same),
              GX_STG_E_FILENOTFOUND);
    EXPECT_EQ(same, nullptr);
  }
  std::vector<char> back(bytes.size() + 1000);
  size_t got = 0;
  do {
    data->read(&back[got], 777, &done);
    got += done;
  } while (done > 0 && got + 777 <= back.size());
  back.resize(got);
  EXPECT_TRUE(back == bytes);
  gxdsSTATSTG info;
  uint32_t low = 0, high = 0;
  ASSERT_TRUE(data->stat(&info));
  info.size(low, high);
  EXPECT_TRUE(low == 10000 && high == 0 && info.type() == GX_STGTY_STREAM);
  ASSERT_TRUE(dir->stat(&info));
  EXPECT_EQ(info.type(), GX_STGTY_STORAGE);
  dir->commit();  // a child commits nothing
  char five[8] = {};
  small->read(five, sizeof(five), &done);
  EXPECT_EQ(std::string(five, done), "hello");
  EXPECT_FALSE(dir->release());
  EXPECT_TRUE(root->release());
}

TEST(Api, TreeRoundTrip) {
  SCOPED_TRACE("portable");
  roundTrip(u"api_test_portable_\u00e9\u4e2d.gxw", true);
#ifdef _WIN32
  SCOPED_TRACE("platform");
  roundTrip(u"api_test_platform_\u00e9\u4e2d.gxw", false);
#endif
}

TEST(Api, SelfTestWithAndWithoutItsFile) {
#ifdef _WIN32
  EXPECT_NE(GetProcAddress(GetModuleHandleA("gxStorage.dll"), "gxdStorageTest"),
            nullptr);
#else
  EXPECT_NE(dlsym(RTLD_DEFAULT, "gxdStorageTest"), nullptr);  // plain name
#endif
  std::remove("FF430_1.gxw");
  gxdStorageTest();
  CGxAbsStorage* root = nullptr;
  CGxAbsStream* s = nullptr;
  ASSERT_EQ(gxStgCreateStorage(units(u"FF430_1.gxw"), 0x1012, &root, true),
            GX_S_OK);
  ASSERT_EQ(root->openIStream(units(u"s"), false, &s), GX_S_OK);
  s->write("x", 1, nullptr);
  root->commit();
  gxStgCloseStorage(root);
  std::ifstream in("FF430_1.gxw", std::ios::binary);
  const std::string before((std::istreambuf_iterator<char>(in)), {});
  in.close();
  gxdStorageTest();
  std::ifstream again("FF430_1.gxw", std::ios::binary);
  EXPECT_EQ(std::string((std::istreambuf_iterator<char>(again)), {}), before);
  again.close();
  std::remove("FF430_1.gxw");
}

}  // namespace
