#include "platform/link/io/interface_list.h"

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

TEST(InterfaceListTest, AHostWithoutInterfacesHasNone) { EXPECT_THAT(SelectInterfaces({}, {}), IsEmpty()); }

}  // namespace lumora_link::test
