#include "platform/framework/object.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/lock_tracking.h"
#include "platform/kernel/pool.h"

#include <fmt/format.h>

#include <algorithm>

namespace framework {

namespace {

using kernel::KernelGuard;

Fate fateOf(const void* handle) {
    KernelGuard guard;
    return objectTable().find(handle).fate;
}

// The context of an object that went with its device. The memory is given back only when the packet that
// removed the device has returned from the driver, so that a late use of it is found.
struct RemovedContext {
    ContextMemory memory;
    std::string owner;
};

// Guarded by the kernel lock.
base::MachinePart<std::vector<RemovedContext>> removedContexts;

void keepRemovedContext(ContextMemory memory, std::string owner) {
    memory.retire();
    KernelGuard guard;
    removedContexts->push_back({std::move(memory), std::move(owner)});
}

} // namespace

Object::Object(Kind kind) : kind_(kind) {
    KernelGuard guard;
    handle_ = objectTable().add(*this, kind);
}

Object::~Object() = default;

std::string Object::name() const {
    return fmt::format("{} {}", kindName(kind_), handle_);
}

void Object::reference() {
    KernelGuard guard;
    references_++;
}

void Object::release() {
    {
        KernelGuard guard;
        if (--references_ != 0) {
            return;
        }
    }
    destroy();
}

void Object::driverReference() {
    KernelGuard guard;
    references_++;
    driverReferences_++;
}

void Object::driverDereference(std::string_view call) {
    bool tooOften = false;
    {
        KernelGuard guard;
        tooOften = driverReferences_ == 0;
        if (!tooOften) {
            driverReferences_--;
        }
    }
    if (tooOften) {
        verifier::fail(Rule::ObjectTree, call, name(), "A reference is dropped that was never taken.");
    }
    release();
}

void* Object::context(PCWDF_OBJECT_CONTEXT_TYPE_INFO type) const {
    return type != nullptr && context_.type == type ? context_.memory.begin() : nullptr;
}

bool Object::deleting() const {
    KernelGuard guard;
    return deleting_;
}

bool Object::remove(Fate fate) {
    {
        KernelGuard guard;
        if (!beginRemovalLocked(fate)) {
            return false;
        }
    }
    removeTree();
    return true;
}

bool Object::beginRemovalLocked(Fate fate) {
    if (std::exchange(deleting_, true)) {
        return false;
    }
    fate_ = fate;
    if (parent_ != nullptr) {
        std::erase(parent_->children_, this);
    }
    return true;
}

void Object::removeForDriver(std::string_view call) {
    if (!driverMayDelete()) {
        verifier::fail(Rule::ObjectTree, call, name(), "This object is deleted by the framework only.");
    }
    bool twice = false;
    bool underWay = false;
    bool deferred = false;
    {
        KernelGuard guard;
        twice = deletedByDriver_;
        deletedByDriver_ = true;
        // A parent that is being deleted may have got here first, for example while the callback of a work
        // item that deletes itself was still running.
        underWay = !twice && !beginRemovalLocked(Fate::Deleted);
        deferred = treeWaitsLocked();
    }
    if (twice) {
        verifier::fail(Rule::HandleDeletedTwice, call, name(), "The driver has deleted this object before.");
    }
    if (underWay) {
        return;
    }
    if (deferred && kernel::currentIrql() > kernel::kPassiveLevel) {
        kernel::queueWork("deferred deletion", [this] { removeTree(); });
        return;
    }
    removeTree();
}

void Object::removeTree() {
    disposeTree();
    dropTree();
}

// The oldest child that is not disposed yet; it stays among the children until all of the tree is disposed.
Object* Object::nextToDispose() {
    KernelGuard guard;
    for (Object* child : children_) {
        if (!std::exchange(child->deleting_, true)) {
            child->fate_ = fate_;
            return child;
        }
    }
    return nullptr;
}

void Object::disposeTree() {
    while (Object* child = nextToDispose()) {
        child->disposeTree();
    }
    dispose();
    if (context_.cleanup != nullptr) {
        kernel::callDriver("EvtCleanupCallback", context_.cleanup, static_cast<WDFOBJECT>(handle_));
    }
}

void Object::dropTree() {
    std::vector<Object*> children;
    {
        KernelGuard guard;
        children.swap(children_);
    }
    for (Object* child : children) {
        child->dropTree();
    }
    release();
}

bool Object::treeWaitsLocked() const {
    return disposeWaits() || std::any_of(children_.begin(), children_.end(),
                                         [](Object* child) { return child->treeWaitsLocked(); });
}

void Object::destroy() {
    if (context_.destroy != nullptr) {
        {
            // The callback may still ask for the context, which takes a reference and gives it back.
            KernelGuard guard;
            references_ = 1;
            destroying_ = true;
        }
        kernel::callDriver("EvtDestroyCallback", context_.destroy, static_cast<WDFOBJECT>(handle_));
    }
    if (context_.memory) {
        const ContextMemory& memory = context_.memory;
        memory.requireIntact("EvtDestroyCallback", name());
        kernel::requireUnused(memory.begin(), memory.size(), "EvtDestroyCallback");
        kernel::locksDestroyed(memory.begin(), memory.end(), "EvtDestroyCallback");
    }
    Object* parent = nullptr;
    {
        KernelGuard guard;
        if (context_.memory) {
            objectTable().removeContext(context_.memory.begin());
        }
        objectTable().remove(handle_, deletedByDriver_ ? Fate::DeletedByDriver : fate_);
        parent = std::exchange(parent_, nullptr);
    }
    if (context_.memory && fate_ == Fate::RemovedWithDevice) {
        keepRemovedContext(std::move(context_.memory), name());
    }
    delete this;
    if (parent != nullptr) {
        parent->release();
    }
}

Call::Call(const char* name, unsigned maximumIrql) : name_(name) {
    if (kernel::currentIrql() > maximumIrql) {
        verifier::requireIrql(name, maximumIrql);
    }
}

Ref<Object> Call::any(const void* handle) const {
    return find(handle, false);
}

Ref<Object> Call::anyWithContext(const void* handle) const {
    return find(handle, true);
}

Ref<Object> Call::find(const void* handle, bool alsoDestroyed) const {
    ObjectTable::Found found;
    {
        KernelGuard guard;
        found = objectTable().find(handle);
        if (found.object != nullptr && (alsoDestroyed || !found.object->destroyingLocked())) {
            return Object::refLocked(found.object);
        }
    }
    if (!found.known) {
        verifier::fail(Rule::HandleStale, name_, fmt::format("{}", handle), "This is no handle.");
    }
    const std::string object = fmt::format("{} {}", kindName(found.kind), handle);
    if (found.object != nullptr) {
        verifier::fail(Rule::HandleStale, name_, object,
                       "EvtDestroyCallback may ask for the object's context and for nothing else.");
    }
    if (found.fate == Fate::RemovedWithDevice) {
        verifier::fail(Rule::UseAfterRemoval, name_, object, "The object went when its device was removed.");
    }
    verifier::fail(Rule::HandleStale, name_, object, "The object has been deleted.");
}

void Call::requireNotCompleted(const void* handle) const {
    if (fateOf(handle) == Fate::Completed) {
        verifier::fail(Rule::RequestCompletedTwice, name_, fmt::format("WDFREQUEST {}", handle),
                       "The request has been completed before.");
    }
}

void Call::requireNotDeleted(const void* handle) const {
    if (fateOf(handle) == Fate::DeletedByDriver) {
        verifier::fail(Rule::HandleDeletedTwice, name_, fmt::format("{}", handle),
                       "The driver has deleted this object before.");
    }
}

void Call::fail(Rule rule, const Object* object, std::string detail) const {
    verifier::fail(rule, name_, object != nullptr ? object->name() : std::string(), std::move(detail));
}

void Call::wrongType(const Object& object) const {
    fail(Rule::HandleStale, &object, "The handle is of another type than this call takes.");
}

NTSTATUS checkAttributes(const Call& call, const WDF_OBJECT_ATTRIBUTES* attributes,
                         const CreationRules& rules, Object* defaultParent, Ref<Object>& parent) {
    if (attributes == nullptr) {
        if (rules.parentRequired) {
            return STATUS_WDF_PARENT_NOT_SPECIFIED;
        }
        parent = Ref<Object>(defaultParent);
        return STATUS_SUCCESS;
    }
    if (attributes->Size != sizeof(WDF_OBJECT_ATTRIBUTES)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (const auto* type = attributes->ContextTypeInfo; type != nullptr) {
        if (type->Size != sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        if (type->ContextSize != 0 && type->ContextName == nullptr) {
            return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
        }
        if (attributes->ContextSizeOverride != 0 && attributes->ContextSizeOverride < type->ContextSize) {
            return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
        }
    } else if (attributes->ContextSizeOverride != 0) {
        return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
    }
    const auto level = attributes->ExecutionLevel;
    const auto scope = attributes->SynchronizationScope;
    if (level <= WdfExecutionLevelInvalid || level > WdfExecutionLevelDispatch ||
        scope <= WdfSynchronizationScopeInvalid || scope > WdfSynchronizationScopeNone) {
        return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
    }
    if (level != WdfExecutionLevelInheritFromParent && !rules.levelAllowed) {
        return STATUS_WDF_EXECUTION_LEVEL_INVALID;
    }
    // Callbacks serialized by a lock of the device or queue are not implemented.
    if (scope != WdfSynchronizationScopeInheritFromParent && scope != WdfSynchronizationScopeNone) {
        return STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID;
    }
    if (attributes->ParentObject != nullptr) {
        if (!rules.parentAllowed) {
            call.fail(Rule::ObjectTree, nullptr, "The driver may not choose a parent for this object.");
        }
        parent = call.any(attributes->ParentObject);
    } else if (rules.parentRequired) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    } else {
        parent = Ref<Object>(defaultParent);
    }
    return STATUS_SUCCESS;
}

NTSTATUS adoptObject(Object& object, Object* parent, const WDF_OBJECT_ATTRIBUTES* attributes) {
    Object::Context context;
    if (attributes != nullptr) {
        context.cleanup = attributes->EvtCleanupCallback;
        context.destroy = attributes->EvtDestroyCallback;
        if (const auto* type = attributes->ContextTypeInfo; type != nullptr) {
            const std::size_t size = std::max(type->ContextSize, attributes->ContextSizeOverride);
            context.memory = ContextMemory(size);
            if (!context.memory) {
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            context.type = type->UniqueType;
        }
    }
    KernelGuard guard;
    if (parent != nullptr) {
        if (parent->deleting_) {
            return STATUS_DELETE_PENDING;
        }
        parent->children_.push_back(&object);
        object.parent_ = parent;
        parent->references_++;
    }
    if (context.memory) {
        objectTable().addContext(context.memory.begin(), object);
    }
    object.context_ = std::move(context);
    return STATUS_SUCCESS;
}

NTSTATUS adoptForPacket(Object& object, Object& parent, const WDF_OBJECT_ATTRIBUTES* attributes,
                        std::string_view what) {
    if (kernel::faultPoint(kernel::FaultKind::Creation, what)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return adoptObject(object, &parent, attributes);
}

void releaseRemovedContexts() {
    std::vector<RemovedContext> contexts;
    {
        KernelGuard guard;
        contexts.swap(*removedContexts);
    }
    for (const RemovedContext& context : contexts) {
        if (!context.memory.isUntouched()) {
            verifier::fail(Rule::UseAfterRemoval, "IRP_MN_REMOVE_DEVICE", context.owner,
                           "The context was written to after the removal of the device had ended its life.");
        }
    }
}

std::uint64_t objectCreations() {
    KernelGuard guard;
    return objectTable().creations();
}

std::vector<std::string> liveObjects() {
    std::vector<std::string> names;
    KernelGuard guard;
    for (Object* object : objectTable().alive()) {
        names.push_back(object->name());
    }
    return names;
}

std::map<std::string, std::size_t> heldObjects() {
    std::map<std::string, std::size_t> held;
    KernelGuard guard;
    for (const Object* object : objectTable().alive()) {
        held[std::string(kindName(object->kind()))]++;
        held["references"] += static_cast<std::size_t>(object->driverReferencesLocked());
    }
    return held;
}

void noteCompleted(const void* handle) {
    KernelGuard guard;
    objectTable().setFate(handle, Fate::Completed);
}

} // namespace framework

// Functions of the driver.

using framework::Call;
using framework::Ref;
using kernel::kDispatchLevel;

PVOID WdfObjectGetTypedContextWorker(WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo) {
    Call call("WdfObjectGetTypedContext", kDispatchLevel);
    return call.anyWithContext(Handle)->context(TypeInfo);
}

WDFOBJECT WdfObjectContextGetObject(PVOID ContextPointer) {
    Call call("WdfObjectContextGetObject", kDispatchLevel);
    framework::Object* owner = nullptr;
    {
        kernel::KernelGuard guard;
        owner = framework::objectTable().ownerOf(ContextPointer);
    }
    if (owner == nullptr) {
        call.fail(framework::Rule::HandleStale, nullptr,
                  fmt::format("{} is no object context.", ContextPointer));
    }
    return owner->handle();
}

VOID WdfObjectReferenceActual(WDFOBJECT Handle, PVOID, LONG, PCHAR) {
    Call call("WdfObjectReference", kDispatchLevel);
    call.any(Handle)->driverReference();
}

VOID WdfObjectDereferenceActual(WDFOBJECT Handle, PVOID, LONG, PCHAR) {
    Call call("WdfObjectDereference", kDispatchLevel);
    call.any(Handle)->driverDereference(call.name());
}

VOID WdfObjectDelete(WDFOBJECT Object) {
    Call call("WdfObjectDelete", kDispatchLevel);
    call.requireNotDeleted(Object);
    call.any(Object)->removeForDriver(call.name());
}
