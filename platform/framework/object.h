// Framework objects: handles that are recognized when they are stale, the tree of parents and children,
// references, driver contexts, and the order in which all of it is taken down.
//
// Tree, references and handles are guarded by the kernel lock. An object lives while there is a reference to
// it: the creation reference until its deletion has finished, the driver's references, and `Ref`s of the
// framework itself.
#pragma once

#include "platform/framework/context_memory.h"
#include "platform/framework/kind.h"
#include "platform/framework/object_table.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/scheduler.h"
#include "platform/verifier/verifier.h"

#include <wdf.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace framework {

using verifier::Rule;

class Object;

// A counted reference of the framework's own.
template <typename T>
class Ref {
  public:
    Ref() = default;
    explicit Ref(T* object) : object_(object) {
        if (object_ != nullptr) {
            object_->reference();
        }
    }
    Ref(const Ref& other) : Ref(other.object_) {}
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() {
        if (object_ != nullptr) {
            object_->release();
        }
    }

    // Takes over a reference that was counted already.
    static Ref adopt(T* object) {
        Ref ref;
        ref.object_ = object;
        return ref;
    }

    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

  private:
    T* object_ = nullptr;
};

class Object {
  public:
    explicit Object(Kind kind);
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    Kind kind() const { return kind_; }
    void* handle() const { return handle_; }
    Object* parent() const { return parent_; }
    std::string name() const; // "WDFREQUEST 0xdf..."

    void reference();
    void release(); // destroys the object when it was the last reference

    // The driver's own references, counted apart so that one dropped too often is found.
    void driverReference();
    void driverDereference(std::string_view call);

    // Context of the given type, or null.
    void* context(PCWDF_OBJECT_CONTEXT_TYPE_INFO type) const;

    // Deletes the object and everything below it in two phases. First all of the tree is disposed, children
    // before their parent and oldest first: the framework ends what it does with the object (`dispose`), and
    // the driver's clean-up callback runs. Then the creation references are dropped in the same order, so a
    // parent's clean-up callback can still use the contexts and memory of its children. Returns false when
    // the object was being deleted already. `fate` tells later users of a handle what has become of it.
    bool remove(Fate fate = Fate::Deleted);

    // The same on behalf of WdfObjectDelete.
    void removeForDriver(std::string_view call);

    bool deleting() const; // takes the kernel lock
    bool deletingLocked() const { return deleting_; }
    bool destroyingLocked() const { return destroying_; }
    long driverReferencesLocked() const { return driverReferences_; }

    // Runs `visit` for a snapshot of the children.
    template <typename T>
    std::vector<Ref<T>> childrenOf(Kind kind) const {
        std::vector<Ref<T>> result;
        kernel::KernelGuard guard;
        for (Object* child : children_) {
            if (child->kind_ == kind) {
                result.push_back(refLocked(static_cast<T*>(child)));
            }
        }
        return result;
    }

  protected:
    // Ends what the framework does with the object: cancels, waits for callbacks under way.
    virtual void dispose() {}

    // True when `dispose` may have to wait, so that a deletion at DISPATCH_LEVEL is done by a worker.
    virtual bool disposeWaits() const { return false; }

    // Objects that belong to the framework alone.
    virtual bool driverMayDelete() const { return true; }

    friend class Call;

    template <typename T>
    static Ref<T> refLocked(T* object) {
        object->references_++;
        return Ref<T>::adopt(object);
    }

  private:
    friend NTSTATUS adoptObject(Object& object, Object* parent, const WDF_OBJECT_ATTRIBUTES* attributes);

    struct Context {
        PCWDF_OBJECT_CONTEXT_TYPE_INFO type = nullptr;
        ContextMemory memory;
        PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup = nullptr;
        PFN_WDF_OBJECT_CONTEXT_DESTROY destroy = nullptr;
    };

    bool beginRemovalLocked(Fate fate);
    void removeTree();
    void disposeTree();
    void dropTree();
    Object* nextToDispose();
    bool treeWaitsLocked() const;
    void destroy();

    const Kind kind_;
    void* handle_ = nullptr; // set once
    Object* parent_ = nullptr;
    std::vector<Object*> children_;
    long references_ = 1;
    long driverReferences_ = 0;
    bool deleting_ = false;
    bool destroying_ = false; // EvtDestroyCallback runs
    bool deletedByDriver_ = false;
    Fate fate_ = Fate::Deleted; // once it is gone, if the driver has not deleted it

    Context context_; // set at creation
};

// The prologue of a framework function: leaves the driver, checks the IRQL limit, looks handles up.
class Call {
  public:
    Call(const char* name, unsigned maximumIrql);

    const char* name() const { return name_; }

    // The object behind a handle of the driver; a stale handle or one of another type ends the run.
    template <typename T>
    Ref<T> object(const void* handle) const {
        Ref<Object> object = any(handle);
        T* typed = dynamic_cast<T*>(object.get());
        if (typed == nullptr) {
            wrongType(*object);
        }
        return Ref<T>(typed);
    }
    Ref<Object> any(const void* handle) const;

    // The same, for the one call that is allowed in an object's EvtDestroyCallback.
    Ref<Object> anyWithContext(const void* handle) const;

    // A request that was completed and is gone with that: completing it again has a rule of its own.
    void requireNotCompleted(const void* handle) const;

    // The same for an object that the driver deleted, before it deletes one.
    void requireNotDeleted(const void* handle) const;

    bool fault(kernel::FaultKind kind) const { return kernel::faultPoint(kind, name_); }
    [[noreturn]] void fail(Rule rule, const Object* object, std::string detail) const;

  private:
    Ref<Object> find(const void* handle, bool alsoDestroyed) const;
    [[noreturn]] void wrongType(const Object& object) const;

    kernel::PlatformCall platformCall_;
    const char* name_;
};

// What a kind of object accepts in its attributes.
struct CreationRules {
    bool parentAllowed = true;   // attributes may name one; ObjectTree is reported if they do regardless
    bool parentRequired = false; // attributes must name one
    bool levelAllowed = false;   // an execution level or synchronization scope of its own
};

// Checks attributes as the framework does: status of the first thing wrong, and the parent to use. The
// framework refuses a parent that may not own the child with a status as well, but a driver cannot mean that:
// it is reported.
NTSTATUS checkAttributes(const Call& call, const WDF_OBJECT_ATTRIBUTES* attributes,
                         const CreationRules& rules, Object* defaultParent, Ref<Object>& parent);

// Puts a new object under its parent and gives it its context. On failure the object must be destroyed with
// `release`; no callback of the driver runs for it.
NTSTATUS adoptObject(Object& object, Object* parent, const WDF_OBJECT_ATTRIBUTES* attributes);

// The same for what the framework makes for a packet: memory for it may be refused as for anything else.
NTSTATUS adoptForPacket(Object& object, Object& parent, const WDF_OBJECT_ATTRIBUTES* attributes,
                        std::string_view what);

// The common part of every creation.
template <typename T, typename Make>
NTSTATUS createObject(const Call& call, const WDF_OBJECT_ATTRIBUTES* attributes, const CreationRules& rules,
                      Object* defaultParent, Ref<T>& result, Make make) {
    Ref<Object> parent;
    NTSTATUS status = checkAttributes(call, attributes, rules, defaultParent, parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (call.fault(kernel::FaultKind::Creation)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    T* object = make(parent.get());
    status = adoptObject(*object, parent.get(), attributes);
    if (!NT_SUCCESS(status)) {
        object->release();
        return status;
    }
    result = Ref<T>(object);
    return STATUS_SUCCESS;
}

// Objects created since the machine started, and those alive now.
std::uint64_t objectCreations();
std::vector<std::string> liveObjects();

// How many objects of each kind are alive, and how many references the driver holds.
std::map<std::string, std::size_t> heldObjects();

// Reports UseAfterRemoval when the context of an object that went with its device was written to since, and
// gives the memory of all such contexts back.
void releaseRemovedContexts();

// Notes that the object behind `handle` was a request that has been completed (see `requireNotCompleted`).
void noteCompleted(const void* handle);

} // namespace framework
