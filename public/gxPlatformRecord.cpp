#include "public/gxPlatformRecord.h"

void gxTakePlatformRecord(STATSTG& from, gxdsSTATSTG* to) {
  std::vector<unsigned short> name;
  if (from.pwcsName != nullptr)
    for (const OLECHAR* p = from.pwcsName; *p != 0; ++p)
      name.push_back(static_cast<unsigned short>(*p));
  name.push_back(0);
  to->setName(name.data());
  to->setType(from.type);
  to->setSize(from.cbSize.LowPart, from.cbSize.HighPart);
  gxFreePlatformName(from);
}

void gxFreePlatformName(STATSTG& record) {
  if (record.pwcsName != nullptr) CoTaskMemFree(record.pwcsName);
  record.pwcsName = nullptr;
}
