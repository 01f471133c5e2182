// What timers and work items share: callbacks that run later, on another task, and that a stop or a deletion
// may have to wait for.
#pragma once

#include "platform/framework/object.h"

#include <functional>
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

    // Waits until no callback is expected or runs, and calls `withdraw`, which takes callbacks back that are
    // expected and have not begun, whenever one of them has ended. From inside a callback there is nothing to
    // wait for when the object is being deleted, and waiting for oneself is a deadlock otherwise.
    void waitForCallbacks(const char* call, bool fromDeletion, const std::function<void()>& withdraw = {});

  private:
    bool runsHere() const;

    // Guarded by the kernel lock.
    unsigned expected_ = 0;
    std::vector<const kernel::Task*> running_;
};

} // namespace framework
