#include "platform/base/machine_state.h"

#include <stdexcept>

namespace base {

namespace {

using Parts = std::vector<std::shared_ptr<void>>;

// Those of the machine that exists. Written while no task runs.
Parts* machineParts = nullptr;

// Filled while the process starts.
std::vector<MakePart>& makers() {
    static std::vector<MakePart> list;
    return list;
}

Parts makeParts() {
    Parts parts;
    for (const MakePart make : makers()) {
        parts.push_back(make());
    }
    return parts;
}

// Never destroyed, as static objects of tests may still use them at the end of the process.
Parts& processParts() {
    static Parts& parts = *new Parts(makeParts());
    return parts;
}

} // namespace

MachineState::MachineState() : parts_(makeParts()) {
    if (machineParts != nullptr) {
        throw std::logic_error("one machine at a time");
    }
    machineParts = &parts_;
}

MachineState::~MachineState() {
    machineParts = nullptr;
}

std::size_t registerPart(MakePart make) {
    makers().push_back(make);
    return makers().size() - 1;
}

void* currentPart(std::size_t index) {
    return (machineParts != nullptr ? *machineParts : processParts())[index].get();
}

void keepForever(std::shared_ptr<void> object) {
    static auto& kept = *new std::vector<std::shared_ptr<void>>;
    kept.push_back(std::move(object));
}

} // namespace base
