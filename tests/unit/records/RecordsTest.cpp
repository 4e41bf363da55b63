#include "records/Records.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using namespace records;
using testing::ElementsAre;
using testing::IsEmpty;

using Data = std::vector<unsigned char>;

const Field& FieldOf(std::string_view record, std::string_view field) {
    return *FindField(*Find(record), field);
}

// A volume that was mounted, as media, navigation and the others get it.
Data MountedVolume() {
    Data bytes = Blank(*Find("st_storage_pkt"));
    const std::pair<std::string_view, std::string_view> values[] = {
        {"cmd", "mounted"}, {"dev_type", "storage"}, {"port", "1"},         {"partition", "1"},
        {"label", "STICK"}, {"fs_type", "vfat"},     {"usb_class", "0x08"}, {"speed", "high"}};
    for (const auto& [name, value] : values)
        EXPECT_TRUE(Set(FieldOf("st_storage_pkt", name), value, bytes));
    return bytes;
}

TEST(Records, CoverEachByteOnceAndHaveAFieldOfEveryNameOnce) {
    ASSERT_GE(All().size(), 30u);
    for (const Record& record : All()) {
        std::size_t end = 0;
        for (const Field& field : record.fields) {
            EXPECT_EQ(end, field.at) << record.name << "." << field.name;
            EXPECT_EQ(&field, FindField(record, field.name)) << record.name << "." << field.name;
            end += field.width;
        }
        EXPECT_EQ(record.size, end) << record.name;
        EXPECT_LE(record.minimum, record.size) << record.name;
    }
}

TEST(Records, AreFoundByTheirNames) {
    for (const Record& record : All())
        EXPECT_EQ(&record, Find(record.name));
    EXPECT_EQ(nullptr, Find("st_usb_pk"));
    EXPECT_EQ(nullptr, FindField(*Find("scan"), "Sender"));
}

TEST(Records, KnowTheProcessesByTheirBits) {
    std::uint64_t storage = 0;
    for (const Process& process : Processes()) {
        for (const std::string_view receiver : Find("st_storage_pkt")->to) {
            if (receiver == process.name) storage |= process.mask;
        }
    }
    EXPECT_EQ(0x00002A4802A04000u, storage);
}

TEST(Identify, TakesTheFirstDescriptionThatFitsReceiverSizeAndFixedBytes) {
    EXPECT_EQ(Find("st_storage_pkt"), Identify("usb", "navi", MountedVolume()));
    EXPECT_EQ(Find("diag_socket2_short"), Identify("usb", "diag", Data{1, 0x60, 0x19, 6, 0x69, 1}));
    EXPECT_EQ(Find("diag_adaption"), Identify("diag", "usb", Data{0x83, 0x60, 0x22, 9, 0x81, 0x80, 0, 0, 0}));
    EXPECT_EQ(Find("diag_request"), Identify("diag", "usb", Data{0x83, 0x60, 0x22, 9, 0x80}));
}

TEST(Identify, RefusesAnotherSizeAnotherSenderAndAnotherReceiver) {
    Data longer = MountedVolume();
    longer.push_back(0);
    EXPECT_EQ(nullptr, Identify("usb", "navi", longer));
    EXPECT_EQ(nullptr, Identify("media", "navi", MountedVolume()));
    EXPECT_EQ(nullptr, Identify("usb", "diag", MountedVolume()));
    EXPECT_EQ(nullptr, Identify("usb", "media", Data{}));
}

TEST(Identify, TakesLongerRequestsWhereTheServiceDoes) {
    EXPECT_EQ(nullptr, Identify("media", "usb", Data(19)));
    EXPECT_EQ(Find("media_command"), Identify("media", "usb", Data(20)));
    EXPECT_EQ(Find("media_command"), Identify("media", "usb", Data(300)));
}

TEST(Number, IsLittleEndianAndSignedWhereTheFieldIs) {
    Data bytes(244);
    bytes[10] = 0xD1, bytes[11] = 0x18;
    for (std::size_t i = 240; i < 244; ++i)
        bytes[i] = 0xFF;
    EXPECT_EQ(0x18D1, Number(FieldOf("mode_request", "vid"), bytes));
    EXPECT_EQ(-1, Number(FieldOf("mode_request", "result"), bytes));
    EXPECT_EQ(4294967295, Number(FieldOf("voltage", "section"), Data(12, 0xFF)));
}

TEST(Number, ReadsZerosBehindTheEndOfAShortRecord) {
    EXPECT_EQ(0x0201, Number(FieldOf("media_command", "cmd"), Data{0, 0, 0, 0, 1, 2}));
    EXPECT_EQ(0, Number(FieldOf("media_command", "port"), Data{0, 0, 0, 0, 1, 2}));
    EXPECT_EQ("", Text(FieldOf("st_storage_pkt", "label"), Data{}));
}

TEST(Say, GivesAWordANumberATextOrBytes) {
    const Data bytes = MountedVolume();
    EXPECT_EQ("mounted", Say(FieldOf("st_storage_pkt", "cmd"), bytes));
    EXPECT_EQ("mounted", WordOf(FieldOf("st_storage_pkt", "cmd"), bytes));
    EXPECT_EQ("1", Say(FieldOf("st_storage_pkt", "port"), bytes));
    EXPECT_EQ("", WordOf(FieldOf("st_storage_pkt", "port"), bytes));
    EXPECT_EQ("0x08", Say(FieldOf("st_storage_pkt", "usb_class"), bytes));
    EXPECT_EQ("\"vfat\"", Say(FieldOf("st_storage_pkt", "fs_type"), bytes));
    EXPECT_EQ("82ff01", Say(FieldOf("mount_check_result", "head"), Data{0x82, 0xFF, 1, 0}));
    EXPECT_EQ("50529027", Say(FieldOf("st_storage_pkt", "sub_cmd"), Data(12, 3)))
        << "a number without a word";
}

TEST(Say, EscapesWhatATerminalWouldObeyOrCannotShow) {
    const auto said = [](std::string_view text) {
        return Say(FieldOf("setting_changed", "path"), Data(text.begin(), text.end()));
    };
    EXPECT_EQ("\"\\x1b[2J\"", said("\x1b[2J"));
    EXPECT_EQ("\"\\x7f\\xc2\\x9b\\xc2\\x9f\xC2\xA0\"", said("\x7F\xC2\x9B\xC2\x9F\xC2\xA0"));
    EXPECT_EQ("\"a\\\"b\\\\c\"", said("a\"b\\c"));
    EXPECT_EQ("\"\xE2\x82\xAC \xF0\x9F\x98\x80\"", said("\xE2\x82\xAC \xF0\x9F\x98\x80"));
    EXPECT_EQ("\"\\xc0\\x80\\xe2\\x82\"", said("\xC0\x80\xE2\x82"));
    EXPECT_EQ("\"\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\"", said("\xED\xA0\x80\xF4\x90\x80\x80"));
}

TEST(Faults, NameWhatIsWrongWithARecord) {
    Data bytes = MountedVolume();
    EXPECT_THAT(Faults(*Find("st_storage_pkt"), bytes), IsEmpty());
    std::fill_n(&bytes[21], 32, 'x');  // mount path
    bytes[60] = 'x';                   // behind the label's end
    bytes[135] = 7;
    EXPECT_THAT(
        Faults(*Find("st_storage_pkt"), bytes),
        ElementsAre("mount_path is not terminated", "label has bytes behind its end", "unused is not zero"));
    EXPECT_THAT(Faults(*Find("power"), Data{0x83, 0x91, 1, 0}), ElementsAre("ends after 4 of 7 bytes"));
    EXPECT_THAT(Faults(*Find("setting_changed"), Data{'/', 'a', 0}), IsEmpty());
}

TEST(Blank, HasItsFixedBytesAndZeros) {
    EXPECT_EQ((Data{2, 0x31, 2, 0, 0}), Blank(*Find("test_command")));
    EXPECT_EQ((Data{0x88, 0x13, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), Blank(*Find("voltage")));
    EXPECT_EQ(244u, Blank(*Find("mode_request")).size());
}

TEST(Set, TakesWordsNumbersTextsAndHexDigits) {
    Data bytes = Blank(*Find("mode_request"));
    EXPECT_TRUE(Set(FieldOf("mode_request", "id"), "request CarPlay", bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "port"), "255", bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "pid"), "0x2D01", bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "result"), "-1", bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "serial"), std::string(63, 's'), bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "unused"), "aB01", bytes));
    EXPECT_EQ(14, Number(FieldOf("mode_request", "id"), bytes));
    EXPECT_EQ(255, Number(FieldOf("mode_request", "port"), bytes));
    EXPECT_EQ(0x2D01, Number(FieldOf("mode_request", "pid"), bytes));
    EXPECT_EQ(-1, Number(FieldOf("mode_request", "result"), bytes));
    EXPECT_EQ(std::string(63, 's'), Text(FieldOf("mode_request", "serial"), bytes));
    EXPECT_EQ("ab0100", Say(FieldOf("mode_request", "unused"), bytes));
    EXPECT_TRUE(Set(FieldOf("mode_request", "serial"), "short", bytes));
    EXPECT_THAT(Faults(*Find("mode_request"), bytes), IsEmpty()) << "the old text's rest is gone";
}

TEST(Set, RefusesWhatTheFieldCannotHoldAndChangesNothing) {
    const Data before = Blank(*Find("mode_request"));
    Data bytes = before;
    const std::pair<std::string_view, std::string> values[] = {{"port", "256"},
                                                               {"port", "-1"},
                                                               {"port", ""},
                                                               {"port", "1x"},
                                                               {"port", "0x"},
                                                               {"pid", "0x10000"},
                                                               {"id", "4294967296"},
                                                               {"id", "99999999999999999999"},
                                                               {"id", "no word"},
                                                               {"id", "--1"},
                                                               {"result", "2147483648"},
                                                               {"result", "-2147483649"},
                                                               {"unused", "abc"},
                                                               {"unused", "zz"},
                                                               {"unused", "01020304"},
                                                               {"serial", std::string(64, 's')},
                                                               {"serial", std::string("a\0b", 3)}};
    for (const auto& [name, value] : values) {
        EXPECT_FALSE(Set(FieldOf("mode_request", name), value, bytes)) << name << " " << value;
    }
    EXPECT_EQ(before, bytes);
    EXPECT_FALSE(Set(FieldOf("mode_request", "result"), "18446744073709551615", bytes));
    EXPECT_FALSE(Set(FieldOf("mode_request", "unused"), std::string_view("ab01").substr(0, 3), bytes));
    EXPECT_EQ(before, bytes);
    Data cut(242);
    EXPECT_FALSE(Set(FieldOf("mode_request", "result"), "1", cut)) << "the record ends inside the field";
}

TEST(Describe, IsOneLineWithoutFixedUnusedAndEmptyFields) {
    Data bytes = MountedVolume();
    bytes[135] = 1;
    EXPECT_EQ(
        "st_storage_pkt cmd=mounted sub_cmd=- dev_type=storage port=1 partition=1 label=\"STICK\" "
        "fs_type=\"vfat\" usb_class=0x08 speed=high [unused is not zero]",
        Describe(Find("st_storage_pkt"), bytes));
    EXPECT_EQ("3 bytes that no description fits: 01 02 ff", Describe(nullptr, Data{1, 2, 0xFF}));
}

}  // namespace
