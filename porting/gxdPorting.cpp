#include "porting/gxdPorting.h"

void pdOpenFile(const char16_t* path, int mode, pdFileStream& stream) {
  if (path == nullptr ||
      (mode != kPdOpenRead && mode != kPdOpenCreate && mode != kPdOpenTemp) ||
      !stream.file().open(path, mode))
    stream.setstate(std::ios::failbit);
}

void pdConvertWCHAR2String(const char16_t* source, uint64_t maxUnits,
                           std::u16string& target) {
  uint64_t n = 0;
  while (n < maxUnits && source[n] != 0) ++n;
  target.assign(source, static_cast<size_t>(n));
}

int pdCompareNoCase(const char16_t* a, size_t aLength, const char16_t* b,
                    size_t bLength) {
  size_t n = aLength < bLength ? aLength : bLength;
  for (size_t i = 0; i < n; ++i) {
    unsigned x = a[i], y = b[i];
    if (x >= u'A' && x <= u'Z') x += 0x20;
    if (y >= u'A' && y <= u'Z') y += 0x20;
    if (x != y) return x < y ? -1 : 1;
  }
  if (aLength == bLength) return 0;
  return aLength < bLength ? -1 : 1;
}

int pdCompareNoCase(const char16_t* a, const char16_t* b) {
  return pdCompareNoCase(a, std::char_traits<char16_t>::length(a), b,
                         std::char_traits<char16_t>::length(b));
}

std::u16string pdFromUnits(const unsigned short* units) {
  std::u16string out;
  if (units == nullptr) return out;
  for (; *units != 0; ++units) out.push_back(static_cast<char16_t>(*units));
  return out;
}

bool pdUtf16ToUtf8(const std::u16string& in, std::string& out) {
  out.clear();
  out.reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    uint32_t c = in[i];
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 1 >= in.size() || in[i + 1] < 0xDC00 || in[i + 1] > 0xDFFF)
        return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return false;
    }
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return true;
}

char16_t pdFoldUpper(char16_t u) {
  if (u < 0x80) return u >= u'a' && u <= u'z' ? u - 0x20 : u;
  if (u >= 0xE0 && u <= 0xFE && u != 0xF7) return u - 0x20;
  if (u == 0xFF) return 0x178;
  if (u >= 0x100 && u <= 0x17F) {
    // Pairs of upper then lower case, shifted by one between 0x138 and
    // 0x148 and from 0x179 on; 0x131 (dotless i) and 0x138 (kra) stand alone.
    bool shifted = (u >= 0x139 && u <= 0x148) || u >= 0x179;
    if (u == 0x131 || u == 0x138 || u == 0x149 || u == 0x17F) return u;
    bool lower = shifted ? (u % 2 == 0) : (u % 2 == 1);
    return lower ? u - 1 : u;
  }
  if (u >= 0x3B1 && u <= 0x3C9 && u != 0x3C2) return u - 0x20;
  if (u >= 0x430 && u <= 0x44F) return u - 0x20;
  if (u >= 0x450 && u <= 0x45F) return u - 0x50;
  if (u >= 0xFF41 && u <= 0xFF5A) return u - 0x20;
  return u;
}
