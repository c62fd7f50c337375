// The exported entry functions: open, create and close a file on either
// backend, and the storage-file probe.
#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "portable/gxdInterfaces.h"
#include "porting/gxdPorting.h"

namespace {

// Wraps what a backend handed out in a root adapter; the adapter takes its
// own reference and the one handed over is given back.
template <typename Backend>
void wrapRoot(Backend* backend, CGxAbsStorage** storage);

template <>
void wrapRoot(gxdIStorage* backend, CGxAbsStorage** storage) {
  *storage = new gxIStorage(backend, nullptr);
  backend->release();
}

template <>
void wrapRoot(IStorage* backend, CGxAbsStorage** storage) {
  *storage = new gxIStorage(backend, nullptr);
  backend->Release();
}

}  // namespace

gxResult gxStgOpenStorage(const unsigned short* path, unsigned int mode,
                          CGxAbsStorage** storage, bool portable) {
  *storage = nullptr;
  if (portable) {
    gxdIStorage* root = nullptr;
    gxResult result = gxdStgOpenStorage(pdFromUnits(path).c_str(), mode, &root);
    if (root != nullptr) wrapRoot(root, storage);
    return result;
  }
  std::vector<OLECHAR> name = gxPlatformName(path);
  IStorage* root = nullptr;
  gxResult result = StgOpenStorage(name.data(), nullptr, mode, nullptr, 0, &root);
  if (root != nullptr) wrapRoot(root, storage);
  return result;
}

gxResult gxStgCreateStorage(const unsigned short* path, unsigned int mode,
                            CGxAbsStorage** storage, bool portable) {
  *storage = nullptr;
  if (portable) {
    gxdIStorage* root = nullptr;
    gxResult result =
        gxdStgCreateStorage(pdFromUnits(path).c_str(), mode, &root);
    if (root != nullptr) wrapRoot(root, storage);
    return result;
  }
  std::vector<OLECHAR> name = gxPlatformName(path);
  IStorage* root = nullptr;
  gxResult result = StgCreateDocfile(name.data(), mode, 0, &root);
  if (root != nullptr) wrapRoot(root, storage);
  return result;
}

void gxStgCloseStorage(CGxAbsStorage* storage) { delete storage; }

gxResult gxStgIsStorageFile(const unsigned short* path, bool /*portable*/) {
  if (gxdStgIsStorageFile(pdFromUnits(path).c_str()) == GX_S_OK) return GX_S_OK;
  std::vector<OLECHAR> name = gxPlatformName(path);
  return StgIsStorageFile(name.data());
}
