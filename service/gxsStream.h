// IStream over a stream element of a file the service has open. Reads and
// writes go to the file at the stream's own position; clones share the
// element and have positions of their own.
#ifndef GXSTORAGE_SERVICE_GXSSTREAM_H_
#define GXSTORAGE_SERVICE_GXSSTREAM_H_

#include "platform/gxPlatform.h"
#include "service/gxsContext.h"

class gxsStream final : public IStream {
 public:
  // A stream object on entry `id`, opened through the storage `parent` with
  // `mode`, at `position`. Enlists itself with `context`; the count starts
  // at 1.
  gxsStream(gxsContext* context, gxsNode* parent, uint32_t id, DWORD mode,
            uint64_t position = 0);
  gxsStream(const gxsStream&) = delete;
  gxsStream& operator=(const gxsStream&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE Read(void* data, ULONG size, ULONG* done) override;
  HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG size,
                                  ULONG* written) override;
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                 ULARGE_INTEGER* newPosition) override;
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size,
                                   ULARGE_INTEGER* read,
                                   ULARGE_INTEGER* written) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset,
                                       ULARGE_INTEGER size,
                                       DWORD lockType) override;
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset,
                                         ULARGE_INTEGER size,
                                         DWORD lockType) override;
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* info, DWORD flag) override;
  HRESULT STDMETHODCALLTYPE Clone(IStream** copy) override;

 private:
  ~gxsStream();

  gxsDocFile& doc() const { return *node_.context->doc(); }

  gxsNode node_;
  DWORD mode_;
  uint64_t position_;
  ULONG refs_ = 1;
};

#endif  // GXSTORAGE_SERVICE_GXSSTREAM_H_
