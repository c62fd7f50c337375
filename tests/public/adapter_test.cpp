// The exported adapters over the portable backend, and natively over small
// counting fakes of the platform's IStorage, IStream and IEnumSTATSTG: the
// cache, reference balance, the modes asked of the platform, the seek
// arithmetic and the enumerator's short batch.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "portable/gxdInterfaces.h"

namespace {

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
  gxResult write(const void*, uint64_t, uint64_t*) override {
    return GX_E_FAIL;
  }
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
    const struct {
      uint64_t at;
      int64_t move;
      unsigned origin;
      uint64_t target;
    } cases[] = {
        {10, -1, GX_STREAM_SEEK_CUR, 9},
        {0xFFFFFFFFu, 1, GX_STREAM_SEEK_CUR,
         0x100000000ull},  // carry into the high half
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
    SCOPED_TRACE(
        "from the end: refused, nothing moves, *newPosition untouched");
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

#ifndef _WIN32
const unsigned short* units(const char16_t* s) {
  return reinterpret_cast<const unsigned short*>(s);
}

// One counting fake for the platform's three interfaces: a storage that
// finds storage "a" and stream "b", a stream, or an enumerator over storage
// "a" and streams "b" and "c". Names it hands out come from CoTaskMemAlloc,
// so a name the adapters fail to free is a reported leak.
struct Log {
  int live = 0;  // fakes alive
  std::vector<std::string> calls;
};

std::string narrow(const OLECHAR* s) {
  std::string out;
  for (; *s != 0; ++s) out += static_cast<char>(*s);
  return out;
}

// A method the adapters never call.
#define GX_UNUSED_METHOD(signature) \
  HRESULT signature override { return E_NOTIMPL; }

struct Fake : IStorage, IStream, IEnumSTATSTG {
  Fake(Log* l, DWORD k) : log(l), kind(k) { ++log->live; }
  virtual ~Fake() { --log->live; }
  GX_UNUSED_METHOD(QueryInterface(REFIID, void**))
  ULONG AddRef() override { return ++refs; }
  ULONG Release() override {
    if (--refs == 0) delete this;
    return 0;
  }
  HRESULT record(STATSTG* r, char name, DWORD type) {
    *r = STATSTG();
    r->pwcsName = static_cast<LPOLESTR>(CoTaskMemAlloc(2 * sizeof(OLECHAR)));
    r->pwcsName[0] = static_cast<OLECHAR>(name), r->pwcsName[1] = 0;
    r->type = type;
    r->cbSize.QuadPart = 0x500000008ull;
    return S_OK;
  }
  // Logs a request with its name and mode; only `known` is found (any name
  // when null).
  template <class Out>
  HRESULT hand(const char* what, const OLECHAR* name, DWORD mode,
               const char* known, DWORD k, Out** out) {
    log->calls.push_back(std::string(what) + " " + narrow(name) + " " +
                         std::to_string(mode));
    const bool found = known == nullptr || narrow(name) == known;
    *out = found ? new Fake(log, k) : nullptr;
    return found ? S_OK : STG_E_FILENOTFOUND;
  }
  // IStorage
  HRESULT CreateStream(const OLECHAR* n, DWORD m, DWORD, DWORD,
                       IStream** s) override {
    return hand("CreateStream", n, m, nullptr, STGTY_STREAM, s);
  }
  HRESULT OpenStream(const OLECHAR* n, void*, DWORD m, DWORD,
                     IStream** s) override {
    return hand("OpenStream", n, m, "b", STGTY_STREAM, s);
  }
  HRESULT CreateStorage(const OLECHAR* n, DWORD m, DWORD, DWORD,
                        IStorage** s) override {
    return hand("CreateStorage", n, m, nullptr, STGTY_STORAGE, s);
  }
  HRESULT OpenStorage(const OLECHAR* n, IStorage*, DWORD m, SNB, DWORD,
                      IStorage** s) override {
    return hand("OpenStorage", n, m, "a", STGTY_STORAGE, s);
  }
  GX_UNUSED_METHOD(CopyTo(DWORD, const IID*, SNB, IStorage*))
  GX_UNUSED_METHOD(MoveElementTo(const OLECHAR*, IStorage*, const OLECHAR*,
                                 DWORD))
  HRESULT Commit(DWORD) override {
    return log->calls.push_back("Commit"), S_OK;
  }
  GX_UNUSED_METHOD(Revert())
  HRESULT EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** e) override {
    return *e = new Fake(log, 0), S_OK;
  }
  GX_UNUSED_METHOD(DestroyElement(const OLECHAR*))
  GX_UNUSED_METHOD(RenameElement(const OLECHAR*, const OLECHAR*))
  GX_UNUSED_METHOD(SetElementTimes(const OLECHAR*, const FILETIME*,
                                   const FILETIME*, const FILETIME*))
  GX_UNUSED_METHOD(SetClass(REFCLSID))
  GX_UNUSED_METHOD(SetStateBits(DWORD, DWORD))
  HRESULT Stat(STATSTG* info, DWORD) override {
    return record(info, kind == STGTY_STORAGE ? 'r' : 's', kind);
  }
  // IStream
  HRESULT Read(void*, ULONG, ULONG* done) override {
    return *done = 0, S_FALSE;
  }
  HRESULT Write(const void*, ULONG n, ULONG* written) override {
    log->calls.push_back("Write " + std::to_string(n));
    return *written = n / 2, S_OK;
  }
  HRESULT Seek(LARGE_INTEGER, DWORD origin, ULARGE_INTEGER*) override {
    return log->calls.push_back("Seek " + std::to_string(origin)), S_OK;
  }
  GX_UNUSED_METHOD(SetSize(ULARGE_INTEGER))
  GX_UNUSED_METHOD(CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*,
                          ULARGE_INTEGER*))
  GX_UNUSED_METHOD(LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD))
  GX_UNUSED_METHOD(UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD))
  HRESULT Clone(IStream** out) override {
    return *out = new Fake(log, STGTY_STREAM), S_OK;
  }
  // IEnumSTATSTG
  HRESULT Next(ULONG n, STATSTG* r, ULONG* fetched) override {
    log->calls.push_back("Next");
    ULONG k = 0;
    for (; k < n && at < 3; ++k, ++at)
      record(&r[k], char('a' + at), at ? STGTY_STREAM : STGTY_STORAGE);
    *fetched = k;
    return k == n ? S_OK : S_FALSE;
  }
  HRESULT Skip(ULONG) override { return S_FALSE; }
  HRESULT Reset() override { return at = 0, S_OK; }
  HRESULT Clone(IEnumSTATSTG** out) override {
    return *out = new Fake(log, 0), S_OK;
  }

  Log* log;
  DWORD kind;  // STGTY_STORAGE, STGTY_STREAM, or 0 for an enumerator
  ULONG refs = 1, at = 0;
};

TEST(Adapters, PlatformBranchOverCountingFakes) {
  Log log;
  Fake* backend = new Fake(&log, STGTY_STORAGE);
  CGxAbsStorage* root =
      new gxIStorage(static_cast<IStorage*>(backend), nullptr);
  backend->Release();  // the adapter's reference is now the only one
  CGxAbsStorage *a = nullptr, *other = reinterpret_cast<CGxAbsStorage*>(1);
  CGxAbsStream *b = nullptr, *again = nullptr, *copy = nullptr;
  SCOPED_TRACE("modes asked, cache hits, case-distinct names, failures");
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
  EXPECT_EQ(log.calls,
            (std::vector<std::string>{
                "OpenStorage a 18", "OpenStorage A 18", "OpenStream b 16",
                "CreateStream new 4113", "CreateStorage sub 4114"}));
  SCOPED_TRACE("streams: counts, the low 32 bits of a size, seek, stat, clone");
  log.calls.clear();
  unsigned long long done = 77;
  again->write("abcdef", 0x100000006ull, &done);
  EXPECT_EQ(done, 3u);
  b->read(&done, 1, nullptr);
  LARGE_INTEGER move;
  move.QuadPart = -3;
  EXPECT_TRUE(b->seek(move, STREAM_SEEK_END, nullptr));
  gxdsSTATSTG info;
  uint32_t low = 0, high = 0;
  ASSERT_TRUE(b->stat(&info) && root->stat(&info));
  info.size(low, high);
  EXPECT_TRUE(info.type() == STGTY_STORAGE && low == 8 && high == 5 &&
              info.name()[0] == 'r');
  ASSERT_TRUE(b->clone(&copy) && copy->clone(&again));
  b->flush();
  root->commit();
  a->commit();
  EXPECT_EQ(log.calls,
            (std::vector<std::string>{"Write 6", "Seek 2"}));  // no Commit
  SCOPED_TRACE("enumerator: next(0), full and short batches, clones");
  log.calls.clear();
  CGxAbsStgEnum *e = nullptr, *e2 = nullptr, *ec = nullptr;
  ASSERT_TRUE(root->enumElements(&e) && root->enumElements(&e2));
  EXPECT_NE(e, e2);
  gxdsSTATSTG r[2];
  uint32_t fetched = 9;
  EXPECT_FALSE(e->next(0, r, &fetched));
  EXPECT_TRUE(fetched == 0 && log.calls.empty());
  EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2 && r[1].name()[0] == 'b');
  r[1].size(low, high);
  EXPECT_TRUE(r[0].type() == STGTY_STORAGE && r[1].type() == STGTY_STREAM &&
              high == 5);
  r[0].setName(units(u"untouched"));
  EXPECT_FALSE(
      e->next(2, r, &fetched));  // one left: false, fetched 1, no record
  EXPECT_TRUE(fetched == 1 && r[0].name()[0] == 'u');
  EXPECT_FALSE(e->skip(1));
  ASSERT_TRUE(e->clone(&ec) && ec->clone(&e));
  EXPECT_FALSE(a->release());
  EXPECT_TRUE(root->release());
  EXPECT_EQ(log.live, 0);  // every platform object released exactly to zero
}
#endif  // !_WIN32

}  // namespace
