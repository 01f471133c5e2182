// What timers and work items share: callbacks that run later, on another task, and that a stop or a deletion
// may have to wait for.
#pragma once

#include "platform/framework/object.h"

#include <vector>

namespace framework {

class CallbackSource : public Object {
  protected:
    using Object::Object;

    // Counted from the moment a callback is bound to run until it has returned.
    void expectLocked() { expected_++; }
    void noLongerExpected();

    // Around a callback that was expected: notes who runs it.
    void enter();
    void leave();

    // Waits until no callback is expected or runs. A callback that waits for its own end is a deadlock,
    // unless its source is one that may delete itself and does so: then there is nothing to wait for.
    enum class OwnEnd : std::uint8_t { Deadlock, DeletesItself };
    void waitForCallbacks(const char* call, OwnEnd ownEnd);

  private:
    bool runsHere() const;

    // Guarded by the kernel lock.
    unsigned expected_ = 0;
    std::vector<const kernel::Task*> running_;
};

} // namespace framework
