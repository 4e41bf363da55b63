#include "shm/LowSend.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "FakeSystem.h"

namespace shm {
namespace {

using ::test::Bytes;
using ::test::TheSystem;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using LowSendTest = ::test::SystemTest;

TEST_F(LowSendTest, GivesTheDriverThePathOfTheRecordsFile) {
    low_send(ssmID::shm_usb_cert_persist, 0x0800000000001000);
    ASSERT_THAT(TheSystem().css, SizeIs(1));
    EXPECT_EQ(TheSystem().css[0].command, 0U);
    EXPECT_EQ(TheSystem().css[0].request, (Bytes{0,  0,    0, 0, 0, 0, 0, 0,     //
                                                 0,  0x10, 0, 0, 0, 0, 0, 0x08,  // receivers
                                                 0,  0,    0, 0, 0, 0, 0, 0,     //
                                                 40, 0,    0, 0,                 // payload
                                                 0,  2,    0, 0,                 // buffer
                                                 0,  0,    0, 0, 0, 0, 0, 0}));  // its address, cleared
    const std::string text = "/data/sharedmemory/shm_usb_cert_persist";
    Bytes expected(text.begin(), text.end());
    expected.resize(512);
    EXPECT_EQ(TheSystem().css[0].buffer, expected);
    EXPECT_EQ(Complaints(), "");
}

TEST_F(LowSendTest, RoundsTheBufferUpToTheNext512Bytes) {
    struct Case {
        std::size_t characters;
        std::uint32_t payload;
        std::uint32_t buffer;
    };
    for (const Case& one : {Case{0, 1, 512}, Case{31, 32, 512}, Case{510, 511, 512}, Case{511, 512, 1024},
                            Case{1022, 1023, 1024}, Case{1023, 1024, 1536}, Case{26622, 26623, 26624},
                            Case{26623, 26624, 27136}}) {
        const SendLengths lengths = set_lengths(one.characters);
        EXPECT_EQ(lengths.payload, one.payload) << one.characters;
        EXPECT_EQ(lengths.buffer, one.buffer) << one.characters;
    }
}

TEST_F(LowSendTest, CutsAPayloadThatTheDriverCannotTakeAndTellsOnStandardOutput) {
    for (const std::size_t characters : {26624, 100000}) {
        ::testing::internal::CaptureStdout();
        const SendLengths lengths = set_lengths(characters);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  "[set_lengths]size overflow len : " + std::to_string(characters + 1) + "\n");
        EXPECT_EQ(lengths.payload, 26624U);
        EXPECT_EQ(lengths.buffer, 27136U);
    }
    EXPECT_EQ(Complaints(), "");
}

TEST_F(LowSendTest, OpensTheDriverOnceForWritingOnly) {
    CssDriver driver;
    driver.Send(ssmID::shm_usb_cert, 1);
    driver.Send(ssmID::shm_usb_cert, 2);
    ASSERT_THAT(TheSystem().opens, SizeIs(1));
    EXPECT_EQ(TheSystem().opens[0].path, "/dev/css");
    EXPECT_EQ(TheSystem().opens[0].flags, O_WRONLY | O_CLOEXEC);
    EXPECT_THAT(TheSystem().css, SizeIs(2));
}

TEST_F(LowSendTest, LosesANotificationWithoutTheDriverAndTriesAgainWithTheNext) {
    TheSystem().no_driver = true;
    CssDriver driver;
    driver.Send(ssmID::shm_usb_cert, 1);
    EXPECT_EQ(Complaints(), "[SHM-IF][low_send]open failed\n");
    EXPECT_THAT(TheSystem().css, IsEmpty());
    TheSystem().no_driver = false;
    driver.Send(ssmID::shm_usb_cert, 2);
    EXPECT_THAT(TheSystem().css, SizeIs(1));
    EXPECT_EQ(Complaints(), "");
}

TEST_F(LowSendTest, TellsThatTheDriverRefused) {
    TheSystem().failures = {{"ioctl", ENODEV, 1}};
    CssDriver driver;
    driver.Send(ssmID::shm_usb_cert, 1);
    EXPECT_EQ(Complaints(), "[SHM-IF][low_send]ioctl /dev/css: No such device\n");
    driver.Send(ssmID::shm_usb_cert, 1);
    EXPECT_THAT(TheSystem().opens, SizeIs(1));
    EXPECT_THAT(TheSystem().css, SizeIs(1));
}

TEST_F(LowSendTest, RefusesIdsThatNameNoRecord) {
    low_send(ssmID::SSM_ID_MAX, 1);
    EXPECT_EQ(Complaints(), "[SHM-IF][get_table_index]unvalid index\n");
    EXPECT_THAT(TheSystem().css, IsEmpty());
}

}  // namespace
}  // namespace shm
