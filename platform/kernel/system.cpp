#include "platform/kernel/system.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/platform_call.h"
#include "platform/verifier/verifier.h"

#include <cpuid.h>
#include <cstring>
#include <fmt/format.h>

namespace kernel {

namespace {

base::MachinePart<SystemInformation> information; // constant while a driver is loaded

constexpr ULONG kPlatformNt = 2;

} // namespace

void setSystemInformation(const SystemInformation& value) {
    *information = value;
}

} // namespace kernel

using namespace kernel;

extern "C" {

NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW VersionInformation) {
    PlatformCall call;
    verifier::requireIrql("RtlGetVersion", kPassiveLevel);
    const ULONG size = VersionInformation->dwOSVersionInfoSize;
    if (size != sizeof(RTL_OSVERSIONINFOW) && size != sizeof(RTL_OSVERSIONINFOEXW)) {
        verifier::fail(verifier::Rule::Argument, "RtlGetVersion", fmt::format("{} bytes", size),
                       "the size is that of no version structure");
    }
    if (information->osVersionQueryFails) {
        return STATUS_UNSUCCESSFUL;
    }
    std::memset(VersionInformation, 0, size);
    VersionInformation->dwOSVersionInfoSize = size;
    VersionInformation->dwMajorVersion = information->osMajor;
    VersionInformation->dwMinorVersion = information->osMinor;
    VersionInformation->dwBuildNumber = information->osBuild;
    VersionInformation->dwPlatformId = kPlatformNt;
    if (size == sizeof(RTL_OSVERSIONINFOEXW)) {
        reinterpret_cast<RTL_OSVERSIONINFOEXW*>(VersionInformation)->wProductType = 1; // workstation
    }
    return STATUS_SUCCESS;
}

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    *DestinationString = {};
    if (SourceString == nullptr) {
        return;
    }
    const std::size_t bytes = std::char_traits<char16_t>::length(SourceString) * sizeof(WCHAR);
    if (bytes > MAXUSHORT - 1 - sizeof(WCHAR)) {
        verifier::fail(verifier::Rule::Argument, "RtlInitUnicodeString", fmt::format("{} bytes", bytes),
                       "the string is too long for its length fields");
    }
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

void KernelCpuid(int registers[4], int leaf, int subleaf) {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    __get_cpuid_count(static_cast<unsigned>(leaf), static_cast<unsigned>(subleaf), &a, &b, &c, &d);
    if (leaf == 1) {
        c &= information->cpuidLeaf1EcxMask;
    }
    registers[0] = static_cast<int>(a);
    registers[1] = static_cast<int>(b);
    registers[2] = static_cast<int>(c);
    registers[3] = static_cast<int>(d);
}

void KernelFastFail(ULONG code) {
    if (code == FAST_FAIL_CORRUPT_LIST_ENTRY) {
        verifier::fail(verifier::Rule::ListCorruption, "RtlFailFast", "",
                       "an entry's neighbors do not point back to it");
    }
    verifier::fail(verifier::Rule::Argument, "RtlFailFast", fmt::format("{}", code), "the driver gave up");
}

void KernelAssertionFailed(const char* condition, const char* file, int line) {
    verifier::fail(verifier::Rule::Argument, "NT_ASSERT", condition, fmt::format("{}:{}", file, line));
}

} // extern "C"
