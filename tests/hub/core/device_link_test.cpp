// The hub's channel with workers that die, hang or say anything. They are small shell scripts.
#include "hub/core/device_link.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

namespace lumora_hub {
namespace {

using std::chrono::milliseconds;

class DeviceLinkTest : public testing::Test {
protected:
    DeviceLinkTest() {
        std::string folder = testing::TempDir() + "hub-worker-XXXXXX";
        mFolder = mkdtemp(folder.data()) != nullptr ? folder : "";
        mSettings.worker = mFolder + "/worker";
        mSettings.idle = milliseconds(0);
        mSettings.connect = milliseconds(300);
    }
    ~DeviceLinkTest() override {
        mLink.reset();
        TurnUntil([this] { return mReaper.IsEmpty(); });
        std::filesystem::remove_all(mFolder);
    }

    // A line of a script that sends the bytes.
    std::string Bytes(const std::string& name, const std::string& bytes) {
        std::ofstream(mFolder + '/' + name, std::ios::binary) << bytes;
        return "cat " + mFolder + '/' + name + " >&3\n";
    }
    std::string SaysConnected() {
        FrameHead head;
        head.kind = FrameKind::CONNECTED;
        return Bytes("connected", EncodeFrame(head, "1.0", ""));
    }
    void Start(const std::string& script) {
        std::ofstream(mSettings.worker) << "#!/bin/sh\n" << script;
        ASSERT_EQ(chmod(mSettings.worker.c_str(), S_IRWXU), 0);
        DeviceLink::Events events;
        events.onChanged = [] {};
        events.onBlock = [this](const std::string&, std::uint64_t number, const std::string&) {
            ++mBlocks;
            mNumbers.push_back(number);
        };
        events.onUnreachable = [this] { ++mEnds; };
        mLink = std::make_unique<DeviceLink>(mSurroundings, std::move(events));
        mLink->SetPlace(Place{"camera", "192.0.2.1", 5683});
        mLink->SetWanted({"picture"});
    }
    std::unique_ptr<DeviceLink> LinkTo(const std::string& address) {
        DeviceLink::Events events;
        events.onChanged = events.onUnreachable = [] {};
        auto link = std::make_unique<DeviceLink>(mSurroundings, std::move(events));
        link->SetPlace(Place{"camera", address, 5683});
        link->SetWanted({"picture"});
        return link;
    }
    std::vector<std::unique_ptr<DeviceLink>> LinksTo(const std::string& address, int count) {
        std::vector<std::unique_ptr<DeviceLink>> links;
        while (count-- > 0) {
            links.push_back(LinkTo(address));
        }
        return links;
    }
    bool TurnUntil(const std::function<bool()>& condition) {
        const auto end = EventLoop::Clock::now() + std::chrono::seconds(30);
        while (!condition() && EventLoop::Clock::now() < end) {
            mLoop.RunOnce(milliseconds(10));
        }
        return condition();
    }
    bool BecomesConnected() {
        return TurnUntil([this] { return mLink->State() == ChannelState::CONNECTED; });
    }
    bool Fails(const std::string& trouble) {
        return TurnUntil(
            [&] { return mLink->State() == ChannelState::FAILED && mLink->Trouble() == trouble; });
    }
    void Ask(std::size_t bytes = 1) {
        mLink->Request(FrameKind::SEND, "", std::string(bytes, 'x'),
                       [this](Outcome outcome) { mOutcomes.push_back(outcome); });
    }
    std::size_t Count(Outcome outcome) const {
        return static_cast<std::size_t>(std::count(mOutcomes.begin(), mOutcomes.end(), outcome));
    }

    std::string mFolder;
    EventLoop mLoop;
    Reaper mReaper{mLoop};
    PortRange mPorts{PortLimits{}};
    Settings mSettings;
    LinkSurroundings mSurroundings{mLoop, mReaper, mPorts, mSettings, {}};
    std::unique_ptr<DeviceLink> mLink;
    std::vector<Outcome> mOutcomes;
    int mBlocks = 0;
    std::vector<std::uint64_t> mNumbers;
    int mEnds = 0;
};

TEST_F(DeviceLinkTest, AWorkerThatDiesAtAnyStepIsReplaced) {
    FrameHead head;
    head.kind = FrameKind::BLOCK;
    const std::string block = EncodeFrame(head, "picture", std::string(100, 'x'));
    // After nothing, within a head, within a name, within a block, after a block.
    for (const std::size_t sent :
         {std::size_t{0}, std::size_t{7}, std::size_t{18}, std::size_t{60}, block.size()}) {
        mEnds = mBlocks = 0;
        mOutcomes.clear();
        Start(SaysConnected() + "sleep 0.05\n" + Bytes("block", block.substr(0, sent)));
        Ask();
        EXPECT_TRUE(TurnUntil([this] { return mEnds >= 2; })) << sent;
        EXPECT_EQ(mLink->Trouble(), "its worker has died");
        EXPECT_EQ(mBlocks, sent == block.size() ? mEnds : 0) << sent;
        EXPECT_EQ(mOutcomes.size(), 1U) << sent;
        EXPECT_EQ(mSurroundings.opening.Taken(), 0U);
    }
}

TEST_F(DeviceLinkTest, AWorkerThatSaysNothingIsReplaced) {
    mSettings.open = milliseconds(100);
    Start("exec sleep 60\n");
    Ask();
    EXPECT_TRUE(Fails("its worker opens no channel"));
    EXPECT_EQ(mSurroundings.opening.Taken(), 0U);
    EXPECT_TRUE(TurnUntil([this] { return mOutcomes == std::vector<Outcome>{Outcome::UNREACHABLE}; }));
}

TEST_F(DeviceLinkTest, AWorkerThatDoesNotAnswerIsReplaced) {
    mSettings.answer = milliseconds(1000);
    Start(SaysConnected() + "exec sleep 60\n");
    ASSERT_TRUE(BecomesConnected());
    for (int count = 0; count < 5; ++count) {
        Ask();
    }
    // Two are with the worker. The others are given up, and not carried out when their clients are gone.
    EXPECT_TRUE(TurnUntil([this] { return mOutcomes.size() == 3; }));
    EXPECT_EQ(Count(Outcome::BUSY), 3U);
    EXPECT_TRUE(Fails("its worker does not answer"));
    EXPECT_EQ(Count(Outcome::REFUSED), 2U);
}

TEST_F(DeviceLinkTest, ADeviceThatDoesNotAnswerHasFewRequests) {
    Start(SaysConnected() + "exec sleep 60\n");
    ASSERT_TRUE(BecomesConnected());
    for (int count = 0; count < 70; ++count) {
        Ask();
    }
    EXPECT_EQ(mOutcomes, std::vector<Outcome>(6, Outcome::BUSY));
}

TEST_F(DeviceLinkTest, TheBytesOfItsRequestsAreFewToo) {
    Start("exec sleep 60\n");
    for (int count = 0; count < 5; ++count) {
        Ask(std::size_t{4} << 20);
    }
    EXPECT_EQ(mOutcomes, std::vector<Outcome>(1, Outcome::BUSY));
}

TEST_F(DeviceLinkTest, AWorkerThatDoesNotReadIsReplaced) {
    Start(SaysConnected() + "exec sleep 60\n");
    ASSERT_TRUE(BecomesConnected());
    const std::string name(39, 'n');
    for (int count = 0; count < 20000; ++count) {
        mLink->SetWanted({name + std::to_string(count)});
    }
    EXPECT_TRUE(Fails("its worker does not read"));
}

TEST_F(DeviceLinkTest, AnAddressWhoseDevicesOpenNoChannelDelaysNoOther) {
    Start("[ $2 = 192.0.2.1 ] && exec sleep 60\n" + SaysConnected() + "exec cat <&3 >/dev/null\n");
    const auto strangers = LinksTo("192.0.2.1", 20);
    const auto link = LinkTo("192.0.2.2");
    EXPECT_TRUE(TurnUntil([&] { return link->State() == ChannelState::CONNECTED; }));
    EXPECT_EQ(mSurroundings.opening.Taken(), 4U);
    EXPECT_EQ(mSurroundings.refused, 0U);
}

TEST_F(DeviceLinkTest, AnAddressLeavesAQuarterOfTheChannelsToOthers) {
    Start(SaysConnected() + "exec sleep 60\n");
    const auto strangers = LinksTo("192.0.2.1", 80);
    const auto areConnected = [&] {
        return mSurroundings.channels.Taken() == 75 && mSurroundings.opening.Taken() == 0;
    };
    EXPECT_TRUE(TurnUntil(areConnected));
    EXPECT_GE(mSurroundings.refused, 6U);  // with the first one of this test's own
    EXPECT_EQ(strangers.back()->State(), ChannelState::FAILED);
    EXPECT_EQ(strangers.back()->Trouble(),
              "too many devices at its address have channels; --ports names more ports");
    const auto link = LinkTo("192.0.2.2");
    EXPECT_TRUE(TurnUntil([&] { return link->State() == ChannelState::CONNECTED; }));
}

TEST_F(DeviceLinkTest, AChannelThatIsWantedNoMoreWhileItWaitsLeavesItsPlace) {
    Start("exec sleep 60\n");
    const auto strangers = LinksTo("192.0.2.1", 10);
    for (const auto& link : strangers) {
        link->SetWanted({});
    }
    mLink.reset();
    EXPECT_TRUE(TurnUntil([&] { return mSurroundings.channels.Taken() == 0; }));
    EXPECT_EQ(mSurroundings.opening.Taken(), 0U);
}

TEST_F(DeviceLinkTest, NumbersOfBlocksGrowWhateverTheWorkerSays) {
    FrameHead head;
    head.kind = FrameKind::BLOCK;
    std::string blocks;
    for (const std::uint64_t number : {~std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0}}) {
        head.number = number;
        blocks += EncodeFrame(head, "picture", "x");
    }
    Start(SaysConnected() + "sleep 0.2\n" + Bytes("blocks", blocks) + "exec sleep 60\n");
    EXPECT_TRUE(TurnUntil([this] { return mBlocks == 3; }));
    EXPECT_EQ(mNumbers, (std::vector<std::uint64_t>{1, 2, 3}));
}

}  // namespace
}  // namespace lumora_hub
