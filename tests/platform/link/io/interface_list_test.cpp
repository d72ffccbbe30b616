#include "platform/link/io/interface_list.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

namespace lumora_link::test {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

SystemInterface Interface(unsigned index, const char* name, in_addr_t host, bool up = true) {
    return {{index, name, htonl(host)}, up};
}

std::vector<std::string> NamesOf(const std::vector<LocalInterface>& interfaces) {
    std::vector<std::string> names;
    for (const LocalInterface& local : interfaces) {
        names.push_back(local.name);
    }
    return names;
}

const std::vector<SystemInterface> ALL = {
    Interface(3, "wlan0", 0x0a000003),       Interface(1, "lo", 0x7f000001),
    Interface(2, "eth0", 0x0a000002),        Interface(2, "eth0", 0x0a000022),
    Interface(4, "usb0", 0x0a000004, false),
};

}  // namespace

TEST(InterfaceListTest, TakesWhatIsUpByItsIndexWithOneAddressEach) {
    const std::vector<LocalInterface> selected = SelectInterfaces(ALL, {});
    EXPECT_THAT(NamesOf(selected), ElementsAre("lo", "eth0", "wlan0"));
    EXPECT_EQ(HostText(selected[1].host), "10.0.0.2");
}

TEST(InterfaceListTest, TakesOnlyTheNamedOnes) {
    EXPECT_THAT(NamesOf(SelectInterfaces(ALL, {"wlan0", "usb0", "none"})), ElementsAre("wlan0"));
    EXPECT_THAT(SelectInterfaces(ALL, {"none"}), IsEmpty());
}

TEST(InterfaceListTest, HostsBehindRoutersAreHeededOnlyAsPeers) {
    std::vector<SystemInterface> all = ALL;
    for (SystemInterface& own : all) {
        own.mask = htonl(own.local.name == "lo" ? 0xff000000 : 0xffffff00);
    }
    all.push_back(Interface(5, "tun0", 0x0a010001));
    all.back().otherEnd = htonl(0x0a010002);
    const LinkScope scope(all, SelectInterfaces(all, {"eth0", "tun0"}), {*ParseEndpoint("192.0.2.7", 1)});
    EXPECT_TRUE(scope.Contains(inet_addr("10.0.0.99")));
    EXPECT_TRUE(scope.Contains(inet_addr("127.0.0.1"))) << "this host";
    EXPECT_TRUE(scope.Contains(inet_addr("10.1.0.2"))) << "the other end of a point-to-point link";
    EXPECT_TRUE(scope.Contains(inet_addr("192.0.2.7"))) << "a configured peer";
    EXPECT_FALSE(scope.Contains(inet_addr("192.0.2.8")));
    EXPECT_FALSE(scope.Contains(inet_addr("10.0.1.99")));
    EXPECT_FALSE(scope.Contains(inet_addr("10.1.0.3")));
}

TEST(InterfaceListTest, ALoopbackAddressReachesNoOtherHost) {
    EXPECT_FALSE(ReachesOthers(SelectInterfaces(ALL, {"lo"})));
    EXPECT_TRUE(ReachesOthers(SelectInterfaces(ALL, {})));
    EXPECT_FALSE(ReachesOthers({}));
}

TEST(InterfaceListTest, AHostWithoutInterfacesHasNone) { EXPECT_THAT(SelectInterfaces({}, {}), IsEmpty()); }

}  // namespace lumora_link::test
