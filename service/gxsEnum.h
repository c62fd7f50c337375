// IEnumSTATSTG over the children of a storage of a file the service has
// open: every element, in the order of the storage's sibling tree. As the
// platform's, the enumerator follows changes made while it is in use: after
// a change it goes on with the first child that sorts after the last one it
// handed out, so elements added since come in their place and removed ones
// are gone. The list of children is taken again after each change.
#ifndef GXSTORAGE_SERVICE_GXSENUM_H_
#define GXSTORAGE_SERVICE_GXSENUM_H_

#include <string>
#include <vector>

#include "platform/gxPlatform.h"
#include "service/gxsContext.h"

class gxsEnum final : public IEnumSTATSTG {
 public:
  // An enumerator over the children of the storage object `storage`.
  static HRESULT create(gxsContext* context, gxsNode* storage,
                        IEnumSTATSTG** out);
  gxsEnum(const gxsEnum&) = delete;
  gxsEnum& operator=(const gxsEnum&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE Next(ULONG count, STATSTG* records,
                                 ULONG* fetched) override;
  HRESULT STDMETHODCALLTYPE Skip(ULONG count) override;
  HRESULT STDMETHODCALLTYPE Reset() override;
  HRESULT STDMETHODCALLTYPE Clone(IEnumSTATSTG** copy) override;

 private:
  gxsEnum(gxsContext* context, gxsNode* storage);
  ~gxsEnum();

  gxsDocFile& doc() const { return *node_.context->doc(); }
  // Moves to the next child; false at the end (or when the children could
  // not be listed again: `hr` tells why).
  bool advance(uint32_t& id, HRESULT& hr);

  gxsNode node_;               // id: the storage enumerated
  std::vector<uint32_t> ids_;  // its children when listed
  uint64_t listedAt_ = 0;      // the context's generation then
  size_t next_ = 0;            // index into ids_
  bool started_ = false;       // `last_` holds the last child handed out
  uint32_t lastId_ = 0;
  std::u16string last_;
  ULONG refs_ = 1;
};

#endif  // GXSTORAGE_SERVICE_GXSENUM_H_
