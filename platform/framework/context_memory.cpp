#include "platform/framework/context_memory.h"

#include "platform/kernel/pool.h"
#include "platform/kernel/sanitizer.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace framework {

namespace {

constexpr std::size_t kAlignment = 64; // of what the C library gives
constexpr std::size_t kGuard = 16;
constexpr unsigned char kGuardByte = 0xFB;

bool isGuard(const unsigned char* bytes, std::size_t count) {
    return std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte == kGuardByte; });
}

} // namespace

ContextMemory::ContextMemory(std::size_t size) {
    const std::size_t whole = (kGuard + size + kGuard + kAlignment - 1) / kAlignment * kAlignment;
    base_ = static_cast<unsigned char*>(std::aligned_alloc(kAlignment, whole));
    if (base_ == nullptr) {
        return;
    }
    baseSize_ = whole;
    size_ = size;
    std::memset(base_, kGuardByte, whole);
    std::memset(begin(), 0, size);
    kernel::sanitizer::poison(base_, kGuard);
    kernel::sanitizer::poison(end(), rearSize());
}

ContextMemory::~ContextMemory() {
    if (base_ != nullptr) {
        kernel::sanitizer::unpoison(base_, baseSize_);
        std::memset(base_, kernel::kFreedFill, baseSize_);
        std::free(base_);
    }
}

void ContextMemory::retire() {
    kernel::sanitizer::unpoison(base_, baseSize_);
    std::memset(base_, kernel::kFreedFill, baseSize_);
    kernel::sanitizer::poison(base_, baseSize_);
}

bool ContextMemory::isUntouched() const {
    kernel::sanitizer::unpoison(base_, baseSize_);
    return std::all_of(base_, base_ + baseSize_,
                       [](unsigned char byte) { return byte == kernel::kFreedFill; });
}

unsigned char* ContextMemory::begin() const {
    return base_ + kGuard;
}

std::size_t ContextMemory::rearSize() const {
    return baseSize_ - kGuard - size_;
}

void ContextMemory::requireIntact(std::string_view call, std::string_view owner) const {
    kernel::sanitizer::unpoison(base_, baseSize_);
    if (!isGuard(base_, kGuard) || !isGuard(end(), rearSize())) {
        verifier::fail(verifier::Rule::PoolOverrun, call, std::string(owner),
                       isGuard(base_, kGuard) ? "the bytes behind the object's context were overwritten"
                                              : "the bytes before the object's context were overwritten");
    }
}

} // namespace framework
