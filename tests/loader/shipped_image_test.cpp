// The shipped ambrel.sys in the host kernel (AMBREL_DRIVER_IMAGE).
#include "loader_support.h"

namespace loadertest {
namespace {

const std::string kImage = AMBREL_DRIVER_IMAGE;

TEST(ShippedImageTest, MapsAndBindsWithItsLinkMap)
{
    if (kImage.empty()) {
        GTEST_SKIP() << "AMBREL_DRIVER_IMAGE names no ambrel.sys (configure with -DAMBREL_DRIVER_IMAGE=...)";
    }
    std::unique_ptr<hk::loader::Image> image;
    ASSERT_EQ(hk::loader::loadImageFile(kImage, &image), STATUS_SUCCESS);
    EXPECT_NE(image->symbol("GsDriverEntry"), 0u);
    EXPECT_EQ(image->symbol("GsDriverEntry"), image->entryPoint());
}

} // namespace
} // namespace loadertest
