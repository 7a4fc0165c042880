// The registry through the Zw routines, as a driver reaches it at
// PASSIVE_LEVEL, and through the host API that preloads and inspects it.
#include "iotest.h"

namespace iotest {
namespace {

const std::u16string kKey = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\HkReg\\Parameters";

NTSTATUS createKey(const std::u16string &path, ULONG options, HANDLE *key, ULONG *disposition)
{
    Unicode name(path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name.string, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return ZwCreateKey(key, KEY_ALL_ACCESS, &oa, 0, nullptr, options, disposition);
}

NTSTATUS query(HANDLE key, const std::u16string &value, std::vector<UCHAR> *buffer, ULONG length, ULONG *needed)
{
    Unicode name(value);
    buffer->assign(length + 1, 0xCC);
    return ZwQueryValueKey(key, &name.string, KeyValuePartialInformation, length ? buffer->data() : nullptr, length,
                           needed);
}

// Zw routines need a system thread at PASSIVE_LEVEL; the test thread is one.
TEST(RegistryTest, PartialInformationSizeQueryAndShortBuffers)
{
    const UCHAR data[5] = {1, 2, 3, 4, 5};
    hk::registry::setValue(kKey, u"Blob", REG_BINARY, data, sizeof data);
    HANDLE key;
    ASSERT_EQ(openKey(kKey, KEY_READ, &key), STATUS_SUCCESS);
    const ULONG header = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    struct Case {
        ULONG length;
        NTSTATUS status;
        ULONG dataCopied;
    } cases[] = {
        {0, STATUS_BUFFER_TOO_SMALL, 0},
        {header - 1, STATUS_BUFFER_TOO_SMALL, 0},
        {header, STATUS_BUFFER_OVERFLOW, 0},
        {header + 3, STATUS_BUFFER_OVERFLOW, 3},
        {header + 5, STATUS_SUCCESS, 5},
        {header + 9, STATUS_SUCCESS, 5},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.length);
        std::vector<UCHAR> buffer;
        ULONG needed = 0;
        EXPECT_EQ(query(key, u"blob", &buffer, c.length, &needed), c.status);
        EXPECT_EQ(needed, header + 5);
        if (c.length < header) {
            continue;
        }
        auto *info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer.data());
        EXPECT_EQ(info->Type, ULONG(REG_BINARY));
        EXPECT_EQ(info->DataLength, 5u);
        EXPECT_EQ(memcmp(info->Data, data, c.dataCopied), 0);
        EXPECT_EQ(buffer[c.length], 0xCC) << "nothing written past the buffer";
    }
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
}

TEST(RegistryTest, ValuesRoundTripWithTheirTypesAndNamesFoldCase)
{
    HANDLE key;
    ULONG disposition = 0;
    ASSERT_EQ(createKey(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\MediaCategories\\{X}", 0, &key,
                        &disposition),
              STATUS_SUCCESS);
    EXPECT_EQ(disposition, ULONG(REG_CREATED_NEW_KEY));
    const WCHAR text[] = L"Piano";
    ULONG dword = 0x1FFF0;
    UCHAR zeros[4] = {};
    struct Case {
        std::u16string name, upper;
        ULONG type;
        const void *data;
        ULONG size;
    } cases[] = {
        {u"Name", u"NAME", REG_SZ, text, sizeof text},
        {u"SysexSize", u"SYSEXSIZE", REG_DWORD, &dword, sizeof dword},
        {u"Display", u"DISPLAY", REG_BINARY, zeros, sizeof zeros},
    };
    for (const auto &c : cases) {
        Unicode name(c.name);
        EXPECT_EQ(ZwSetValueKey(key, &name.string, 0, c.type, const_cast<void *>(c.data), c.size), STATUS_SUCCESS);
    }
    ZwClose(key);
    const std::u16string upper = u"\\registry\\machine\\system\\currentcontrolset\\control\\mediacategories\\{x}";
    for (const auto &c : cases) {
        SCOPED_TRACE(narrow(c.name));
        auto stored = hk::registry::value(upper, c.upper);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->type, c.type);
        ASSERT_EQ(stored->data.size(), c.size);
        EXPECT_EQ(memcmp(stored->data.data(), c.data, c.size), 0);
    }
    EXPECT_EQ(narrow(hk::registry::value(upper, u"name")->text()), "Piano");
    EXPECT_EQ(hk::registry::value(upper, u"sysexsize")->dword(), 0x1FFF0u);
    // Opening again reports an existing key.
    ASSERT_EQ(createKey(upper, 0, &key, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, ULONG(REG_OPENED_EXISTING_KEY));
    ZwClose(key);
}

TEST(RegistryTest, MissingThingsAndRefusals)
{
    hk::registry::setDword(kKey, u"MaxPorts", 3);
    HANDLE key, readOnly, writeOnly;
    EXPECT_EQ(openKey(kKey + u"\\Missing", KEY_READ, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(openKey(u"\\REGISTRY\\MACHINE\\Nope\\Deeper", KEY_READ, &key), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(openKey(u"REGISTRY\\MACHINE", KEY_READ, &key), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(createKey(kKey + u"\\A\\B", 0, &key, nullptr), STATUS_OBJECT_NAME_NOT_FOUND) << "parents are not made";
    ASSERT_EQ(openKey(kKey, KEY_READ, &readOnly), STATUS_SUCCESS);
    ASSERT_EQ(openKey(kKey, KEY_SET_VALUE, &writeOnly), STATUS_SUCCESS);

    std::vector<UCHAR> buffer;
    ULONG needed = 0;
    EXPECT_EQ(query(readOnly, u"Missing", &buffer, 64, &needed), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(query(writeOnly, u"MaxPorts", &buffer, 64, &needed), STATUS_ACCESS_DENIED);
    Unicode name(u"MaxPorts");
    ULONG v = 1;
    EXPECT_EQ(ZwSetValueKey(readOnly, &name.string, 0, REG_DWORD, &v, 4), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwDeleteValueKey(writeOnly, &name.string), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteValueKey(writeOnly, &name.string), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(query(readOnly, u"MaxPorts", &buffer, 64, &needed), STATUS_OBJECT_NAME_NOT_FOUND);

    // Relative to an open key.
    hk::registry::setDword(kKey + u"\\Sub", u"X", 7);
    HANDLE sub;
    ASSERT_EQ(openKey(u"sub", KEY_READ, &sub, readOnly), STATUS_SUCCESS);
    EXPECT_EQ(query(sub, u"x", &buffer, 16, &needed), STATUS_SUCCESS);
    EXPECT_EQ(openKey(u"\\sub", KEY_READ, &key, readOnly), STATUS_OBJECT_PATH_SYNTAX_BAD);
    for (HANDLE h : {readOnly, writeOnly, sub}) {
        ZwClose(h);
    }
}

TEST(RegistryTest, VolatileKeysVanishAtRebootAndCannotHaveStableChildren)
{
    HANDLE key;
    ULONG disposition;
    ASSERT_EQ(createKey(kKey, 0, &key, &disposition), STATUS_OBJECT_NAME_NOT_FOUND);
    hk::registry::createKey(kKey);
    ASSERT_EQ(createKey(kKey + u"\\Runtime", REG_OPTION_VOLATILE, &key, &disposition), STATUS_SUCCESS);
    ZwClose(key);
    EXPECT_EQ(createKey(kKey + u"\\Runtime\\Stable", 0, &key, &disposition), STATUS_CHILD_MUST_BE_VOLATILE);
    ASSERT_EQ(createKey(kKey + u"\\Runtime\\Also", REG_OPTION_VOLATILE, &key, &disposition), STATUS_SUCCESS);
    ZwClose(key);
    EXPECT_EQ(hk::registry::keyIsVolatile(kKey + u"\\Runtime"), true);
    EXPECT_EQ(hk::registry::keyIsVolatile(kKey), false);
    hk::registry::discardVolatileKeys();
    EXPECT_FALSE(hk::registry::keyExists(kKey + u"\\Runtime"));
    EXPECT_TRUE(hk::registry::keyExists(kKey));
}

TEST(RegistryTest, InjectedFailuresHitTheChosenCall)
{
    hk::registry::setDword(kKey, u"MaxPorts", 3);
    struct Case {
        hk::registry::Op op;
        unsigned skip;
        int failingStep; // 0 open, 1 size query, 2 data query, 3 set
    } cases[] = {
        {hk::registry::Op::Open, 0, 0},
        {hk::registry::Op::Query, 0, 1},
        {hk::registry::Op::Query, 1, 2},
        {hk::registry::Op::Set, 0, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.failingStep);
        hk::registry::failNext(c.op, STATUS_INSUFFICIENT_RESOURCES, c.skip);
        NTSTATUS expected[4] = {STATUS_SUCCESS, STATUS_BUFFER_TOO_SMALL, STATUS_SUCCESS, STATUS_SUCCESS};
        expected[c.failingStep] = STATUS_INSUFFICIENT_RESOURCES;
        HANDLE key = nullptr;
        ASSERT_EQ(openKey(kKey, KEY_ALL_ACCESS, &key), expected[0]);
        if (c.failingStep == 0) {
            ASSERT_EQ(openKey(kKey, KEY_ALL_ACCESS, &key), STATUS_SUCCESS) << "only one call fails";
            ZwClose(key);
            continue;
        }
        std::vector<UCHAR> buffer;
        ULONG needed = 0;
        EXPECT_EQ(query(key, u"MaxPorts", &buffer, 0, &needed), expected[1]);
        EXPECT_EQ(query(key, u"MaxPorts", &buffer, 16, &needed), expected[2]);
        Unicode name(u"Other");
        ULONG v = 5;
        EXPECT_EQ(ZwSetValueKey(key, &name.string, 0, REG_DWORD, &v, 4), expected[3]);
        ZwClose(key);
    }
    EXPECT_EQ(hk::registry::value(kKey, u"Other")->dword(), 5u);
}

} // namespace
} // namespace iotest
