// Round trips and interoperation. Seeded random trees, and trees at each
// limit of the layout (a full MiniFAT sector, a second DIFAT sector, 1600
// children), are written through the exported interface and read back by our
// loader and by the platform's service through the exported adapters (our
// own service natively, Wine's ole32 under Wine), and natively by olefile.
// The platform also writes the trees afresh, and Wine's ole32 wrote the
// committed files; our loader must read them as the platform reads them.
// Each reader must see exactly the tree and bytes that were written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>

#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"
#include "support/gxRoundTrip.h"

namespace {

namespace fs = std::filesystem;

struct Element {
  std::u16string path;  // names joined by '/'
  bool storage;
  std::string data;
};
using Plan = std::vector<Element>;  // parents before their children

// Names share a small alphabet (case variants, punctuation, non-ASCII) so
// that the children trees see equal lengths and case-only differences; names
// are kept distinct case-insensitively within a storage, as other readers
// look them up that way. '_' is left out: the trees fold A-Z to lower case,
// while the platform's lookup folds to upper case, under which '_' sorts
// after the letters instead of before them, so it would search elsewhere.
Plan randomPlan(uint32_t seed) {
  std::mt19937 rng(seed);
  Plan plan;
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

// Six random trees; a stream of no bytes alone (no mini stream); two small
// streams that end on the last entry of the first MiniFAT sector; and a
// stream whose FAT needs two DIFAT sectors (237 FAT sectors) beside a
// storage of 1600 children.
std::vector<std::pair<std::string, Plan>> plans() {
  std::vector<std::pair<std::string, Plan>> plans;
  for (uint32_t seed = 1; seed <= 6; ++seed)
    plans.emplace_back("rt" + std::to_string(seed), randomPlan(seed));
  plans.emplace_back("empty", Plan{{u"e", false, {}}});
  plans.emplace_back("minifat", Plan{{u"A", false, std::string(4095, 'a')},
                                     {u"B", false, std::string(4095, 'b')}});
  Plan big{{u"big", false, std::string(30400 * 512, '\0')}, {u"S", true, {}}};
  for (size_t i = 0; i < big[0].data.size(); ++i)
    big[0].data[i] = static_cast<char>(i % 251);
  for (int i = 0; i < 1600; ++i)
    big.push_back({u"S/c" + std::u16string{char16_t(u'A' + i % 26),
                                           char16_t(u'a' + i / 26)},
                   false, std::string(i * 37 % 3000, char(i))});
  plans.emplace_back("difat", big);
  return plans;
}

gxRtTree treeOf(const Plan& plan) {
  gxRtTree tree;
  for (const Element& e : plan) tree[e.path] = {e.storage, e.data};
  return tree;
}

const unsigned short* units(const std::u16string& s) {
  return reinterpret_cast<const unsigned short*>(s.c_str());
}

// Creates every element through the exported interface, on the portable
// backend or the platform's, then writes the streams in chunks of random
// sizes, taking turns from a random first one, so that their blocks
// interleave in the file and the first writes come in another order than the
// creations.
void writeTree(const std::u16string& file, const Plan& plan, uint32_t seed,
               bool portable) {
  CGxAbsStorage* root = nullptr;
  ASSERT_EQ(gxStgCreateStorage(units(file), 0x1012, &root, portable), 0);
  std::map<std::u16string, CGxAbsStorage*> storages{{u"", root}};
  std::vector<std::pair<CGxAbsStream*, const Element*>> streams;
  for (const Element& e : plan) {
    const size_t slash = e.path.rfind(u'/');
    CGxAbsStorage* parent =
        storages[slash == e.path.npos ? u"" : e.path.substr(0, slash)];
    const std::u16string name = e.path.substr(slash + 1);  // npos + 1 == 0
    CGxAbsStream* s = nullptr;
    EXPECT_EQ(e.storage
                  ? parent->openIStorage(units(name), false, &storages[e.path])
                  : parent->openIStream(units(name), false, &s),
              0);
    if (s != nullptr) streams.emplace_back(s, &e);
  }
  std::mt19937 rng(seed);
  std::vector<size_t> done(streams.size());
  for (bool more = true; more;) {
    more = false;
    const size_t first = rng() % (streams.size() + 1);
    for (size_t k = 0; k < streams.size(); ++k) {
      const size_t i = (first + k) % streams.size();
      const std::string& d = streams[i].second->data;
      if (done[i] == d.size()) continue;
      const size_t n = std::min<size_t>(
          d.size() - done[i],
          rng() % 3 != 0 ? 1 + rng() % 1500 : 1 + rng() % 300000);
      unsigned long long written = 0;
      streams[i].first->write(d.data() + done[i], n, &written);
      EXPECT_EQ(written, n);
      done[i] += n;
      more = true;
    }
  }
  root->commit();
  gxStgCloseStorage(root);
}

// The tree below `storage` as the platform's service lists and reads it
// through the adapters. Opening each element by name also checks that the
// children tree is ordered the way the platform searches it; opening it again
// gives the adapter already open. A clone of the enumerator asked for more
// than there is answers a short batch: false, with the count fetched.
void readPlatform(CGxAbsStorage* storage, const std::u16string& prefix,
                  gxRtTree& tree) {
  CGxAbsStgEnum *e = nullptr, *all = nullptr;
  ASSERT_TRUE(storage->enumElements(&e) && e->clone(&all));
  gxdsSTATSTG r, many[40];
  uint32_t count = 0, fetched = 0;
  const bool full = all->next(40, many, &fetched);
  while (e->next(1, &r, nullptr)) {
    ++count;
    const std::u16string name(reinterpret_cast<const char16_t*>(r.name()));
    const std::u16string path = prefix.empty() ? name : prefix + u"/" + name;
    uint32_t size = 0, high = 0;
    r.size(size, high);
    std::string data(size + 1, '\0');  // one byte more than there is
    unsigned long long got = 0;
    CGxAbsStorage *child = nullptr, *again = nullptr;
    CGxAbsStream *s = nullptr, *same = nullptr;
    if (r.type() == GX_STGTY_STORAGE) {
      ASSERT_EQ(storage->openIStorage(r.name(), true, &child), 0);
      EXPECT_TRUE(storage->openIStorage(r.name(), true, &again) == 0 &&
                  again == child);
      readPlatform(child, path, tree);
    } else {
      ASSERT_EQ(storage->openIStream(r.name(), true, &s), 0);
      EXPECT_TRUE(storage->openIStream(r.name(), true, &same) == 0 &&
                  s == same);
      s->read(&data[0], size + 1, &got);
    }
    data.resize(got);
    tree[path] = {r.type() == GX_STGTY_STORAGE, data};
  }
  EXPECT_EQ(fetched, full ? 40 : count);
}

#ifndef _WIN32
std::string run(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
  return pclose(pipe) == 0 ? out : out + "\nexit status nonzero";
}
#endif

// The platform's service opens `file` and finds exactly `tree` in it, and so
// does olefile natively.
void expectReferenceSees(const fs::path& file, const gxRtTree& tree) {
  CGxAbsStorage* root = nullptr;
  ASSERT_EQ(gxStgOpenStorage(units(file.u16string()), 0x12, &root, false), 0);
  gxRtTree seen;
  readPlatform(root, u"", seen);
  EXPECT_TRUE(root->release());
  gxExpectSameTree(seen, tree);
#ifndef _WIN32
  gxExpectOlefileReads(file, tree);
#endif
}

fs::path scratch(const char* prefix) {
  const fs::path dir = fs::temp_directory_path() /
                       (prefix + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  return dir;
}

}  // namespace

// The tree of `file` as our loader lists it and the portable streams read
// it: all streams open at once and read in turns, in chunks of varying
// sizes, so that every read positions the shared file itself; then seeded
// reads at random positions and of random lengths, which must deliver exactly
// the stream's bytes there, whichever run of a scattered chain they land in;
// past the end, and a clone. With every element open, each storage's
// enumerator lists them all: storages first, then streams, each by code
// units; next answers a short batch, skip may not land on the end, and a
// clone goes on from the cursor.
gxRtTree gxReadOurs(const std::u16string& file, uint32_t* sectorSize) {
  gxRtTree tree;
  gxdFileView view;
  EXPECT_EQ(view.open(file.c_str()), gxdFileView::Status::kOk);
  gxdIStorage* root = nullptr;
  EXPECT_EQ(gxdStgOpenStorage(file.c_str(), 0, &root), 0);
  if (root == nullptr) return tree;
  if (sectorSize != nullptr) *sectorSize = view.file().sectorSize;
  // Storages by path (parents come before their children), and their
  // children as (is a stream, name).
  std::map<std::u16string, gxdIStorage*> storages{{u"", root}};
  std::map<std::u16string, std::vector<std::pair<bool, std::u16string>>> kids;
  std::vector<std::pair<gxdIStream*, std::string*>> streams;
  for (const gxdFileViewElement& e : view.elements()) {
    std::u16string parent, path;
    for (const std::u16string& n : e.names)
      parent = path, path += path.empty() ? n : u"/" + n;
    tree[path] = {e.isStorage, {}};
    kids[parent].emplace_back(!e.isStorage, e.names.back());
    gxdIStorage* in = storages[parent];
    gxdIStream* s = nullptr;
    if (in != nullptr && e.isStorage)
      EXPECT_EQ(in->openStorage(e.names.back().c_str(), &storages[path]), 0);
    else if (in != nullptr && in->openStream(e.names.back().c_str(), &s) == 0)
      streams.emplace_back(s, &tree[path].second);
  }
  for (auto& [path, storage] : storages) {
    auto& want = kids[path];
    std::sort(want.begin(), want.end());
    const uint32_t n = static_cast<uint32_t>(want.size());
    std::vector<gxdsSTATSTG> r(2);
    uint32_t fetched = 0;
    CGxAbsStgEnum *e = nullptr, *c = nullptr;
    if (storage == nullptr || !storage->enumElements(&e)) continue;
    for (uint32_t k = 0; k <= n + 1; ++k) {  // skip k from the start, next 2
      e->reset();
      EXPECT_EQ(e->skip(k), k < n) << k;
      const uint32_t at = k < n ? k : 0;
      EXPECT_TRUE(e->next(2, r.data(), &fetched) == (at < n) &&
                  fetched == std::min(2u, n - at));
      for (uint32_t i = 0; i < fetched; ++i)
        EXPECT_TRUE(reinterpret_cast<const char16_t*>(r[i].name()) ==
                        want[at + i].second &&
                    (r[i].type() == GX_STGTY_STREAM) == want[at + i].first);
    }
    e->reset();
    e->skip(n / 2);
    EXPECT_TRUE(e->clone(&c) && c->next(2, r.data(), &fetched) == (n > 0) &&
                fetched == std::min(2u, n - n / 2));
  }
  std::string chunk(5000, '\0');
  std::vector<bool> reading(streams.size(), true);
  for (uint64_t k = 0, busy = 1; busy > 0; ++k) {
    busy = 0;
    for (size_t i = 0; i < streams.size(); ++i) {
      std::string& data = *streams[i].second;
      uint64_t n = 0, ask = 1 + (k * 977 + data.size()) % 3000;
      reading[i] =
          reading[i] && streams[i].first->read(&chunk[0], ask, &n) == 0;
      if (reading[i] && n > 0) data.append(chunk, 0, n), ++busy;
    }
  }
  std::mt19937 rng(27);
  for (auto& [s, data] : streams) {
    const std::string& d = *data;
    char c = 0;
    uint64_t n = 0;
    for (int k = 0; k < 40; ++k) {
      const uint64_t at = rng() % (d.size() + 1);
      const uint64_t ask = rng() % 3 == 0 ? rng() % 5000 : rng() % 600;
      s->setPosition(at);
      const gxResult r = s->read(&chunk[0], ask, &n);
      EXPECT_TRUE(n == std::min<uint64_t>(ask, d.size() - at) &&
                  chunk.compare(0, n, d, at, n) == 0 &&
                  r == (at == d.size() ? GX_S_FALSE : GX_S_OK) &&
                  s->position() == at + n)
          << at << " " << ask;
    }
    // Past the end, and ~0 (a negative distance): clamped to the size.
    for (uint64_t past : {uint64_t{d.size() + 1}, ~uint64_t{0}}) {
      s->setPosition(past);
      EXPECT_EQ(s->position(), d.size());
    }
    gxdIStream* copy = nullptr;
    EXPECT_TRUE(s->clone(&copy) && copy->position() == 0 &&
                s->position() == d.size());
    EXPECT_TRUE(d.empty() || (copy->read(&c, 1, &n) == 0 && c == d[0]));
    s->release();
  }
  for (auto it = storages.rbegin(); it != storages.rend(); ++it)  // root last
    if (it->second != nullptr) it->second->release();
  return tree;
}

void gxExpectSameTree(const gxRtTree& seen, const gxRtTree& written) {
  EXPECT_EQ(seen.size(), written.size());
  for (const auto& [path, value] : written) {
    auto found = seen.find(path);
    EXPECT_TRUE(found != seen.end() && found->second == value)
        << std::filesystem::path(path).string();
  }
}

#ifndef _WIN32
// olefile reads `file` and finds exactly `tree` (an element named "" stands
// for the root) in it: the tree listed the way `tests/tools/gxstg_test.py
// --list` lists the file.
void gxExpectOlefileReads(const std::filesystem::path& file,
                          const gxRtTree& tree) {
  std::vector<std::string> lines;
  for (const auto& [path, value] : tree) {
    if (path.empty()) continue;  // the root
    std::string line = value.first ? "storage " : "stream ";
    char buf[32];
    for (char16_t c : path) {
      std::snprintf(buf, sizeof buf, c == u'/' ? "/" : "%04x", unsigned(c));
      line += buf;
    }
    uint32_t a = 1, b = 0;  // Adler-32
    for (unsigned char c : value.second)
      a = (a + c) % 65521, b = (b + a) % 65521;
    std::snprintf(buf, sizeof buf, " %zu %08x", value.second.size(),
                  unsigned(b << 16 | a));
    lines.push_back(line + (value.first ? " 0 -" : buf) + "\n");
  }
  std::sort(lines.begin(), lines.end());
  std::string want;
  for (const std::string& line : lines) want += line;
  EXPECT_NE(want, "");
  EXPECT_EQ(run("/usr/bin/python3 " GXSTORAGE_TEST_SOURCE_DIR
                "/tests/tools/gxstg_test.py --list " +
                file.string() + " 2>&1"),
            want);
}
#endif

// A tree written the same way gives the same file, byte for byte: 64-bit
// FNV-1a digests of the files, taken when every reader read them back.
TEST(RoundTripTest, RandomTreesReadBackByOurLoaderAndTheReference) {
  const uint64_t kHashes[] = {
      0xDD5AF67D525D5DC3ull, 0x9BA9255E4E30D889ull, 0x144CA08F8310445Cull,
      0xE6D7A1F74982E8DFull, 0xD9351953CE4CC7FBull, 0xAC98EA5A0AB88B67ull,
      0x94AF4A805E567FD1ull, 0x5E42997B87EA953Full, 0x28321548B1E7A990ull};
  const fs::path dir = scratch("gx-rt-");
  uint32_t seed = 0;
  for (const auto& [name, plan] : plans()) {
    SCOPED_TRACE(name);
    const fs::path file = dir / (name + ".gxw");
    writeTree(file.u16string(), plan, seed + 1, true);
    std::ifstream in(file, std::ios::binary);
    uint64_t hash = 0xCBF29CE484222325ull;
    for (char c; in.get(c);) hash = (hash ^ uint8_t(c)) * 0x100000001B3ull;
    EXPECT_EQ(hash, kHashes[seed++]) << std::hex << hash;
    gxExpectSameTree(gxReadOurs(file.u16string()), treeOf(plan));
    expectReferenceSees(file, treeOf(plan));
  }
  fs::remove_all(dir);
}

// The version 3 and version 4 files that Wine's ole32 wrote load as the
// reference reads them; the platform also writes the round-trip trees
// afresh (their blocks interleaved as the writes came), and our loader, the
// platform once the file is closed, and olefile must read them as they were
// written.
TEST(PlatformFiles, FilesThePlatformWroteLoadAsTheReferenceReadsThem) {
  const fs::path dir = scratch("gx-plat-");
  for (int version : {3, 4}) {
    SCOPED_TRACE(version);
    // A copy: the platform's service opens files for writing.
    const fs::path file = dir / ("ole32_v" + std::to_string(version) + ".cfb");
    fs::copy_file(fs::path(GXSTORAGE_TEST_DATA_DIR) / file.filename(), file);
    uint32_t sectorSize = 0;
    const gxRtTree tree = gxReadOurs(file.u16string(), &sectorSize);
    EXPECT_GE(tree.size(), 20u);
    EXPECT_EQ(version == 4 ? 4096u : 512u, sectorSize);
    expectReferenceSees(file, tree);
  }
  for (const auto& [name, plan] : plans()) {
    if (name == "rt3" || name == "rt6") continue;  // large: difat is enough
    SCOPED_TRACE(name);
    const fs::path file = dir / (name + ".cfb");
    writeTree(file.u16string(), plan, 1, false);
    gxExpectSameTree(gxReadOurs(file.u16string()), treeOf(plan));
    expectReferenceSees(file, treeOf(plan));
  }
  fs::remove_all(dir);
}
