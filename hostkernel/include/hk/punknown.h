// Kernel-mode COM as portcls defines it: IUnknown whose QueryInterface returns
// an NTSTATUS, and the interface declaration macros.
#pragma once

#include "ntdef.h"
#include "ex.h"

#define interface struct
#define PURE = 0
#define THIS_
#define THIS void
#define STDMETHOD(method) virtual NTSTATUS STDMETHODCALLTYPE method
#define STDMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define STDMETHODIMP NTSTATUS STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE
#define DECLARE_INTERFACE(iface) interface DECLSPEC_NOVTABLE iface
#define DECLARE_INTERFACE_(iface, base) interface DECLSPEC_NOVTABLE iface : public base

DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);

DECLARE_INTERFACE(IUnknown)
{
    STDMETHOD_(NTSTATUS, QueryInterface)(THIS_ REFIID iid, PVOID *object) PURE;
    STDMETHOD_(ULONG, AddRef)(THIS) PURE;
    STDMETHOD_(ULONG, Release)(THIS) PURE;
};
typedef IUnknown *PUNKNOWN;

#define DEFINE_ABSTRACT_UNKNOWN()                                              \
    STDMETHOD_(NTSTATUS, QueryInterface)(THIS_ REFIID InterfaceId, PVOID *Interface) PURE; \
    STDMETHOD_(ULONG, AddRef)(THIS) PURE;                                      \
    STDMETHOD_(ULONG, Release)(THIS) PURE;

typedef NTSTATUS(NTAPI *PFNCREATEINSTANCE)(PUNKNOWN *Unknown, REFCLSID ClassId, PUNKNOWN OuterUnknown,
                                           POOL_TYPE PoolType);
