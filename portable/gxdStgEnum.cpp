#include "portable/gxdStgEnum.h"

#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"

gxdStgEnum::gxdStgEnum(gxdStorage* storageIn)
    : storage(storageIn), cursor(0) {
  for (auto& child : storage->openStorages) {
    gxdsSTATSTG record;
    child.second->stat(&record);
    elements.push_back(record);
  }
  for (auto& child : storage->openStreams) {
    gxdsSTATSTG record;
    child.second->stat(&record);
    elements.push_back(record);
  }
}

gxdStgEnum::~gxdStgEnum() {
  for (gxdStgEnum* c : clones) delete c;
}

bool gxdStgEnum::next(unsigned int count, gxdsSTATSTG* records,
                      uint32_t* fetched) {
  if (fetched != nullptr) *fetched = 0;
  if (cursor >= elements.size()) return false;
  uint32_t i = 0;
  while (i < count && cursor < elements.size()) {
    records[i] = elements[static_cast<size_t>(cursor)];
    ++i;
    ++cursor;
  }
  if (fetched != nullptr) *fetched = i;
  return true;
}

bool gxdStgEnum::skip(unsigned int count) {
  if (cursor >= elements.size()) return false;
  if (cursor + count >= elements.size()) return false;
  cursor += count;
  return true;
}

bool gxdStgEnum::clone(CGxAbsStgEnum** copy) {
  gxdStgEnum* c = new gxdStgEnum(storage);
  c->cursor = cursor;
  clones.push_back(c);
  *copy = c;
  return true;
}
