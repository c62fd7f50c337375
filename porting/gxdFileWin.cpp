// pdFile over a Windows file handle. Locks are the handle's share mode: an
// exclusive open shares nothing, a shared one lets others read only.
#include <windows.h>

#include <string>

#include "porting/gxdFile.h"

namespace {

int errorOf(DWORD code) {
  switch (code) {
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL:
      return kPdErrNoSpace;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return kPdErrNotFound;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return kPdErrExists;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
      return kPdErrAccess;
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
      return kPdErrShare;
    default:
      return kPdErrIO;
  }
}

class pdWinFile : public pdFile {
 public:
  explicit pdWinFile(HANDLE handle) : handle_(handle) {}
  ~pdWinFile() override { CloseHandle(handle_); }
  pdWinFile(const pdWinFile&) = delete;
  pdWinFile& operator=(const pdWinFile&) = delete;

  int64_t readAt(uint64_t offset, void* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      DWORD part = size - done > 0x40000000 ? 0x40000000
                                            : static_cast<DWORD>(size - done);
      OVERLAPPED at = {};
      at.Offset = static_cast<DWORD>(offset + done);
      at.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
      DWORD n = 0;
      if (!ReadFile(handle_, static_cast<char*>(data) + done, part, &n, &at)) {
        if (GetLastError() == ERROR_HANDLE_EOF) break;
        error_ = errorOf(GetLastError());
        return -1;
      }
      if (n == 0) break;
      done += n;
    }
    return static_cast<int64_t>(done);
  }

  bool writeAt(uint64_t offset, const void* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      DWORD part = size - done > 0x40000000 ? 0x40000000
                                            : static_cast<DWORD>(size - done);
      OVERLAPPED at = {};
      at.Offset = static_cast<DWORD>(offset + done);
      at.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
      DWORD n = 0;
      if (!WriteFile(handle_, static_cast<const char*>(data) + done, part, &n,
                     &at))
        return fail();
      if (n == 0) {
        error_ = kPdErrNoSpace;
        return false;
      }
      done += n;
    }
    return true;
  }

  bool size(uint64_t& bytes) override {
    LARGE_INTEGER length;
    if (!GetFileSizeEx(handle_, &length)) return fail();
    bytes = static_cast<uint64_t>(length.QuadPart);
    return true;
  }

  bool truncate(uint64_t bytes) override {
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(bytes);
    return SetFileInformationByHandle(handle_, FileEndOfFileInfo, &end,
                                      sizeof end) ||
           fail();
  }

  bool sync(bool) override { return FlushFileBuffers(handle_) || fail(); }

  int lastError() const override { return error_; }

 private:
  bool fail() {
    error_ = errorOf(GetLastError());
    return false;
  }

  HANDLE handle_;
  int error_ = kPdErrNone;
};

}  // namespace

std::unique_ptr<pdFile> pdOpenNativeFile(const char16_t* path, int mode,
                                         int lock, int& error) {
  error = kPdErrNone;
  if (path == nullptr || *path == 0) {
    error = kPdErrName;
    return nullptr;
  }
  std::wstring native(path, path + std::char_traits<char16_t>::length(path));
  DWORD access = GENERIC_READ | (mode == kPdFileRead ? 0 : GENERIC_WRITE);
  DWORD share = lock == kPdLockExclusive ? 0
                : lock == kPdLockShared  ? FILE_SHARE_READ
                                         : FILE_SHARE_READ | FILE_SHARE_WRITE;
  DWORD disposition = mode == kPdFileCreate      ? OPEN_ALWAYS
                      : mode == kPdFileCreateNew ? CREATE_NEW
                                                 : OPEN_EXISTING;
  HANDLE handle = CreateFileW(native.c_str(), access, share, nullptr,
                              disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    error = errorOf(GetLastError());
    return nullptr;
  }
  std::unique_ptr<pdFile> file(new pdWinFile(handle));
  if (mode == kPdFileCreate && !file->truncate(0)) {
    error = file->lastError();
    return nullptr;
  }
  return file;
}

bool pdRenameFile(const char16_t* from, const char16_t* to) {
  std::wstring a(from, from + std::char_traits<char16_t>::length(from));
  std::wstring b(to, to + std::char_traits<char16_t>::length(to));
  return MoveFileExW(a.c_str(), b.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

bool pdRemoveFile(const char16_t* path) {
  std::wstring native(path, path + std::char_traits<char16_t>::length(path));
  return DeleteFileW(native.c_str()) != 0;
}
