// Service groups: sinks serviced together in a DPC. A queued DPC and an armed
// delayed-service timer each hold a reference on the group, so the group's
// KDPC and KTIMER can never be released while the kernel still has them
// queued, whoever drops the last outside reference.
#include "internal.h"

namespace hostkernel::detail::pc {

class ServiceGroup : public IServiceGroup, public Object {
public:
    ServiceGroup() : Object("ServiceGroup")
    {
        KeInitializeDpc(&dpc_, &ServiceGroup::dpcRoutine, this);
        KeInitializeDpc(&timerDpc_, &ServiceGroup::dpcRoutine, this);
        KeInitializeTimer(&timer_);
    }

    HK_PC_UNKNOWN()

    STDMETHODIMP_(void) RequestService() override
    {
        addRef();
        if (!KeInsertQueueDpc(&dpc_, NULL, NULL)) {
            release(); // already queued: that DPC services this request too
        }
    }

    STDMETHODIMP_(NTSTATUS) AddMember(PSERVICESINK sink) override
    {
        if (sink == NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        sink->AddRef();
        std::lock_guard<std::mutex> lock(mutex_);
        members_.push_back(sink);
        return STATUS_SUCCESS;
    }

    STDMETHODIMP_(void) RemoveMember(PSERVICESINK sink) override
    {
        PSERVICESINK removed = NULL;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto it = members_.begin(); it != members_.end(); ++it) {
                if (*it == sink) {
                    removed = *it;
                    members_.erase(it);
                    break;
                }
            }
        }
        if (removed != NULL) {
            removed->Release();
        }
    }

    STDMETHODIMP_(void) SupportDelayedService() override {}

    STDMETHODIMP_(void) RequestDelayedService(ULONGLONG delay) override
    {
        LARGE_INTEGER due;
        due.QuadPart = -LONGLONG(delay);
        addRef();
        if (KeSetTimer(&timer_, due, &timerDpc_)) {
            release(); // re-armed: the reference of the first arming stays
        }
    }

    STDMETHODIMP_(void) CancelDelayedService() override
    {
        if (KeCancelTimer(&timer_)) {
            release();
        }
    }

private:
    static VOID NTAPI dpcRoutine(PKDPC, PVOID context, PVOID, PVOID)
    {
        static_cast<ServiceGroup *>(context)->service();
    }

    void service()
    {
        std::vector<PSERVICESINK> members;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            members = members_;
            for (PSERVICESINK sink : members) {
                sink->AddRef();
            }
        }
        for (PSERVICESINK sink : members) {
            sink->RequestService();
            sink->Release();
        }
        release(); // the reference the queued DPC or the armed timer held
    }

    void finalRelease() override
    {
        std::vector<PSERVICESINK> members;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            members.swap(members_);
        }
        for (PSERVICESINK sink : members) {
            sink->Release();
        }
    }

    KDPC dpc_;
    KDPC timerDpc_;
    KTIMER timer_;
    std::mutex mutex_;
    std::vector<PSERVICESINK> members_;
};

STDMETHODIMP_(NTSTATUS) ServiceGroup::QueryInterface(REFIID iid, PVOID *object)
{
    if (object == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IServiceSink) || IsEqualGUID(iid, IID_IServiceGroup)) {
        *object = static_cast<IServiceGroup *>(this);
        addRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS newServiceGroup(ServiceGroup **out)
{
    *out = new ServiceGroup;
    return STATUS_SUCCESS;
}

} // namespace hostkernel::detail::pc

using namespace hostkernel::detail::pc;

NTSTATUS NTAPI PcNewServiceGroup(PSERVICEGROUP *OutServiceGroup, PUNKNOWN OuterUnknown)
{
    if (OutServiceGroup == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutServiceGroup = NULL;
    if (OuterUnknown != NULL) {
        // The framework's groups are not aggregatable.
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (takeServiceGroupFault(&status)) {
        return status;
    }
    ServiceGroup *group = nullptr;
    status = newServiceGroup(&group);
    if (NT_SUCCESS(status)) {
        *OutServiceGroup = group;
    }
    return status;
}
