// Work items: each enqueue runs the callback once on a worker at PASSIVE_LEVEL.
#include "platform/framework/callback_source.h"
#include "platform/framework/device.h"

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

class WorkItem final : public CallbackSource {
  public:
    explicit WorkItem(const WDF_WORKITEM_CONFIG& config) : CallbackSource(Kind::WorkItem), config_(config) {}

    WDFWORKITEM wdf() const { return static_cast<WDFWORKITEM>(handle()); }

    // No effect while the item is queued and its callback has not begun.
    void enqueue(const Call& call) {
        bool deleted = false;
        {
            KernelGuard guard;
            deleted = deletingLocked();
            if (!deleted) {
                if (queued_) {
                    return;
                }
                queued_ = true;
                expectLocked();
            }
        }
        if (deleted) {
            call.fail(Rule::CallbackObject, this, "The work item is enqueued while it is being deleted.");
        }
        reference();
        kernel::queueWork("work item", [this] {
            const auto self = Ref<WorkItem>::adopt(this);
            run();
        });
    }

    void flush(const Call& call) { waitForCallbacks(call.name(), OwnEnd::Deadlock); }

  protected:
    void dispose() override { waitForCallbacks("WdfObjectDelete", OwnEnd::DeletesItself); }
    bool disposeWaits() const override { return true; }

  private:
    void run() {
        {
            KernelGuard guard;
            queued_ = false;
        }
        enter();
        callDriver("EvtWorkItem", config_.EvtWorkItemFunc, wdf());
        leave();
    }

    const WDF_WORKITEM_CONFIG config_;
    bool queued_ = false; // guarded by the kernel lock
};

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

NTSTATUS WdfWorkItemCreate(PWDF_WORKITEM_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes,
                           WDFWORKITEM* WorkItem) {
    Call call("WdfWorkItemCreate", kDispatchLevel);
    if (WorkItem == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *WorkItem = nullptr;
    if (Config->Size != sizeof(WDF_WORKITEM_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (Config->EvtWorkItemFunc == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const framework::CreationRules rules{.parentRequired = true};
    Ref<framework::Object> parent;
    NTSTATUS status = checkAttributes(call, Attributes, rules, nullptr, parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    requireDeviceAbove(call, *parent);
    Ref<framework::WorkItem> item;
    status = createObject(call, Attributes, rules, nullptr, item,
                          [&](framework::Object*) { return new framework::WorkItem(*Config); });
    if (NT_SUCCESS(status)) {
        *WorkItem = item->wdf();
    }
    return status;
}

VOID WdfWorkItemEnqueue(WDFWORKITEM WorkItem) {
    Call call("WdfWorkItemEnqueue", kDispatchLevel);
    call.object<framework::WorkItem>(WorkItem)->enqueue(call);
}

WDFOBJECT WdfWorkItemGetParentObject(WDFWORKITEM WorkItem) {
    Call call("WdfWorkItemGetParentObject", kDispatchLevel);
    return call.object<framework::WorkItem>(WorkItem)->parent()->handle();
}

VOID WdfWorkItemFlush(WDFWORKITEM WorkItem) {
    Call call("WdfWorkItemFlush", kPassiveLevel);
    call.object<framework::WorkItem>(WorkItem)->flush(call);
}
