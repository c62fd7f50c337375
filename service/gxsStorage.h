// IStorage over a storage element (or the root) of a file the service has
// open. Changes go to the file at once (direct mode): every changing call
// ends with the file's tables written back, and the root's final Release
// closes the file.
//
// A storage opened or created with STGM_TRANSACTED below the root works on
// a copy: the element's tree is copied into a scratch file in memory, whose
// root this object is, and the object keeps the real element open (its
// anchor). Commit replaces the element's contents with the copy's, Revert
// copies the element again, and Release without Commit drops the copy.
#ifndef GXSTORAGE_SERVICE_GXSSTORAGE_H_
#define GXSTORAGE_SERVICE_GXSSTORAGE_H_

#include <string>

#include "platform/gxPlatform.h"
#include "service/gxsContext.h"

class gxsStorage final : public IStorage {
 public:
  // A storage object on entry `id`, opened through `parent` (null for the
  // root) with `mode`. Enlists itself with `context`; the count starts at 1.
  gxsStorage(gxsContext* context, gxsNode* parent, uint32_t id, DWORD mode);
  gxsStorage(const gxsStorage&) = delete;
  gxsStorage& operator=(const gxsStorage&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE CreateStream(const OLECHAR* name, DWORD mode,
                                         DWORD reserved1, DWORD reserved2,
                                         IStream** stream) override;
  HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* name, void* reserved1,
                                       DWORD mode, DWORD reserved2,
                                       IStream** stream) override;
  HRESULT STDMETHODCALLTYPE CreateStorage(const OLECHAR* name, DWORD mode,
                                          DWORD reserved1, DWORD reserved2,
                                          IStorage** storage) override;
  HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* name, IStorage* priority,
                                        DWORD mode, SNB exclude, DWORD reserved,
                                        IStorage** storage) override;
  HRESULT STDMETHODCALLTYPE CopyTo(DWORD excludeCount, const IID* exclude,
                                   SNB excludeNames, IStorage* target) override;
  HRESULT STDMETHODCALLTYPE MoveElementTo(const OLECHAR* name, IStorage* target,
                                          const OLECHAR* newName,
                                          DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Revert() override;
  HRESULT STDMETHODCALLTYPE EnumElements(DWORD reserved1, void* reserved2,
                                         DWORD reserved3,
                                         IEnumSTATSTG** enumerator) override;
  HRESULT STDMETHODCALLTYPE DestroyElement(const OLECHAR* name) override;
  HRESULT STDMETHODCALLTYPE RenameElement(const OLECHAR* oldName,
                                          const OLECHAR* newName) override;
  HRESULT STDMETHODCALLTYPE SetElementTimes(const OLECHAR* name,
                                            const FILETIME* created,
                                            const FILETIME* accessed,
                                            const FILETIME* modified) override;
  HRESULT STDMETHODCALLTYPE SetClass(REFCLSID clsid) override;
  HRESULT STDMETHODCALLTYPE SetStateBits(DWORD bits, DWORD mask) override;
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* info, DWORD flag) override;

 private:
  ~gxsStorage();

  gxsDocFile& doc() const { return *node_.context->doc(); }
  // The service's own storage object behind `storage`, or null for any
  // other implementation.
  static gxsStorage* ours(IStorage* storage);
  // True when `target` is an object of this file on element `id` or on an
  // element below it.
  bool holds(IStorage* target, uint32_t id) const;
  // A child's access must lie within this storage's.
  HRESULT checkChildAccess(DWORD mode) const;
  // Adds child `name` of `type` for CreateStream and CreateStorage: an
  // existing one is refused, or removed under STGM_CREATE; `late` is a
  // failure reported only once the name was found free or replaceable.
  HRESULT addChild(const std::u16string& name, uint8_t type, DWORD mode,
                   HRESULT late, uint32_t& id);
  // Removes child `id` with everything below it, reverting what was open
  // on it.
  HRESULT removeChild(uint32_t id);
  // True once this object (or, for a transacted copy, its anchor) answers
  // STG_E_REVERTED.
  bool gone() const { return gxsGone(node_); }
  // Hands out in `out` a transacted copy of the element `anchor` is open
  // on (the copy takes `anchor` over).
  static HRESULT makeTransacted(gxsStorage* anchor, DWORD mode,
                                IStorage** out);
  // Hands out child storage `id` opened with `mode` (a transacted copy
  // when the mode asks for one).
  HRESULT handOut(uint32_t id, DWORD mode, IStorage** storage);
  // Empties this storage's element of every child.
  HRESULT removeAll();

  // Copying (gxsStorageCopy.cpp). Copies the children of storage `from`
  // into `target`, merging into storages of the same names and replacing
  // streams; `streams`, `storages` and `excludeNames` select among the
  // children of `from` only.
  HRESULT copyTree(uint32_t from, IStorage* target, bool streams, bool storages,
                   SNB excludeNames);
  // Copies element `id` with everything below it into `target` as a new
  // element `name`; an existing element of that name is refused.
  // `created` tells whether `name` was made (and needs removing after a
  // failure).
  HRESULT copyElement(uint32_t id, IStorage* target, const std::u16string& name,
                      bool& created);

  gxsNode node_;
  DWORD mode_;
  ULONG refs_ = 1;
  gxsStorage* anchor_ = nullptr;  // the real element of a transacted copy
};

#endif  // GXSTORAGE_SERVICE_GXSSTORAGE_H_
