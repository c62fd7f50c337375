// Helpers of the service's fuzz targets: names in the platform's unit type,
// and a walk that lists and reads every element below a storage through the
// service's IStorage, IStream and IEnumSTATSTG.
#ifndef GXSTORAGE_FUZZ_GXSERVICEFUZZ_H_
#define GXSTORAGE_FUZZ_GXSERVICEFUZZ_H_

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/gxFuzzSupport.h"
#include "service/gxsService.h"

// Stops the run when a call answered `got` where `want` was expected.
#define GXFUZZ_CHECK_HR(got, want)                                   \
  do {                                                               \
    const HRESULT gotHr = (got), wantHr = (want);                    \
    if (gotHr != wantHr) {                                           \
      std::fprintf(stderr, "gxfuzz: answered %08x, expected %08x\n", \
                   static_cast<unsigned>(gotHr),                     \
                   static_cast<unsigned>(wantHr));                   \
      gxFuzzFail("unexpected result at line " GXFUZZ_STR(__LINE__)); \
    }                                                                \
  } while (0)

constexpr DWORD kGxFuzzReadWrite = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

inline std::vector<OLECHAR> gxFuzzOle(const std::u16string& s) {
  std::vector<OLECHAR> units(s.begin(), s.end());
  units.push_back(0);
  return units;
}

// Path (names joined by '/') -> (is a storage, stream bytes).
typedef std::map<std::u16string, std::pair<bool, std::string>> gxFuzzTree;

// Lists `storage`'s children as the enumerator hands them out: name and
// whether it is a storage. Returns the first failure, or S_OK.
inline HRESULT gxFuzzChildren(
    IStorage* storage, std::vector<std::pair<std::u16string, bool>>& kids) {
  kids.clear();
  IEnumSTATSTG* e = nullptr;
  HRESULT hr = storage->EnumElements(0, nullptr, 0, &e);
  if (hr != S_OK) return hr;
  GXFUZZ_CHECK(e != nullptr);
  STATSTG s[3];
  for (;;) {
    ULONG n = 0;
    hr = e->Next(3, s, &n);
    GXFUZZ_CHECK(n <= 3 && (hr == S_OK ? n == 3 : true));
    for (ULONG i = 0; i < n; ++i) {
      GXFUZZ_CHECK(s[i].pwcsName != nullptr);
      std::u16string name;
      for (const OLECHAR* c = s[i].pwcsName; *c != 0; ++c) name += char16_t(*c);
      GXFUZZ_CHECK(s[i].type == STGTY_STORAGE || s[i].type == STGTY_STREAM);
      kids.push_back({name, s[i].type == STGTY_STORAGE});
      CoTaskMemFree(s[i].pwcsName);
    }
    if (hr != S_OK) break;
  }
  e->Release();
  return hr == S_FALSE ? S_OK : hr;
}

// Reads `stream` from its start to its end in chunks of `chunk` bytes.
inline HRESULT gxFuzzReadAll(IStream* stream, std::string& data,
                             size_t chunk = 4096) {
  data.clear();
  std::string buffer(chunk, '\0');
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  HRESULT hr = stream->Seek(zero, STREAM_SEEK_SET, nullptr);
  for (ULONG done = 1; hr == S_OK && done > 0;) {
    done = 0;
    hr = stream->Read(&buffer[0], static_cast<ULONG>(chunk), &done);
    GXFUZZ_CHECK(done <= chunk);
    data.append(buffer, 0, done);
  }
  return hr;
}

#endif  // GXSTORAGE_FUZZ_GXSERVICEFUZZ_H_
