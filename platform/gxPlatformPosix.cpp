// The platform service on hosts that have none: open and create are not
// available; the probe looks at the signature the way the platform does.
#include <cstdlib>

#include "engine/gxdFormat.h"
#include "platform/gxPlatform.h"
#include "porting/gxdPorting.h"

HRESULT StgOpenStorage(const OLECHAR*, IStorage*, DWORD, SNB, DWORD,
                       IStorage** storage) {
  if (storage != nullptr) *storage = nullptr;
  return E_NOTIMPL;
}

HRESULT StgCreateDocfile(const OLECHAR*, DWORD, DWORD, IStorage** storage) {
  if (storage != nullptr) *storage = nullptr;
  return E_NOTIMPL;
}

HRESULT StgIsStorageFile(const OLECHAR* name) {
  std::u16string path = pdFromUnits(name);
  pdFileStream file;
  pdOpenFile(path.c_str(), kPdOpenRead, file);
  if (file.fail()) return STG_E_FILENOTFOUND;
  uint8_t signature[sizeof(kGxdSignature)] = {};
  file.read(reinterpret_cast<char*>(signature), sizeof(signature));
  if (!file) return S_FALSE;
  for (size_t i = 0; i < sizeof(signature); ++i)
    if (signature[i] != kGxdSignature[i]) return S_FALSE;
  return S_OK;
}

void* CoTaskMemAlloc(size_t size) { return std::malloc(size); }

void CoTaskMemFree(void* memory) { std::free(memory); }
