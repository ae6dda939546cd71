// IServiceGroup of the host port-class library and PcNewServiceGroup. A
// request for service is passed to every member (the wave port's pins, once
// they exist); a delayed request runs through a kernel timer and its DPC.
#include "PortClsInternal.h"

#include <vector>

extern "C" const GUID IID_IHostServiceGroupPrivate = {
    0x6F0C3B9A, 0x2B41, 0x4C0E, {0x9E, 0x57, 0x8A, 0x1D, 0x4C, 0x7B, 0x0F, 0x12}};

namespace hostpc::detail {
namespace {

class ServiceGroup final : public IServiceGroup {
public:
    ServiceGroup() {
        KeInitializeDpc(&mDpc, &ServiceGroup::delayedService, this);
        KeInitializeTimer(&mTimer);
        ++liveCount();
    }
    ~ServiceGroup() {
        KeCancelTimer(&mTimer);
        if (KeGetCurrentIrql() < DISPATCH_LEVEL)
            KeFlushQueuedDpcs();
        for (PSERVICESINK member : mMembers)
            member->Release();
        --liveCount();
    }

    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID* object) override {
        if (!object)
            return STATUS_INVALID_PARAMETER;
        if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IServiceSink) ||
            IsEqualGUID(iid, IID_IServiceGroup) || IsEqualGUID(iid, IID_IHostServiceGroupPrivate)) {
            *object = static_cast<IServiceGroup*>(this);
            AddRef();
            return STATUS_SUCCESS;
        }
        *object = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++mReferences; }
    STDMETHODIMP_(ULONG) Release() override {
        LONG count = --mReferences;
        if (count == 0)
            poolDelete(this, kGroupTag);
        return (ULONG)count;
    }

    // Any level up to dispatch; allocates no pool memory.
    STDMETHODIMP_(void) RequestService() override {
        ++mRequests;
        PSERVICESINK snapshot[kMaxMembers];
        size_t count = 0;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            for (PSERVICESINK member : mMembers) {
                member->AddRef();
                snapshot[count++] = member;
            }
        }
        for (size_t i = 0; i < count; ++i) {
            snapshot[i]->RequestService();
            snapshot[i]->Release();
        }
    }

    STDMETHODIMP_(NTSTATUS) AddMember(PSERVICESINK sink) override {
        if (!sink)
            return STATUS_INVALID_PARAMETER;
        std::lock_guard<std::mutex> lock(mMutex);
        if (mMembers.size() >= kMaxMembers)
            return STATUS_INSUFFICIENT_RESOURCES;
        for (PSERVICESINK member : mMembers)
            if (member == sink)
                return STATUS_INVALID_PARAMETER;
        sink->AddRef();
        mMembers.push_back(sink);
        return STATUS_SUCCESS;
    }
    STDMETHODIMP_(void) RemoveMember(PSERVICESINK sink) override {
        PSERVICESINK removed = nullptr;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            for (auto it = mMembers.begin(); it != mMembers.end(); ++it) {
                if (*it == sink) {
                    removed = *it;
                    mMembers.erase(it);
                    break;
                }
            }
        }
        if (removed)
            removed->Release();
    }
    STDMETHODIMP_(void) SupportDelayedService() override { mDelayedSupported = true; }
    // ullDelay is a kernel due time: negative is relative, in 100 ns.
    STDMETHODIMP_(void) RequestDelayedService(ULONGLONG ullDelay) override {
        LARGE_INTEGER due;
        due.QuadPart = (LONGLONG)ullDelay;
        KeSetTimer(&mTimer, due, &mDpc);
    }
    STDMETHODIMP_(void) CancelDelayedService() override { KeCancelTimer(&mTimer); }

    ServiceGroupState state() {
        std::lock_guard<std::mutex> lock(mMutex);
        ServiceGroupState s;
        s.isGroup = true;
        s.members = mMembers.size();
        s.serviceRequests = mRequests.load();
        s.delayedServiceSupported = mDelayedSupported.load();
        s.references = mReferences.load();
        return s;
    }

private:
    static constexpr size_t kMaxMembers = 16;

    static void NTAPI delayedService(PKDPC, PVOID context, PVOID, PVOID) {
        static_cast<ServiceGroup*>(context)->RequestService();
    }

    std::atomic<LONG> mReferences{0};
    std::mutex mMutex;
    std::vector<PSERVICESINK> mMembers;
    std::atomic<size_t> mRequests{0};
    std::atomic<bool> mDelayedSupported{false};
    KTIMER mTimer;
    KDPC mDpc;
};

} // namespace
} // namespace hostpc::detail

using namespace hostpc::detail;

extern "C" NTSTATUS NTAPI PcNewServiceGroup(PSERVICEGROUP* OutServiceGroup, PUNKNOWN OuterUnknown) {
    UNREFERENCED_PARAMETER(OuterUnknown); // no aggregation
    if (!OutServiceGroup)
        return STATUS_INVALID_PARAMETER;
    *OutServiceGroup = nullptr;
    NTSTATUS status = injectedFailure(hostpc::Op::NewServiceGroup);
    if (!NT_SUCCESS(status))
        return status;
    ServiceGroup* group = poolNew<ServiceGroup>(kGroupTag);
    if (!group)
        return STATUS_INSUFFICIENT_RESOURCES;
    group->AddRef();
    *OutServiceGroup = group;
    return STATUS_SUCCESS;
}

namespace hostpc {

ServiceGroupState serviceGroupState(PUNKNOWN group) {
    if (!group)
        return ServiceGroupState{};
    PVOID object = nullptr;
    if (!NT_SUCCESS(group->QueryInterface(IID_IHostServiceGroupPrivate, &object)) || !object)
        return ServiceGroupState{};
    auto* host = static_cast<ServiceGroup*>(static_cast<IServiceGroup*>(object));
    ServiceGroupState s = host->state();
    host->Release();
    --s.references;
    return s;
}

} // namespace hostpc
