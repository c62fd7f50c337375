// Adding, removing and renaming directory entries, and the fields of an
// entry that do not touch the tree.
#include <cstring>

#include "service/gxsDocFile.h"

HRESULT gxsDocFile::checkWritable() const {
  if (corrupt_) return STG_E_DOCFILECORRUPT;
  if (!writable_) return STG_E_ACCESSDENIED;
  return S_OK;
}

// A free entry (lowest first), or a new directory sector's first one.
HRESULT gxsDocFile::allocateEntry(uint32_t& id) {
  for (uint32_t i = entryFreeHint_; i < entries_.size(); ++i)
    if (entries_[i].objectType == kObjUnused && i != kRootId) {
      entryFreeHint_ = i + 1;
      id = i;
      return S_OK;
    }
  const uint32_t perSector = sectorSize() / kDirRecordSize;
  if (entries_.size() + perSector >= kMaxRegSect) return STG_E_MEDIUMFULL;
  uint32_t head = header_.firstDirectorySector;
  HRESULT hr = extendChain(dirChain_, 1, head);
  if (hr != S_OK) return hr;
  id = static_cast<uint32_t>(entries_.size());
  gxdDirRecord unused;
  unused.leftSibling = unused.rightSibling = unused.child = kNoStream;
  entries_.resize(entries_.size() + perSector, unused);
  parentOf_.resize(entries_.size(), kNoStream);
  treeState_.resize(entries_.size(), 0);
  dirDirty_.push_back(true);
  if (header_.majorVersion == 4) {
    header_.numDirectorySectors = static_cast<uint32_t>(dirChain_.size());
    headerDirty_ = true;
  }
  entryFreeHint_ = id + 1;
  return S_OK;
}

HRESULT gxsDocFile::addEntry(uint32_t parent, const std::u16string& name,
                             uint8_t type, uint32_t& id) {
  HRESULT hr = checkWritable();
  if (hr == S_OK) hr = prepareChange(parent);
  if (hr == S_OK) hr = allocateEntry(id);
  if (hr != S_OK) return hr;
  gxdDirRecord& r = entries_[id];
  r = gxdDirRecord();
  r.setName(name);
  r.objectType = type;
  r.leftSibling = r.rightSibling = r.child = kNoStream;
  if (type == kObjStream) {
    r.startSector = kEndOfChain;
  } else {
    r.creationTime = r.modifiedTime = gxsNow();
  }
  parentOf_[id] = parent;
  treeState_[id] = 0;
  insertNode(parent, id);
  return S_OK;
}

HRESULT gxsDocFile::removeEntry(uint32_t parent, uint32_t id,
                                std::vector<uint32_t>& removed) {
  HRESULT hr = checkWritable();
  if (hr == S_OK) hr = prepareChange(parent);
  if (hr != S_OK) return hr;
  eraseNode(parent, id);
  // Everything below id: the nodes reachable through its child link and
  // the sibling and child links of the trees that leads to.
  std::vector<uint32_t> stack = {id};
  while (!stack.empty()) {
    uint32_t x = stack.back();
    stack.pop_back();
    if (removed.size() > entries_.size()) return fail(STG_E_DOCFILECORRUPT);
    removed.push_back(x);
    const gxdDirRecord& r = entries_[x];
    // A stream's child link means nothing and is not followed.
    uint32_t child = r.objectType == kObjStorage ? r.child : kNoStream;
    for (uint32_t next : {r.leftSibling, r.rightSibling, child})
      if (next != kNoStream && (x != id || next == child)) {
        if (next >= entries_.size()) return fail(STG_E_DOCFILECORRUPT);
        stack.push_back(next);
      }
  }
  for (uint32_t x : removed) {
    if (entries_[x].objectType == kObjStream &&
        (hr = freeStreamData(x)) != S_OK)
      return hr;
    gxdDirRecord& r = entries_[x];
    r = gxdDirRecord();
    r.leftSibling = r.rightSibling = r.child = kNoStream;
    touchEntry(x);
    chains_.erase(x);
    parentOf_[x] = kNoStream;
    treeState_[x] = 0;
    if (x < entryFreeHint_) entryFreeHint_ = x;
  }
  return S_OK;
}

HRESULT gxsDocFile::renameEntry(uint32_t parent, uint32_t id,
                                const std::u16string& newName) {
  HRESULT hr = checkWritable();
  if (hr == S_OK) hr = prepareChange(parent);
  if (hr != S_OK) return hr;
  eraseNode(parent, id);
  entries_[id].setName(newName);
  insertNode(parent, id);
  return S_OK;
}

HRESULT gxsDocFile::setEntryTimes(uint32_t id, const FILETIME* created,
                                  const FILETIME* modified) {
  HRESULT hr = checkWritable();
  if (hr != S_OK) return hr;
  gxdDirRecord& r = entries_[id];
  auto value = [](const FILETIME* t) {
    return static_cast<uint64_t>(t->dwLowDateTime) |
           (static_cast<uint64_t>(t->dwHighDateTime) << 32);
  };
  if (created != nullptr) r.creationTime = value(created);
  if (modified != nullptr) r.modifiedTime = value(modified);
  touchEntry(id);
  return S_OK;
}

HRESULT gxsDocFile::setEntryClass(uint32_t id, const uint8_t clsid[16]) {
  HRESULT hr = checkWritable();
  if (hr != S_OK) return hr;
  std::memcpy(entries_[id].entryClsid, clsid, 16);
  touchEntry(id);
  return S_OK;
}

HRESULT gxsDocFile::setEntryStateBits(uint32_t id, uint32_t bits,
                                      uint32_t mask) {
  HRESULT hr = checkWritable();
  if (hr != S_OK) return hr;
  gxdDirRecord& r = entries_[id];
  r.stateBits = (r.stateBits & ~mask) | (bits & mask);
  touchEntry(id);
  return S_OK;
}
