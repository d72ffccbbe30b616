#include "base/json.h"

#include <gmock/gmock.h>

#include "tests/support/json_allocations.h"

namespace lumora {
namespace {

using lumora_test::JsonAllocations;

TEST(JsonTest, TreesAreFreedByTheirOwner) {
    JsonAllocations memory;
    {
        const JsonTree root = ParseJson(R"({"a":[1,2,{"b":"c"}]})");
        ASSERT_NE(nullptr, root);
        EXPECT_GT(memory.Live(), 0);
    }
    EXPECT_EQ(0, memory.Live());
}

TEST(JsonTest, WhatIsNoDocumentHasNoTree) {
    JsonAllocations memory;
    EXPECT_EQ(nullptr, ParseJson(""));
    EXPECT_EQ(nullptr, ParseJson(R"({"a":)"));
    EXPECT_EQ(nullptr, ParseJson(std::string(5000, '[') + std::string(5000, ']')));
    EXPECT_EQ(0, memory.Live());
}

TEST(JsonTest, TextBehindADocumentIsIgnored) { EXPECT_NE(nullptr, ParseJson("{} and more")); }

TEST(JsonTest, AddedObjectBelongsToItsParent) {
    const JsonTree root(cJSON_CreateObject());
    cJSON* object = AddJsonObject(root.get(), "inner");
    ASSERT_NE(nullptr, object);
    EXPECT_NE(nullptr, cJSON_AddNumberToObject(object, "n", 7));
    std::string text;
    EXPECT_TRUE(PrintJson(root.get(), text));
    EXPECT_EQ(R"({"inner":{"n":7}})", text);
}

TEST(JsonTest, ObjectThatCannotBeAddedIsFreed) {
    JsonAllocations memory;
    const JsonTree root(cJSON_CreateObject());
    for (const int failing : {1, 2}) {  // the object itself, its key
        memory.Fail(failing);
        EXPECT_EQ(nullptr, AddJsonObject(root.get(), "inner"));
        EXPECT_EQ(1, memory.Live()) << failing;
    }
}

TEST(JsonTest, PrintThatFailsLeavesTheTextAsItWas) {
    JsonAllocations memory;
    const JsonTree root(cJSON_CreateObject());
    std::string text = "before";
    memory.Fail(1);
    EXPECT_FALSE(PrintJson(root.get(), text));
    EXPECT_EQ("before", text);
}

TEST(JsonTest, PrintedTextIsFreed) {
    JsonAllocations memory;
    const JsonTree root(cJSON_CreateObject());
    std::string text;
    EXPECT_TRUE(PrintJson(root.get(), text));
    EXPECT_EQ(1, memory.Live());
}

}  // namespace
}  // namespace lumora
