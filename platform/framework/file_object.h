// The framework's object for an open file of a device.
#pragma once

#include "platform/framework/object.h"

namespace framework {

class FileObject final : public Object {
  public:
    explicit FileObject(PFILE_OBJECT file) : Object(Kind::FileObject), file(file) {}
    const PFILE_OBJECT file;

  protected:
    bool driverMayDelete() const override { return false; }
};

} // namespace framework
