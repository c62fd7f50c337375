// Failures and the display of element paths in their messages.
#include <cstdio>

#include "porting/gxdPorting.h"
#include "python/src/gxpyFile.h"

std::string gxpyUtf8(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    const bool pair = c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() &&
                      text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
    std::string piece;
    if (pair) {
      pdUtf16ToUtf8(text.substr(i++, 2), piece);
    } else if (!pdUtf16ToUtf8(std::u16string(1, c), piece)) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04X", unsigned{c});
      piece = escaped;
    }
    out += piece;
  }
  return out;
}

std::string gxpyDisplay(const gxpyNames& names) {
  std::string out;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += '/';
    out += gxpyUtf8(names[i]);
  }
  return out;
}

void gxpyFail(HRESULT hr, const gxpyNames& names, gxpyFailure::Kind kind) {
  throw gxpyFailure{hr, gxpyDisplay(names), kind};
}

void gxpyFailFile(HRESULT hr, const std::u16string& path) {
  // Opening a file that is not a compound file is answered as "already
  // exists" by the platform (it would be replaced on create).
  throw gxpyFailure{hr, gxpyUtf8(path),
                    hr == STG_E_FILEALREADYEXISTS ? gxpyFailure::kCorrupt
                                                  : gxpyFailure::kByCode};
}
