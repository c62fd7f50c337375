// Host calls on Windows: ReadFile/WriteFile at explicit offsets on file
// handles, copies through a buffer, tables from the ordinary heap.
#include <windows.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "porting/gxdHost.h"
#include "porting/gxdPorting.h"
#include "porting/gxdTable.h"

namespace {

// Transfers are cut into pieces one call takes (its count is 32-bit).
constexpr size_t kMaxTransfer = size_t{1} << 30;

HANDLE native(pdHandle file) { return reinterpret_cast<HANDLE>(file); }

OVERLAPPED at(uint64_t offset) {
  OVERLAPPED o = {};
  o.Offset = static_cast<DWORD>(offset);
  o.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return o;
}

}  // namespace

pdHandle pdHostOpen(const char16_t* path, int mode) {
  std::wstring name;
  for (const char16_t* p = path; *p != 0; ++p)
    name.push_back(static_cast<wchar_t>(*p));
  DWORD access, disposition;
  switch (mode) {
    case kPdOpenRead:
      access = GENERIC_READ;
      disposition = OPEN_EXISTING;
      break;
    case kPdOpenCreate:
    case kPdOpenTemp:
      // Emptied on open, so a created file replaces an old one wholly.
      access = GENERIC_READ | GENERIC_WRITE;
      disposition = CREATE_ALWAYS;
      break;
    default:
      return kPdNoHandle;
  }
  // Others may read and write the file meanwhile, as with the C runtime's
  // own file opening.
  HANDLE h =
      ::CreateFileW(name.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return kPdNoHandle;
  return reinterpret_cast<pdHandle>(h);
}

void pdHostClose(pdHandle file) {
  if (file != kPdNoHandle) ::CloseHandle(native(file));
}

int64_t pdHostRead(pdHandle file, uint64_t offset, void* data, size_t size) {
  uint8_t* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    OVERLAPPED o = at(offset + done);
    DWORD n = 0;
    const DWORD piece = static_cast<DWORD>(std::min(size - done, kMaxTransfer));
    if (!::ReadFile(native(file), out + done, piece, &n, &o)) {
      if (::GetLastError() == ERROR_HANDLE_EOF) break;
      return done > 0 ? static_cast<int64_t>(done) : -1;
    }
    if (n == 0) break;
    done += n;
  }
  return static_cast<int64_t>(done);
}

int64_t pdHostWrite(pdHandle file, uint64_t offset, const void* data,
                    size_t size) {
  const uint8_t* in = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    OVERLAPPED o = at(offset + done);
    DWORD n = 0;
    const DWORD piece = static_cast<DWORD>(std::min(size - done, kMaxTransfer));
    if (!::WriteFile(native(file), in + done, piece, &n, &o) || n == 0)
      return done > 0 ? static_cast<int64_t>(done) : -1;
    done += n;
  }
  return static_cast<int64_t>(done);
}

int64_t pdHostWriteTwo(pdHandle file, uint64_t offset, const void* first,
                       size_t firstSize, const void* second,
                       size_t secondSize) {
  const int64_t n = pdHostWrite(file, offset, first, firstSize);
  if (n != static_cast<int64_t>(firstSize)) return n;
  const int64_t k = pdHostWrite(file, offset + firstSize, second, secondSize);
  return static_cast<int64_t>(firstSize) + std::max<int64_t>(k, 0);
}

bool pdHostSize(pdHandle file, uint64_t* size) {
  LARGE_INTEGER length;
  if (!::GetFileSizeEx(native(file), &length) || length.QuadPart < 0)
    return false;
  *size = static_cast<uint64_t>(length.QuadPart);
  return true;
}

bool pdHostCopy(pdHandle source, uint64_t from, pdHandle target, uint64_t to,
                uint64_t size) {
  return pdHostCopyThroughMemory(source, from, target, to, size);
}

void* pdTableAllocate(size_t bytes) { return ::operator new(bytes); }

size_t pdTableLargeBytes() { return 0; }

void pdTableFree(void* table, size_t /*bytes*/) { ::operator delete(table); }
