#include "base/never_destroyed.h"

#include <gmock/gmock.h>

#include <string>

#include "base/make_shared.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

struct Counted {
    explicit Counted(int& destroyed) : mDestroyed(destroyed) {}
    ~Counted() { ++mDestroyed; }
    int& mDestroyed;
};

TEST(NeverDestroyedTest, ObjectIsMadeButNotDestroyed) {
    int destroyed = 0;
    { NeverDestroyed<Counted> object(destroyed); }
    EXPECT_EQ(0, destroyed);
}

TEST(NeverDestroyedTest, ObjectIsReachedLikeThroughAPointer) {
    NeverDestroyed<std::string> text("0");
    EXPECT_EQ("0", *text);
    EXPECT_EQ(1U, text->size());
}

TEST(MakeSharedTest, LackOfMemoryGivesNull) {
    lumora_test::FailAllocation();
    EXPECT_EQ(nullptr, MakeSharedOrNull<int>(7));
    const std::shared_ptr<int> seven = MakeSharedOrNull<int>(7);
    ASSERT_NE(nullptr, seven);
    EXPECT_EQ(7, *seven);
}

}  // namespace
}  // namespace lumora
