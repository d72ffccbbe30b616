// Who is let in: names, origins, tokens and logins.
#include "hub/web/admission.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

Request From(const std::string& host, const std::string& origin = {}) {
    Request request;
    request.method = Method::GET;
    request.host = host;
    request.origin = origin;
    return request;
}

WebOptions WithToken() {
    WebOptions options;
    options.token = "0123456789abcdef";
    options.hostNames = {"Hub.Example"};
    return options;
}

TEST(AdmissionTest, AdmitsAddressesAndOwnNamesAlone) {
    Admission admission{WithToken()};
    for (const char* const host : {"localhost:1", "10.0.0.1:8666", "[fe80::1]:8666", "hub.example"}) {
        EXPECT_EQ(Verdict::ADMITTED, admission.Judge(From(host), true)) << host;
    }
    for (const char* const host : {"", "evil.example", "localhost.", "10.0.0.1.example", "127.0.0.1:a"}) {
        EXPECT_EQ(Verdict::BAD_HOST, admission.Judge(From(host), true)) << host;
    }
}

TEST(AdmissionTest, AForeignOriginIsRefusedWhateverTheTokenIs) {
    Admission admission{WithToken()};
    Request request = From("localhost:8666", "http://evil.example");
    request.authorization = "Bearer 0123456789abcdef";
    EXPECT_EQ(Verdict::FOREIGN_ORIGIN, admission.Judge(request, false));
    request.origin = "https://localhost:8666";  // a proxy in front has TLS
    EXPECT_EQ(Verdict::ADMITTED, admission.Judge(request, false));
}

TEST(AdmissionTest, AForeignPageMayLinkToTheFormButNotPostIt) {
    Admission admission{WithToken()};
    Request request = From("localhost:8666", "http://evil.example");
    EXPECT_EQ(Verdict::ADMITTED, admission.Judge(request, true));
    request.method = Method::POST;
    EXPECT_EQ(Verdict::FOREIGN_ORIGIN, admission.Judge(request, true));
}

TEST(AdmissionTest, WithoutATokenAllAreLetIn) {
    Admission admission{WebOptions{}};
    EXPECT_FALSE(admission.NeedsToken());
    EXPECT_EQ(Verdict::ADMITTED, admission.Judge(From("localhost"), false));
}

TEST(AdmissionTest, ALoginCountsUntilTheLogout) {
    Admission admission{WithToken()};
    Request request = From("localhost");
    EXPECT_EQ(Verdict::NO_TOKEN, admission.Judge(request, false));
    const std::string value = admission.LogIn();
    EXPECT_EQ(64U, value.size());
    EXPECT_NE(value, admission.LogIn());
    request.cookie = "other=1; lumora_hub=" + value;
    EXPECT_EQ(Verdict::ADMITTED, admission.Judge(request, false));
    admission.LogOut(request);
    EXPECT_EQ(Verdict::NO_TOKEN, admission.Judge(request, false));
}

}  // namespace
}  // namespace lumora_hub::web
