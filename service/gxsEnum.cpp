// The enumerator over a storage's children.
#include "service/gxsEnum.h"

#include "porting/gxdPorting.h"

namespace {

// True when name `a` sorts after `b` in the platform's order of siblings:
// longer later, then unit by unit folded to upper case.
bool after(const std::u16string& a, const std::u16string& b) {
  if (a.size() != b.size()) return a.size() > b.size();
  for (size_t i = 0; i < a.size(); ++i) {
    const char16_t x = pdFoldUpper(a[i]), y = pdFoldUpper(b[i]);
    if (x != y) return x > y;
  }
  return false;
}

}  // namespace

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

// While nothing changed since the children were listed, the list is
// current. After a change the children are listed again and the enumeration
// goes on after the last child handed out: right after it when it is still
// there under its name (which also keeps the place in a sibling tree that
// other writers left out of order), else with the first child that sorts
// after its name, as the platform's enumerator does.
bool gxsEnum::advance(uint32_t& id, HRESULT& hr) {
  if (node_.context->generation() != listedAt_) {
    std::vector<uint32_t> ids;
    if ((hr = doc().children(node_.id, ids)) != S_OK) return false;
    size_t at = 0;
    if (started_) {
      while (at < ids.size() && ids[at] != lastId_) ++at;
      if (at < ids.size() && doc().entry(ids[at]).name() == last_) {
        ++at;
      } else {
        at = 0;
        while (at < ids.size() && !after(doc().entry(ids[at]).name(), last_))
          ++at;
      }
    }
    ids_ = std::move(ids);
    listedAt_ = node_.context->generation();
    next_ = at;
  }
  if (next_ >= ids_.size()) return false;
  id = ids_[next_++];
  started_ = true;
  lastId_ = id;
  last_ = doc().entry(id).name();
  return true;
}

HRESULT gxsEnum::Next(ULONG count, STATSTG* records, ULONG* fetched) {
  if (records == nullptr || (fetched == nullptr && count > 1))
    return E_INVALIDARG;
  if (fetched != nullptr) *fetched = 0;
  if (gxsGone(node_)) return STG_E_REVERTED;
  const bool wasStarted = started_;
  const uint32_t wasId = lastId_;
  const std::u16string was = last_;
  ULONG got = 0;
  uint32_t id = 0;
  HRESULT hr = S_OK;
  while (got < count && advance(id, hr)) {
    const gxdDirRecord& entry = doc().entry(id);
    const std::u16string name = entry.name();
    hr = gxsFillStat(entry, &name, 0, records[got]);
    if (hr != S_OK) break;
    ++got;
  }
  if (hr != S_OK) {
    // Nothing is handed out when not everything could be: the next call
    // lists the children again and goes on where this one started.
    for (ULONG i = 0; i < got; ++i) CoTaskMemFree(records[i].pwcsName);
    started_ = wasStarted;
    lastId_ = wasId;
    last_ = was;
    listedAt_ = ~uint64_t(0);
    return hr;
  }
  if (fetched != nullptr) *fetched = got;
  return got == count ? S_OK : S_FALSE;
}

HRESULT gxsEnum::Skip(ULONG count) {
  if (gxsGone(node_)) return STG_E_REVERTED;
  uint32_t id = 0;
  ULONG skipped = 0;
  HRESULT hr = S_OK;
  while (skipped < count && advance(id, hr)) ++skipped;
  return hr != S_OK ? hr : skipped == count ? S_OK : S_FALSE;
}

HRESULT gxsEnum::Reset() {
  if (gxsGone(node_)) return STG_E_REVERTED;
  std::vector<uint32_t> ids;
  HRESULT hr = doc().children(node_.id, ids);
  if (hr != S_OK) return hr;
  ids_ = std::move(ids);
  listedAt_ = node_.context->generation();
  next_ = 0;
  started_ = false;
  return S_OK;
}

HRESULT gxsEnum::Clone(IEnumSTATSTG** copy) {
  if (copy == nullptr) return E_INVALIDARG;
  *copy = nullptr;
  if (gxsGone(node_)) return STG_E_REVERTED;
  gxsEnum* e = new gxsEnum(node_.context, node_.parent);
  e->ids_ = ids_;
  e->listedAt_ = listedAt_;
  e->next_ = next_;
  e->started_ = started_;
  e->lastId_ = lastId_;
  e->last_ = last_;
  *copy = e;
  return S_OK;
}
