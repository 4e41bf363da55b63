#include "gmock/gmock.h"
#include "misc/USingleton.h"

namespace dcm::usb {

// Something there is once.
class UThing : public USingleton<UThing> {
public:
    explicit UThing(int given = 0) : value(given) { ++alive; }
    ~UThing() override { --alive; }

    int value;
    static int alive;
};
int UThing::alive = 0;

namespace {

class USingletonTest : public ::testing::Test {
protected:
    ~USingletonTest() override { USingleton<UThing>::Release(); }
};
using USingletonDeathTest = USingletonTest;

TEST_F(USingletonTest, IsMadeOnFirstUseAndStays) {
    EXPECT_EQ(USingleton<UThing>::m_pInstance, nullptr);
    UThing* thing = USingleton<UThing>::GetInstance();
    ASSERT_NE(thing, nullptr);
    EXPECT_EQ(USingleton<UThing>::GetInstance(), thing);
    EXPECT_EQ(USingleton<UThing>::m_pInstance, thing);
    EXPECT_EQ(UThing::alive, 1);
}

TEST_F(USingletonTest, IsMadeAgainAfterItWasReleased) {
    USingleton<UThing>::GetInstance()->value = 5;
    USingleton<UThing>::Release();
    EXPECT_EQ(UThing::alive, 0);
    EXPECT_EQ(USingleton<UThing>::m_pInstance, nullptr);
    EXPECT_TRUE(USingleton<UThing>::m_bInitialized);
    EXPECT_EQ(USingleton<UThing>::GetInstance()->value, 0);
}

TEST_F(USingletonTest, ReleasingNothingIsHarmless) {
    USingleton<UThing>::Release();
    EXPECT_EQ(USingleton<UThing>::m_pInstance, nullptr);
}

TEST_F(USingletonDeathTest, ASecondInstanceStopsTheProcess) {
    USingleton<UThing>::GetInstance();
    EXPECT_EXIT(UThing second, ::testing::KilledBySignal(SIGABRT),
                "USingleton\\.h:19: dcm::usb::USingleton<T>::USingleton\\(\\) "
                "\\[with T = dcm::usb::UThing\\]: Assertion `!m_pInstance' failed\\.");
}

TEST_F(USingletonDeathTest, AnInstanceMadeAroundTheAccessorStopsTheProcess) {
    EXPECT_EXIT(
        {
            USingleton<UThing>::m_bInitialized = false;  // another test may have used the accessor
            UThing first;
        },
        ::testing::KilledBySignal(SIGABRT),
        "USingleton\\.h:20: dcm::usb::USingleton<T>::USingleton\\(\\) "
        "\\[with T = dcm::usb::UThing\\]: Assertion `m_bInitialized' failed\\.");
}

}  // namespace
}  // namespace dcm::usb
