#include "platform/gxPlatform.h"

std::vector<OLECHAR> gxPlatformName(const unsigned short* name) {
  std::vector<OLECHAR> out;
  if (name != nullptr)
    for (; *name != 0; ++name) out.push_back(static_cast<OLECHAR>(*name));
  out.push_back(0);
  return out;
}
