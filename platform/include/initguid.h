// Included by exactly one source file of an image, before the headers whose GUIDs it defines.
#pragma once

#include <guiddef.h>

#undef DEFINE_GUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)                                         \
    extern "C" const GUID name;                                                                              \
    const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
