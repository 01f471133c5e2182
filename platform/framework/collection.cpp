// Collections: they hold a reference on each object they list and own none.
#include "platform/framework/driver.h"
#include "platform/framework/object.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>

namespace framework {

class Collection final : public Object {
  public:
    Collection() : Object(Kind::Collection) {}

    void add(Ref<Object> object) {
        kernel::KernelGuard guard;
        items_.push_back(std::move(object));
    }

    ULONG count() const {
        kernel::KernelGuard guard;
        return static_cast<ULONG>(items_.size());
    }

    WDFOBJECT item(ULONG index) const {
        kernel::KernelGuard guard;
        return index < items_.size() ? items_[index]->handle() : nullptr;
    }

    // False when the object is not listed. The reference is dropped after the lock.
    bool removeObject(const Object& object) {
        Ref<Object> removed;
        kernel::KernelGuard guard;
        const auto found = std::find_if(items_.begin(), items_.end(),
                                        [&](const Ref<Object>& item) { return item.get() == &object; });
        return take(found, removed);
    }

    bool removeIndex(ULONG index) {
        Ref<Object> removed;
        kernel::KernelGuard guard;
        return take(index < items_.size() ? items_.begin() + index : items_.end(), removed);
    }

  protected:
    void dispose() override {
        std::deque<Ref<Object>> items;
        kernel::KernelGuard guard;
        items.swap(items_);
    }

  private:
    bool take(std::deque<Ref<Object>>::iterator position, Ref<Object>& removed) {
        if (position == items_.end()) {
            return false;
        }
        removed = std::move(*position);
        items_.erase(position);
        return true;
    }

    std::deque<Ref<Object>> items_; // guarded by the kernel lock
};

} // namespace framework

using framework::Call;
using framework::Collection;
using framework::Ref;
using framework::Rule;
using kernel::kDispatchLevel;

NTSTATUS WdfCollectionCreate(PWDF_OBJECT_ATTRIBUTES CollectionAttributes, WDFCOLLECTION* Collection) {
    Call call("WdfCollectionCreate", kDispatchLevel);
    if (Collection == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Collection = nullptr;
    Ref<framework::Collection> collection;
    const NTSTATUS status = createObject(call, CollectionAttributes, {}, &requireDriver(call), collection,
                                         [](framework::Object*) { return new framework::Collection(); });
    if (NT_SUCCESS(status)) {
        *Collection = static_cast<WDFCOLLECTION>(collection->handle());
    }
    return status;
}

ULONG WdfCollectionGetCount(WDFCOLLECTION Collection) {
    Call call("WdfCollectionGetCount", kDispatchLevel);
    return call.object<framework::Collection>(Collection)->count();
}

NTSTATUS WdfCollectionAdd(WDFCOLLECTION Collection, WDFOBJECT Object) {
    Call call("WdfCollectionAdd", kDispatchLevel);
    auto collection = call.object<framework::Collection>(Collection);
    auto object = call.any(Object);
    if (call.fault(kernel::FaultKind::Allocation)) {
        return STATUS_UNSUCCESSFUL;
    }
    collection->add(std::move(object));
    return STATUS_SUCCESS;
}

VOID WdfCollectionRemove(WDFCOLLECTION Collection, WDFOBJECT Item) {
    Call call("WdfCollectionRemove", kDispatchLevel);
    auto collection = call.object<framework::Collection>(Collection);
    auto object = call.any(Item);
    if (!collection->removeObject(*object)) {
        call.fail(Rule::Argument, collection.get(), object->name() + " is not in the collection.");
    }
}

VOID WdfCollectionRemoveItem(WDFCOLLECTION Collection, ULONG Index) {
    Call call("WdfCollectionRemoveItem", kDispatchLevel);
    auto collection = call.object<framework::Collection>(Collection);
    if (!collection->removeIndex(Index)) {
        call.fail(Rule::Argument, collection.get(), fmt::format("There is no item {}.", Index));
    }
}

WDFOBJECT WdfCollectionGetItem(WDFCOLLECTION Collection, ULONG Index) {
    Call call("WdfCollectionGetItem", kDispatchLevel);
    return call.object<framework::Collection>(Collection)->item(Index);
}

WDFOBJECT WdfCollectionGetFirstItem(WDFCOLLECTION Collection) {
    Call call("WdfCollectionGetFirstItem", kDispatchLevel);
    return call.object<framework::Collection>(Collection)->item(0);
}
