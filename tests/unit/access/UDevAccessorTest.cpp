#include "gmock/gmock.h"
#include "support/FailingMutex.h"
#include "unit/access/AccessorBench.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using UDevAccessor = AccessorBench;

TEST_F(UDevAccessor, ExistsOnceFromItsFirstUseToItsRelease) {
    auto* const accessor = dcm::usb::UDevAccessor::GetInstance();
    EXPECT_EQ(dcm::usb::UDevAccessor::GetInstance(), accessor);
    dcm::usb::UDevAccessor::Release();
    EXPECT_EQ(dcm::usb::UDevAccessor::m_pInstance, nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevAccessor, SaysThatItsMutexCannotBeMade) {
    dcm::usb::UDevAccessor::Release();
    fail_mutex_init = true;
    dcm::usb::UDevAccessor::GetInstance();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
}

TEST_F(UDevAccessor, SaysThatItsMutexCannotBeDestroyed) {
    fail_mutex_destroy = true;
    dcm::usb::UDevAccessor::Release();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to destroy mutex")));
}

}  // namespace
}  // namespace test
