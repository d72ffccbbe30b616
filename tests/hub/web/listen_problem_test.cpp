// Why the page cannot be served.
#include "hub/web/listen_problem.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include "base/unique_fd.h"

namespace lumora_hub::web {
namespace {

using testing::HasSubstr;

TEST(ListenProblemTest, APortInUseIsTold) {
    const lumora::UniqueFd other(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in place{};
    socklen_t length = sizeof(place);
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(other.Get(), reinterpret_cast<const sockaddr*>(&place), length));
    ASSERT_EQ(0, listen(other.Get(), 1));
    ASSERT_EQ(0, getsockname(other.Get(), reinterpret_cast<sockaddr*>(&place), &length));
    WebOptions options;
    options.port = ntohs(place.sin_port);
    EXPECT_EQ("another program uses this port; --listen names another one", ListenProblem(options));
}

TEST(ListenProblemTest, AnAddressOfAnotherHostIsTold) {
    WebOptions options;
    options.port = 0;
    options.address = "192.0.2.1";
    EXPECT_EQ("Cannot assign requested address", ListenProblem(options));
    options.address = "2001:db8::1";
    EXPECT_NE("see the log", ListenProblem(options));
}

TEST(ListenProblemTest, TheFileThatIsMissingIsNamed) {
    WebOptions options;
    options.port = 0;
    options.certificateFile = "/dev/null";
    options.keyFile = "/nothing.key";
    EXPECT_EQ("/nothing.key cannot be read: No such file or directory", ListenProblem(options));
    options.keyFile = "/dev/null";
    EXPECT_THAT(ListenProblem(options), HasSubstr("/dev/null is no certificate"));
}

}  // namespace
}  // namespace lumora_hub::web
