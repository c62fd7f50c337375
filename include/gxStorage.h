// gxStorage: one small object interface to compound files (structured
// storage). An application opens or creates a file by its UTF-16 path, then
// opens or creates storages and streams by name, reads, writes and positions
// streams, lists elements, commits and closes.
//
// Every object handed out below the root belongs to the object that handed it
// out: the application owns only the root storage returned by
// gxStgOpenStorage / gxStgCreateStorage and ends it with gxStgCloseStorage or
// the root's release(). Destroying the root destroys the whole tree.
#ifndef GXSTORAGE_H_
#define GXSTORAGE_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#include <objidl.h>
#if defined(GXSTORAGE_BUILDING)
#define GXSTORAGE_API __declspec(dllexport)
#elif defined(GXSTORAGE_STATIC)
#define GXSTORAGE_API
#else
#define GXSTORAGE_API __declspec(dllimport)
#endif
#else
#if defined(GXSTORAGE_BUILDING)
#define GXSTORAGE_API __attribute__((visibility("default")))
#else
#define GXSTORAGE_API
#endif

// The platform's 64-bit integer unions, with the same layout and member names
// (low half first in memory).
#ifndef GXSTORAGE_HAVE_LARGE_INTEGER
#define GXSTORAGE_HAVE_LARGE_INTEGER
typedef union _LARGE_INTEGER {
  struct {
    uint32_t LowPart;
    int32_t HighPart;
  } u;
  struct {
    uint32_t LowPart;
    int32_t HighPart;
  };
  int64_t QuadPart;
} LARGE_INTEGER;

typedef union _ULARGE_INTEGER {
  struct {
    uint32_t LowPart;
    uint32_t HighPart;
  } u;
  struct {
    uint32_t LowPart;
    uint32_t HighPart;
  };
  uint64_t QuadPart;
} ULARGE_INTEGER;
#endif

// The platform's structured-storage interfaces; complete declarations live in
// the library's platform layer.
struct IStorage;
struct IStream;
struct IEnumSTATSTG;
#endif

// Result codes: 32-bit signed values in the platform's HRESULT convention.
// 0 is success, negative values are failures.
typedef int32_t gxResult;

#define GX_S_OK ((gxResult)0)
#define GX_S_FALSE ((gxResult)1)
#define GX_E_NOTIMPL ((gxResult)0x80004001)
#define GX_E_FAIL ((gxResult)0x80004005)
#define GX_STG_E_FILENOTFOUND ((gxResult)0x80030002)
#define GX_STG_E_FILEALREADYEXISTS ((gxResult)0x80030050)
#define GX_STG_E_INVALIDHEADER ((gxResult)0x800300FB)

// Element kinds of gxdsSTATSTG::type().
#define GX_STGTY_STORAGE 1u
#define GX_STGTY_STREAM 2u

// Seek origins of CGxAbsStream::seek.
#define GX_STREAM_SEEK_SET 0u
#define GX_STREAM_SEEK_CUR 1u
#define GX_STREAM_SEEK_END 2u

class gxdIStorage;
class gxdIStream;

// Describes one element: its name (owned by the record), its kind (1 storage,
// 2 stream, or whatever code the platform reports) and its 64-bit size held as
// a low and a high 32-bit half.
class GXSTORAGE_API gxdsSTATSTG {
 public:
  gxdsSTATSTG();
  gxdsSTATSTG(const gxdsSTATSTG& other);
  gxdsSTATSTG& operator=(const gxdsSTATSTG& other);
  ~gxdsSTATSTG();

  // Zero-terminated; valid until the name is set again, the record is
  // assigned to, or the record is destroyed.
  const unsigned short* name();
  // Copies `name` up to its terminator; `name` must not be null.
  void setName(const unsigned short* name);
  unsigned int type();
  void setType(unsigned int type);
  void size(uint32_t& low, uint32_t& high);
  void setSize(uint32_t low, uint32_t high);

 private:
  std::vector<unsigned short> name_;  // always zero-terminated
  uint32_t type_;
  uint64_t size_;
};

class CGxAbsStgEnum;
class CGxAbsStream;

// A storage: a folder of elements.
class GXSTORAGE_API CGxAbsStorage {
 public:
  CGxAbsStorage();
  CGxAbsStorage(const CGxAbsStorage& other);
  CGxAbsStorage& operator=(const CGxAbsStorage& other);
  virtual ~CGxAbsStorage();

  // open true opens an existing element, false creates one. `*child` is set
  // to null first; the object handed out belongs to this storage.
  virtual gxResult openIStorage(const unsigned short* name, bool open,
                                CGxAbsStorage** child) = 0;
  virtual gxResult openIStream(const unsigned short* name, bool open,
                               CGxAbsStream** stream) = 0;
  virtual bool stat(gxdsSTATSTG* info) = 0;
  // The enumerator belongs to this storage; the caller never deletes it.
  virtual bool enumElements(CGxAbsStgEnum** enumerator) = 0;
  virtual void commit() = 0;
  // Destroys a root storage with everything opened through it and returns
  // true; on any other storage does nothing and returns false.
  virtual bool release() = 0;
};

// A stream: a byte sequence with a position.
class GXSTORAGE_API CGxAbsStream {
 public:
  CGxAbsStream();
  CGxAbsStream(const CGxAbsStream& other);
  CGxAbsStream& operator=(const CGxAbsStream& other);
  virtual ~CGxAbsStream();

  virtual void write(const void* data, unsigned long long size,
                     unsigned long long* written) = 0;
  virtual void read(void* data, unsigned long long size,
                    unsigned long long* done) = 0;
  virtual bool stat(gxdsSTATSTG* info) = 0;
  // origin: GX_STREAM_SEEK_SET, _CUR or _END.
  virtual bool seek(LARGE_INTEGER move, unsigned int origin,
                    ULARGE_INTEGER* newPosition) = 0;
  // The copy belongs to this stream; the caller never deletes it.
  virtual bool clone(CGxAbsStream** copy) = 0;
  virtual void flush() = 0;
};

// A cursor over the elements of one storage.
class GXSTORAGE_API CGxAbsStgEnum {
 public:
  CGxAbsStgEnum();
  CGxAbsStgEnum(const CGxAbsStgEnum& other);
  CGxAbsStgEnum& operator=(const CGxAbsStgEnum& other);
  virtual ~CGxAbsStgEnum();

  // `records` holds at least `count` records; `*fetched` (when given) gets
  // the number filled.
  virtual bool next(unsigned int count, gxdsSTATSTG* records,
                    uint32_t* fetched) = 0;
  virtual bool skip(unsigned int count) = 0;
  virtual void reset() = 0;
  virtual bool clone(CGxAbsStgEnum** copy) = 0;
};

// The stream class over either backend: a platform IStream or a portable
// stream. It owns the clones it hands out. Copying is refused: two copies
// would release the same backend reference and destroy the same clones.
class GXSTORAGE_API gxIStream : public CGxAbsStream {
 public:
  explicit gxIStream(IStream* stream);
  explicit gxIStream(gxdIStream* stream);
  gxIStream(const gxIStream&) = delete;
  gxIStream& operator=(const gxIStream&) = delete;
  ~gxIStream() override;

  void write(const void* data, unsigned long long size,
             unsigned long long* written) override;
  void read(void* data, unsigned long long size,
            unsigned long long* done) override;
  bool stat(gxdsSTATSTG* info) override;
  bool seek(LARGE_INTEGER move, unsigned int origin,
            ULARGE_INTEGER* newPosition) override;
  bool clone(CGxAbsStream** copy) override;
  void flush() override;

 private:
  gxdIStream* portableStream_;  // counted reference, or null
  IStream* platformStream_;     // counted reference, or null
  std::vector<CGxAbsStream*> clones_;  // owned, in creation order
};

// The enumerator class over the platform's IEnumSTATSTG. The portable backend
// hands out its own enumerator instead. Copying is refused.
class GXSTORAGE_API gxIStgEnum : public CGxAbsStgEnum {
 public:
  explicit gxIStgEnum(IEnumSTATSTG* enumerator);
  gxIStgEnum(const gxIStgEnum&) = delete;
  gxIStgEnum& operator=(const gxIStgEnum&) = delete;
  ~gxIStgEnum() override;

  bool next(unsigned int count, gxdsSTATSTG* records,
            uint32_t* fetched) override;
  bool skip(unsigned int count) override;
  void reset() override;
  bool clone(CGxAbsStgEnum** copy) override;

 private:
  IEnumSTATSTG* enumerator_;             // counted reference, never null
  std::vector<CGxAbsStgEnum*> clones_;  // owned, in creation order
};

// The storage class over either backend. Children are cached by exact name
// (code unit by code unit, case-sensitive): opening a name twice through one
// storage yields the same object. Destroying a storage destroys the whole
// tree below it. Copying is refused.
class GXSTORAGE_API gxIStorage : public CGxAbsStorage {
 public:
  gxIStorage(IStorage* storage, CGxAbsStorage* parent);
  gxIStorage(gxdIStorage* storage, CGxAbsStorage* parent);
  gxIStorage(const gxIStorage&) = delete;
  gxIStorage& operator=(const gxIStorage&) = delete;
  ~gxIStorage() override;

  gxResult openIStorage(const unsigned short* name, bool open,
                        CGxAbsStorage** child) override;
  gxResult openIStream(const unsigned short* name, bool open,
                       CGxAbsStream** stream) override;
  bool stat(gxdsSTATSTG* info) override;
  bool enumElements(CGxAbsStgEnum** enumerator) override;
  // Writes the file; only a portable root commits.
  void commit() override;
  bool release() override;

 private:
  typedef std::u16string Name;

  IStorage* platformStorage_;   // counted reference, or null
  gxdIStorage* portableStorage_;  // counted reference, or null
  CGxAbsStorage* parent_;       // not owned; null for a root
  std::map<Name, CGxAbsStorage*> childStorages_;  // owned
  std::map<Name, CGxAbsStream*> childStreams_;    // owned
  std::vector<CGxAbsStgEnum*> enumerators_;  // owned (platform backend only)
};

// Opens an existing compound file. `portable` true selects the library's own
// engine (the file is then read-only), false the platform's service.
// `*storage` is set to null first and receives the root on success.
GXSTORAGE_API gxResult gxStgOpenStorage(const unsigned short* path,
                                        unsigned int mode,
                                        CGxAbsStorage** storage,
                                        bool portable);
// Creates a compound file. On the portable backend the file receives its
// content at the first commit of the root; data waits meanwhile in a
// temporary file named like the path with ".$t$" in place of its extension,
// which stays on disk.
GXSTORAGE_API gxResult gxStgCreateStorage(const unsigned short* path,
                                          unsigned int mode,
                                          CGxAbsStorage** storage,
                                          bool portable);
// Destroys a root storage and everything opened through it. Does not commit.
// Null does nothing.
GXSTORAGE_API void gxStgCloseStorage(CGxAbsStorage* storage);
// 0 when the file is a compound file. `portable` is not consulted.
GXSTORAGE_API gxResult gxStgIsStorageFile(const unsigned short* path,
                                          bool portable);

// Opens "FF430_1.gxw" in the current directory with the portable engine,
// lists the root and opens what the listing names. Reports nothing.
extern "C" GXSTORAGE_API void gxdStorageTest();

#endif  // GXSTORAGE_H_
