#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "portable/gxdInterfaces.h"
#include "porting/gxdPorting.h"
#include "public/gxPlatformRecord.h"

namespace {
constexpr DWORD kOpenStorageMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kCreateStorageMode =
    STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE;
constexpr DWORD kOpenStreamMode = STGM_SHARE_EXCLUSIVE | STGM_READ;
constexpr DWORD kCreateStreamMode =
    STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_WRITE;
}  // namespace

gxIStorage::gxIStorage(IStorage* storage, CGxAbsStorage* parent)
    : platformStorage_(storage), portableStorage_(nullptr), parent_(parent) {
  if (platformStorage_ != nullptr) platformStorage_->AddRef();
}

gxIStorage::gxIStorage(gxdIStorage* storage, CGxAbsStorage* parent)
    : platformStorage_(nullptr), portableStorage_(storage), parent_(parent) {
  if (portableStorage_ != nullptr) portableStorage_->addRef();
}

// Children go before this storage's own backend reference, so that every
// backend object below it has dropped its references first.
gxIStorage::~gxIStorage() {
  for (CGxAbsStgEnum* e : enumerators_) delete e;
  for (auto& child : childStorages_) delete child.second;
  for (auto& child : childStreams_) delete child.second;
  if (platformStorage_ != nullptr) platformStorage_->Release();
  if (portableStorage_ != nullptr) portableStorage_->release();
}

gxResult gxIStorage::openIStorage(const unsigned short* name, bool open,
                                  CGxAbsStorage** child) {
  *child = nullptr;
  const Name key = pdFromUnits(name);
  auto cached = childStorages_.find(key);
  if (cached != childStorages_.end()) {
    *child = cached->second;
    return GX_S_OK;
  }
  gxResult result = GX_E_FAIL;
  if (platformStorage_ != nullptr) {
    std::vector<OLECHAR> platformName = gxPlatformName(name);
    IStorage* storage = nullptr;
    if (open) {
      result = platformStorage_->OpenStorage(platformName.data(), nullptr,
                                             kOpenStorageMode, nullptr, 0,
                                             &storage);
    } else {
      result = platformStorage_->CreateStorage(
          platformName.data(), kCreateStorageMode, 0, 0, &storage);
    }
    if (result >= 0 && storage != nullptr) {
      gxIStorage* adapter = new gxIStorage(storage, this);
      *child = adapter;
      childStorages_[key] = adapter;
      storage->Release();
    } else if (storage != nullptr) {
      storage->Release();
    }
    return result;
  }
  if (portableStorage_ == nullptr) return result;
  gxdIStorage* storage = nullptr;
  result = open ? portableStorage_->openStorage(key.c_str(), &storage)
                : portableStorage_->createStorage(key.c_str(), &storage);
  if (result == 0 && storage != nullptr) {
    gxIStorage* adapter = new gxIStorage(storage, this);
    *child = adapter;
    childStorages_[key] = adapter;
    storage->release();
  }
  return result;
}

gxResult gxIStorage::openIStream(const unsigned short* name, bool open,
                                 CGxAbsStream** stream) {
  *stream = nullptr;
  const Name key = pdFromUnits(name);
  auto cached = childStreams_.find(key);
  if (cached != childStreams_.end()) {
    *stream = cached->second;
    return GX_S_OK;
  }
  gxResult result = GX_E_FAIL;
  if (platformStorage_ != nullptr) {
    std::vector<OLECHAR> platformName = gxPlatformName(name);
    IStream* platformStream = nullptr;
    if (open) {
      result = platformStorage_->OpenStream(platformName.data(), nullptr,
                                            kOpenStreamMode, 0,
                                            &platformStream);
    } else {
      result = platformStorage_->CreateStream(
          platformName.data(), kCreateStreamMode, 0, 0, &platformStream);
    }
    if (result >= 0 && platformStream != nullptr) {
      gxIStream* adapter = new gxIStream(platformStream);
      *stream = adapter;
      childStreams_[key] = adapter;
      platformStream->Release();
    } else if (platformStream != nullptr) {
      platformStream->Release();
    }
    return result;
  }
  if (portableStorage_ == nullptr) return result;
  gxdIStream* portableStream = nullptr;
  result = open ? portableStorage_->openStream(key.c_str(), &portableStream)
                : portableStorage_->createStream(key.c_str(), &portableStream);
  if (result == 0 && portableStream != nullptr) {
    gxIStream* adapter = new gxIStream(portableStream);
    *stream = adapter;
    childStreams_[key] = adapter;
    portableStream->release();
  }
  return result;
}

bool gxIStorage::stat(gxdsSTATSTG* info) {
  if (platformStorage_ != nullptr) {
    STATSTG record = {};
    if (platformStorage_->Stat(&record, STATFLAG_DEFAULT) != S_OK)
      return false;
    gxTakePlatformRecord(record, info);
    return true;
  }
  return portableStorage_ != nullptr && portableStorage_->stat(info) == 0;
}

bool gxIStorage::enumElements(CGxAbsStgEnum** enumerator) {
  *enumerator = nullptr;
  if (platformStorage_ != nullptr) {
    IEnumSTATSTG* platformEnum = nullptr;
    platformStorage_->EnumElements(0, nullptr, 0, &platformEnum);
    if (platformEnum != nullptr) {
      gxIStgEnum* adapter = new gxIStgEnum(platformEnum);
      platformEnum->Release();
      enumerators_.push_back(adapter);
      *enumerator = adapter;
    }
  } else if (portableStorage_ != nullptr) {
    // The portable enumerator belongs to the portable storage.
    portableStorage_->enumElements(enumerator);
  }
  return *enumerator != nullptr;
}

void gxIStorage::commit() {
  if (parent_ == nullptr && portableStorage_ != nullptr)
    portableStorage_->commit();
}

bool gxIStorage::release() {
  if (parent_ != nullptr) return false;
  delete this;
  return true;
}
