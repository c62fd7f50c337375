// The storage object: creating, opening, removing and renaming elements,
// and the fields of its own entry. Copying lives in gxsStorageCopy.cpp.
#include "service/gxsStorage.h"

#include "service/gxsEnum.h"
#include "service/gxsStream.h"

namespace {

// Flags that no element below the root may be opened with.
bool badChildFlags(DWORD mode) {
  return (mode & ~kGxsKnownBits) != 0 || (mode & 3u) == 3u ||
         (mode & kGxsShareBits) > STGM_SHARE_DENY_NONE ||
         (mode & (STGM_NOSCRATCH | STGM_NOSNAPSHOT | STGM_DIRECT_SWMR)) != 0;
}

// A stream is opened exclusively, never transacted.
HRESULT streamMode(DWORD mode) {
  if (badChildFlags(mode) || (mode & kGxsShareBits) != STGM_SHARE_EXCLUSIVE)
    return STG_E_INVALIDFLAG;
  if (mode & (STGM_TRANSACTED | STGM_DELETEONRELEASE))
    return STG_E_INVALIDFUNCTION;
  return S_OK;
}

// The checks of a storage's mode made before its name is looked up...
HRESULT storageFlags(DWORD mode, bool create) {
  if (badChildFlags(mode) || (mode & kGxsShareBits) == 0 ||
      (create && (mode & STGM_DELETEONRELEASE) != 0))
    return STG_E_INVALIDFLAG;
  return S_OK;
}

// ...and after: sharing other than exclusive is not offered below the root.
HRESULT storageSharing(DWORD mode) {
  if ((mode & kGxsShareBits) != STGM_SHARE_EXCLUSIVE ||
      (mode & (STGM_PRIORITY | STGM_DELETEONRELEASE)) != 0)
    return STG_E_INVALIDFUNCTION;
  return S_OK;
}

// The mode of the object that keeps a transacted copy's element open: it
// reads the element, and writes it when the copy may commit.
DWORD anchorMode(DWORD mode) {
  return (gxsCanWrite(mode) ? STGM_READWRITE : STGM_READ) |
         STGM_SHARE_EXCLUSIVE;
}

// Answered by QueryInterface with the object itself, so that CopyTo and
// MoveElementTo recognise a storage of this service.
const IID kSelfIid = {0x6b1f3a52,
                      0x0c4e,
                      0x4d8a,
                      {0x9e, 0x51, 0x2f, 0x77, 0xa0, 0x13, 0xc4, 0x88}};

}  // namespace

gxsStorage::gxsStorage(gxsContext* context, gxsNode* parent, uint32_t id,
                       DWORD mode)
    : mode_(mode & ~STGM_CREATE) {
  node_.parent = parent;
  node_.id = id;
  node_.kind = gxsNode::kStorage;
  context->enlist(&node_);
}

gxsStorage::~gxsStorage() {
  gxsContext* context = node_.context;
  if (node_.id == gxsDocFile::kRootId) context->closeFile();
  if (anchor_ != nullptr) context->setOuter(nullptr);
  context->delist(&node_);
  if (anchor_ != nullptr) anchor_->Release();
}

HRESULT gxsStorage::makeTransacted(gxsStorage* anchor, DWORD mode,
                                   IStorage** out) {
  std::unique_ptr<gxsDocFile> scratch;
  HRESULT hr = gxsDocFile::create(pdOpenMemoryFile(), scratch);
  if (hr != S_OK) {
    anchor->Release();
    return hr;
  }
  auto* context = new gxsContext(std::move(scratch), u"", u"");
  auto* copy = new gxsStorage(context, nullptr, gxsDocFile::kRootId,
                              (mode & ~STGM_TRANSACTED) | STGM_READWRITE);
  copy->anchor_ = anchor;
  context->setOuter(&anchor->node_);
  hr = anchor->CopyTo(0, nullptr, nullptr, copy);
  copy->mode_ = mode & ~STGM_CREATE;
  if (hr != S_OK) {
    copy->Release();
    return hr;
  }
  *out = copy;
  return S_OK;
}

HRESULT gxsStorage::handOut(uint32_t id, DWORD mode, IStorage** storage) {
  if (mode & STGM_TRANSACTED)
    return makeTransacted(
        new gxsStorage(node_.context, &node_, id, anchorMode(mode)), mode,
        storage);
  *storage = new gxsStorage(node_.context, &node_, id, mode);
  return S_OK;
}

HRESULT gxsStorage::removeAll() {
  std::vector<uint32_t> ids;
  HRESULT hr = doc().children(node_.id, ids);
  for (size_t i = 0; hr == S_OK && i < ids.size(); ++i)
    hr = removeChild(ids[i]);
  return hr;
}

HRESULT gxsStorage::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IStorage) ||
      IsEqualGUID(riid, kSelfIid)) {
    *object = this;
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG gxsStorage::AddRef() { return ++refs_; }

ULONG gxsStorage::Release() {
  ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

gxsStorage* gxsStorage::ours(IStorage* storage) {
  void* self = nullptr;
  if (storage == nullptr || storage->QueryInterface(kSelfIid, &self) != S_OK)
    return nullptr;
  storage->Release();
  return static_cast<gxsStorage*>(self);
}

bool gxsStorage::holds(IStorage* target, uint32_t id) const {
  gxsStorage* t = ours(target);
  if (t == nullptr || t->node_.context != node_.context) return false;
  for (const gxsNode* n = &t->node_; n != nullptr; n = n->parent)
    if (n->id == id) return true;
  return false;
}

HRESULT gxsStorage::checkChildAccess(DWORD mode) const {
  if ((gxsCanWrite(mode) && !gxsCanWrite(mode_)) ||
      (gxsCanRead(mode) && !gxsCanRead(mode_)))
    return STG_E_ACCESSDENIED;
  return S_OK;
}

HRESULT gxsStorage::removeChild(uint32_t id) {
  std::vector<uint32_t> removed;
  HRESULT hr = doc().removeEntry(node_.id, id, removed);
  node_.context->revertElements(removed);
  return hr;
}

HRESULT gxsStorage::addChild(const std::u16string& name, uint8_t type,
                             DWORD mode, HRESULT late, uint32_t& id) {
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  HRESULT hr = checkChildAccess(mode);
  uint32_t old = 0;
  if (hr == S_OK) hr = doc().find(node_.id, name, old);
  if (hr == S_OK && (mode & STGM_CREATE) == 0) return STG_E_FILEALREADYEXISTS;
  if (hr != S_OK && hr != STG_E_FILENOTFOUND) return hr;
  if (late != S_OK) return late;
  if (hr == S_OK && (hr = removeChild(old)) != S_OK)
    return node_.context->finish(hr);
  return node_.context->finish(doc().addEntry(node_.id, name, type, id));
}

HRESULT gxsStorage::CreateStream(const OLECHAR* name, DWORD mode,
                                 DWORD reserved1, DWORD reserved2,
                                 IStream** stream) {
  if (stream == nullptr) return STG_E_INVALIDPOINTER;
  *stream = nullptr;
  std::u16string n;
  uint32_t id = 0;
  HRESULT hr = gxsReadNewName(name, n);
  if (hr == S_OK) hr = streamMode(mode);
  // A reverted object is refused after flags that are not valid at all and
  // before those that are not offered, as the platform does.
  if ((hr == S_OK || hr == STG_E_INVALIDFUNCTION) && gone())
    hr = STG_E_REVERTED;
  if (hr == S_OK && (reserved1 != 0 || reserved2 != 0))
    hr = STG_E_INVALIDPARAMETER;
  if (hr == S_OK) hr = addChild(n, kObjStream, mode, S_OK, id);
  if (hr == S_OK) *stream = new gxsStream(node_.context, &node_, id, mode);
  return hr;
}

HRESULT gxsStorage::OpenStream(const OLECHAR* name, void*, DWORD mode, DWORD,
                               IStream** stream) {
  if (stream == nullptr || name == nullptr) return E_INVALIDARG;
  *stream = nullptr;
  std::u16string n;
  uint32_t id = 0;
  HRESULT hr = gxsReadName(name, n);
  if (hr == S_OK) hr = streamMode(mode);
  if (hr == S_OK && gone()) hr = STG_E_REVERTED;
  if (hr == S_OK) hr = checkChildAccess(mode);
  if (hr == S_OK) hr = doc().find(node_.id, n, id);
  if (hr == S_OK && doc().entry(id).objectType != kObjStream)
    hr = STG_E_FILENOTFOUND;
  if (hr == S_OK && node_.context->isOpen(id)) hr = STG_E_ACCESSDENIED;
  if (hr == S_OK) *stream = new gxsStream(node_.context, &node_, id, mode);
  return hr;
}

HRESULT gxsStorage::CreateStorage(const OLECHAR* name, DWORD mode, DWORD, DWORD,
                                  IStorage** storage) {
  if (storage == nullptr) return STG_E_INVALIDPOINTER;
  *storage = nullptr;
  std::u16string n;
  uint32_t id = 0;
  HRESULT hr = gxsReadNewName(name, n);
  if (hr == S_OK) hr = storageFlags(mode, true);
  if (hr == S_OK && gone()) hr = STG_E_REVERTED;
  if (hr == S_OK) hr = addChild(n, kObjStorage, mode, storageSharing(mode), id);
  if (hr != S_OK) return hr;
  return handOut(id, mode, storage);
}

HRESULT gxsStorage::OpenStorage(const OLECHAR* name, IStorage*, DWORD mode,
                                SNB exclude, DWORD, IStorage** storage) {
  if (storage == nullptr || name == nullptr) return E_INVALIDARG;
  *storage = nullptr;
  std::u16string n;
  uint32_t id = 0;
  HRESULT hr = gxsReadName(name, n);
  if (hr == S_OK) hr = storageFlags(mode, false);
  // An open refuses the sharing before it looks the name up, as the
  // platform does (a create does after, when the name was free).
  if (hr == S_OK) hr = storageSharing(mode);
  if (hr == S_OK && gone()) hr = STG_E_REVERTED;
  // Opening with elements left out (emptied) is not offered.
  if (hr == S_OK && exclude != nullptr) hr = STG_E_INVALIDPARAMETER;
  if (hr == S_OK) hr = checkChildAccess(mode);
  if (hr == S_OK) hr = doc().find(node_.id, n, id);
  if (hr == S_OK && doc().entry(id).objectType != kObjStorage)
    hr = STG_E_FILENOTFOUND;
  if (hr == S_OK && node_.context->isOpen(id)) hr = STG_E_ACCESSDENIED;
  if (hr != S_OK) return hr;
  return handOut(id, mode, storage);
}

// A transacted root commits the file's transaction. Every other storage is
// direct: its changes are in the file already (or, below a transacted root,
// in the root's transaction), so there is only the tables to write.
HRESULT gxsStorage::Commit(DWORD) {
  if (gone()) return STG_E_REVERTED;
  if (anchor_ != nullptr) {
    // A transacted copy: the element gets exactly the copy's tree.
    if (!gxsCanWrite(mode_)) return S_OK;
    HRESULT hr = anchor_->removeAll();
    if (hr == S_OK) hr = CopyTo(0, nullptr, nullptr, anchor_);
    return anchor_->node_.context->finish(hr);
  }
  if (node_.id == gxsDocFile::kRootId && doc().transacted())
    return doc().commit();
  return node_.context->finish(S_OK);
}

// A transacted root drops every change since the last commit; whatever was
// opened below it may be gone with them, so all of it is reverted. Direct
// storages have nothing to undo.
HRESULT gxsStorage::Revert() {
  if (anchor_ != nullptr) {
    // A transacted copy: copy the element afresh.
    if (gone()) return STG_E_REVERTED;
    node_.context->revertBelow(&node_);
    const DWORD mode = mode_;
    mode_ |= STGM_READWRITE;
    HRESULT hr = removeAll();
    if (hr == S_OK) hr = anchor_->CopyTo(0, nullptr, nullptr, this);
    mode_ = mode;
    return hr;
  }
  if (gxsGone(node_) || node_.id != gxsDocFile::kRootId || !doc().transacted())
    return S_OK;
  node_.context->revertBelow(&node_);
  HRESULT hr = doc().revert();
  // A committed state that cannot be read back leaves no tables to work
  // on: the root goes the way of its children.
  if (hr != S_OK) node_.reverted = true;
  return node_.context->finish(hr);
}

HRESULT gxsStorage::EnumElements(DWORD, void*, DWORD,
                                 IEnumSTATSTG** enumerator) {
  if (enumerator == nullptr) return E_INVALIDARG;
  *enumerator = nullptr;
  if (gone()) return STG_E_REVERTED;
  return gxsEnum::create(node_.context, &node_, enumerator);
}

HRESULT gxsStorage::DestroyElement(const OLECHAR* name) {
  if (name == nullptr) return STG_E_INVALIDPOINTER;
  if (gone()) return STG_E_REVERTED;
  std::u16string n;
  uint32_t id = 0;
  HRESULT hr = gxsReadName(name, n);
  if (hr == S_OK && !gxsCanWrite(mode_)) hr = STG_E_ACCESSDENIED;
  if (hr == S_OK) hr = doc().find(node_.id, n, id);
  if (hr != S_OK) return hr;
  return node_.context->finish(removeChild(id));
}

HRESULT gxsStorage::RenameElement(const OLECHAR* oldName,
                                  const OLECHAR* newName) {
  if (oldName == nullptr || newName == nullptr) return STG_E_INVALIDPOINTER;
  if (gone()) return STG_E_REVERTED;
  std::u16string from, to;
  uint32_t id = 0, other = 0;
  HRESULT hr = gxsReadName(oldName, from);
  if (hr == S_OK) hr = gxsReadNewName(newName, to);
  if (hr == S_OK && !gxsCanWrite(mode_)) hr = STG_E_ACCESSDENIED;
  if (hr != S_OK) return hr;
  // A name equal to any sibling's, itself included, folded or not, is taken;
  // the platform looks at the new name before the old one.
  hr = doc().find(node_.id, to, other);
  if (hr == S_OK) return STG_E_FILEALREADYEXISTS;
  if (hr != STG_E_FILENOTFOUND) return hr;
  hr = doc().find(node_.id, from, id);
  if (hr != S_OK) return hr;
  if (node_.context->isOpen(id)) return STG_E_ACCESSDENIED;
  return node_.context->finish(doc().renameEntry(node_.id, id, to));
}

HRESULT gxsStorage::SetElementTimes(const OLECHAR* name,
                                    const FILETIME* created, const FILETIME*,
                                    const FILETIME* modified) {
  if (gone()) return STG_E_REVERTED;
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  // No name: the times of this storage itself.
  uint32_t id = node_.id;
  std::u16string n;
  HRESULT hr = S_OK;
  if (name != nullptr && (hr = gxsReadName(name, n)) == S_OK)
    hr = doc().find(node_.id, n, id);
  if (hr != S_OK) return hr;
  // The format keeps no times for streams and no creation time for the
  // root; those are left zero.
  if (doc().entry(id).objectType == kObjStream) return S_OK;
  if (id == gxsDocFile::kRootId) created = nullptr;
  return node_.context->finish(doc().setEntryTimes(id, created, modified));
}

HRESULT gxsStorage::SetClass(REFCLSID clsid) {
  if (gone()) return STG_E_REVERTED;
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  uint8_t bytes[16];
  gxsClsidToBytes(clsid, bytes);
  return node_.context->finish(doc().setEntryClass(node_.id, bytes));
}

HRESULT gxsStorage::SetStateBits(DWORD bits, DWORD mask) {
  if (gone()) return STG_E_REVERTED;
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  return node_.context->finish(doc().setEntryStateBits(node_.id, bits, mask));
}

HRESULT gxsStorage::Stat(STATSTG* info, DWORD flag) {
  if (info == nullptr) return E_INVALIDARG;
  if (gone()) return STG_E_REVERTED;
  const gxdDirRecord& entry = doc().entry(node_.id);
  // The root is named by the file's path, every other storage by its entry
  // (a transacted copy's by its element's).
  std::u16string name =
      anchor_ != nullptr ? anchor_->doc().entry(anchor_->node_.id).name()
      : node_.id == gxsDocFile::kRootId ? node_.context->path()
                                        : entry.name();
  return gxsFillStat(entry, (flag & STATFLAG_NONAME) ? nullptr : &name, mode_,
                     *info);
}
