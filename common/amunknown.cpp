// The object base and its allocation operators.
#define AM_UNIT AM_UNIT_MINIPORT
#include "amcommon.h"
#include "amunknown.h"

CUnknown::CUnknown(_In_opt_ PUNKNOWN outerUnknown)
    : m_lRefCount(0),
      m_pUnknownOuter(outerUnknown != NULL
                          ? outerUnknown
                          // The non-delegating interface has IUnknown's shape:
                          // with no outer object it serves as the controlling one.
                          : reinterpret_cast<PUNKNOWN>(static_cast<PNONDELEGATINGUNKNOWN>(this)))
{
}

CUnknown::~CUnknown()
{
}

STDMETHODIMP_(NTSTATUS) CUnknown::NonDelegatingQueryInterface(_In_ REFIID iid, _Out_ PVOID *object)
{
    if (IsEqualGUIDAligned(iid, IID_IUnknown)) {
        *object = static_cast<PVOID>(static_cast<PNONDELEGATINGUNKNOWN>(this));
        NonDelegatingAddRef();
        return STATUS_SUCCESS;
    }
    *object = NULL;
    return STATUS_INVALID_PARAMETER;
}

STDMETHODIMP_(ULONG) CUnknown::NonDelegatingAddRef()
{
    return (ULONG)InterlockedIncrement(&m_lRefCount);
}

STDMETHODIMP_(ULONG) CUnknown::NonDelegatingRelease()
{
    LONG count = InterlockedDecrement(&m_lRefCount);
    if (count == 0) {
        m_lRefCount = 1;
        delete this;
        return 0;
    }
    return (ULONG)count;
}

void *CUnknown::operator new(size_t size, POOL_TYPE poolType) noexcept
{
    return operator new(size, poolType, AMBREL_OBJECT_POOL_TAG);
}

void *CUnknown::operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept
{
    PVOID p = ExAllocatePoolWithTag(poolType, size, tag);
    if (p != NULL) {
        RtlZeroMemory(p, size);
    }
    return p;
}

void CUnknown::operator delete(void *p)
{
    if (p != NULL) {
        ExFreePool(p);
    }
}

void CUnknown::operator delete(void *p, POOL_TYPE)
{
    operator delete(p);
}

void CUnknown::operator delete(void *p, POOL_TYPE, ULONG)
{
    operator delete(p);
}
