// Insertion into and removal from a storage's red-black tree of children.
// Entries have no parent links, so each operation keeps the path from the
// tree's root down to where it works; entry ids never move (open objects
// refer to them), so removal relinks nodes instead of swapping contents.
#include <algorithm>

#include "service/gxsDocFile.h"

namespace {
constexpr uint8_t kRed = 0;
constexpr uint8_t kBlack = 1;
}  // namespace

// The link that points at path[i]: the storage's child field for the tree's
// root, else the left or right field of path[i - 1]. Marks its owner dirty.
uint32_t& gxsDocFile::linkTo(uint32_t parent, const std::vector<uint32_t>& path,
                             size_t i) {
  if (i == 0) {
    touchEntry(parent);
    return entries_[parent].child;
  }
  gxdDirRecord& up = entries_[path[i - 1]];
  touchEntry(path[i - 1]);
  return up.leftSibling == path[i] ? up.leftSibling : up.rightSibling;
}

// Turns the edge between x and its child on side `toRight` ? left : right
// so that the child takes x's place; `link` is the field pointing at x.
void gxsDocFile::rotate(uint32_t x, bool toRight, uint32_t& link) {
  gxdDirRecord& rx = entries_[x];
  uint32_t y = toRight ? rx.leftSibling : rx.rightSibling;
  gxdDirRecord& ry = entries_[y];
  if (toRight) {
    rx.leftSibling = ry.rightSibling;
    ry.rightSibling = x;
  } else {
    rx.rightSibling = ry.leftSibling;
    ry.leftSibling = x;
  }
  link = y;
  touchEntry(x);
  touchEntry(y);
}

uint8_t gxsDocFile::colourOf(uint32_t id) const {
  return id == kNoStream ? kBlack : entries_[id].colour;
}

void gxsDocFile::paint(uint32_t id, uint8_t colour) {
  if (id == kNoStream || entries_[id].colour == colour) return;
  entries_[id].colour = colour;
  touchEntry(id);
}

void gxsDocFile::insertNode(uint32_t parent, uint32_t id) {
  gxdDirRecord& r = entries_[id];
  r.leftSibling = r.rightSibling = kNoStream;
  r.colour = kRed;
  touchEntry(id);
  const std::u16string name = r.name();
  std::vector<uint32_t> path;
  uint32_t node = entries_[parent].child;
  int c = 0;
  while (node != kNoStream) {
    path.push_back(node);
    c = compareNames(name, node);
    node = c < 0 ? entries_[node].leftSibling : entries_[node].rightSibling;
  }
  if (path.empty()) {
    entries_[parent].child = id;
    touchEntry(parent);
  } else {
    (c < 0 ? entries_[path.back()].leftSibling
           : entries_[path.back()].rightSibling) = id;
    touchEntry(path.back());
  }
  path.push_back(id);
  size_t k = path.size() - 1;  // index of the red node being fixed
  while (k >= 2 && colourOf(path[k - 1]) == kRed) {
    uint32_t p = path[k - 1], g = path[k - 2];
    bool parentLeft = entries_[g].leftSibling == p;
    uint32_t uncle = parentLeft ? entries_[g].rightSibling : entries_[g].leftSibling;
    if (colourOf(uncle) == kRed) {
      paint(p, kBlack);
      paint(uncle, kBlack);
      paint(g, kRed);
      k -= 2;
      continue;
    }
    if ((entries_[p].leftSibling == path[k]) != parentLeft) {
      rotate(p, !parentLeft, linkTo(parent, path, k - 1));
      std::swap(path[k - 1], path[k]);
      p = path[k - 1];
    }
    rotate(g, parentLeft, linkTo(parent, path, k - 2));
    paint(p, kBlack);
    paint(g, kRed);
    break;
  }
  paint(entries_[parent].child, kBlack);
}

// The path from the tree's root to `id`: by comparison when the tree is
// ordered, else by a walk over the whole tree.
bool gxsDocFile::pathTo(uint32_t parent, uint32_t id,
                        std::vector<uint32_t>& path) {
  path.clear();
  const std::u16string name = entries_[id].name();
  for (uint32_t node = entries_[parent].child; node != kNoStream;) {
    path.push_back(node);
    if (node == id) return true;
    int c = compareNames(name, node);
    if (c == 0) break;
    node = c < 0 ? entries_[node].leftSibling : entries_[node].rightSibling;
  }
  std::vector<uint32_t> up(entries_.size(), kNoStream);
  std::vector<uint32_t> stack = {entries_[parent].child};
  while (!stack.empty()) {
    uint32_t node = stack.back();
    stack.pop_back();
    if (node == kNoStream) continue;
    if (node == id) {
      path.clear();
      for (uint32_t n = id; n != kNoStream; n = up[n]) path.push_back(n);
      std::reverse(path.begin(), path.end());
      return true;
    }
    for (uint32_t next : {entries_[node].leftSibling, entries_[node].rightSibling})
      if (next != kNoStream) {
        up[next] = node;
        stack.push_back(next);
      }
  }
  return false;
}

void gxsDocFile::eraseNode(uint32_t parent, uint32_t z) {
  std::vector<uint32_t> path;
  if (!pathTo(parent, z, path)) return;
  size_t k = path.size() - 1;
  if (entries_[z].leftSibling != kNoStream &&
      entries_[z].rightSibling != kNoStream) {
    // Put z's in-order successor y where z is, and z where y was.
    for (uint32_t n = entries_[z].rightSibling; n != kNoStream;
         n = entries_[n].leftSibling)
      path.push_back(n);
    size_t ky = path.size() - 1;
    uint32_t y = path[ky];
    uint32_t zl = entries_[z].leftSibling, zr = entries_[z].rightSibling;
    uint32_t yr = entries_[y].rightSibling;
    uint32_t& zLink = linkTo(parent, path, k);
    if (y == zr) {
      entries_[y].rightSibling = z;
    } else {
      entries_[path[ky - 1]].leftSibling = z;
      touchEntry(path[ky - 1]);
      entries_[y].rightSibling = zr;
    }
    entries_[y].leftSibling = zl;
    entries_[z].leftSibling = kNoStream;
    entries_[z].rightSibling = yr;
    zLink = y;
    std::swap(entries_[y].colour, entries_[z].colour);
    touchEntry(y);
    touchEntry(z);
    path[k] = y;
    path[ky] = z;
    k = ky;
  }
  uint32_t x = entries_[z].leftSibling != kNoStream ? entries_[z].leftSibling
                                                    : entries_[z].rightSibling;
  linkTo(parent, path, k) = x;
  bool removedBlack = entries_[z].colour == kBlack;
  entries_[z].leftSibling = entries_[z].rightSibling = kNoStream;
  touchEntry(z);
  path.pop_back();  // path now holds x's ancestors
  if (!removedBlack) return;
  // x carries an extra black; move it up until it can be absorbed.
  while (!path.empty() && colourOf(x) == kBlack) {
    uint32_t p = path.back();
    bool xLeft = entries_[p].leftSibling == x;
    uint32_t w = xLeft ? entries_[p].rightSibling : entries_[p].leftSibling;
    if (colourOf(w) == kRed) {
      paint(w, kBlack);
      paint(p, kRed);
      rotate(p, !xLeft, linkTo(parent, path, path.size() - 1));
      path.insert(path.end() - 1, w);
      w = xLeft ? entries_[p].rightSibling : entries_[p].leftSibling;
    }
    if (w == kNoStream) break;  // only in a tree that was not balanced
    uint32_t nearChild = xLeft ? entries_[w].leftSibling : entries_[w].rightSibling;
    uint32_t farChild = xLeft ? entries_[w].rightSibling : entries_[w].leftSibling;
    if (colourOf(nearChild) == kBlack && colourOf(farChild) == kBlack) {
      paint(w, kRed);
      x = p;
      path.pop_back();
      continue;
    }
    if (colourOf(farChild) == kBlack) {
      paint(nearChild, kBlack);
      paint(w, kRed);
      rotate(w, xLeft, xLeft ? entries_[p].rightSibling : entries_[p].leftSibling);
      touchEntry(p);
      w = xLeft ? entries_[p].rightSibling : entries_[p].leftSibling;
      farChild = xLeft ? entries_[w].rightSibling : entries_[w].leftSibling;
    }
    paint(w, entries_[p].colour);
    paint(p, kBlack);
    paint(farChild, kBlack);
    rotate(p, !xLeft, linkTo(parent, path, path.size() - 1));
    return;
  }
  paint(x, kBlack);
}
