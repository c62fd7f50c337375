// The service's core against a model: seeded random edits (add, write,
// resize across the mini-stream cutoff, rename, remove, commit, revert) on
// files held in memory, direct and transacted, checked after every commit,
// after a reopen and by the portable loader; the red-black rules of every
// sibling tree; and freed space. Commits cut off at every write are the
// failing-disk tests' (faults_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>

#include "service/gxsDocFile.h"
#include "support/gxMemoryFile.h"
#include "support/gxRoundTrip.h"

namespace {

using Model = gxRtTree;  // path -> (storage, bytes)

struct Doc {
  std::shared_ptr<gxMemoryBytes> bytes = std::make_shared<gxMemoryBytes>();
  std::unique_ptr<gxsDocFile> file;
  std::map<std::u16string, uint32_t> ids = {{u"", gxsDocFile::kRootId}};

  HRESULT open(bool transacted = false, bool create = false) {
    file.reset();
    auto f = std::make_unique<gxMemoryFile>(bytes);
    HRESULT hr = create ? gxsDocFile::create(std::move(f), file)
                        : gxsDocFile::open(std::move(f), true, file);
    if (hr == S_OK) file->setTransacted(transacted);
    return hr;
  }
};

std::u16string join(const std::u16string& dir, const std::u16string& name) {
  return dir.empty() ? name : dir + u"/" + name;
}

// Black height of the tree under `node`, or -1 when a rule is broken.
int blackHeight(const gxsDocFile& f, uint32_t node) {
  if (node == kNoStream) return 0;
  const gxdDirRecord& r = f.entry(node);
  for (uint32_t c : {r.leftSibling, r.rightSibling})
    if (r.colour == 0 && c != kNoStream && f.entry(c).colour == 0) return -1;
  const int left = blackHeight(f, r.leftSibling);
  if (left < 0 || left != blackHeight(f, r.rightSibling)) return -1;
  return left + r.colour;
}

// The whole tree as the core lists and reads it; fills `doc.ids` and
// counts sibling trees that break the red-black rules in `unbalanced`.
Model readTree(Doc& doc, int* unbalanced = nullptr) {
  Model tree;
  doc.ids = {{u"", gxsDocFile::kRootId}};
  std::vector<std::u16string> dirs = {u""};
  std::vector<uint32_t> kids;
  while (!dirs.empty()) {
    const std::u16string dir = dirs.back();
    dirs.pop_back();
    const uint32_t parent = doc.ids[dir];
    if (unbalanced && blackHeight(*doc.file, doc.file->entry(parent).child) < 0)
      ++*unbalanced;
    if (doc.file->children(parent, kids) != S_OK) return {};
    for (uint32_t id : kids) {
      const gxdDirRecord& r = doc.file->entry(id);
      const std::u16string path = join(dir, r.name());
      doc.ids[path] = id;
      std::string data(r.objectType == kObjStream ? r.streamSize : 0, '\0');
      uint32_t done = 0;
      if (r.objectType == kObjStorage)
        dirs.push_back(path);
      else if (doc.file->readStream(id, 0, &data[0], uint32_t(data.size()),
                                    done) != S_OK)
        data = "<unreadable>";
      tree[path] = {r.objectType == kObjStorage, data};
    }
  }
  return tree;
}

void expectModel(Doc& doc, const Model& model) {
  int unbalanced = 0;
  EXPECT_TRUE(readTree(doc, &unbalanced) == model);
  EXPECT_EQ(unbalanced, 0);
}

// One seeded step on `doc` and `model`; false when the core refused it.
bool randomStep(Doc& doc, Model& model, std::mt19937& rng) {
  auto pick = [&](bool storage) {
    std::vector<std::u16string> paths;
    if (storage) paths.push_back(u"");
    for (const auto& [path, element] : model)
      if (element.first == storage) paths.push_back(path);
    return paths.empty() ? std::u16string(u"?") : paths[rng() % paths.size()];
  };
  const int op = static_cast<int>(rng() % 9);
  std::u16string name = u"n";
  for (uint32_t i = rng() % 4; i < 6; ++i) name += char16_t(u'a' + rng() % 20);
  uint32_t id = 0, done = 0;
  if (op <= 2) {  // add an element
    const std::u16string dir = pick(true), path = join(dir, name);
    if (model.count(path)) return true;
    if (doc.file->addEntry(doc.ids.at(dir), name,
                           op == 0 ? kObjStorage : kObjStream, id) != S_OK)
      return false;
    model[path] = {op == 0, ""};
    doc.ids[path] = id;
    return true;
  }
  const std::u16string path = pick(op >= 7 && rng() % 3 == 0);
  if (path.empty() || path == u"?") return true;
  id = doc.ids.at(path);
  std::string& data = model[path].second;
  if (op <= 5) {  // write at a random place, often across 4096
    const uint32_t at = rng() % (data.size() + 5000);
    std::string chunk(rng() % 6000, '\0');
    for (char& c : chunk) c = static_cast<char>('A' + rng() % 26);
    if (doc.file->writeStream(id, at, chunk.data(), uint32_t(chunk.size()),
                              done) != S_OK)
      return false;
    if (chunk.empty()) return true;
    if (data.size() < at + chunk.size()) data.resize(at + chunk.size(), '\0');
    data.replace(at, chunk.size(), chunk);
    return true;
  }
  if (op == 6) {  // resize
    const uint32_t size = rng() % 9000;
    if (doc.file->setStreamSize(id, size) != S_OK) return false;
    data.resize(size, '\0');
    return true;
  }
  // Remove or rename, with everything below.
  const size_t slash = path.rfind(u'/');
  const std::u16string dir =
      slash == std::u16string::npos ? u"" : path.substr(0, slash);
  const std::u16string to = join(dir, name);
  if (op == 8 && model.count(to)) return true;
  std::vector<uint32_t> removed;
  if ((op == 7 ? doc.file->removeEntry(doc.ids.at(dir), id, removed)
               : doc.file->renameEntry(doc.ids.at(dir), id, name)) != S_OK)
    return false;
  Model moved;
  for (auto it = model.begin(); it != model.end();) {
    const bool below =
        it->first == path || it->first.rfind(path + u"/", 0) == 0;
    if (below) moved[to + it->first.substr(path.size())] = it->second;
    it = below ? model.erase(it) : std::next(it);
  }
  if (op == 8) model.insert(moved.begin(), moved.end());
  readTree(doc);  // ids of renamed paths
  return true;
}

TEST(ServiceDocFile, SeededEditsMatchTheModelDirectAndTransacted) {
  for (bool transacted : {false, true}) {
    for (uint32_t seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(testing::Message()
                   << "seed " << seed << " transacted " << transacted);
      std::mt19937 rng(seed);
      Doc doc;
      ASSERT_EQ(doc.open(transacted, true), S_OK);
      Model model, committed;
      for (int step = 0; step < 250; ++step) {
        if (rng() % 12 != 0) {
          ASSERT_TRUE(randomStep(doc, model, rng)) << step;
          continue;
        }
        const bool revert = transacted && rng() % 3 == 0;
        ASSERT_EQ(revert ? doc.file->revert() : doc.file->commit(), S_OK);
        if (revert) model = committed;
        committed = model;
        expectModel(doc, model);
        if (HasFailure()) return;
      }
      ASSERT_EQ(doc.file->close(), S_OK);
      ASSERT_EQ(doc.open(), S_OK);
      const Model& kept = transacted ? committed : model;
      expectModel(doc, kept);
      // Opened for writing and closed unchanged: not a byte differs.
      const std::vector<uint8_t> before = doc.bytes->bytes;
      ASSERT_EQ(doc.file->close(), S_OK);
      EXPECT_TRUE(doc.bytes->bytes == before);
      // The portable loader reads the same tree.
      const std::string name =
          "service_docfile_" + std::to_string(seed) + ".cfb";
      std::ofstream(name, std::ios::binary)
          .write(reinterpret_cast<const char*>(before.data()),
                 static_cast<std::streamsize>(before.size()));
      gxExpectSameTree(gxReadOurs(std::u16string(name.begin(), name.end())),
                       kept);
    }
  }
}

// Removed streams leave none of their bytes in the file, whether a commit
// saw them or not, and the space they held is taken again before the file
// grows.
TEST(ServiceDocFile, RemovedStreamsLeaveNoBytesAndTheirSpaceIsReused) {
  for (bool transacted : {false, true}) {
    SCOPED_TRACE(transacted ? "transacted" : "direct");
    Doc doc;
    ASSERT_EQ(doc.open(transacted, true), S_OK);
    std::vector<size_t> sizes;
    std::vector<uint32_t> removed;
    uint32_t id = 0, done = 0;
    auto add = [&](const char16_t* name, char c, uint32_t size) {
      const std::string data(size, c);
      return doc.file->addEntry(0, name, kObjStream, id) == S_OK &&
             doc.file->writeStream(id, 0, data.data(), size, done) == S_OK;
    };
    auto remove = [&](const char16_t* name) {
      removed.clear();
      return doc.file->find(0, name, id) == S_OK &&
             doc.file->removeEntry(0, id, removed) == S_OK;
    };
    auto holds = [&](char c) {
      return std::search_n(doc.bytes->bytes.begin(), doc.bytes->bytes.end(), 64,
                           uint8_t(c)) != doc.bytes->bytes.end();
    };
    for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(add(u"gone", 'Q', 100000) && add(u"tiny", 'Z', 3000) &&
                  add(u"keep", 'K', 5000));
      ASSERT_TRUE(remove(u"gone") && remove(u"tiny"));
      ASSERT_EQ(doc.file->commit(), S_OK);
      EXPECT_FALSE(holds('Q') || holds('Z'));
      ASSERT_TRUE(add(u"big", 'R', 100000));
      ASSERT_EQ(doc.file->commit(), S_OK);
      sizes.push_back(doc.bytes->bytes.size());
      ASSERT_TRUE(remove(u"big") && remove(u"keep"));
      ASSERT_EQ(doc.file->commit(), S_OK);
      EXPECT_FALSE(holds('R') || holds('K'));
    }
    EXPECT_EQ(sizes[2], sizes[1]);
  }
}

// Thousands of siblings added, then half removed in a seeded order: the
// tree keeps the red-black rules and lookups fold case (the order children
// come out in is the differential sequences' to compare).
TEST(ServiceDocFile, ManySiblingsStayBalancedThroughAddsAndRemoves) {
  Doc doc;
  ASSERT_EQ(doc.open(false, true), S_OK);
  Model model;
  std::mt19937 rng(7);
  std::vector<std::u16string> names;
  uint32_t id = 0;
  for (int i = 0; i < 3000; ++i) {
    std::u16string name = u"s" + std::u16string(1, u'A' + rng() % 26);
    for (int v = i; v > 0; v /= 26) name += char16_t(u'a' + v % 26);
    ASSERT_EQ(doc.file->addEntry(0, name, kObjStream, id), S_OK);
    names.push_back(name);
    model[name] = {false, ""};
  }
  std::shuffle(names.begin(), names.end(), rng);
  for (size_t i = 0; i < names.size() / 2; ++i) {
    std::vector<uint32_t> removed;
    std::u16string upper = names[i];
    for (char16_t& c : upper) c = c >= u'a' && c <= u'z' ? c - 32 : c;
    ASSERT_EQ(doc.file->find(0, upper, id), S_OK);
    ASSERT_EQ(doc.file->removeEntry(0, id, removed), S_OK);
    model.erase(names[i]);
    if (i % 100 == 0) {
      ASSERT_GE(blackHeight(*doc.file, doc.file->entry(0).child), 0) << i;
    }
  }
  ASSERT_EQ(doc.file->close(), S_OK);
  ASSERT_EQ(doc.open(), S_OK);
  expectModel(doc, model);
}

}  // namespace
