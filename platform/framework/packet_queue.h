// A queue as devices and requests see it.
#pragma once

#include "platform/framework/object.h"

namespace framework {

class FileObject;

class PacketQueue : public Object {
  public:
    using Object::Object;

    // Takes a packet that arrived at the device; `file` may be null.
    virtual void accept(PIRP irp, FileObject* file) = 0;

    // The file is being closed: its requests that wait here end with STATUS_CANCELLED.
    virtual void cancelWaiting(PFILE_OBJECT file) = 0;

    // Power transitions; no effect on a queue that is not power-managed. `hold` returns when the driver has
    // completed what it was presented and its callbacks have returned.
    virtual void resume() = 0;
    virtual void hold() = 0;

    // Ends what waits with STATUS_CANCELLED, waits as `hold` does, and takes nothing in any more.
    virtual void purge() = 0;
    virtual bool powerManaged() const = 0;

    // A request that the queue presented to the driver has been completed.
    virtual void requestDone() = 0;
};

} // namespace framework
