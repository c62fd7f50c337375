// The library as an application sees it: the exported header only, linked
// to the shared library. Entry functions on both backends and the self-test.
// (Trees written and read back through the same adapters are the round-trip
// tests'.)
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "gxStorage.h"
#ifndef _WIN32
#include <dlfcn.h>
#endif

namespace {

const unsigned short* units(const char16_t* s) {
  return reinterpret_cast<const unsigned short*>(s);
}

std::string slurp(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(Api, EntryFunctionsRefuseMissingAndForeignFiles) {
  std::remove("api_test_missing.gxw");
  std::ofstream("api_test_text.gxw") << std::string(2048, 'z');
  CGxAbsStorage* const kJunk = reinterpret_cast<CGxAbsStorage*>(0x10);
  for (bool portable : {true, false}) {
    for (const char16_t* path :
         {u"api_test_missing.gxw", u"api_test_text.gxw"}) {
      SCOPED_TRACE(testing::Message() << portable << " " << (path[9] == u'm'));
      CGxAbsStorage* root = kJunk;
      const gxResult result =
          gxStgOpenStorage(units(path), 0x12, &root, portable);
      EXPECT_EQ(root, nullptr);  // whatever it held before
      const gxResult platform =
          path[9] == u'm' ? GX_STG_E_FILENOTFOUND : GX_STG_E_FILEALREADYEXISTS;
      EXPECT_EQ(result, portable ? GX_E_FAIL : platform);
    }
    CGxAbsStorage* root = kJunk;
    EXPECT_LT(gxStgCreateStorage(units(u"api_no_such_dir/x.gxw"), 0x1012, &root,
                                 portable),
              0);
    EXPECT_EQ(root, nullptr);
  }
  gxStgCloseStorage(nullptr);
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
  const std::string before = slurp("FF430_1.gxw");
  gxdStorageTest();
  EXPECT_EQ(slurp("FF430_1.gxw"), before);
  std::remove("FF430_1.gxw");
}

}  // namespace
