// Port table operations. All run at DISPATCH_LEVEL under the table lock and
// touch only the table, the records and non-paged pool.
#define AM_UNIT AM_UNIT_ADAPTER
#include "common/amcommon.h"
#include "common/amstring.h"
#include "porttable.h"

static inline MidiPort **PortTableSlots(_In_ PortTable *table)
{
    // The slots run past the declared member; address them as what they are.
    return (MidiPort **)((PUCHAR)table + FIELD_OFFSET(PortTable, Ports));
}

SIZE_T PortTableSize(_In_ ULONG portCount)
{
    return FIELD_OFFSET(PortTable, Ports) + (SIZE_T)portCount * sizeof(MidiPort *);
}

VOID InitializePortTable(_Out_ PortTable *table, _In_ ULONG portCount,
                         _In_opt_ struct _DEVICE_OBJECT *physicalDeviceObject)
{
    KeInitializeSpinLock(&table->Lock);
    table->PhysicalDeviceObject = physicalDeviceObject;
    table->FunctionalDeviceObject = NULL;
    table->PortCount = portCount;
    MidiPort **slots = PortTableSlots(table);
    for (ULONG i = 0; i < portCount; i++) {
        slots[i] = NULL;
    }
}

_Requires_lock_held_(table->Lock) LONG AddPortByName(_Inout_ PortTable *table, _In_z_ PCWSTR name)
{
    AmDispatchCode();

    MidiPort **slots = PortTableSlots(table);
    ULONG i;
    LONG result;

    AmLog("AddPortByName");

    // The whole table is checked before a slot is chosen, so a name is never
    // taken twice whichever slots happen to be free.
    for (i = 0; i < table->PortCount; i++) {
        if (slots[i] != NULL && AmWcsEqual(slots[i]->Name, name)) {
            AmLog("AddPortByName ----- port-name already exists");
            return AM_PORT_NAME_EXISTS;
        }
    }

    for (i = 0; i < table->PortCount; i++) {
        if (slots[i] == NULL) {
            break;
        }
    }
    if (i == table->PortCount) {
        AmLog("AddPortByIndex ---- failed, no free slot!!!!");
        return AM_PORT_TABLE_FULL;
    }

    result = AddPortByIndex(table, i, name);
    if (result < 0) {
        AmLog("AddPortByName ----- AddPortByIndex failed: %d", result);
    } else {
        AmLog("AddPortByName +++++ succeeded: %d", result);
    }
    return result;
}

_Requires_lock_held_(table->Lock) LONG AddPortByIndex(_Inout_ PortTable *table, _In_ ULONG index,
                                                      _In_z_ PCWSTR name)
{
    AmDispatchCode();

    MidiPort **slots = PortTableSlots(table);
    MidiPort *port;
    ULONG i;

    AmLog("AddPortByIndex: %d", (LONG)index);
    if (index >= table->PortCount || slots[index] != NULL) {
        // Only AddPortByName calls this, on a slot it has just found free;
        // anything else would overwrite a record or write past the table.
        AmAssert(index < table->PortCount && slots[index] == NULL);
        return AM_PORT_NO_MEMORY;
    }

    port = (MidiPort *)ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(MidiPort), AMBREL_POOL_TAG);
    if (port == NULL) {
        AmLog("AddPortByIndex ----- failed ExAllocatePoolWithTag for size: %d", (int)sizeof(MidiPort));
        return AM_PORT_NO_MEMORY;
    }

    // Names longer than the record holds are cut; the last unit is always
    // the terminator.
    for (i = 0; i < AM_PORT_NAME_CCH - 1 && name[i] != L'\0'; i++) {
        port->Name[i] = name[i];
    }
    for (; i < AM_PORT_NAME_CCH; i++) {
        port->Name[i] = L'\0';
    }
    port->ReferenceString[0] = L'\0';
    for (i = 0; i < AM_PORT_PROCESS_SLOTS; i++) {
        port->ProcessSlots[i].FileObject = NULL;
        port->ProcessSlots[i].ProcessId = NULL;
    }
    port->PortInterface = NULL;
    port->Miniport = NULL;

    slots[index] = port;
    AmLog("AddPortByIndex +++++ succeeded");
    return (LONG)index;
}

_Requires_lock_held_(table->Lock) VOID RemovePortByIndex(_Inout_ PortTable *table, _In_ ULONG index)
{
    AmDispatchCode();

    MidiPort **slots = PortTableSlots(table);

    AmLog("RemovePortByIndex: %d", (LONG)index);
    if (index >= table->PortCount) {
        AmLog("RemovePortByIndex ----- index too large: %d (%d)", (LONG)index, (LONG)table->PortCount);
        return;
    }
    if (slots[index] == NULL) {
        AmLog("RemovePortByIndex ----- port on index did not exist: %d", (LONG)index);
        return;
    }

    AmLog("RemovePortByIndex ***** removing port at %d", (LONG)index);
    ExFreePoolWithTag(slots[index], AMBREL_POOL_TAG);
    slots[index] = NULL;
    AmLog("RemovePortByIndex +++++ succeeded");
}

_Requires_lock_held_(table->Lock) VOID RemovePortByPtr(_Inout_ PortTable *table, _In_opt_ MidiPort *port)
{
    AmDispatchCode();

    MidiPort **slots = PortTableSlots(table);
    ULONG i;

    AmLog("RemovePortByPtr: %p", port);
    // An empty slot holds NULL, so a NULL pointer must not match one.
    for (i = 0; port != NULL && i < table->PortCount; i++) {
        if (slots[i] == port) {
            break;
        }
    }
    if (port == NULL || i == table->PortCount) {
        AmLog("RemovePortByPtr ----- pointer not found!");
        return;
    }

    AmLog("RemovePortByPtr ***** found port at index %d", (LONG)i);
    RemovePortByIndex(table, i);
    AmLog("RemovePortByPtr +++++ succeeded: %d", (LONG)i);
}
