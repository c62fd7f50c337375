// Round trips of created files: seeded random trees are written through the
// portable objects, then read back through our own loader and, natively, by
// olefile; each must see exactly the tree and bytes that were written.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"
#include "support/gxRoundTrip.h"
#include "support/gxTestFileBuilder.h"

namespace {

struct Element {
  std::u16string path;
  bool storage;
  std::string data;
};

// Names share a small alphabet (case variants, punctuation, non-ASCII) so
// that the children trees see equal lengths and case-only differences; names
// are kept distinct case-insensitively within a storage, as other readers
// look them up that way. '_' is left out: the trees fold A-Z to lower case,
// while the platform's lookup folds to upper case, under which '_' sorts
// after the letters instead of before them, so it would search elsewhere.
std::vector<Element> randomPlan(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<Element> plan;
  std::vector<std::u16string> storages{u""};
  std::set<std::u16string> taken;
  const std::u16string alphabet = u"abcABC-xyz\u00e9\u4e2d01";
  const uint32_t sizes[] = {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097};
  const int count = 5 + rng() % 36;
  for (int i = 0; i < count; ++i) {
    const std::u16string parent = storages[rng() % storages.size()];
    std::u16string name, folded;
    const size_t length = rng() % 4 == 0 ? 1 + rng() % 31 : 1 + rng() % 3;
    for (size_t k = 0; k < length; ++k)
      name += alphabet[rng() % alphabet.size()];
    for (char16_t c : name) folded += c >= u'A' && c <= u'Z' ? c + 32 : c;
    if (!taken.insert(parent + u"/" + folded).second) continue;
    Element e{parent.empty() ? name : parent + u"/" + name, rng() % 10 < 3, {}};
    if (e.storage) {
      storages.push_back(e.path);
    } else {
      size_t size = rng() % 3 != 0 ? sizes[rng() % 11] : rng() % 20000;
      if (plan.empty() && seed % 3 == 0) size = 3000000 + rng() % 100000;
      e.data.resize(size);
      for (char& c : e.data) c = static_cast<char>(rng());
    }
    plan.push_back(e);
  }
  return plan;
}

// Creates every element, then writes the streams in chunks of random sizes,
// taking turns, so that their blocks interleave in the temporary file.
gxRtTree writePlan(const std::u16string& file, const std::vector<Element>& plan,
                   uint32_t seed) {
  gxRtTree tree;
  gxdIStorage* root = nullptr;
  EXPECT_EQ(gxdStgCreateStorage(file.c_str(), 0, &root), 0);
  std::map<std::u16string, gxdIStorage*> storages{{u"", root}};
  std::vector<std::pair<gxdIStream*, const Element*>> streams;
  for (const Element& e : plan) {
    tree[e.path] = {e.storage, e.data};
    const size_t slash = e.path.rfind(u'/');
    gxdIStorage* parent =
        storages[slash == e.path.npos ? u"" : e.path.substr(0, slash)];
    const std::u16string name = e.path.substr(slash + 1);  // npos + 1 == 0
    gxdIStream* s = nullptr;
    EXPECT_EQ(e.storage ? parent->createStorage(name.c_str(), &storages[e.path])
                        : parent->createStream(name.c_str(), &s),
              0);
    if (s != nullptr) streams.emplace_back(s, &e);
  }
  std::mt19937 rng(seed);
  std::vector<size_t> done(streams.size());
  for (bool more = true; more;) {
    more = false;
    for (size_t i = 0; i < streams.size(); ++i) {
      const std::string& d = streams[i].second->data;
      if (done[i] == d.size()) continue;
      const size_t n = std::min<size_t>(
          d.size() - done[i],
          rng() % 3 != 0 ? 1 + rng() % 1500 : 1 + rng() % 300000);
      uint64_t written = 0;
      EXPECT_EQ(streams[i].first->write(d.data() + done[i], n, &written), 0);
      EXPECT_EQ(written, n);
      done[i] += n;
      more = true;
    }
  }
  root->commit();
  for (auto& s : streams) s.first->release();
  for (auto it = storages.rbegin(); it != storages.rend(); ++it)
    it->second->release();  // the root ("" sorts first) last
  return tree;
}


}  // namespace

#ifndef _WIN32
namespace {

std::string run(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
  return pclose(pipe) == 0 ? out : out + "\nexit status nonzero";
}

// A directory that stands for `tree`: a subdirectory per storage, a file per
// stream, each named by the hex digits of its UTF-16 units.
void writeMirror(const std::filesystem::path& root, const gxRtTree& tree) {
  std::filesystem::create_directories(root);
  for (const auto& [path, value] : tree) {
    std::filesystem::path p = root;
    std::string hex;
    for (char16_t c : path + u"/") {
      char unit[8];
      std::snprintf(unit, sizeof unit, "%04x", static_cast<unsigned>(c));
      if (c != u'/') hex += unit;
      if (c == u'/') p /= hex, hex.clear();
    }
    std::filesystem::create_directories(value.first ? p : p.parent_path());
    if (!value.first) std::ofstream(p, std::ios::binary) << value.second;
  }
}

}  // namespace

void gxExpectOlefileReads(const std::filesystem::path& file,
                          const gxRtTree& tree) {
  const std::filesystem::path mirror = file.string() + ".mirror";
  std::filesystem::remove_all(mirror);
  writeMirror(mirror, tree);
  const std::string script = "/usr/bin/python3 " GXSTORAGE_TEST_SOURCE_DIR
                             "/tests/tools/olefile_dump.py ";
  const std::string olefile = run(script + file.string() + " 2>&1");
  EXPECT_EQ(olefile, run(script + mirror.string()));
  EXPECT_NE(olefile, "");
  std::filesystem::remove_all(mirror);
}
#endif

gxRtTree gxReadOurs(const std::u16string& file, uint32_t* sectorSize) {
  gxRtTree tree;
  gxdFileView view;
  EXPECT_EQ(view.open(file.c_str()), gxdFileView::Status::kOk);
  gxdIStorage* root = nullptr;
  EXPECT_EQ(gxdStgOpenStorage(file.c_str(), 0, &root), 0);
  if (root == nullptr) return tree;
  if (sectorSize != nullptr) *sectorSize = view.file().sectorSize;
  for (const gxdFileViewElement& e : view.elements()) {
    std::u16string path;
    for (const std::u16string& n : e.names) path += path.empty() ? n : u"/" + n;
    std::string data;
    std::vector<gxdIStorage*> held;
    gxdIStorage* cur = root;
    for (size_t k = 0; !e.isStorage && k + 1 < e.names.size() && cur; ++k) {
      gxdIStorage* next = nullptr;
      EXPECT_EQ(cur->openStorage(e.names[k].c_str(), &next), 0);
      if (next != nullptr) held.push_back(next);
      cur = next;
    }
    gxdIStream* s = nullptr;
    if (!e.isStorage && cur != nullptr &&
        cur->openStream(e.names.back().c_str(), &s) == 0) {
      // Read in chunks of varying sizes, then land on a few positions
      // through the chain and read one byte there.
      data.resize(e.size + 10);
      size_t got = 0;
      for (uint64_t n = 1, k = 0; n > 0 && got < data.size(); got += n, ++k)
        if (s->read(&data[got],
                    std::min<size_t>(1 + (k * 977) % 3000, data.size() - got),
                    &n))
          break;
      data.resize(got);
      for (uint64_t at = 0; at < data.size(); at += 1 + data.size() / 3) {
        s->setPosition(at);
        char c = 0;
        uint64_t n = 0;
        EXPECT_EQ(s->read(&c, 1, &n), 0);
        EXPECT_TRUE(n == 1 && c == data[at] && s->position() == at + 1);
      }
      s->release();
    }
    for (gxdIStorage* h : held) h->release();
    tree[path] = {e.isStorage, data};
  }
  root->release();
  return tree;
}

std::vector<std::pair<std::u16string, gxRtTree>> gxWriteRoundTripFiles(
    const std::u16string& dir) {
  std::vector<std::pair<std::u16string, gxRtTree>> files;
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    const std::u16string file = dir + u"/rt" + char16_t(u'0' + seed) + u".gxw";
    files.emplace_back(file, writePlan(file, randomPlan(seed), seed));
  }
  // More than 109 FAT sectors: the FAT is listed in a DIFAT sector too.
  std::vector<Element> plan{{u"big", false, std::string(7300000, '\0')},
                            {u"S", true, {}},
                            {u"S/small", false, std::string(100, 's')},
                            {u"S/large", false, std::string(5000, 'L')}};
  for (size_t i = 0; i < plan[0].data.size(); ++i)
    plan[0].data[i] = static_cast<char>(i % 251);
  files.emplace_back(dir + u"/difat.gxw",
                     writePlan(dir + u"/difat.gxw", plan, 99));
  return files;
}

void gxExpectSameTree(const gxRtTree& seen, const gxRtTree& written) {
  EXPECT_EQ(seen.size(), written.size());
  for (const auto& [path, value] : written) {
    const std::string where = std::filesystem::path(path).string();
    auto found = seen.find(path);
    ASSERT_NE(found, seen.end()) << where;
    EXPECT_EQ(found->second.first, value.first) << where;
    EXPECT_TRUE(found->second.second == value.second)
        << where << ": " << found->second.second.size() << " of "
        << value.second.size();
  }
}

TEST(RoundTripTest, RandomTreesReadBackByOurLoaderAndOlefile) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-rt-" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  // The files are pinned whole, byte for byte, by their digests.
  const uint64_t digests[] = {0xa1177f3852d0a187, 0x9ba9255e4e30d889,
                              0xf7fa70af7ce4e530, 0x1c947b26adca6bd7,
                              0x5a9116ee638b71af, 0x03f937b5b7ea1707,
                              0x2fe5b96b4a1f5cda};
  size_t index = 0;
  for (const auto& [file, tree] : gxWriteRoundTripFiles(dir.u16string())) {
    const std::string name = fs::path(file).filename().string();
    SCOPED_TRACE(name);
    std::ostringstream bytes;
    bytes << std::ifstream(fs::path(file), std::ios::binary).rdbuf();
    EXPECT_EQ(gxDigest(bytes.str()), digests[index++]);
    gxExpectSameTree(gxReadOurs(file), tree);
#ifndef _WIN32
    gxExpectOlefileReads(file, tree);
#endif
  }
  fs::remove_all(dir);
}
