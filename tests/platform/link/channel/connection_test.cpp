// Private connections over sockets of the test's own, with peers that keep to the rules and peers that do
// not.
#include "platform/link/channel/connection.h"

#include <gmock/gmock.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <thread>

#include "base/unique_fd.h"
#include "platform/link/io/system_random.h"

namespace lumora_link::test {

namespace {

using testing::Contains;
using testing::Not;

constexpr int KEY_UPDATE = 24;
constexpr int NEW_SESSION_TICKET = 4;

struct SocketEnds {
    explicit SocketEnds(int flags = SOCK_NONBLOCK) {
        std::array<int, 2> both{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0, both.data()), 0);
        client = lumora::UniqueFd(both[0]);
        device = lumora::UniqueFd(both[1]);
    }
    void Shrink() const {
        constexpr int bytes = 4096;
        for (const lumora::UniqueFd* end : {&client, &device}) {
            setsockopt(end->Get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
            setsockopt(end->Get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        }
    }
    lumora::UniqueFd client;
    lumora::UniqueFd device;
};

std::string Pattern(std::size_t size) {
    std::string text(size, '\0');
    std::uint32_t state = 1;
    for (char& byte : text) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return text;
}

void Await(int socket, int result) {
    pollfd entry = {socket, static_cast<short>(result == LINK_WANTS_READ ? POLLIN : POLLOUT), 0};
    poll(&entry, 1, 10000);
}

// Everything, however often the socket is full. False if the connection fails.
bool SendAll(Connection& connection, int socket, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const int result = connection.Write(text.data() + done, static_cast<unsigned>(text.size() - done));
        if (result == LINK_FAILED) {
            return false;
        }
        if (result > 0) {
            done += static_cast<std::size_t>(result);
        } else {
            Await(socket, result);
        }
    }
    return true;
}

// That many bytes, or fewer if the connection ends.
std::string ReceiveAll(Connection& connection, int socket, std::size_t size) {
    std::string text;
    std::array<char, 50000> buffer;
    int result = LINK_WANTS_READ;
    while (text.size() < size && (result > 0 || result == LINK_WANTS_READ)) {
        result = connection.Read(buffer.data(), buffer.size());
        if (result > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(result));
        } else if (result == LINK_WANTS_READ) {
            Await(socket, result);
        }
    }
    return text;
}

struct ConnectionTest : testing::Test {
    void SetUp() override {
        registry.Begin(1, LINK_CHANNEL_PREFER, ring);
        ASSERT_TRUE(keys);
        ASSERT_NE(context, nullptr);
    }

    std::unique_ptr<Connection> Open(bool accepts, int socket, const ConnectionKey& key,
                                     std::uint64_t recordsPerKey = Connection::RECORDS_PER_KEY) {
        LinkRequester requester = {};
        std::strcpy(requester.identity, "lamp");
        return std::make_unique<Connection>(
            registry, Connection::Setup{context.get(), key, *registry.PeerOf(1, requester), accepts, socket,
                                        recordsPerKey});
    }
    // Both ends in turn, until neither has anything left to do.
    static std::pair<int, int> ShakeHands(Connection& one, Connection& other) {
        int first = 0;
        int second = 0;
        for (int round = 0; round < 10; ++round) {
            first = one.Handshake();
            second = other.Handshake();
        }
        return {first, second};
    }
    void Establish() {
        client = Open(false, sockets.client.Get(), keys->toDevice);
        device = Open(true, sockets.device.Get(), keys->toDevice);
        ASSERT_EQ(ShakeHands(*client, *device), std::make_pair(1, 1));
    }
    int ReadAtDevice(unsigned size = 60000) {
        received.resize(size);
        const int result = device->Read(received.data(), size);
        received.resize(result > 0 ? static_cast<unsigned>(result) : 0);
        return result;
    }

    const KeyRing ring{{{"lamp", "key of the lamp", {}}}};
    SystemRandom random;
    const Offer clientOffer = MakeOffer(random);
    const Offer deviceOffer = MakeOffer(random);
    const std::optional<ChannelKeys> keys = DeriveKeys(clientOffer, deviceOffer);
    const TlsContext context = MakeTlsContext();
    PeerRegistry registry;
    SocketEnds sockets;
    std::unique_ptr<Connection> client;
    std::unique_ptr<Connection> device;
    std::string received;
};

// OpenSSL itself as the other end, with rules that a test changes.
struct RawPeer {
    RawPeer(const ConnectionKey& ownKey, bool accepts, int descriptor)
        : key(ownKey), context(SSL_CTX_new(TLS_method())), socket(descriptor), isServer(accepts) {
        static constexpr unsigned char PROTOCOL[] = "\x08lumora/1";
        SSL_CTX_set_alpn_protos(context.get(), PROTOCOL, sizeof PROTOCOL - 1);
    }
    // Steps that the test has not changed anything after.
    void Begin() {
        tls.reset(SSL_new(context.get()));
        SSL_set_fd(tls.get(), socket);
        SSL_set_app_data(tls.get(), this);
        SSL_set_psk_use_session_callback(tls.get(), Use);
        SSL_set_psk_find_session_callback(tls.get(), Find);
        SSL_set_msg_callback(tls.get(), OnMessage);
        SSL_set_msg_callback_arg(tls.get(), this);
        isServer ? SSL_set_accept_state(tls.get()) : SSL_set_connect_state(tls.get());
    }
    // What the other end's handshake comes to.
    int ShakeHands(Connection& other) {
        int result = 0;
        for (int round = 0; round < 10; ++round) {
            SSL_do_handshake(tls.get());
            result = other.Handshake();
        }
        ERR_clear_error();
        return result;
    }
    bool IsDone() const { return SSL_is_init_finished(tls.get()) == 1; }
    std::string Read() const {
        std::array<char, 20000> buffer;
        std::size_t count = 0;
        return SSL_read_ex(tls.get(), buffer.data(), buffer.size(), &count) == 1
                   ? std::string(buffer.data(), count)
                   : "";
    }

    TlsSession Session() const {
        static constexpr unsigned char SUITE[] = {0x13, 0x01};
        TlsSession session(SSL_SESSION_new());
        SSL_SESSION_set1_master_key(session.get(), key.secret.Data(), key.secret.Size());
        SSL_SESSION_set_cipher(session.get(), SSL_CIPHER_find(tls.get(), SUITE));
        SSL_SESSION_set_protocol_version(session.get(), TLS1_3_VERSION);
        return session;
    }
    static int Use(SSL* tls, const EVP_MD*, const unsigned char** name, std::size_t* length,
                   SSL_SESSION** session) {
        const auto* own = static_cast<const RawPeer*>(SSL_get_app_data(tls));
        *session = own->Session().release();
        *name = own->key.name.data();
        *length = own->key.name.size();
        return 1;
    }
    static int Find(SSL* tls, const unsigned char*, std::size_t, SSL_SESSION** session) {
        const auto* own = static_cast<const RawPeer*>(SSL_get_app_data(tls));
        *session = own->ignoresKey ? nullptr : own->Session().release();
        return 1;
    }
    static void OnMessage(int wrote, int, int type, const void* bytes, std::size_t size, SSL*, void* own) {
        if (wrote == 0 && type == SSL3_RT_HANDSHAKE && size > 0) {
            static_cast<RawPeer*>(own)->messages.push_back(*static_cast<const unsigned char*>(bytes));
        }
    }

    ConnectionKey key;
    TlsContext context;
    int socket;
    bool isServer;
    bool ignoresKey = false;
    Tls tls;
    std::vector<int> messages;  // types of what came
};

TEST_F(ConnectionTest, BytesPassInBothDirections) {
    Establish();
    EXPECT_EQ(client->Write("to the device", 13), 13);
    EXPECT_EQ(ReadAtDevice(), 13);
    EXPECT_EQ(received, "to the device");
    EXPECT_EQ(ReadAtDevice(), LINK_WANTS_READ);
    EXPECT_EQ(device->Write("back", 4), 4);
    std::array<char, 20> buffer{};
    EXPECT_EQ(client->Read(buffer.data(), buffer.size()), 4);
    EXPECT_STREQ(buffer.data(), "back");
}

TEST_F(ConnectionTest, MegabytesPassThroughSmallSocketBuffers) {
    sockets.Shrink();
    Establish();
    const std::string sent = Pattern(5 << 20);
    std::thread sender([&] { EXPECT_TRUE(SendAll(*client, sockets.client.Get(), sent)); });
    EXPECT_TRUE(ReceiveAll(*device, sockets.device.Get(), sent.size()) == sent);
    sender.join();
    client->Shutdown();
    EXPECT_EQ(ReadAtDevice(), 0);
}

TEST_F(ConnectionTest, BlockingSocketsDoAsWell) {
    sockets = SocketEnds(0);
    const std::string sent = Pattern(3 << 20);
    client = Open(false, sockets.client.Get(), keys->toDevice);
    device = Open(true, sockets.device.Get(), keys->toDevice);
    std::thread sender([&] {
        int result = 0;
        while ((result = client->Handshake()) == LINK_WANTS_READ) {
        }
        EXPECT_EQ(result, 1);
        EXPECT_EQ(client->Write(sent.data(), static_cast<unsigned>(sent.size())), sent.size());
    });
    while (device->Handshake() == LINK_WANTS_READ) {
    }
    EXPECT_TRUE(ReceiveAll(*device, sockets.device.Get(), sent.size()) == sent);
    sender.join();
    client->Shutdown();
    EXPECT_EQ(ReadAtDevice(), 0);
}

TEST_F(ConnectionTest, NothingIsReadOrWrittenBeforeTheHandshake) {
    client = Open(false, sockets.client.Get(), keys->toDevice);
    device = Open(true, sockets.device.Get(), keys->toDevice);
    EXPECT_EQ(client->Write("early", 5), LINK_FAILED);
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    EXPECT_EQ(ShakeHands(*client, *device), std::make_pair(1, 1));
}

TEST_F(ConnectionTest, AnotherKeyFailsAtBothEnds) {
    const auto others = DeriveKeys(clientOffer, MakeOffer(random));
    ConnectionKey sameName = others->toDevice;
    sameName.name = keys->toDevice.name;
    for (const ConnectionKey& other : {others->toDevice, sameName, keys->toClient}) {
        sockets = SocketEnds();
        client = Open(false, sockets.client.Get(), other);
        device = Open(true, sockets.device.Get(), keys->toDevice);
        EXPECT_EQ(ShakeHands(*client, *device), std::make_pair(int{LINK_FAILED}, int{LINK_FAILED}));
        EXPECT_FALSE(registry.EstablishedPeer(true));
    }
}

TEST_F(ConnectionTest, ARecordedHandshakeIsOfNoUse) {
    client = Open(false, sockets.client.Get(), keys->toDevice);
    EXPECT_EQ(client->Handshake(), LINK_WANTS_READ);
    std::string recorded(5000, '\0');
    recorded.resize(
        static_cast<std::size_t>(recv(sockets.device.Get(), recorded.data(), recorded.size(), 0)));
    const SocketEnds later;
    device = Open(true, later.device.Get(), keys->toDevice);
    ASSERT_EQ(send(later.client.Get(), recorded.data(), recorded.size(), 0), recorded.size());
    EXPECT_EQ(device->Handshake(), LINK_WANTS_READ);  // it answers, and waits for a proof that it knows
    ASSERT_EQ(send(later.client.Get(), recorded.data(), recorded.size(), 0), recorded.size());
    EXPECT_EQ(device->Handshake(), LINK_FAILED);
}

TEST_F(ConnectionTest, GarbageEndsAHandshake) {
    const std::string garbage = Pattern(20000);
    for (const std::string& bytes :
         {garbage, std::string("GET / HTTP/1.1\r\n\r\n"), std::string(100, '\0')}) {
        for (const bool accepts : {true, false}) {
            const SocketEnds ends;
            const auto own = Open(accepts, ends.device.Get(), keys->toDevice);
            own->Handshake();
            ASSERT_EQ(send(ends.client.Get(), bytes.data(), bytes.size(), 0), bytes.size());
            int result = own->Handshake();
            EXPECT_EQ(result, LINK_FAILED) << bytes.substr(0, 3);
        }
    }
}

TEST_F(ConnectionTest, SilenceIsWaitedForAndAnEndIsNot) {
    device = Open(true, sockets.device.Get(), keys->toDevice);
    EXPECT_EQ(device->Handshake(), LINK_WANTS_READ);
    EXPECT_EQ(device->Handshake(), LINK_WANTS_READ);
    sockets.client = lumora::UniqueFd();
    EXPECT_EQ(device->Handshake(), LINK_FAILED);
}

TEST_F(ConnectionTest, AnEndWithoutANoticeIsAFailure) {
    Establish();
    EXPECT_EQ(client->Write("cut", 3), 3);
    client.reset();
    sockets.client = lumora::UniqueFd();
    EXPECT_EQ(ReadAtDevice(), 3);
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
}

TEST_F(ConnectionTest, AnEndWithANoticeIsAnEnd) {
    Establish();
    EXPECT_EQ(client->Write("whole", 5), 5);
    client->Shutdown();
    sockets.client = lumora::UniqueFd();
    EXPECT_EQ(ReadAtDevice(), 5);
    EXPECT_EQ(device->HasPending(), true);
    EXPECT_EQ(ReadAtDevice(), 0);
}

TEST_F(ConnectionTest, AChangedByteIsAFailure) {
    Establish();
    EXPECT_EQ(client->Write("to be changed", 13), 13);
    const SocketEnds relay;
    std::string bytes(1000, '\0');
    bytes.resize(static_cast<std::size_t>(recv(sockets.device.Get(), bytes.data(), bytes.size(), 0)));
    bytes[10] = static_cast<char>(bytes[10] ^ 1);
    ASSERT_EQ(send(sockets.client.Get(), bytes.data(), bytes.size(), 0), bytes.size());
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    EXPECT_EQ(device->Write("x", 1), LINK_FAILED);
}

TEST_F(ConnectionTest, NoPlainTextIsOnTheWire) {
    Establish();
    const std::string secret = "a sentence that must not be read";
    EXPECT_EQ(client->Write(secret.data(), static_cast<unsigned>(secret.size())), secret.size());
    std::string bytes(1000, '\0');
    bytes.resize(static_cast<std::size_t>(recv(sockets.device.Get(), bytes.data(), bytes.size(), 0)));
    EXPECT_GT(bytes.size(), secret.size());
    EXPECT_THAT(bytes, Not(testing::HasSubstr("sentence")));
}

TEST_F(ConnectionTest, PendingMeansWhatReadReturnsWithoutTheSocket) {
    Establish();
    EXPECT_FALSE(device->HasPending());
    const std::string sent = Pattern(40000);
    ASSERT_TRUE(SendAll(*client, sockets.client.Get(), sent));
    EXPECT_FALSE(device->HasPending());  // nothing was taken out of the socket
    EXPECT_EQ(ReadAtDevice(10), 10);
    EXPECT_TRUE(device->HasPending());
    EXPECT_EQ(ReadAtDevice(), 39990);
    EXPECT_FALSE(device->HasPending());
}

TEST_F(ConnectionTest, TheBeginningOfARecordIsNotPending) {
    Establish();
    EXPECT_EQ(client->Write("first", 5), 5);
    EXPECT_EQ(client->Write("second", 6), 6);
    std::string bytes(1000, '\0');
    bytes.resize(static_cast<std::size_t>(recv(sockets.device.Get(), bytes.data(), bytes.size(), 0)));
    ASSERT_EQ(send(sockets.client.Get(), bytes.data(), bytes.size() - 1, 0), bytes.size() - 1);
    EXPECT_EQ(ReadAtDevice(5), 5);
    EXPECT_FALSE(device->HasPending());
    EXPECT_EQ(ReadAtDevice(), LINK_WANTS_READ);
    ASSERT_EQ(send(sockets.client.Get(), &bytes.back(), 1, 0), 1);
    EXPECT_EQ(ReadAtDevice(), 6);
    EXPECT_EQ(received, "second");
}

TEST_F(ConnectionTest, AWriteGoesOnWithBytesThatHaveMoved) {
    sockets.Shrink();
    Establish();
    const std::string sent = Pattern(1 << 20);
    std::string got;
    for (std::size_t done = 0; done < sent.size();) {
        const std::string copy = sent.substr(done);
        const int result = client->Write(copy.data(), static_cast<unsigned>(copy.size()));
        ASSERT_NE(result, LINK_FAILED);
        done += result > 0 ? static_cast<std::size_t>(result) : 0;
        while (ReadAtDevice() > 0) {
            got += received;
        }
    }
    EXPECT_TRUE(got == sent);
}

TEST_F(ConnectionTest, AFullSocketBlocksNothing) {
    sockets.Shrink();
    Establish();
    const std::string sent = Pattern(1 << 20);
    int result = 0;
    std::size_t done = 0;
    while ((result = client->Write(sent.data() + done, 1000)) > 0) {
        done += static_cast<std::size_t>(result);
    }
    EXPECT_EQ(result, LINK_WANTS_WRITE);
    client->Shutdown();  // is lost, and returns
}

TEST_F(ConnectionTest, APeerThatIsGoneIsAFailureAndNoSignal) {
    Establish();
    device.reset();
    sockets.device = lumora::UniqueFd();
    EXPECT_EQ(client->Write("lost", 4), LINK_FAILED);
    client->Shutdown();
}

TEST_F(ConnectionTest, ErrnoAndTheQueueOfErrorsAreTheCallers) {
    errno = ENOTTY;
    ERR_raise(ERR_LIB_USER, 17);
    Establish();
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 18);
    EXPECT_EQ(ReadAtDevice(), LINK_WANTS_READ);
    sockets.client = lumora::UniqueFd();
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    client.reset();
    device.reset();
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 18);
    EXPECT_EQ(ERR_get_error(), 0);
}

TEST_F(ConnectionTest, TheKeyIsRenewedAfterSoManyRecords) {
    device = Open(true, sockets.device.Get(), keys->toDevice, 3);
    RawPeer peer(keys->toDevice, false, sockets.client.Get());
    peer.Begin();
    ASSERT_EQ(peer.ShakeHands(*device), 1);
    for (int number = 0; number < 10; ++number) {
        ASSERT_EQ(device->Write(&"0123456789"[number], 1), 1);
        EXPECT_EQ(peer.Read(), std::string(1, "0123456789"[number]));
    }
    EXPECT_EQ(std::count(peer.messages.begin(), peer.messages.end(), KEY_UPDATE), 3);
}

TEST_F(ConnectionTest, LargeBlocksPassWhileTheKeyIsRenewed) {
    client = Open(false, sockets.client.Get(), keys->toDevice, 5);
    device = Open(true, sockets.device.Get(), keys->toDevice, 5);
    ASSERT_EQ(ShakeHands(*client, *device), std::make_pair(1, 1));
    const std::string sent = Pattern(2 << 20);
    std::thread sender([&] { EXPECT_TRUE(SendAll(*client, sockets.client.Get(), sent)); });
    EXPECT_TRUE(ReceiveAll(*device, sockets.device.Get(), sent.size()) == sent);
    sender.join();
    client->Shutdown();
    EXPECT_EQ(ReadAtDevice(), 0);
}

TEST_F(ConnectionTest, APeerThatKeepsToTheRulesIsTakenAndGetsNoTicket) {
    for (const bool peerAccepts : {false, true}) {
        const SocketEnds ends;
        const auto own = Open(!peerAccepts, ends.device.Get(), keys->toDevice);
        RawPeer peer(keys->toDevice, peerAccepts, ends.client.Get());
        SSL_CTX_set_alpn_select_cb(
            peer.context.get(),
            [](SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char* offered,
               unsigned, void*) {
                *chosen = offered + 1;
                *length = *offered;
                return SSL_TLSEXT_ERR_OK;
            },
            nullptr);
        SSL_CTX_set_num_tickets(peer.context.get(), 0);
        peer.Begin();
        EXPECT_EQ(peer.ShakeHands(*own), 1);
        EXPECT_EQ(peer.Read(), "");
        EXPECT_THAT(peer.messages, Not(Contains(NEW_SESSION_TICKET)));
    }
}

TEST_F(ConnectionTest, AnEarlierVersionOfTlsIsRefused) {
    device = Open(true, sockets.device.Get(), keys->toDevice);
    RawPeer peer(keys->toDevice, false, sockets.client.Get());
    SSL_CTX_set_max_proto_version(peer.context.get(), TLS1_2_VERSION);
    SSL_CTX_set_psk_client_callback(
        peer.context.get(), [](SSL*, const char*, char* identity, unsigned, unsigned char* key, unsigned) {
            std::strcpy(identity, "lamp");
            *key = 1;
            return 1U;
        });
    peer.Begin();
    EXPECT_EQ(peer.ShakeHands(*device), LINK_FAILED);
}

TEST_F(ConnectionTest, AHandshakeWithoutAnEphemeralExchangeIsRefused) {
    device = Open(true, sockets.device.Get(), keys->toDevice);
    RawPeer peer(keys->toDevice, false, sockets.client.Get());
    // Offers to go without, and has no group in common with us that would do otherwise.
    SSL_CTX_set_options(peer.context.get(), SSL_OP_ALLOW_NO_DHE_KEX);
    ASSERT_EQ(SSL_CTX_set1_groups_list(peer.context.get(), "P-521"), 1);
    peer.Begin();
    EXPECT_EQ(peer.ShakeHands(*device), LINK_FAILED);
}

TEST_F(ConnectionTest, ACertificateDoesNotReplaceTheKey) {
    client = Open(false, sockets.client.Get(), keys->toDevice);
    RawPeer peer(keys->toDevice, true, sockets.device.Get());
    peer.ignoresKey = true;
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), X509_free);
    X509_set_version(certificate.get(), X509_VERSION_3);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
    ASSERT_EQ(SSL_CTX_use_certificate(peer.context.get(), certificate.get()), 1);
    ASSERT_EQ(SSL_CTX_use_PrivateKey(peer.context.get(), key.get()), 1);
    peer.Begin();
    EXPECT_EQ(peer.ShakeHands(*client), LINK_FAILED);
}

TEST_F(ConnectionTest, AnotherProtocolOrNoneIsRefused) {
    static constexpr unsigned char OTHER[] = "\x08lumora/2";
    for (const unsigned length : {9U, 0U}) {
        const SocketEnds ends;
        const auto own = Open(true, ends.device.Get(), keys->toDevice);
        RawPeer peer(keys->toDevice, false, ends.client.Get());
        SSL_CTX_set_alpn_protos(peer.context.get(), OTHER, length);
        peer.Begin();
        EXPECT_EQ(peer.ShakeHands(*own), LINK_FAILED) << length;
    }
}

TEST_F(ConnectionTest, AWithdrawnKeyEndsTheConnection) {
    Establish();
    ASSERT_TRUE(registry.EstablishedPeer(true));
    registry.UseKeys(1, ring, KeyRing(std::vector<Psk>{{"door", "another", {}}}));
    EXPECT_EQ(client->Write("x", 1), LINK_FAILED);
    EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    EXPECT_TRUE(device->HasPending());
    EXPECT_FALSE(registry.EstablishedPeer(true));
}

TEST_F(ConnectionTest, AWithdrawnKeyWakesAThreadThatWaits) {
    sockets = SocketEnds(0);
    client = Open(false, sockets.client.Get(), keys->toDevice);
    device = Open(true, sockets.device.Get(), keys->toDevice);
    std::thread reader([&] {
        while (device->Handshake() == LINK_WANTS_READ) {
        }
        EXPECT_EQ(ReadAtDevice(), LINK_FAILED);
    });
    while (client->Handshake() == LINK_WANTS_READ) {
    }
    while (!registry.EstablishedPeer(true)) {
        std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it wait
    registry.UseKeys(1, ring, KeyRing(std::vector<Psk>{{"lamp", "another key", {}}}));
    reader.join();
}

}  // namespace

}  // namespace lumora_link::test
