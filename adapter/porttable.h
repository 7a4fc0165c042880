// The port table: the control device's extension, one slot per possible port.
// A slot's index is the port's identity towards the framework ("ambrel%d");
// the record it points to is the port's identity towards the application.
//
// Every operation runs with the table lock held (KeAcquireSpinLockRaiseToDpc),
// so a name check and the claim of a slot are one step for concurrent opens.
#pragma once

#include "common/platform.h"

struct _DEVICE_OBJECT;
struct _FILE_OBJECT;
struct IPortDMus;
class CMiniportAmbrel;

#define AM_PORT_NAME_CCH 256        // name text and terminator
#define AM_PORT_REFSTRING_CCH 256
#define AM_PORT_PROCESS_SLOTS 16

// AddPortByName results besides a slot index.
#define AM_PORT_NAME_EXISTS (-1)
#define AM_PORT_NO_MEMORY (-2)
#define AM_PORT_TABLE_FULL (-3)

// One pin opened on the port's sub-device and the process that opened it.
typedef struct _ProcessSlot {
    struct _FILE_OBJECT *FileObject;  // NULL = free
    HANDLE ProcessId;
} ProcessSlot, *PProcessSlot;

// The record of one open port, owned by its slot. Name comes first: the
// record's address is also the address of the port name's text.
typedef struct _MidiPort {
    WCHAR Name[AM_PORT_NAME_CCH];                   // guarded by the table lock
    WCHAR ReferenceString[AM_PORT_REFSTRING_CCH];
    struct IPortDMus *PortInterface;                // one counted reference, once published
    CMiniportAmbrel *Miniport;                      // not counted; NULL until published
    ProcessSlot ProcessSlots[AM_PORT_PROCESS_SLOTS]; // guarded by the table lock
} MidiPort, *PMidiPort;

typedef struct _PortTable {
    KSPIN_LOCK Lock;
    struct _DEVICE_OBJECT *PhysicalDeviceObject;
    struct _DEVICE_OBJECT *FunctionalDeviceObject;  // NULL until the adapter has started
    ULONG PortCount;                                // fixed for the table's life
    MidiPort *Ports[1];                             // PortCount slots follow; NULL = free
} PortTable, *PPortTable;

// Bytes of a table with `portCount` slots: the extension size of the control
// device.
SIZE_T PortTableSize(_In_ ULONG portCount);

// Prepares a zero-or-garbage extension of PortTableSize(portCount) bytes: lock
// initialised, every slot free.
VOID InitializePortTable(_Out_ PortTable *table, _In_ ULONG portCount,
                         _In_opt_ struct _DEVICE_OBJECT *physicalDeviceObject);

// Slot index (>= 0), AM_PORT_NAME_EXISTS, AM_PORT_NO_MEMORY or AM_PORT_TABLE_FULL.
// Names compare code unit by code unit, case-sensitive; the lowest free slot
// is taken.
_Requires_lock_held_(table->Lock) LONG AddPortByName(_Inout_ PortTable *table, _In_z_ PCWSTR name);

// Allocates the record for a free slot: the slot index, or AM_PORT_NO_MEMORY
// with the slot left free.
_Requires_lock_held_(table->Lock) LONG AddPortByIndex(_Inout_ PortTable *table, _In_ ULONG index,
                                                      _In_z_ PCWSTR name);

// Frees the record of a slot. Withdrawing a published port's sub-device is
// the caller's business, before this.
_Requires_lock_held_(table->Lock) VOID RemovePortByIndex(_Inout_ PortTable *table, _In_ ULONG index);
_Requires_lock_held_(table->Lock) VOID RemovePortByPtr(_Inout_ PortTable *table, _In_opt_ MidiPort *port);
