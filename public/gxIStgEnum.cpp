#include <memory>

#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "public/gxPlatformRecord.h"

gxIStgEnum::gxIStgEnum(IEnumSTATSTG* enumerator) : enumerator_(enumerator) {
  enumerator_->AddRef();
}

gxIStgEnum::~gxIStgEnum() {
  for (CGxAbsStgEnum* c : clones_) delete c;
  enumerator_->Release();
}

bool gxIStgEnum::next(unsigned int count, gxdsSTATSTG* records,
                      uint32_t* fetched) {
  if (fetched != nullptr) *fetched = 0;
  if (count == 0) return false;
  std::unique_ptr<STATSTG[]> batch(new STATSTG[count]());
  ULONG got = 0;
  const bool ok = enumerator_->Next(count, batch.get(), &got) == S_OK;
  if (fetched != nullptr) *fetched = got;
  if (ok) {
    for (unsigned int i = 0; i < count; ++i)
      gxTakePlatformRecord(batch[i], &records[i]);
  } else {
    // A short batch fills no record, but the names the platform allocated
    // for the elements it did fetch are freed all the same.
    for (ULONG i = 0; i < got && i < count; ++i)
      gxFreePlatformName(batch[i]);
  }
  return ok;
}

bool gxIStgEnum::skip(unsigned int count) {
  return enumerator_->Skip(count) == S_OK;
}

void gxIStgEnum::reset() { enumerator_->Reset(); }

bool gxIStgEnum::clone(CGxAbsStgEnum** copy) {
  *copy = nullptr;
  IEnumSTATSTG* other = nullptr;
  if (enumerator_->Clone(&other) != S_OK || other == nullptr) return false;
  gxIStgEnum* adapter = new gxIStgEnum(other);
  other->Release();
  clones_.push_back(adapter);
  *copy = adapter;
  return true;
}
