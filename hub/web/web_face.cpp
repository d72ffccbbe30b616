#include "hub/web/web_face.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "hub/web/server.h"

namespace lumora_hub::web {
namespace {

class WebFace final : public Face {
public:
    void AddOptions(CLI::App& app) override;
    void Start(DeviceHub& hub) override;

private:
    void ReadToken();

    std::string mListen = "127.0.0.1:8666";
    std::string mTokenFile;
    bool mIsOff = false;
    WebOptions mOptions;
    std::unique_ptr<Server> mServer;
};

void WebFace::AddOptions(CLI::App& app) {
    constexpr const char* GROUP = "Web page";
    app.add_option("--listen", mListen, "where the page is served; 0.0.0.0 or [::] for all addresses")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str()
        ->group(GROUP);
    app.add_option("--token-file", mTokenFile, "admits only clients with the token in this file")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--certificate", mOptions.certificateFile, "serves with TLS; a PEM file with the chain")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--key", mOptions.keyFile, "the key of the certificate, a PEM file")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--host-name", mOptions.hostNames,
                   "a further name by which browsers reach the page; may be repeated")
        ->type_name("NAME")
        ->group(GROUP);
    app.add_flag("--allow-plain-http", mOptions.plainAllowed, "serves other hosts without TLS")->group(GROUP);
    app.add_flag("--no-web", mIsOff, "serves no page")->group(GROUP);
}

void WebFace::Start(DeviceHub& hub) {
    if (mIsOff) {
        return;
    }
    if (!ReadListenAddress(mListen, mOptions)) {
        throw std::runtime_error("--listen needs ADDRESS:PORT, such as 127.0.0.1:8666 or [::1]:8666");
    }
    ReadToken();
    mServer = std::make_unique<Server>(hub, mOptions);
    std::printf("The page is at %s\n", mServer->Url().c_str());
    std::fflush(stdout);
}

// The first line of the file, so that an editor's line end does no harm.
void WebFace::ReadToken() {
    if (mTokenFile.empty()) {
        return;
    }
    std::ifstream file(mTokenFile);
    if (!file || !std::getline(file, mOptions.token) || mOptions.token.empty()) {
        throw std::runtime_error("no token can be read from " + mTokenFile);
    }
}

}  // namespace
}  // namespace lumora_hub::web

namespace lumora_hub {

std::unique_ptr<Face> MakeWebFace() { return std::make_unique<web::WebFace>(); }

}  // namespace lumora_hub
