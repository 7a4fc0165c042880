# Host compiler flags that decide data layouts, shared by the host build and
# by the Windows build's layout probe, which compiles the probe for the host
# as well (platform/windows, tools/parity).
#
# -fshort-wchar: wchar_t is UTF-16 as on Windows, so that the driver's L"..."
# literals and the host kernel agree on WCHAR.
set(AMBREL_HOST_ABI_FLAGS -fshort-wchar)

# Flags of driver sources on the host: what the kernel-mode build allows.
set(AMBREL_DRIVER_FLAGS -fno-exceptions -fno-rtti)
