// GUIDs and the macro that names them. <initguid.h> turns the names of one source file into definitions.
#pragma once

typedef struct _GUID {
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;

typedef GUID* LPGUID;
typedef const GUID* LPCGUID;

#ifndef DEFINE_GUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) extern "C" const GUID name
#endif

inline bool IsEqualGUID(const GUID& a, const GUID& b) {
    return __builtin_memcmp(&a, &b, sizeof(GUID)) == 0;
}
