// The elements below a storage as a service (ours or the platform's) reads
// them through IStorage, for the differential and failing-disk tests.
#ifndef GXSTORAGE_TESTS_SERVICE_GXSTREEWALK_H_
#define GXSTORAGE_TESTS_SERVICE_GXSTREEWALK_H_

#include <string>

#include "service/gxsService.h"
#include "support/gxRoundTrip.h"

inline const OLECHAR* gxsOle(const std::u16string& s) {
  return reinterpret_cast<const OLECHAR*>(s.c_str());
}

// Every element below `storage` into `tree`, under `at` (names joined by
// '/'): streams with their bytes, storages with `record` of their Stat (and
// `storage` itself too), or "" without one. An element that does not open
// or read is kept with what was read of it. Returns the first failure, or
// S_OK.
inline HRESULT gxsWalk(IStorage* storage, const std::u16string& at,
                       gxRtTree& tree,
                       std::string (*record)(STATSTG&) = nullptr) {
  STATSTG s{};
  if (record != nullptr)
    tree[at] = {true,
                storage->Stat(&s, STATFLAG_NONAME) == S_OK ? record(s) : "?"};
  IEnumSTATSTG* e = nullptr;
  HRESULT hr = storage->EnumElements(0, nullptr, 0, &e), failed = hr;
  while (hr == S_OK && (hr = e->Next(1, &s, nullptr)) == S_OK) {
    const std::u16string name(reinterpret_cast<const char16_t*>(s.pwcsName));
    const std::u16string path = at.empty() ? name : at + u"/" + name;
    CoTaskMemFree(s.pwcsName);
    auto& [isStorage, data] = tree[path];
    isStorage = s.type == STGTY_STORAGE;
    IStorage* child = nullptr;
    IStream* stream = nullptr;
    const DWORD ro = STGM_READ | STGM_SHARE_EXCLUSIVE;
    HRESULT got =
        isStorage ? storage->OpenStorage(gxsOle(name), nullptr, ro, nullptr, 0,
                                         &child)
                  : storage->OpenStream(gxsOle(name), nullptr, ro, 0, &stream);
    if (got == S_OK && child != nullptr)
      got = gxsWalk(child, path, tree, record);
    char chunk[4096];
    for (ULONG done = 1; got == S_OK && stream != nullptr && done > 0;
         data.append(chunk, done))
      got = stream->Read(chunk, sizeof chunk, &done);
    if (child != nullptr) child->Release();
    if (stream != nullptr) stream->Release();
    if (failed >= 0) failed = got;
  }
  if (e != nullptr) e->Release();
  return failed < 0 ? failed : hr < 0 ? hr : S_OK;
}

#endif  // GXSTORAGE_TESTS_SERVICE_GXSTREEWALK_H_
