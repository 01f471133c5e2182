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

    // A request that the queue presented to the driver has been completed.
    virtual void requestDone() = 0;
};

} // namespace framework
