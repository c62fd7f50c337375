// The reading commands: probe, info, tree, cat and extract. The whole-file
// listing comes from the inspection view; stream bytes are read through the
// exported interface on the portable backend.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <system_error>

#include "gxStorage.h"
#include "gxstg.h"
#include "portable/gxdFileView.h"

namespace gxstg {

namespace {

namespace fs = std::filesystem;

const unsigned int kModeRead = 0;  // read-only, share-deny-write (platform)
const size_t kChunk = 1 << 16;

std::u16string filePath(const std::string& utf8) {
  std::u16string path;
  if (!utf8ToUtf16(utf8, path)) path.clear();
  return path;
}

int exitCodeOf(gxdFileView::Status status) {
  switch (status) {
    case gxdFileView::Status::kOk:
      return kExitOk;
    case gxdFileView::Status::kMissing:
      return kExitMissing;
    default:
      return kExitCorrupt;
  }
}

// Loads FILE into `inspector`; on failure prints why and returns the exit
// code, else 0.
int load(const std::string& file, gxdFileView& inspector) {
  std::error_code ec;
  if (fs::is_directory(hostPath(file), ec))
    return fail(kExitMissing, file + ": is a directory");
  if (!fs::exists(hostPath(file), ec))
    return fail(kExitMissing, file + ": no such file");
  std::u16string path = filePath(file);
  if (path.empty()) return fail(kExitUsage, file + ": not valid UTF-8");
  gxdFileView::Status status = inspector.open(path.c_str());
  if (status == gxdFileView::Status::kOk) return kExitOk;
  std::string why = gxdFileView::describe(status);
  if (status != gxdFileView::Status::kMissing &&
      status != gxdFileView::Status::kCorrupt)
    why = "not a compound file (" + why + ")";
  return fail(exitCodeOf(status), file + ": " + why);
}

// The root of FILE opened read-only through the exported interface; closed
// by the destructor.
class Root {
 public:
  explicit Root(const std::string& file) {
    std::u16string path = filePath(file);
    gxStgOpenStorage(reinterpret_cast<const unsigned short*>(path.c_str()),
                     kModeRead, &root_, true);
  }
  ~Root() { gxStgCloseStorage(root_); }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;
  CGxAbsStorage* get() const { return root_; }

 private:
  CGxAbsStorage* root_ = nullptr;
};

const unsigned short* units(const std::u16string& s) {
  return reinterpret_cast<const unsigned short*>(s.c_str());
}

// Copies the stream at `names` (of `size` bytes) into `out`. Returns 0, or
// an exit code after printing why.
int copyStream(CGxAbsStorage* root, const std::vector<std::u16string>& names,
               uint64_t size, std::ostream& out, Progress* progress) {
  const std::string shown = gxdDisplayPath(names);
  CGxAbsStorage* storage = root;
  for (size_t i = 0; storage != nullptr && i + 1 < names.size(); ++i) {
    CGxAbsStorage* child = nullptr;
    storage->openIStorage(units(names[i]), true, &child);
    storage = child;
  }
  CGxAbsStream* stream = nullptr;
  if (storage != nullptr)
    storage->openIStream(units(names.back()), true, &stream);
  if (stream == nullptr)
    return fail(kExitCorrupt, shown + ": the stream cannot be opened");
  LARGE_INTEGER zero;
  zero.QuadPart = 0;
  if (!stream->seek(zero, GX_STREAM_SEEK_SET, nullptr))
    return fail(kExitCorrupt, shown + ": the stream cannot be positioned");
  std::vector<char> buffer(kChunk);
  uint64_t copied = 0;
  while (copied < size) {
    unsigned long long done = 0;
    stream->read(buffer.data(), buffer.size(), &done);
    if (done == 0 || done > buffer.size()) break;
    out.write(buffer.data(), static_cast<std::streamsize>(done));
    copied += done;
    if (progress != nullptr) progress->add(0, done);
  }
  if (copied != size)
    return fail(kExitCorrupt, shown + ": stream data ends after " +
                                  std::to_string(copied) + " of " +
                                  std::to_string(size) + " bytes");
  if (!out) return fail(kExitMissing, shown + ": write failed");
  return kExitOk;
}

}  // namespace

int runProbe(const Args& args) {
  if (args.empty())
    return fail(kExitUsage, "probe: which file? (gxstg probe FILE...)");
  int worst = kExitOk;
  for (const std::string& file : args) {
    std::error_code ec;
    std::string verdict;
    int code = kExitOk;
    if (fs::is_directory(hostPath(file), ec)) {
      verdict = "is a directory";
      code = kExitMissing;
    } else {
      std::u16string path = filePath(file);
      gxResult probe = gxStgIsStorageFile(units(path), true);
      gxdFileView inspector;
      gxdFileView::Status status = inspector.open(path.c_str());
      code = exitCodeOf(status);
      if (status == gxdFileView::Status::kOk && probe == GX_S_OK) {
        verdict = "compound file, version " +
                  std::to_string(inspector.file().header.majorVersion);
      } else if (status == gxdFileView::Status::kOk) {
        verdict = "loads, but the library's probe refuses it";
        code = kExitCorrupt;
      } else if (status == gxdFileView::Status::kCorrupt ||
                 status == gxdFileView::Status::kMissing) {
        verdict = gxdFileView::describe(status);
      } else {
        verdict = std::string("not a compound file: ") +
                  gxdFileView::describe(status);
      }
    }
    std::cout << file << ": " << verdict << "\n";
    // Missing files outrank corrupt ones in the exit code.
    if (code == kExitMissing || (code == kExitCorrupt && worst == kExitOk))
      worst = code;
  }
  return worst;
}

int runInfo(const Args& args) {
  if (args.size() != 1) return fail(kExitUsage, "info: usage: gxstg info FILE");
  gxdFileView inspector;
  if (int code = load(args[0], inspector)) return code;
  const gxdCompoundFile& f = inspector.file();
  uint64_t storages = 0, streams = 0, bytes = 0;
  for (const gxdFileViewElement& e : inspector.elements()) {
    if (e.isStorage) {
      ++storages;
    } else {
      ++streams;
      bytes += e.size;
    }
  }
  // Free sectors: FAT entries marked free for sectors inside the file.
  std::error_code ec;
  uint64_t length = fs::file_size(hostPath(args[0]), ec);
  uint64_t sectors = length > f.sectorSize ? (length - 1) / f.sectorSize : 0;
  uint64_t free = 0;
  for (uint64_t s = 0; s < sectors && s < f.fat.size(); ++s)
    if (f.fat[s] == kFreeSect) ++free;
  std::cout << "file:                 " << args[0] << "\n"
            << "version:              " << f.header.majorVersion << "."
            << f.header.minorVersion << "\n"
            << "sector size:          " << f.sectorSize << "\n"
            << "mini sector size:     " << f.miniSectorSize << "\n"
            << "mini stream cutoff:   " << f.header.miniStreamCutoff << "\n"
            << "FAT sectors:          " << f.header.numFatSectors << "\n"
            << "DIFAT sectors:        " << f.header.numDifatSectors << "\n"
            << "MiniFAT sectors:      " << f.header.numMiniFatSectors << "\n"
            << "directory sectors:    " << f.loadedDirectorySectors() << "\n"
            << "free sectors:         " << free << "\n"
            << "storages:             " << storages << "\n"
            << "streams:              " << streams << "\n"
            << "stream bytes:         " << bytes << "\n";
  return kExitOk;
}

int runTree(const Args& args) {
  if (args.size() != 1) return fail(kExitUsage, "tree: usage: gxstg tree FILE");
  gxdFileView inspector;
  if (int code = load(args[0], inspector)) return code;
  for (const gxdFileViewElement& e : inspector.elements())
    std::cout << gxdDisplayPath(e.names) << '\t'
              << (e.isStorage ? "storage" : "stream") << '\t' << e.size << '\n';
  return kExitOk;
}

int runCat(const Args& args) {
  if (args.size() != 2)
    return fail(kExitUsage, "cat: usage: gxstg cat FILE PATH");
  std::vector<std::u16string> names;
  if (!parseElementPath(args[1], names))
    return fail(kExitUsage,
                "cat: '" + args[1] + "' is not a valid element path");
  gxdFileView inspector;
  if (int code = load(args[0], inspector)) return code;
  for (const gxdFileViewElement& e : inspector.elements()) {
    if (e.names != names) continue;
    if (e.isStorage)
      return fail(kExitUsage, args[1] + ": is a storage, not a stream");
    Root root(args[0]);
    if (root.get() == nullptr)
      return fail(kExitCorrupt, args[0] + ": the library cannot open it");
    std::cout.flush();
    return copyStream(root.get(), names, e.size, std::cout, nullptr);
  }
  return fail(kExitMissing, args[0] + ": no element '" + args[1] + "'");
}

int runExtract(const Args& args) {
  if (args.size() != 2)
    return fail(kExitUsage, "extract: usage: gxstg extract FILE DIR");
  gxdFileView inspector;
  if (int code = load(args[0], inspector)) return code;
  const fs::path dir = hostPath(args[1]);
  std::error_code ec;
  if (fs::exists(dir, ec) || fs::is_symlink(dir, ec)) {
    if (!fs::is_directory(dir, ec))
      return fail(kExitUsage, args[1] + ": exists and is not a folder");
    if (!fs::is_empty(dir, ec))
      return fail(kExitUsage, args[1] + ": folder is not empty");
  } else if (!fs::create_directories(dir, ec)) {
    return fail(kExitMissing,
                args[1] + ": cannot create folder: " + ec.message());
  }
  Root root(args[0]);
  if (root.get() == nullptr)
    return fail(kExitCorrupt, args[0] + ": the library cannot open it");

  // Every element lands at DIR/escape(n1)/escape(n2)/...: each escaped name
  // is one component that is neither "." nor ".." and holds no separator,
  // and DIR starts empty and gets no links, so nothing leaves DIR.
  int result = kExitOk;
  Progress progress("extract");
  std::set<std::vector<std::u16string>> skipped;  // storages not created
  for (const gxdFileViewElement& e : inspector.elements()) {
    bool underSkipped = false;
    for (size_t n = 1; n < e.names.size() && !underSkipped; ++n)
      underSkipped = skipped.count(std::vector<std::u16string>(
                         e.names.begin(), e.names.begin() + n)) != 0;
    if (underSkipped) continue;
    fs::path target = dir;
    for (const std::u16string& name : e.names)
      target /= hostPath(escapeHostName(name));
    const std::string shown = gxdDisplayPath(e.names);
    if (fs::exists(fs::symlink_status(target, ec))) {
      fail(kExitCorrupt, "warning: " + shown + ": name collides with '" +
                             displayHostPath(target) + "'; skipped");
      if (e.isStorage) skipped.insert(e.names);
      result = kExitCorrupt;
      continue;
    }
    if (e.isStorage) {
      if (!fs::create_directory(target, ec))
        return fail(kExitMissing,
                    displayHostPath(target) + ": " + ec.message());
      progress.add(1, 0);
      continue;
    }
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    if (!out)
      return fail(kExitMissing, displayHostPath(target) + ": cannot create");
    if (int code = copyStream(root.get(), e.names, e.size, out, &progress)) {
      result = code;
      if (code != kExitCorrupt) return code;
    }
    progress.add(1, 0);
  }
  return result;
}

}  // namespace gxstg
