// Porting layer: the few host services the engine and the portable objects
// need, behind one small interface: opening a file stream on a UTF-16 path
// (the file itself, with its copy between files, is porting/gxdFileBuf.h),
// copying a UTF-16 name field, and the case-insensitive name comparison used
// to order siblings in a written directory.
#ifndef GXSTORAGE_PORTING_GXDPORTING_H_
#define GXSTORAGE_PORTING_GXDPORTING_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "porting/gxdFileBuf.h"

// Modes of pdOpenFile.
enum : int {
  kPdOpenRead = 0,    // existing file, reading and positioning
  kPdOpenCreate = 1,  // file being created: emptied or created, read/write
  kPdOpenTemp = 2,    // temporary block file: emptied or created, read/write
};

// Opens `stream` (unopened) on the zero-terminated UTF-16 `path`; bytes pass
// unchanged. On failure the stream is left with failbit set; callers test
// only bad() and fail(). A path that cannot be converted for the host (an
// unpaired surrogate on hosts with 8-bit paths) fails the same way.
void pdOpenFile(const char16_t* path, int mode, pdFileStream& stream);

// Sets `target` to the units of `source` before its first zero unit, reading
// at most `maxUnits` units.
void pdConvertWCHAR2String(const char16_t* source, uint64_t maxUnits,
                           std::u16string& target);

// Case-insensitive comparison of two UTF-16 strings that folds exactly the
// units 'A'..'Z' to 'a'..'z' (no locale) and compares unit by unit as
// unsigned 16-bit values; negative, zero or positive like strcmp.
int pdCompareNoCase(const char16_t* a, size_t aLength, const char16_t* b,
                    size_t bLength);
int pdCompareNoCase(const char16_t* a, const char16_t* b);

// The upper-case form of one UTF-16 unit as the platform's name comparison
// folds it: ASCII and Latin-1 letters, Latin Extended-A pairs, Greek and
// Cyrillic base letters and the full-width Latin letters; every other unit
// is its own upper case.
char16_t pdFoldUpper(char16_t unit);

// Copies a zero-terminated string of 16-bit units as the interface passes
// them into a UTF-16 string, unit for unit.
std::u16string pdFromUnits(const unsigned short* units);

// UTF-16 to UTF-8; false (and `out` unspecified) on an unpaired surrogate.
bool pdUtf16ToUtf8(const std::u16string& in, std::string& out);

#endif  // GXSTORAGE_PORTING_GXDPORTING_H_
