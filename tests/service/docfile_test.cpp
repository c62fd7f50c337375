// The service's core against a model: seeded random edits (add, write,
// resize across the mini-stream cutoff, rename, remove, commit, revert) on
// files held in memory, direct and transacted, checked after every step,
// after a reopen and by the portable loader; the red-black rules of every
// sibling tree; and commits cut off at every write.
#include <gtest/gtest.h>

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
  std::map<std::u16string, uint32_t> ids;

  HRESULT create() {
    return gxsDocFile::create(std::make_unique<gxMemoryFile>(bytes), file);
  }
  HRESULT reopen(bool transacted = false) {
    file.reset();
    HRESULT hr =
        gxsDocFile::open(std::make_unique<gxMemoryFile>(bytes), true, file);
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
  int left = blackHeight(f, r.leftSibling);
  int right = blackHeight(f, r.rightSibling);
  if (left < 0 || left != right) return -1;
  return left + (r.colour == 1 ? 1 : 0);
}

// The whole tree as the core lists and reads it; fills `doc.ids` and
// counts sibling trees that break the red-black rules in `unbalanced`.
Model readTree(Doc& doc, int* unbalanced = nullptr) {
  Model tree;
  doc.ids = {{u"", gxsDocFile::kRootId}};
  std::vector<std::u16string> dirs = {u""};
  while (!dirs.empty()) {
    std::u16string dir = dirs.back();
    dirs.pop_back();
    uint32_t parent = doc.ids[dir];
    if (unbalanced && blackHeight(*doc.file, doc.file->entry(parent).child) < 0)
      ++*unbalanced;
    std::vector<uint32_t> kids;
    if (doc.file->children(parent, kids) != S_OK) return {};
    for (uint32_t id : kids) {
      const gxdDirRecord& r = doc.file->entry(id);
      std::u16string path = join(dir, r.name());
      doc.ids[path] = id;
      if (r.objectType == kObjStorage) {
        tree[path] = {true, ""};
        dirs.push_back(path);
        continue;
      }
      std::string data(static_cast<size_t>(r.streamSize), '\0');
      uint32_t done = 0;
      if (doc.file->readStream(id, 0, &data[0],
                               static_cast<uint32_t>(data.size()),
                               done) != S_OK)
        data = "<unreadable>";
      tree[path] = {false, data};
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
  int op = static_cast<int>(rng() % 9);
  std::u16string name = u"n";
  for (uint32_t i = rng() % 4; i < 6; ++i)
    name += static_cast<char16_t>(u'a' + rng() % 20);
  if (op <= 2) {  // add an element
    std::u16string dir = pick(true), path = join(dir, name);
    uint32_t id = 0;
    if (model.count(path)) return true;
    if (doc.file->addEntry(doc.ids.at(dir), name,
                           op == 0 ? kObjStorage : kObjStream, id) != S_OK)
      return false;
    model[path] = {op == 0, ""};
    doc.ids[path] = id;
    return true;
  }
  std::u16string path = pick(op >= 7 && rng() % 3 == 0);
  if (path.empty() || path == u"?") return true;
  const uint32_t id = doc.ids.at(path);
  if (op <= 5) {  // write at a random place, often across 4096
    std::string& data = model[path].second;
    uint32_t at = rng() % (data.size() + 5000);
    std::string chunk(rng() % 6000, '\0');
    for (char& c : chunk) c = static_cast<char>('A' + rng() % 26);
    uint32_t done = 0;
    if (doc.file->writeStream(id, at, chunk.data(),
                              static_cast<uint32_t>(chunk.size()),
                              done) != S_OK)
      return false;
    if (chunk.empty()) return true;
    if (data.size() < at + chunk.size()) data.resize(at + chunk.size(), '\0');
    data.replace(at, chunk.size(), chunk);
    return true;
  }
  if (op == 6) {  // resize
    uint32_t size = rng() % 9000;
    if (doc.file->setStreamSize(id, size) != S_OK) return false;
    model[path].second.resize(size, '\0');
    return true;
  }
  // Remove or rename, with everything below.
  size_t slash = path.rfind(u'/');
  std::u16string dir = slash == std::u16string::npos ? u"" : path.substr(0, slash);
  std::u16string to = join(dir, name);
  if (op == 8 && model.count(to)) return true;
  std::vector<uint32_t> removed;
  if ((op == 7 ? doc.file->removeEntry(doc.ids.at(dir), id, removed)
               : doc.file->renameEntry(doc.ids.at(dir), id, name)) != S_OK)
    return false;
  Model moved;
  for (auto it = model.begin(); it != model.end();) {
    if (it->first == path || it->first.rfind(path + u"/", 0) == 0) {
      moved[to + it->first.substr(path.size())] = it->second;
      it = model.erase(it);
    } else {
      ++it;
    }
  }
  if (op == 8) model.insert(moved.begin(), moved.end());
  readTree(doc);  // ids of renamed paths
  return true;
}

TEST(ServiceDocFile, SeededEditsMatchTheModelDirectAndTransacted) {
  for (bool transacted : {false, true}) {
    for (uint32_t seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " transacted "
                                      << transacted);
      std::mt19937 rng(seed);
      Doc doc;
      ASSERT_EQ(doc.create(), S_OK);
      doc.file->setTransacted(transacted);
      doc.ids = {{u"", 0}};
      Model model, committed;
      for (int step = 0; step < 250; ++step) {
        if (rng() % 12 != 0) {
          ASSERT_TRUE(randomStep(doc, model, rng)) << step;
          continue;
        }
        if (!transacted || rng() % 3 != 0) {
          ASSERT_EQ(doc.file->commit(), S_OK);
          committed = model;
        } else {
          ASSERT_EQ(doc.file->revert(), S_OK);
          model = committed;
        }
        expectModel(doc, model);
        if (HasFailure()) return;
      }
      ASSERT_EQ(doc.file->close(), S_OK);
      ASSERT_EQ(doc.reopen(), S_OK);
      const Model& kept = transacted ? committed : model;
      expectModel(doc, kept);
      // The portable loader reads the same tree.
      std::string name = "service_docfile_" + std::to_string(seed) + ".cfb";
      std::ofstream(name, std::ios::binary)
          .write(reinterpret_cast<const char*>(doc.bytes->bytes.data()),
                 static_cast<std::streamsize>(doc.bytes->bytes.size()));
      gxExpectSameTree(gxReadOurs(std::u16string(name.begin(), name.end())),
                       kept);
    }
  }
}

// A transacted edit whose writes stop at the N-th (the rest never reach
// the disk, the failing one may land its first 512 bytes), for every N:
// the file then opens with exactly the old tree or exactly the new one, and
// doing the edit again completes it.
TEST(ServiceDocFile, CommitCutOffAtEveryWriteLeavesTheOldOrTheNewTree) {
  for (uint32_t seed = 1; seed <= 2; ++seed) {
    Doc base;
    ASSERT_EQ(base.create(), S_OK);
    base.ids = {{u"", 0}};
    Model oldTree;
    std::mt19937 rng(seed);
    for (int i = 0; i < 60; ++i) ASSERT_TRUE(randomStep(base, oldTree, rng));
    ASSERT_EQ(base.file->close(), S_OK);
    const std::vector<uint8_t> before = base.bytes->bytes;

    auto edit = [&](Doc& doc, Model& tree, long changesLeft, size_t torn) {
      doc.bytes->bytes = before;
      if (doc.reopen(true) != S_OK) return false;
      readTree(doc);
      doc.bytes->changesLeft = changesLeft;
      doc.bytes->tornBytes = torn;
      doc.bytes->changes = 0;
      std::mt19937 editRng(seed + 100);
      tree = oldTree;
      for (int i = 0; i < 15; ++i)
        if (!randomStep(doc, tree, editRng)) return false;
      return doc.file->commit() == S_OK;
    };
    Doc full;
    Model newTree;
    ASSERT_TRUE(edit(full, newTree, -1, 0));
    const long total = full.bytes->changes;
    ASSERT_NE(newTree, oldTree);
    int sawOld = 0, sawNew = 0;
    for (long n = 0; n <= total; ++n) {
      for (size_t torn : {size_t{0}, size_t{512}}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " cut at " << n
                                        << " torn " << torn);
        Doc doc;
        Model ignored;
        bool done = edit(doc, ignored, n, torn);
        // Writes after the header's are cleanup that may fail unseen.
        EXPECT_TRUE(done || n < total);
        doc.file.reset();
        doc.bytes->changesLeft = -1;
        ASSERT_EQ(doc.reopen(), S_OK);
        Model seen = readTree(doc);
        bool isOld = seen == oldTree, isNew = seen == newTree;
        EXPECT_TRUE(done ? isNew : isOld || isNew);
        sawOld += isOld;
        sawNew += isNew;
        if (HasFailure()) return;
      }
    }
    EXPECT_GT(sawOld, 0);
    EXPECT_GT(sawNew, 0);
  }
}

TEST(ServiceDocFile, ManySiblingsStayBalancedThroughAddsAndRemoves) {
  Doc doc;
  ASSERT_EQ(doc.create(), S_OK);
  Model model;
  std::mt19937 rng(7);
  std::vector<std::u16string> names;
  for (int i = 0; i < 3000; ++i) {
    std::u16string name = u"s" + std::u16string(1, u'A' + rng() % 26);
    for (int v = i; v > 0; v /= 26) name += static_cast<char16_t>(u'a' + v % 26);
    uint32_t id = 0;
    ASSERT_EQ(doc.file->addEntry(0, name, kObjStream, id), S_OK);
    names.push_back(name);
    model[name] = {false, ""};
  }
  std::shuffle(names.begin(), names.end(), rng);
  for (size_t i = 0; i < names.size() / 2; ++i) {
    uint32_t id = 0;
    ASSERT_EQ(doc.file->find(0, names[i], id), S_OK);
    std::vector<uint32_t> removed;
    ASSERT_EQ(doc.file->removeEntry(0, id, removed), S_OK);
    model.erase(names[i]);
    if (i % 200 == 0) {
      ASSERT_GE(blackHeight(*doc.file, doc.file->entry(0).child), 0) << i;
    }
  }
  ASSERT_EQ(doc.file->close(), S_OK);
  ASSERT_EQ(doc.reopen(), S_OK);
  expectModel(doc, model);
  // Lookups fold case; children come out in the platform's order.
  uint32_t id = 0;
  std::u16string upper = names.back();
  for (char16_t& c : upper) c = c >= u'a' && c <= u'z' ? c - 32 : c;
  EXPECT_EQ(doc.file->find(0, upper, id), S_OK);
  std::vector<uint32_t> kids;
  ASSERT_EQ(doc.file->children(0, kids), S_OK);
  for (size_t i = 1; i < kids.size(); ++i) {
    std::u16string a = doc.file->entry(kids[i - 1]).name();
    std::u16string b = doc.file->entry(kids[i]).name();
    ASSERT_TRUE(a.size() < b.size() || (a.size() == b.size() && a < b)) << i;
  }
}

}  // namespace
