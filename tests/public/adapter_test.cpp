// The seek arithmetic of the exported stream adapter over the portable
// backend, which keeps positions in two 32-bit halves. (The adapters over
// the platform's service, and over the portable backend, write and read the
// round-trip trees: tests/engine/roundtrip_test.cpp.)
#include <gtest/gtest.h>

#include "gxStorage.h"
#include "portable/gxdInterfaces.h"

namespace {

// Records what the adapter asks of a portable stream; positions are set by
// the test.
struct SeekProbe : gxdIStream {
  uint64_t at = 0, target = 12345;
  int refs = 1;
  bool isFailed() override { return false; }
  bool isReadOnly() override { return true; }
  gxResult stat(gxdsSTATSTG*) override { return GX_S_OK; }
  uint64_t position() override { return at; }
  void setPosition(uint64_t t) override { target = t; }
  gxResult read(void*, uint64_t, uint64_t*) override { return GX_S_FALSE; }
  gxResult write(const void*, uint64_t, uint64_t*) override {
    return GX_E_FAIL;
  }
  bool clone(gxdIStream**) override { return false; }
  void flush() override {}
  uint32_t addRef() override { return ++refs; }
  void release() override { --refs; }
};

TEST(Adapters, PortableSeekArithmetic) {
  SeekProbe probe;
  {
    gxIStream stream(static_cast<gxdIStream*>(&probe));
    EXPECT_EQ(probe.refs, 2);
    ULARGE_INTEGER out;
    LARGE_INTEGER move;
    const struct {
      uint64_t at;
      int64_t move;
      unsigned origin;
      uint64_t target;
    } cases[] = {
        {10, -1, GX_STREAM_SEEK_CUR, 9},
        {0xFFFFFFFFu, 1, GX_STREAM_SEEK_CUR,
         0x100000000ull},  // carry into the high half
        {0x1FFFFFFF0ull, 0x20, GX_STREAM_SEEK_CUR, 0x200000010ull},
        {5, -1, GX_STREAM_SEEK_SET, ~0ull},  // negative taken as unsigned
    };
    for (const auto& c : cases) {
      probe.at = c.at;
      move.QuadPart = c.move;
      out.QuadPart = 0;
      EXPECT_TRUE(stream.seek(move, c.origin, &out));
      EXPECT_EQ(probe.target, c.target);
      EXPECT_EQ(out.QuadPart, c.target);
    }
    SCOPED_TRACE(
        "from the end: refused, nothing moves, *newPosition untouched");
    probe.target = 7;
    out.QuadPart = 0xABCD;
    move.QuadPart = -1;
    EXPECT_FALSE(stream.seek(move, GX_STREAM_SEEK_END, &out));
    EXPECT_FALSE(stream.seek(move, 3, nullptr));
    EXPECT_TRUE(probe.target == 7 && out.QuadPart == 0xABCD);
    EXPECT_TRUE(stream.seek(move, GX_STREAM_SEEK_CUR, nullptr));
  }
  EXPECT_EQ(probe.refs, 1);
}

}  // namespace
