// Test main: every test starts from a reset host kernel and must end with no
// leaked pool block, no live IRP, no assertion report and no verifier failure.
#include "driver/entry/adapter.h"
#include "host/kernel/HostKernel.h"
#include "host/portcls/HostPortCls.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

bool gUnclean = false;

class HostKernelCleanliness : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override {
        hostk::resetForTest();
        // The image runs under special pool (Verify End unless
        // MME_SPECIAL_POOL says otherwise): its overruns and uses after free
        // are caught, as AddressSanitizer catches the linked driver's.
        if (!hostpc::driverImage().empty() && !std::getenv("MME_SPECIAL_POOL"))
            hostk::setSpecialPool(hostk::SpecialPool::VerifyEnd);
        hostpc::resetForTest();
        ResetPdoHandOver();
    }
    void OnTestEnd(const ::testing::TestInfo& info) override {
        std::string problems = hostk::checkClean();
        if (!problems.empty()) {
            gUnclean = true;
            std::fprintf(stderr, "[ UNCLEAN  ] %s.%s left the host kernel unclean:\n%s\n",
                         info.test_suite_name(), info.name(), problems.c_str());
        }
    }
};

// With MME_DRIVER_IMAGE set, every DriverLoader runs the Windows image;
// without the image (no Windows build here) there is nothing to test.
class DriverImagePresent : public ::testing::Environment {
    void SetUp() override {
        const std::string image = hostpc::driverImage();
        if (!image.empty() && !std::ifstream(image)) {
            // gtest reports no test as skipped from here; CTest reads this line.
            std::printf("[  SKIPPED ] no Windows build of the driver at %s\n", image.c_str());
            GTEST_SKIP() << "no Windows build of the driver at " << image;
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // The kernel runs DriverEntry before any driver code; these suites also
    // run the driver's objects without one.
    InitializeDriverRuntime();
    ::testing::UnitTest::GetInstance()->listeners().Append(new HostKernelCleanliness);
    ::testing::AddGlobalTestEnvironment(new DriverImagePresent);
    int result = RUN_ALL_TESTS();
    return (result != 0 || gUnclean) ? 1 : 0;
}
