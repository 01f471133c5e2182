// Base types of the Windows kernel with their widths on 64-bit Windows: ULONG has 32 bits, WCHAR 16.
#pragma once

#include <guiddef.h>
#include <sal.h>
#include <stddef.h>

#define NTAPI
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_ALIGN(n) __attribute__((aligned(n)))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#define IN
#define OUT
#define OPTIONAL
#define CONST const

#define VOID void
typedef void *PVOID, **PPVOID;
typedef char CHAR, CCHAR, *PCHAR;
typedef const char* PCSTR;
typedef unsigned char UCHAR, BYTE, BOOLEAN, *PUCHAR, *PBYTE, *PBOOLEAN;
typedef short SHORT, CSHORT, *PSHORT;
typedef unsigned short USHORT, *PUSHORT;
typedef int INT, LONG, *PINT, *PLONG;
typedef unsigned int UINT, ULONG, DWORD, *PUINT, *PULONG, *PDWORD;
typedef long long LONGLONG, LONG64, LONG_PTR, INT_PTR, *PLONGLONG, *PLONG64, *PLONG_PTR;
typedef unsigned long long ULONGLONG, ULONG64, DWORDLONG, ULONG_PTR, UINT_PTR, *PULONGLONG, *PULONG64;
typedef unsigned long long SIZE_T, KAFFINITY, *PULONG_PTR, *PSIZE_T;
typedef signed char INT8;
typedef short INT16;
typedef int INT32;
typedef long long INT64;
typedef unsigned char UINT8;
typedef unsigned short UINT16;
typedef unsigned int UINT32;
typedef unsigned long long UINT64;
typedef char16_t WCHAR, *PWCHAR, *PWCH, *PWSTR;
typedef const char16_t *PCWSTR, *PCWCH;

typedef LONG NTSTATUS, *PNTSTATUS;
typedef void *HANDLE, **PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;

#define TRUE 1
#define FALSE 0
#ifndef NULL
#define NULL __null
#endif
#define MAXULONG 0xFFFFFFFFu
#define MAXLONG 0x7FFFFFFF
#define MAXUSHORT 0xFFFF

#define NT_SUCCESS(status) ((NTSTATUS)(status) >= 0)
#define NT_INFORMATION(status) ((ULONG)(status) >> 30 == 1)
#define NT_WARNING(status) ((ULONG)(status) >> 30 == 2)
#define NT_ERROR(status) ((ULONG)(status) >> 30 == 3)

#define UNREFERENCED_PARAMETER(parameter) ((void)(parameter))
#define C_ASSERT(condition) static_assert(condition)
#define ARRAYSIZE(array) (sizeof(array) / sizeof((array)[0]))
#define RTL_NUMBER_OF(array) ARRAYSIZE(array)
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define CONTAINING_RECORD(address, type, field) ((type*)((PCHAR)(address)-offsetof(type, field)))
#define ALIGN_DOWN_BY(value, alignment) ((ULONG_PTR)(value) & ~((ULONG_PTR)(alignment)-1))
#define ALIGN_UP_BY(value, alignment) ALIGN_DOWN_BY((ULONG_PTR)(value) + (alignment)-1, alignment)
#define ALIGN_DOWN_POINTER_BY(address, alignment) ((PVOID)ALIGN_DOWN_BY(address, alignment))
#define ALIGN_UP_POINTER_BY(address, alignment) ((PVOID)ALIGN_UP_BY(address, alignment))

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _UNICODE_STRING {
    USHORT Length;        // bytes, without a terminator
    USHORT MaximumLength; // bytes
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

#define RTL_CONSTANT_STRING(text)                                                                            \
    { (USHORT)(sizeof(text) - sizeof((text)[0])), (USHORT)sizeof(text), const_cast<PWCH>(text) }
#define DECLARE_CONST_UNICODE_STRING(name, text)                                                             \
    const WCHAR name##_buffer[] = text;                                                                      \
    const UNICODE_STRING name = RTL_CONSTANT_STRING(name##_buffer)
#define DECLARE_UNICODE_STRING_SIZE(name, length)                                                            \
    WCHAR name##_buffer[length];                                                                             \
    UNICODE_STRING name = {0, (length) * sizeof(WCHAR), name##_buffer}

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x00000040u
#define OBJ_KERNEL_HANDLE 0x00000200u
#define InitializeObjectAttributes(attributes, name, flags, root, descriptor)                                \
    (*(attributes) = OBJECT_ATTRIBUTES{sizeof(OBJECT_ATTRIBUTES), root, name, flags, descriptor, nullptr})

typedef struct _RTL_OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;

typedef struct _RTL_OSVERSIONINFOEXW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
    USHORT wServicePackMajor;
    USHORT wServicePackMinor;
    USHORT wSuiteMask;
    UCHAR wProductType;
    UCHAR wReserved;
} OSVERSIONINFOEXW, *POSVERSIONINFOEXW, RTL_OSVERSIONINFOEXW, *PRTL_OSVERSIONINFOEXW;
