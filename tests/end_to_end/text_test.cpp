// The text-reading device and its client, as processes over our link platform.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "process.h"

namespace lumora_test {
namespace {

using testing::HasSubstr;

constexpr int NO_DEVICE = 4;
constexpr int NO_ANSWER = 5;
constexpr int DEVICE_REFUSED = 6;

const char PAGE[] =
    "The lighthouse keeper wrote every evening\n"
    "what the sea had brought him that day.\n"
    "\n"
    "Wind from the west, 14 knots, good view.\n";

// Reading it takes so long that things happen meanwhile.
std::string LongPage() {
    std::string text;
    for (int i = 0; i < 60; ++i) {
        text += PAGE;
    }
    return text;
}

// Recognition keeps the words; how it divides them into lines and paragraphs is its own matter.
std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

class TextTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "lumora-text-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern.data()));
        mFolder = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(mFolder); }

    std::string Render(const std::string& text) {
        const std::string path = mFolder / "page.png";
        Process renderer({RENDER_PAGE_PROGRAM, path});
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            renderer.WriteLine(line);
        }
        renderer.CloseInput();
        EXPECT_EQ(0, renderer.WaitForEnd());
        return path;
    }

    // As a camera stores the page that was held so, with an EXIF orientation from 1 to 8.
    std::string Turn(const std::string& page, int orientation) {
        const std::string path = mFolder / "turned.jpg";
        Process turner({TURNED_PAGE_PROGRAM, page, path, std::to_string(orientation)});
        EXPECT_EQ(0, turner.WaitForEnd());
        return path;
    }

    std::string Write(const std::string& bytes) {
        const std::string path = mFolder / "file.png";
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    static std::string Read(const std::string& path) {
        std::ostringstream bytes;
        bytes << std::ifstream(path, std::ios::binary).rdbuf();
        return bytes.str();
    }

    std::filesystem::path mFolder;
};

class TextReader : public Process {
public:
    explicit TextReader(std::vector<std::string> options = {})
        : Process((options.insert(options.begin(), TEXT_READER_PROGRAM), options)) {
        WaitForLine("ready");
    }

    int End() {
        Signal(SIGTERM);
        return WaitForEnd();
    }
};

class ReadText : public Process {
public:
    explicit ReadText(const std::string& picture) : Process({READ_TEXT_PROGRAM, picture}) {}
    ReadText(const std::string& option, const std::string& value, const std::string& picture)
        : Process({READ_TEXT_PROGRAM, option, value, picture}) {}

    std::string Text() const {
        const std::string mark = "\ntext:\n";
        const std::size_t at = Output().find(mark);
        return at == std::string::npos ? "" : Output().substr(at + mark.size());
    }
};

void ExpectRefused(ReadText& client, const std::string& reason) {
    EXPECT_EQ(DEVICE_REFUSED, client.WaitForEnd());
    EXPECT_THAT(client.Errors(), HasSubstr(reason));
}

void ExpectPageRead(const std::string& picture) {
    ReadText client(picture);
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_EQ(Words(PAGE), Words(client.Text()));
}

TEST_F(TextTest, ClientShowsTextInPictureAndEveryStep) {
    TextReader device;
    ReadText client(Render(PAGE));
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_EQ(Words(PAGE), Words(client.Text()));
    for (const char* step : {"join", "find", "connect", "versions", "subscribe", "send", "answer"}) {
        EXPECT_THAT("\n" + client.Output(), HasSubstr("\n" + std::string(step) + " "));
    }
    EXPECT_THAT(client.Output(),
                HasSubstr("text-reader: service \"text\", transport tcp, up to 1024000 bytes"));
    EXPECT_THAT(client.Output(), HasSubstr("here 1.1.1, device 1.1.1"));
    EXPECT_EQ(0, device.End());
}

TEST_F(TextTest, PhotographsAreReadHoweverTheCameraWasHeld) {
    constexpr int UPRIGHT = 1;
    constexpr int LAST = 8;
    const std::string page = Render(PAGE);
    TextReader device;
    for (int orientation = UPRIGHT; orientation <= LAST; ++orientation) {
        SCOPED_TRACE(orientation);
        ExpectPageRead(Turn(page, orientation));
    }
    EXPECT_EQ(0, device.End());
}

TEST_F(TextTest, RestartedClientAndRestartedDeviceWorkAgain) {
    const std::string picture = Render(PAGE);
    for (int start = 0; start < 2; ++start) {
        TextReader device;
        ExpectPageRead(picture);
        ExpectPageRead(picture);
        EXPECT_EQ(0, device.End());
    }
}

TEST_F(TextTest, DamagedPicturesAreRefusedAndDeviceGoesOn) {
    const std::string page = Render(PAGE);
    const std::string bytes = Read(page);
    TextReader device;
    ReadText truncated(Write(bytes.substr(0, bytes.size() / 2)));
    ExpectRefused(truncated, "the picture is damaged: it cannot be decoded");
    ReadText head(Write(bytes.substr(0, 16)));
    ExpectRefused(head, "the picture is damaged: its head cannot be read");
    ReadText text(Write("no picture at all"));
    ExpectRefused(text, "send a PNG or a JPEG file");
    ExpectPageRead(page);
    EXPECT_EQ(0, device.End());
}

TEST_F(TextTest, LanguageIsSetWhenItIsInstalled) {
    const std::string page = Render(PAGE);
    TextReader device;
    ReadText unknown("--language", "xyz", page);
    ExpectRefused(unknown, "the language \"xyz\" is not installed on this device; there are:");
    ReadText outside("--language", "../eng", page);
    ExpectRefused(outside, "the language \"../eng\" is not installed on this device");
    ReadText known("--language", "eng", page);
    EXPECT_EQ(0, known.WaitForEnd());
    EXPECT_THAT(known.Output(), HasSubstr("language eng\n"));
    EXPECT_EQ(0, device.End());
}

TEST_F(TextTest, ClientWithoutDeviceSaysSo) {
    ReadText client("--find", "0", Render(PAGE));
    EXPECT_EQ(NO_DEVICE, client.WaitForEnd());
    EXPECT_THAT(client.Errors(), HasSubstr("no device of type \"text-reader\" was found"));
}

TEST_F(TextTest, DeviceEndsCleanlyWhileItReads) {
    TextReader device;
    ReadText client(Render(LongPage()));
    device.WaitForLine("client 1 sent");
    EXPECT_EQ(0, device.End());
    // The device says so twice, over different ways.
    EXPECT_THAT(client.WaitForEnd(), testing::AnyOf(DEVICE_REFUSED, NO_ANSWER));
    EXPECT_THAT(client.Errors(), testing::AnyOf(HasSubstr("the device says: the device is going away"),
                                                HasSubstr("the device has left the network")));
}

TEST_F(TextTest, ClientNoticesThatDeviceWasKilled) {
    TextReader device;
    ReadText client(Render(LongPage()));
    device.WaitForLine("client 1 sent");
    device.Signal(SIGKILL);
    EXPECT_EQ(NO_ANSWER, client.WaitForEnd());
    EXPECT_THAT(client.Errors(), HasSubstr("the device has left the network"));
}

}  // namespace
}  // namespace lumora_test
