// The exported adapters over the portable backend, and natively over small
// counting fakes of the platform's IStorage, IStream and IEnumSTATSTG: the
// cache, reference balance, the modes asked of the platform, the seek
// arithmetic and the enumerator's short batch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "portable/gxdInterfaces.h"

namespace {

const unsigned short* units(const char16_t* s) {
  return reinterpret_cast<const unsigned short*>(s);
}

// Records what the adapter asks of a portable stream; positions are set by
// the test.
struct SeekProbe : gxdIStream {
  uint64_t at = 0, target = 12345;
  int refs = 1;
  bool isFailed() override { return false; }
  bool isReadOnly() override { return true; }
  gxResult stat(gxdsSTATSTG*) override { return GX_S_OK; }
  uint64_t position() override { return at; }
  void setPosition(uint64_t t) override { target = t; }
  gxResult read(void*, uint64_t, uint64_t*) override { return GX_S_FALSE; }
  gxResult write(const void*, uint64_t, uint64_t*) override { return GX_E_FAIL; }
  bool clone(gxdIStream**) override { return false; }
  void flush() override {}
  uint32_t addRef() override { return ++refs; }
  void release() override { --refs; }
};

TEST(Adapters, PortableSeekArithmetic) {
  SeekProbe probe;
  {
    gxIStream stream(static_cast<gxdIStream*>(&probe));
    EXPECT_EQ(probe.refs, 2);
    ULARGE_INTEGER out;
    LARGE_INTEGER move;
    const struct { uint64_t at; int64_t move; unsigned origin; uint64_t target; } cases[] = {
        {10, -1, GX_STREAM_SEEK_CUR, 9},
        {0xFFFFFFFFu, 1, GX_STREAM_SEEK_CUR, 0x100000000ull},  // carry into the high half
        {0x1FFFFFFF0ull, 0x20, GX_STREAM_SEEK_CUR, 0x200000010ull},
        {5, -1, GX_STREAM_SEEK_SET, ~0ull},  // negative taken as unsigned
    };
    for (const auto& c : cases) {
      probe.at = c.at;
      move.QuadPart = c.move;
      out.QuadPart = 0;
      EXPECT_TRUE(stream.seek(move, c.origin, &out));
      EXPECT_EQ(probe.target, c.target);
      EXPECT_EQ(out.QuadPart, c.target);
    }
    SCOPED_TRACE("from the end: refused, nothing moves, *newPosition untouched");
    probe.target = 7;
    out.QuadPart = 0xABCD;
    move.QuadPart = -1;
    EXPECT_FALSE(stream.seek(move, GX_STREAM_SEEK_END, &out));
    EXPECT_FALSE(stream.seek(move, 3, nullptr));
    EXPECT_TRUE(probe.target == 7 && out.QuadPart == 0xABCD);
    EXPECT_TRUE(stream.seek(move, GX_STREAM_SEEK_CUR, nullptr));
  }
  EXPECT_EQ(probe.refs, 1);
}

TEST(Adapters, PortableTree) {
  gxdIStorage* backend = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"adapter_test.gxw", 0, &backend), GX_S_OK);
  CGxAbsStorage* root = new gxIStorage(backend, nullptr);
  backend->release();
  CGxAbsStorage *child = nullptr, *again = nullptr;
  CGxAbsStream *s = nullptr, *t = nullptr, *copy = nullptr;
  ASSERT_EQ(root->openIStorage(units(u"Data"), false, &child), GX_S_OK);
  EXPECT_EQ(root->openIStorage(units(u"Data"), false, &again), GX_S_OK);  // cached
  EXPECT_EQ(again, child);
  EXPECT_EQ(root->openIStorage(units(u"data"), true, &again), GX_STG_E_FILENOTFOUND);
  EXPECT_EQ(again, nullptr);
  ASSERT_EQ(child->openIStream(units(u"s"), false, &s), GX_S_OK);
  EXPECT_EQ(child->openIStream(units(u"s"), true, &t), GX_S_OK);
  EXPECT_EQ(t, s);
  EXPECT_FALSE(child->release());  // a child: nothing happens
  unsigned long long written = 0;
  s->write("0123456789", 10, &written);
  EXPECT_EQ(written, 10u);
  gxdsSTATSTG info;
  ASSERT_TRUE(child->stat(&info));
  uint32_t low = 1, high = 1;
  info.size(low, high);
  EXPECT_TRUE(info.type() == GX_STGTY_STORAGE && low == 0 && high == 0);
  ASSERT_TRUE(s->clone(&copy));
  CGxAbsStgEnum* e = nullptr;
  ASSERT_TRUE(child->enumElements(&e));
  EXPECT_TRUE(e->next(1, &info, nullptr));
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(info.name())), u"s");
  child->commit();  // a child commits nothing
  EXPECT_TRUE(root->release());  // destroys the tree; LeakSanitizer watches
}

#ifndef _WIN32
// ---- Counting fakes of the platform interfaces ---------------------------

struct Log {
  int live = 0;
  std::vector<std::string> calls;
  int count(const std::string& what) const {
    int n = 0;
    for (const std::string& c : calls) n += c.compare(0, what.size(), what) == 0;
    return n;
  }
};

std::string narrow(const OLECHAR* s) { return std::string(s, s + std::char_traits<char16_t>::length(reinterpret_cast<const char16_t*>(s))); }

LPOLESTR taskName(const std::string& s) {
  LPOLESTR out = static_cast<LPOLESTR>(CoTaskMemAlloc((s.size() + 1) * sizeof(OLECHAR)));
  for (size_t i = 0; i <= s.size(); ++i) out[i] = static_cast<unsigned char>(s.c_str()[i]);
  return out;
}

template <class I>
struct Fake : I {
  explicit Fake(Log* l) : log(l) { ++log->live; }
  virtual ~Fake() { --log->live; }
  HRESULT QueryInterface(REFIID, void**) override { return E_NOTIMPL; }
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override {
    ULONG left = --refs;
    if (left == 0) delete this;
    return left;
  }
  Log* log;
  ULONG refs = 1;
};

struct FakeEnum : Fake<IEnumSTATSTG> {
  using Fake::Fake;
  size_t at = 0;
  HRESULT Next(ULONG n, STATSTG* r, ULONG* fetched) override {
    log->calls.push_back("Next");
    ULONG k = 0;
    for (; k < n && at < 3; ++k, ++at) {
      r[k] = STATSTG();
      r[k].pwcsName = taskName(std::string(1, static_cast<char>('a' + at)));
      r[k].type = at == 0 ? STGTY_STORAGE : STGTY_STREAM;
      r[k].cbSize.QuadPart = (uint64_t{at} << 32) + 7;
    }
    if (fetched != nullptr) *fetched = k;
    return k == n ? S_OK : S_FALSE;
  }
  HRESULT Skip(ULONG n) override {
    at += n;
    return at <= 3 ? S_OK : (at = 3, S_FALSE);
  }
  HRESULT Reset() override { return at = 0, S_OK; }
  HRESULT Clone(IEnumSTATSTG** out) override {
    FakeEnum* e = new FakeEnum(log);
    e->at = at;
    return *out = e, S_OK;
  }
};

struct FakeStream : Fake<IStream> {
  using Fake::Fake;
  std::string data;
  uint64_t pos = 0;
  HRESULT Read(void* out, ULONG n, ULONG* done) override {
    const ULONG k = static_cast<ULONG>(std::min<uint64_t>(n, data.size() - pos));
    std::memcpy(out, data.data() + pos, k);
    pos += k;
    return *done = k, S_OK;
  }
  HRESULT Write(const void*, ULONG n, ULONG* written) override {
    log->calls.push_back("Write " + std::to_string(n));
    return *written = n / 2, S_OK;
  }
  HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* out) override {
    pos = (origin == STREAM_SEEK_END ? data.size() : origin == STREAM_SEEK_CUR ? pos : 0) + move.QuadPart;
    if (out != nullptr) out->QuadPart = pos;
    return S_OK;
  }
  HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
  HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
  HRESULT Commit(DWORD) override { return E_NOTIMPL; }
  HRESULT Revert() override { return E_NOTIMPL; }
  HRESULT LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  HRESULT UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  HRESULT Stat(STATSTG* info, DWORD) override {
    *info = STATSTG();
    info->pwcsName = taskName("strm");
    info->type = STGTY_STREAM;
    info->cbSize.QuadPart = 0x500000000ull + data.size();
    return S_OK;
  }
  HRESULT Clone(IStream** out) override {
    FakeStream* copy = new FakeStream(log);
    copy->data = data;
    copy->pos = pos;
    return *out = copy, S_OK;
  }
};

// Knows the elements "a" (storage) and "b" (stream); logs each request with
// the name and the mode asked for.
struct FakeStorage : Fake<IStorage> {
  using Fake::Fake;
  template <class T, class Out>
  HRESULT hand(const char* what, const OLECHAR* name, DWORD mode, bool exists, Out** out) {
    log->calls.push_back(std::string(what) + " " + narrow(name) + " " + std::to_string(mode));
    *out = exists ? new T(log) : nullptr;
    return exists ? S_OK : STG_E_FILENOTFOUND;
  }
  HRESULT CreateStream(const OLECHAR* n, DWORD m, DWORD, DWORD, IStream** s) override {
    return hand<FakeStream>("CreateStream", n, m, true, s);
  }
  HRESULT OpenStream(const OLECHAR* n, void*, DWORD m, DWORD, IStream** s) override {
    HRESULT r = hand<FakeStream>("OpenStream", n, m, narrow(n) == "b", s);
    if (r == S_OK) static_cast<FakeStream*>(*s)->data = "platform";
    return r;
  }
  HRESULT CreateStorage(const OLECHAR* n, DWORD m, DWORD, DWORD, IStorage** s) override {
    return hand<FakeStorage>("CreateStorage", n, m, true, s);
  }
  HRESULT OpenStorage(const OLECHAR* n, IStorage*, DWORD m, SNB, DWORD, IStorage** s) override {
    return hand<FakeStorage>("OpenStorage", n, m, narrow(n) == "a", s);
  }
  HRESULT CopyTo(DWORD, const IID*, SNB, IStorage*) override { return E_NOTIMPL; }
  HRESULT MoveElementTo(const OLECHAR*, IStorage*, const OLECHAR*, DWORD) override { return E_NOTIMPL; }
  HRESULT Commit(DWORD) override { return log->calls.push_back("Commit"), S_OK; }
  HRESULT Revert() override { return E_NOTIMPL; }
  HRESULT EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** e) override { return *e = new FakeEnum(log), S_OK; }
  HRESULT DestroyElement(const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT RenameElement(const OLECHAR*, const OLECHAR*) override { return E_NOTIMPL; }
  HRESULT SetElementTimes(const OLECHAR*, const FILETIME*, const FILETIME*, const FILETIME*) override { return E_NOTIMPL; }
  HRESULT SetClass(REFCLSID) override { return E_NOTIMPL; }
  HRESULT SetStateBits(DWORD, DWORD) override { return E_NOTIMPL; }
  HRESULT Stat(STATSTG* info, DWORD) override {
    *info = STATSTG();
    info->pwcsName = taskName("root");
    return info->type = STGTY_STORAGE, S_OK;
  }
};

TEST(Adapters, PlatformBranchOverCountingFakes) {
  Log log;
  FakeStorage* backend = new FakeStorage(&log);
  CGxAbsStorage* root = new gxIStorage(backend, nullptr);
  backend->Release();  // the adapter's reference is now the only one
  CGxAbsStorage *a = nullptr, *other = reinterpret_cast<CGxAbsStorage*>(1);
  CGxAbsStream *b = nullptr, *again = nullptr, *copy = nullptr;
  SCOPED_TRACE("modes, cache hits, case-distinct names, failures");
  ASSERT_EQ(root->openIStorage(units(u"a"), true, &a), S_OK);
  EXPECT_EQ(root->openIStorage(units(u"a"), false, &other), S_OK);
  EXPECT_EQ(other, a);
  EXPECT_EQ(root->openIStorage(units(u"A"), true, &other), STG_E_FILENOTFOUND);
  EXPECT_EQ(other, nullptr);
  ASSERT_EQ(root->openIStream(units(u"b"), true, &b), S_OK);
  EXPECT_EQ(root->openIStream(units(u"b"), false, &again), S_OK);
  EXPECT_EQ(again, b);
  EXPECT_EQ(a->openIStream(units(u"new"), false, &again), S_OK);
  EXPECT_EQ(a->openIStorage(units(u"sub"), false, &other), S_OK);
  EXPECT_EQ(log.calls, (std::vector<std::string>{"OpenStorage a 18", "OpenStorage A 18",
                                                 "OpenStream b 16", "CreateStream new 4113",
                                                 "CreateStorage sub 4114"}));
  SCOPED_TRACE("streams: counts, low 32 bits of the size, seek, stat, clone");
  unsigned long long done = 77;
  again->write("abcdef", 0x100000006ull, &done);
  EXPECT_EQ(log.count("Write 6"), 1);
  EXPECT_EQ(done, 3u);
  char buf[16] = {};
  b->read(buf, sizeof(buf), &done);
  EXPECT_EQ(std::string(buf, done), "platform");
  LARGE_INTEGER move;
  move.QuadPart = -3;
  ULARGE_INTEGER at;
  EXPECT_TRUE(b->seek(move, STREAM_SEEK_END, &at));
  EXPECT_EQ(at.QuadPart, 5u);
  gxdsSTATSTG info;
  uint32_t low = 0, high = 0;
  ASSERT_TRUE(b->stat(&info));
  info.size(low, high);
  EXPECT_TRUE(info.type() == STGTY_STREAM && low == 8 && high == 5);
  ASSERT_TRUE(root->stat(&info));
  EXPECT_EQ(info.type(), STGTY_STORAGE);
  ASSERT_TRUE(b->clone(&copy));
  copy->read(buf, 2, &done);
  EXPECT_EQ(std::string(buf, done), "or");  // from where its maker stood
  b->read(buf, 1, &done);
  EXPECT_EQ(buf[0], 'o');  // the maker's cursor did not move
  b->flush();
  root->commit();
  a->commit();
  EXPECT_EQ(log.count("Commit"), 0);
  SCOPED_TRACE("enumerator: next(0), full and short batches, skip, reset, clone");
  CGxAbsStgEnum *e = nullptr, *e2 = nullptr, *ec = nullptr;
  ASSERT_TRUE(root->enumElements(&e) && root->enumElements(&e2));
  EXPECT_NE(e, e2);
  gxdsSTATSTG r[2];
  uint32_t fetched = 9;
  EXPECT_FALSE(e->next(0, r, &fetched));
  EXPECT_EQ(fetched, 0u);
  EXPECT_EQ(log.count("Next"), 0);
  EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2);
  r[0].size(low, high);
  EXPECT_TRUE(r[0].type() == STGTY_STORAGE && low == 7 && high == 0);
  r[1].size(low, high);
  EXPECT_EQ(high, 1u);
  r[1].setName(units(u"untouched"));
  EXPECT_FALSE(e->next(2, r, &fetched));  // one left: false, fetched 1
  EXPECT_EQ(fetched, 1u);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(r[1].name())), u"untouched");
  e->reset();
  EXPECT_TRUE(e->skip(1));
  ASSERT_TRUE(e->clone(&ec));
  EXPECT_TRUE(ec->next(1, r, nullptr) && r[0].name()[0] == 'b');
  EXPECT_TRUE(e->next(1, r, nullptr) && r[0].name()[0] == 'b');
  EXPECT_FALSE(e->skip(5));
  EXPECT_FALSE(a->release());
  EXPECT_TRUE(root->release());
  EXPECT_EQ(log.live, 0);  // every platform object released exactly to zero
}
#endif  // !_WIN32

}  // namespace
