// Opening and creating files for the service's objects, and the probe.
#include "service/gxsService.h"

#include <chrono>
#include <filesystem>
#include <string>

#include "engine/gxdFormat.h"
#include "service/gxsContext.h"
#include "service/gxsStorage.h"

namespace {

// The modes a root may be opened (`create` false) or created with. Direct
// mode wants the file to itself, except for readers that only keep writers
// out; a priority open reads only. A transacted root takes any sharing (the
// file lock still keeps a second writer out); working without a snapshot
// means letting other writers in.
HRESULT checkRootMode(DWORD mode, bool create) {
  const DWORD access = mode & 3u, share = mode & kGxsShareBits;
  const bool transacted = (mode & STGM_TRANSACTED) != 0;
  if ((mode & ~kGxsKnownBits) != 0 || access == 3u ||
      share > STGM_SHARE_DENY_NONE || (mode & STGM_DIRECT_SWMR) != 0)
    return STG_E_INVALIDFLAG;
  if ((mode & (STGM_NOSCRATCH | STGM_NOSNAPSHOT)) != 0 && !transacted)
    return STG_E_INVALIDFLAG;
  if ((mode & STGM_NOSNAPSHOT) != 0 && share != STGM_SHARE_DENY_NONE &&
      share != 0)
    return STG_E_INVALIDFLAG;
  if (create) {
    if ((mode & (STGM_CREATE | STGM_CONVERT)) == (STGM_CREATE | STGM_CONVERT) ||
        access == STGM_READ)
      return STG_E_INVALIDFLAG;
  } else if ((mode & STGM_CREATE) != 0 ||
             ((mode & STGM_PRIORITY) != 0 && access != STGM_READ)) {
    return STG_E_INVALIDFLAG;
  }
  const bool priority = !create && (mode & STGM_PRIORITY) != 0;
  if (!priority && !transacted && share != STGM_SHARE_EXCLUSIVE &&
      (create || access != STGM_READ || share != STGM_SHARE_DENY_WRITE))
    return STG_E_INVALIDFLAG;
  return S_OK;
}

// Writers and exclusive openers lock the file against every other opener;
// readers that let other readers in take a shared lock, which still keeps
// writers out. A file opened only for reading can hold no exclusive lock on
// every host, so it is shared between readers.
int lockFor(DWORD mode) {
  return gxsCanWrite(mode) ? kPdLockExclusive : kPdLockShared;
}

HRESULT fromFileError(int error, bool create) {
  switch (error) {
    case kPdErrNotFound:
      return create ? STG_E_PATHNOTFOUND : STG_E_FILENOTFOUND;
    case kPdErrExists:
      return STG_E_FILEALREADYEXISTS;
    case kPdErrAccess:
      return STG_E_ACCESSDENIED;
    case kPdErrShare:
      return STG_E_SHAREVIOLATION;
    case kPdErrNoSpace:
      return STG_E_MEDIUMFULL;
    case kPdErrTooLarge:
      return STG_E_DOCFILETOOLARGE;
    case kPdErrName:
      return STG_E_INVALIDNAME;
    default:
      return create ? STG_E_WRITEFAULT : STG_E_READFAULT;
  }
}

std::u16string fromUnits(const OLECHAR* name) {
  std::u16string out;
  for (; *name != 0; ++name) out.push_back(static_cast<char16_t>(*name));
  return out;
}

// The path the root's Stat reports: absolute and without "." or ".."
// steps, or the name as given when the host cannot express it.
std::u16string fullPath(const std::u16string& name) {
  try {
    std::error_code error;
    std::filesystem::path full =
        std::filesystem::absolute(std::filesystem::path(name), error);
    if (error) return name;
    return full.lexically_normal().u16string();
  } catch (...) {
    return name;
  }
}

// A new file in the host's temporary folder, for a create without a name.
std::unique_ptr<pdFile> createTemporary(std::u16string& path, int& error) {
  error = kPdErrNotFound;
  std::u16string folder;
  try {
    std::error_code code;
    folder = std::filesystem::temp_directory_path(code).u16string();
    if (code) return nullptr;
  } catch (...) {
    return nullptr;
  }
  if (!folder.empty() && folder.back() != u'/' && folder.back() != u'\\')
    folder.push_back(u'/');
  uint64_t seed = static_cast<uint64_t>(
      std::chrono::steady_clock::now().time_since_epoch().count());
  for (int attempt = 0; attempt < 100; ++attempt) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    std::u16string name = u"gxs";
    for (int i = 0; i < 8; ++i)
      name.push_back(u"0123456789abcdef"[(seed >> (60 - 4 * i)) & 15]);
    path = folder + name + u".tmp";
    std::unique_ptr<pdFile> file = pdOpenNativeFile(
        path.c_str(), kPdFileCreateNew, kPdLockExclusive, error);
    if (file || error != kPdErrExists) return file;
  }
  return nullptr;
}

HRESULT makeRoot(std::unique_ptr<gxsDocFile> doc, std::u16string path,
                 DWORD mode, IStorage** storage) {
  // Only a writer has anything to hold back until commit.
  if ((mode & STGM_TRANSACTED) != 0 && doc->writable())
    doc->setTransacted(true);
  std::u16string remove = (mode & STGM_DELETEONRELEASE) ? path : u"";
  auto* context = new gxsContext(std::move(doc),
                                 path.empty() ? path : fullPath(path), remove);
  *storage = new gxsStorage(context, nullptr, gxsDocFile::kRootId, mode);
  return S_OK;
}

}  // namespace

HRESULT gxsStgOpenStorage(const OLECHAR* name, IStorage*, DWORD mode,
                          SNB exclude, DWORD reserved, IStorage** storage) {
  if (storage == nullptr) return STG_E_INVALIDPOINTER;
  *storage = nullptr;
  if (name == nullptr) return STG_E_INVALIDNAME;
  if (reserved != 0 || exclude != nullptr) return STG_E_INVALIDPARAMETER;
  HRESULT hr = checkRootMode(mode, false);
  if (hr != S_OK) return hr;
  const std::u16string path = fromUnits(name);
  int error = kPdErrNone;
  std::unique_ptr<pdFile> file = pdOpenNativeFile(
      path.c_str(), gxsCanWrite(mode) ? kPdFileReadWrite : kPdFileRead,
      lockFor(mode), error);
  if (!file) return fromFileError(error, false);
  std::unique_ptr<gxsDocFile> doc;
  if ((hr = gxsDocFile::open(std::move(file), gxsCanWrite(mode), doc)) != S_OK)
    return hr;
  return makeRoot(std::move(doc), path, mode, storage);
}

HRESULT gxsStgCreateDocfile(const OLECHAR* name, DWORD mode, DWORD reserved,
                            IStorage** storage) {
  if (storage == nullptr) return STG_E_INVALIDPOINTER;
  *storage = nullptr;
  if (reserved != 0) return STG_E_INVALIDPARAMETER;
  HRESULT hr = checkRootMode(mode, true);
  if (hr != S_OK) return hr;
  // Without a name the file is a temporary one, removed at the final
  // release.
  std::u16string path;
  int error = kPdErrNone;
  std::unique_ptr<pdFile> file;
  if (name == nullptr) {
    mode |= STGM_DELETEONRELEASE;
    file = createTemporary(path, error);
  } else {
    path = fromUnits(name);
    file = pdOpenNativeFile(
        path.c_str(), (mode & STGM_CREATE) ? kPdFileCreate : kPdFileCreateNew,
        kPdLockExclusive, error);
  }
  if (!file) return fromFileError(error, true);
  std::unique_ptr<gxsDocFile> doc;
  if ((hr = gxsDocFile::create(std::move(file), doc,
                               (mode & STGM_TRANSACTED) != 0)) != S_OK) {
    // A file this call brought into being is not left behind half made.
    if (name == nullptr || (mode & STGM_CREATE) == 0)
      pdRemoveFile(path.c_str());
    return hr;
  }
  return makeRoot(std::move(doc), path, mode, storage);
}

HRESULT gxsStgIsStorageFile(const OLECHAR* name) {
  if (name == nullptr) return STG_E_FILENOTFOUND;
  const std::u16string path = fromUnits(name);
  int error = kPdErrNone;
  std::unique_ptr<pdFile> file =
      pdOpenNativeFile(path.c_str(), kPdFileRead, kPdLockNone, error);
  if (!file) return STG_E_FILENOTFOUND;
  uint8_t signature[sizeof(kGxdSignature)] = {};
  if (file->readAt(0, signature, sizeof(signature)) !=
      static_cast<int64_t>(sizeof(signature)))
    return S_FALSE;
  for (size_t i = 0; i < sizeof(signature); ++i)
    if (signature[i] != kGxdSignature[i]) return S_FALSE;
  return S_OK;
}

HRESULT gxsStgOpenOnFile(std::unique_ptr<pdFile> file, DWORD mode,
                         IStorage** storage) {
  if (storage == nullptr) return STG_E_INVALIDPOINTER;
  *storage = nullptr;
  if (!file) return STG_E_INVALIDPOINTER;
  HRESULT hr = checkRootMode(mode & ~STGM_DELETEONRELEASE, false);
  std::unique_ptr<gxsDocFile> doc;
  if (hr == S_OK)
    hr = gxsDocFile::open(std::move(file), gxsCanWrite(mode), doc);
  if (hr != S_OK) return hr;
  return makeRoot(std::move(doc), u"", mode & ~STGM_DELETEONRELEASE, storage);
}

HRESULT gxsStgCreateOnFile(std::unique_ptr<pdFile> file, DWORD mode,
                           IStorage** storage) {
  if (storage == nullptr) return STG_E_INVALIDPOINTER;
  *storage = nullptr;
  if (!file) return STG_E_INVALIDPOINTER;
  HRESULT hr = checkRootMode(mode & ~STGM_DELETEONRELEASE, true);
  std::unique_ptr<gxsDocFile> doc;
  if (hr == S_OK)
    hr = gxsDocFile::create(std::move(file), doc,
                            (mode & STGM_TRANSACTED) != 0);
  if (hr != S_OK) return hr;
  return makeRoot(std::move(doc), u"", mode & ~STGM_DELETEONRELEASE, storage);
}
