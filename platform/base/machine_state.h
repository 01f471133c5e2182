// Everything in the platform that lasts exactly as long as a machine.
//
// The functions of Windows carry no machine among their arguments, so the platform finds its records through
// the current machine. A file that keeps such records declares a `MachinePart`: each machine gets an object
// of its own, made before the machine starts and destroyed with it.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace base {

// The parts of one machine. There is one machine at a time; code outside of any machine, such as a test of
// some driver function, works on parts that belong to the process.
class MachineState {
  public:
    MachineState(); // makes the parts, which are the current ones from here on
    ~MachineState();
    MachineState(const MachineState&) = delete;
    MachineState& operator=(const MachineState&) = delete;

  private:
    std::vector<std::shared_ptr<void>> parts_;
};

using MakePart = std::shared_ptr<void> (*)();
std::size_t registerPart(MakePart make);
void* currentPart(std::size_t index);

// The current machine's object of type T. Define it as an object of static storage duration.
template <typename T>
class MachinePart {
  public:
    MachinePart() : index_(registerPart([]() -> std::shared_ptr<void> { return std::make_shared<T>(); })) {}
    MachinePart(const MachinePart&) = delete;
    MachinePart& operator=(const MachinePart&) = delete;

    T& operator*() const { return *static_cast<T*>(currentPart(index_)); }
    T* operator->() const { return &**this; }

  private:
    const std::size_t index_;
};

// Keeps an object until the process ends, out of reach of later machines. For what the tasks of a stopped run
// still have on their stacks: their threads sleep for the rest of the process.
void keepForever(std::shared_ptr<void> object);

} // namespace base
