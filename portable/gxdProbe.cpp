
#include "engine/gxdFormat.h"
#include "portable/gxdInterfaces.h"
#include "porting/gxdPorting.h"

gxResult gxdStgIsStorageFile(const char16_t* path) {
  pdFileStream file;
  pdOpenFile(path, kPdOpenRead, file);
  if (file.bad() || file.fail()) return GX_STG_E_FILENOTFOUND;
  uint8_t raw[kHeaderSize];
  for (uint8_t& b : raw) b = 0xFF;
  file.read(reinterpret_cast<char*>(raw), kHeaderSize);
  if (file.bad() || file.fail()) return GX_E_FAIL;
  gxdFileHeader header;
  header.load(raw, kHeaderSize);
  return header.isAcceptable() ? GX_S_OK : GX_STG_E_INVALIDHEADER;
}
