// The service's core against a model: seeded random edits (add, write,
// resize across the mini-stream cutoff, rename, remove) on files held in
// memory, checked after every step, after a reopen, by the portable loader
// and by olefile; and the red-black rules of every sibling tree.
#include <gtest/gtest.h>

#include <cstdio>
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

  HRESULT reopen() {
    file.reset();
    return gxsDocFile::open(std::make_unique<gxMemoryFile>(bytes), true, file);
  }
};

std::u16string parentOf(const std::u16string& path) {
  size_t slash = path.rfind(u'/');
  return slash == std::u16string::npos ? u"" : path.substr(0, slash);
}

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

// Looks every element of `model` up again through the file and compares
// names, kinds, sizes, bytes and sibling trees; rebuilds `doc.ids`.
void expectModel(Doc& doc, const Model& model) {
  doc.ids = {{u"", gxsDocFile::kRootId}};
  for (const auto& [path, element] : model) {
    SCOPED_TRACE(std::string(path.begin(), path.end()));
    uint32_t id = 0;
    ASSERT_EQ(doc.file->find(doc.ids.at(parentOf(path)),
                             path.substr(path.rfind(u'/') + 1), id),
              S_OK);
    doc.ids[path] = id;
    const gxdDirRecord& r = doc.file->entry(id);
    ASSERT_EQ(r.objectType, element.first ? kObjStorage : kObjStream);
    if (element.first) {
      ASSERT_GE(blackHeight(*doc.file, r.child), 0);
      continue;
    }
    ASSERT_EQ(r.streamSize, element.second.size());
    std::string data(element.second.size(), '\0');
    uint32_t done = 0;
    ASSERT_EQ(doc.file->readStream(id, 0, &data[0],
                                   static_cast<uint32_t>(data.size()), done),
              S_OK);
    ASSERT_EQ(data, element.second);
  }
  ASSERT_GE(blackHeight(*doc.file, doc.file->entry(0).child), 0);
  std::vector<uint32_t> kids;
  ASSERT_EQ(doc.file->children(0, kids), S_OK);
  size_t top = 0;
  for (const auto& entry : model)
    if (entry.first.find(u'/') == std::u16string::npos) ++top;
  EXPECT_EQ(kids.size(), top);
}

TEST(ServiceDocFile, SeededEditsMatchTheModelAfterEveryStepAndReopen) {
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    Doc doc;
    ASSERT_EQ(gxsDocFile::create(std::make_unique<gxMemoryFile>(doc.bytes),
                                 doc.file),
              S_OK);
    Model model;
    auto pick = [&](bool storage) {
      std::vector<std::u16string> paths = {u""};
      for (const auto& [path, element] : model)
        if (element.first == storage) paths.push_back(path);
      if (!storage) paths.erase(paths.begin());
      return paths.empty() ? std::u16string(u"\x01")
                           : paths[rng() % paths.size()];
    };
    for (int step = 0; step < 300; ++step) {
      int op = static_cast<int>(rng() % 10);
      std::u16string name = u"n";
      for (uint32_t i = rng() % 4; i < 6; ++i)
        name += static_cast<char16_t>(u'a' + rng() % 20);
      if (op <= 2) {  // add an element
        std::u16string dir = pick(true);
        std::u16string path = join(dir, name);
        uint32_t id = 0;
        if (model.count(path)) continue;
        bool storage = op == 0;
        ASSERT_EQ(doc.file->addEntry(doc.ids.at(dir), name,
                                     storage ? kObjStorage : kObjStream, id),
                  S_OK);
        model[path] = {storage, ""};
        doc.ids[path] = id;
      } else if (op <= 5) {  // write at a random place, often across 4096
        std::u16string path = pick(false);
        if (path == u"\x01") continue;
        std::string& data = model[path].second;
        uint32_t at = rng() % (data.size() + 5000);
        std::string chunk(rng() % 6000, '\0');
        for (char& c : chunk) c = static_cast<char>('A' + rng() % 26);
        uint32_t done = 0;
        ASSERT_EQ(doc.file->writeStream(doc.ids.at(path), at, chunk.data(),
                                        static_cast<uint32_t>(chunk.size()),
                                        done),
                  S_OK);
        if (!chunk.empty() && data.size() < at + chunk.size())
          data.resize(at + chunk.size(), '\0');
        data.replace(at, chunk.size(), chunk);
      } else if (op == 6) {  // resize
        std::u16string path = pick(false);
        if (path == u"\x01") continue;
        uint32_t size = rng() % 9000;
        ASSERT_EQ(doc.file->setStreamSize(doc.ids.at(path), size), S_OK);
        model[path].second.resize(size, '\0');
      } else if (op == 7 || op == 8) {  // remove or rename
        std::u16string path = pick(rng() % 3 == 0);
        if (path.empty() || path == u"\x01") continue;
        std::u16string dir = parentOf(path);
        uint32_t id = doc.ids.at(path);
        if (op == 7) {
          std::vector<uint32_t> removed;
          ASSERT_EQ(doc.file->removeEntry(doc.ids.at(dir), id, removed), S_OK);
          for (auto it = model.begin(); it != model.end();)
            it = it->first == path || it->first.rfind(path + u"/", 0) == 0
                     ? model.erase(it)
                     : std::next(it);
        } else {
          std::u16string to = join(dir, name);
          if (model.count(to)) continue;
          ASSERT_EQ(doc.file->renameEntry(doc.ids.at(dir), id, name), S_OK);
          Model moved;
          for (auto it = model.begin(); it != model.end();) {
            if (it->first == path || it->first.rfind(path + u"/", 0) == 0) {
              moved[to + it->first.substr(path.size())] = it->second;
              it = model.erase(it);
            } else {
              ++it;
            }
          }
          model.insert(moved.begin(), moved.end());
        }
        expectModel(doc, model);
      } else {
        ASSERT_EQ(doc.file->flush(), S_OK);
        expectModel(doc, model);
      }
      if (HasFatalFailure()) return;
    }
    ASSERT_EQ(doc.file->close(), S_OK);
    ASSERT_EQ(doc.reopen(), S_OK);
    expectModel(doc, model);
    // The portable loader reads the same tree.
    std::string name = "service_docfile_" + std::to_string(seed) + ".cfb";
    std::ofstream(name, std::ios::binary)
        .write(reinterpret_cast<const char*>(doc.bytes->bytes.data()),
               static_cast<std::streamsize>(doc.bytes->bytes.size()));
    gxExpectSameTree(gxReadOurs(std::u16string(name.begin(), name.end())),
                     model);
  }
}

TEST(ServiceDocFile, ManySiblingsStayBalancedThroughAddsAndRemoves) {
  Doc doc;
  ASSERT_EQ(
      gxsDocFile::create(std::make_unique<gxMemoryFile>(doc.bytes), doc.file),
      S_OK);
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
