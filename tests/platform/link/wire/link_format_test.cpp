#include "platform/link/wire/link_format.h"

#include <gtest/gtest.h>

namespace lumora_link::test {

namespace {

NodeDescription Camera() {
    NodeDescription node;
    node.identity = {0x00c0ffee00c0ffee, 1720000000};
    node.endpoint = *ParseEndpoint("192.0.2.7:40001", 0);
    node.deviceType = "camera";
    return node;
}

}  // namespace

TEST(LinkFormatTest, WritesTheLinkOfTheDocumentation) {
    EXPECT_EQ(FormatLink(Camera()),
              "<coap://192.0.2.7:40001/lumora>;rt=\"camera\";ep=\"00c0ffee00c0ffee\";ins=1720000000");
}

TEST(LinkFormatTest, ANodeWithoutAResourceHasNoType) {
    NodeDescription node = Camera();
    node.deviceType.reset();
    EXPECT_EQ(FormatLink(node), "<coap://192.0.2.7:40001/lumora>;ep=\"00c0ffee00c0ffee\";ins=1720000000");
    EXPECT_FALSE(ParseLink(FormatLink(node))->deviceType);
}

TEST(LinkFormatTest, ReadsBackTypesOfAnyBytes) {
    std::string any;
    for (int byte = 1; byte < 256; ++byte) {
        any.push_back(static_cast<char>(byte));
    }
    for (const std::string& type : {std::string(), std::string("\\"), std::string("\"\\\";ep=\"1\""), any,
                                    std::string(MAX_TEXT_BYTES, '"')}) {
        NodeDescription node = Camera();
        node.deviceType = type;
        const auto read = ParseLink(FormatLink(node));
        ASSERT_TRUE(read);
        EXPECT_EQ(read->deviceType, type);
        EXPECT_EQ(read->identity, node.identity);
        EXPECT_EQ(read->endpoint, node.endpoint);
    }
}

TEST(LinkFormatTest, PassesOverWhatItDoesNotKnow) {
    const auto read = ParseLink("<coap://192.0.2.7/lumora>;obs;ct=40;ep=1f;title=\"a;b\";ins=7");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->endpoint.port, 5683);
    EXPECT_EQ(read->identity.id, 0x1fU);
    EXPECT_EQ(read->identity.instance, 7U);
}

TEST(LinkFormatTest, RefusesWhatIsNotTheLinkOfANode) {
    for (const char* text : {
             "",
             "<coap://192.0.2.7:1/lumora>",
             "<coap://192.0.2.7:1/lumora>;ep=1",
             "<coap://192.0.2.7:1/lumora>;ins=1",
             "<coap://192.0.2.7:1/lumora>;ep=x;ins=1",
             "<coap://192.0.2.7:1/lumora>;ep=1;ins=4294967296",
             "<coap://192.0.2.7:1/lumora>;ep=1;ins=1;rt=\"open",
             "<coap://192.0.2.7:1/lumora>;ep=1;ins=1;rt=\"open\\",
             "<coap://192.0.2.7:1/lumora>;ep=1;ins=1,</other>",
             "<coap://192.0.2.7:0/lumora>;ep=1;ins=1",
             "<coap://device.local/lumora>;ep=1;ins=1",
             "<coap://192.0.2.7:1/other>;ep=1;ins=1",
             "<coap://192.0.2.7:1/lumora;ep=1;ins=1",
             "</lumora>;ep=1;ins=1",
             "<coap://lumora>;ep=1;ins=1",
             "<coap://192.0.2.7:1",
             "<coap://",
         }) {
        EXPECT_FALSE(ParseLink(text)) << text;
    }
}

TEST(LinkFormatTest, OfSeveralLinksTheOneWithTheTypeIsRead) {
    NodeDescription other = Camera();
    other.identity.id = 2;
    other.deviceType = "printer, \"large\"";
    const std::string links = "</s>;title=\"a,<b\",<coap://h/x?a,b>;ct=40," + FormatLink(other) + "," +
                              FormatLink(Camera()) + ",</t>";
    EXPECT_EQ(ParseLinkOfType(links, "camera")->identity, Camera().identity);
    EXPECT_EQ(ParseLinkOfType(links, *other.deviceType)->identity, other.identity);
    EXPECT_EQ(ParseLinkOfType(links, "absent")->identity, other.identity) << "the first";
    EXPECT_FALSE(ParseLinkOfType("</s>,<coap://h/x", "camera"));
    EXPECT_FALSE(ParseLinkOfType(",,\"\\", "camera"));
}

TEST(LinkFormatTest, ASecuredNodeNamesThePortBehindItsOwn) {
    NodeDescription node = Camera();
    node.endpoint = {htonl(0xc0000207), 40001};
    node.secured = true;
    const std::string text = FormatLink(node);
    EXPECT_EQ(text.substr(0, text.find(';')), "<coaps://192.0.2.7:40002/lumora>");
    const auto read = ParseLink(text);
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->secured);
    EXPECT_EQ(read->endpoint, node.endpoint);
    EXPECT_FALSE(ParseLink("<coaps://192.0.2.7:1/lumora>;ep=1;ins=1")) << "there is no port before it";
}

TEST(LinkFormatTest, RefusesATypeThatIsTooLong) {
    NodeDescription node = Camera();
    node.deviceType = std::string(MAX_TEXT_BYTES + 1, 't');
    EXPECT_FALSE(ParseLink(FormatLink(node)));
}

}  // namespace lumora_link::test
