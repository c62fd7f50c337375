#include "gxStorage.h"
#include "platform/gxPlatform.h"
#include "portable/gxdInterfaces.h"
#include "public/gxPlatformRecord.h"

gxIStream::gxIStream(IStream* stream)
    : portableStream_(nullptr), platformStream_(stream) {
  if (platformStream_ != nullptr) platformStream_->AddRef();
}

gxIStream::gxIStream(gxdIStream* stream)
    : portableStream_(stream), platformStream_(nullptr) {
  if (portableStream_ != nullptr) portableStream_->addRef();
}

gxIStream::~gxIStream() {
  for (CGxAbsStream* c : clones_) delete c;
  if (platformStream_ != nullptr) platformStream_->Release();
  if (portableStream_ != nullptr) portableStream_->release();
}

void gxIStream::write(const void* data, unsigned long long size,
                      unsigned long long* written) {
  if (platformStream_ != nullptr) {
    ULONG count = 0;
    platformStream_->Write(data, static_cast<ULONG>(size), &count);
    if (written != nullptr) *written = count;
  } else if (portableStream_ != nullptr) {
    uint64_t* out = nullptr;
    uint64_t count = 0;
    if (written != nullptr) {
      count = *written;
      out = &count;
    }
    portableStream_->write(data, size, out);
    if (written != nullptr) *written = count;
  }
}

void gxIStream::read(void* data, unsigned long long size,
                     unsigned long long* done) {
  if (done != nullptr) *done = 0;
  if (platformStream_ != nullptr) {
    ULONG count = 0;
    platformStream_->Read(data, static_cast<ULONG>(size), &count);
    if (done != nullptr) *done = count;
  } else if (portableStream_ != nullptr) {
    uint64_t count = 0;
    portableStream_->read(data, size, &count);
    if (done != nullptr) *done = count;
  }
}

bool gxIStream::stat(gxdsSTATSTG* info) {
  if (platformStream_ != nullptr) {
    STATSTG record = {};
    if (platformStream_->Stat(&record, STATFLAG_DEFAULT) != S_OK) return false;
    gxTakePlatformRecord(record, info);
    return true;
  }
  return portableStream_ != nullptr && portableStream_->stat(info) == 0;
}

bool gxIStream::seek(LARGE_INTEGER move, unsigned int origin,
                     ULARGE_INTEGER* newPosition) {
  if (platformStream_ != nullptr)
    return platformStream_->Seek(move, origin, newPosition) == S_OK;
  if (portableStream_ == nullptr) return false;
  uint32_t low = move.u.LowPart;
  uint32_t high = static_cast<uint32_t>(move.u.HighPart);
  if (origin == GX_STREAM_SEEK_CUR) {
    // 64-bit sum in two 32-bit halves, carrying from the low into the high.
    const uint64_t at = portableStream_->position();
    const uint32_t moveLow = low;
    low = static_cast<uint32_t>(at) + moveLow;
    high = static_cast<uint32_t>(at >> 32) + (low < moveLow ? 1u : 0u) + high;
    origin = GX_STREAM_SEEK_SET;
  }
  if (origin != GX_STREAM_SEEK_SET) return false;
  portableStream_->setPosition((static_cast<uint64_t>(high) << 32) | low);
  if (newPosition != nullptr) {
    newPosition->u.LowPart = low;
    newPosition->u.HighPart = high;
  }
  return true;
}

bool gxIStream::clone(CGxAbsStream** copy) {
  *copy = nullptr;
  if (platformStream_ != nullptr) {
    IStream* other = nullptr;
    platformStream_->Clone(&other);
    if (other == nullptr) return false;
    gxIStream* adapter = new gxIStream(other);
    other->Release();
    clones_.push_back(adapter);
    *copy = adapter;
    return true;
  }
  if (portableStream_ == nullptr) return false;
  gxdIStream* other = nullptr;
  portableStream_->clone(&other);
  if (other == nullptr) return false;
  // The portable clone's own reference stays with the stream that made it;
  // the adapter adds its own.
  gxIStream* adapter = new gxIStream(other);
  clones_.push_back(adapter);
  *copy = adapter;
  return true;
}

void gxIStream::flush() {
  if (portableStream_ != nullptr) portableStream_->flush();
}
