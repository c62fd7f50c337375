// The portable stream. In an opened file it reads: small streams out of the
// engine's in-memory mini stream, large ones from the file through the
// in-memory FAT. In a created file it only appends: data gathers in a
// 512-byte block buffer and full blocks go to the temporary file, to be
// placed by the save.
#ifndef GXSTORAGE_PORTABLE_GXDSTREAM_H_
#define GXSTORAGE_PORTABLE_GXDSTREAM_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/gxdCompoundFile.h"
#include "portable/gxdInterfaces.h"

class gxdStorage;

class gxdStream : public gxdIStream {
 public:
  gxdStream(const char16_t* name, gxdStorage* parent);
  gxdStream(const gxdStream&) = delete;
  gxdStream& operator=(const gxdStream&) = delete;
  ~gxdStream() override;

  bool isFailed() override { return failed; }
  bool isReadOnly() override { return readOnly; }
  gxResult stat(gxdsSTATSTG* info) override;
  uint64_t position() override { return currentPosition; }
  // Reaches the target through the in-memory chain, without reading data.
  void setPosition(uint64_t target) override;
  gxResult read(void* data, uint64_t count, uint64_t* done) override;
  gxResult write(const void* data, uint64_t count, uint64_t* written) override;
  bool clone(gxdIStream** out) override;
  void flush() override;
  uint32_t addRef() override { return ++refCount; }
  void release() override;

  // Appends this stream's creation record.
  void recordCreation();
  // Positions the stream at its start for reading (opened files only).
  void rewind();

  static constexpr uint32_t kBlockSize = 512;

  bool readOnly;
  bool failed;
  bool notFound;
  bool notRewound;  // reads deliver nothing until the stream is rewound
  bool inMiniStream;
  gxdStorage* parent;             // not owned
  gxdCompoundFile* compoundFile;  // not owned
  gxdDirEntry entry;
  uint64_t currentPosition;  // bytes read since rewind, or bytes written
  // Writing: bytes held in buffer. Reading: bytes taken from the current
  // (mini) sector.
  uint16_t bufferFill;
  std::unique_ptr<uint8_t[]> buffer;  // kBlockSize bytes from the first write

  pdTable tempBlocks;  // temporary-file blocks, in order
  std::vector<gxdStream*> clones;    // each holds its construction reference
  uint32_t refCount;

 private:
  // The sector (or mini sector) holding unit `index` of the data, learned
  // from the chain and kept, so that no walk starts again from the front.
  // False, with the chain marked broken, when the chain ends early or a link
  // leaves the tables or the file.
  bool sectorAt(uint64_t index, uint32_t& sector);
  uint32_t unitShift() const;
  void updateReadFill();
  gxResult failRead();
  void clearChain();

  // The chain learned so far, kept as runs of consecutive sectors: units
  // index .. index + length - 1 lie in sectors sector .. sector + length - 1.
  // A stream whose data is contiguous needs no allocation for it.
  struct Run {
    uint64_t index = 0;
    uint32_t sector = 0;
    uint32_t length = 0;
  };
  std::vector<Run> runs_;     // every run before lastRun_, in order
  Run lastRun_;               // the run that the next link may extend
  uint64_t chainLength_ = 0;  // units learned
  bool chainIsMini_ = false;
  bool chainBroken_ = false;
};

#endif  // GXSTORAGE_PORTABLE_GXDSTREAM_H_
