#include "access/UDevAccessor.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/FailingMutex.h"
#include "support/RecordingPlatform.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct UDevAccessor : ::testing::Test {
    void SetUp() override {
        dcm::usb::UDevAccessor::Release();
        ResetPlatform();
        fail_mutex_init = fail_mutex_destroy = false;
    }
    void TearDown() override {
        fail_mutex_init = fail_mutex_destroy = false;
        dcm::usb::UDevAccessor::Release();
    }
};

TEST_F(UDevAccessor, ExistsOnceFromItsFirstUseToItsRelease) {
    auto* const accessor = dcm::usb::UDevAccessor::GetInstance();
    EXPECT_EQ(dcm::usb::UDevAccessor::GetInstance(), accessor);
    dcm::usb::UDevAccessor::Release();
    EXPECT_EQ(dcm::usb::UDevAccessor::m_pInstance, nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UDevAccessor, SaysThatItsMutexCannotBeMade) {
    fail_mutex_init = true;
    dcm::usb::UDevAccessor::GetInstance();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
}

TEST_F(UDevAccessor, SaysThatItsMutexCannotBeDestroyed) {
    dcm::usb::UDevAccessor::GetInstance();
    fail_mutex_destroy = true;
    dcm::usb::UDevAccessor::Release();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to destroy mutex")));
}

}  // namespace
}  // namespace test
