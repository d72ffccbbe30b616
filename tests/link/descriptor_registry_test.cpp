#include "link/descriptor_registry.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "link/device_descriptor.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakeDescriptor;
using lumora_test::SystemCall;
using testing::ElementsAre;
using testing::IsEmpty;

class DescriptorRegistryTest : public testing::Test {
protected:
    ~DescriptorRegistryTest() override {
        lumora_test::ResetBoundedCalls();
        lumora_test::ResetSystemFaults();
        lumora_test::ResetAllocationFaults();
        mRegistry->Clear();
    }

    std::shared_ptr<AppResource> Register(const std::shared_ptr<FakeDescriptor>& descriptor) {
        std::shared_ptr<LinkDeviceDescriptor> base = descriptor;
        return mRegistry->RegisterDeviceDescriptor(base);
    }
    bool Knows(const std::shared_ptr<AppResource>& record) {
        return mRegistry->Find(record.get()) != nullptr;
    }

    CapturedLog mLog;
    const std::shared_ptr<LinkDeviceDescriptorWrapper> mRegistry = LinkDeviceDescriptorWrapper::Get();
    const std::shared_ptr<FakeDescriptor> mA = std::make_shared<FakeDescriptor>("a");
    const std::shared_ptr<FakeDescriptor> mB = std::make_shared<FakeDescriptor>("b");
};

TEST_F(DescriptorRegistryTest, ThereIsOneRegistry) {
    EXPECT_EQ(mRegistry, LinkDeviceDescriptorWrapper::Get());
}

TEST_F(DescriptorRegistryTest, RegisteredDescriptorIsFoundByItsRecord) {
    const auto record = Register(mA);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(mA, mRegistry->Find(record.get()));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(DescriptorRegistryTest, RecordHasFiveHandlers) {
    const auto record = Register(mA);
    EXPECT_NE(nullptr, record->DoGET);
    EXPECT_NE(nullptr, record->DoPUT);
    EXPECT_NE(nullptr, record->DoPOST);
    EXPECT_NE(nullptr, record->DoDELETE);
    EXPECT_STREQ("a", record->DoGetDescriptor(record.get()));
}

TEST_F(DescriptorRegistryTest, UnknownRecordIsNotFound) {
    AppResource unknown = {};
    EXPECT_EQ(nullptr, mRegistry->Find(nullptr));
    EXPECT_EQ(nullptr, mRegistry->Find(&unknown));
}

TEST_F(DescriptorRegistryTest, SecondRegistrationWithdrawsTheFirst) {
    const auto first = Register(mA);
    const auto second = Register(mB);
    EXPECT_EQ(mB, mRegistry->Find(second.get()));
    EXPECT_FALSE(Knows(first));
    EXPECT_EQ(1, mA.use_count());  // let go by the registry
    EXPECT_EQ(1, first.use_count());
}

TEST_F(DescriptorRegistryTest, WithdrawnRecordAnswersNothing) {
    const auto first = Register(mA);
    const auto second = Register(mB);
    char buffer[16] = "value";
    const RemoteEndpoint requester = {};
    EXPECT_EQ(-1, first->DoGET(first.get(), &requester, "k", buffer, sizeof(buffer)));
    EXPECT_EQ(-1, first->DoPUT(first.get(), &requester, "k", "v", 1));
    EXPECT_EQ(-1, first->DoPOST(first.get(), &requester, "k", "v", 1));
    EXPECT_EQ(-1, first->DoDELETE(first.get(), &requester, "k", "v", 1));
    EXPECT_EQ(nullptr, first->DoGetDescriptor(first.get()));
    EXPECT_STREQ("value", buffer);
    EXPECT_THAT(mA->calls, IsEmpty());
    EXPECT_THAT(mB->calls, IsEmpty());
}

TEST_F(DescriptorRegistryTest, SameDescriptorMayRegisterAgain) {
    const auto first = Register(mA);
    const auto second = Register(mA);
    EXPECT_FALSE(Knows(first));
    EXPECT_EQ(mA, mRegistry->Find(second.get()));
}

TEST_F(DescriptorRegistryTest, AddressOfAHeldRecordIsNotGivenAgain) {
    const auto held = Register(mA);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE(held.get(), Register(mB).get());
    }
    EXPECT_FALSE(Knows(held));
}

TEST_F(DescriptorRegistryTest, ClearForgetsTheRegistration) {
    const auto record = Register(mA);
    mRegistry->Clear();
    EXPECT_FALSE(Knows(record));
    EXPECT_EQ(1, mA.use_count());
    EXPECT_EQ(1, record.use_count());
    mRegistry->Clear();
}

TEST_F(DescriptorRegistryTest, DestructorClears) {
    auto registry = std::make_shared<LinkDeviceDescriptorWrapper>();
    std::shared_ptr<LinkDeviceDescriptor> descriptor = mA;
    const auto record = registry->RegisterDeviceDescriptor(descriptor);
    registry.reset();
    EXPECT_EQ(1, record.use_count());
    EXPECT_EQ(2, mA.use_count());  // of this test only
}

TEST_F(DescriptorRegistryTest, FoundDescriptorOutlivesItsRegistration) {
    auto descriptor = std::make_shared<FakeDescriptor>("gone");
    const auto record = Register(descriptor);
    descriptor.reset();
    const std::shared_ptr<LinkDeviceDescriptor> found = mRegistry->Find(record.get());
    mRegistry->Clear();
    EXPECT_EQ("gone", found->GetDescriptor());
}

TEST_F(DescriptorRegistryTest, DescriptorMayUseTheRegistryWhileItDies) {
    struct Dying : FakeDescriptor {
        ~Dying() override { LinkDeviceDescriptorWrapper::Get()->Clear(); }
    };
    Register(std::make_shared<Dying>());
    EXPECT_NE(nullptr, Register(mA));
}

TEST_F(DescriptorRegistryTest, LackOfMemoryForTheRecordIsLogged) {
    const auto first = Register(mA);
    lumora_test::FailSystemCall(SystemCall::MALLOC, ENOMEM);
    EXPECT_EQ(nullptr, Register(mB));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("malloc Doorbell failure\n"));
    EXPECT_FALSE(Knows(first));  // withdrawn before
    EXPECT_EQ(1, mB.use_count());
}

TEST_F(DescriptorRegistryTest, LackOfMemoryBesideTheRecordIsTheSameFailure) {
    for (const int allocation : {1, 2}) {
        mLog.Clear();
        lumora_test::FailAllocation(allocation);
        const auto record = Register(mB);
        lumora_test::ResetAllocationFaults();
        EXPECT_EQ(nullptr, record) << allocation;
        EXPECT_EQ("malloc Doorbell failure\n", mLog.Texts(1).at(0)) << allocation;
        EXPECT_EQ(1, mB.use_count()) << allocation;
    }
}

TEST_F(DescriptorRegistryTest, RecordThatCannotBeClearedFails) {
    const auto first = Register(mA);
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMSET);
    EXPECT_EQ(nullptr, Register(mB));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memset_s failed\n"));
    EXPECT_FALSE(Knows(first));
    EXPECT_EQ(1, mB.use_count());
}

TEST_F(DescriptorRegistryTest, RegistrationWorksAgainAfterAFailure) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMSET);
    EXPECT_EQ(nullptr, Register(mA));
    const auto record = Register(mA);
    EXPECT_EQ(mA, mRegistry->Find(record.get()));
}

TEST(DeviceDescriptorTest, BaseClassImplementsNothing) {
    struct Bare : LinkDeviceDescriptor {
        const std::string& GetDescriptor() const override { return text; }
        std::string text;
    };
    CapturedLog log;
    Bare descriptor;
    std::string value = "before";
    const LinkDeviceDescriptor::Port port;
    EXPECT_FALSE(descriptor.OnGet(port, "k", value));
    EXPECT_FALSE(descriptor.OnPut(port, "k", "v"));
    EXPECT_FALSE(descriptor.OnPost(port, "k", "v"));
    EXPECT_FALSE(descriptor.OnDelete(port, "k", "v"));
    EXPECT_FALSE(descriptor.OnSetupMediaService(port, value));
    EXPECT_EQ("before", value);
    EXPECT_EQ(5, log.Count(1, "NOT IMPLEMENT\n")) << log.Dump();
    EXPECT_EQ(5U, log.Lines().size());
}

TEST(DeviceDescriptorTest, RequesterIsEmptyUntilItIsSet) {
    LinkDeviceDescriptor::Port port;
    EXPECT_EQ("", port.GetAddress());
    EXPECT_EQ(0, port.port);
    std::string address = "10.0.0.1";
    port.SetAddress(address);
    port.SetPort(40001);
    EXPECT_EQ("10.0.0.1", port.GetAddress());
    EXPECT_EQ(40001, port.port);
}

}  // namespace
}  // namespace lumora
