// Which of the hosts that connect to a data port is taken.
#include "transport/expected_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace lumoraAiModule {
namespace {

using std::chrono::milliseconds;

constexpr char DEVICE[] = "192.0.2.7";
constexpr char STRANGER[] = "192.0.2.99";
constexpr char OTHER_STRANGER[] = "192.0.2.100";

in_addr Address(const char* text) {
    in_addr address = {};
    EXPECT_EQ(1, inet_pton(AF_INET, text, &address));
    return address;
}

class ExpectedPeerTest : public testing::Test {
protected:
    struct Connection {
        Descriptor ours;
        Descriptor theirs;
        int number = 0;
    };
    static Connection NewConnection() {
        int ends[2] = {};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
        Connection connection = {Descriptor::Adopt(ends[0]), Descriptor::Adopt(ends[1]), ends[0]};
        return connection;
    }

    // The number of the connection that is taken, 0 for none.
    int Choose(Connection& connection, const char* from, milliseconds since) {
        mChosen = mPeer.Choose(std::move(connection.ours), Address(from), mBegin + since);
        return mChosen.Number();
    }
    int ChooseWithoutANewOne(milliseconds since) {
        mChosen = mPeer.Choose(Descriptor(), in_addr(), mBegin + since);
        return mChosen.Number();
    }
    void Expect(const char* address) {
        mPeer = ExpectedPeer(address);
        mPeer.Begin(mBegin);
    }

    const ExpectedPeer::Clock::time_point mBegin = ExpectedPeer::Clock::now();
    ExpectedPeer mPeer;
    Descriptor mChosen;
    Connection mFirst = NewConnection();
    Connection mSecond = NewConnection();
};

TEST_F(ExpectedPeerTest, ExpectedAddressIsTakenAtOnce) {
    Expect(DEVICE);
    EXPECT_EQ(mFirst.number, Choose(mFirst, DEVICE, milliseconds(0)));
}

TEST_F(ExpectedPeerTest, LoopbackIsTakenAtOnce) {
    Expect(DEVICE);
    EXPECT_EQ(mFirst.number, Choose(mFirst, "127.0.0.9", milliseconds(0)));
}

TEST_F(ExpectedPeerTest, AnyPeerIsTakenAtOnceIfNoAddressIsExpected) {
    Expect("any address");
    EXPECT_EQ(mFirst.number, Choose(mFirst, STRANGER, milliseconds(0)));
}

TEST_F(ExpectedPeerTest, StrangerWaitsAndTheExpectedPeerBehindItIsTaken) {
    Expect(DEVICE);
    EXPECT_EQ(0, Choose(mFirst, STRANGER, milliseconds(1)));
    EXPECT_FALSE(HasPeerLeft(mFirst.theirs)) << "it may be the peer's other address";
    EXPECT_EQ(mSecond.number, Choose(mSecond, DEVICE, milliseconds(1999)));
    EXPECT_TRUE(HasPeerLeft(mFirst.theirs));
}

TEST_F(ExpectedPeerTest, AnotherAddressIsTakenWhenTheExpectedOneStaysAway) {
    Expect(DEVICE);
    EXPECT_EQ(0, Choose(mFirst, STRANGER, milliseconds(1)));
    EXPECT_EQ(0, ChooseWithoutANewOne(milliseconds(1999)));
    EXPECT_EQ(mFirst.number, ChooseWithoutANewOne(milliseconds(2000)));
}

TEST_F(ExpectedPeerTest, AnotherAddressThatComesLateIsTakenAtOnce) {
    Expect(DEVICE);
    EXPECT_EQ(mFirst.number, Choose(mFirst, STRANGER, milliseconds(2000)));
}

TEST_F(ExpectedPeerTest, OnlyTheFirstStrangerIsHeld) {
    Expect(DEVICE);
    EXPECT_EQ(0, Choose(mFirst, STRANGER, milliseconds(1)));
    EXPECT_EQ(0, Choose(mSecond, OTHER_STRANGER, milliseconds(2)));
    EXPECT_TRUE(HasPeerLeft(mSecond.theirs));
    EXPECT_EQ(mFirst.number, ChooseWithoutANewOne(milliseconds(2000)));
}

TEST_F(ExpectedPeerTest, StrangerThatLeftMakesRoomForTheNext) {
    Expect(DEVICE);
    EXPECT_EQ(0, Choose(mFirst, STRANGER, milliseconds(1)));
    mFirst.theirs.Close();
    EXPECT_EQ(0, Choose(mSecond, OTHER_STRANGER, milliseconds(2)));
    EXPECT_EQ(mSecond.number, ChooseWithoutANewOne(milliseconds(2000)));
}

TEST_F(ExpectedPeerTest, NewWaitHoldsNothingOfTheLastOne) {
    Expect(DEVICE);
    EXPECT_EQ(0, Choose(mFirst, STRANGER, milliseconds(1)));
    mPeer.Begin(mBegin + milliseconds(1000));
    EXPECT_TRUE(HasPeerLeft(mFirst.theirs));
    EXPECT_EQ(0, ChooseWithoutANewOne(milliseconds(2999)));
}

}  // namespace
}  // namespace lumoraAiModule
