// The audio port-class framework (portcls) as drivers see it: the filter,
// pin, node and automation descriptors a miniport hands out, the property
// requests it answers, the COM interfaces between adapter, port and miniport,
// and the framework's exported routines. Names, member order, argument order
// and types are the DDK's, so that adapter and miniport sources compile
// unchanged against this header and the DDK's portcls.h.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "punknown.h"
#include "io.h"
#include "registry.h"
#include "ks.h"
#include "ksmedia.h"
#include "dmusprop.h"

// SAL annotations of the miniport interfaces that ntdef.h does not spell.
#ifndef _In_reads_bytes_opt_
#define _In_reads_bytes_opt_(n)
#endif
#ifndef _Out_writes_bytes_to_
#define _Out_writes_bytes_to_(n, m)
#endif

// ---------------------------------------------------------------- kernel types portcls names
// Device properties as IoGetDeviceProperty numbers them.
typedef enum {
    DevicePropertyDeviceDescription = 0,
    DevicePropertyHardwareID,
    DevicePropertyCompatibleIDs,
    DevicePropertyBootConfiguration,
    DevicePropertyBootConfigurationTranslated,
    DevicePropertyClassName,
    DevicePropertyClassGuid,
    DevicePropertyDriverKeyName,
    DevicePropertyManufacturer,
    DevicePropertyFriendlyName,
    DevicePropertyLocationInformation,
    DevicePropertyPhysicalDeviceObjectName,
    DevicePropertyBusTypeGuid,
    DevicePropertyLegacyBusType,
    DevicePropertyBusNumber,
    DevicePropertyEnumeratorName,
    DevicePropertyAddress,
    DevicePropertyUINumber,
    DevicePropertyInstallState,
    DevicePropertyRemovalPolicy,
    DevicePropertyResourceRequirements,
    DevicePropertyAllocatedResources,
    DevicePropertyContainerID
} DEVICE_REGISTRY_PROPERTY;

typedef enum _KEY_INFORMATION_CLASS {
    KeyBasicInformation = 0,
    KeyNodeInformation,
    KeyFullInformation,
    KeyNameInformation,
    KeyCachedInformation,
    KeyFlagsInformation
} KEY_INFORMATION_CLASS;

typedef NTSTATUS (NTAPI *PRTL_QUERY_REGISTRY_ROUTINE)(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                ULONG ValueLength, PVOID Context, PVOID EntryContext);
typedef struct _RTL_QUERY_REGISTRY_TABLE {
    PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
    ULONG Flags;
    PWSTR Name;
    PVOID EntryContext;
    ULONG DefaultType;
    PVOID DefaultData;
    ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

typedef int CM_RESOURCE_TYPE;

// ---------------------------------------------------------------- descriptors
// The part of the adapter device's extension that belongs to portcls; an
// adapter asking for a bigger extension owns the bytes after it.
#define PORT_CLASS_DEVICE_EXTENSION_SIZE (64 * sizeof(ULONG_PTR))

#define PCFILTER_NODE KSFILTER_NODE
#define SIZEOF_ARRAY(a) (sizeof(a) / sizeof((a)[0]))

typedef struct _PCPROPERTY_REQUEST PCPROPERTY_REQUEST, *PPCPROPERTY_REQUEST;
typedef NTSTATUS(NTAPI *PCPFNPROPERTY_HANDLER)(PPCPROPERTY_REQUEST PropertyRequest);

#define PCPROPERTY_ITEM_FLAG_GET KSPROPERTY_TYPE_GET
#define PCPROPERTY_ITEM_FLAG_SET KSPROPERTY_TYPE_SET
#define PCPROPERTY_ITEM_FLAG_BASICSUPPORT KSPROPERTY_TYPE_BASICSUPPORT
#define PCPROPERTY_ITEM_FLAG_SERIALIZERAW KSPROPERTY_TYPE_SERIALIZERAW
#define PCPROPERTY_ITEM_FLAG_UNSERIALIZERAW KSPROPERTY_TYPE_UNSERIALIZERAW
#define PCPROPERTY_ITEM_FLAG_SERIALIZESIZE KSPROPERTY_TYPE_SERIALIZESIZE
#define PCPROPERTY_ITEM_FLAG_SERIALIZE \
    (PCPROPERTY_ITEM_FLAG_SERIALIZERAW | PCPROPERTY_ITEM_FLAG_UNSERIALIZERAW | PCPROPERTY_ITEM_FLAG_SERIALIZESIZE)
#define PCPROPERTY_ITEM_FLAG_DEFAULTVALUES KSPROPERTY_TYPE_DEFAULTVALUES

typedef struct {
    const GUID *Set;
    ULONG Id;
    ULONG Flags;
    PCPFNPROPERTY_HANDLER Handler;
} PCPROPERTY_ITEM, *PPCPROPERTY_ITEM;

struct _PCPROPERTY_REQUEST {
    PUNKNOWN MajorTarget;  // the miniport
    PUNKNOWN MinorTarget;  // the stream of the pin the request came through, or null
    ULONG Node;            // the node id, or ULONG(-1) for a request on the filter or pin itself
    const PCPROPERTY_ITEM *PropertyItem;
    ULONG Verb;
    ULONG InstanceSize;
    PVOID Instance;
    ULONG ValueSize;       // in: room in Value; out: bytes produced or needed
    PVOID Value;
    PIRP Irp;
};

#define PCEVENT_ITEM_FLAG_ENABLE KSEVENT_TYPE_ENABLE
#define PCEVENT_ITEM_FLAG_ONESHOT KSEVENT_TYPE_ONESHOT
#define PCEVENT_ITEM_FLAG_BASICSUPPORT KSEVENT_TYPE_BASICSUPPORT

struct _PCEVENT_REQUEST;
typedef NTSTATUS(NTAPI *PCPFNEVENT_HANDLER)(struct _PCEVENT_REQUEST *EventRequest);
typedef struct _PCEVENT_ITEM {
    const GUID *Set;
    ULONG Id;
    ULONG Flags;
    PCPFNEVENT_HANDLER Handler;
} PCEVENT_ITEM, *PPCEVENT_ITEM;

typedef struct _PCEVENT_REQUEST {
    PUNKNOWN MajorTarget;
    PUNKNOWN MinorTarget;
    ULONG Node;
    const PCEVENT_ITEM *EventItem;
    PKSEVENT_ENTRY EventEntry;
    ULONG Verb;
    PIRP Irp;
} PCEVENT_REQUEST, *PPCEVENT_REQUEST;

struct _PCMETHOD_REQUEST;
typedef NTSTATUS(NTAPI *PCPFNMETHOD_HANDLER)(struct _PCMETHOD_REQUEST *MethodRequest);
typedef struct _PCMETHOD_ITEM {
    const GUID *Set;
    ULONG Id;
    ULONG Flags;
    PCPFNMETHOD_HANDLER Handler;
} PCMETHOD_ITEM, *PPCMETHOD_ITEM;

typedef struct _PCMETHOD_REQUEST {
    PUNKNOWN MajorTarget;
    PUNKNOWN MinorTarget;
    ULONG Node;
    const PCMETHOD_ITEM *MethodItem;
    ULONG Verb;
} PCMETHOD_REQUEST, *PPCMETHOD_REQUEST;

typedef struct {
    ULONG PropertyItemSize;
    ULONG PropertyCount;
    const PCPROPERTY_ITEM *Properties;
    ULONG MethodItemSize;
    ULONG MethodCount;
    const PCMETHOD_ITEM *Methods;
    ULONG EventItemSize;
    ULONG EventCount;
    const PCEVENT_ITEM *Events;
    ULONG Reserved;
} PCAUTOMATION_TABLE, *PPCAUTOMATION_TABLE;

typedef struct {
    ULONG FromNode;
    ULONG FromNodePin;
    ULONG ToNode;
    ULONG ToNodePin;
} PCCONNECTION_DESCRIPTOR, *PPCCONNECTIONDESCRIPTOR;

typedef struct {
    ULONG MaxGlobalInstanceCount;
    ULONG MaxFilterInstanceCount;
    ULONG MinFilterInstanceCount;
    const PCAUTOMATION_TABLE *AutomationTable;
    KSPIN_DESCRIPTOR KsPinDescriptor;
} PCPIN_DESCRIPTOR, *PPCPIN_DESCRIPTOR;

typedef struct {
    ULONG Flags;
    const PCAUTOMATION_TABLE *AutomationTable;
    const GUID *Type;
    const GUID *Name;
} PCNODE_DESCRIPTOR, *PPCNODE_DESCRIPTOR;

typedef struct {
    ULONG Version;
    const PCAUTOMATION_TABLE *AutomationTable;
    ULONG PinSize;
    ULONG PinCount;
    const PCPIN_DESCRIPTOR *Pins;
    ULONG NodeSize;
    ULONG NodeCount;
    const PCNODE_DESCRIPTOR *Nodes;
    ULONG ConnectionCount;
    const PCCONNECTION_DESCRIPTOR *Connections;
    ULONG CategoryCount;
    const GUID *Categories;
} PCFILTER_DESCRIPTOR, *PPCFILTER_DESCRIPTOR;

#define DEFINE_PCAUTOMATION_TABLE_PROP(AutomationTable, PropertyTable)                                     \
    const PCAUTOMATION_TABLE AutomationTable = {sizeof(PropertyTable[0]), SIZEOF_ARRAY(PropertyTable),      \
                                                (const PCPROPERTY_ITEM *)PropertyTable, 0, 0, NULL, 0, 0, NULL, 0}

// ---------------------------------------------------------------- interfaces
DEFINE_GUID(IID_IResourceList, 0x22C6AC60, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC, 0xFE);
DECLARE_INTERFACE_(IResourceList, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(ULONG, NumberOfEntries)(THIS) PURE;
    STDMETHOD_(ULONG, NumberOfEntriesOfType)(THIS_ CM_RESOURCE_TYPE Type) PURE;
    STDMETHOD_(PCM_PARTIAL_RESOURCE_DESCRIPTOR, FindTranslatedEntry)(THIS_ CM_RESOURCE_TYPE Type, ULONG Index) PURE;
    STDMETHOD_(PCM_PARTIAL_RESOURCE_DESCRIPTOR, FindUntranslatedEntry)(THIS_ CM_RESOURCE_TYPE Type, ULONG Index) PURE;
    STDMETHOD_(NTSTATUS, AddEntry)(THIS_ PCM_PARTIAL_RESOURCE_DESCRIPTOR Translated,
                                   PCM_PARTIAL_RESOURCE_DESCRIPTOR Untranslated) PURE;
    STDMETHOD_(NTSTATUS, AddEntryFromParent)(THIS_ IResourceList *Parent, CM_RESOURCE_TYPE Type, ULONG Index) PURE;
    STDMETHOD_(PCM_RESOURCE_LIST, TranslatedList)(THIS) PURE;
    STDMETHOD_(PCM_RESOURCE_LIST, UntranslatedList)(THIS) PURE;
};
typedef IResourceList *PRESOURCELIST;

DEFINE_GUID(IID_IServiceSink, 0x22C6AC64, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC, 0xFE);
DECLARE_INTERFACE_(IServiceSink, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(void, RequestService)(THIS) PURE;
};
typedef IServiceSink *PSERVICESINK;

// A set of service sinks serviced together at DISPATCH_LEVEL: RequestService
// queues one deferred call of every member's RequestService.
DEFINE_GUID(IID_IServiceGroup, 0x22C6AC65, 0x851B, 0x11D0, 0x9A, 0x7F, 0x00, 0xAA, 0x00, 0x38, 0xAC, 0xFE);
DECLARE_INTERFACE_(IServiceGroup, IServiceSink)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(void, RequestService)(THIS) PURE;
    STDMETHOD_(NTSTATUS, AddMember)(THIS_ PSERVICESINK pServiceSink) PURE;
    STDMETHOD_(void, RemoveMember)(THIS_ PSERVICESINK pServiceSink) PURE;
    STDMETHOD_(void, SupportDelayedService)(THIS) PURE;
    STDMETHOD_(void, RequestDelayedService)(THIS_ ULONGLONG ullDelay) PURE;
    STDMETHOD_(void, CancelDelayedService)(THIS) PURE;
};
typedef IServiceGroup *PSERVICEGROUP;

DEFINE_GUID(IID_IUnregisterSubdevice, 0x16738177, 0xE199, 0x41F9, 0x9A, 0x87, 0xAB, 0xB2, 0xA5, 0x43, 0x2F, 0x21);
DECLARE_INTERFACE_(IUnregisterSubdevice, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(NTSTATUS, UnregisterSubdevice)(THIS_ PDEVICE_OBJECT DeviceObject, PUNKNOWN Unknown) PURE;
};
typedef IUnregisterSubdevice *PUNREGISTERSUBDEVICE;

enum { GeneralRegistryKey, DeviceRegistryKey, DriverRegistryKey, HwProfileRegistryKey, DeviceInterfaceRegistryKey };

DEFINE_GUID(IID_IRegistryKey, 0xE8DA4302, 0xF304, 0x11D0, 0x95, 0x8B, 0x00, 0xC0, 0x4F, 0xB9, 0x25, 0xD3);
DECLARE_INTERFACE_(IRegistryKey, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(NTSTATUS, QueryKey)(THIS_ KEY_INFORMATION_CLASS KeyInformationClass, PVOID KeyInformation, ULONG Length,
                                   PULONG ResultLength) PURE;
    STDMETHOD_(NTSTATUS, EnumerateKey)(THIS_ ULONG Index, KEY_INFORMATION_CLASS KeyInformationClass,
                                       PVOID KeyInformation, ULONG Length, PULONG ResultLength) PURE;
    STDMETHOD_(NTSTATUS, QueryValueKey)(THIS_ PUNICODE_STRING ValueName,
                                        KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                        PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) PURE;
    STDMETHOD_(NTSTATUS, EnumerateValueKey)(THIS_ ULONG Index, KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                            PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) PURE;
    STDMETHOD_(NTSTATUS, SetValueKey)(THIS_ PUNICODE_STRING ValueName, ULONG Type, PVOID Data, ULONG DataSize) PURE;
    STDMETHOD_(NTSTATUS, QueryRegistryValues)(THIS_ PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context) PURE;
    STDMETHOD_(NTSTATUS, NewSubKey)(THIS_ IRegistryKey **RegistrySubKey, PUNKNOWN OuterUnknown,
                                    ACCESS_MASK DesiredAccess, PUNICODE_STRING SubKeyName, ULONG CreateOptions,
                                    PULONG Disposition) PURE;
    STDMETHOD_(NTSTATUS, DeleteKey)(THIS) PURE;
};
typedef IRegistryKey *PREGISTRYKEY;

DEFINE_GUID(IID_IMusicTechnology, 0x80396C3C, 0xCBCB, 0x409B, 0x9F, 0x65, 0x4F, 0x1E, 0x74, 0x67, 0xCD, 0xAF);
DECLARE_INTERFACE_(IMusicTechnology, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(NTSTATUS, SetTechnology)(THIS_ const GUID *Technology) PURE;
};
typedef IMusicTechnology *PMUSICTECHNOLOGY;

DEFINE_GUID(IID_IMiniport, 0xB4C90A24, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5, 0x44);
#define IID_IMiniPort IID_IMiniport
DEFINE_GUID(IID_IPort, 0xB4C90A25, 0x5791, 0x11D0, 0x86, 0xF9, 0x00, 0xA0, 0xC9, 0x11, 0xB5, 0x44);

#define DEFINE_ABSTRACT_PORT()                                                                                 \
    STDMETHOD_(NTSTATUS, Init)(THIS_ PDEVICE_OBJECT DeviceObject, PIRP Irp, PUNKNOWN UnknownMiniport,           \
                               PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList) PURE;                      \
    STDMETHOD_(NTSTATUS, GetDeviceProperty)(THIS_ DEVICE_REGISTRY_PROPERTY DeviceProperty, ULONG BufferLength, \
                                            PVOID PropertyBuffer, PULONG ResultLength) PURE;                   \
    STDMETHOD_(NTSTATUS, NewRegistryKey)(THIS_ PREGISTRYKEY * OutRegistryKey, PUNKNOWN OuterUnknown,           \
                                         ULONG RegistryKeyType, ACCESS_MASK DesiredAccess,                     \
                                         POBJECT_ATTRIBUTES ObjectAttributes, ULONG CreateOptions,             \
                                         PULONG Disposition) PURE;

DECLARE_INTERFACE_(IPort, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_PORT()
};
typedef IPort *PPORT;

#define DEFINE_ABSTRACT_MINIPORT()                                                                      \
    STDMETHOD_(NTSTATUS, GetDescription)(THIS_ PPCFILTER_DESCRIPTOR * Description) PURE;                 \
    STDMETHOD_(NTSTATUS, DataRangeIntersection)(THIS_ ULONG PinId, PKSDATARANGE DataRange,               \
                                                PKSDATARANGE MatchingDataRange, ULONG OutputBufferLength, \
                                                PVOID ResultantFormat, PULONG ResultantFormatLength) PURE;

DECLARE_INTERFACE_(IMiniport, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    DEFINE_ABSTRACT_MINIPORT()
};
typedef IMiniport *PMINIPORT;

DEFINE_GUID(IID_IPowerNotify, 0x3DD648B8, 0x969F, 0x11D1, 0x95, 0xA9, 0x00, 0xC0, 0x4F, 0xB9, 0x25, 0xD3);
DECLARE_INTERFACE_(IPowerNotify, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(void, PowerChangeNotify)(THIS_ POWER_STATE PowerState) PURE;
};
typedef IPowerNotify *PPOWERNOTIFY;

DEFINE_GUID(IID_IPinCount, 0x5DADB7DC, 0xA2CB, 0x4540, 0xA4, 0xA8, 0x42, 0x5E, 0xE4, 0xAE, 0x90, 0x51);
DECLARE_INTERFACE_(IPinCount, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(void, PinCount)(THIS_ ULONG PinId, PULONG FilterNecessary, PULONG FilterCurrent, PULONG FilterPossible,
                               PULONG GlobalCurrent, PULONG GlobalPossible) PURE;
};
typedef IPinCount *PPINCOUNT;

// The framework asks a miniport that has it for every KSPROPERTY_PIN_NAME:
// the answer's room is the request's output length, its size goes into the
// request's IoStatus.Information.
DEFINE_GUID(IID_IPinName, 0x29CC9AB1, 0xE89D, 0x413C, 0xB6, 0xB2, 0xF6, 0xD5, 0x00, 0x05, 0xD0, 0x63);
DECLARE_INTERFACE_(IPinName, IUnknown)
{
    DEFINE_ABSTRACT_UNKNOWN()
    STDMETHOD_(NTSTATUS, GetPinName)(THIS_ PIRP Irp, PKSP_PIN Pin, PVOID Data) PURE;
};
typedef IPinName *PPINNAME;

// ---------------------------------------------------------------- framework routines
typedef NTSTATUS(NTAPI *PCPFNSTARTDEVICE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PRESOURCELIST ResourceList);

// Fills the driver object's dispatch slots IRP_MJ_CREATE, IRP_MJ_CLOSE,
// IRP_MJ_CLEANUP, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_DEVICE_CONTROL,
// IRP_MJ_QUERY_SECURITY, IRP_MJ_SET_SECURITY, IRP_MJ_PNP, IRP_MJ_POWER and
// IRP_MJ_SYSTEM_CONTROL with PcDispatchIrp and sets AddDevice.
NTSTATUS NTAPI PcInitializeAdapterDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPathName,
                                         PDRIVER_ADD_DEVICE AddDevice);
NTSTATUS NTAPI PcAddAdapterDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                                  PCPFNSTARTDEVICE StartDevice, ULONG MaxObjects, ULONG DeviceExtensionSize);
NTSTATUS NTAPI PcDispatchIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI PcCompleteIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status);
NTSTATUS NTAPI PcForwardIrpSynchronous(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI PcNewPort(PPORT *OutPort, REFCLSID ClassId);
NTSTATUS NTAPI PcNewServiceGroup(PSERVICEGROUP *OutServiceGroup, PUNKNOWN OuterUnknown);
NTSTATUS NTAPI PcNewResourceList(PRESOURCELIST *OutResourceList, PUNKNOWN OuterUnknown, POOL_TYPE PoolType,
                                 PCM_RESOURCE_LIST TranslatedResources, PCM_RESOURCE_LIST UntranslatedResources);
NTSTATUS NTAPI PcRegisterSubdevice(PDEVICE_OBJECT DeviceObject, PWCHAR Name, PUNKNOWN Unknown);
NTSTATUS NTAPI PcCompletePendingPropertyRequest(PPCPROPERTY_REQUEST PropertyRequest, NTSTATUS NtStatus);
// 100-ns units elapsed since `Since` (a value of PcGetTimeInterval(0)).
ULONGLONG NTAPI PcGetTimeInterval(ULONGLONG Since);

#include "dmusicks.h"

// ---------------------------------------------------------------- published layouts
static_assert(sizeof(PCPROPERTY_ITEM) == 24 && FIELD_OFFSET(PCPROPERTY_ITEM, Handler) == 16, "PCPROPERTY_ITEM");
static_assert(sizeof(PCAUTOMATION_TABLE) == 56 && FIELD_OFFSET(PCAUTOMATION_TABLE, Methods) == 24 &&
                  FIELD_OFFSET(PCAUTOMATION_TABLE, Events) == 40,
              "PCAUTOMATION_TABLE");
static_assert(sizeof(PCPIN_DESCRIPTOR) == 112 && FIELD_OFFSET(PCPIN_DESCRIPTOR, AutomationTable) == 16 &&
                  FIELD_OFFSET(PCPIN_DESCRIPTOR, KsPinDescriptor) == 24,
              "PCPIN_DESCRIPTOR");
static_assert(sizeof(PCNODE_DESCRIPTOR) == 32 && FIELD_OFFSET(PCNODE_DESCRIPTOR, Type) == 16, "PCNODE_DESCRIPTOR");
static_assert(sizeof(PCCONNECTION_DESCRIPTOR) == 16, "PCCONNECTION_DESCRIPTOR");
static_assert(sizeof(PCFILTER_DESCRIPTOR) == 80 && FIELD_OFFSET(PCFILTER_DESCRIPTOR, PinSize) == 16 &&
                  FIELD_OFFSET(PCFILTER_DESCRIPTOR, Nodes) == 40 &&
                  FIELD_OFFSET(PCFILTER_DESCRIPTOR, Connections) == 56 &&
                  FIELD_OFFSET(PCFILTER_DESCRIPTOR, Categories) == 72,
              "PCFILTER_DESCRIPTOR");
static_assert(sizeof(PCPROPERTY_REQUEST) == 72 && FIELD_OFFSET(PCPROPERTY_REQUEST, Node) == 16 &&
                  FIELD_OFFSET(PCPROPERTY_REQUEST, Verb) == 32 && FIELD_OFFSET(PCPROPERTY_REQUEST, Instance) == 40 &&
                  FIELD_OFFSET(PCPROPERTY_REQUEST, ValueSize) == 48 && FIELD_OFFSET(PCPROPERTY_REQUEST, Irp) == 64,
              "PCPROPERTY_REQUEST");
