// loadDriverImage: an image file run as the I/O manager runs a driver.
#include "../io/internal.h"
#include "internal.h"

namespace hostkernel {

PDRIVER_OBJECT loadDriverImage(std::u16string_view serviceName, const std::string &imagePath, NTSTATUS *status)
{
    detail::requirePassive("loadDriverImage");
    NTSTATUS ignored;
    NTSTATUS &result = status != nullptr ? *status : ignored;
    std::unique_ptr<loader::Image> image;
    result = loader::loadImageFile(imagePath, &image);
    if (!NT_SUCCESS(result)) {
        return nullptr;
    }
    using WindowsEntry = NTSTATUS(__attribute__((ms_abi)) *)(PDRIVER_OBJECT, PUNICODE_STRING);
    auto entry = reinterpret_cast<WindowsEntry>(image->entryPoint());
    loader::Image *mapped = image.get();
    // The driver record owns the image from here; when it goes (unload, or
    // a failed DriverEntry) the image's range is retired, not just unmapped.
    std::shared_ptr<void> hold(image.release(), [](void *p) {
        loader::detail::retireImage(std::unique_ptr<loader::Image>(static_cast<loader::Image *>(p)));
    });
    return detail::loadDriverWith(
        serviceName, [&](PDRIVER_OBJECT object, PUNICODE_STRING path) { return entry(object, path); },
        [&](detail::DriverRecord &driver) {
            // What the I/O manager fills in from the loader's record; the
            // record itself (DriverSection) stays the host's driver record,
            // which now holds the image.
            driver.object.DriverInit = reinterpret_cast<PDRIVER_INITIALIZE>(mapped->entryPoint());
            driver.object.DriverStart = reinterpret_cast<PVOID>(mapped->base());
            driver.object.DriverSize = ULONG(mapped->size());
            driver.image = std::move(hold);
        },
        status, [&] { mapped->discardInitSections(); });
}

} // namespace hostkernel
