// The platform's structured-storage service, as the adapters use it. On
// Windows these are the real system headers and ole32. Elsewhere this layer
// declares the same COM-shaped interfaces (methods in the platform's order),
// records and constants, and the free functions forward to the library's own
// read-write implementation in service/.
#ifndef GXSTORAGE_PLATFORM_GXPLATFORM_H_
#define GXSTORAGE_PLATFORM_GXPLATFORM_H_

#include <cstdint>
#include <vector>

#include "gxStorage.h"

#if defined(_WIN32)
#include <objbase.h>
#include <objidl.h>
#else

typedef int32_t HRESULT;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef unsigned short OLECHAR;
typedef OLECHAR* LPOLESTR;
typedef const OLECHAR* LPCOLESTR;
typedef OLECHAR** SNB;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};
typedef GUID IID;
typedef GUID CLSID;
typedef const IID& REFIID;
typedef const CLSID& REFCLSID;

struct STATSTG {
  LPOLESTR pwcsName;
  DWORD type;
  ULARGE_INTEGER cbSize;
  FILETIME mtime;
  FILETIME ctime;
  FILETIME atime;
  DWORD grfMode;
  DWORD grfLocksSupported;
  CLSID clsid;
  DWORD grfStateBits;
  DWORD reserved;
};

struct IUnknown {
  virtual HRESULT QueryInterface(REFIID riid, void** object) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;
};

struct ISequentialStream : public IUnknown {
  virtual HRESULT Read(void* data, ULONG size, ULONG* done) = 0;
  virtual HRESULT Write(const void* data, ULONG size, ULONG* written) = 0;
};

struct IStream : public ISequentialStream {
  virtual HRESULT Seek(LARGE_INTEGER move, DWORD origin,
                       ULARGE_INTEGER* newPosition) = 0;
  virtual HRESULT SetSize(ULARGE_INTEGER size) = 0;
  virtual HRESULT CopyTo(IStream* target, ULARGE_INTEGER size,
                         ULARGE_INTEGER* read, ULARGE_INTEGER* written) = 0;
  virtual HRESULT Commit(DWORD flags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                             DWORD lockType) = 0;
  virtual HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                               DWORD lockType) = 0;
  virtual HRESULT Stat(STATSTG* info, DWORD flag) = 0;
  virtual HRESULT Clone(IStream** copy) = 0;
};

struct IEnumSTATSTG : public IUnknown {
  virtual HRESULT Next(ULONG count, STATSTG* records, ULONG* fetched) = 0;
  virtual HRESULT Skip(ULONG count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Clone(IEnumSTATSTG** copy) = 0;
};

struct IStorage : public IUnknown {
  virtual HRESULT CreateStream(const OLECHAR* name, DWORD mode, DWORD reserved1,
                               DWORD reserved2, IStream** stream) = 0;
  virtual HRESULT OpenStream(const OLECHAR* name, void* reserved1, DWORD mode,
                             DWORD reserved2, IStream** stream) = 0;
  virtual HRESULT CreateStorage(const OLECHAR* name, DWORD mode,
                                DWORD reserved1, DWORD reserved2,
                                IStorage** storage) = 0;
  virtual HRESULT OpenStorage(const OLECHAR* name, IStorage* priority,
                              DWORD mode, SNB exclude, DWORD reserved,
                              IStorage** storage) = 0;
  virtual HRESULT CopyTo(DWORD excludeCount, const IID* exclude,
                         SNB excludeNames, IStorage* target) = 0;
  virtual HRESULT MoveElementTo(const OLECHAR* name, IStorage* target,
                                const OLECHAR* newName, DWORD flags) = 0;
  virtual HRESULT Commit(DWORD flags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT EnumElements(DWORD reserved1, void* reserved2,
                               DWORD reserved3, IEnumSTATSTG** enumerator) = 0;
  virtual HRESULT DestroyElement(const OLECHAR* name) = 0;
  virtual HRESULT RenameElement(const OLECHAR* oldName,
                                const OLECHAR* newName) = 0;
  virtual HRESULT SetElementTimes(const OLECHAR* name, const FILETIME* created,
                                  const FILETIME* accessed,
                                  const FILETIME* modified) = 0;
  virtual HRESULT SetClass(REFCLSID clsid) = 0;
  virtual HRESULT SetStateBits(DWORD bits, DWORD mask) = 0;
  virtual HRESULT Stat(STATSTG* info, DWORD flag) = 0;
};

#define STDMETHODCALLTYPE

#define S_OK ((HRESULT)0)
#define S_FALSE ((HRESULT)1)
#define E_NOTIMPL ((HRESULT)0x80004001)
#define E_NOINTERFACE ((HRESULT)0x80004002)
#define E_POINTER ((HRESULT)0x80004003)
#define E_FAIL ((HRESULT)0x80004005)
#define E_OUTOFMEMORY ((HRESULT)0x8007000E)
#define E_INVALIDARG ((HRESULT)0x80070057)
#define STG_E_INVALIDFUNCTION ((HRESULT)0x80030001)
#define STG_E_FILENOTFOUND ((HRESULT)0x80030002)
#define STG_E_PATHNOTFOUND ((HRESULT)0x80030003)
#define STG_E_TOOMANYOPENFILES ((HRESULT)0x80030004)
#define STG_E_ACCESSDENIED ((HRESULT)0x80030005)
#define STG_E_INVALIDHANDLE ((HRESULT)0x80030006)
#define STG_E_INSUFFICIENTMEMORY ((HRESULT)0x80030008)
#define STG_E_INVALIDPOINTER ((HRESULT)0x80030009)
#define STG_E_NOMOREFILES ((HRESULT)0x80030012)
#define STG_E_DISKISWRITEPROTECTED ((HRESULT)0x80030013)
#define STG_E_SEEKERROR ((HRESULT)0x80030019)
#define STG_E_WRITEFAULT ((HRESULT)0x8003001D)
#define STG_E_READFAULT ((HRESULT)0x8003001E)
#define STG_E_SHAREVIOLATION ((HRESULT)0x80030020)
#define STG_E_LOCKVIOLATION ((HRESULT)0x80030021)
#define STG_E_FILEALREADYEXISTS ((HRESULT)0x80030050)
#define STG_E_INVALIDPARAMETER ((HRESULT)0x80030057)
#define STG_E_MEDIUMFULL ((HRESULT)0x80030070)
#define STG_E_ABNORMALAPIEXIT ((HRESULT)0x800300FA)
#define STG_E_INVALIDHEADER ((HRESULT)0x800300FB)
#define STG_E_INVALIDNAME ((HRESULT)0x800300FC)
#define STG_E_UNKNOWN ((HRESULT)0x800300FD)
#define STG_E_UNIMPLEMENTEDFUNCTION ((HRESULT)0x800300FE)
#define STG_E_INVALIDFLAG ((HRESULT)0x800300FF)
#define STG_E_INUSE ((HRESULT)0x80030100)
#define STG_E_NOTCURRENT ((HRESULT)0x80030101)
#define STG_E_REVERTED ((HRESULT)0x80030102)
#define STG_E_CANTSAVE ((HRESULT)0x80030103)
#define STG_E_OLDFORMAT ((HRESULT)0x80030104)
#define STG_E_OLDDLL ((HRESULT)0x80030105)
#define STG_E_SHAREREQUIRED ((HRESULT)0x80030106)
#define STG_E_NOTFILEBASEDSTORAGE ((HRESULT)0x80030107)
#define STG_E_DOCFILECORRUPT ((HRESULT)0x80030109)
#define STG_E_DOCFILETOOLARGE ((HRESULT)0x80030111)

#define STGM_DIRECT 0x00000000u
#define STGM_TRANSACTED 0x00010000u
#define STGM_SIMPLE 0x08000000u
#define STGM_READ 0x00000000u
#define STGM_WRITE 0x00000001u
#define STGM_READWRITE 0x00000002u
#define STGM_SHARE_DENY_NONE 0x00000040u
#define STGM_SHARE_DENY_READ 0x00000030u
#define STGM_SHARE_DENY_WRITE 0x00000020u
#define STGM_SHARE_EXCLUSIVE 0x00000010u
#define STGM_PRIORITY 0x00040000u
#define STGM_DELETEONRELEASE 0x04000000u
#define STGM_NOSCRATCH 0x00100000u
#define STGM_CREATE 0x00001000u
#define STGM_CONVERT 0x00020000u
#define STGM_FAILIFTHERE 0x00000000u
#define STGM_NOSNAPSHOT 0x00200000u
#define STGM_DIRECT_SWMR 0x00400000u

#define STGC_DEFAULT 0u
#define STGC_OVERWRITE 1u
#define STGC_ONLYIFCURRENT 2u
#define STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE 4u
#define STGC_CONSOLIDATE 8u

#define STGMOVE_MOVE 0u
#define STGMOVE_COPY 1u
#define STGMOVE_SHALLOWCOPY 2u

#define LOCK_WRITE 1u
#define LOCK_EXCLUSIVE 2u
#define LOCK_ONLYONCE 4u

#define STGTY_STORAGE 1u
#define STGTY_STREAM 2u
#define STGTY_LOCKBYTES 3u
#define STGTY_PROPERTY 4u

#define STREAM_SEEK_SET 0u
#define STREAM_SEEK_CUR 1u
#define STREAM_SEEK_END 2u

#define STATFLAG_DEFAULT 0u
#define STATFLAG_NONAME 1u

// Interface identifiers, with the values the platform documents.
extern const IID IID_IUnknown;
extern const IID IID_ISequentialStream;
extern const IID IID_IStream;
extern const IID IID_IStorage;
extern const IID IID_IEnumSTATSTG;
bool IsEqualGUID(const GUID& a, const GUID& b);

// Open and create a file through the library's own service (service/).
HRESULT StgOpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode,
                       SNB exclude, DWORD reserved, IStorage** storage);
HRESULT StgCreateDocfile(const OLECHAR* name, DWORD mode, DWORD reserved,
                         IStorage** storage);
// S_OK for a compound file, S_FALSE for another readable file,
// STG_E_FILENOTFOUND when the file cannot be opened.
HRESULT StgIsStorageFile(const OLECHAR* name);
// Task memory, for names that platform objects hand out.
void* CoTaskMemAlloc(size_t size);
void CoTaskMemFree(void* memory);

#endif  // _WIN32

// A zero-terminated copy of an interface name in the platform's unit type.
std::vector<OLECHAR> gxPlatformName(const unsigned short* name);

#endif  // GXSTORAGE_PLATFORM_GXPLATFORM_H_
