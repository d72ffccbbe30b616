// Which path leads to which action.
#include "hub/web/routes.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

TEST(RoutesTest, NamesAreCutOutAndDecoded) {
    const Match match = FindRoute(Method::GET, "/api/devices/a%2Fb@1.2.3.4:5/services/c d/latest");
    ASSERT_NE(nullptr, match.route);
    EXPECT_EQ(Action::LATEST, match.route->action);
    EXPECT_EQ("a/b@1.2.3.4:5", match.device);
    EXPECT_EQ("c d", match.service);
}

TEST(RoutesTest, HeadIsAnsweredAsGet) {
    EXPECT_EQ(FindRoute(Method::GET, "/").route, FindRoute(Method::HEAD, "/").route);
    EXPECT_NE(nullptr, FindRoute(Method::HEAD, "/").route);
}

TEST(RoutesTest, AnotherMethodIsToldFromAnotherPath) {
    EXPECT_TRUE(FindRoute(Method::POST, "/api/devices").hasPath);
    EXPECT_EQ(nullptr, FindRoute(Method::POST, "/api/devices").route);
    for (const char* const path : {"", "x", "/api", "/api/devices/", "/api/devices//data", "/api/devices/a/b",
                                   "/api/devices/a/services//latest", "//", "/login/"}) {
        EXPECT_FALSE(FindRoute(Method::GET, path).hasPath) << path;
    }
}

TEST(RoutesTest, OnlyTheFormAndTheHealthAreOpen) {
    for (const Route& route : Routes()) {
        const std::string path = route.pattern;
        const bool isOpen = path == "/login" || path == "/logout" || path == "/healthz" ||
                            path == "/page/style.css" || path == "/page/icon.svg";
        EXPECT_EQ(isOpen, route.isOpen) << path;
    }
}

}  // namespace
}  // namespace lumora_hub::web
