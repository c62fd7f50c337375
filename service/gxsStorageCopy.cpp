// Copying elements between storages: CopyTo and MoveElementTo. The target
// may be any IStorage (a storage of this file or of another, or another
// implementation's), so the copy goes through its interface; the source is
// read from the file directly.
#include <vector>

#include "porting/gxdPorting.h"
#include "service/gxsStorage.h"

namespace {

// Targets are written only; a write-only target storage accepts these.
constexpr DWORD kTargetMode = STGM_WRITE | STGM_SHARE_EXCLUSIVE;
constexpr uint32_t kCopyChunk = 64 * 1024;

bool excluded(SNB names, const std::u16string& name) {
  if (names == nullptr) return false;
  for (SNB p = names; *p != nullptr; ++p) {
    std::u16string n;
    for (const OLECHAR* c = *p; *c != 0; ++c)
      n.push_back(static_cast<char16_t>(*c));
    if (pdCompareNoCase(n.data(), n.size(), name.data(), name.size()) == 0)
      return true;
  }
  return false;
}

// Creates stream `name` in `target` (replacing one of that name when
// `replace`) and copies the data of stream `id` into it. The target is
// sized first, so that it grows (and leaves the mini stream) only once.
HRESULT copyStream(gxsDocFile& doc, uint32_t id, IStorage* target,
                   const std::u16string& name, bool replace, bool& created) {
  IStream* stream = nullptr;
  HRESULT hr = target->CreateStream(gxsUnits(name).data(),
                                    kTargetMode | (replace ? STGM_CREATE : 0),
                                    0, 0, &stream);
  created = hr == S_OK;
  if (hr != S_OK) return hr;
  ULARGE_INTEGER size;
  size.QuadPart = doc.entry(id).streamSize;
  hr = stream->SetSize(size);
  std::vector<uint8_t> buffer(kCopyChunk);
  for (uint64_t offset = 0; hr == S_OK;) {
    uint32_t got = 0;
    hr = doc.readStream(id, offset, buffer.data(), kCopyChunk, got);
    if (hr != S_OK || got == 0) break;
    ULONG written = 0;
    hr = stream->Write(buffer.data(), got, &written);
    if (hr == S_OK && written != got) hr = STG_E_WRITEFAULT;
    offset += got;
  }
  stream->Release();
  return hr;
}

// Opens storage `name` in `target` to merge into it (when `merge`), else
// creates it (replacing a stream of that name when `merge`), and gives it
// the class id and state bits of storage `id`.
HRESULT openTarget(gxsDocFile& doc, uint32_t id, IStorage* target,
                   const std::u16string& name, bool merge, IStorage*& sub,
                   bool& created) {
  created = false;
  const std::vector<OLECHAR> units = gxsUnits(name);
  HRESULT hr = merge ? target->OpenStorage(units.data(), nullptr, kTargetMode,
                                           nullptr, 0, &sub)
                     : STG_E_FILENOTFOUND;
  if (hr == STG_E_FILENOTFOUND) {
    hr = target->CreateStorage(
        units.data(), kTargetMode | (merge ? STGM_CREATE : 0), 0, 0, &sub);
    created = hr == S_OK;
  }
  if (hr != S_OK) return hr;
  STATSTG info;
  hr = gxsFillStat(doc.entry(id), nullptr, 0, info);
  if (hr == S_OK) hr = sub->SetClass(info.clsid);
  if (hr == S_OK) hr = sub->SetStateBits(info.grfStateBits, ~0u);
  if (hr != S_OK) sub->Release(), sub = nullptr;
  return hr;
}

}  // namespace

HRESULT gxsStorage::copyTree(uint32_t from, IStorage* target, bool streams,
                             bool storages, SNB excludeNames) {
  // One frame per storage being copied, so that the depth of the file's
  // tree never becomes depth of the call stack.
  struct Frame {
    uint32_t source;
    IStorage* target;  // owned, except the first frame's
    std::vector<uint32_t> ids;
    size_t next = 0;
  };
  std::vector<Frame> stack(1);
  stack[0].source = from;
  stack[0].target = target;
  HRESULT hr = doc().children(from, stack[0].ids);
  while (hr == S_OK && !stack.empty()) {
    if (gxsGone(node_)) {
      hr = STG_E_REVERTED;  // the copy replaced an element it was reading
      break;
    }
    Frame& f = stack.back();
    if (f.next == f.ids.size()) {
      if (stack.size() > 1) f.target->Release();
      stack.pop_back();
      continue;
    }
    const bool top = stack.size() == 1;
    const uint32_t id = f.ids[f.next++];
    const std::u16string name = doc().entry(id).name();
    const bool stream = doc().entry(id).objectType == kObjStream;
    if (top && (excluded(excludeNames, name) || !(stream ? streams : storages)))
      continue;
    bool created = false;
    if (stream) {
      hr = copyStream(doc(), id, f.target, name, true, created);
      continue;
    }
    for (const Frame& up : stack)
      if (up.source == id) hr = STG_E_DOCFILECORRUPT;  // a storage in itself
    Frame next;
    next.source = id;
    if (hr == S_OK)
      hr = openTarget(doc(), id, f.target, name, true, next.target, created);
    if (hr == S_OK) {
      hr = doc().children(id, next.ids);
      stack.push_back(std::move(next));
    }
  }
  for (size_t i = 1; i < stack.size(); ++i) stack[i].target->Release();
  return hr;
}

HRESULT gxsStorage::copyElement(uint32_t id, IStorage* target,
                                const std::u16string& name, bool& created) {
  if (doc().entry(id).objectType == kObjStream)
    return copyStream(doc(), id, target, name, false, created);
  IStorage* sub = nullptr;
  HRESULT hr = openTarget(doc(), id, target, name, false, sub, created);
  if (hr != S_OK) return hr;
  hr = copyTree(id, sub, true, true, nullptr);
  sub->Release();
  return hr;
}

HRESULT gxsStorage::CopyTo(DWORD excludeCount, const IID* exclude,
                           SNB excludeNames, IStorage* target) {
  if (target == nullptr || (excludeCount != 0 && exclude == nullptr))
    return STG_E_INVALIDPOINTER;
  if (gone()) return STG_E_REVERTED;
  if (!gxsCanRead(mode_)) return STG_E_ACCESSDENIED;
  bool streams = true, storages = true;
  for (DWORD i = 0; i < excludeCount; ++i) {
    if (IsEqualGUID(exclude[i], IID_IStream)) streams = false;
    if (IsEqualGUID(exclude[i], IID_IStorage)) storages = false;
  }
  // Copying into itself, or into a storage below it, would never end.
  if (holds(target, node_.id)) return STG_E_ACCESSDENIED;
  STATSTG info;
  HRESULT hr = gxsFillStat(doc().entry(node_.id), nullptr, 0, info);
  if (hr == S_OK) hr = target->SetClass(info.clsid);
  if (hr == S_OK) hr = target->SetStateBits(info.grfStateBits, ~0u);
  if (hr == S_OK)
    hr = copyTree(node_.id, target, streams, storages, excludeNames);
  return hr;
}

HRESULT gxsStorage::MoveElementTo(const OLECHAR* name, IStorage* target,
                                  const OLECHAR* newName, DWORD flags) {
  if (name == nullptr || target == nullptr || newName == nullptr)
    return STG_E_INVALIDPOINTER;
  if (gone()) return STG_E_REVERTED;
  if (flags != STGMOVE_MOVE && flags != STGMOVE_COPY) return STG_E_INVALIDFLAG;
  const bool move = flags == STGMOVE_MOVE;
  std::u16string from, to;
  uint32_t id = 0;
  HRESULT hr = gxsReadName(name, from);
  if (hr == S_OK) hr = gxsReadNewName(newName, to);
  if (hr == S_OK && (!gxsCanRead(mode_) || (move && !gxsCanWrite(mode_))))
    hr = STG_E_ACCESSDENIED;
  if (hr == S_OK) hr = doc().find(node_.id, from, id);
  if (hr != S_OK) return hr;
  if (move && node_.context->isOpen(id)) return STG_E_ACCESSDENIED;
  // Into itself or below itself.
  if (doc().entry(id).objectType != kObjStream && holds(target, id))
    return STG_E_ACCESSDENIED;
  // Moving within this storage is renaming.
  if (move && ours(target) == this) return RenameElement(name, newName);
  bool created = false;
  hr = copyElement(id, target, to, created);
  if (hr != S_OK) {
    // Leave no half copy behind.
    if (created) target->DestroyElement(gxsUnits(to).data());
    return hr;
  }
  if (!move) return S_OK;
  return node_.context->finish(removeChild(id));
}
