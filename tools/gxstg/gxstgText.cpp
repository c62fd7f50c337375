// Text conversions of the tool: UTF-8 and UTF-16, element paths as `tree`
// prints them, and the escape of element names into host file names.
#include <cstdio>

#include "gxstg.h"

namespace gxstg {

namespace {

bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
         (c >= 'A' && c <= 'F');
}

unsigned hexValue(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  return static_cast<unsigned>(c - 'A' + 10);
}

// True when text[at..at+4] is '%' and four hex digits.
template <typename Text>
bool isEscapeAt(const Text& text, size_t at) {
  if (at + 5 > text.size() || text[at] != '%') return false;
  for (size_t i = 1; i <= 4; ++i) {
    auto c = text[at + i];
    if (c > 0x7F || !isHex(static_cast<char>(c))) return false;
  }
  return true;
}

void appendEscape(std::string& out, char16_t unit) {
  char buf[8];
  std::snprintf(buf, sizeof(buf), "%%%04X", static_cast<unsigned>(unit));
  out += buf;
}

bool isUnsafeUnit(char16_t c) {
  if (c < 0x20 || c == u'/') return true;
#ifdef _WIN32
  for (char16_t bad : u"\\:*?\"<>|")
    if (bad != 0 && c == bad) return true;
#endif
  return false;
}

#ifdef _WIN32
bool isReservedDeviceName(const std::u16string& name) {
  std::u16string base = name.substr(0, name.find(u'.'));
  for (char16_t& c : base)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 32);
  static const char16_t* const kNames[] = {u"CON", u"PRN", u"AUX", u"NUL"};
  for (const char16_t* n : kNames)
    if (base == n) return true;
  if (base.size() == 4 &&
      (base.compare(0, 3, u"COM") == 0 || base.compare(0, 3, u"LPT") == 0))
    return base[3] >= u'0' && base[3] <= u'9';
  return false;
}
#endif

}  // namespace

bool utf8ToUtf16(const std::string& in, std::u16string& out) {
  out.clear();
  size_t i = 0;
  while (i < in.size()) {
    unsigned char c = static_cast<unsigned char>(in[i]);
    uint32_t cp;
    size_t extra;
    if (c < 0x80) {
      cp = c;
      extra = 0;
    } else if ((c & 0xE0) == 0xC0) {
      cp = c & 0x1F;
      extra = 1;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F;
      extra = 2;
    } else if ((c & 0xF8) == 0xF0) {
      cp = c & 0x07;
      extra = 3;
    } else {
      return false;
    }
    if (i + extra >= in.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
      unsigned char t = static_cast<unsigned char>(in[i + k]);
      if ((t & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (t & 0x3F);
    }
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
      return false;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (cp >> 10));
      out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      out += static_cast<char16_t>(cp);
    }
    i += extra + 1;
  }
  return true;
}

std::string utf16ToUtf8(const std::u16string& in) {
  std::string out;
  for (size_t i = 0; i < in.size(); ++i) {
    uint32_t cp = in[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() &&
        in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

std::filesystem::path hostPath(const std::string& utf8) {
  return std::filesystem::u8path(utf8);
}

std::string displayHostPath(const std::filesystem::path& path) {
  return path.u8string();
}

bool parseElementPath(const std::string& text,
                      std::vector<std::u16string>& names) {
  names.clear();
  size_t at = 0;
  while (at < text.size() && text[at] == '/') ++at;  // a leading '/' is allowed
  std::string component;
  std::u16string name;
  auto flush = [&]() -> bool {
    std::u16string tail;
    if (!utf8ToUtf16(component, tail)) return false;
    name += tail;
    component.clear();
    return true;
  };
  for (; at <= text.size(); ++at) {
    if (at == text.size() || text[at] == '/') {
      if (!flush() || name.empty()) return false;
      names.push_back(name);
      name.clear();
      continue;
    }
    if (text[at] != '\\') {
      component += text[at];
      continue;
    }
    if (!flush()) return false;
    if (at + 1 < text.size() && text[at + 1] == '\\') {
      name += u'\\';
      at += 1;
    } else if (at + 3 < text.size() && text[at + 1] >= '0' &&
               text[at + 1] <= '7' && text[at + 2] >= '0' &&
               text[at + 2] <= '7' && text[at + 3] >= '0' &&
               text[at + 3] <= '7') {
      unsigned v = (text[at + 1] - '0') * 64u + (text[at + 2] - '0') * 8u +
                   (text[at + 3] - '0');
      if (v == 0) return false;
      name += static_cast<char16_t>(v);
      at += 3;
    } else if (at + 5 < text.size() && text[at + 1] == 'u' &&
               isHex(text[at + 2]) && isHex(text[at + 3]) &&
               isHex(text[at + 4]) && isHex(text[at + 5])) {
      unsigned v = 0;
      for (size_t k = 2; k <= 5; ++k) v = v * 16 + hexValue(text[at + k]);
      if (v == 0) return false;
      name += static_cast<char16_t>(v);
      at += 5;
    } else {
      return false;
    }
  }
  return !names.empty();
}

std::string escapeHostName(const std::u16string& name) {
  if (name.empty()) return "%0000";
  std::string out;
  bool allDots = name.find_first_not_of(u'.') == std::u16string::npos;
  for (size_t i = 0; i < name.size(); ++i) {
    char16_t c = name[i];
    bool last = i + 1 == name.size();
    if (allDots && i == 0) {
      appendEscape(out, c);
    } else if (c >= 0xD800 && c <= 0xDBFF && !last && name[i + 1] >= 0xDC00 &&
               name[i + 1] <= 0xDFFF) {
      out += utf16ToUtf8(name.substr(i, 2));
      ++i;
    } else if ((c >= 0xD800 && c <= 0xDFFF) || isUnsafeUnit(c) ||
               (c == u'%' && isEscapeAt(name, i))) {
      appendEscape(out, c);
#ifdef _WIN32
    } else if (last && (c == u'.' || c == u' ')) {
      appendEscape(out, c);
    } else if (i == 0 && isReservedDeviceName(name)) {
      appendEscape(out, c);
#endif
    } else {
      out += utf16ToUtf8(std::u16string(1, c));
    }
  }
  return out;
}

bool unescapeHostName(const std::string& utf8, std::u16string& name) {
  name.clear();
  std::string run;
  for (size_t i = 0; i <= utf8.size(); ++i) {
    if (i < utf8.size() && !isEscapeAt(utf8, i)) {
      run += utf8[i];
      continue;
    }
    std::u16string part;
    if (!utf8ToUtf16(run, part)) return false;
    name += part;
    run.clear();
    if (i == utf8.size()) break;
    unsigned v = 0;
    for (size_t k = 1; k <= 4; ++k) v = v * 16 + hexValue(utf8[i + k]);
    if (v == 0) return false;
    name += static_cast<char16_t>(v);
    i += 4;
  }
  return true;
}

}  // namespace gxstg
