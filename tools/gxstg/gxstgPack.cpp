// The pack command: a folder tree into a new compound file, written through
// the exported interface on the portable backend.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <set>
#include <system_error>

#include "gxStorage.h"
#include "gxstg.h"
#include "portable/gxdFileView.h"

namespace gxstg {

namespace {

namespace fs = std::filesystem;

// Create, read/write, exclusive (the platform's STGM bits; the portable
// backend does not look at them).
const unsigned int kModeCreate = 0x1012;
const size_t kMaxNameUnits = 31;
const uint64_t kMaxStreamBytes = 0xFFFFFFFFull;  // streams stay below 4 GiB
const uint64_t kMaxTempBytes = 0x7FFFFFFFull;    // the temporary file's limit
const size_t kChunk = 1 << 16;

struct Node {
  std::u16string name;
  fs::path path;
  bool isFolder = false;
  uint64_t size = 0;
  std::vector<Node> children;
};

const unsigned short* units(const std::u16string& s) {
  return reinterpret_cast<const unsigned short*>(s.c_str());
}

struct Scan {
  uint64_t blocks = 0;  // 512-byte blocks the temporary file will take
  uint64_t elements = 0;
};

// Reads the folder `node.path` into `node.children`, sorted by host name.
// Returns 0 or an exit code after printing why.
int scanFolder(Node& node, Scan& scan) {
  std::error_code ec;
  std::vector<fs::directory_entry> entries;
  for (fs::directory_iterator it(node.path, ec), end; !ec && it != end;
       it.increment(ec))
    entries.push_back(*it);
  if (ec)
    return fail(kExitMissing, displayHostPath(node.path) + ": " + ec.message());
  std::sort(entries.begin(), entries.end());
  std::set<std::u16string> seen;
  for (const fs::directory_entry& entry : entries) {
    const std::string host = displayHostPath(entry.path());
    fs::file_status status = entry.symlink_status(ec);
    if (fs::is_symlink(status) ||
        !(fs::is_directory(status) || fs::is_regular_file(status))) {
      std::cerr << "gxstg: warning: " << host
                << ": not a regular file or folder; skipped\n";
      continue;
    }
    Node child;
    child.path = entry.path();
    child.isFolder = fs::is_directory(status);
    if (!unescapeHostName(displayHostPath(entry.path().filename()), child.name))
      return fail(kExitUsage,
                  host + ": the name is not valid UTF-8 or holds %0000");
    if (child.name.size() > kMaxNameUnits)
      return fail(kExitUsage,
                  host + ": the name is " + std::to_string(child.name.size()) +
                      " UTF-16 units long; compound-file names hold at most " +
                      std::to_string(kMaxNameUnits) + ", so it would be cut");
    if (!seen.insert(child.name).second)
      return fail(kExitUsage,
                  host + ": another name in the folder means the same element");
    if (!child.isFolder) {
      child.size = fs::file_size(child.path, ec);
      if (ec) return fail(kExitMissing, host + ": " + ec.message());
      if (child.size > kMaxStreamBytes)
        return fail(kExitUsage, host + ": streams must stay below 4 GiB");
      scan.blocks += (child.size + 511) / 512;
      if (scan.blocks * 512 > kMaxTempBytes)
        return fail(kExitUsage,
                    host +
                        ": more than 2 GiB of data in all; "
                        "the library's temporary file cannot hold it");
    }
    ++scan.elements;
    if (child.isFolder)
      if (int code = scanFolder(child, scan)) return code;
    node.children.push_back(std::move(child));
  }
  return kExitOk;
}

int writeFile(const Node& node, CGxAbsStream* stream, Progress& progress) {
  std::ifstream in(node.path, std::ios::binary);
  if (!in)
    return fail(kExitMissing, displayHostPath(node.path) + ": cannot be read");
  std::vector<char> buffer(kChunk);
  uint64_t total = 0;
  while (in) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    std::streamsize got = in.gcount();
    if (got <= 0) break;
    unsigned long long written = 0;
    stream->write(buffer.data(), static_cast<unsigned long long>(got),
                  &written);
    if (written != static_cast<unsigned long long>(got))
      return fail(kExitMissing, displayHostPath(node.path) +
                                    ": the library did not take its data");
    total += written;
    progress.add(0, written);
  }
  if (in.bad() || total != node.size)
    return fail(kExitMissing, displayHostPath(node.path) +
                                  ": read failed or the file changed");
  return kExitOk;
}

int writeFolder(const Node& node, CGxAbsStorage* storage, Progress& progress) {
  for (const Node& child : node.children) {
    const std::string host = displayHostPath(child.path);
    if (child.isFolder) {
      CGxAbsStorage* sub = nullptr;
      storage->openIStorage(units(child.name), false, &sub);
      if (sub == nullptr)
        return fail(kExitMissing, host + ": cannot create the storage");
      progress.add(1, 0);
      if (int code = writeFolder(child, sub, progress)) return code;
    } else {
      CGxAbsStream* stream = nullptr;
      storage->openIStream(units(child.name), false, &stream);
      if (stream == nullptr)
        return fail(kExitMissing, host + ": cannot create the stream");
      if (int code = writeFile(child, stream, progress)) return code;
      progress.add(1, 0);
    }
  }
  return kExitOk;
}

// The temporary file the library keeps beside a file it creates: the path
// up to its last '.', followed by ".$t$".
std::u16string temporaryFileName(const std::u16string& path) {
  return path.substr(0, path.rfind(u'.')) + u".$t$";
}

}  // namespace

int runPack(const Args& args) {
  if (args.size() != 2)
    return fail(kExitUsage, "pack: usage: gxstg pack DIR FILE");
  std::error_code ec;
  Node top;
  top.path = hostPath(args[0]);
  top.isFolder = true;
  if (!fs::is_directory(top.path, ec))
    return fail(kExitMissing, args[0] + ": no such folder");
  std::u16string path;
  if (!utf8ToUtf16(args[1], path))
    return fail(kExitUsage, args[1] + ": not valid UTF-8");
  if (fs::is_directory(hostPath(args[1]), ec))
    return fail(kExitUsage, args[1] + ": is a folder");
  Scan scan;
  if (int code = scanFolder(top, scan)) return code;

  CGxAbsStorage* root = nullptr;
  gxStgCreateStorage(units(path), kModeCreate, &root, true);
  if (root == nullptr)
    return fail(kExitMissing, args[1] + ": cannot be created");
  int code;
  {
    Progress progress("pack");
    code = writeFolder(top, root, progress);
  }
  if (code == kExitOk) root->commit();
  gxStgCloseStorage(root);
  fs::remove(hostPath(utf16ToUtf8(temporaryFileName(path))), ec);
  if (code != kExitOk) return code;

  // The library reports no write failure; loading the result back is how a
  // full disk or an unwritable file shows.
  gxdFileView check;
  if (check.open(path.c_str()) != gxdFileView::Status::kOk ||
      check.elements().size() != scan.elements)
    return fail(kExitMissing, args[1] + ": writing the file failed");
  return kExitOk;
}

}  // namespace gxstg
