// The host registry: an in-memory tree of keys and values behind the Zw
// routines, with Windows' statuses, handle values and size-query behaviour.
#include <algorithm>

#include "hostkernel/registry.h"
#include "internal.h"

#ifndef STATUS_CANNOT_DELETE
#define STATUS_CANNOT_DELETE ((NTSTATUS)0xC0000121L)
#endif

namespace hostkernel::detail {

namespace {

struct StoredValue {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<std::uint8_t> data;
};

struct Key {
    std::u16string name;
    bool isVolatile = false;
    bool deleted = false;
    Key *parent = nullptr;
    std::map<std::u16string, std::shared_ptr<Key>> subkeys; // by folded name
    std::vector<StoredValue> values;                          // in the order they were first set

    StoredValue *findValue(std::u16string_view valueName)
    {
        for (auto &v : values) {
            if (equalNoCase(v.name, valueName)) {
                return &v;
            }
        }
        return nullptr;
    }

    // A deleted key's parents may be gone: it answers with its own name.
    std::u16string path() const
    {
        if (deleted) {
            return u"(deleted)\\" + name;
        }
        return parent == nullptr ? u"\\" + name : parent->path() + u"\\" + name;
    }
};

struct OpenKey {
    std::shared_ptr<Key> key;
    ACCESS_MASK access = 0;
};

std::mutex gMutex;
std::shared_ptr<Key> gRoot;
std::map<ULONG_PTR, OpenKey> gHandles;
ULONG_PTR gNextHandle = 4;

struct ArmedFault {
    bool armed = false;
    unsigned skip = 0;
    NTSTATUS status = STATUS_SUCCESS;
};
ArmedFault gFaults[5];

bool takeFault(registry::Op op, NTSTATUS *status)
{
    ArmedFault &f = gFaults[int(op)];
    if (!f.armed) {
        return false;
    }
    if (f.skip > 0) {
        f.skip--;
        return false;
    }
    f.armed = false;
    *status = f.status;
    return true;
}

std::shared_ptr<Key> addChild(Key &parent, std::u16string_view name, bool isVolatile)
{
    auto child = std::make_shared<Key>();
    child->name = name;
    child->isVolatile = isVolatile;
    child->parent = &parent;
    parent.subkeys[upcase(name)] = child;
    return child;
}

// Splits "a\b\c" into its components; an empty component makes the name invalid.
bool splitComponents(std::u16string_view path, std::vector<std::u16string_view> *out)
{
    out->clear();
    if (path.empty()) {
        return true;
    }
    size_t start = 0;
    for (;;) {
        size_t end = path.find(u'\\', start);
        std::u16string_view component = path.substr(start, end == std::u16string_view::npos ? end : end - start);
        if (component.empty()) {
            return false;
        }
        out->push_back(component);
        if (end == std::u16string_view::npos) {
            return true;
        }
        start = end + 1;
    }
}

void buildSkeletonLocked()
{
    gRoot = std::make_shared<Key>();
    gRoot->name = u"REGISTRY";
    auto machine = addChild(*gRoot, u"MACHINE", false);
    addChild(*gRoot, u"USER", false);
    auto system = addChild(*machine, u"SYSTEM", false);
    addChild(*machine, u"SOFTWARE", false);
    auto hardware = addChild(*machine, u"HARDWARE", true);
    addChild(*addChild(*hardware, u"DESCRIPTION", true), u"System", true);
    auto controlSet = addChild(*system, u"CurrentControlSet", false);
    addChild(*controlSet, u"Services", false);
    addChild(*controlSet, u"Enum", false);
    auto control = addChild(*controlSet, u"Control", false);
    addChild(*control, u"MediaCategories", false);
    addChild(*control, u"DeviceClasses", false);
    addChild(*control, u"Class", false);
}

Key &rootLocked()
{
    if (!gRoot) {
        buildSkeletonLocked();
    }
    return *gRoot;
}

// Resolves an absolute path (or one relative to `base`) to its parent key
// and last component. An empty name with a base names the base itself.
NTSTATUS resolveParentLocked(Key *base, std::u16string_view name, Key **parent, std::u16string_view *last)
{
    std::vector<std::u16string_view> components;
    if (base == nullptr) {
        if (name.empty() || name[0] != u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        if (!splitComponents(name.substr(1), &components)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (components.empty() || !equalNoCase(components[0], u"REGISTRY")) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        components.erase(components.begin());
        base = &rootLocked();
    } else {
        if (!name.empty() && name[0] == u'\\') {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        if (!splitComponents(name, &components)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    if (base->deleted) {
        return STATUS_KEY_DELETED;
    }
    if (components.empty()) {
        *parent = nullptr;
        *last = {};
        return STATUS_SUCCESS;
    }
    Key *key = base;
    for (size_t i = 0; i + 1 < components.size(); i++) {
        auto it = key->subkeys.find(upcase(components[i]));
        if (it == key->subkeys.end()) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        key = it->second.get();
    }
    *parent = key;
    *last = components.back();
    return STATUS_SUCCESS;
}

ACCESS_MASK mapGenericKeyAccess(ACCESS_MASK access)
{
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if (access & GENERIC_READ) {
        mapped |= KEY_READ;
    }
    if (access & GENERIC_WRITE) {
        mapped |= KEY_WRITE;
    }
    if (access & GENERIC_EXECUTE) {
        mapped |= KEY_EXECUTE;
    }
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) {
        mapped |= KEY_ALL_ACCESS;
    }
    return mapped;
}

HANDLE newHandleLocked(const std::shared_ptr<Key> &key, ACCESS_MASK access, bool kernel)
{
    ULONG_PTR value = gNextHandle;
    gNextHandle += 4;
    // Kernel handles have the top bit of a 32-bit handle set, sign-extended.
    if (kernel) {
        value |= ~ULONG_PTR(0x7FFFFFFF);
    }
    gHandles[value] = OpenKey{key, mapGenericKeyAccess(access)};
    return reinterpret_cast<HANDLE>(value);
}

std::shared_ptr<Key> keyOfHandleLocked(HANDLE handle)
{
    auto it = gHandles.find(ULONG_PTR(handle));
    return it == gHandles.end() ? nullptr : it->second.key;
}

NTSTATUS openOrCreate(PHANDLE keyHandle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, bool create,
                      ULONG options, PULONG disposition)
{
    if (keyHandle == nullptr || attributes == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(gMutex);
    NTSTATUS status;
    if (takeFault(create ? registry::Op::Create : registry::Op::Open, &status)) {
        return status;
    }
    std::shared_ptr<Key> base;
    if (attributes->RootDirectory != nullptr) {
        base = keyOfHandleLocked(attributes->RootDirectory);
        if (!base) {
            return STATUS_INVALID_HANDLE;
        }
    }
    std::u16string name = toU16(attributes->ObjectName);
    Key *parent = nullptr;
    std::u16string_view last;
    status = resolveParentLocked(base.get(), name, &parent, &last);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    bool kernel = (attributes->Attributes & OBJ_KERNEL_HANDLE) != 0;
    if (parent == nullptr) {
        if (base == nullptr) {
            base = gRoot;
        }
        *keyHandle = newHandleLocked(base, access, kernel);
        if (disposition != nullptr) {
            *disposition = REG_OPENED_EXISTING_KEY;
        }
        return STATUS_SUCCESS;
    }
    auto it = parent->subkeys.find(upcase(last));
    if (it != parent->subkeys.end()) {
        *keyHandle = newHandleLocked(it->second, access, kernel);
        if (disposition != nullptr) {
            *disposition = REG_OPENED_EXISTING_KEY;
        }
        return STATUS_SUCCESS;
    }
    if (!create) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    bool isVolatile = (options & REG_OPTION_VOLATILE) != 0;
    if (parent->isVolatile && !isVolatile) {
        return STATUS_CHILD_MUST_BE_VOLATILE;
    }
    *keyHandle = newHandleLocked(addChild(*parent, last, isVolatile), access, kernel);
    if (disposition != nullptr) {
        *disposition = REG_CREATED_NEW_KEY;
    }
    return STATUS_SUCCESS;
}

// The key of a handle for a value operation that needs `right`.
NTSTATUS keyForValueLocked(HANDLE handle, ACCESS_MASK right, PUNICODE_STRING valueName, Key **key)
{
    auto it = gHandles.find(ULONG_PTR(handle));
    if (it == gHandles.end()) {
        return STATUS_INVALID_HANDLE;
    }
    if (it->second.key->deleted) {
        return STATUS_KEY_DELETED;
    }
    if ((it->second.access & right) != right) {
        return STATUS_ACCESS_DENIED;
    }
    if (valueName == nullptr || (valueName->Length & 1) != 0 || (valueName->Length > 0 && valueName->Buffer == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    *key = it->second.key.get();
    return STATUS_SUCCESS;
}

// Copies what fits of `bytes` to `buffer + offset` (`length` bytes in all);
// false when something was cut.
bool copyFitting(PVOID buffer, ULONG length, size_t offset, const void *bytes, size_t count)
{
    if (offset >= length) {
        return count == 0;
    }
    size_t n = std::min(count, size_t(length) - offset);
    memcpy(static_cast<std::uint8_t *>(buffer) + offset, bytes, n);
    return n == count;
}

std::shared_ptr<Key> findKeyLocked(std::u16string_view path)
{
    Key *parent = nullptr;
    std::u16string_view last;
    if (!NT_SUCCESS(resolveParentLocked(nullptr, path, &parent, &last))) {
        return nullptr;
    }
    if (parent == nullptr) {
        return gRoot;
    }
    auto it = parent->subkeys.find(upcase(last));
    return it == parent->subkeys.end() ? nullptr : it->second;
}

std::shared_ptr<Key> createKeyPathLocked(std::u16string_view path, bool isVolatile)
{
    std::vector<std::u16string_view> components;
    if (path.empty() || path[0] != u'\\' || !splitComponents(path.substr(1), &components) || components.empty() ||
        !equalNoCase(components[0], u"REGISTRY")) {
        return nullptr;
    }
    std::shared_ptr<Key> key = (rootLocked(), gRoot);
    for (size_t i = 1; i < components.size(); i++) {
        auto it = key->subkeys.find(upcase(components[i]));
        key = it != key->subkeys.end() ? it->second : addChild(*key, components[i], isVolatile || key->isVolatile);
    }
    return key;
}

void markDeleted(Key &key)
{
    key.deleted = true;
    for (auto &[name, child] : key.subkeys) {
        (void)name;
        markDeleted(*child);
    }
}

void dropVolatile(Key &key)
{
    for (auto it = key.subkeys.begin(); it != key.subkeys.end();) {
        if (it->second->isVolatile) {
            markDeleted(*it->second);
            it = key.subkeys.erase(it);
        } else {
            dropVolatile(*it->second);
            ++it;
        }
    }
}

} // namespace

void resetRegistry()
{
    std::lock_guard<std::mutex> lock(gMutex);
    gHandles.clear();
    gNextHandle = 4;
    for (auto &f : gFaults) {
        f = {};
    }
    buildSkeletonLocked();
}

std::vector<std::u16string> openRegistryHandlePaths()
{
    return registry::openHandlePaths();
}

NTSTATUS openOrCreateKeyPath(std::u16string_view path, ACCESS_MASK access, bool create, HANDLE *handle)
{
    std::lock_guard<std::mutex> lock(gMutex);
    std::shared_ptr<Key> key = create ? createKeyPathLocked(path, false) : findKeyLocked(path);
    if (!key) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *handle = newHandleLocked(key, access, true);
    return STATUS_SUCCESS;
}

} // namespace hostkernel::detail

using namespace hostkernel;
using namespace hostkernel::detail;

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes)
{
    requirePassive("ZwOpenKey");
    return openOrCreate(KeyHandle, DesiredAccess, ObjectAttributes, false, 0, nullptr);
}

NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition)
{
    (void)TitleIndex;
    (void)Class;
    requirePassive("ZwCreateKey");
    return openOrCreate(KeyHandle, DesiredAccess, ObjectAttributes, true, CreateOptions, Disposition);
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                         ULONG Length, PULONG ResultLength)
{
    requirePassive("ZwQueryValueKey");
    std::lock_guard<std::mutex> lock(gMutex);
    NTSTATUS status;
    if (takeFault(registry::Op::Query, &status)) {
        return status;
    }
    Key *key = nullptr;
    status = keyForValueLocked(KeyHandle, KEY_QUERY_VALUE, ValueName, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (ResultLength == nullptr || (KeyValueInformation == nullptr && Length > 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    const StoredValue *value = key->findValue(toU16(ValueName));
    if (value == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    ULONG nameBytes = ULONG(value->name.size() * sizeof(WCHAR));
    ULONG dataBytes = ULONG(value->data.size());
    ULONG header = 0;
    ULONG needed = 0;
    switch (KeyValueInformationClass) {
    case KeyValuePartialInformation:
        header = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
        needed = header + dataBytes;
        break;
    case KeyValueBasicInformation:
        header = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
        needed = header + nameBytes;
        break;
    case KeyValueFullInformation:
        header = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
        needed = ((header + nameBytes + 7) & ~ULONG(7)) + dataBytes;
        break;
    default:
        return STATUS_INVALID_PARAMETER;
    }
    *ResultLength = needed;
    if (Length < header) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    bool complete = true;
    switch (KeyValueInformationClass) {
    case KeyValuePartialInformation: {
        auto *info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(KeyValueInformation);
        info->TitleIndex = 0;
        info->Type = value->type;
        info->DataLength = dataBytes;
        complete = copyFitting(KeyValueInformation, Length, header, value->data.data(), dataBytes);
        break;
    }
    case KeyValueBasicInformation: {
        auto *info = static_cast<PKEY_VALUE_BASIC_INFORMATION>(KeyValueInformation);
        info->TitleIndex = 0;
        info->Type = value->type;
        info->NameLength = nameBytes;
        complete = copyFitting(KeyValueInformation, Length, header, value->name.data(), nameBytes);
        break;
    }
    default: {
        auto *info = static_cast<PKEY_VALUE_FULL_INFORMATION>(KeyValueInformation);
        ULONG dataOffset = (header + nameBytes + 7) & ~ULONG(7);
        info->TitleIndex = 0;
        info->Type = value->type;
        info->DataOffset = dataOffset;
        info->DataLength = dataBytes;
        info->NameLength = nameBytes;
        complete = copyFitting(KeyValueInformation, Length, header, value->name.data(), nameBytes);
        complete = copyFitting(KeyValueInformation, Length, dataOffset, value->data.data(), dataBytes) && complete;
        break;
    }
    }
    return complete ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize)
{
    (void)TitleIndex;
    requirePassive("ZwSetValueKey");
    std::lock_guard<std::mutex> lock(gMutex);
    NTSTATUS status;
    if (takeFault(registry::Op::Set, &status)) {
        return status;
    }
    Key *key = nullptr;
    status = keyForValueLocked(KeyHandle, KEY_SET_VALUE, ValueName, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Data == nullptr && DataSize > 0) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string name = toU16(ValueName);
    StoredValue *value = key->findValue(name);
    if (value == nullptr) {
        key->values.push_back(StoredValue{name, REG_NONE, {}});
        value = &key->values.back();
    }
    value->type = Type;
    value->data.assign(static_cast<std::uint8_t *>(Data), static_cast<std::uint8_t *>(Data) + DataSize);
    return STATUS_SUCCESS;
}

NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName)
{
    requirePassive("ZwDeleteValueKey");
    std::lock_guard<std::mutex> lock(gMutex);
    NTSTATUS status;
    if (takeFault(registry::Op::DeleteValue, &status)) {
        return status;
    }
    Key *key = nullptr;
    status = keyForValueLocked(KeyHandle, KEY_SET_VALUE, ValueName, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    std::u16string name = toU16(ValueName);
    auto it = std::find_if(key->values.begin(), key->values.end(),
                           [&](const StoredValue &v) { return equalNoCase(v.name, name); });
    if (it == key->values.end()) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    key->values.erase(it);
    return STATUS_SUCCESS;
}

NTSTATUS ZwDeleteKey(HANDLE KeyHandle)
{
    requirePassive("ZwDeleteKey");
    std::lock_guard<std::mutex> lock(gMutex);
    auto it = gHandles.find(ULONG_PTR(KeyHandle));
    if (it == gHandles.end()) {
        return STATUS_INVALID_HANDLE;
    }
    Key &key = *it->second.key;
    if ((it->second.access & DELETE) == 0) {
        return STATUS_ACCESS_DENIED;
    }
    if (key.deleted) {
        return STATUS_KEY_DELETED;
    }
    if (!key.subkeys.empty() || key.parent == nullptr) {
        return STATUS_CANNOT_DELETE;
    }
    key.deleted = true;
    key.parent->subkeys.erase(upcase(key.name)); // open handles keep the record
    return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle)
{
    requirePassive("ZwClose");
    std::lock_guard<std::mutex> lock(gMutex);
    return gHandles.erase(ULONG_PTR(Handle)) == 1 ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

// ------------------------------------------------------------------ host API
namespace hostkernel::registry {

std::u16string Value::text() const
{
    std::u16string out;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        char16_t c = char16_t(data[i] | (data[i + 1] << 8));
        if (c == 0) {
            break;
        }
        out.push_back(c);
    }
    return out;
}

std::optional<ULONG> Value::dword() const
{
    if (data.size() < 4) {
        return std::nullopt;
    }
    return ULONG(data[0]) | ULONG(data[1]) << 8 | ULONG(data[2]) << 16 | ULONG(data[3]) << 24;
}

void createKey(std::u16string_view path, bool isVolatile)
{
    std::lock_guard<std::mutex> lock(gMutex);
    createKeyPathLocked(path, isVolatile);
}

bool keyExists(std::u16string_view path)
{
    std::lock_guard<std::mutex> lock(gMutex);
    return findKeyLocked(path) != nullptr;
}

std::optional<bool> keyIsVolatile(std::u16string_view path)
{
    std::lock_guard<std::mutex> lock(gMutex);
    auto key = findKeyLocked(path);
    return key ? std::optional<bool>(key->isVolatile) : std::nullopt;
}

void deleteKey(std::u16string_view path)
{
    std::lock_guard<std::mutex> lock(gMutex);
    auto key = findKeyLocked(path);
    if (key && key->parent != nullptr) {
        markDeleted(*key);
        key->parent->subkeys.erase(upcase(key->name));
    }
}

void setValue(std::u16string_view path, std::u16string_view name, ULONG type, const void *data, size_t size)
{
    std::lock_guard<std::mutex> lock(gMutex);
    auto key = createKeyPathLocked(path, false);
    if (!key) {
        return;
    }
    StoredValue *value = key->findValue(name);
    if (value == nullptr) {
        key->values.push_back(StoredValue{std::u16string(name), REG_NONE, {}});
        value = &key->values.back();
    }
    value->type = type;
    value->data.assign(static_cast<const std::uint8_t *>(data), static_cast<const std::uint8_t *>(data) + size);
}

void setDword(std::u16string_view path, std::u16string_view name, ULONG v)
{
    std::uint8_t bytes[4] = {std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16), std::uint8_t(v >> 24)};
    setValue(path, name, REG_DWORD, bytes, sizeof bytes);
}

void setString(std::u16string_view path, std::u16string_view name, std::u16string_view text)
{
    std::u16string withNul(text);
    withNul.push_back(0);
    setValue(path, name, REG_SZ, withNul.data(), withNul.size() * sizeof(char16_t));
}

std::optional<Value> value(std::u16string_view path, std::u16string_view name)
{
    std::lock_guard<std::mutex> lock(gMutex);
    auto key = findKeyLocked(path);
    const StoredValue *stored = key ? key->findValue(name) : nullptr;
    if (stored == nullptr) {
        return std::nullopt;
    }
    return Value{stored->type, stored->data};
}

std::vector<std::u16string> subkeyNames(std::u16string_view path)
{
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::u16string> out;
    if (auto key = findKeyLocked(path)) {
        for (auto &[folded, child] : key->subkeys) {
            (void)folded;
            out.push_back(child->name);
        }
    }
    return out;
}

std::vector<std::u16string> valueNames(std::u16string_view path)
{
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::u16string> out;
    if (auto key = findKeyLocked(path)) {
        for (auto &v : key->values) {
            out.push_back(v.name);
        }
    }
    return out;
}

void failNext(Op op, NTSTATUS status, unsigned skip)
{
    std::lock_guard<std::mutex> lock(gMutex);
    gFaults[int(op)] = {true, skip, status};
}

bool faultArmed(Op op)
{
    std::lock_guard<std::mutex> lock(gMutex);
    return gFaults[int(op)].armed;
}

void clearFaults()
{
    std::lock_guard<std::mutex> lock(gMutex);
    for (auto &f : gFaults) {
        f = {};
    }
}

size_t openHandleCount()
{
    std::lock_guard<std::mutex> lock(gMutex);
    return gHandles.size();
}

std::vector<std::u16string> openHandlePaths()
{
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<std::u16string> out;
    for (auto &[handle, open] : gHandles) {
        (void)handle;
        out.push_back(open.key->path());
    }
    return out;
}

void discardVolatileKeys()
{
    std::lock_guard<std::mutex> lock(gMutex);
    dropVolatile(rootLocked());
}

} // namespace hostkernel::registry
