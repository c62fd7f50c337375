#include "portable/gxdStorage.h"

#include "portable/gxdStgEnum.h"
#include "portable/gxdStream.h"
#include "porting/gxdPorting.h"

gxResult gxdStgOpenStorage(const char16_t* path, uint32_t /*mode*/,
                           gxdIStorage** out) {
  gxdStorage* storage = new gxdStorage(path, true);
  if (storage->isFailed()) {
    delete storage;
    return GX_E_FAIL;
  }
  *out = storage;
  return GX_S_OK;
}

gxResult gxdStgCreateStorage(const char16_t* path, uint32_t /*mode*/,
                             gxdIStorage** out) {
  gxdStorage* storage = new gxdStorage(path, false);
  if (storage->isFailed()) {
    delete storage;
    return GX_E_FAIL;
  }
  storage->recordCreation();
  *out = storage;
  return GX_S_OK;
}

std::u16string gxdStorage::tempFileName(const std::u16string& path) {
  size_t dot = path.rfind(u'.');
  std::u16string name =
      dot == std::u16string::npos ? path : path.substr(0, dot);
  name += u".$t$";
  return name;
}

gxdStorage::gxdStorage(const char16_t* pathIn, bool openExisting)
    : root(true),
      readOnly(openExisting),
      failed(true),
      notFound(false),
      fileStream(new pdFileStream),
      parent(nullptr),
      compoundFile(nullptr),
      path(pathIn != nullptr ? pathIn : u""),
      refCount(1) {
  pdOpenFile(path.c_str(), openExisting ? kPdOpenRead : kPdOpenCreate,
             *fileStream);
  if (openExisting) {
    failed = fileStream->bad() || fileStream->fail();
    notFound = failed;
    if (!failed) {
      compoundFile = new gxdCompoundFile(fileStream.get(), nullptr, true);
      failed = fileStream->bad() || fileStream->fail();
    }
    return;
  }
  failed = fileStream->bad() || fileStream->fail();
  if (failed) return;
  tempStream.reset(new pdFileStream);
  pdOpenFile(tempFileName(path).c_str(), kPdOpenTemp, *tempStream);
  failed = tempStream->bad() || tempStream->fail();
  if (!failed)
    compoundFile =
        new gxdCompoundFile(fileStream.get(), tempStream.get(), false);
  // Only the file's own state counts from here: a root whose temporary file
  // could not be opened is handed out, but has no engine, so every child it
  // is asked for fails and commit does nothing.
  failed = fileStream->bad() || fileStream->fail();
}

gxdStorage::gxdStorage(const char16_t* name, gxdStorage* parentIn)
    : root(false),
      readOnly(parentIn->readOnly),
      failed(parentIn->compoundFile == nullptr),
      notFound(false),
      parent(parentIn),
      compoundFile(parentIn->compoundFile),
      refCount(1) {
  if (failed) return;
  entry.reset(new gxdStorageEntry);
  entry->name = name;
  entry->dirIndex = 0xFFFFFFFFu;
  entry->startSector = kEndOfChain;
  entry->size = 0;
  notFound =
      !compoundFile->findOrAddStorage(parent->entry.get(), *entry, !readOnly);
}

gxdStorage::~gxdStorage() {
  for (auto& child : openStreams) child.second->release();
  openStreams.clear();
  for (auto& child : openStorages) child.second->release();
  openStorages.clear();
  if (root) delete compoundFile;
  entry.reset();
  fileStream.reset();  // closes the file
  tempStream.reset();  // the temporary file stays on disk
  for (gxdStgEnum* e : enumerators) delete e;
}

gxResult gxdStorage::openStream(const char16_t* name, gxdIStream** out) {
  *out = nullptr;
  auto open = openStreams.find(name);
  if (open != openStreams.end()) {
    gxdIStream* copy = nullptr;
    open->second->clone(&copy);
    copy->addRef();
    *out = copy;
    return GX_S_OK;
  }
  gxdStream* child = new gxdStream(name, this);
  if (!child->failed && !child->notFound) {
    openStreams[name] = child;
    child->addRef();
    *out = child;
    return GX_S_OK;
  }
  gxResult result = child->notFound ? GX_STG_E_FILENOTFOUND : GX_E_FAIL;
  delete child;
  return result;
}

gxResult gxdStorage::openStorage(const char16_t* name, gxdIStorage** out) {
  *out = nullptr;
  auto open = openStorages.find(name);
  if (open != openStorages.end()) {
    open->second->addRef();
    *out = open->second;
    return GX_S_OK;
  }
  gxdStorage* child = new gxdStorage(name, this);
  if (!child->failed && !child->notFound) {
    openStorages[name] = child;
    child->addRef();
    *out = child;
    return GX_S_OK;
  }
  gxResult result = child->notFound ? GX_STG_E_FILENOTFOUND : GX_E_FAIL;
  delete child;
  return result;
}

gxResult gxdStorage::createStream(const char16_t* name, gxdIStream** out) {
  *out = nullptr;
  auto open = openStreams.find(name);
  if (open != openStreams.end()) {
    if (!readOnly) return GX_STG_E_FILEALREADYEXISTS;
    gxdIStream* copy = nullptr;
    open->second->clone(&copy);
    copy->addRef();
    *out = copy;
    return GX_S_OK;
  }
  gxdStream* child = new gxdStream(name, this);
  if (!child->failed && child->notFound) {
    openStreams[name] = child;
    child->addRef();
    createdChildren.emplace_back(false, child);
    child->recordCreation();
    *out = child;
    return GX_S_OK;
  }
  // A child without an engine failed; any other refusal means the name
  // exists already.
  gxResult result = child->failed ? GX_E_FAIL : GX_STG_E_FILEALREADYEXISTS;
  delete child;
  return result;
}

gxResult gxdStorage::createStorage(const char16_t* name, gxdIStorage** out) {
  *out = nullptr;
  auto open = openStorages.find(name);
  if (open != openStorages.end()) {
    if (!readOnly) return GX_STG_E_FILEALREADYEXISTS;
    open->second->addRef();
    *out = open->second;
    return GX_S_OK;
  }
  gxdStorage* child = new gxdStorage(name, this);
  if (!child->failed && child->notFound) {
    openStorages[name] = child;
    child->addRef();
    createdChildren.emplace_back(true, child);
    child->recordCreation();
    *out = child;
    return GX_S_OK;
  }
  // A child without an engine failed; any other refusal means the name
  // exists already.
  gxResult result = child->failed ? GX_E_FAIL : GX_STG_E_FILEALREADYEXISTS;
  delete child;
  return result;
}

void gxdStorage::recordCreation() {
  if (readOnly || compoundFile == nullptr) return;
  gxdStorageEntry* second = entry ? entry.get() : &compoundFile->rootEntry;
  gxdStorageEntry* first = nullptr;
  if (entry) {
    first = (parent == nullptr || parent->isRoot()) ? &compoundFile->rootEntry
                                                    : parent->entry.get();
  }
  gxdChangeRecord record;
  record.kind = gxdChangeRecord::kStorageCreated;
  record.first = first;
  record.second = second;
  record.isRoot = root;
  compoundFile->pendingChanges.push_back(record);
}

gxResult gxdStorage::stat(gxdsSTATSTG* info) {
  const std::u16string& name = entry ? entry->name : path;
  std::vector<unsigned short> units(name.begin(), name.end());
  units.push_back(0);
  info->setName(units.data());
  info->setType(GX_STGTY_STORAGE);
  info->setSize(0, 0);
  return GX_S_OK;
}

bool gxdStorage::enumElements(CGxAbsStgEnum** out) {
  gxdStgEnum* e = new gxdStgEnum(this);
  enumerators.push_back(e);
  *out = e;
  return true;
}

void gxdStorage::commit() {
  if (readOnly || compoundFile == nullptr) return;
  for (auto& child : createdChildren) {
    if (child.first) {
      static_cast<gxdStorage*>(child.second)->commit();
    } else {
      static_cast<gxdStream*>(child.second)->flush();
    }
  }
  if (root) compoundFile->save();
}

void gxdStorage::release() {
  if (refCount > 0) --refCount;
  if (refCount == 0) delete this;
}
