// The children of a storage form a red-black tree of directory entries
// ordered as the platform orders names: shorter first, then unit by unit
// after folding to upper case. Trees written by other programs may be out of
// order, unbalanced or hold names that differ only in case; such a tree is
// searched linearly and rebuilt (balanced, in order) before it is changed.
// Nothing here recurses on anything a file controls.
#include <algorithm>

#include "porting/gxdPorting.h"
#include "service/gxsDocFile.h"

namespace {

constexpr uint8_t kRed = 0;
constexpr uint8_t kBlack = 1;

// treeState_ bits, per storage.
constexpr uint8_t kKnown = 1;     // the other bits are computed
constexpr uint8_t kOrdered = 2;   // strictly ordered: search by comparison
constexpr uint8_t kBalanced = 4;  // a valid red-black tree (ties allowed)

int compareKeys(const char16_t* a, size_t an, const char16_t* b, size_t bn) {
  if (an != bn) return an < bn ? -1 : 1;
  for (size_t i = 0; i < an; ++i) {
    char16_t x = pdFoldUpper(a[i]), y = pdFoldUpper(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

size_t nameUnits(const gxdDirRecord& r) {
  size_t n = 0;
  while (n < kNameFieldUnits && r.entryName[n] != 0) ++n;
  return n;
}

}  // namespace

int gxsDocFile::compareNames(const std::u16string& a, uint32_t id) const {
  const gxdDirRecord& r = entries_[id];
  return compareKeys(a.data(), a.size(), r.entryName, nameUnits(r));
}

void gxsDocFile::touchEntry(uint32_t id) {
  dirDirty_[id / (sectorSize() / kDirRecordSize)] = true;
  changed_ = true;
}

HRESULT gxsDocFile::collectChildren(uint32_t parent,
                                    std::vector<uint32_t>& ids) const {
  ids.clear();
  std::vector<uint32_t> stack;
  uint32_t node = entries_[parent].child;
  while (node != kNoStream || !stack.empty()) {
    while (node != kNoStream) {
      if (node >= entries_.size() || stack.size() > entries_.size())
        return STG_E_DOCFILECORRUPT;
      stack.push_back(node);
      node = entries_[node].leftSibling;
    }
    node = stack.back();
    stack.pop_back();
    ids.push_back(node);
    if (ids.size() > entries_.size()) return STG_E_DOCFILECORRUPT;
    node = entries_[node].rightSibling;
  }
  return S_OK;
}

HRESULT gxsDocFile::children(uint32_t parent, std::vector<uint32_t>& ids) {
  if (parent >= entries_.size()) return STG_E_INVALIDPARAMETER;
  HRESULT hr = collectChildren(parent, ids);
  return hr == S_OK ? S_OK : fail(hr);
}

// Works out, once per storage, whether its tree may be searched by
// comparison and changed in place.
HRESULT gxsDocFile::prepareTree(uint32_t parent) {
  if (treeState_[parent] & kKnown) return S_OK;
  std::vector<uint32_t> ids;
  HRESULT hr = collectChildren(parent, ids);
  if (hr != S_OK) return fail(hr);
  uint8_t state = kKnown | kOrdered | kBalanced;
  for (size_t i = 1; i < ids.size(); ++i) {
    const gxdDirRecord& r = entries_[ids[i - 1]];
    int c = compareKeys(r.entryName, nameUnits(r), entries_[ids[i]].entryName,
                        nameUnits(entries_[ids[i]]));
    if (c >= 0) state &= static_cast<uint8_t>(~kOrdered);
    if (c > 0) state &= static_cast<uint8_t>(~kBalanced);
  }
  // Red-black rules: black root, no red child of a red node, the same
  // number of black nodes on every path. Checked bottom-up over the in-order
  // list with an explicit stack of (node, phase).
  uint32_t root = entries_[parent].child;
  if ((state & kBalanced) && root != kNoStream) {
    if (entries_[root].colour != kBlack) state &= static_cast<uint8_t>(~kBalanced);
    std::vector<std::pair<uint32_t, int>> stack = {{root, 0}};
    std::vector<int> heights;  // black heights of finished subtrees
    while (!stack.empty() && (state & kBalanced)) {
      auto& [node, phase] = stack.back();
      const gxdDirRecord& r = entries_[node];
      if (phase < 2) {
        uint32_t next = phase == 0 ? r.leftSibling : r.rightSibling;
        ++phase;
        if (next == kNoStream) {
          heights.push_back(0);
        } else {
          if (r.colour == kRed && entries_[next].colour == kRed)
            state &= static_cast<uint8_t>(~kBalanced);
          stack.push_back({next, 0});
        }
        continue;
      }
      int right = heights.back();
      heights.pop_back();
      int left = heights.back();
      heights.pop_back();
      if (left != right) state &= static_cast<uint8_t>(~kBalanced);
      heights.push_back(left + (r.colour == kBlack ? 1 : 0));
      stack.pop_back();
    }
  }
  treeState_[parent] = state;
  return S_OK;
}

HRESULT gxsDocFile::find(uint32_t parent, const std::u16string& name,
                         uint32_t& id) {
  if (parent >= entries_.size()) return STG_E_INVALIDPARAMETER;
  HRESULT hr = prepareTree(parent);
  if (hr != S_OK) return hr;
  if (treeState_[parent] & kOrdered) {
    uint32_t node = entries_[parent].child;
    while (node != kNoStream) {
      int c = compareNames(name, node);
      if (c == 0) {
        id = node;
        return S_OK;
      }
      node = c < 0 ? entries_[node].leftSibling : entries_[node].rightSibling;
    }
    return STG_E_FILENOTFOUND;
  }
  std::vector<uint32_t> ids;
  if ((hr = collectChildren(parent, ids)) != S_OK) return fail(hr);
  uint32_t folded = kNoStream;
  for (uint32_t c : ids) {
    if (entries_[c].name() == name) {
      id = c;
      return S_OK;
    }
    if (folded == kNoStream && compareNames(name, c) == 0) folded = c;
  }
  if (folded == kNoStream) return STG_E_FILENOTFOUND;
  id = folded;
  return S_OK;
}

// Rebuilds the children of `parent` as a balanced tree from `ids` sorted by
// name: each subtree's root is its middle element; nodes on the deepest
// level are red when that level is not full, all others black, which keeps
// every path's black count equal.
void gxsDocFile::rebuildTree(uint32_t parent, std::vector<uint32_t> ids) {
  std::stable_sort(ids.begin(), ids.end(), [&](uint32_t a, uint32_t b) {
    const gxdDirRecord& x = entries_[a];
    const gxdDirRecord& y = entries_[b];
    return compareKeys(x.entryName, nameUnits(x), y.entryName, nameUnits(y)) < 0;
  });
  struct Range {
    size_t begin, end;
    uint32_t* link;
    int depth;
  };
  std::vector<std::pair<uint32_t, int>> depths;
  std::vector<Range> work = {{0, ids.size(), &entries_[parent].child, 0}};
  int deepest = -1;
  while (!work.empty()) {
    Range r = work.back();
    work.pop_back();
    if (r.begin >= r.end) {
      *r.link = kNoStream;
      continue;
    }
    size_t mid = r.begin + (r.end - r.begin) / 2;
    uint32_t node = ids[mid];
    *r.link = node;
    touchEntry(node);
    depths.push_back({node, r.depth});
    deepest = std::max(deepest, r.depth);
    work.push_back({r.begin, mid, &entries_[node].leftSibling, r.depth + 1});
    work.push_back({mid + 1, r.end, &entries_[node].rightSibling, r.depth + 1});
  }
  size_t full = deepest < 0 ? 0 : (size_t{1} << (deepest + 1)) - 1;
  for (auto& [node, depth] : depths)
    entries_[node].colour =
        depth == deepest && ids.size() != full ? kRed : kBlack;
  touchEntry(parent);
  treeState_[parent] = kKnown | kBalanced;
  for (size_t i = 1; i < ids.size(); ++i)
    if (compareNames(entries_[ids[i - 1]].name(), ids[i]) == 0) return;
  treeState_[parent] |= kOrdered;
}

HRESULT gxsDocFile::prepareChange(uint32_t parent) {
  HRESULT hr = prepareTree(parent);
  if (hr != S_OK) return hr;
  if (treeState_[parent] & kBalanced) return S_OK;
  std::vector<uint32_t> ids;
  if ((hr = collectChildren(parent, ids)) != S_OK) return fail(hr);
  rebuildTree(parent, std::move(ids));
  return S_OK;
}
