// What the storage, stream and enumerator objects of one open file share:
// the file itself, its path for Stat, and a registry of the objects alive on
// it. The registry is what makes an element open exclusively (a second open
// finds the first), and what turns objects into reverted ones when their
// element is destroyed or the storage they were opened from goes away.
//
// The context is reference counted: every object holds one reference, so it
// outlives them all. The file, however, is closed when the root storage is
// released; objects still alive then answer STG_E_REVERTED.
#ifndef GXSTORAGE_SERVICE_GXSCONTEXT_H_
#define GXSTORAGE_SERVICE_GXSCONTEXT_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/gxPlatform.h"
#include "service/gxsDocFile.h"

class gxsContext;

// The part of every object that the context's registry sees.
struct gxsNode {
  enum Kind : uint8_t { kStorage, kStream, kEnum };

  gxsContext* context = nullptr;  // counted reference held by the object
  gxsNode* parent = nullptr;      // storage opened from; null for the root
                                  // and once reverted
  uint32_t id = 0;                // directory entry (an enumerator's storage)
  Kind kind = kStorage;
  bool reverted = false;
};

class gxsContext {
 public:
  // Takes the file over. `path` is what the root's Stat names; the file at
  // `removePath` (empty for none) is deleted once the file is closed.
  gxsContext(std::unique_ptr<gxsDocFile> doc, std::u16string path,
             std::u16string removePath);
  gxsContext(const gxsContext&) = delete;
  gxsContext& operator=(const gxsContext&) = delete;

  // The open file; null once the root storage was released.
  gxsDocFile* doc() const { return doc_.get(); }
  const std::u16string& path() const { return path_; }

  // Adds `node` to the registry and takes a reference for it.
  void enlist(gxsNode* node);
  // Removes `node` (its object is going away): what was opened through it
  // is reverted. Drops the node's reference, which may delete the context:
  // the caller touches neither afterwards.
  void delist(gxsNode* node);

  // True while a storage or stream object that is not reverted is open on
  // element `id`.
  bool isOpen(uint32_t id) const;
  // Reverts every object opened through `node`, at any depth.
  void revertBelow(gxsNode* node);
  // Reverts the objects open on the elements `ids` (just removed from the
  // file) and everything opened through them.
  void revertElements(const std::vector<uint32_t>& ids);
  // The root storage is going away: reverts every other object, closes the
  // file (writing what is still pending) and deletes it when asked to.
  void closeFile();

  // Ends a call that changed the file: writes the changed tables so that
  // the file is whole when the call returns. Returns `hr` when it failed,
  // else the result of the write.
  HRESULT finish(HRESULT hr);
  // Counts the calls that may have changed the file, so that a list of
  // children taken earlier is known to be current while it stays the same.
  uint64_t generation() const { return generation_; }
  // The context of a transacted copy's scratch file follows the object that
  // holds the copy's element open (`outer`): once that is reverted, every
  // object of this context answers as reverted too. Null detaches.
  void setOuter(const gxsNode* outer) { outer_ = outer; }
  bool outerGone() const;

 private:
  ~gxsContext() = default;
  void revert(std::vector<gxsNode*> pending);
  void dropChainIfUnused(const gxsNode* node);

  std::unique_ptr<gxsDocFile> doc_;
  std::u16string path_;
  std::u16string removePath_;
  std::vector<gxsNode*> nodes_;  // live objects, in no particular order
  unsigned long refs_ = 0;
  uint64_t generation_ = 0;
  const gxsNode* outer_ = nullptr;  // see setOuter; outlives this context's use
};

// True when the object of `node` answers STG_E_REVERTED.
inline bool gxsGone(const gxsNode& node) {
  return node.reverted || node.context->outerGone();
}

// ---- Helpers shared by the three object classes -----------------------

// Reads a zero-terminated name of an element that is looked up: 1 to 31
// units, else STG_E_INVALIDNAME. At most 32 units are read.
HRESULT gxsReadName(const OLECHAR* name, std::u16string& out);
// The same for a name given to a new element, which may hold none of
// '/', '\\', ':' and '!'.
HRESULT gxsReadNewName(const OLECHAR* name, std::u16string& out);
// `name` as a zero-terminated array of the platform's units.
std::vector<OLECHAR> gxsUnits(const std::u16string& name);
// A copy of `name`, zero-terminated, in task memory (the caller frees it
// with CoTaskMemFree); null when memory ran out.
OLECHAR* gxsTaskName(const std::u16string& name);

// Fills `info` from `entry`. `name` is copied into task memory unless it is
// null (STATFLAG_NONAME); STG_E_INSUFFICIENTMEMORY when that fails.
HRESULT gxsFillStat(const gxdDirRecord& entry, const std::u16string* name,
                    DWORD mode, STATSTG& info);
void gxsClsidToBytes(const CLSID& clsid, uint8_t bytes[16]);

// The sharing bits of a mode, and every flag the service knows.
constexpr DWORD kGxsShareBits = 0x70u;
constexpr DWORD kGxsKnownBits =
    3u | kGxsShareBits | STGM_CREATE | STGM_CONVERT | STGM_TRANSACTED |
    STGM_PRIORITY | STGM_DELETEONRELEASE | STGM_SIMPLE | STGM_NOSCRATCH |
    STGM_NOSNAPSHOT | STGM_DIRECT_SWMR;

// Access a mode grants.
inline bool gxsCanRead(DWORD mode) { return (mode & 3u) != STGM_WRITE; }
inline bool gxsCanWrite(DWORD mode) { return (mode & 3u) != STGM_READ; }

#endif  // GXSTORAGE_SERVICE_GXSCONTEXT_H_
