// A broker that is restarted, dead, frozen, or does not know the hub.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <numeric>
#include <set>

#include "tests/hub/mqtt/bridge_fixture.h"

namespace lumora_hub_test {
namespace {

class BridgeBrokerGoneTest : public BridgeFixture {
protected:
    static constexpr const char* FACES = "lumora/camera@10.0.0.4/faces";
};

std::size_t ResidentBytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// The sanitizers keep freed memory for a while, and shadows of it, so what is resident says nothing then.
void ExpectGrowthBelow(std::size_t limit, std::size_t before) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static_cast<void>(limit);
    static_cast<void>(before);
#else
    EXPECT_LT(ResidentBytes(), before + limit);
#endif
}

TEST_F(BridgeBrokerGoneTest, ABrokerThatComesLaterIsFound) {
    StartBridge();
    AddCamera();
    ASSERT_TRUE(
        mLog.WaitFor(4, "cannot connect to the broker 127.0.0.1: Connection refused; next try in 0.0 s\n"))
        << mLog.Dump();
    mBroker = std::make_unique<Broker>();
    StartClient();
    EXPECT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "true"));
}

// Each block is delivered, perhaps twice, or counted.
TEST_F(BridgeBrokerGoneTest, ARestartLosesNothingButCountedBlocks) {
    mBroker = std::make_unique<Broker>();
    StartBridge();
    StartClient();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    std::set<std::string> got;
    constexpr int BLOCKS = 3000;
    const auto collect = [&] {
        if (mClient != nullptr) {
            for (const Received& block : mClient->At(FACES)) {
                got.insert(block.payload);
            }
        }
    };
    for (int i = 0; i < BLOCKS; ++i) {
        mHub.Send(CAMERA, "faces", std::to_string(i));
        if (i % 1000 == 500) {
            // The client's own connection must not be what loses blocks: the broker dies while all is quiet
            // for it.
            ASSERT_TRUE(Eventually([&] { return mClient->Last(FACES).has_value(); }));
            mBroker->Freeze();
            for (int more = 0; more < 20; ++more) {
                mHub.Send(CAMERA, "faces", "frozen " + std::to_string(i + more));
            }
            collect();
            mBroker->Kill();
            collect();
            mClient.reset();
            mBroker->Start();
            StartClient();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    ASSERT_TRUE(mClient->WaitForLast(FACES, std::to_string(BLOCKS - 1)));
    collect();
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().session.connections == 4; }));
    EXPECT_EQ(mClient->Last("lumora/camera@10.0.0.4/online"), "true");
    EXPECT_EQ(mClient->Last(HUB_ONLINE), "true");
    const auto isAccounted = [&] {
        const auto counts = mBridge->Counts();
        return counts.session.published + counts.lost == BLOCKS + 60;
    };
    EXPECT_TRUE(Eventually(isAccounted))
        << mBridge->Counts().session.published << " " << mBridge->Counts().lost;
}

TEST_F(BridgeBrokerGoneTest, StatesThatChangedMeanwhileAreTrueAfterwards) {
    mBroker = std::make_unique<Broker>();
    StartBridge();
    AddCamera();
    mHub.Appear(MakeDevice("lamp", "10.0.0.5", {}));
    ASSERT_TRUE(WaitForConnection());
    mBroker->Kill();
    ASSERT_TRUE(WaitForConnection(false));
    mHub.Leave(CAMERA);
    mHub.Forget("lamp@10.0.0.5");
    mHub.Appear(MakeDevice("reader", "10.0.0.6", {}));
    mBroker->Start();
    StartClient();
    ASSERT_TRUE(mClient->WaitForLast("lumora/reader@10.0.0.6/online", "true"));
    EXPECT_TRUE(mClient->WaitForLast("lumora/camera@10.0.0.4/online", "false"));
    EXPECT_FALSE(mClient->Last("lumora/lamp@10.0.0.5/online"));
}

// The broker keeps the states, and only the connection ends: what has gone is cleared.
TEST_F(BridgeBrokerGoneTest, WhatHasGoneWhileTheConnectionWasBrokenIsCleared) {
    mSettings.connectLimit = std::chrono::milliseconds(200);
    mBroker = std::make_unique<Broker>();
    StartBridge();
    StartClient();
    mHub.Appear(MakeDevice("lamp", "10.0.0.5", {}));
    ASSERT_TRUE(mClient->WaitForLast("lumora/lamp@10.0.0.5/online", "true"));
    // A second client of the hub's id ends the hub's connection.
    mosquitto* other = mosquitto_new("lumora-hub-gateway", true, nullptr);
    ASSERT_EQ(mosquitto_connect(other, "127.0.0.1", Broker::PORT, 60), MOSQ_ERR_SUCCESS);
    mosquitto_loop(other, 100, 1);
    ASSERT_TRUE(WaitForConnection(false));
    mBroker->Freeze();
    mHub.Forget("lamp@10.0.0.5");
    mosquitto_destroy(other);
    mBroker->Thaw();
    EXPECT_TRUE(mClient->WaitForLast("lumora/lamp@10.0.0.5", ""));
    EXPECT_EQ(mClient->Last("lumora/lamp@10.0.0.5/online"), "");
}

TEST_F(BridgeBrokerGoneTest, MemoryIsBoundedWhileTheBrokerIsDead) {
    constexpr int BLOCKS = 3000;
    mSettings.queue = {64, std::size_t{4} << 20};
    mBroker = std::make_unique<Broker>();
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mBroker->Kill();
    ASSERT_TRUE(WaitForConnection(false));
    const std::size_t before = ResidentBytes();
    for (int i = 0; i < BLOCKS; ++i) {
        ASSERT_EQ(mHub.Send(CAMERA, "picture", std::string(100000, 'x')), 1U);
    }
    ExpectGrowthBelow(std::size_t{24} << 20, before);
    ASSERT_TRUE(Eventually([&] { return mBridge->Counts().lost >= BLOCKS - 64; }));
    mBroker->Start();
    const auto isAccounted = [&] {
        const auto counts = mBridge->Counts();
        return counts.session.published + counts.lost == BLOCKS;
    };
    EXPECT_TRUE(Eventually(isAccounted))
        << mBridge->Counts().session.published << " " << mBridge->Counts().lost;
}

TEST_F(BridgeBrokerGoneTest, MemoryIsBoundedWhileTheBrokerIsFrozen) {
    constexpr int BLOCKS = 3000;
    mBroker = std::make_unique<Broker>();
    StartBridge();
    AddCamera();
    ASSERT_TRUE(WaitForConnection());
    mBroker->Freeze();
    const std::size_t before = ResidentBytes();
    for (int i = 0; i < BLOCKS; ++i) {
        ASSERT_EQ(mHub.Send(CAMERA, "picture", std::string(100000, 'x')), 1U);
    }
    ExpectGrowthBelow(std::size_t{40} << 20, before);
    mBroker->Thaw();
    const auto isAccounted = [&] {
        const auto counts = mBridge->Counts();
        return counts.session.published + counts.lost == BLOCKS;
    };
    EXPECT_TRUE(Eventually(isAccounted))
        << mBridge->Counts().session.published << " " << mBridge->Counts().lost;
    EXPECT_GT(mBridge->Counts().lost, 0U);
}

TEST_F(BridgeBrokerGoneTest, ABrokerThatDoesNotAnswerIsLeft) {
    mSettings.connectLimit = std::chrono::milliseconds(100);
    mBroker = std::make_unique<Broker>();
    mBroker->Freeze();
    StartBridge();
    ASSERT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1: it does not answer"));
    mBroker->Thaw();
    EXPECT_TRUE(WaitForConnection());
}

TEST_F(BridgeBrokerGoneTest, TheEndDoesNotWaitForAFrozenBroker) {
    mBroker = std::make_unique<Broker>();
    StartBridge();
    ASSERT_TRUE(WaitForConnection());
    mBroker->Freeze();
    const auto begin = std::chrono::steady_clock::now();
    mBridge.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(BridgeBrokerGoneTest, WrongCredentialsAreSaidAndRightOnesTaken) {
    const TemporaryFolder folder;
    const std::string users = folder.Path("users");
    ASSERT_TRUE(RunProgram({"mosquitto_passwd", "-c", "-b", users, "hub", "right"}));
    mBroker = std::make_unique<Broker>("allow_anonymous false\npassword_file " + users + "\n");
    mSettings.user = "hub";
    mSettings.passwordFile = folder.Write("password", "wrong\n");
    StartBridge();
    ASSERT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1: Not authorized")) << mLog.Dump();
    folder.Write("password", "right\n");
    EXPECT_TRUE(WaitForConnection());
}

TEST_F(BridgeBrokerGoneTest, AFileThatCannotBeReadIsNamed) {
    mBroker = std::make_unique<Broker>();
    mSettings.tls = true;
    mSettings.caFile = "/nothing.pem";
    StartBridge();
    EXPECT_TRUE(WaitForText("127.0.0.1: /nothing.pem cannot be read: No such file or directory"))
        << mLog.Dump();
}

TEST_F(BridgeBrokerGoneTest, APasswordThatOthersMayReadIsNotUsed) {
    const TemporaryFolder folder;
    mBroker = std::make_unique<Broker>();
    mSettings.user = "hub";
    mSettings.passwordFile = folder.Write("password", "secret\n");
    chmod(mSettings.passwordFile.c_str(), 0644);
    StartBridge();
    ASSERT_TRUE(WaitForText("others may read the password file: chmod 600 ")) << mLog.Dump();
    EXPECT_FALSE(mBridge->Counts().isConnected);
}

}  // namespace
}  // namespace lumora_hub_test
