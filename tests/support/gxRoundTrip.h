// Tree readers shared by the round-trip, interop and service tests. Defined in
// tests/engine/roundtrip_test.cpp (they need the internal library, so they are
// not compiled into the api test program).
#ifndef GXSTORAGE_TESTS_SUPPORT_GXROUNDTRIP_H_
#define GXSTORAGE_TESTS_SUPPORT_GXROUNDTRIP_H_

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Element path (names joined by '/') -> (is a storage, stream bytes).
using gxRtTree = std::map<std::u16string, std::pair<bool, std::string>>;

// The tree of `file` as our loader lists it and the portable streams read it
// (in varying chunks and at positions); `sectorSize` receives its sector size.
gxRtTree gxReadOurs(const std::u16string& file, uint32_t* sectorSize = nullptr);
void gxExpectSameTree(const gxRtTree& seen, const gxRtTree& written);
#ifndef _WIN32
// Lists `file` with olefile and `tree` (whose storages' strings are ignored;
// an element named "" stands for the root) the same way, and expects the two
// listings equal and not empty.
void gxExpectOlefileReads(const std::filesystem::path& file,
                          const gxRtTree& tree);
#endif

#endif  // GXSTORAGE_TESTS_SUPPORT_GXROUNDTRIP_H_
