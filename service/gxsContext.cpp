// The per-file context of the service's objects, and the helpers they share
// for names and STATSTG records.
#include "service/gxsContext.h"

#include <algorithm>
#include <cstring>

#include "porting/gxdFile.h"

gxsContext::gxsContext(std::unique_ptr<gxsDocFile> doc, std::u16string path,
                       std::u16string removePath)
    : doc_(std::move(doc)),
      path_(std::move(path)),
      removePath_(std::move(removePath)) {}

void gxsContext::enlist(gxsNode* node) {
  node->context = this;
  nodes_.push_back(node);
  ++refs_;
}

void gxsContext::delist(gxsNode* node) {
  if (!node->reverted) revertBelow(node);
  nodes_.erase(std::find(nodes_.begin(), nodes_.end(), node));
  dropChainIfUnused(node);
  if (--refs_ == 0) delete this;
}

bool gxsContext::isOpen(uint32_t id) const {
  for (const gxsNode* n : nodes_)
    if (!n->reverted && n->kind != gxsNode::kEnum && n->id == id) return true;
  return false;
}

void gxsContext::revertBelow(gxsNode* node) {
  std::vector<gxsNode*> pending;
  for (gxsNode* n : nodes_)
    if (n->parent == node) pending.push_back(n);
  revert(std::move(pending));
}

void gxsContext::revertElements(const std::vector<uint32_t>& ids) {
  std::vector<uint32_t> sorted(ids);
  std::sort(sorted.begin(), sorted.end());
  std::vector<gxsNode*> pending;
  for (gxsNode* n : nodes_)
    if (!n->reverted && std::binary_search(sorted.begin(), sorted.end(), n->id))
      pending.push_back(n);
  revert(std::move(pending));
}

// Reverts the nodes in `pending` and, with an explicit work list (objects
// can be nested as deep as the file's storages), everything opened through
// them.
void gxsContext::revert(std::vector<gxsNode*> pending) {
  while (!pending.empty()) {
    gxsNode* node = pending.back();
    pending.pop_back();
    if (node->reverted) continue;
    node->reverted = true;
    node->parent = nullptr;
    for (gxsNode* n : nodes_)
      if (n->parent == node) pending.push_back(n);
    dropChainIfUnused(node);
  }
}

void gxsContext::dropChainIfUnused(const gxsNode* node) {
  if (node->kind == gxsNode::kStream && doc_ && !isOpen(node->id))
    doc_->dropChain(node->id);
}

void gxsContext::closeFile() {
  std::vector<gxsNode*> pending;
  for (gxsNode* n : nodes_)
    if (n->parent != nullptr) pending.push_back(n);
  revert(std::move(pending));
  if (doc_) doc_->close();
  doc_.reset();  // releases the file and its lock
  if (!removePath_.empty()) pdRemoveFile(removePath_.c_str());
}

HRESULT gxsContext::finish(HRESULT hr) {
  ++generation_;
  if (!doc_) return hr;
  HRESULT flushed = doc_->flush();
  return hr != S_OK ? hr : flushed;
}

// ---- Names ---------------------------------------------------------------

HRESULT gxsReadName(const OLECHAR* name, std::u16string& out) {
  out.clear();
  if (name == nullptr) return STG_E_INVALIDNAME;
  for (size_t i = 0; name[i] != 0; ++i) {
    if (i == kMaxWrittenNameUnits) return STG_E_INVALIDNAME;
    out.push_back(static_cast<char16_t>(name[i]));
  }
  return out.empty() ? STG_E_INVALIDNAME : S_OK;
}

HRESULT gxsReadNewName(const OLECHAR* name, std::u16string& out) {
  HRESULT hr = gxsReadName(name, out);
  if (hr != S_OK) return hr;
  for (char16_t c : out)
    if (c == u'/' || c == u'\\' || c == u':' || c == u'!')
      return STG_E_INVALIDNAME;
  return S_OK;
}

std::vector<OLECHAR> gxsUnits(const std::u16string& name) {
  std::vector<OLECHAR> out(name.size() + 1, 0);
  for (size_t i = 0; i < name.size(); ++i)
    out[i] = static_cast<OLECHAR>(name[i]);
  return out;
}

OLECHAR* gxsTaskName(const std::u16string& name) {
  auto* out = static_cast<OLECHAR*>(
      CoTaskMemAlloc((name.size() + 1) * sizeof(OLECHAR)));
  if (out == nullptr) return nullptr;
  for (size_t i = 0; i < name.size(); ++i)
    out[i] = static_cast<OLECHAR>(name[i]);
  out[name.size()] = 0;
  return out;
}

// ---- STATSTG -------------------------------------------------------------

namespace {

FILETIME fileTime(uint64_t value) {
  FILETIME t;
  t.dwLowDateTime = static_cast<DWORD>(value);
  t.dwHighDateTime = static_cast<DWORD>(value >> 32);
  return t;
}

}  // namespace

HRESULT gxsFillStat(const gxdDirRecord& entry, const std::u16string* name,
                    DWORD mode, STATSTG& info) {
  std::memset(&info, 0, sizeof(info));
  if (name != nullptr && (info.pwcsName = gxsTaskName(*name)) == nullptr)
    return STG_E_INSUFFICIENTMEMORY;
  const bool stream = entry.objectType == kObjStream;
  info.type = stream ? STGTY_STREAM : STGTY_STORAGE;
  info.cbSize.QuadPart = stream ? entry.streamSize : 0;
  info.mtime = fileTime(entry.modifiedTime);
  info.ctime = fileTime(entry.creationTime);
  info.grfMode = mode;
  // The class id is stored as the platform lays out a GUID in memory:
  // Data1, Data2 and Data3 little-endian, then the 8 bytes of Data4.
  const uint8_t* c = entry.entryClsid;
  info.clsid.Data1 = loadU32(c);
  info.clsid.Data2 = loadU16(c + 4);
  info.clsid.Data3 = loadU16(c + 6);
  std::memcpy(info.clsid.Data4, c + 8, 8);
  info.grfStateBits = entry.stateBits;
  return S_OK;
}

void gxsClsidToBytes(const CLSID& clsid, uint8_t bytes[16]) {
  storeU32(bytes, clsid.Data1);
  storeU16(bytes + 4, clsid.Data2);
  storeU16(bytes + 6, clsid.Data3);
  std::memcpy(bytes + 8, clsid.Data4, 8);
}

bool gxsContext::outerGone() const {
  for (const gxsNode* o = outer_; o != nullptr; o = o->context->outer_)
    if (o->reverted) return true;
  return false;
}
