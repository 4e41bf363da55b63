#include "monitor/Sink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "monitor/CaptureReader.h"
#include "unit/kipcmon/Bytes.h"

namespace kipcmon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Both ends of a pipe that nobody waits for.
class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(m_ends, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe() {
        CloseReader();
        close(m_ends[1]);
    }
    void CloseReader() {
        if (m_ends[0] >= 0) close(m_ends[0]);
        m_ends[0] = -1;
    }
    int writer() const { return m_ends[1]; }
    std::string Written() const {
        std::string text(1 << 16, '\0');
        const ssize_t count = read(m_ends[0], text.data(), text.size());
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }
    void Fill() const {
        const std::string page(4096, 'x');
        while (write(m_ends[1], page.data(), page.size()) > 0) {
        }
    }

private:
    int m_ends[2] = {-1, -1};
};

class MonitorSink : public testing::Test {
protected:
    bool Take(Sink& sink, const test::Sent& sent, std::uint64_t lost = 0) {
        return sink.Take(sent.Datagram(), lost, &m_refusal);
    }

    static std::vector<std::string> LinesIn(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }

    const test::Sent m_to_media{.record = test::RecordOf("media_voltage", {{"port", "1"}})};
    const test::Sent m_to_voltage{.record = test::RecordOf("voltage", {{"port", "2"}}),
                                  .receiver = "voltage"};
    Pipe m_pipe;
    Output m_lines{m_pipe.writer(), -1};
    std::string m_refusal;
};

TEST_F(MonitorSink, ShowsWhatPassesTheFilterUntilTheCountIsReached) {
    const Options options{.count = 2, .filter = {.receivers = {"voltage"}}};
    Sink sink(options, COLOUR_OFF, &m_lines, nullptr);
    EXPECT_TRUE(Take(sink, m_to_voltage));
    EXPECT_TRUE(Take(sink, m_to_media));
    EXPECT_FALSE(sink.over());
    EXPECT_TRUE(Take(sink, m_to_voltage));
    EXPECT_TRUE(sink.reached());
    EXPECT_TRUE(sink.over());
    EXPECT_TRUE(Take(sink, m_to_voltage));
    EXPECT_THAT(LinesIn(m_pipe.Written()), ElementsAre(HasSubstr("-> voltage"), HasSubstr("-> voltage")));
}

TEST_F(MonitorSink, TellsOfLossesAlsoThoseBeforeAFilteredRecord) {
    const Options options{.filter = {.receivers = {"voltage"}}};
    Sink sink(options, COLOUR_OFF, &m_lines, nullptr);
    test::Sent lossy = m_to_media;
    lossy.lost = 3;
    Take(sink, lossy);
    EXPECT_EQ(m_pipe.Written(), "");
    EXPECT_EQ(sink.lost(), 3u);
    lossy = m_to_voltage;
    lossy.lost = 2;
    Take(sink, lossy);
    Take(sink, m_to_voltage);
    EXPECT_EQ(sink.lost(), 0u);
    EXPECT_THAT(LinesIn(m_pipe.Written()),
                ElementsAre("5 records were lost here", HasSubstr("-> voltage"), HasSubstr("-> voltage")));
}

TEST_F(MonitorSink, CountsALossOnceThatACaptureTellsTwice) {
    const Options options{};
    Sink sink(options, COLOUR_OFF, &m_lines, nullptr);
    test::Sent lossy = m_to_media;
    lossy.lost = 3;
    Take(sink, lossy, 5);
    EXPECT_THAT(LinesIn(m_pipe.Written()),
                ElementsAre("5 records were lost here", HasSubstr("media_voltage")));
}

TEST_F(MonitorSink, WritesTheDatagramsThatPassAsTheyCame) {
    const Options options{.filter = {.receivers = {"voltage"}}};
    Sink sink(options, COLOUR_OFF, nullptr, &m_lines);
    test::Sent lossy = m_to_media;
    lossy.lost = 3;
    Take(sink, lossy);
    Take(sink, m_to_voltage);
    std::istringstream file(m_pipe.Written());
    CaptureReader reader(&file);
    CapturedPacket packet;
    ASSERT_EQ(reader.Next(&packet), CAPTURE_PACKET);
    EXPECT_EQ(packet.bytes, m_to_voltage.Datagram());
    EXPECT_EQ(packet.lost, 3u);
    EXPECT_EQ(reader.Next(&packet), CAPTURE_END);
}

TEST_F(MonitorSink, RefusesWhatIsNoDatagramOfATap) {
    const Options options{};
    Sink sink(options, COLOUR_OFF, &m_lines, nullptr);
    EXPECT_FALSE(sink.Take({}, 0, &m_refusal));
    EXPECT_EQ(m_refusal, "0 bytes are less than a head");
    EXPECT_EQ(m_pipe.Written(), "");
}

TEST_F(MonitorSink, IsOverWhenNobodyReadsAnyMore) {
    const Options options{};
    signal(SIGPIPE, SIG_IGN);
    m_pipe.CloseReader();
    Sink sink(options, COLOUR_OFF, &m_lines, nullptr);
    EXPECT_TRUE(Take(sink, m_to_media));
    EXPECT_TRUE(sink.over());
    EXPECT_FALSE(sink.reached());
    EXPECT_EQ(sink.written(), WRITE_FAILED);
    EXPECT_EQ(sink.error(), EPIPE);
}

TEST_F(MonitorSink, WaitsForNoReaderWhenItIsToldToStop) {
    const int stop = eventfd(1, EFD_CLOEXEC);
    Output lines(m_pipe.writer(), stop);
    EXPECT_EQ(lines.Write("there is room\n"), WRITE_DONE);
    m_pipe.Fill();
    EXPECT_EQ(lines.Write("there is none\n"), WRITE_STOPPED);
    close(stop);
}

}  // namespace
}  // namespace kipcmon
