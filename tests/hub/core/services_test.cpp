// What a device says of its services, which may be anything.
#include <gtest/gtest.h>

#include "nodes/link_node.h"

namespace {

using lumora_nodes::ParseServices;
using lumora_nodes::Service;

std::string Document(const std::vector<std::string>& names) {
    std::string text = R"({"ServiceNum":)" + std::to_string(names.size());
    for (std::size_t at = 0; at < names.size(); ++at) {
        text += ",\"service" + std::to_string(at) + R"(":{"Name":")" + names[at] + R"(","transport":2})";
    }
    return text + "}";
}

std::string NamesOf(const std::vector<std::string>& names) {
    std::string found;
    const std::optional<std::vector<Service>> services = ParseServices(Document(names));
    for (const Service& service : services.value()) {
        found += service.name + ' ';
    }
    return found;
}

TEST(ParseServicesTest, NamesThatCanBeNoneOrAreRepeatedAreLeftOut) {
    EXPECT_EQ(NamesOf({"a", "b"}), "a b ");
    EXPECT_EQ(NamesOf({"a", "", "a", "b"}), "a b ");
    EXPECT_EQ(NamesOf({std::string(40, 'x'), std::string(39, 'y')}), std::string(39, 'y') + ' ');
}

TEST(ParseServicesTest, ThereAreEightAtMost) {
    std::vector<std::string> names;
    for (int count = 0; count < 10000; ++count) {
        names.push_back("s" + std::to_string(count));
    }
    EXPECT_EQ(NamesOf(names), "s0 s1 s2 s3 s4 s5 s6 s7 ");
}

TEST(ParseServicesTest, WhatIsNoListIsNone) {
    EXPECT_FALSE(ParseServices(""));
    EXPECT_FALSE(ParseServices("[]"));
    EXPECT_FALSE(ParseServices(R"({"ServiceNum":"1"})"));
    EXPECT_TRUE(ParseServices(R"({"ServiceNum":-1,"service0":7})").value().empty());
}

}  // namespace
