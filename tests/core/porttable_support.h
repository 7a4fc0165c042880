// A port table as the control device's extension holds it, for tests.
#pragma once

#include <memory>
#include <string>

#include "adapter/porttable.h"

struct TestTable {
    std::unique_ptr<unsigned char[]> storage;
    PortTable *table;

    explicit TestTable(ULONG portCount)
        : storage(new unsigned char[PortTableSize(portCount)]), table(reinterpret_cast<PortTable *>(storage.get()))
    {
        InitializePortTable(table, portCount, nullptr);
    }
    ~TestTable()
    {
        Locked l(*this);
        for (ULONG i = 0; i < table->PortCount; i++) {
            RemovePortByIndex(table, i);
        }
    }

    // The table lock, held the way the open and close paths hold it.
    struct Locked {
        TestTable &t;
        KIRQL old;
        explicit Locked(TestTable &t) : t(t), old(KeAcquireSpinLockRaiseToDpc(&t.table->Lock)) {}
        ~Locked() { KeReleaseSpinLock(&t.table->Lock, old); }
    };

    MidiPort *slot(ULONG i)
    {
        return reinterpret_cast<MidiPort **>(storage.get() + offsetof(PortTable, Ports))[i];
    }
    LONG add(const std::u16string &name)
    {
        Locked l(*this);
        return AddPortByName(table, reinterpret_cast<PCWSTR>(name.c_str()));
    }
    void removeIndex(ULONG i)
    {
        Locked l(*this);
        RemovePortByIndex(table, i);
    }
    void removePtr(MidiPort *p)
    {
        Locked l(*this);
        RemovePortByPtr(table, p);
    }
};

inline std::u16string portName(const MidiPort *p)
{
    return reinterpret_cast<const char16_t *>(p->Name);
}
