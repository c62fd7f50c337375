// Portable streams reading a file whose byte stream fails after N bytes: at
// every N of a small file the outcome is one the interface gives (a refused
// load, E_FAIL, a read that stops), never wrong bytes. (Writes and saves over
// failing streams are covered with the save.)
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"
#include "tests/support/gxFaultStream.h"

namespace {

std::string bytesOf(uint32_t seed, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i)
    out.push_back(static_cast<char>(i * 7 + seed * 31 + (i >> 9)));
  return out;
}

const char16_t* const kNames[] = {u"small", u"large"};
const size_t kSizes[] = {300, 5000};

// Replaces the engine of `root` with one loaded from `file`; the root keeps
// owning the engine and deletes it when released.
void swapEngine(gxdStorage* root, std::iostream* file) {
  delete root->compoundFile;
  root->compoundFile = new gxdCompoundFile(file, nullptr, true);
}

}  // namespace

TEST(PortableFaultIo, ReadsOfAFailingFileStopCleanly) {
  const std::u16string path = u"fault_io_read.gxw";
  gxdIStorage* made = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path.c_str(), 0, &made), GX_S_OK);
  for (int i = 0; i < 2; ++i) {
    gxdIStream* s = nullptr;
    ASSERT_EQ(made->createStream(kNames[i], &s), GX_S_OK);
    const std::string data = bytesOf(i, kSizes[i]);
    s->write(data.data(), data.size(), nullptr);
    s->release();
  }
  made->commit();
  made->release();
  std::ifstream in("fault_io_read.gxw", std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)),
                         std::istreambuf_iterator<char>());
  ASSERT_GT(file.size(), 4096u);

  for (uint64_t n = 0; n <= file.size(); n += 7) {
    SCOPED_TRACE("file fails after " + std::to_string(n) + " bytes");
    gxFaultStream faulty(file);
    faulty.buf().failAfter = n;
    gxdIStorage* opened = nullptr;
    ASSERT_EQ(gxdStgOpenStorage(path.c_str(), 0, &opened), GX_S_OK);
    gxdStorage* root = static_cast<gxdStorage*>(opened);
    swapEngine(root, &faulty);
    if (faulty.fail()) {  // the load was refused
      root->release();
      continue;
    }
    for (int i = 0; i < 2; ++i) {
      gxdIStream* s = nullptr;
      if (root->openStream(kNames[i], &s) != GX_S_OK) continue;
      const std::string want = bytesOf(i, kSizes[i]);
      std::string got;
      for (int calls = 0; calls < 100; ++calls) {
        char chunk[700];
        uint64_t done = 0;
        const gxResult r = s->read(chunk, sizeof(chunk), &done);
        ASSERT_TRUE(r == GX_S_OK || r == GX_S_FALSE || r == GX_E_FAIL);
        ASSERT_LE(done, sizeof(chunk));
        got.append(chunk, static_cast<size_t>(done));
        if (r != GX_S_OK || done == 0) break;
      }
      ASSERT_LE(got.size(), want.size());
      EXPECT_EQ(got, want.substr(0, got.size()));
      s->release();
    }
    root->release();
  }
  std::remove("fault_io_read.gxw");
  std::remove("fault_io_read.$t$");
}
