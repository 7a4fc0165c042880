// The aggregatable, reference-counted object base of the framework's COM
// objects (miniports, streams), and the pool allocation operators they are
// made with.
//
// Counting rules: the count is a signed 32-bit value that starts at 0;
// NonDelegatingAddRef increments it atomically and returns the new value;
// NonDelegatingRelease decrements it atomically and, when it reaches 0, sets
// it back to 1 (so that a QueryInterface/Release pair during destruction
// cannot destroy the object twice), destroys the object and returns 0.
#pragma once

#include "platform.h"

DECLARE_INTERFACE(INonDelegatingUnknown)
{
    STDMETHOD_(NTSTATUS, NonDelegatingQueryInterface)(THIS_ REFIID iid, PVOID *object) PURE;
    STDMETHOD_(ULONG, NonDelegatingAddRef)(THIS) PURE;
    STDMETHOD_(ULONG, NonDelegatingRelease)(THIS) PURE;
};
typedef INonDelegatingUnknown *PNONDELEGATINGUNKNOWN;

class CUnknown : public INonDelegatingUnknown
{
public:
    explicit CUnknown(_In_opt_ PUNKNOWN outerUnknown);
    virtual ~CUnknown();

    // The controlling unknown: the outer unknown given at construction, or
    // this object's own non-delegating unknown.
    PUNKNOWN GetOuterUnknown() const { return m_pUnknownOuter; }
    LONG GetReferenceCount() const { return m_lRefCount; }

    STDMETHODIMP_(NTSTATUS) NonDelegatingQueryInterface(_In_ REFIID iid, _Out_ PVOID *object) override;
    STDMETHODIMP_(ULONG) NonDelegatingAddRef() override;
    STDMETHODIMP_(ULONG) NonDelegatingRelease() override;

    // Allocation from pool, zero-filled, with the framework's tag or a given
    // one. Storage goes back to the pool when the object is deleted.
    static void *operator new(size_t size, POOL_TYPE poolType) noexcept;
    static void *operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept;
    static void operator delete(void *p);
    static void operator delete(void *p, POOL_TYPE poolType);
    static void operator delete(void *p, POOL_TYPE poolType, ULONG tag);

private:
    volatile LONG m_lRefCount;
    PUNKNOWN m_pUnknownOuter;
};

// IUnknown methods of a derived class's interfaces, forwarded to the
// controlling unknown.
#define DECLARE_STD_UNKNOWN()                                                               \
    STDMETHODIMP_(NTSTATUS) NonDelegatingQueryInterface(REFIID iid, PVOID *object) override; \
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override                \
    {                                                                                       \
        return GetOuterUnknown()->QueryInterface(iid, object);                              \
    }                                                                                       \
    STDMETHODIMP_(ULONG) AddRef() override { return GetOuterUnknown()->AddRef(); }          \
    STDMETHODIMP_(ULONG) Release() override { return GetOuterUnknown()->Release(); }

#define DEFINE_STD_CONSTRUCTOR(Class) \
    explicit Class(PUNKNOWN outerUnknown) : CUnknown(outerUnknown) {}
