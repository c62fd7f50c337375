#include "portable/gxdFileView.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "engine/gxdFormat.h"
#include "porting/gxdPorting.h"

gxdFileView::Status gxdFileView::open(const char16_t* path) {
  stream_.reset(new pdFileStream);
  pdOpenFile(path, kPdOpenRead, *stream_);
  if (stream_->fail()) return Status::kMissing;
  return open(stream_.get());
}

gxdFileView::Status gxdFileView::open(std::iostream* stream) {
  uint8_t raw[kHeaderSize];
  stream->read(reinterpret_cast<char*>(raw), kHeaderSize);
  if (stream->gcount() != static_cast<std::streamsize>(kHeaderSize))
    return Status::kTooShort;
  gxdFileHeader header;
  header.load(raw, kHeaderSize);
  if (std::memcmp(header.signature, kGxdSignature, 8) != 0)
    return Status::kBadSignature;
  if (header.majorVersion != 3 && header.majorVersion != 4)
    return Status::kBadVersion;
  if (header.reserved1 != 0 || header.reserved2 != 0)
    return Status::kBadReserved;
  stream->clear();
  stream->seekg(0);
  file_.reset(new gxdCompoundFile(stream, nullptr, true));
  if (stream->fail() || stream->bad()) return Status::kCorrupt;
  return Status::kOk;
}

std::vector<gxdFileViewElement> gxdFileView::elements() const {
  std::vector<gxdFileViewElement> out;
  if (!file_) return out;
  // Depth-first with an explicit stack; each storage is listed before its
  // children, streams before sub-storages' contents at each level.
  struct Frame {
    const gxdStorageEntry* entry;
    std::vector<std::u16string> names;
  };
  std::vector<Frame> stack;
  stack.push_back({&file_->rootEntry, {}});
  while (!stack.empty()) {
    Frame frame = std::move(stack.back());
    stack.pop_back();
    std::vector<Frame> below;
    for (const gxdStorageEntry& s : frame.entry->storages) {
      gxdFileViewElement e;
      e.names = frame.names;
      e.names.push_back(s.name);
      e.isStorage = true;
      e.size = 0;
      e.startSector = s.startSector;
      out.push_back(e);
      below.push_back({&s, e.names});
    }
    for (const gxdDirEntry& s : frame.entry->streams) {
      gxdFileViewElement e;
      e.names = frame.names;
      e.names.push_back(s.name);
      e.size = s.size;
      e.startSector = s.startSector;
      out.push_back(e);
    }
    for (size_t i = below.size(); i-- > 0;)
      stack.push_back(std::move(below[i]));
  }
  return out;
}

const char* gxdFileView::describe(Status status) {
  switch (status) {
    case Status::kOk:
      return "compound file";
    case Status::kMissing:
      return "cannot be opened";
    case Status::kTooShort:
      return "too short for a compound file header";
    case Status::kBadSignature:
      return "bad signature";
    case Status::kBadVersion:
      return "unsupported major version";
    case Status::kBadReserved:
      return "nonzero reserved header bytes";
    case Status::kCorrupt:
      return "corrupt compound file";
  }
  return "unknown";
}

std::string gxdDisplayName(const std::u16string& name) {
  std::string out;
  for (size_t i = 0; i < name.size(); ++i) {
    char16_t c = name[i];
    char buf[16];
    if (c < 0x20 || c == u'/') {
      std::snprintf(buf, sizeof(buf), "\\%03o", static_cast<unsigned>(c));
      out += buf;
    } else if (c == u'\\') {
      out += "\\\\";
    } else if (c >= 0xD800 && c <= 0xDBFF && i + 1 < name.size() &&
               name[i + 1] >= 0xDC00 && name[i + 1] <= 0xDFFF) {
      std::string utf8;
      pdUtf16ToUtf8(name.substr(i, 2), utf8);
      out += utf8;
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      std::snprintf(buf, sizeof(buf), "\\u%04X", static_cast<unsigned>(c));
      out += buf;
    } else {
      std::string utf8;
      pdUtf16ToUtf8(std::u16string(1, c), utf8);
      out += utf8;
    }
  }
  return out;
}

std::string gxdDisplayPath(const std::vector<std::u16string>& names) {
  std::string out;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i > 0) out += '/';
    out += gxdDisplayName(names[i]);
  }
  return out;
}
