// Arbitrary bytes as a file on disk, asked whether they form a compound file
// through the portable probe and the exported one. Both must answer without
// crashing, and the portable probe's yes must match the header rules it
// documents; the exported probe says yes whenever the portable one does and
// otherwise gives the platform service's answer.
#include <cstring>

#include "engine/gxdFormat.h"
#include "fuzz/gxFuzzSupport.h"
#include "gxStorage.h"
#include "portable/gxdInterfaces.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = gxFuzzPath("probe.gxw");
  static const std::u16string widePath = gxFuzzWide(path);
  static const std::vector<unsigned short> units = gxFuzzUnits(path);
  gxFuzzWriteFile(path, data, size);

  const gxResult portable = gxdStgIsStorageFile(widePath.c_str());
  const gxResult exported = gxStgIsStorageFile(units.data(), true);
  GXFUZZ_CHECK(portable == GX_S_OK || portable == GX_E_FAIL ||
               portable == GX_STG_E_INVALIDHEADER);
  if (size < kHeaderSize) GXFUZZ_CHECK(portable == GX_E_FAIL);
  if (portable == GX_S_OK) {
    GXFUZZ_CHECK(std::memcmp(data, kGxdSignature, 8) == 0);
    const uint16_t major = loadU16(data + kHeaderMajorVersionOffset);
    GXFUZZ_CHECK(major == 3 || major == 4);
    GXFUZZ_CHECK(loadU16(data + kHeaderReserved1Offset) == 0);
    GXFUZZ_CHECK(loadU32(data + kHeaderReserved2Offset) == 0);
    GXFUZZ_CHECK(exported == GX_S_OK);
  } else {
    // The exported probe then asks the platform service, which on this host
    // looks at the signature alone.
    const bool signature =
        size >= 8 && std::memcmp(data, kGxdSignature, 8) == 0;
    GXFUZZ_CHECK(exported == (signature ? GX_S_OK : GX_S_FALSE));
  }
  return 0;
}
