#include <fcntl.h>

#include <climits>
#include <memory>
#include <string>

#include "Wraps.h"
#include "gmock/gmock.h"
#include "misc/UMisc.h"
#include "support/RecordingPlatform.h"
#include "support/SysTree.h"

namespace {

using dcm::usb::UString;
using test::libc;
using test::Line;
using test::Logs;
using test::Wrote;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Frees what a helper handed out.
struct Text {
    char* text;
    explicit Text(char* made) : text(made) {}
    ~Text() { UString::DestroyString(&text); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
};

class UStringTest : public ::testing::Test {
protected:
    UStringTest() {
        libc = {};
        test::ResetPlatform();
    }
    ~UStringTest() override { libc = {}; }
};

TEST_F(UStringTest, ReadsTheDecimalDigitsAtTheStart) {
    EXPECT_EQ(UString::ConvertString2Int("12ab"), 12);
    EXPECT_EQ(UString::ConvertString2Int("480"), 480);
    EXPECT_EQ(UString::ConvertString2Int("007"), 7);
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UStringTest, KnowsNeitherSignsNorLeadingBlanksInADecimalNumber) {
    EXPECT_EQ(UString::ConvertString2Int("-5"), 0);
    EXPECT_EQ(UString::ConvertString2Int("+5"), 0);
    EXPECT_EQ(UString::ConvertString2Int(" 5"), 0);
    EXPECT_EQ(UString::ConvertString2Int(""), 0);
    EXPECT_EQ(UString::ConvertString2Int("x1"), 0);
}

TEST_F(UStringTest, WrapsADecimalNumberThatIsTooLong) {
    EXPECT_EQ(UString::ConvertString2Int("2147483647"), INT_MAX);
    EXPECT_EQ(UString::ConvertString2Int("2147483648"), INT_MIN);
    EXPECT_EQ(UString::ConvertString2Int("4294967299"), 3);
}

TEST_F(UStringTest, ANullTextHasTheDecimalValueZero) {
    EXPECT_EQ(UString::ConvertString2Int(nullptr), 0);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "parameter str is null")));
}

TEST_F(UStringTest, AParentIsAnyPrefix) {
    EXPECT_TRUE(UString::IsParentString("", "anything"));
    EXPECT_TRUE(UString::IsParentString("", ""));
    EXPECT_TRUE(UString::IsParentString("/x/sda", "/x/sda"));
    EXPECT_TRUE(UString::IsParentString("/x/sda", "/x/sdaa"));
    EXPECT_FALSE(UString::IsParentString("abc", "ab"));
    EXPECT_FALSE(UString::IsParentString("abd", "abc"));
    EXPECT_FALSE(UString::IsParentString(nullptr, "ab"));
    EXPECT_FALSE(UString::IsParentString("ab", nullptr));
}

TEST_F(UStringTest, TextsAreTheSameWhenBothAreThereAndEqual) {
    EXPECT_TRUE(UString::IsSameString("", ""));
    EXPECT_TRUE(UString::IsSameString("abc", "abc"));
    EXPECT_FALSE(UString::IsSameString("abc", "ab"));
    EXPECT_FALSE(UString::IsSameString("ab", "abc"));
    EXPECT_FALSE(UString::IsSameString(nullptr, "a"));
    EXPECT_FALSE(UString::IsSameString("a", nullptr));
    EXPECT_FALSE(UString::IsSameString(nullptr, nullptr));
}

TEST_F(UStringTest, CopiesAText) {
    libc.counted = true;
    const Text copy(UString::CreateString("abc"));
    libc.counted = false;
    EXPECT_STREQ(copy.text, "abc");
    EXPECT_EQ(libc.held[copy.text], 4U);
}

TEST_F(UStringTest, ANullOrEmptyTextHasNoCopy) {
    EXPECT_EQ(UString::CreateString(nullptr), nullptr);
    EXPECT_EQ(UString::CreateString(""), nullptr);
}

TEST_F(UStringTest, CopiesATextIntoABufferOfTheLengthThatWasAskedFor) {
    libc.counted = true;
    const Text copy(UString::CreateString("abc", 5));
    libc.counted = false;
    EXPECT_EQ(std::string(copy.text, 6), std::string("abc\0\0\0", 6));
    EXPECT_EQ(libc.held[copy.text], 6U);
}

TEST_F(UStringTest, CutsACopyAtTheLengthThatWasAskedFor) {
    const char unterminated[] = {'a', 'b', 'c', 'd'};
    const Text copy(UString::CreateString(unterminated, 3));
    EXPECT_STREQ(copy.text, "abc");
    const Text empty(UString::CreateString("", 2));
    EXPECT_STREQ(empty.text, "");
}

TEST_F(UStringTest, ACopyOfNoLengthIsNull) {
    EXPECT_EQ(UString::CreateString("abc", 0), nullptr);
    EXPECT_EQ(UString::CreateString("abc", -1), nullptr);
    EXPECT_EQ(UString::CreateString(nullptr, 3), nullptr);
}

TEST_F(UStringTest, ACopyWithoutMemoryIsNull) {
    libc.counted = true;
    libc.copies_until_failure = 0;
    const char* copy = UString::CreateString("abc");
    libc.copies_until_failure = 0;
    const char* bounded = UString::CreateString("abc", 2);
    libc.counted = false;
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(bounded, nullptr);
}

TEST_F(UStringTest, AppendingToNothingIsACopy) {
    const Text copy(UString::AppendString(nullptr, "x"));
    EXPECT_STREQ(copy.text, "x");
}

TEST_F(UStringTest, AppendingToAnEmptyTextLeavesItToTheCaller) {
    libc.counted = true;
    char* empty = UString::CreateString("", 4);
    char* copy = UString::AppendString(empty, "x");
    libc.counted = false;
    EXPECT_STREQ(copy, "x");
    EXPECT_NE(copy, empty);
    EXPECT_EQ(libc.held.count(empty), 1U);
    UString::DestroyString(&empty);
    UString::DestroyString(&copy);
}

TEST_F(UStringTest, AppendingNothingChangesNothing) {
    char text[] = "abc";
    EXPECT_EQ(UString::AppendString(text, ""), text);
    EXPECT_EQ(UString::AppendString(text, nullptr), text);
    EXPECT_EQ(UString::AppendString(nullptr, nullptr), nullptr);
    EXPECT_STREQ(text, "abc");
}

TEST_F(UStringTest, AppendingTakesTheOldText) {
    libc.counted = true;
    char* old = UString::CreateString("abc");
    char* joined = UString::AppendString(old, "de");
    libc.counted = false;
    EXPECT_STREQ(joined, "abcde");
    EXPECT_THAT(libc.held, ElementsAre(std::pair<void* const, std::size_t>(joined, 6U)));
    UString::DestroyString(&joined);
}

TEST_F(UStringTest, AppendingWithoutMemoryTakesTheOldTextAllTheSame) {
    libc.counted = true;
    char* old = UString::CreateString("abc");
    libc.copies_until_failure = 0;
    const char* joined = UString::AppendString(old, "de");
    libc.counted = false;
    EXPECT_EQ(joined, nullptr);
    EXPECT_THAT(libc.held, IsEmpty());
}

TEST_F(UStringTest, DestroyingATextSetsItToNull) {
    libc.counted = true;
    char* text = UString::CreateString("abc");
    UString::DestroyString(&text);
    libc.counted = false;
    EXPECT_EQ(text, nullptr);
    EXPECT_THAT(libc.held, IsEmpty());
    UString::DestroyString(&text);
    UString::DestroyString(nullptr);
}

TEST_F(UStringTest, SplitsHexadecimalNumbersAtRunsOfTheDelimiter) {
    int numbers[4] = {-7, -7, -7, -7};
    UString::GetHexNum(numbers, 4, "  1a 2b  ", ' ');
    EXPECT_THAT(numbers, ElementsAre(0x1a, 0x2b, -7, -7));
    EXPECT_THAT(Logs(), IsEmpty());
}

TEST_F(UStringTest, ReadsNoMoreHexadecimalNumbersThanThereIsRoomFor) {
    int numbers[3] = {-7, -7, -7};
    UString::GetHexNum(numbers, 2, "5ac/12a8/1001", '/');
    EXPECT_THAT(numbers, ElementsAre(0x5ac, 0x12a8, -7));
}

TEST_F(UStringTest, WhatIsNoHexadecimalDigitFillsTheRestWithZeros) {
    int numbers[4] = {-7, -7, -7, -7};
    UString::GetHexNum(numbers, 4, "1a xyz 2b", ' ');
    EXPECT_THAT(numbers, ElementsAre(0x1a, 0, 0, 0));
}

TEST_F(UStringTest, ReadsHexadecimalNumbersFromTheFirst254CharactersOnly) {
    const std::string blanks(253, ' ');
    int numbers[2] = {-7, -7};
    UString::GetHexNum(numbers, 2, (blanks + "12 3").c_str(), ' ');
    EXPECT_THAT(numbers, ElementsAre(0x1, -7));
}

TEST_F(UStringTest, AnEmptyTextHasNoHexadecimalNumbers) {
    int number = -7;
    UString::GetHexNum(&number, 1, "", ' ');
    UString::GetHexNum(&number, 1, "   ", ' ');
    EXPECT_EQ(number, -7);
}

TEST_F(UStringTest, RefusesToSplitWithoutTextOrRoomInThatOrder) {
    int number = -7;
    UString::GetHexNum(nullptr, 0, nullptr, ' ');
    UString::GetHexNum(nullptr, 0, "1", ' ');
    UString::GetHexNum(&number, 0, "1", ' ');
    UString::GetHexNum(&number, -1, "1", ' ');
    EXPECT_THAT(Logs(),
                ElementsAre(Line(192, "inbuf is null"), Line(192, "outbuf is null"),
                            Line(192, "outbuf_size:0 is invalid"), Line(192, "outbuf_size:-1 is invalid")));
    EXPECT_EQ(number, -7);
}

constexpr const char* kDevice = "/devices/soc/usb1/1-1";

class AttributeTest : public UStringTest {
protected:
    test::SysTree sys;

    void Set(const std::string& attribute, const std::string& text) const {
        sys.Set(std::string(kDevice) + attribute, text);
    }
};

TEST_F(AttributeTest, ReadsAnAttributeUpToItsFirstNewline) {
    Set("/value", "0\n");
    const Text value(UString::GetInterfaceString(kDevice, "/value"));
    EXPECT_STREQ(value.text, "0");
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "GetInterfaceString [0]")));
    Set("/product", "Mass Storage\nsecond line\n");
    const Text product(UString::GetInterfaceString(kDevice, "/product"));
    EXPECT_STREQ(product.text, "Mass Storage");
}

TEST_F(AttributeTest, ReadsAnAttributeWithoutNewlineToItsEnd) {
    Set("/value", "abc");
    const Text value(UString::GetInterfaceString(kDevice, "/value"));
    EXPECT_STREQ(value.text, "abc");
}

TEST_F(AttributeTest, AnEmptyLineIsNoValue) {
    Set("/line", "\n");
    EXPECT_EQ(UString::GetInterfaceString(kDevice, "/line"), nullptr);
    Set("/nothing", "");
    EXPECT_EQ(UString::GetInterfaceString(kDevice, "/nothing"), nullptr);
    EXPECT_THAT(Logs(), ElementsAre(Line(64, "GetInterfaceString [(null)]"),
                                    Line(64, "GetInterfaceString [(null)]")));
}

TEST_F(AttributeTest, ReadsAPageOfTextWhole) {
    const std::string page(4096, 'x');
    Set("/page", page);
    const Text value(UString::GetInterfaceString(kDevice, "/page"));
    EXPECT_EQ(value.text, page);
}

TEST_F(AttributeTest, TakesControlBytesAndPercentSignsAsTheyAreAndStopsAtANul) {
    Set("/serial", "\x01\x1b%n%s\xff\t");
    const Text serial(UString::GetInterfaceString(kDevice, "/serial"));
    EXPECT_STREQ(serial.text, "\x01\x1b%n%s\xff\t");
    Set("/cut", std::string("ab\0cd", 5));
    const Text cut(UString::GetInterfaceString(kDevice, "/cut"));
    EXPECT_STREQ(cut.text, "ab");
}

TEST_F(AttributeTest, AMissingAttributeIsLoggedWithItsPath) {
    EXPECT_EQ(UString::GetInterfaceString(kDevice, "/none"), nullptr);
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/none"), -1);
    const std::string line = "open fail " + sys.Root() + kDevice + "/none";
    ASSERT_THAT(Logs(), ElementsAre(Line(192, line), Line(192, line)));
    EXPECT_EQ(Logs()[0].function, "GetInterfaceString");
    EXPECT_EQ(Logs()[1].function, "GetInterfaceValue");
}

TEST_F(AttributeTest, AMissingAttributeIsZeroInDecimalAndMinusOneInHexadecimal) {
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/none"), 0);
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/none"), -1);
}

TEST_F(AttributeTest, CutsAPathAt255Characters) {
    const std::string attribute = "/" + std::string(300, 'a');
    EXPECT_EQ(UString::GetInterfaceString(kDevice, attribute.c_str()), nullptr);
    const std::string path = sys.Root() + kDevice + attribute;
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "open fail " + path.substr(0, 255))));
}

TEST_F(AttributeTest, RefusesANullDeviceOrAttribute) {
    EXPECT_EQ(UString::GetInterfaceString(nullptr, nullptr), nullptr);
    EXPECT_EQ(UString::GetInterfaceValue(nullptr, nullptr), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "parameter((nil) (nil)) is null"),
                                    Line(192, "parameter((nil) (nil)) is null")));
    EXPECT_EQ(UString::GetInterfaceString(kDevice, nullptr), nullptr);
    EXPECT_EQ(UString::GetInterfaceString(nullptr, "/value"), nullptr);
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, nullptr), -1);
    EXPECT_EQ(UString::GetInterfaceValue(nullptr, "/value"), -1);
    EXPECT_EQ(Logs(192).size(), 6U);
}

TEST_F(AttributeTest, ReadsAValueAsHexadecimalWhateverItsMeaning) {
    Set("/idVendor", "05ac\n");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/idVendor"), 0x05AC);
    Set("/speed", "480\n");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/speed"), 0x480);
}

TEST_F(AttributeTest, AValueThatIsNoNumberIsZero) {
    Set("/value", "xyz\n");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/value"), 0);
    Set("/value", "\n");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/value"), 0);
    Set("/value", "");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/value"), 0);
}

TEST_F(AttributeTest, ReadsTenBytesOfAValue) {
    Set("/value", "000000000123\n");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/value"), 0x1);
}

TEST_F(AttributeTest, AValueThatCannotBeReadIsMinusOne) {
    Set("/folder/file", "");
    EXPECT_EQ(UString::GetInterfaceValue(kDevice, "/folder"), -1);
    EXPECT_THAT(Logs(), ElementsAre(Line(192, "read fail -1")));
    EXPECT_EQ(UString::GetInterfaceString(kDevice, "/folder"), nullptr);
}

TEST_F(AttributeTest, ReadsADecimalValueWithTheKernelsLeadingBlank) {
    Set("/bNumInterfaces", " 3\n");
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/bNumInterfaces"), 3);
    Set("/speed", "480\n");
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/speed"), 480);
    Set("/speed", "1.5\n");
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/speed"), 1);
    Set("/speed", "\n");
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/speed"), 0);
    Set("/speed", "fast\n");
    EXPECT_EQ(UString::GetInterfaceString2Value(kDevice, "/speed"), 0);
}

TEST_F(AttributeTest, ClosesEveryAttributeAndHidesItFromChildren) {
    Set("/value", "1\n");
    libc.descriptors.clear();
    const Text text(UString::GetInterfaceString(kDevice, "/value"));
    EXPECT_EQ(libc.open_flags, O_RDONLY | O_CLOEXEC);
    UString::GetInterfaceValue(kDevice, "/value");
    EXPECT_EQ(libc.open_flags, O_RDONLY | O_CLOEXEC);
    Set("/folder/file", "");
    UString::GetInterfaceValue(kDevice, "/folder");
    UString::GetInterfaceString2Value(kDevice, "/value");
    EXPECT_THAT(libc.descriptors, IsEmpty());
}

TEST_F(AttributeTest, FreesWhatADecimalValueWasReadFrom) {
    Set("/value", "1234\n");
    libc.counted = true;
    const int value = UString::GetInterfaceString2Value(kDevice, "/value");
    libc.counted = false;
    EXPECT_EQ(value, 1234);
    EXPECT_THAT(libc.held, IsEmpty());
}

TEST_F(AttributeTest, ReadsATextOfAnyLength) {
    for (const std::size_t length : {1, 254, 255, 256, 509, 510, 511, 3000}) {
        std::string text(length, 'x');
        text.back() = 'y';
        Set("/value", text + "\nz");
        const Text read(UString::GetInterfaceString(kDevice, "/value"));
        EXPECT_EQ(read.text, text) << length;
    }
}

TEST_F(AttributeTest, HasNoValueRatherThanTheEndOfOneWhenMemoryRunsOut) {
    Set("/value", std::string(300, 'a') + "\n");
    for (const int copies : {0, 1}) {
        libc.counted = true;
        libc.copies_until_failure = copies;
        const char* value = UString::GetInterfaceString(kDevice, "/value");
        libc.counted = false;
        EXPECT_EQ(libc.copies_until_failure, -1) << "nothing failed";
        EXPECT_EQ(value, nullptr) << copies;
        EXPECT_THAT(libc.held, IsEmpty());
    }
}

TEST(UStringRoot, IsSysUnlessATestRedirectsIt) {
    EXPECT_STREQ(UString::kRootSysPath, "/sys");
}

}  // namespace
