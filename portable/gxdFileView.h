// A read-only view of a whole compound file, for tools and tests that must
// list every element (the portable enumerator lists only open children).
// Internal to the build; not exported.
#ifndef GXSTORAGE_PORTABLE_GXDFILEVIEW_H_
#define GXSTORAGE_PORTABLE_GXDFILEVIEW_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/gxdCompoundFile.h"
#include "porting/gxdFileBuf.h"

struct gxdFileViewElement {
  std::vector<std::u16string> names;  // path from the root, one per level
  bool isStorage = false;
  uint64_t size = 0;
  uint32_t startSector = 0;
};

class gxdFileView {
 public:
  enum class Status {
    kOk,
    kMissing,   // the file cannot be opened
    kTooShort,  // fewer than 512 bytes
    kBadSignature,
    kBadVersion,   // major version not 3 or 4
    kBadReserved,  // nonzero reserved header bytes
    kCorrupt,      // the header is acceptable but the file does not load
  };

  gxdFileView() = default;
  gxdFileView(const gxdFileView&) = delete;
  gxdFileView& operator=(const gxdFileView&) = delete;

  // Loads the file read-only.
  Status open(const char16_t* path);
  // Loads from any stream positioned at the start of a file; the stream
  // must outlive the inspector.
  Status open(std::iostream* stream);

  const gxdCompoundFile& file() const { return *file_; }
  // Every element below the root, storages before their children, in the
  // order of the loaded tree.
  std::vector<gxdFileViewElement> elements() const;

  static const char* describe(Status status);

 private:
  std::unique_ptr<pdFileStream> stream_;
  std::unique_ptr<gxdCompoundFile> file_;
};

// The path joined with '/' as UTF-8. Inside a name, units below 0x20 and '/'
// are written as \ooo octal escapes, a backslash as \\, and unpaired
// surrogates as \uXXXX.
std::string gxdDisplayPath(const std::vector<std::u16string>& names);
std::string gxdDisplayName(const std::u16string& name);

#endif  // GXSTORAGE_PORTABLE_GXDFILEVIEW_H_
