// The enumerator over a storage's children.
#include "service/gxsEnum.h"

gxsEnum::gxsEnum(gxsContext* context, gxsNode* storage) {
  node_.parent = storage;
  node_.id = storage->id;
  node_.kind = gxsNode::kEnum;
  context->enlist(&node_);
}

gxsEnum::~gxsEnum() { node_.context->delist(&node_); }

HRESULT gxsEnum::create(gxsContext* context, gxsNode* storage,
                        IEnumSTATSTG** out) {
  std::vector<uint32_t> ids;
  HRESULT hr = context->doc()->children(storage->id, ids);
  if (hr != S_OK) return hr;
  gxsEnum* e = new gxsEnum(context, storage);
  e->ids_ = std::move(ids);
  e->listedAt_ = context->generation();
  *out = e;
  return S_OK;
}

HRESULT gxsEnum::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IEnumSTATSTG)) {
    *object = this;
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG gxsEnum::AddRef() { return ++refs_; }

ULONG gxsEnum::Release() {
  ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

// While nothing changed since the children were listed, each of them is
// current. After a change, a listed child counts while it is still found
// under its current name among the storage's children as the same entry:
// removed entries, and entries reused elsewhere since, are passed over.
bool gxsEnum::advance(uint32_t& id) {
  while (next_ < ids_.size()) {
    id = ids_[next_++];
    if (node_.context->generation() == listedAt_) return true;
    const gxdDirRecord& entry = doc().entry(id);
    uint32_t found = 0;
    if (entry.objectType != kObjUnused &&
        doc().find(node_.id, entry.name(), found) == S_OK && found == id)
      return true;
  }
  return false;
}

HRESULT gxsEnum::Next(ULONG count, STATSTG* records, ULONG* fetched) {
  if (records == nullptr || (fetched == nullptr && count > 1))
    return E_INVALIDARG;
  if (fetched != nullptr) *fetched = 0;
  if (node_.reverted) return STG_E_REVERTED;
  ULONG got = 0;
  uint32_t id = 0;
  while (got < count && advance(id)) {
    const gxdDirRecord& entry = doc().entry(id);
    const std::u16string name = entry.name();
    HRESULT hr = gxsFillStat(entry, &name, 0, records[got]);
    if (hr != S_OK) {
      // Nothing is handed out when not everything could be.
      for (ULONG i = 0; i < got; ++i) CoTaskMemFree(records[i].pwcsName);
      --next_;
      return hr;
    }
    ++got;
  }
  if (fetched != nullptr) *fetched = got;
  return got == count ? S_OK : S_FALSE;
}

HRESULT gxsEnum::Skip(ULONG count) {
  if (node_.reverted) return STG_E_REVERTED;
  uint32_t id = 0;
  ULONG skipped = 0;
  while (skipped < count && advance(id)) ++skipped;
  return skipped == count ? S_OK : S_FALSE;
}

HRESULT gxsEnum::Reset() {
  if (node_.reverted) return STG_E_REVERTED;
  std::vector<uint32_t> ids;
  HRESULT hr = doc().children(node_.id, ids);
  if (hr != S_OK) return hr;
  ids_ = std::move(ids);
  listedAt_ = node_.context->generation();
  next_ = 0;
  return S_OK;
}

HRESULT gxsEnum::Clone(IEnumSTATSTG** copy) {
  if (copy == nullptr) return E_INVALIDARG;
  *copy = nullptr;
  if (node_.reverted) return STG_E_REVERTED;
  gxsEnum* e = new gxsEnum(node_.context, node_.parent);
  e->ids_ = ids_;
  e->listedAt_ = listedAt_;
  e->next_ = next_;
  *copy = e;
  return S_OK;
}
