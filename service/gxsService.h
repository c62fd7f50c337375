// The library's own read-write structured-storage service: IStorage, IStream
// and IEnumSTATSTG over compound files, for hosts that have no such service
// of their own (and built on every host, so that it can be compared with the
// platform's). The functions take and answer what the platform's functions
// of the same names without the prefix do.
#ifndef GXSTORAGE_SERVICE_GXSSERVICE_H_
#define GXSTORAGE_SERVICE_GXSSERVICE_H_

#include <memory>

#include "platform/gxPlatform.h"
#include "porting/gxdFile.h"

HRESULT gxsStgOpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode,
                          SNB exclude, DWORD reserved, IStorage** storage);
HRESULT gxsStgCreateDocfile(const OLECHAR* name, DWORD mode, DWORD reserved,
                            IStorage** storage);
HRESULT gxsStgIsStorageFile(const OLECHAR* name);

// The same open and create over a file the caller opened (tests hand in
// files that fail on demand). The service takes the file over.
HRESULT gxsStgOpenOnFile(std::unique_ptr<pdFile> file, DWORD mode,
                         IStorage** storage);
HRESULT gxsStgCreateOnFile(std::unique_ptr<pdFile> file, DWORD mode,
                           IStorage** storage);

#endif  // GXSTORAGE_SERVICE_GXSSERVICE_H_
