// The self-test: opens "FF430_1.gxw" from the current directory with the
// portable engine, lists the root, opens every element the listing names
// and releases the root. It reports nothing.
#include "gxStorage.h"
#include "portable/gxdInterfaces.h"
#include "porting/gxdPorting.h"

extern "C" void gxdStorageTest() {
  gxdIStorage* root = nullptr;
  gxdStgOpenStorage(u"FF430_1.gxw", 0x12, &root);
  if (root == nullptr) return;
  CGxAbsStgEnum* enumerator = nullptr;
  if (root->enumElements(&enumerator)) {
    gxdsSTATSTG record;
    while (enumerator->next(1, &record, nullptr)) {
      const std::u16string name = pdFromUnits(record.name());
      if (record.type() == GX_STGTY_STREAM) {
        gxdIStream* stream = nullptr;
        // The reference handed out is given back at once; the root keeps
        // its own until it is released.
        if (root->openStream(name.c_str(), &stream) == 0) stream->release();
      } else if (record.type() == GX_STGTY_STORAGE) {
        gxdIStorage* storage = nullptr;
        if (root->openStorage(name.c_str(), &storage) == 0)
          storage->release();
      }
    }
  }
  root->release();
}
