// Arbitrary bytes opened through the exported entry functions and adapters
// on the portable backend. Every element the inspection view lists is
// opened through the adapters, every stream read whole, repositioned with
// seek and cloned, every storage stated and enumerated; the root ends with
// gxStgCloseStorage, which must free the whole tree.
#include <algorithm>
#include <cstring>
#include <map>

#include "fuzz/gxFuzzSupport.h"
#include "gxStorage.h"
#include "portable/gxdFileView.h"

namespace {

constexpr uint64_t kReadBudget = uint64_t{64} << 20;  // bytes per input
constexpr unsigned long long kChunks[] = {1, 7, 128, 511, 512, 4096, 65536};

std::vector<unsigned short> units(const std::u16string& name) {
  std::vector<unsigned short> out(name.begin(), name.end());
  out.push_back(0);
  return out;
}

struct Walk {
  uint64_t bytesLeft = kReadBudget;
  uint32_t seed = 0;
  std::vector<uint8_t> buffer = std::vector<uint8_t>(65536);
};

uint64_t readToEnd(CGxAbsStream* s, uint64_t size, Walk& walk) {
  unsigned long long chunk = kChunks[walk.seed++ % (sizeof kChunks / 8)];
  uint64_t total = 0;
  for (int calls = 0; walk.bytesLeft > 0; ++calls) {
    if (calls == 256) chunk = 65536;
    unsigned long long done = 0;
    s->read(walk.buffer.data(), chunk, &done);
    GXFUZZ_CHECK(done <= chunk);
    total += done;
    walk.bytesLeft -= std::min<uint64_t>(walk.bytesLeft, done);
    if (done == 0) break;
  }
  GXFUZZ_CHECK(total <= size);
  return total;
}

void exerciseStream(CGxAbsStream* s, Walk& walk) {
  gxdsSTATSTG info;
  GXFUZZ_CHECK(s->stat(&info));
  GXFUZZ_CHECK(info.type() == GX_STGTY_STREAM);
  uint32_t low = 0, high = 0;
  info.size(low, high);
  const uint64_t size = (uint64_t{high} << 32) | low;
  readToEnd(s, size, walk);

  const uint64_t targets[] = {0, size / 3, size + 7, 0x8000000000000000ull};
  for (uint64_t at : targets) {
    LARGE_INTEGER move;
    move.QuadPart = static_cast<int64_t>(at);
    ULARGE_INTEGER now;
    s->seek(move, GX_STREAM_SEEK_SET, &now);
    move.QuadPart = -1;
    s->seek(move, GX_STREAM_SEEK_CUR, &now);
    move.QuadPart = 0;
    s->seek(move, GX_STREAM_SEEK_END, &now);
    unsigned long long done = 0;
    s->read(walk.buffer.data(), 100, &done);
    GXFUZZ_CHECK(done <= 100);
  }
  CGxAbsStream* copy = nullptr;
  if (s->clone(&copy)) {
    GXFUZZ_CHECK(copy != nullptr);
    readToEnd(copy, size, walk);
  }
}

void exerciseStorage(CGxAbsStorage* s) {
  gxdsSTATSTG info;
  GXFUZZ_CHECK(s->stat(&info));
  GXFUZZ_CHECK(info.type() == GX_STGTY_STORAGE);
  CGxAbsStgEnum* e = nullptr;
  GXFUZZ_CHECK(s->enumElements(&e) && e != nullptr);
  gxdsSTATSTG records[2];
  uint32_t fetched = 0;
  while (e->next(2, records, &fetched)) GXFUZZ_CHECK(fetched <= 2);
  CGxAbsStgEnum* copy = nullptr;
  if (e->clone(&copy)) copy->skip(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = gxFuzzPath("entry.gxw");
  static const std::vector<unsigned short> pathUnits = gxFuzzUnits(path);
  static const std::u16string widePath = gxFuzzWide(path);
  gxFuzzWriteFile(path, data, size);

  gxFuzzOpenBudget budget(size);
  CGxAbsStorage* root = reinterpret_cast<CGxAbsStorage*>(1);
  const gxResult opened = gxStgOpenStorage(pathUnits.data(), 0, &root, true);
  budget.check();
  if (opened != GX_S_OK) {
    GXFUZZ_CHECK(root == nullptr);
    return 0;
  }
  GXFUZZ_CHECK(root != nullptr);
  exerciseStorage(root);

  gxdFileView inspector;
  GXFUZZ_CHECK(inspector.open(widePath.c_str()) == gxdFileView::Status::kOk);
  Walk walk;
  for (size_t i = 0; i < size && i < 64; ++i) walk.seed += data[i];
  // Children belong to the adapter that opened them: nothing is released
  // here but the root.
  std::map<std::vector<std::u16string>, CGxAbsStorage*> storages;
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
    const std::vector<unsigned short> name = units(e.names.back());
    if (e.isStorage) {
      CGxAbsStorage* child = nullptr;
      const gxResult r =
          parent->second->openIStorage(name.data(), true, &child);
      GXFUZZ_CHECK((r == GX_S_OK) == (child != nullptr));
      if (r != GX_S_OK) {
        GXFUZZ_CHECK(shadowed && r == GX_STG_E_FILENOTFOUND);
        continue;
      }
      GXFUZZ_CHECK(!child->release());  // only a root releases itself
      if (storages.emplace(e.names, child).second) {
        exerciseStorage(child);
      } else {
        shadows.add(e.names);
      }
    } else {
      // Once a read has failed the shared file stream, every later open of
      // a stream of the file fails too.
      CGxAbsStream* child = nullptr;
      const gxResult r = parent->second->openIStream(name.data(), true, &child);
      GXFUZZ_CHECK(r == GX_S_OK || r == GX_E_FAIL ||
                   (shadowed && r == GX_STG_E_FILENOTFOUND));
      GXFUZZ_CHECK((r == GX_S_OK) == (child != nullptr));
      if (child != nullptr) exerciseStream(child, walk);
    }
  }
  // Creating in a read-only file hands out nothing that writes, and the
  // root's commit writes nothing.
  CGxAbsStream* created = nullptr;
  root->openIStream(units(u"new").data(), false, &created);
  root->commit();
  gxStgCloseStorage(root);
  return 0;
}
