// Portable storage: result codes of opening and creating elements, the
// temporary file's name, ownership of the tree, and round trips of random
// trees through the portable objects.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "portable/gxdStgEnum.h"
#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"

namespace {

const gxResult kNotFound = GX_STG_E_FILENOTFOUND;
const gxResult kExists = GX_STG_E_FILEALREADYEXISTS;

std::string slurp(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A created file holding storage "sub" (with stream "inner") and stream "s".
void makeSmallFile(const char16_t* path) {
  gxdIStorage *root = nullptr, *sub = nullptr;
  gxdIStream *s = nullptr, *inner = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0x12, &root), GX_S_OK);
  ASSERT_EQ(root->createStorage(u"sub", &sub), GX_S_OK);
  ASSERT_EQ(sub->createStream(u"inner", &inner), GX_S_OK);
  ASSERT_EQ(root->createStream(u"s", &s), GX_S_OK);
  s->write("hello", 5, nullptr);
  inner->write("xyz", 3, nullptr);
  root->commit();
  inner->release();
  s->release();
  sub->release();
  root->release();
}

TEST(PortableStorage, ResultCodesOfOpenAndCreate) {
  gxdIStorage* root = reinterpret_cast<gxdIStorage*>(0x1);
  SCOPED_TRACE("missing file: E_FAIL, out pointer untouched");
  EXPECT_EQ(gxdStgOpenStorage(u"storage_test_missing.gxw", 0, &root), GX_E_FAIL);
  EXPECT_EQ(root, reinterpret_cast<gxdIStorage*>(0x1));
  std::ofstream("storage_test_text.gxw") << std::string(1024, 'x');
  EXPECT_EQ(gxdStgOpenStorage(u"storage_test_text.gxw", 0, &root), GX_E_FAIL);

  makeSmallFile(u"storage_test_codes.gxw");
  root = nullptr;
  ASSERT_EQ(gxdStgOpenStorage(u"storage_test_codes.gxw", 0xFFFF, &root), GX_S_OK);
  gxdStorage* r = static_cast<gxdStorage*>(root);
  gxdIStorage *a = nullptr, *b = nullptr;
  gxdIStream *s = nullptr, *t = nullptr;
  {
    SCOPED_TRACE("opening names the file lacks");
    EXPECT_EQ(root->openStream(u"S", &s), kNotFound);
    EXPECT_EQ(root->openStorage(u"s", &a), kNotFound);  // a stream, not a storage
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(a, nullptr);
    EXPECT_TRUE(r->openStreams.empty() && r->openStorages.empty());
  }
  {
    SCOPED_TRACE("an open storage is the same object, one more reference");
    ASSERT_EQ(root->openStorage(u"sub", &a), GX_S_OK);
    ASSERT_EQ(root->openStorage(u"sub", &b), GX_S_OK);
    EXPECT_EQ(a, b);
    EXPECT_EQ(static_cast<gxdStorage*>(a)->refCount, 3u);
    gxdsSTATSTG info;
    a->stat(&info);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info.name())), u"sub");
    EXPECT_EQ(root->createStorage(u"sub", &b), GX_S_OK);  // read-only: same one
    EXPECT_EQ(a, b);
  }
  {
    SCOPED_TRACE("an open stream comes back as a clone with a caller reference");
    ASSERT_EQ(root->openStream(u"s", &s), GX_S_OK);
    ASSERT_EQ(root->openStream(u"s", &t), GX_S_OK);
    EXPECT_NE(s, t);
    EXPECT_EQ(static_cast<gxdStream*>(t)->refCount, 2u);
    EXPECT_EQ(static_cast<gxdStream*>(s)->clones.size(), 1u);
  }
  {
    SCOPED_TRACE("read-only storage: create of a new name succeeds, records nothing");
    gxdIStream* n = nullptr;
    EXPECT_EQ(root->createStream(u"new", &n), GX_S_OK);
    char c;
    uint64_t done = 7;
    EXPECT_EQ(n->read(&c, 1, &done), GX_S_FALSE);
    EXPECT_EQ(done, 0u);
    EXPECT_TRUE(r->compoundFile->pendingChanges.empty());
    gxdIStream* dup = reinterpret_cast<gxdIStream*>(0x1);
    EXPECT_EQ(a->createStream(u"inner", &dup), kExists);  // in the file
    EXPECT_EQ(dup, nullptr);
    n->release();
  }
  gxdsSTATSTG info;
  root->stat(&info);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info.name())),
            u"storage_test_codes.gxw");
  const std::string before = slurp("storage_test_codes.gxw");
  root->commit();  // an opened file is never written
  EXPECT_EQ(slurp("storage_test_codes.gxw"), before);
  // Release every handed-out reference except the root's; the root then
  // destroys the children whose last reference sits in its maps.
  t->release();
  s->release();
  a->release();
  a->release();
  a->release();
  root->release();

  SCOPED_TRACE("created file: duplicates refused");
  ASSERT_EQ(gxdStgCreateStorage(u"storage_test_dup.gxw", 0, &root), GX_S_OK);
  ASSERT_EQ(root->createStream(u"x", &s), GX_S_OK);
  ASSERT_EQ(root->createStorage(u"y", &a), GX_S_OK);
  t = reinterpret_cast<gxdIStream*>(0x1);
  b = reinterpret_cast<gxdIStorage*>(0x1);
  EXPECT_EQ(root->createStream(u"x", &t), kExists);
  EXPECT_EQ(root->createStorage(u"y", &b), kExists);
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(b, nullptr);
  EXPECT_EQ(root->openStream(u"z", &t), kNotFound);
  s->release();
  a->release();
  root->release();
}

TEST(PortableStorage, TemporaryFileNameAndPlace) {
  EXPECT_EQ(gxdStorage::tempFileName(u"D:\\out\\model.gxw"), u"D:\\out\\model.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"D:\\data.old\\model"), u"D:\\data.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"/srv/out/model.gxw"), u"/srv/out/model.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"/srv/data.old/model"), u"/srv/data.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"model"), u"model.$t$");
  std::remove("storage_test_tmp.$t$");
  makeSmallFile(u"storage_test_tmp.gxw");
  EXPECT_TRUE(std::ifstream("storage_test_tmp.$t$").good());
}

// Every object handed out, cloned or enumerated below a root goes with the
// root; the sanitizers report any leak or second destruction.
TEST(PortableStorage, ReleasingTheRootDestroysTheTree) {
  for (bool opened : {false, true}) {
    SCOPED_TRACE(opened ? "opened file" : "created file");
    gxdIStorage *root = nullptr, *sub = nullptr;
    gxdIStream *s = nullptr, *copy = nullptr, *again = nullptr;
    if (opened) {
      makeSmallFile(u"storage_test_tree.gxw");
      ASSERT_EQ(gxdStgOpenStorage(u"storage_test_tree.gxw", 0, &root), GX_S_OK);
      ASSERT_EQ(root->openStorage(u"sub", &sub), GX_S_OK);
      ASSERT_EQ(sub->openStream(u"inner", &s), GX_S_OK);
      ASSERT_EQ(sub->openStream(u"inner", &again), GX_S_OK);  // a clone
      again->release();
    } else {
      ASSERT_EQ(gxdStgCreateStorage(u"storage_test_tree.gxw", 0, &root), GX_S_OK);
      ASSERT_EQ(root->createStorage(u"sub", &sub), GX_S_OK);
      ASSERT_EQ(sub->createStream(u"inner", &s), GX_S_OK);
    }
    s->clone(&copy);
    copy->clone(&again);
    CGxAbsStgEnum *e = nullptr, *ec = nullptr;
    sub->enumElements(&e);
    e->clone(&ec);
    root->enumElements(&e);
    s->release();
    sub->release();
    root->release();
  }
}

// Random trees of storages and streams with random sizes (on both sides of
// the mini stream cutoff), written in random chunks, committed, reopened and
// read back in random chunks and from random positions.
TEST(PortableStorage, RandomTreesRoundTrip) {
  struct Node {
    std::u16string path;  // parent storage names joined by '/', then name
    std::vector<uint8_t> data;
  };
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    std::vector<Node> streams;
    std::vector<std::u16string> storages{u""};
    gxdIStorage* root = nullptr;
    ASSERT_EQ(gxdStgCreateStorage(u"storage_test_rt.gxw", 0, &root), GX_S_OK);
    std::vector<gxdIStorage*> open{root};
    for (int i = 0; i < 14; ++i) {
      const uint32_t at = pick(static_cast<uint32_t>(open.size()));
      std::u16string name(1, static_cast<char16_t>(u'a' + i));
      if (pick(4) == 0) {
        gxdIStorage* child = nullptr;
        ASSERT_EQ(open[at]->createStorage(name.c_str(), &child), GX_S_OK);
        open.push_back(child);
        storages.push_back(storages[at] + u"/" + name);
        continue;
      }
      gxdIStream* s = nullptr;
      ASSERT_EQ(open[at]->createStream(name.c_str(), &s), GX_S_OK);
      const uint32_t sizes[] = {0, 1, 100, 4095, 4096, 5000, 70000};
      Node node{storages[at] + u"/" + name, std::vector<uint8_t>(sizes[pick(7)] + pick(3))};
      for (auto& byte : node.data) byte = static_cast<uint8_t>(rng());
      for (size_t done = 0; done < node.data.size();) {
        const size_t n = std::min<size_t>(node.data.size() - done, 1 + pick(1500));
        uint64_t written = 0;
        ASSERT_EQ(s->write(node.data.data() + done, n, &written), GX_S_OK);
        ASSERT_EQ(written, n);
        done += n;
      }
      s->release();
      streams.push_back(node);
    }
    root->commit();
    for (size_t i = 1; i < open.size(); ++i) open[i]->release();
    root->release();

    ASSERT_EQ(gxdStgOpenStorage(u"storage_test_rt.gxw", 0, &root), GX_S_OK);
    for (const Node& node : streams) {
      SCOPED_TRACE(std::string(node.path.begin(), node.path.end()));
      gxdIStorage* dir = root;
      size_t from = 1, slash;
      while ((slash = node.path.find(u'/', from)) != std::u16string::npos) {
        ASSERT_EQ(dir->openStorage(node.path.substr(from, slash - from).c_str(), &dir), GX_S_OK);
        dir->release();  // the parent keeps it open
        from = slash + 1;
      }
      gxdIStream* s = nullptr;
      ASSERT_EQ(dir->openStream(node.path.substr(from).c_str(), &s), GX_S_OK);
      std::vector<uint8_t> back(node.data.size() + 10);
      size_t got = 0;
      for (uint64_t n = 1; n > 0 && got < back.size();) {
        const uint64_t want = std::min<uint64_t>(1 + pick(3000), back.size() - got);
        if (s->read(back.data() + got, want, &n) != GX_S_OK) break;
        got += n;
      }
      EXPECT_EQ(got, node.data.size());
      back.resize(got);
      EXPECT_TRUE(back == node.data);
      for (int k = 0; k < 5 && !node.data.empty(); ++k) {
        const uint32_t at = pick(static_cast<uint32_t>(node.data.size()));
        s->setPosition(at);
        ASSERT_EQ(s->position(), at);
        uint8_t c = 0;
        uint64_t n = 0;
        EXPECT_EQ(s->read(&c, 1, &n), GX_S_OK);
        EXPECT_EQ(c, node.data[at]);
      }
      s->release();
    }
    root->release();
  }
}

}  // namespace
