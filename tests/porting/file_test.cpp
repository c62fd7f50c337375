// The porting layer's host file where the saves and loads of the other
// tests do not reach it: reads across the end, copies from past the end of
// the source, writes to a file opened for reading, and files that cannot be
// opened. (Buffered writes and copies of whole ranges are under every save
// of the round-trip tests.)
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "porting/gxdFileBuf.h"
#include "porting/gxdPorting.h"

TEST(PortingFile, ShortReadsFailedCopiesAndRefusedOpens) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-file-" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  const std::u16string a = (dir / "a.bin").u16string();
  {
    pdFileStream f;
    pdOpenFile(a.c_str(), kPdOpenCreate, f);
    f.write("0123456789", 10);
  }
  {
    pdFileStream in, out, missing, directory, odd;
    pdOpenFile(a.c_str(), kPdOpenRead, in);
    pdOpenFile((dir / "b.bin").u16string().c_str(), kPdOpenTemp, out);
    ASSERT_TRUE(in.good() && out.good());
    char got[100] = {};
    in.seekg(6);
    in.read(got, sizeof got);  // delivers what there is and fails the stream
    EXPECT_TRUE(in.gcount() == 4 && std::string(got) == "6789" && in.eof() &&
                in.fail());
    in.clear();
    EXPECT_EQ(pdCopyBetweenFiles(in, 5, out, 0, 6), 0);  // one byte too many
    EXPECT_EQ(pdCopyBetweenFiles(in, 0, out, 0, 0), 1);
    in.seekp(0);
    in.write("z", 1);
    in.flush();
    EXPECT_TRUE(in.bad());
    pdOpenFile((dir / "none").u16string().c_str(), kPdOpenRead, missing);
    pdOpenFile(dir.u16string().c_str(), kPdOpenCreate, directory);
    pdOpenFile(a.c_str(), 7, odd);
    EXPECT_TRUE(missing.fail() && directory.fail() && odd.fail());
  }  // every file closed
  fs::remove_all(dir);
}
