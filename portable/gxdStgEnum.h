// The portable enumerator: a snapshot, taken at construction, of the
// children that a portable storage holds open (storages first, then streams,
// each group by code units of the name). Elements of the file that were not
// opened through that storage are not listed. It belongs to the storage
// that made it (or to the enumerator it was cloned from).
#ifndef GXSTORAGE_PORTABLE_GXDSTGENUM_H_
#define GXSTORAGE_PORTABLE_GXDSTGENUM_H_

#include <cstdint>
#include <vector>

#include "gxStorage.h"

class gxdStorage;

class gxdStgEnum : public CGxAbsStgEnum {
 public:
  explicit gxdStgEnum(gxdStorage* storage);
  gxdStgEnum(const gxdStgEnum&) = delete;
  gxdStgEnum& operator=(const gxdStgEnum&) = delete;
  ~gxdStgEnum() override;

  // Hands out a short last batch and returns true; false only when nothing
  // is left.
  bool next(unsigned int count, gxdsSTATSTG* records,
            uint32_t* fetched) override;
  // False, with the cursor unchanged, when the skip would reach the end.
  bool skip(unsigned int count) override;
  void reset() override { cursor = 0; }
  // A fresh snapshot continuing at this cursor; always true.
  bool clone(CGxAbsStgEnum** copy) override;

  gxdStorage* storage;  // not owned; outlives the enumerator
  std::vector<gxdsSTATSTG> elements;
  std::vector<gxdStgEnum*> clones;  // owned
  uint64_t cursor;
};

#endif  // GXSTORAGE_PORTABLE_GXDSTGENUM_H_
