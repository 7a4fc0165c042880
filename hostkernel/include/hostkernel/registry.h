// The test side of the host registry: preload and inspect keys and values,
// make the next Zw call of a kind fail, simulate a reboot. Paths are absolute
// ("\REGISTRY\MACHINE\..."), case-insensitive. Never included by driver sources.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../amplatform.h"

namespace hostkernel::registry {

struct Value {
    ULONG type = REG_NONE;
    std::vector<std::uint8_t> data;

    // REG_SZ text up to its first NUL (or the whole data without one).
    std::u16string text() const;
    // The first four bytes, little-endian; nullopt for shorter data.
    std::optional<ULONG> dword() const;
};

// Creates the key and any missing parent (parents take the key's volatility).
void createKey(std::u16string_view path, bool isVolatile = false);
bool keyExists(std::u16string_view path);
std::optional<bool> keyIsVolatile(std::u16string_view path);
// Removes the key and everything below it; open handles to it see
// STATUS_KEY_DELETED.
void deleteKey(std::u16string_view path);

// Writes a value, creating the key path first.
void setValue(std::u16string_view path, std::u16string_view name, ULONG type, const void *data, size_t size);
void setDword(std::u16string_view path, std::u16string_view name, ULONG value);
// REG_SZ with its terminating NUL, as drivers write it.
void setString(std::u16string_view path, std::u16string_view name, std::u16string_view text);
std::optional<Value> value(std::u16string_view path, std::u16string_view name);

std::vector<std::u16string> subkeyNames(std::u16string_view path);
std::vector<std::u16string> valueNames(std::u16string_view path);

enum class Op { Open, Create, Query, Set, DeleteValue };
// The call of that kind after `skip` further ones fails with `status`. One
// fault per kind is armed at a time.
void failNext(Op op, NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES, unsigned skip = 0);
void clearFaults();
// Still armed: the faulted call has not come yet (a sweep's end test).
bool faultArmed(Op op);

size_t openHandleCount();
// Paths of the keys behind the handles still open.
std::vector<std::u16string> openHandlePaths();

// A reboot as far as the registry can tell: volatile keys are gone.
void discardVolatileKeys();

} // namespace hostkernel::registry
