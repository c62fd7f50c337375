// The platform service on hosts that have none: the library's own
// read-write service (service/), and the few COM helpers its objects use.
#include <cstdlib>
#include <cstring>

#include "platform/gxPlatform.h"
#include "service/gxsService.h"

// Interface identifiers, with the values the platform documents.
const IID IID_IUnknown = {0x00000000,
                          0x0000,
                          0x0000,
                          {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const IID IID_ISequentialStream = {
    0x0c733a30,
    0x2a1c,
    0x11ce,
    {0xad, 0xe5, 0x00, 0xaa, 0x00, 0x44, 0x77, 0x3d}};
const IID IID_IStream = {0x0000000c,
                         0x0000,
                         0x0000,
                         {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const IID IID_IStorage = {0x0000000b,
                          0x0000,
                          0x0000,
                          {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const IID IID_IEnumSTATSTG = {0x0000000d,
                              0x0000,
                              0x0000,
                              {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

bool IsEqualGUID(const GUID& a, const GUID& b) {
  return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
         std::memcmp(a.Data4, b.Data4, sizeof(a.Data4)) == 0;
}

HRESULT StgOpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode,
                       SNB exclude, DWORD reserved, IStorage** storage) {
  return gxsStgOpenStorage(name, priority, mode, exclude, reserved, storage);
}

HRESULT StgCreateDocfile(const OLECHAR* name, DWORD mode, DWORD reserved,
                         IStorage** storage) {
  return gxsStgCreateDocfile(name, mode, reserved, storage);
}

HRESULT StgIsStorageFile(const OLECHAR* name) {
  return gxsStgIsStorageFile(name);
}

void* CoTaskMemAlloc(size_t size) { return std::malloc(size); }

void CoTaskMemFree(void* memory) { std::free(memory); }
