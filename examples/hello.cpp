// hello: create a compound file with one storage and one stream, then open
// it again and read the stream back. Build against an installed gxStorage:
//   cmake -S examples -B build-hello -DCMAKE_PREFIX_PATH=<prefix>
//   g++ -std=c++17 hello.cpp $(pkg-config --cflags --libs gxStorage)
#include <cstdio>
#include <cstring>

#include "gxStorage.h"

// Names and paths are zero-terminated strings of 16-bit units.
static const unsigned short* U(const char16_t* text) {
  return reinterpret_cast<const unsigned short*>(text);
}

int main() {
  const char message[] = "Hello, compound file!";

  // Create (portable backend: last argument true), write, commit, close.
  CGxAbsStorage* root = nullptr;
  if (gxStgCreateStorage(U(u"hello.cfb"), 0, &root, true) != GX_S_OK) return 1;
  CGxAbsStorage* docs = nullptr;
  CGxAbsStream* out = nullptr;
  root->openIStorage(U(u"Docs"), false, &docs);           // false: create
  docs->openIStream(U(u"Greeting"), false, &out);
  unsigned long long written = 0;
  out->write(message, sizeof message - 1, &written);
  root->commit();            // the file is written here, once
  gxStgCloseStorage(root);   // destroys docs and out too; does not commit

  // Open (read-only), read, close. An opened stream starts at position 0.
  if (gxStgOpenStorage(U(u"hello.cfb"), 0, &root, true) != GX_S_OK) return 1;
  CGxAbsStream* in = nullptr;
  root->openIStorage(U(u"Docs"), true, &docs);            // true: open
  if (docs == nullptr || docs->openIStream(U(u"Greeting"), true, &in) != GX_S_OK)
    return 1;
  char buffer[64] = {};
  unsigned long long done = 0;
  in->read(buffer, sizeof buffer - 1, &done);
  gxStgCloseStorage(root);

  std::printf("read %llu bytes: %s\n", done, buffer);
  return std::strcmp(buffer, message) == 0 ? 0 : 1;
}
