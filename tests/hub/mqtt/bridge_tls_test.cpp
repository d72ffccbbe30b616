// A broker with TLS, and the certificates that it and the hub show.
#include "tests/hub/mqtt/bridge_fixture.h"

namespace lumora_hub_test {
namespace {

class BridgeTlsTest : public BridgeFixture {
protected:
    // An authority, and a certificate of it for the name.
    void MakeAuthority(const std::string& name) const {
        ASSERT_TRUE(RunProgram({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=" + name,
                                "-keyout", Path(name + ".key"), "-out", Path(name + ".pem")}));
    }
    void MakeCertificate(const std::string& authority, const std::string& name,
                         const std::string& address) const {
        ASSERT_TRUE(RunProgram({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                "-nodes", "-subj", "/CN=" + name, "-addext", "subjectAltName=IP:" + address,
                                "-keyout", Path(name + ".key"), "-out", Path(name + ".request")}));
        ASSERT_TRUE(RunProgram({"openssl", "x509", "-req", "-in", Path(name + ".request"), "-days", "2",
                                "-copy_extensions", "copy", "-CA", Path(authority + ".pem"), "-CAkey",
                                Path(authority + ".key"), "-CAcreateserial", "-out", Path(name + ".pem")}));
    }
    void StartBroker(const std::string& certificate, const std::string& more = "") {
        mBroker = std::make_unique<Broker>("allow_anonymous true\ncertfile " + Path(certificate + ".pem") +
                                           "\nkeyfile " + Path(certificate + ".key") + "\n" + more);
    }
    void SetUp() override {
        MakeAuthority("authority");
        MakeCertificate("authority", "broker", "127.0.0.1");
        mSettings.tls = true;
        mSettings.port = Broker::PORT;
        mSettings.caFile = Path("authority.pem");
    }
    std::string Path(const std::string& name) const { return mFolder.Path(name); }

    TemporaryFolder mFolder;
};

TEST_F(BridgeTlsTest, ABrokerOfTheAuthorityIsUsed) {
    mSettings.queue.bytes = std::size_t{64} << 20;
    StartBroker("broker");
    StartBridge();
    AddCamera();
    EXPECT_TRUE(WaitForConnection()) << mLog.Dump();
    for (int i = 0; i < 20; ++i) {
        mHub.Send(CAMERA, "picture", std::string(1024000, 'x'));
    }
    EXPECT_TRUE(Eventually([&] { return mBridge->Counts().session.published == 20; }));
    EXPECT_EQ(mBridge->Counts().lost, 0U);
}

TEST_F(BridgeTlsTest, ABrokerOfAnotherAuthorityIsRefused) {
    MakeAuthority("other");
    mSettings.caFile = Path("other.pem");
    StartBroker("broker");
    StartBridge();
    EXPECT_TRUE(WaitForText("certificate verify failed")) << mLog.Dump();
    EXPECT_EQ(mBridge->Counts().session.connections, 0U);
}

TEST_F(BridgeTlsTest, ACertificateForAnotherHostIsRefused) {
    MakeCertificate("authority", "elsewhere", "10.9.9.9");
    StartBroker("elsewhere");
    StartBridge();
    EXPECT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1:1883")) << mLog.Dump();
    EXPECT_EQ(mBridge->Counts().session.connections, 0U);
}

TEST_F(BridgeTlsTest, TheHubShowsItsOwnCertificate) {
    MakeCertificate("authority", "hub", "127.0.0.2");
    const std::string demand = "require_certificate true\ncafile " + Path("authority.pem") + "\n";
    StartBroker("broker", demand);
    StartBridge();
    ASSERT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1:1883")) << mLog.Dump();
    mBridge.reset();
    mSettings.certificate = Path("hub.pem");
    mSettings.key = Path("hub.key");
    StartBridge();
    EXPECT_TRUE(WaitForConnection()) << mLog.Dump();
}

TEST_F(BridgeTlsTest, AFileThatIsNotThereIsNamedAndTriedAgain) {
    mSettings.caFile = Path("later.pem");
    StartBroker("broker");
    StartBridge();
    ASSERT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1:1883")) << mLog.Dump();
    ASSERT_TRUE(RunProgram({"cp", Path("authority.pem"), Path("later.pem")}));
    EXPECT_TRUE(WaitForConnection()) << mLog.Dump();
}

TEST_F(BridgeTlsTest, ABrokerWithoutTlsIsNotSpokenToInClear) {
    mBroker = std::make_unique<Broker>();
    mSettings.connectLimit = std::chrono::milliseconds(500);
    StartBridge();
    ASSERT_TRUE(WaitForText("cannot connect to the broker 127.0.0.1:1883")) << mLog.Dump();
    EXPECT_EQ(mBridge->Counts().session.connections, 0U);
}

}  // namespace
}  // namespace lumora_hub_test
