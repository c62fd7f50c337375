// Arbitrary bytes opened with the portable backend. The inspection view
// lists every element of the loaded directory; each storage is opened and
// enumerated, each stream opened and read whole in varied chunk sizes, then
// repositioned and read again. Reads must stay within the stream's size and
// deliver the same bytes at the same offsets every time.
//
// The open must keep the resource bounds of gxFuzzOpenBudget, and the
// portable open and the inspection view must agree on whether the file
// loads.
#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

#include "fuzz/gxFuzzSupport.h"
#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"

namespace {

constexpr uint64_t kReadBudget = uint64_t{64} << 20;  // bytes per input
constexpr uint64_t kChunks[] = {1, 3, 64, 500, 512, 513, 4096, 4097, 65536};

struct Walk {
  uint64_t bytesLeft = kReadBudget;
  uint32_t seed = 0;
  std::vector<uint8_t> buffer = std::vector<uint8_t>(65536);
};

// Reads from the current position to the end (or to the first failure)
// and returns the bytes delivered.
std::vector<uint8_t> readRest(gxdIStream* s, uint64_t size, uint64_t chunk,
                              Walk& walk) {
  std::vector<uint8_t> got;
  for (int calls = 0; walk.bytesLeft > 0; ++calls) {
    // Tiny chunks only for the first calls, so big streams stay quick.
    if (calls == 256) chunk = 65536;
    uint64_t done = 0;
    const gxResult r = s->read(walk.buffer.data(), chunk, &done);
    GXFUZZ_CHECK(done <= chunk);
    GXFUZZ_CHECK(r == GX_S_OK || r == GX_S_FALSE || r == GX_E_FAIL);
    GXFUZZ_CHECK(s->position() <= size);
    if (r == GX_S_FALSE) GXFUZZ_CHECK(done == 0);
    got.insert(got.end(), walk.buffer.begin(),
               walk.buffer.begin() + static_cast<ptrdiff_t>(done));
    walk.bytesLeft -= std::min(walk.bytesLeft, done);
    if (r != GX_S_OK || done == 0) break;
  }
  GXFUZZ_CHECK(got.size() <= size);
  return got;
}

void exerciseStream(gxdIStream* s, Walk& walk) {
  gxdsSTATSTG info;
  GXFUZZ_CHECK(s->stat(&info) == GX_S_OK);
  GXFUZZ_CHECK(info.type() == GX_STGTY_STREAM);
  uint32_t low = 0, high = 0;
  info.size(low, high);
  const uint64_t size = (uint64_t{high} << 32) | low;

  const uint64_t chunk = kChunks[walk.seed++ % (sizeof kChunks / 8)];
  const std::vector<uint8_t> whole = readRest(s, size, chunk, walk);

  // A clone starts at 0 and sees the same bytes.
  gxdIStream* copy = nullptr;
  GXFUZZ_CHECK(s->clone(&copy) && copy != nullptr);
  const std::vector<uint8_t> again =
      readRest(copy, size, kChunks[walk.seed++ % (sizeof kChunks / 8)], walk);
  const size_t common = std::min(whole.size(), again.size());
  GXFUZZ_CHECK(common == 0 ||
               std::memcmp(whole.data(), again.data(), common) == 0);

  const uint64_t offsets[] = {size / 2, 0,           size ? size - 1 : 0,
                              size,     size + 1000, UINT64_MAX,
                              64,       4096};
  for (uint64_t at : offsets) {
    if (walk.bytesLeft == 0) break;
    s->setPosition(at);
    const uint64_t pos = s->position();
    GXFUZZ_CHECK(pos <= size);
    uint64_t done = 0;
    const uint64_t want = std::min<uint64_t>(walk.buffer.size(), 700);
    s->read(walk.buffer.data(), want, &done);
    GXFUZZ_CHECK(done <= want);
    walk.bytesLeft -= std::min(walk.bytesLeft, done);
    if (done > 0 && pos + done <= whole.size())
      GXFUZZ_CHECK(std::memcmp(walk.buffer.data(), whole.data() + pos,
                               static_cast<size_t>(done)) == 0);
  }
}

void exerciseStorage(gxdIStorage* s) {
  gxdsSTATSTG info;
  GXFUZZ_CHECK(s->stat(&info) == GX_S_OK);
  GXFUZZ_CHECK(info.type() == GX_STGTY_STORAGE);
  CGxAbsStgEnum* e = nullptr;
  GXFUZZ_CHECK(s->enumElements(&e) && e != nullptr);
  gxdsSTATSTG records[3];
  uint32_t fetched = 0;
  while (e->next(3, records, &fetched)) GXFUZZ_CHECK(fetched <= 3);
  e->reset();
  e->skip(1);
  CGxAbsStgEnum* copy = nullptr;
  GXFUZZ_CHECK(e->clone(&copy) && copy != nullptr);
  copy->next(1, records, &fetched);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = gxFuzzPath("open.gxw");
  static const std::u16string widePath = gxFuzzWide(path);
  gxFuzzWriteFile(path, data, size);

  gxFuzzOpenBudget budget(size);
  gxdIStorage* root = nullptr;
  const gxResult opened = gxdStgOpenStorage(widePath.c_str(), 0, &root);
  budget.check();

  std::stringstream memory(
      std::string(reinterpret_cast<const char*>(data), size),
      std::ios::in | std::ios::out | std::ios::binary);
  gxdFileView inspector;
  const gxdFileView::Status status = inspector.open(&memory);
  GXFUZZ_CHECK((opened == GX_S_OK) == (status == gxdFileView::Status::kOk));
  if (opened != GX_S_OK) {
    GXFUZZ_CHECK(opened == GX_E_FAIL && root == nullptr);
    return 0;
  }
  GXFUZZ_CHECK(root != nullptr && root->isReadOnly() && root->isRoot());
  exerciseStorage(root);

  Walk walk;
  for (size_t i = 0; i < size && i < 64; ++i) walk.seed += data[i];
  std::map<std::vector<std::u16string>, gxdIStorage*> storages;
  std::vector<gxdIStream*> streams;
  gxFuzzShadowedPaths shadows;
  storages[{}] = root;
  for (const gxdFileViewElement& e : inspector.elements()) {
    std::vector<std::u16string> parentPath(e.names.begin(), e.names.end() - 1);
    const bool shadowed = shadows.covers(parentPath);
    auto parent = storages.find(parentPath);
    if (parent == storages.end()) {
      GXFUZZ_CHECK(shadowed);
      continue;
    }
    const std::u16string& name = e.names.back();
    if (e.isStorage) {
      gxdIStorage* child = nullptr;
      const gxResult r = parent->second->openStorage(name.c_str(), &child);
      GXFUZZ_CHECK((r == GX_S_OK) == (child != nullptr));
      if (r != GX_S_OK) {
        GXFUZZ_CHECK(shadowed && r == GX_STG_E_FILENOTFOUND);
        continue;
      }
      // A name listed twice opens the first; both paths map to one object.
      if (!storages.emplace(e.names, child).second) {
        shadows.add(e.names);
        child->release();
        continue;
      }
      exerciseStorage(child);
    } else {
      gxdIStream* child = nullptr;
      const gxResult r = parent->second->openStream(name.c_str(), &child);
      // Once a read has failed the shared file stream, every later open of
      // a stream of the file fails too.
      GXFUZZ_CHECK(r == GX_S_OK || r == GX_E_FAIL ||
                   (shadowed && r == GX_STG_E_FILENOTFOUND));
      GXFUZZ_CHECK((r == GX_S_OK) == (child != nullptr));
      if (child == nullptr) continue;
      streams.push_back(child);
      exerciseStream(child, walk);
    }
  }
  // Names that do not exist are refused cleanly.
  gxdIStream* missing = nullptr;
  GXFUZZ_CHECK(root->openStream(u"\x1\x2 no such stream", &missing) ==
               GX_STG_E_FILENOTFOUND);

  for (gxdIStream* s : streams) s->release();
  // Children before their parents: a parent's destruction releases its own
  // references on its children.
  for (auto s = storages.rbegin(); s != storages.rend(); ++s)
    if (s->second != root) s->second->release();
  root->release();
  return 0;
}
