// Differential test of the read-write service: a seeded generator drives one
// sequence of calls (create, open, write, read, seek, set size, clone,
// enumerate, stat, destroy, rename, copy, class / state bits, release,
// reopen, and the entry points on the open file or a missing one) against
// the platform's service and against ours, and compares every answer after
// every step: result codes, bytes read, Stat records and enumerations. At
// the end of a seed each file is listed by both implementations, and ours
// is read by the portable loader and reopened for writing, which must
// leave every byte as it was.
//
// In the Windows build the platform's service (ole32) runs side by side with
// ours. Natively there is none: its answers come from the trace that the
// Windows build recorded (tests/data/differential_trace.txt, see the README
// there), and olefile reads the files we wrote.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "gxsTreeWalk.h"
#include "platform/gxPlatform.h"
#include "service/gxsService.h"
#include "support/gxRoundTrip.h"

namespace {

using Units = std::u16string;
const auto w = gxsOle;
std::string hex(uint64_t v, int digits = 8) {
  char b[24];
  std::snprintf(b, sizeof b, "%0*llX", digits, (unsigned long long)v);
  return b;
}
std::string R(HRESULT h) { return hex(static_cast<uint32_t>(h)); }
HRESULT hrOf(const std::string& rec) {  // of a record R() began
  return rec.size() < 8 || rec[0] == '-'
             ? E_FAIL
             : HRESULT(std::strtoul(rec.substr(0, 8).c_str(), nullptr, 16));
}
uint64_t fnv(const std::string& d) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : d) h = (h ^ c) * 1099511628211ull;
  return h;
}
std::string esc(const Units& n) {  // printable ASCII, other units as \XXXX
  std::string r;
  for (char16_t c : n)
    r += c > 32 && c < 127 && c != '\\' && c != ';' ? std::string(1, char(c))
                                                    : "\\" + hex(c, 4);
  return r;
}

// The same numbers on every host (the standard distributions are not).
struct Rng {
  uint64_t s;
  uint32_t below(uint32_t n) {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(s >> 33) % n;
  }
  bool chance(uint32_t percent) { return below(100) < percent; }
  template <class T, size_t N>
  const T& of(const T (&list)[N]) {
    return list[below(N)];
  }
};

// ---- calls ----
// clang-format off
enum Op : uint8_t {
  kCreateStream, kOpenStream, kCreateStorage, kOpenStorage, kWrite, kRead,
  kSeek, kSetSize, kClone, kStreamCopy, kStatStorage, kStatStream, kEnum,
  kNext, kSkip, kReset, kEnumClone, kList, kDestroy, kRename, kCopyTo,
  kSetClass, kSetBits, kCommit, kStreamCommit, kRelease, kReopen, kOpenAgain,
  kOps
};
// Name, weight in the generator (of 100), and the fields of Call it uses:
// slots p q s t e f (upper case: where a new object goes, else one that must
// be held), names a b, and m n.
const struct { const char* name; uint32_t weight; const char* fields; }
kOpInfo[kOps] = {
  {"create-stream", 7, "pTam"}, {"open-stream", 4, "pTam"},
  {"create-storage", 5, "pQam"}, {"open-storage", 4, "pQam"},
  {"write", 9, "sn"}, {"read", 8, "sn"}, {"seek", 7, "smn"},
  {"set-size", 6, "sn"}, {"clone", 2, "sT"}, {"stream-copy", 2, "stn"},
  {"stat-storage", 3, "pm"}, {"stat-stream", 3, "sm"}, {"enum", 2, "pF"},
  {"next", 3, "en"}, {"skip", 1, "en"}, {"reset", 1, "e"},
  {"enum-clone", 1, "eF"}, {"list", 2, "pF"}, {"destroy", 6, "pa"},
  {"rename", 6, "pab"}, {"copy-to", 5, "pqmab"}, {"set-class", 1, "pn"},
  {"set-bits", 1, "pnm"}, {"commit", 1, "pm"}, {"stream-commit", 1, "sm"},
  {"release", 5, "mn"}, {"reopen", 2, "m"}, {"open-again", 2, "mn"}};

const Units kNames[] = {
  u"a", u"A", u"b", u"b", u"Data", u"DATA", u"dir", u"x1",  // the usual ones
  u"\u00e9t\u00e9", u"\u4e2d\u6587", u"\x05Info", Units(31, u'n'),
  Units(32, u'n'), u"", u"s/t", u"s\\t", u"s:t", u"s!t"};
const DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kModes[] = {  // children; kRW itself is drawn half of the time
  kRW | STGM_CREATE, STGM_READ | STGM_SHARE_EXCLUSIVE,
  STGM_WRITE | STGM_SHARE_EXCLUSIVE, STGM_READWRITE | STGM_SHARE_DENY_NONE,
  STGM_READWRITE | STGM_SHARE_DENY_WRITE, kRW | STGM_TRANSACTED,
  kRW | STGM_DELETEONRELEASE, STGM_READWRITE | STGM_WRITE | STGM_SHARE_EXCLUSIVE,
  kRW | STGM_PRIORITY, kRW | STGM_CONVERT};
const DWORD kRootModes[] = {
  kRW, kRW, STGM_READ | STGM_SHARE_EXCLUSIVE, STGM_READ | STGM_SHARE_DENY_WRITE,
  STGM_READWRITE | STGM_SHARE_DENY_NONE, kRW | STGM_TRANSACTED,
  kRW | STGM_CREATE, STGM_WRITE | STGM_SHARE_EXCLUSIVE};
const uint32_t kSizes[] = {0, 1, 64, 100, 4095, 4096, 4097, 5000, 70000};
const int64_t kOffsets[] = {0, 1, 100, 4095, 4096, 5000, -1, -100, -5000,
                            int64_t(1) << 32, -(int64_t(1) << 40)};
// clang-format on

const char kHeld[] = "pqste";  // slots of objects a call is made on

struct Call {
  Op op = kOps;
  int p = 0, q = 0, s = 0, t = 0, e = 0, f = 0;  // storage, stream, enum slots
  Units a{}, b{};                                // names
  DWORD m = 0;                                   // mode, flag, origin or case
  int64_t n = 0;                                 // size, offset, count or value
  bool writable = true;  // storage p was opened for writing (and its parents)
  bool into = true;      // and storage q
  DWORD access = kRW;    // mode of the object the call is made on
  std::string describe() const {  // every field, used or not
    std::string d = kOpInfo[op].name;
    for (int slot : {p, q, s, t, e, f}) d += " " + std::to_string(slot);
    return d + " " + esc(a) + " " + esc(b) + " m" + hex(m) + " " +
           std::to_string(n);
  }
};

// ---- deviations kept on purpose ----
// Whether access is enforced on `c`: an object opened for writing only is
// not read (Read, CopyTo; its elements are listed, as the platform lists
// them), no element is opened with access its storage lacks, and nothing is
// created in (or copied into) a storage opened for reading.
bool accessEnforced(const Call& c) {
  const bool reads = c.op == kRead || c.op == kStreamCopy || c.op == kCopyTo;
  const DWORD want = c.m & 3, have = c.access & 3;  // of a child, its parent
  return (reads && have == STGM_WRITE) ||
         ((c.op == kCreateStream || c.op == kCreateStorage) && !c.writable) ||
         (c.op == kCopyTo && !c.into) ||
         (c.op <= kOpenStorage && ((want != STGM_READ && have == STGM_READ) ||
                                   (want != STGM_WRITE && have == STGM_WRITE)));
}
// A name is refused when it is empty or longer than 31 units, and a new one
// also when it holds '/', '\\', ':' or '!' (files from other writers may,
// and their elements stay reachable).
bool illegal(const Units& n, bool isNew) {
  return n.empty() || n.size() > 31 ||
         (isNew && n.find_first_of(u"/\\:!") != Units::npos);
}
bool illegalName(const Call& c) {
  if (c.op == kCopyTo || c.op == kOps) return false;  // not looked up
  const bool creates = c.op == kCreateStream || c.op == kCreateStorage;
  return (std::strchr(kOpInfo[c.op].fields, 'a') && illegal(c.a, creates)) ||
         (std::strchr(kOpInfo[c.op].fields, 'b') && illegal(c.b, true));
}

// Where we answer differently from the platform on purpose: the result
// codes one of which our answer to `c` must begin with (the platform's
// failure will do too), given what the platform answered; "" where we
// answer as it does. What the platform did there is then undone on its
// side so that both files stay alike. Calls the platform's service is not
// asked at all (it fails to answer as documented and would spoil the rest
// of the sequence) are answered for it by perform(): see "On the
// platform's side" there.
std::string ourCodes(const Call& c, const std::string& platform) {
  std::string codes;
  // Names of 32 units and more, empty ones, and new names holding '/',
  // '\', ':' or '!' are refused with STG_E_INVALIDNAME (the format's
  // rule) before anything else is looked at; ole32 under Wine accepts some
  // (the harness removes what it created, and answers for RenameElement,
  // which writes a long name over the entry's sibling links), and looks
  // others up.
  if (illegalName(c)) codes += "800300FC";
  // Access is enforced (see accessEnforced): STG_E_ACCESSDENIED; ole32
  // under Wine reads write-only objects, looks a new name up first, and
  // compares access modes as numbers (READ < WRITE < READWRITE), answering
  // STG_E_INVALIDFLAG from OpenStream.
  if (accessEnforced(c)) codes += "80030005";
  // A seek before the start of a stream fails with STG_E_INVALIDFUNCTION,
  // as documented; ole32 under Wine moves to the position modulo 2^64.
  if (c.op == kSeek && c.n < 0 && platform.size() > 9 &&
      std::strtoull(platform.c_str() + 9, nullptr, 10) >> 63)
    codes += "80030001";
  // IStream::CopyTo into a stream that refuses the write answers what the
  // target answered (STG_E_REVERTED, STG_E_ACCESSDENIED); ole32 under Wine
  // answers STG_E_MEDIUMFULL.
  if (c.op == kStreamCopy && platform == "80030070")
    codes += "8003010280030005";
  // Commit of a storage opened for reading answers S_OK (nothing to
  // write); ole32 under Wine answers STG_E_WRITEFAULT.
  if (c.op == kCommit && c.m == 0 && !c.writable) codes += "00000000";
  return codes;
}

// A record with what may differ on purpose left out.
std::string masked(const Call& c, std::string r) {
  static const std::regex bits(" b[0-9A-F]+"), rootSize(" t1 n[0-9]+");
  // State bits are kept in the element's directory entry, as documented:
  // they survive a reopen and show in enumerations and copies (CopyTo
  // gives the target the source's); ole32 under Wine keeps them in the
  // open object only (compared right after SetStateBits).
  r = std::regex_replace(r, bits, " b-");
  // Stat of a root storage gives size 0 like every storage; ole32 under
  // Wine gives the size of the mini stream.
  if ((c.op == kStatStorage && c.p == 0) || c.op == kOps)
    r = std::regex_replace(r, rootSize, " t1 n-");
  return r;
}

// ---- the two services ----
struct Backend {
  HRESULT (*create)(const OLECHAR*, DWORD, DWORD, IStorage**);
  HRESULT (*open)(const OLECHAR*, IStorage*, DWORD, SNB, DWORD, IStorage**);
};
#if defined(_WIN32)
const Backend kPlatform{StgCreateDocfile, StgOpenStorage};
#endif
const Backend kOurs{gxsStgCreateDocfile, gxsStgOpenStorage};

constexpr int kStg = 5, kStm = 5, kEnums = 3;  // slots; storage 0 is the root

// One service's file and the objects open on it, by slot.
struct Side {
  const Backend* be;
  bool platform;
  Units file;
  IStorage* stg[kStg] = {};
  IStream* stm[kStm] = {};
  IEnumSTATSTG* en[kEnums] = {};
  template <class T>
  static void drop(T*& p) {
    if (p != nullptr) p->Release();
    p = nullptr;
  }
  void drop(int kind, int slot) {
    kind == 0 ? drop(stg[slot]) : kind == 1 ? drop(stm[slot]) : drop(en[slot]);
  }
  void releaseAll() {
    for (auto& p : en) drop(p);
    for (auto& p : stm) drop(p);
    for (int i = kStg; i-- > 0;) drop(stg[i]);
  }
  ~Side() { releaseAll(); }
};

// A Stat record: name (the root's reduced to its last component), type,
// size, class and state bits.
std::string statRec(STATSTG& s, bool root) {
  std::string r = "(none)";
  if (s.pwcsName != nullptr) {
    const Units n(reinterpret_cast<const char16_t*>(s.pwcsName));
    CoTaskMemFree(s.pwcsName);
    const size_t cut = root ? n.find_last_of(u"\\/") : Units::npos;
    r = cut == Units::npos ? esc(n) : "<dir>" + esc(n.substr(cut + 1));
  }
  r += " t" + std::to_string(s.type) + " n" +
       std::to_string(s.cbSize.QuadPart) + " c";
  uint8_t clsid[16];
  std::memcpy(clsid, &s.clsid, 16);
  for (uint8_t b : clsid) r += hex(b, 2);
  return r + " b" + hex(s.grfStateBits);
}

template <class T>  // IStorage or IStream
bool reverted(T* object) {
  STATSTG s;
  return object->Stat(&s, STATFLAG_NONAME) == STG_E_REVERTED;
}

gxRtTree treeOf(const Backend& be, const Units& file) {
  gxRtTree tree;
  IStorage* root = nullptr;
  const HRESULT h = be.open(w(file), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE,
                            nullptr, 0, &root);
  if (h != S_OK) return {{u"", {true, "open " + R(h)}}};
  // Storages map to their Stat record, streams to their bytes.
  gxsWalk(root, u"", tree, [](STATSTG& s) { return statRec(s, false); });
  root->Release();
  return tree;
}

std::string bytesOf(const Units& file) {
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string listing(const gxRtTree& tree) {
  std::string r;
  for (const auto& [path, v] : tree)
    r += esc(path) + (v.first ? " [" + v.second + "]; "
                              : " " + std::to_string(v.second.size()) + "/" +
                                    hex(fnv(v.second), 16) + "; ");
  return r;
}

// Next of `count` records, in the order they came.
std::string next(IEnumSTATSTG* e, ULONG count) {
  STATSTG st[5];
  ULONG fetched = 0;
  std::memset(st, 0, sizeof st);
  const HRESULT r = e->Next(count, st, &fetched);
  std::string rec = R(r) + " " + std::to_string(fetched);
  for (ULONG i = 0; i < fetched && i < count; ++i)
    rec += "; " + statRec(st[i], false);
  return rec;
}

// Where a stream ends, and where it is positioned.
std::pair<uint64_t, uint64_t> extent(IStream* m) {
  STATSTG st{};
  ULARGE_INTEGER at{};
  m->Stat(&st, STATFLAG_NONAME);
  m->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &at);
  return {st.cbSize.QuadPart, at.QuadPart};
}

// On the platform's side: bytes from `from` to `to` that a stream grew by
// without their being written are made zeros (see perform).
void zeroGap(Side& x, IStream* m, uint64_t from, uint64_t to) {
  if (!x.platform || to <= from) return;
  const uint64_t at = extent(m).second;
  const std::string zeros(to - from, '\0');
  LARGE_INTEGER move;
  move.QuadPart = from;
  m->Seek(move, STREAM_SEEK_SET, nullptr);
  m->Write(zeros.data(), ULONG(zeros.size()), nullptr);
  move.QuadPart = at;
  m->Seek(move, STREAM_SEEK_SET, nullptr);
}

template <class T>
std::string outcome(HRESULT r, T*& out) {
  if (r >= 0 || out == nullptr) return R(r);
  out = nullptr;  // set on failure: not an object we may release
  return R(r) + " out-set";
}

// Performs `c` on one side and answers with a record of what came back.
//
// On the platform's side, where ole32 under Wine does not answer as
// documented, the harness answers for it or mends what it left:
// - SetClass and SetStateBits on a storage opened for reading answer
//   STG_E_ACCESSDENIED (Wine changes the open object and answers
//   STG_E_WRITEFAULT);
// - Commit and CopyTo on (or into) a reverted storage answer STG_E_REVERTED
//   (Wine crashes there);
// - copies from an object opened for writing only are refused (Wine reads
//   it, and would write what it read);
// - CreateStorage in a mode it refuses leaves nothing behind (Wine leaves
//   the new storage, which the harness removes);
// - what SetSize or a Write past the end adds to a stream reads as zeros
//   (Wine shows bytes the file held before, the platform leaves them
//   undefined): the harness writes the zeros;
// - RenameElement with an illegal name, or in a storage opened for reading,
//   is refused (Wine writes a long name over the entry's sibling links,
//   renames in a read-only storage all the same, and never returns when the
//   file is read-only);
// - CopyTo gives the target the source's class (Wine leaves it as it was),
//   and into a storage opened for reading it is refused even when there is
//   nothing to copy but the class.
// Names that differ only in the case of letters beyond ASCII (e acute, E
// acute) are one name, as the platform folds them; Wine folds ASCII only, so
// the generator's names hold no such pair.
std::string perform(Side& x, const Call& c, int step) {
  IStorage *g = x.stg[c.p], *h = x.stg[c.q];
  IStream *m = x.stm[c.s], *m2 = x.stm[c.t];
  IEnumSTATSTG* e = x.en[c.e];
  const void* held[] = {g, h, m, m2, e};
  for (const char* k = kOpInfo[c.op].fields; *k; ++k)
    if (std::strchr(kHeld, *k) && !held[std::strchr(kHeld, *k) - kHeld])
      return "-";
  if (x.platform && (c.op == kSetClass || c.op == kSetBits) && !c.writable &&
      !reverted(g))
    return R(STG_E_ACCESSDENIED);
  if (x.platform && ((c.op == kCommit && c.m == 0 && reverted(g)) ||
                     (c.op == kCopyTo && (reverted(g) || reverted(h)))))
    return R(STG_E_REVERTED);
  if (x.platform && (c.access & 3) == STGM_WRITE &&
      (c.op == kStreamCopy ? !reverted(m) : c.op == kCopyTo && !reverted(g)))
    return R(STG_E_ACCESSDENIED);
  ULARGE_INTEGER u, rd, wr;
  LARGE_INTEGER to;
  u.QuadPart = to.QuadPart = c.n;
  ULONG done = 0;
  STATSTG st{};
  std::string data(c.op == kWrite || c.op == kRead ? c.n : 0, '\0');
  HRESULT r = S_OK;
  std::pair<uint64_t, uint64_t> before;  // a stream's size and position
  switch (c.op) {
    case kCreateStream:
    case kOpenStream:
      Side::drop(x.stm[c.t]);
      r = c.op == kCreateStream
              ? g->CreateStream(w(c.a), c.m, 0, 0, &x.stm[c.t])
              : g->OpenStream(w(c.a), nullptr, c.m, 0, &x.stm[c.t]);
      return outcome(r, x.stm[c.t]);
    case kCreateStorage:
    case kOpenStorage:
      Side::drop(x.stg[c.q]);
      r = c.op == kCreateStorage
              ? g->CreateStorage(w(c.a), c.m, 0, 0, &x.stg[c.q])
              : g->OpenStorage(w(c.a), nullptr, c.m, nullptr, 0, &x.stg[c.q]);
      if (x.platform && c.op == kCreateStorage && r == STG_E_INVALIDFUNCTION)
        g->DestroyElement(w(c.a));
      return outcome(r, x.stg[c.q]);
    case kWrite:
      before = extent(m);
      for (size_t i = 0; i < data.size(); ++i)
        data[i] = char(step * 7 + i * 13 + i / 256);
      r = m->Write(data.data(), ULONG(c.n), &done);
      if (r == S_OK && done != 0) zeroGap(x, m, before.first, before.second);
      return R(r) + " " + std::to_string(done);
    case kRead:
      r = m->Read(data.data(), ULONG(c.n), &done);
      data.resize(done < data.size() ? done : data.size());
      return R(r) + " " + std::to_string(done) + " " + hex(fnv(data), 16);
    case kSeek:
      wr.QuadPart = 0;
      m->Seek(LARGE_INTEGER(), STREAM_SEEK_CUR, &wr);
      r = m->Seek(to, c.m, &u);
      // Back from far out before a read or write there (ole32 under Wine
      // stops on an assertion beyond 4 GiB).
      to.QuadPart = wr.QuadPart;
      if (u.QuadPart >> 32) m->Seek(to, STREAM_SEEK_SET, nullptr);
      return r == S_OK ? R(r) + " " + std::to_string(u.QuadPart) : R(r);
    case kSetSize:
      before = extent(m);
      if ((r = m->SetSize(u)) == S_OK) zeroGap(x, m, before.first, c.n);
      return R(r);
    case kClone:
      Side::drop(x.stm[c.t]);
      return c.s == c.t ? "-" : R(m->Clone(&x.stm[c.t]));
    case kStreamCopy:
      before = extent(m2);
      to.QuadPart = extent(m).second;
      r = m->CopyTo(m2, u, &rd, &wr);
      // After a failure the counts are not set, and where the source stands
      // depends on how much it read at a time: it goes back.
      if (r != S_OK) m->Seek(to, STREAM_SEEK_SET, nullptr);
      if (r != S_OK) return R(r);
      if (wr.QuadPart != 0) zeroGap(x, m2, before.first, before.second);
      return R(r) + " " + std::to_string(rd.QuadPart) + " " +
             std::to_string(wr.QuadPart);
    case kStatStorage:
    case kStatStream:
      r = c.op == kStatStream ? m->Stat(&st, c.m) : g->Stat(&st, c.m);
      return r != S_OK
                 ? R(r)
                 : R(r) + " " + statRec(st, c.op == kStatStorage && c.p == 0);
    case kEnum:
      Side::drop(x.en[c.f]);
      return R(g->EnumElements(0, nullptr, 0, &x.en[c.f]));
    case kNext:
      return next(e, ULONG(c.n));
    case kSkip:
      return R(e->Skip(ULONG(c.n)));
    case kReset:
      return R(e->Reset());
    case kEnumClone:
      Side::drop(x.en[c.f]);
      return c.e == c.f ? "-" : R(e->Clone(&x.en[c.f]));
    case kList: {  // everything, in the order it came
      Side::drop(x.en[c.f]);
      if ((r = g->EnumElements(0, nullptr, 0, &x.en[c.f])) != S_OK) return R(r);
      std::string all, three;
      do all += (three = next(x.en[c.f], 3)) + " | ";
      while (three.rfind("00000000 3", 0) == 0);
      return all;
    }
    case kDestroy:
      return R(g->DestroyElement(w(c.a)));
    case kRename:
      if (x.platform && (illegal(c.a, false) || illegal(c.b, true)) &&
          !reverted(g))
        return R(STG_E_INVALIDNAME);
      if (x.platform && !c.writable)
        return R(reverted(g) ? STG_E_REVERTED : STG_E_ACCESSDENIED);
      return R(g->RenameElement(w(c.a), w(c.b)));
    case kCopyTo: {
      OLECHAR* names[] = {const_cast<OLECHAR*>(w(c.a)),
                          const_cast<OLECHAR*>(w(c.b)), nullptr};
      const IID iids[] = {c.m == 2 ? IID_IStream : IID_IStorage};
      r = g->CopyTo(c.m >= 2, c.m >= 2 ? iids : nullptr,
                    c.m == 1 ? names : nullptr, h);
      if (x.platform && r == S_OK && g->Stat(&st, STATFLAG_NONAME) == S_OK)
        h->SetClass(st.clsid);
      return R(r);
    }
    case kSetClass:
      std::memset(&st.clsid, int(c.n), sizeof st.clsid);
      return R(g->SetClass(st.clsid));
    case kSetBits:  // and the bits given that the object has then
      if ((r = g->SetStateBits(DWORD(c.n), c.m)) != S_OK) return R(r);
      g->Stat(&st, STATFLAG_NONAME);
      return R(r) + " state=" + hex(st.grfStateBits & c.m);
    case kCommit: {  // commit, revert, interface query
      void* other = nullptr;
      r = c.m == 0   ? g->Commit(STGC_DEFAULT)
          : c.m == 1 ? g->Revert()
                     : g->QueryInterface(IID_IStream, &other);
      if (other != nullptr) static_cast<IUnknown*>(other)->Release();
      return R(r);
    }
    case kStreamCommit:  // commit, revert, lock
      rd.QuadPart = 0;
      return R(c.m == 0   ? m->Commit(STGC_DEFAULT)
               : c.m == 1 ? m->Revert()
                          : m->LockRegion(rd, u, LOCK_WRITE));
    case kRelease:
      x.drop(int(c.m), int(c.n));
      return "";
    case kReopen:
      x.releaseAll();
      return R(x.be->open(w(x.file), nullptr, c.m, nullptr, 0, &x.stg[0]));
    case kOpenAgain: {  // the file (n 0 open, 1 create) or a missing one (2)
      IStorage* again = nullptr;
      const Units file = c.n == 2 ? x.file + u".none" : x.file;
      r = c.n == 1 ? x.be->create(w(file), c.m, 0, &again)
                   : x.be->open(w(file), nullptr, c.m, nullptr, 0, &again);
      const std::string rec = outcome(r, again);
      if (again != nullptr) again->Release();
      return rec;
    }
    case kOps:
      break;
  }
  return "?";
}

// True when `ours` answers as the platform did, or as we do on purpose.
bool excused(const Call& c, const std::string& platform,
             const std::string& ours) {
  const std::string codes = ourCodes(c, platform);
  for (size_t at = 0; at < codes.size(); at += 8)
    if (ours.compare(0, 8, codes, at, 8) == 0) return true;
  if (!codes.empty()) return ours == platform && hrOf(ours) < 0;
  return masked(c, platform) == masked(c, ours);
}

// Undoes on the platform's side what a call we refused on purpose did there.
void undo(Side& x, const Call& c, const std::string& platform) {
  const bool done = hrOf(platform) == S_OK;
  if (c.op == kCreateStream || c.op == kOpenStream) Side::drop(x.stm[c.t]);
  if (c.op == kCreateStorage || c.op == kOpenStorage) Side::drop(x.stg[c.q]);
  if (c.op == kReopen) Side::drop(x.stg[0]);
  if ((c.op == kCreateStream || c.op == kCreateStorage) && done)
    x.stg[c.p]->DestroyElement(w(c.a));
  LARGE_INTEGER back;  // a read of a write-only stream moved it on
  back.QuadPart = -int64_t(std::strtoull(platform.c_str() + 9, nullptr, 10));
  if (c.op == kRead && done) x.stm[c.s]->Seek(back, STREAM_SEEK_CUR, nullptr);
}

// ---- the harness ----
// One seed's sequence. Live (Windows), `sides` are {platform, ours} and the
// platform's answers are appended to `trace`; natively `sides` is {ours} and
// the platform's answers are read from `trace` from `cursor` on.
class Harness {
 public:
  Harness(uint32_t seed, std::vector<Side*> sides,
          std::vector<std::string>& trace, size_t& cursor)
      : seed_(seed),
        rng_{seed * 0x9E3779B97F4A7C15ull + 1},
        sides_(sides),
        trace_(trace),
        cursor_(cursor) {}

  void run(int steps) {
    for (Side* x : sides_) {
      std::filesystem::create_directories(
          std::filesystem::path(x->file).parent_path());
      std::filesystem::remove(x->file);
    }
    Call c{kReopen};
    c.m = kRW | STGM_CREATE;
    have_[0][0] = step(c, [](Side& x, const Call& c, int) {
                    return R(x.be->create(w(x.file), c.m, 0, &x.stg[0]));
                  }) == S_OK;
    for (int i = 0; i < steps && failures_ < kMaxFailures; ++i) {
      c = make();
      // The storage a create or open replaces goes first, and with it what
      // was opened through it (on the platform's side too, see released).
      if (c.op == kCreateStorage || c.op == kOpenStorage) released(c.q);
      after(c, step(c, perform));
    }
    for (Side* x : sides_) x->releaseAll();
    if (failures_ >= kMaxFailures) return;
    step(Call{}, [](Side& x, const Call&, int) {
      return listing(treeOf(*x.be, x.file));
    });
    const Side& a = *sides_.front();  // read by the other implementation
    const Side& b = *sides_.back();
#if defined(_WIN32)
    const std::string platform = listing(treeOf(*a.be, a.file));
    for (const std::string& other :
         {listing(treeOf(*b.be, a.file)), listing(treeOf(*a.be, b.file))})
      EXPECT_TRUE(excused(Call{}, platform, other)) << platform << "\n"
                                                    << other;
#else
    gxExpectOlefileReads(std::filesystem::path(b.file), treeOf(*a.be, b.file));
#endif
    // Our file as the portable loader reads it; opened for writing and
    // released unchanged, not a byte of it changes.
    gxRtTree tree = treeOf(kOurs, b.file);
    tree.erase(u"");
    for (auto& [path, element] : tree)
      if (element.first) element.second.clear();
    gxExpectSameTree(gxReadOurs(b.file), tree);
    const std::string before = bytesOf(b.file);
    IStorage* root = nullptr;
    EXPECT_EQ(kOurs.open(w(b.file), nullptr, kRW, nullptr, 0, &root), S_OK);
    if (root != nullptr) root->Release();
    EXPECT_TRUE(bytesOf(b.file) == before);
  }

 private:
  static constexpr int kMaxFailures = 4;

  // Runs `c` on every side and compares our answer with the platform's.
  // Returns the result code the sequence goes on with.
  template <class F>
  HRESULT step(const Call& c, F call) {
    const std::string desc = std::to_string(seed_) + ":" + std::to_string(n_) +
                             " " + (c.op == kOps ? "read-back" : c.describe());
    std::vector<std::string> answers;
    for (Side* x : sides_) answers.push_back(call(*x, c, n_));
    ++n_;
    const std::string& ours = answers.back();
    std::string platform = answers.front();
    if (sides_.size() > 1) {
      trace_.push_back(desc + "\t" + platform);
    } else {
      const std::string line = cursor_ < trace_.size() ? trace_[cursor_++] : "";
      platform = line.substr(std::min(line.size(), desc.size() + 1));
      if (line.compare(0, desc.size() + 1, desc + "\t") != 0) {
        failures_ = kMaxFailures;
        ADD_FAILURE() << "the trace does not follow the generator at " << desc
                      << "\n  trace: " << line << "\n  (tests/data/README.md)";
        return E_FAIL;
      }
    }
    if (excused(c, platform, ours)) {
      if (sides_.size() > 1 && ours != platform)
        undo(*sides_.front(), c, platform);
      return hrOf(ours);
    }
    ++failures_;
    ADD_FAILURE() << desc << "\n  platform: " << platform
                  << "\n  ours:     " << ours
                  << "\n  ours on purpose: " << ourCodes(c, platform);
    return hrOf(platform);
  }

  // ---- the generator: what the platform holds, and the next call ----
  int pick(int kind, int from = 0) {  // a slot that holds an object
    std::vector<int> held;
    for (int i = from; i < (kind == 1 ? kStm : kind == 2 ? kEnums : kStg); ++i)
      if (have_[kind][i]) held.push_back(i);
    return held.empty() ? from : held[rng_.below(uint32_t(held.size()))];
  }
  bool holds(int kind) { return pick(kind) != 0 || have_[kind][0]; }
  // Whether storage slot `i` is slot `of` or was opened below it (slots
  // opened through a storage go with it, see released).
  bool below(int i, int of) const {
    for (int n = 0; i >= 0 && n <= kStg; i = via_[0][i], ++n)
      if (i == of) return true;
    return false;
  }
  const Units& name() {
    return rng_.chance(85) ? kNames[rng_.below(8)] : rng_.of(kNames);
  }

  Call make() {
    Call c = pending_;
    pending_.op = kOps;
    while (c.op == kOps) {
      uint32_t k = rng_.below(100);
      int op = 0;
      for (; k >= kOpInfo[op].weight; ++op) k -= kOpInfo[op].weight;
      if ((!have_[0][0] && rng_.chance(30)) ||
          (rootMode_ != kRW && rng_.chance(8)))
        op = kReopen;
      if (op >= kWrite && op <= kStreamCopy && !holds(1)) op = kCreateStream;
      if (op >= kNext && op <= kEnumClone && !holds(2)) op = kEnum;
      c = Call{Op(op), pick(0), pick(0), pick(1), int(rng_.below(kStm)),
               pick(2)};
      c.f = rng_.below(kEnums);
      c.a = name();
      c.b = name();
      if (op == kCreateStorage ||
          op == kOpenStorage)  // not into the parent's slot
        c.q = 1 + (c.p + rng_.below(kStg - 2)) % (kStg - 1);
      if (op <= kOpenStorage) c.m = rng_.chance(50) ? kRW : rng_.of(kModes);
      if (op == kWrite || op == kRead || op == kSetSize || op == kStreamCopy)
        c.n = rng_.of(kSizes);
      if (op == kSeek) c.m = rng_.below(3), c.n = rng_.of(kOffsets);
      if (op == kStatStorage || op == kStatStream)
        c.m = rng_.chance(80) ? 0 : 1;
      if (op == kNext || op == kSkip) c.n = rng_.below(6);
      if (op == kCommit || op == kStreamCommit) c.m = rng_.below(3);
      if (op == kCopyTo)  // between storages apart, so not into the root
        c.m = rng_.below(4), c.p = pick(0, 1), c.q = pick(0, 1);
      if (op == kSetClass || op == kSetBits) c.n = rng_.below(4) * 0x01010101;
      if (op == kSetBits) c.m = rng_.chance(70) ? ~0u : 0x0F0F;
      if (op == kRelease) c.m = rng_.below(3), c.n = pick(int(c.m));
      if (op == kReopen) c.m = rng_.of(kRootModes);
      if (op == kOpenAgain)  // never STGM_CREATE, which would empty the file
        c.m = rng_.of(kRootModes) & ~STGM_CREATE, c.n = rng_.below(3);
      c.writable = writable_[c.p];
      c.into = writable_[c.q];
      c.access =
          std::strchr(kOpInfo[op].fields, 's') ? mode_[1][c.s] : mode_[0][c.p];
      // Nothing is copied into itself or into a storage above it: ole32
      // under Wine answers at random for a stream copied onto itself, never
      // ends copying a storage into itself, and crashes copying one upward.
      if ((op == kCopyTo && (below(c.q, c.p) || below(c.p, c.q))) ||
          (op == kStreamCopy && c.s == c.t))
        c.op = kOps;
    }
    return c;
  }

  // Storage slot `i` lost its object: what was opened through it goes too,
  // on every side (ours would answer STG_E_REVERTED, ole32 under Wine keeps
  // such objects working).
  void released(int i) {
    for (int kind = 0; kind < 3; ++kind)
      for (int j = 0; j < (kind == 2 ? kEnums : kStg); ++j)
        if (via_[kind][j] == i && have_[kind][j] && (kind || j != i)) {
          have_[kind][j] = false;
          for (Side* x : sides_) x->drop(kind, j);
          if (kind == 0) released(j);
        }
  }
  // A new object (or none, when the call failed) in slot `slot`.
  void place(int kind, int slot, bool ok, int via, DWORD mode) {
    if (kind == 0) released(slot);
    have_[kind][slot] = ok;
    via_[kind][slot] = via;
    mode_[kind][slot] = mode;
  }

  // Follows what the call did, as the sequence goes on with it.
  void after(const Call& c, HRESULT h) {
    const bool ok = h >= 0;
    const bool creates = c.op == kCreateStream || c.op == kCreateStorage;
    if (c.op == kCreateStream || c.op == kOpenStream)
      place(1, c.t, ok, c.p, c.m);
    if (c.op == kClone) place(1, c.t, ok, via_[1][c.s], mode_[1][c.s]);
    if (c.op == kEnum || c.op == kList) place(2, c.f, ok, c.p, 0);
    if (c.op == kEnumClone) place(2, c.f, ok, via_[2][c.e], 0);
    if (c.op == kRelease) place(int(c.m), int(c.n), false, -1, 0);
    if (c.op == kCreateStorage || c.op == kOpenStorage) {
      place(0, c.q, ok, c.p, c.m);
      writable_[c.q] = writable_[c.p] && (c.m & 3) != 0;
    }
    if (c.op == kReopen) {
      std::memset(have_, 0, sizeof have_);  // all released
      place(0, 0, ok, -1, c.m);
      rootMode_ = ok ? c.m : kRW;
      writable_[0] = !ok || (c.m & 3) != 0;
      if (!ok) pending_ = Call{kReopen}, pending_.m = kRW;
    }
    // Revert of a transacted storage reverts the enumerators made through
    // it (ole32 under Wine keeps them working): they go on every side.
    for (int j = 0; j < kEnums; ++j)
      if (c.op == kCommit && c.m == 1 && h == S_OK && via_[2][j] == c.p &&
          (mode_[0][c.p] & STGM_TRANSACTED) && have_[2][j]) {
        have_[2][j] = false;
        for (Side* x : sides_) x->drop(2, j);
      }
    if (creates && h == STG_E_FILEALREADYEXISTS && rng_.chance(70))
      pending_ = c, pending_.op = Op(c.op + 1), pending_.m = kRW;  // open it
  }

  const uint32_t seed_;
  Rng rng_;
  std::vector<Side*> sides_;
  std::vector<std::string>& trace_;
  size_t& cursor_;
  int n_ = 0, failures_ = 0;
  bool have_[3][kStg] = {};        // slots the platform holds an object in
  int via_[3][kStg] = {};          // the storage slot each was opened through
  DWORD mode_[3][kStg] = {{kRW}};  // the mode each was opened in
  bool writable_[kStg] = {true};   // opened for writing, and its parents too
  DWORD rootMode_ = kRW;
  Call pending_;  // the next call, when one is set (op != kOps)
};

TEST(DifferentialTest, SeededCallSequencesAnswerAsThePlatform) {
  const std::string kept = GXSTORAGE_TEST_DATA_DIR "/differential_trace.txt";
  std::vector<std::string> trace;
  std::ifstream in(kept);
  for (std::string line; std::getline(in, line);) trace.push_back(line);
  size_t cursor = 0;
#if defined(_WIN32)
  const std::vector<std::string> before = std::move(trace);
  trace.clear();
#else
  ASSERT_FALSE(trace.empty()) << kept << " is missing";
#endif
  // GXSTORAGE_DIFF_SEEDS=first-last runs other seeds (Windows build only).
  uint32_t first = 1, last = 6;
  if (const char* seeds = std::getenv("GXSTORAGE_DIFF_SEEDS"))
    if (std::sscanf(seeds, "%u-%u", &first, &last) == 1) last = first;
  for (uint32_t seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::string n = std::to_string(seed);
    const Units file = u"seed" + Units(n.begin(), n.end()) + u".cfb";
#if defined(_WIN32)
    Side platform{&kPlatform, true, u"diffA/" + file};
    Side ours{&kOurs, false, u"diffB/" + file};
    Harness(seed, {&platform, &ours}, trace, cursor).run(400);
#else
    Side ours{&kOurs, false, u"diff/" + file};
    Harness(seed, {&ours}, trace, cursor).run(400);
#endif
  }
#if defined(_WIN32)
  // The platform's answers, for the native build (tests/data/README.md).
  const char* out = std::getenv("GXSTORAGE_FIXTURE_OUT");
  std::ofstream keep(std::string(out ? out : ".") + "/differential_trace.txt",
                     std::ios::binary);
  for (const std::string& line : trace) keep << line << "\n";
  if (trace != before)
    std::printf(
        "%s no longer holds the platform's answers: the new ones are "
        "in %s\n",
        kept.c_str(), out ? out : ".");
#endif
}

}  // namespace
