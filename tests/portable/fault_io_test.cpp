// Portable objects over byte streams that fail after N bytes: reading an
// opened file, and writing, flushing and saving a created one. Every N of a
// small file must end in the outcome the interface gives (a refused load,
// E_FAIL, a read that stops, a failed output), never in wrong bytes.
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

// Replaces the engine of `root` with one over `file` (and `temp`); the root
// keeps owning the engine and deletes it when released.
void swapEngine(gxdStorage* root, std::iostream* file, std::iostream* temp,
                bool load) {
  delete root->compoundFile;
  root->compoundFile = new gxdCompoundFile(file, temp, load);
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
    swapEngine(root, &faulty, nullptr, true);
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

TEST(PortableFaultIo, WritesFlushesAndSavesOverAFailingTemporaryFile) {
  const std::string data = bytesOf(3, 3000);
  for (uint64_t n = 0; n <= 4096; n += 97) {
    SCOPED_TRACE("temporary file fails after " + std::to_string(n) + " bytes");
    gxFaultStream output;
    gxFaultStream temp;
    temp.buf().failAfter = n;
    gxdIStorage* created = nullptr;
    ASSERT_EQ(gxdStgCreateStorage(u"fault_io_write.gxw", 0, &created), GX_S_OK);
    gxdStorage* root = static_cast<gxdStorage*>(created);
    swapEngine(root, &output, &temp, false);
    root->recordCreation();
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(u"data", &s), GX_S_OK);
    bool refused = false;
    uint64_t accepted = 0;
    for (size_t at = 0; at < data.size() && !refused; at += 700) {
      const size_t len = std::min<size_t>(700, data.size() - at);
      refused = s->write(data.data() + at, len, nullptr) != GX_S_OK;
      if (!refused) accepted += len;
    }
    s->flush();
    root->commit();
    s->release();
    root->release();

    // A refused write was reported to the caller; data the stream accepted
    // but could not keep must show as a failed output instead.
    if (!refused && temp.fail()) {
      EXPECT_TRUE(output.fail());
    }
    if (output.fail()) continue;
    gxFaultStream reread(output.buf().data());
    gxdCompoundFile loaded(&reread, nullptr, true);
    ASSERT_FALSE(reread.fail());
    ASSERT_EQ(loaded.rootEntry.streams.size(), 1u);
    const gxdDirEntry& entry = loaded.rootEntry.streams[0];
    EXPECT_EQ(entry.size, accepted);
    if (!refused) {
      EXPECT_EQ(accepted, data.size());
    }
    // A small stream written here takes consecutive mini sectors.
    if (accepted > 0) {
      const size_t at = size_t{entry.startSector} * loaded.miniSectorSize;
      ASSERT_LE(at + accepted, loaded.miniStream.size());
      EXPECT_EQ(std::string(loaded.miniStream.begin() + at,
                            loaded.miniStream.begin() + at + accepted),
                data.substr(0, accepted));
    }
  }
  std::remove("fault_io_write.gxw");
  std::remove("fault_io_write.$t$");
}
