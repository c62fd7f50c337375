// Arbitrary bytes opened read-write by the service, over a file in memory.
//
// First pass: every storage is enumerated and opened, every stream read
// whole and again through a clone at a few positions; the release must
// leave the file byte for byte as it was. Second pass (direct or
// transacted, chosen by the input): a stream is created in the root and in
// the first storage, written across the mini-stream cutoff, shrunk and grown
// again, the first element of the root destroyed and the second renamed,
// then everything is released (a transacted root commits first).
//
// Every call answers S_OK or a clean refusal. The open keeps the resource
// bounds of gxFuzzOpenBudget, and so does each whole pass. A refused open
// leaves the file untouched; once a call reported STG_E_DOCFILECORRUPT the
// file is not written again; when no call did, the file opens again after
// the second pass and holds the stream written there.
#include <cstring>

#include "fuzz/gxServiceFuzz.h"
#include "tests/support/gxMemoryFile.h"

namespace {

constexpr uint64_t kReadBudget = uint64_t{64} << 20;  // bytes per pass

struct Pass {
  std::shared_ptr<gxMemoryBytes> bytes;
  bool corrupt = false;           // a call reported damage
  std::vector<uint8_t> atDamage;  // the file when it first did
  uint64_t bytesLeft = kReadBudget;

  // Checks the result of a call on a file that may be damaged.
  bool ok(HRESULT hr) {
    if (hr == STG_E_DOCFILECORRUPT && !corrupt) {
      corrupt = true;
      atDamage = bytes->bytes;
    }
    GXFUZZ_CHECK(hr == S_OK || hr == STG_E_DOCFILECORRUPT ||
                 hr == STG_E_FILENOTFOUND || hr == STG_E_INVALIDNAME ||
                 hr == STG_E_FILEALREADYEXISTS || hr == STG_E_ACCESSDENIED);
    return hr == S_OK;
  }
};

HRESULT openFile(Pass& pass, DWORD mode, IStorage** root) {
  *root = nullptr;
  return gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(pass.bytes), mode,
                          root);
}

void readStream(IStream* s, Pass& pass) {
  STATSTG info;
  if (!pass.ok(s->Stat(&info, STATFLAG_NONAME))) return;
  const uint64_t size = info.cbSize.QuadPart;
  if (size > pass.bytesLeft) return;
  std::string whole;
  if (!pass.ok(gxFuzzReadAll(s, whole, 4096))) return;
  GXFUZZ_CHECK(whole.size() == size);
  pass.bytesLeft -= size;
  IStream* copy = nullptr;
  if (!pass.ok(s->Clone(&copy))) return;
  const uint64_t offsets[] = {size / 2, size ? size - 1 : 0, size + 10, 4095};
  char buffer[700];
  for (uint64_t at : offsets) {
    LARGE_INTEGER move;
    move.QuadPart = static_cast<int64_t>(at);
    ULONG done = 0;
    if (!pass.ok(copy->Seek(move, STREAM_SEEK_SET, nullptr)) ||
        !pass.ok(copy->Read(buffer, sizeof buffer, &done)))
      break;
    GXFUZZ_CHECK(done == (at >= size ? 0 : std::min<uint64_t>(700, size - at)));
    GXFUZZ_CHECK(done == 0 ||
                 std::memcmp(buffer, whole.data() + at, done) == 0);
  }
  copy->Release();
}

// Lists, opens and reads everything below `root` without recursion.
void walk(IStorage* root, Pass& pass) {
  struct Frame {
    IStorage* storage;
    std::vector<std::pair<std::u16string, bool>> kids;
    size_t next = 0;
  };
  std::vector<Frame> stack(1, Frame{root, {}});
  if (!pass.ok(gxFuzzChildren(root, stack[0].kids))) return;
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.kids.size()) {
      if (stack.size() > 1) top.storage->Release();
      stack.pop_back();
      continue;
    }
    const auto& [name, isStorage] = top.kids[top.next++];
    const auto ole = gxFuzzOle(name);
    if (!isStorage) {
      IStream* s = nullptr;
      if (pass.ok(top.storage->OpenStream(ole.data(), nullptr, kGxFuzzReadWrite,
                                          0, &s))) {
        readStream(s, pass);
        s->Release();
      }
      continue;
    }
    IStorage* sub = nullptr;
    if (!pass.ok(top.storage->OpenStorage(ole.data(), nullptr, kGxFuzzReadWrite,
                                          nullptr, 0, &sub)))
      continue;
    Frame frame{sub, {}};
    if (!pass.ok(gxFuzzChildren(sub, frame.kids))) frame.kids.clear();
    stack.push_back(std::move(frame));
  }
}

const std::u16string kNewName = u"\x1gxfuzz new";

// Creates kNewName in `storage` and writes it across the cutoff; true when
// every call succeeded, with `content` what it must hold.
bool writeNew(IStorage* storage, Pass& pass, std::string& content) {
  IStream* s = nullptr;
  if (!pass.ok(storage->CreateStream(gxFuzzOle(kNewName).data(),
                                     kGxFuzzReadWrite | STGM_CREATE, 0, 0, &s)))
    return false;
  content.assign(5000, 'n');
  for (size_t i = 0; i < content.size(); i += 97) content[i] = char(i);
  ULONG done = 0;
  ULARGE_INTEGER size;
  LARGE_INTEGER move;
  move.QuadPart = 4090;
  bool good = pass.ok(s->Write(content.data(), 5000, &done));
  size.QuadPart = 100;
  good = good && pass.ok(s->SetSize(size));
  size.QuadPart = 4200;
  good = good && pass.ok(s->SetSize(size)) &&
         pass.ok(s->Seek(move, STREAM_SEEK_SET, nullptr)) &&
         pass.ok(s->Write("across", 6, &done));
  content.resize(100);
  content.resize(4200, '\0');
  content.replace(4090, 6, "across");
  s->Release();
  return good;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> original(data, data + size);
  Pass read;
  read.bytes = std::make_shared<gxMemoryBytes>();
  read.bytes->bytes = original;

  gxFuzzOpenBudget readBudget(size);
  gxFuzzOpenBudget budget(size);
  IStorage* root = nullptr;
  const HRESULT opened = openFile(read, kGxFuzzReadWrite, &root);
  budget.check();
  if (opened != S_OK) {
    GXFUZZ_CHECK(root == nullptr);
    GXFUZZ_CHECK(opened == STG_E_FILEALREADYEXISTS ||
                 opened == STG_E_INVALIDHEADER ||
                 opened == STG_E_DOCFILECORRUPT || opened == STG_E_READFAULT);
    GXFUZZ_CHECK(read.bytes->bytes == original);
    return 0;
  }
  walk(root, read);
  readBudget.check();
  GXFUZZ_CHECK(root->Release() == 0);
  GXFUZZ_CHECK(read.bytes->bytes == original);

  Pass edit;
  edit.bytes = std::make_shared<gxMemoryBytes>();
  edit.bytes->bytes = original;
  const bool transacted = size > 0 && (data[size - 1] & 1) != 0;
  gxFuzzOpenBudget editBudget(size);
  GXFUZZ_CHECK(openFile(edit,
                        kGxFuzzReadWrite | (transacted ? STGM_TRANSACTED : 0),
                        &root) == S_OK);
  std::string content;
  bool wrote = writeNew(root, edit, content);
  std::vector<std::pair<std::u16string, bool>> kids;
  if (edit.ok(gxFuzzChildren(root, kids))) {
    for (const auto& [name, isStorage] : kids) {
      if (!isStorage || name == kNewName) continue;
      IStorage* sub = nullptr;
      if (edit.ok(root->OpenStorage(gxFuzzOle(name).data(), nullptr,
                                    kGxFuzzReadWrite, nullptr, 0, &sub))) {
        std::string ignored;
        writeNew(sub, edit, ignored);
        sub->Release();
      }
      break;
    }
    std::vector<std::u16string> others;
    for (const auto& kid : kids)
      if (kid.first != kNewName) others.push_back(kid.first);
    if (!others.empty())
      edit.ok(root->DestroyElement(gxFuzzOle(others[0]).data()));
    if (others.size() > 1)
      edit.ok(root->RenameElement(gxFuzzOle(others[1]).data(),
                                  gxFuzzOle(u"\x1gxfuzz renamed").data()));
  }
  if (transacted) wrote = edit.ok(root->Commit(STGC_DEFAULT)) && wrote;
  editBudget.check();
  GXFUZZ_CHECK(root->Release() == 0);
  if (edit.corrupt) {
    GXFUZZ_CHECK(edit.bytes->bytes == edit.atDamage);
    return 0;
  }
  Pass again;
  again.bytes = edit.bytes;
  GXFUZZ_CHECK(openFile(again, kGxFuzzReadWrite, &root) == S_OK);
  if (wrote) {
    IStream* s = nullptr;
    std::string got;
    GXFUZZ_CHECK(root->OpenStream(gxFuzzOle(kNewName).data(), nullptr,
                                  kGxFuzzReadWrite, 0, &s) == S_OK);
    GXFUZZ_CHECK(gxFuzzReadAll(s, got) == S_OK && got == content);
    s->Release();
  }
  walk(root, again);
  GXFUZZ_CHECK(!again.corrupt);
  root->Release();
  return 0;
}
