#include "transport/reassembly.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>

#include "protocol/data_frame.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"
#include "transport/frame_buffer.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Bounded;
using lumora_test::CapturedLog;
using lumora_test::FailBoundedCall;
using testing::ElementsAre;

TEST(ReleaseBufferTest, FreesAnArrayAndClearsThePointer) {
    char* buffer = new char[3];
    ReleaseBuffer(&buffer);
    EXPECT_EQ(nullptr, buffer);
}

TEST(ReleaseBufferTest, DoesNothingForNullPointers) {
    char* buffer = nullptr;
    ReleaseBuffer(&buffer);
    ReleaseBuffer(nullptr);
    EXPECT_EQ(nullptr, buffer);
}

TEST(FrameBufferTest, HoldsNothingUntilAllocatedAndAfterRelease) {
    FrameBuffer buffer;
    EXPECT_EQ(nullptr, buffer.Bytes());
    ASSERT_TRUE(buffer.Allocate(10));
    std::fill_n(buffer.Bytes(), 10, 'x');
    ASSERT_TRUE(buffer.Allocate(20));
    std::fill_n(buffer.Bytes(), 20, 'y');
    buffer.Release();
    EXPECT_EQ(nullptr, buffer.Bytes());
}

TEST(FrameBufferTest, PagesBeginWithAPageAndEndBehindTheSize) {
    FrameBuffer buffer;
    for (const unsigned int size : {1U, 4096U, 1048643U}) {
        ASSERT_TRUE(buffer.AllocatePages(size));
        EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(buffer.Bytes()) % 4096);
        buffer.Bytes()[0] = 'a';
        buffer.Bytes()[size - 1] = 'z';  // within the array, or a sanitizer ends the test
    }
    buffer.Release();
    EXPECT_EQ(nullptr, buffer.Bytes());
}

TEST(FrameBufferTest, SaysWhenMemoryRanOut) {
    FrameBuffer buffer;
    ASSERT_TRUE(buffer.Allocate(10));
    lumora_test::FailAllocation();
    EXPECT_FALSE(buffer.Allocate(10));
    EXPECT_EQ(nullptr, buffer.Bytes());
    lumora_test::ResetAllocationFaults();
}

class ReassemblyTest : public testing::Test {
protected:
    ReassemblyTest() { EXPECT_TRUE(mHeld.Allocate()); }
    ~ReassemblyTest() override {
        lumora_test::ResetBoundedCalls();
        lumora_test::ResetAllocationFaults();
    }

    int Append(const std::string& bytes) {
        return mHeld.Append(bytes.data(), static_cast<unsigned int>(bytes.size()));
    }
    std::string Held() { return std::string(mHeld.Data(), mHeld.Length()); }
    bool SpareIsZero() {
        return std::all_of(mHeld.End(), mHeld.End() + FRAME_SPARE_LENGTH, [](char c) { return c == 0; });
    }
    int Drop(unsigned int count) {
        mHeld.Consume(count);
        return mHeld.CopyLeftDataToBuffer(count);
    }

    CapturedLog mLog;
    Reassembly mHeld{100};
};

TEST_F(ReassemblyTest, KeepsWhatIsAppendedInOrder) {
    EXPECT_EQ(0, Append("abc"));
    EXPECT_EQ(0, Append(""));
    EXPECT_EQ(0, Append("def"));
    EXPECT_EQ("abcdef", Held());
    EXPECT_EQ(94U, mHeld.Room());
}

TEST_F(ReassemblyTest, FillsToItsCapacityAndNotFurther) {
    EXPECT_EQ(0, Append(std::string(99, 'x')));
    EXPECT_EQ(0, Append("y"));
    EXPECT_EQ(-1, Append("z"));
    EXPECT_EQ(std::string(99, 'x') + "y", Held());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
}

TEST_F(ReassemblyTest, RefusedBytesLeaveTheHeldOnesAlone) {
    Append("abc");
    EXPECT_EQ(-1, Append(std::string(98, 'x')));
    EXPECT_EQ("abc", Held());
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, Append("d"));
    EXPECT_EQ("abc", Held());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n", "memcpy_s failed!\n"));
}

TEST_F(ReassemblyTest, TakesBytesThatWereReadBehindTheHeldOnes) {
    Append("abc");
    std::copy_n("def", 3, mHeld.End());
    EXPECT_EQ(0, mHeld.Append(mHeld.End(), 3));
    EXPECT_EQ("abcdef", Held());
}

TEST_F(ReassemblyTest, RefusesBytesThatWereReadBehindTheHeldOnesAndBeyondTheCapacity) {
    Append("abc");
    EXPECT_EQ(-1, mHeld.Append(mHeld.End(), 98));
    EXPECT_EQ("abc", Held());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
}

TEST_F(ReassemblyTest, TakesTheRestOfBytesThatWereReadBehindTheHeldOnes) {
    std::copy_n("abcdef", 6, mHeld.End());
    EXPECT_EQ(0, mHeld.Append(mHeld.End() + 2, 4));
    EXPECT_EQ("cdef", Held());
}

TEST_F(ReassemblyTest, SpareBytesBehindTheDataAreAlwaysZero) {
    for (const unsigned int length : {1U, 30U, 60U, 9U}) {
        Append(std::string(length, 'x'));
        EXPECT_TRUE(SpareIsZero()) << mHeld.Length();
    }
    EXPECT_EQ(0U, mHeld.Room());
    Drop(40);
    EXPECT_TRUE(SpareIsZero());
}

TEST_F(ReassemblyTest, DroppingMovesTheRestToTheFront) {
    Append("abcdefgh");
    EXPECT_EQ(0, Drop(3));
    EXPECT_EQ("defgh", Held());
    EXPECT_EQ(0, Drop(3));
    EXPECT_EQ("gh", Held());
    EXPECT_EQ(0, Drop(2));
    EXPECT_EQ("", Held());
}

TEST_F(ReassemblyTest, DroppingNothingCopiesNothing) {
    Append("abc");
    lumora_test::FailAllocation();
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(0, Drop(0));
    EXPECT_TRUE(lumora_test::AllocationFailurePending());
    EXPECT_EQ("abc", Held());
}

TEST_F(ReassemblyTest, OverlappingRestNeedsMemory) {
    Append("abcdefgh");
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, Drop(3));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("malloc failed!\n"));
    EXPECT_EQ("defgh", Held()) << "without memory the rest is moved all the same";
    EXPECT_TRUE(SpareIsZero());
}

TEST_F(ReassemblyTest, RestThatCannotOverlapNeedsNone) {
    Append("abcdefgh");
    lumora_test::FailAllocation();
    EXPECT_EQ(0, Drop(6));
    EXPECT_TRUE(lumora_test::AllocationFailurePending());
    EXPECT_EQ("gh", Held());
}

TEST_F(ReassemblyTest, EveryFailedCopyIsReported) {
    for (const int failing : {1, 2}) {
        mLog.Clear();
        Append("abcdefgh");
        FailBoundedCall(Bounded::MEMCPY, failing);
        EXPECT_EQ(-1, Drop(1));
        EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
        EXPECT_EQ("bcdefgh", Held());
        mHeld.Allocate();
    }
    mLog.Clear();
    Append("abcdefgh");
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, Drop(7));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("memcpy_s failed!\n"));
}

TEST_F(ReassemblyTest, StartsEmptyWhenAllocatedAgain) {
    Append("abc");
    ASSERT_TRUE(mHeld.Allocate());
    EXPECT_EQ(0U, mHeld.Length());
    lumora_test::FailAllocation();
    EXPECT_FALSE(mHeld.Allocate());
}

}  // namespace
}  // namespace lumoraAiModule
