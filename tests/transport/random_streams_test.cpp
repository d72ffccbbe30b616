// Streams cut anywhere, against an independent model.
#include <gmock/gmock.h>

#include <memory>
#include <random>

#include "tests/support/captured_log.h"
#include "tests/transport/open_transport.h"
#include "tests/transport/stream_models.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Bytes;
using lumora_test::ReceivedBytes;

class Dice {
public:
    explicit Dice(unsigned int seed) : mEngine(seed) {}
    unsigned int From(unsigned int low, unsigned int high) {
        return std::uniform_int_distribution<unsigned int>(low, high)(mEngine);
    }
    bool OneIn(unsigned int n) { return From(1, n) == 1; }
    Bytes Text(unsigned int length) {
        Bytes text;
        for (unsigned int i = 0; i < length; ++i) {
            text += static_cast<char>(From(0, 255));
        }
        return text;
    }

private:
    std::mt19937 mEngine;
};

struct ClientSide {
    static constexpr char NAME[] = "Client";
    using Transport = lumora_test::OpenClient;
    using Model = lumora_test::ClientStreamModel;

    ClientSide() : mTransport(std::make_shared<Transport>(mCallback, 1U)) {}
    static Bytes Frame(Dice& dice) {
        return lumora_test::ServerFrameBytes(dice.Text(dice.From(1, 20)), dice.Text(dice.From(1, 40)),
                                             dice.Text(dice.From(0, 200)));
    }
    lumora_test::Inbox& Delivered() { return mCallback.mFrames; }

    lumora_test::RecordingCallback mCallback;
    std::shared_ptr<Transport> mTransport;
};

struct ServerSide {
    static constexpr char NAME[] = "Server";
    using Transport = lumora_test::OpenServer;
    using Model = lumora_test::ServerStreamModel;

    ServerSide() : mTransport(std::make_shared<Transport>()) {
        mTransport->SetObserver(lumora_test::RecordingObserver::Functions());
    }
    static Bytes Frame(Dice& dice) {
        Bytes frame =
            lumora_test::ClientFrame(static_cast<int>(dice.From(0, 255)), dice.Text(dice.From(0, 200)));
        frame[0] = static_cast<char>(dice.From(0, 6));
        return frame;
    }
    lumora_test::Inbox& Delivered() { return mObserver.mBlocks; }

    lumora_test::RecordingObserver mObserver;
    std::shared_ptr<Transport> mTransport;
};

template <typename Side>
class RandomStreamsTest : public testing::Test {
protected:
    RandomStreamsTest() { mSide.mTransport->Pending() = false; }
    ~RandomStreamsTest() override { mSide.mTransport->Pending() = false; }

    // Feeds transport and model with the same pieces and compares them after each.
    void Play(Dice& dice, const Bytes& stream) {
        ASSERT_TRUE(mSide.mTransport->AllocateReassembly());
        mSide.mTransport->Pending() = false;
        typename Side::Model model;
        for (size_t fed = 0; fed < stream.size();) {
            const Bytes piece = stream.substr(fed, dice.From(1, dice.OneIn(3) ? 12 : 700));
            fed += piece.size();
            ReceivedBytes received(piece);
            const int ret = mSide.mTransport->ParseAndSendData(received.Data(), received.Length());
            ASSERT_EQ(model.Feed(piece) ? 0 : -1, ret);
            ASSERT_EQ(model.Delivered().size(), mSide.Delivered().Count());
            ASSERT_EQ(model.Held(), mSide.mTransport->Buffered());
        }
        ASSERT_EQ(model.Delivered(), mSide.Delivered().Take());
        mDelivered = model.Delivered().size();
    }

    Side mSide;
    size_t mDelivered = 0;  // of the last stream
};

using Sides = testing::Types<ClientSide, ServerSide>;
struct SideNames {
    template <typename Side>
    static std::string GetName(int) {
        return Side::NAME;
    }
};
TYPED_TEST_SUITE(RandomStreamsTest, Sides, SideNames);

TYPED_TEST(RandomStreamsTest, ValidFramesArriveHoweverTheyAreCut) {
    for (unsigned int seed = 1; seed <= 100; ++seed) {
        Dice dice(seed);
        Bytes stream;
        for (unsigned int i = 0; i < 12; ++i) {
            stream += TypeParam::Frame(dice);
        }
        SCOPED_TRACE(seed);
        ASSERT_NO_FATAL_FAILURE(this->Play(dice, stream));
        // The last ones may have to wait for more: an empty payload, or a head shorter than the one before.
        EXPECT_LE(9U, this->mDelivered);
    }
}

TYPED_TEST(RandomStreamsTest, DamagedFramesAreReadAsTheModelReadsThem) {
    for (unsigned int seed = 1; seed <= 300; ++seed) {
        Dice dice(seed);
        Bytes stream;
        for (unsigned int i = 0; i < 8; ++i) {
            Bytes frame = TypeParam::Frame(dice);
            if (dice.OneIn(4)) {
                frame[dice.From(0, 5)] = static_cast<char>(dice.From(0, 255));
            }
            stream += frame;
        }
        SCOPED_TRACE(seed);
        ASSERT_NO_FATAL_FAILURE(this->Play(dice, stream));
    }
}

TYPED_TEST(RandomStreamsTest, NoiseIsReadAsTheModelReadsIt) {
    for (unsigned int seed = 1; seed <= 100; ++seed) {
        Dice dice(seed);
        SCOPED_TRACE(seed);
        ASSERT_NO_FATAL_FAILURE(this->Play(dice, dice.Text(2000)));
    }
}

TYPED_TEST(RandomStreamsTest, SmallNumbersAreReadAsTheModelReadsThem) {
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        Dice dice(seed);
        Bytes stream;
        for (unsigned int i = 0; i < 600; ++i) {
            stream += static_cast<char>(dice.OneIn(3) ? dice.From(0, 12) : 0);
        }
        SCOPED_TRACE(seed);
        ASSERT_NO_FATAL_FAILURE(this->Play(dice, stream));
    }
}

}  // namespace
}  // namespace lumoraAiModule
