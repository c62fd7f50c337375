// The porting layer's host file under the engine's streams: transfers at
// explicit offsets with buffered writes, positioning, reads at the end, and
// the copy between two files. (The tables' allocator is under every load and
// save of the other tests.)
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "porting/gxdFileBuf.h"
#include "porting/gxdPorting.h"

namespace {

std::string bytesOf(pdFileStream& s, uint64_t at, size_t n) {
  std::string out(n, '\0');
  s.clear();
  s.seekg(static_cast<std::streamoff>(at));
  s.read(&out[0], static_cast<std::streamsize>(n));
  out.resize(static_cast<size_t>(s.gcount()));
  return out;
}

TEST(PortingFile, TransfersPositionsAndCopies) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-file-" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  const std::u16string a = (dir / "a.bin").u16string();
  const std::u16string b = (dir / "b.bin").u16string();
  std::string big(300000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 7 + (i >> 11));
  std::string expected = std::string("abc\0\0XY\0\0\0", 10) + big;
  {
    SCOPED_TRACE("small writes buffered around a large one, read back");
    pdFileStream f;
    pdOpenFile(a.c_str(), kPdOpenCreate, f);
    ASSERT_TRUE(f.good());
    f.write("abc", 3);
    f.seekp(10);
    f.write(big.data(), static_cast<std::streamsize>(big.size()));
    f.seekp(5);
    f.write("XY", 2);
    EXPECT_EQ(static_cast<uint64_t>(f.tellp()), 7u);
    EXPECT_EQ(bytesOf(f, 0, expected.size()), expected);
    f.seekg(0, std::ios::end);
    EXPECT_EQ(static_cast<uint64_t>(f.tellg()), expected.size());
    // A read across the end delivers what there is and fails the stream.
    EXPECT_EQ(bytesOf(f, expected.size() - 4, 100),
              expected.substr(expected.size() - 4));
    EXPECT_TRUE(f.eof() && f.fail());
    f.clear();
    f.seekp(static_cast<std::streamoff>(expected.size()));
    f.write("tail", 4);  // buffered until the stream closes
  }
  expected += "tail";
  {
    pdFileStream in, out;
    pdOpenFile(a.c_str(), kPdOpenRead, in);
    pdOpenFile(b.c_str(), kPdOpenTemp, out);
    ASSERT_TRUE(in.good() && out.good());
    EXPECT_EQ(bytesOf(in, 0, expected.size() + 1), expected);
    {
      SCOPED_TRACE("copies between files, past the target's end");
      out.clear();
      out.seekp(3);
      out.write("q", 1);  // buffered: the copy writes it out first
      EXPECT_EQ(pdCopyBetweenFiles(in, 10, out, 512, big.size()), 1);
      EXPECT_EQ(static_cast<uint64_t>(out.tellp()), 4u);
      EXPECT_EQ(bytesOf(out, 0, 600000),
                std::string(3, '\0') + "q" + std::string(508, '\0') + big);
      EXPECT_EQ(pdCopyBetweenFiles(in, expected.size() - 10, out, 0, 11), 0);
      EXPECT_EQ(pdCopyBetweenFiles(in, 0, out, 0, 0), 1);
    }
    SCOPED_TRACE("writes to a file opened for reading; a missing file, a "
                 "directory, an unusable mode");
    in.clear();
    in.seekp(0);
    in.write("z", 1);
    in.flush();
    EXPECT_TRUE(in.bad());
    pdFileStream missing, directory, odd;
    pdOpenFile((dir / "none").u16string().c_str(), kPdOpenRead, missing);
    pdOpenFile(dir.u16string().c_str(), kPdOpenCreate, directory);
    pdOpenFile(a.c_str(), 7, odd);
    EXPECT_TRUE(missing.fail() && directory.fail() && odd.fail());
  }  // both files closed
  fs::remove_all(dir);
}

}  // namespace
