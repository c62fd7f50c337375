// The writing side. The input is decoded into a sequence of portable calls
// on a new file: create storages and streams, write, flush, commit a storage,
// commit the root. A model follows every call the way the stream's block
// buffer works (every byte goes through one 512-byte buffer; flush writes the
// whole buffer, bytes past the fill included). After the root's commit the
// file must load through our loader with exactly the modelled tree, sizes
// and bytes; any difference aborts.
#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

#include "fuzz/gxFuzzSupport.h"
#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"

namespace {

constexpr uint32_t kBlock = 512;
constexpr uint64_t kWriteBudget = uint64_t{2} << 20;  // bytes per input
constexpr size_t kMaxOps = 400;

struct ModelStream {
  std::vector<std::u16string> path;
  gxdIStream* object = nullptr;
  std::vector<uint8_t> blocks;  // whole blocks handed to the temporary file
  uint8_t buffer[kBlock] = {};
  uint32_t fill = 0;
  uint64_t position = 0;

  void write(const uint8_t* in, uint64_t count) {
    while (count > 0) {
      if (fill == kBlock) flush();
      const uint64_t n = std::min<uint64_t>(count, kBlock - fill);
      std::memcpy(buffer + fill, in, n);
      fill += static_cast<uint32_t>(n);
      position += n;
      in += n;
      count -= n;
    }
  }
  void flush() {
    if (fill == 0) return;
    blocks.insert(blocks.end(), buffer, buffer + kBlock);
    fill = 0;
  }
  std::vector<uint8_t> content() const {
    return std::vector<uint8_t>(
        blocks.begin(), blocks.begin() + static_cast<ptrdiff_t>(position));
  }
};

struct ModelStorage {
  std::vector<std::u16string> path;
  gxdIStorage* object = nullptr;
  std::map<std::u16string, size_t> storages;  // name -> index
  std::map<std::u16string, size_t> streams;
};

// Units chosen to reach case folding (A-Z only), non-ASCII, surrogates and
// characters a path would treat specially.
constexpr char16_t kAlphabet[] = {u'a',   u'A',   u'b',   u'B',  u'z',   u'Z',
                                  u'0',   u'_',   u' ',   u'!',  0x00E9, 0x00C9,
                                  0x4E2D, 0xD83D, 0xDE00, 0x0001};

std::u16string readName(gxFuzzReader& in) {
  const uint8_t b = in.byte();
  const size_t length = (b & 0x80) ? 1 + (b & 1) : (b % 32);
  std::u16string name;
  for (size_t i = 0; i < length; ++i) name += kAlphabet[in.byte() % 16];
  return name;
}

struct Run {
  std::vector<ModelStorage> storages;
  std::vector<ModelStream> streams;
  std::vector<uint8_t> scratch;
  uint64_t written = 0;

  // Flushes the model of every stream created below storage `index`, as the
  // storage's commit does through its created children.
  void commitModel(size_t index) {
    for (auto& s : storages[index].streams) streams[s.second].flush();
    for (auto& s : storages[index].storages) commitModel(s.second);
  }
};

void verify(const std::string& path, Run& run) {
  const std::u16string widePath = gxFuzzWide(path);
  gxdFileView inspector;
  GXFUZZ_CHECK(inspector.open(widePath.c_str()) == gxdFileView::Status::kOk);
  typedef std::tuple<std::vector<std::u16string>, bool, uint64_t> Item;
  std::vector<Item> want, got;
  for (size_t i = 1; i < run.storages.size(); ++i)
    want.emplace_back(run.storages[i].path, true, 0);
  for (const ModelStream& s : run.streams)
    want.emplace_back(s.path, false, s.position);
  for (const gxdFileViewElement& e : inspector.elements())
    got.emplace_back(e.names, e.isStorage, e.size);
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  if (want != got) gxFuzzFail("reloaded tree differs from the one written");

  gxdIStorage* root = nullptr;
  GXFUZZ_CHECK(gxdStgOpenStorage(widePath.c_str(), 0, &root) == GX_S_OK);
  std::map<std::vector<std::u16string>, gxdIStorage*> opened;
  opened[{}] = root;
  for (size_t i = 1; i < run.storages.size(); ++i) {
    const auto& p = run.storages[i].path;
    gxdIStorage* parent =
        opened.at(std::vector<std::u16string>(p.begin(), p.end() - 1));
    gxdIStorage* child = nullptr;
    GXFUZZ_CHECK(parent->openStorage(p.back().c_str(), &child) == GX_S_OK);
    opened[p] = child;
  }
  std::vector<uint8_t> buffer;
  for (const ModelStream& s : run.streams) {
    const auto& p = s.path;
    gxdIStorage* parent =
        opened.at(std::vector<std::u16string>(p.begin(), p.end() - 1));
    gxdIStream* stream = nullptr;
    GXFUZZ_CHECK(parent->openStream(p.back().c_str(), &stream) == GX_S_OK);
    const std::vector<uint8_t> expected = s.content();
    buffer.assign(expected.size() + 1, 0);
    uint64_t done = 0;
    const gxResult r = stream->read(buffer.data(), buffer.size(), &done);
    GXFUZZ_CHECK(r == (expected.empty() ? GX_S_FALSE : GX_S_OK));
    GXFUZZ_CHECK(done == expected.size());
    if (!expected.empty() &&
        std::memcmp(buffer.data(), expected.data(), expected.size()) != 0)
      gxFuzzFail("reloaded stream bytes differ from those written");
    stream->release();
  }
  for (auto s = opened.rbegin(); s != opened.rend(); ++s) s->second->release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = gxFuzzPath("writer.gxw");
  static const std::u16string widePath = gxFuzzWide(path);
  gxFuzzReader in(data, size);
  Run run;

  gxdIStorage* root = nullptr;
  GXFUZZ_CHECK(gxdStgCreateStorage(widePath.c_str(), 0, &root) == GX_S_OK);
  run.storages.emplace_back();
  run.storages[0].object = root;

  bool committed = false;
  for (size_t ops = 0; ops < kMaxOps && !in.empty() && !committed; ++ops) {
    const uint8_t op = in.byte() % 8;
    switch (op) {
      case 0:
      case 1: {
        const size_t parentIndex = in.byte() % run.storages.size();
        const std::u16string name = readName(in);
        ModelStorage& parent = run.storages[parentIndex];
        std::vector<std::u16string> childPath = parent.path;
        childPath.push_back(name);
        if (op == 0) {
          gxdIStorage* child = nullptr;
          const gxResult r = parent.object->createStorage(name.c_str(), &child);
          if (parent.storages.count(name) != 0) {
            GXFUZZ_CHECK(r == GX_STG_E_FILEALREADYEXISTS && child == nullptr);
            break;
          }
          GXFUZZ_CHECK(r == GX_S_OK && child != nullptr);
          parent.storages[name] = run.storages.size();
          run.storages.emplace_back();
          run.storages.back().path = childPath;
          run.storages.back().object = child;
        } else {
          gxdIStream* child = nullptr;
          const gxResult r = parent.object->createStream(name.c_str(), &child);
          if (parent.streams.count(name) != 0) {
            GXFUZZ_CHECK(r == GX_STG_E_FILEALREADYEXISTS && child == nullptr);
            break;
          }
          GXFUZZ_CHECK(r == GX_S_OK && child != nullptr);
          parent.streams[name] = run.streams.size();
          run.streams.emplace_back();
          run.streams.back().path = childPath;
          run.streams.back().object = child;
        }
        break;
      }
      case 2:
      case 3:
      case 7: {
        if (run.streams.empty()) break;
        ModelStream& s = run.streams[in.byte() % run.streams.size()];
        uint64_t count;
        const uint8_t scale = in.byte();
        if (op == 7) {
          count = scale % 16;  // literal bytes from the input
        } else {
          switch (scale & 3) {
            case 0:
              count = scale >> 2;
              break;
            case 1:
              count = in.u16() % 4200;
              break;
            case 2:
              count = 500 + in.u16() % 30;
              break;
            default:
              count = uint64_t{in.u16()} * 2;
              break;
          }
        }
        count = std::min(count, kWriteBudget - run.written);
        run.scratch.resize(count);
        for (uint64_t i = 0; i < count; ++i)
          run.scratch[i] = op == 7
                               ? in.byte()
                               : static_cast<uint8_t>(scale + i * 7 + (i >> 9));
        uint64_t done = 0;
        GXFUZZ_CHECK(s.object->write(run.scratch.data(), count, &done) ==
                     GX_S_OK);
        GXFUZZ_CHECK(done == count);
        s.write(run.scratch.data(), count);
        run.written += count;
        gxdsSTATSTG info;
        s.object->stat(&info);
        uint32_t low = 0, high = 0;
        info.size(low, high);
        GXFUZZ_CHECK(low == s.position && high == 0);
        break;
      }
      case 4: {
        if (run.streams.empty()) break;
        ModelStream& s = run.streams[in.byte() % run.streams.size()];
        s.object->flush();
        s.flush();
        break;
      }
      case 5: {
        const size_t index = in.byte() % run.storages.size();
        if (index == 0) {
          committed = true;
          break;
        }
        run.storages[index].object->commit();
        run.commitModel(index);
        break;
      }
      case 6:
        committed = true;
        break;
    }
  }
  root->commit();
  run.commitModel(0);
  // A second commit writes nothing more.
  root->commit();

  for (ModelStream& s : run.streams) s.object->release();
  for (size_t i = run.storages.size(); i-- > 1;)
    run.storages[i].object->release();
  root->release();

  verify(path, run);
  return 0;
}
