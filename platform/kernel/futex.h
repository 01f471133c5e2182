// Blocking on a word of memory by raw system call. Nothing here is intercepted by ThreadSanitizer, so the
// orders that the schedulers impose stay invisible to it.
#pragma once

#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kernel {

inline void futexWait(std::uint32_t* word, std::uint32_t expected, const timespec* relative = nullptr) {
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, expected, relative, nullptr, 0);
}

inline void futexWake(std::uint32_t* word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0);
}

// One permission to go on, given by one thread and taken by another.
class Baton {
  public:
    void pass() {
        __atomic_store_n(&word_, 1, __ATOMIC_RELEASE);
        futexWake(&word_, 1);
    }

    void take() {
        while (!tryTake()) {
            futexWait(&word_, 0);
        }
    }

    bool tryTake() { return __atomic_exchange_n(&word_, 0, __ATOMIC_ACQUIRE) != 0; }

    // Returns after a pass, after `relative`, or for no reason: the caller checks again.
    void waitOnce(const timespec* relative) { futexWait(&word_, 0, relative); }

  private:
    std::uint32_t word_ = 0;
};

// A mutual exclusion lock: 0 free, 1 held, 2 held and waited for.
class FutexLock {
  public:
    void lock() {
        for (int spin = 0; spin < 100; spin++) {
            if (tryLock()) {
                return;
            }
            __builtin_ia32_pause();
        }
        while (__atomic_exchange_n(&word_, 2, __ATOMIC_ACQUIRE) != 0) {
            futexWait(&word_, 2);
        }
    }

    bool tryLock() {
        std::uint32_t free = 0;
        return __atomic_compare_exchange_n(&word_, &free, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
    }

    void unlock() {
        if (__atomic_exchange_n(&word_, 0, __ATOMIC_RELEASE) == 2) {
            futexWake(&word_, 1);
        }
    }

  private:
    std::uint32_t word_ = 0;
};

} // namespace kernel
