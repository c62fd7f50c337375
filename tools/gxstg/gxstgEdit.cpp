// The editing commands: put, rm, mv, mkdir and compact. Each edit is one
// transaction on the file through the platform's structured-storage
// interfaces (the system's own service on Windows, the library's service
// elsewhere): it reaches the file whole at the root's commit, or not at all.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "gxstg.h"
#include "platform/gxPlatform.h"
#include "porting/gxdFile.h"

namespace gxstg {

namespace {

const DWORD kEditMode = STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kChildMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Releases a COM-shaped object when it goes out of scope.
template <typename T>
struct Ref {
  T* p = nullptr;
  Ref() = default;
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() { reset(); }
  void reset() {
    if (p != nullptr) p->Release();
    p = nullptr;
  }
  T* operator->() const { return p; }
};

std::vector<OLECHAR> wide(const std::u16string& s) {
  return std::vector<OLECHAR>(s.c_str(), s.c_str() + s.size() + 1);
}

std::string hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
  return text;
}

// The exit code and message for a failed call on FILE.
int failed(const std::string& what, HRESULT hr) {
  switch (hr) {
    case STG_E_FILENOTFOUND:
    case STG_E_PATHNOTFOUND:
      return fail(kExitMissing, what + ": no such file or element");
    case STG_E_INVALIDNAME:
      return fail(kExitUsage, what + ": not a valid element name (1 to 31 "
                                     "UTF-16 units, none of / \\ : !)");
    case STG_E_FILEALREADYEXISTS:
      return fail(kExitCorrupt, what + ": not a compound file");
    case STG_E_DOCFILECORRUPT:
    case STG_E_INVALIDHEADER:
      return fail(kExitCorrupt, what + ": corrupt compound file");
    case STG_E_SHAREVIOLATION:
    case STG_E_LOCKVIOLATION:
      return fail(kExitMissing, what + ": in use by another program");
    case STG_E_ACCESSDENIED:
      return fail(kExitMissing, what + ": access denied");
    case STG_E_MEDIUMFULL:
      return fail(kExitMissing, what + ": disk full; the file is unchanged");
    default:
      return fail(kExitMissing, what + ": failed (" + hex(hr) + ")");
  }
}

// One edit: the file opened in one transaction, with the storage holding
// the element an edit works on.
class Edit {
 public:
  Edit(const std::string& file) : file_(file) {}

  // Opens FILE and walks to the storage holding the last name of `path`,
  // creating missing storages on the way when `create`. Returns an exit
  // code (0: ready).
  int open(const std::string& path, bool create) {
    std::u16string name16;
    if (!utf8ToUtf16(file_, name16))
      return fail(kExitUsage, file_ + ": not valid UTF-8");
    if (!parseElementPath(path, names_) || names_.empty())
      return fail(kExitUsage, "bad element path '" + path + "'");
    std::vector<OLECHAR> name = wide(name16);
    HRESULT hr = StgOpenStorage(name.data(), nullptr, kEditMode, nullptr, 0,
                                &root_.p);
    if (hr != S_OK) return failed(file_, hr);
    IStorage* at = root_.p;
    for (size_t i = 0; i + 1 < names_.size(); ++i) {
      std::vector<OLECHAR> part = wide(names_[i]);
      chain_.emplace_back(new Ref<IStorage>());
      hr = at->OpenStorage(part.data(), nullptr, kChildMode, nullptr, 0,
                           &chain_.back()->p);
      if (hr == STG_E_FILENOTFOUND && create)
        hr = at->CreateStorage(part.data(), kChildMode, 0, 0,
                               &chain_.back()->p);
      if (hr != S_OK) return failed(file_ + ": " + utf16ToUtf8(names_[i]), hr);
      at = chain_.back()->p;
    }
    holder_ = at;
    return kExitOk;
  }

  IStorage* holder() const { return holder_; }
  std::vector<OLECHAR> last() const { return wide(names_.back()); }
  std::string lastText() const { return utf16ToUtf8(names_.back()); }

  // Commits the transaction; the file then holds the edit.
  int commit() {
    while (!chain_.empty()) chain_.pop_back();
    HRESULT hr = root_->Commit(STGC_DEFAULT);
    if (hr != S_OK) return failed(file_, hr);
    return kExitOk;
  }

 private:
  std::string file_;
  std::vector<std::u16string> names_;
  Ref<IStorage> root_;
  std::vector<std::unique_ptr<Ref<IStorage>>> chain_;
  IStorage* holder_ = nullptr;
};

}  // namespace

int runPut(const Args& args) {
  if (args.size() != 2 && args.size() != 3)
    return fail(kExitUsage, "usage: gxstg put FILE PATH [SRC]");
  std::ifstream source;
  std::istream* in = &std::cin;
  if (args.size() == 3) {
    source.open(hostPath(args[2]), std::ios::binary);
    if (!source) return fail(kExitMissing, args[2] + ": cannot be read");
    in = &source;
  }
  Edit edit(args[0]);
  if (int code = edit.open(args[1], true)) return code;
  Ref<IStream> stream;
  std::vector<OLECHAR> name = edit.last();
  // Creating over a storage would replace it and all below it: refused, as
  // the caller asked to write one stream.
  Ref<IStorage> existing;
  if (edit.holder()->OpenStorage(name.data(), nullptr, kChildMode, nullptr, 0,
                                 &existing.p) == S_OK)
    return fail(kExitUsage, args[0] + ": " + args[1] + ": is a storage");
  existing.reset();
  HRESULT hr = edit.holder()->CreateStream(
      name.data(), kChildMode | STGM_CREATE, 0, 0, &stream.p);
  if (hr != S_OK) return failed(args[0] + ": " + edit.lastText(), hr);
  std::vector<char> chunk(1 << 16);
  for (;;) {
    in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    ULONG n = static_cast<ULONG>(in->gcount()), written = 0;
    if (n == 0) break;
    if ((hr = stream->Write(chunk.data(), n, &written)) != S_OK)
      return failed(args[0] + ": " + edit.lastText(), hr);
  }
  if (in->bad()) return fail(kExitMissing, "reading the source failed");
  stream.reset();
  return edit.commit();
}

int runRemove(const Args& args) {
  if (args.size() != 2) return fail(kExitUsage, "usage: gxstg rm FILE PATH");
  Edit edit(args[0]);
  if (int code = edit.open(args[1], false)) return code;
  std::vector<OLECHAR> name = edit.last();
  HRESULT hr = edit.holder()->DestroyElement(name.data());
  if (hr != S_OK) return failed(args[0] + ": " + args[1], hr);
  return edit.commit();
}

int runMove(const Args& args) {
  if (args.size() != 3)
    return fail(kExitUsage, "usage: gxstg mv FILE PATH NEWNAME");
  std::vector<std::u16string> to;
  if (!parseElementPath(args[2], to) || to.size() != 1)
    return fail(kExitUsage, "NEWNAME must be one element name");
  Edit edit(args[0]);
  if (int code = edit.open(args[1], false)) return code;
  std::vector<OLECHAR> name = edit.last(), newName = wide(to[0]);
  HRESULT hr = edit.holder()->RenameElement(name.data(), newName.data());
  // Another element of the storage has the new name already: the caller
  // chose the name, as with an invalid one (the code's usual meaning when
  // opening a file, "not a compound file", does not apply here).
  if (hr == STG_E_FILEALREADYEXISTS)
    return fail(kExitUsage, args[0] + ": " + args[2] + ": the name is in use");
  if (hr != S_OK) return failed(args[0] + ": " + args[1], hr);
  return edit.commit();
}

int runMakeDir(const Args& args) {
  if (args.size() != 2)
    return fail(kExitUsage, "usage: gxstg mkdir FILE PATH");
  Edit edit(args[0]);
  if (int code = edit.open(args[1], true)) return code;
  Ref<IStorage> made;
  std::vector<OLECHAR> name = edit.last();
  HRESULT hr = edit.holder()->CreateStorage(name.data(), kChildMode, 0, 0,
                                            &made.p);
  if (hr == STG_E_FILEALREADYEXISTS) {
    hr = edit.holder()->OpenStorage(name.data(), nullptr, kChildMode, nullptr,
                                    0, &made.p);
    // The name is taken by a stream.
    if (hr == STG_E_FILENOTFOUND)
      return fail(kExitUsage, args[0] + ": " + args[1] + ": is a stream");
  }
  if (hr != S_OK) return failed(args[0] + ": " + args[1], hr);
  made.reset();
  return edit.commit();
}

// Copies FILE into a new file beside it (same tree, class ids and state
// bits, no free space), commits and syncs it, then renames it over FILE.
int runCompact(const Args& args) {
  if (args.size() != 1) return fail(kExitUsage, "usage: gxstg compact FILE");
  std::u16string path;
  if (!utf8ToUtf16(args[0], path))
    return fail(kExitUsage, args[0] + ": not valid UTF-8");
  std::u16string temp = path + u".gxstg-compact";
  std::vector<OLECHAR> from = wide(path), to = wide(temp);
  Ref<IStorage> source, target;
  HRESULT hr = StgOpenStorage(from.data(), nullptr,
                              STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0,
                              &source.p);
  if (hr != S_OK) return failed(args[0], hr);
  hr = StgCreateDocfile(to.data(),
                        STGM_CREATE | kEditMode, 0,
                        &target.p);
  if (hr != S_OK) return failed(args[0] + ".gxstg-compact", hr);
  STATSTG stat = {};
  hr = source->CopyTo(0, nullptr, nullptr, target.p);
  if (hr == S_OK) hr = source->Stat(&stat, STATFLAG_NONAME);
  if (hr == S_OK) hr = target->SetClass(stat.clsid);
  if (hr == S_OK) hr = target->SetStateBits(stat.grfStateBits, 0xFFFFFFFFu);
  if (hr == S_OK) hr = target->Commit(STGC_DEFAULT);
  target.reset();
  source.reset();
  if (hr != S_OK || !pdRenameFile(temp.c_str(), path.c_str())) {
    pdRemoveFile(temp.c_str());
    return hr != S_OK ? failed(args[0], hr)
                      : fail(kExitMissing, args[0] + ": cannot be replaced");
  }
  return kExitOk;
}

}  // namespace gxstg
