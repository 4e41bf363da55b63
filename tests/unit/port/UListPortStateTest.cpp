#include "port/UListPortState.h"

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/FailingMutex.h"
#include "support/RecordingPlatform.h"

namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct UListPortState : ::testing::Test {
    void SetUp() override {
        dcm::usb::UListPortState::Release();
        ResetPlatform();
        fail_mutex_init = fail_mutex_destroy = false;
    }
    void TearDown() override {
        fail_mutex_init = fail_mutex_destroy = false;
        dcm::usb::UListPortState::Release();
    }
};

TEST_F(UListPortState, ExistsOnceFromItsFirstUseToItsRelease) {
    auto* const list = dcm::usb::UListPortState::GetInstance();
    EXPECT_EQ(dcm::usb::UListPortState::GetInstance(), list);
    dcm::usb::UListPortState::Release();
    EXPECT_EQ(dcm::usb::UListPortState::m_pInstance, nullptr);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UListPortState, LogsThePortOnWhichCarPlayWasStarted) {
    dcm::usb::UListPortState::GetInstance()->SetCarplayPort(2);
    EXPECT_THAT(Logs(), ElementsAre(Line(128, "carplay port set 2")));
}

TEST_F(UListPortState, SaysThatItsMutexCannotBeMade) {
    fail_mutex_init = true;
    dcm::usb::UListPortState::GetInstance();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to init mutex")));
}

TEST_F(UListPortState, SaysThatItsMutexCannotBeDestroyed) {
    dcm::usb::UListPortState::GetInstance();
    fail_mutex_destroy = true;
    dcm::usb::UListPortState::Release();
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "failed to destroy mutex")));
}

}  // namespace
}  // namespace test
