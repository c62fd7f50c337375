// Copies a platform element record into the interface's record and frees
// the name the platform allocated for it.
#ifndef GXSTORAGE_PUBLIC_GXPLATFORMRECORD_H_
#define GXSTORAGE_PUBLIC_GXPLATFORMRECORD_H_

#include "gxStorage.h"
#include "platform/gxPlatform.h"

void gxTakePlatformRecord(STATSTG& from, gxdsSTATSTG* to);
void gxFreePlatformName(STATSTG& record);

#endif  // GXSTORAGE_PUBLIC_GXPLATFORMRECORD_H_
