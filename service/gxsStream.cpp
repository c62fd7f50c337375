// The stream object: reads and writes at its position, size changes, copies
// to other streams, and the record of its entry.
#include "service/gxsStream.h"

#include <algorithm>
#include <limits>
#include <vector>

gxsStream::gxsStream(gxsContext* context, gxsNode* parent, uint32_t id,
                     DWORD mode, uint64_t position)
    : mode_(mode), position_(position) {
  node_.parent = parent;
  node_.id = id;
  node_.kind = gxsNode::kStream;
  context->enlist(&node_);
}

gxsStream::~gxsStream() { node_.context->delist(&node_); }

HRESULT gxsStream::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualGUID(riid, IID_IUnknown) ||
      IsEqualGUID(riid, IID_ISequentialStream) ||
      IsEqualGUID(riid, IID_IStream)) {
    *object = this;
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG gxsStream::AddRef() { return ++refs_; }

ULONG gxsStream::Release() {
  ULONG left = --refs_;
  if (left == 0) delete this;
  return left;
}

HRESULT gxsStream::Read(void* data, ULONG size, ULONG* done) {
  if (done != nullptr) *done = 0;
  if (!gxsCanRead(mode_)) return STG_E_ACCESSDENIED;
  if (gxsGone(node_)) return STG_E_REVERTED;
  if (size == 0) return S_OK;
  if (data == nullptr) return STG_E_INVALIDPOINTER;
  uint32_t got = 0;
  HRESULT hr = doc().readStream(node_.id, position_, data, size, got);
  position_ += got;
  if (done != nullptr) *done = got;
  return hr;
}

HRESULT gxsStream::Write(const void* data, ULONG size, ULONG* written) {
  if (written != nullptr) *written = 0;
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  if (gxsGone(node_)) return STG_E_REVERTED;
  if (data == nullptr) return STG_E_INVALIDPOINTER;
  if (size == 0) return S_OK;
  uint32_t put = 0;
  HRESULT hr = doc().writeStream(node_.id, position_, data, size, put);
  position_ += put;
  if (written != nullptr) *written = put;
  return node_.context->finish(hr);
}

HRESULT gxsStream::Seek(LARGE_INTEGER move, DWORD origin,
                        ULARGE_INTEGER* newPosition) {
  if (gxsGone(node_)) return STG_E_REVERTED;
  uint64_t base = 0;
  switch (origin) {
    case STREAM_SEEK_SET:
      break;
    case STREAM_SEEK_CUR:
      base = position_;
      break;
    case STREAM_SEEK_END:
      base = doc().entry(node_.id).streamSize;
      break;
    default:
      return STG_E_INVALIDFUNCTION;
  }
  // Positions are 64-bit and never negative; a move before the start or
  // past 2^64 is refused and leaves the position as it was.
  const int64_t delta = move.QuadPart;
  uint64_t target = base;
  if (delta < 0) {
    const uint64_t back = 0 - static_cast<uint64_t>(delta);
    if (back > base) return STG_E_INVALIDFUNCTION;
    target = base - back;
  } else {
    if (static_cast<uint64_t>(delta) >
        std::numeric_limits<uint64_t>::max() - base)
      return STG_E_INVALIDFUNCTION;
    target = base + static_cast<uint64_t>(delta);
  }
  position_ = target;
  if (newPosition != nullptr) newPosition->QuadPart = position_;
  return S_OK;
}

HRESULT gxsStream::SetSize(ULARGE_INTEGER size) {
  // Unlike Read and Write, the platform's SetSize refuses a reverted stream
  // before it looks at the access.
  if (gxsGone(node_)) return STG_E_REVERTED;
  if (!gxsCanWrite(mode_)) return STG_E_ACCESSDENIED;
  return node_.context->finish(doc().setStreamSize(node_.id, size.QuadPart));
}

HRESULT gxsStream::CopyTo(IStream* target, ULARGE_INTEGER size,
                          ULARGE_INTEGER* read, ULARGE_INTEGER* written) {
  if (read != nullptr) read->QuadPart = 0;
  if (written != nullptr) written->QuadPart = 0;
  if (target == nullptr) return STG_E_INVALIDPOINTER;
  if (!gxsCanRead(mode_)) return STG_E_ACCESSDENIED;
  if (gxsGone(node_)) return STG_E_REVERTED;
  // Chunk by chunk: read here (moving this position), write there (moving
  // the target's). A target that is this stream writes behind what was just
  // read, as the platform does.
  constexpr uint32_t kChunk = 64 * 1024;
  std::vector<uint8_t> buffer(
      static_cast<size_t>(std::min<uint64_t>(size.QuadPart, kChunk)));
  uint64_t left = size.QuadPart, totalRead = 0, totalWritten = 0;
  HRESULT hr = S_OK;
  while (left > 0 && hr == S_OK) {
    uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(left, kChunk));
    ULONG got = 0, put = 0;
    hr = Read(buffer.data(), want, &got);
    totalRead += got;
    if (hr != S_OK || got == 0) break;
    hr = target->Write(buffer.data(), got, &put);
    totalWritten += put;
    if (hr == S_OK && put != got) hr = STG_E_MEDIUMFULL;
    left -= got;
    if (got < want) break;
  }
  if (read != nullptr) read->QuadPart = totalRead;
  if (written != nullptr) written->QuadPart = totalWritten;
  return hr;
}

HRESULT gxsStream::Commit(DWORD) {
  if (gxsGone(node_)) return STG_E_REVERTED;
  return node_.context->finish(S_OK);
}

// Direct mode: nothing to undo.
HRESULT gxsStream::Revert() { return S_OK; }

// Compound files offer no range locks (Stat reports none supported).
HRESULT gxsStream::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
  if (gxsGone(node_)) return STG_E_REVERTED;
  return E_NOTIMPL;
}

HRESULT gxsStream::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
  if (gxsGone(node_)) return STG_E_REVERTED;
  return E_NOTIMPL;
}

HRESULT gxsStream::Stat(STATSTG* info, DWORD flag) {
  if (info == nullptr) return STG_E_INVALIDPOINTER;
  if (gxsGone(node_)) return STG_E_REVERTED;
  const gxdDirRecord& entry = doc().entry(node_.id);
  const std::u16string name = entry.name();
  return gxsFillStat(entry, (flag & STATFLAG_NONAME) ? nullptr : &name, mode_,
                     *info);
}

HRESULT gxsStream::Clone(IStream** copy) {
  if (copy == nullptr) return STG_E_INVALIDPOINTER;
  *copy = nullptr;
  if (gxsGone(node_)) return STG_E_REVERTED;
  *copy =
      new gxsStream(node_.context, node_.parent, node_.id, mode_, position_);
  return S_OK;
}
