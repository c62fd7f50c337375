// The portable storage. The root stands for the file: it owns the file
// stream, the temporary file's stream (create mode) and the engine. A child
// stands for one storage element and shares the root's engine; it must not
// outlive the root, which the adapter layer guarantees by releasing children
// first.
#ifndef GXSTORAGE_PORTABLE_GXDSTORAGE_H_
#define GXSTORAGE_PORTABLE_GXDSTORAGE_H_

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "engine/gxdCompoundFile.h"
#include "portable/gxdInterfaces.h"
#include "porting/gxdFileBuf.h"

class gxdStream;
class gxdStgEnum;

class gxdStorage : public gxdIStorage {
 public:
  // Root: opens `path` (openExisting: read-only, loading the file; else
  // creating it, with the temporary file beside it).
  gxdStorage(const char16_t* path, bool openExisting);
  // Child: looks `name` up in the parent's entry (adding it in create mode).
  gxdStorage(const char16_t* name, gxdStorage* parent);
  gxdStorage(const gxdStorage&) = delete;
  gxdStorage& operator=(const gxdStorage&) = delete;
  ~gxdStorage() override;

  gxResult openStream(const char16_t* name, gxdIStream** out) override;
  gxResult openStorage(const char16_t* name, gxdIStorage** out) override;
  gxResult createStream(const char16_t* name, gxdIStream** out) override;
  gxResult createStorage(const char16_t* name, gxdIStorage** out) override;
  gxResult stat(gxdsSTATSTG* info) override;
  bool enumElements(CGxAbsStgEnum** out) override;
  bool isFailed() override { return failed; }
  bool isReadOnly() override { return readOnly; }
  bool isRoot() override { return root; }
  void commit() override;
  uint32_t addRef() override { return ++refCount; }
  void release() override;

  // Appends this storage's creation record.
  void recordCreation();

  // The temporary file's name for `path`: the units before its last '.'
  // (or the whole path), then ".$t$".
  static std::u16string tempFileName(const std::u16string& path);

  bool root;
  bool readOnly;
  bool failed;
  bool notFound;
  std::unique_ptr<pdFileStream> fileStream;  // root only
  std::unique_ptr<pdFileStream> tempStream;  // root in create mode only
  gxdStorage* parent;                        // not owned; null at the root
  gxdCompoundFile* compoundFile;             // owned by the root, shared below
  std::unique_ptr<gxdStorageEntry> entry;    // child only
  std::u16string path;                       // root only
  std::map<std::u16string, gxdStorage*> openStorages;   // one reference each
  std::map<std::u16string, gxdStream*> openStreams;     // one reference each
  std::vector<std::pair<bool, void*>> createdChildren;  // (isStorage, child)
  uint32_t refCount;
  std::vector<gxdStgEnum*> enumerators;  // owned
};

#endif  // GXSTORAGE_PORTABLE_GXDSTORAGE_H_
