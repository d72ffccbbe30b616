#include "hub/web/web_face.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "base/unique_fd.h"
#include "hub/web/server.h"

namespace lumora_hub::web {
namespace {

constexpr std::size_t MOST_TOKEN_BYTES = 4096;

// A group may read it, such as that of a program that reads the figures with this token.
void RequireSecret(const struct stat& about, const std::string& path) {
    if ((about.st_mode & (S_IRWXO | S_IWGRP)) != 0) {
        throw OptionError("other users may read or change " + path + ": chmod 600 " + path);
    }
}

// The first line, so that an editor's line end does no harm.
std::string ReadSecretLine(const std::string& path) {
    const lumora::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat about = {};
    std::array<char, MOST_TOKEN_BYTES> text = {};
    ssize_t length = -1;
    if (file && fstat(file.Get(), &about) == 0) {
        RequireSecret(about, path);
        length = read(file.Get(), text.data(), text.size());
    }
    if (length < 0) {
        throw OptionError("no token can be read from " + path + ": " +
                          std::generic_category().message(errno));
    }
    const std::string bytes(text.data(), static_cast<std::size_t>(length));
    return bytes.substr(0, bytes.find_first_of("\r\n"));
}

class WebFace final : public Face {
public:
    void AddOptions(CLI::App& app) override;
    void Start(DeviceHub& hub, FigureBoard& figures) override;

private:
    void ReadSecrets();

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
    app.add_option(
           "--token-file", mTokenFile,
           "admits only clients with the token in this file, which other users must not be able to read")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--certificate", mOptions.certificateFile, "serves with TLS; a PEM file with the chain")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--key", mOptions.keyFile,
                   "the key of the certificate, a PEM file that other users must not be able to read")
        ->type_name("FILE")
        ->group(GROUP);
    app.add_option("--host-name", mOptions.hostNames,
                   "a further name by which browsers reach the page; may be repeated")
        ->type_name("NAME")
        ->group(GROUP);
    app.add_flag("--allow-plain-http", mOptions.plainAllowed, "serves other hosts without TLS")->group(GROUP);
    app.add_flag("--no-web", mIsOff, "serves no page")->group(GROUP);
}

void WebFace::Start(DeviceHub& hub, FigureBoard& figures) {
    if (mIsOff) {
        return;
    }
    if (!ReadListenAddress(mListen, mOptions)) {
        throw OptionError("--listen needs ADDRESS:PORT, such as 127.0.0.1:8666 or [::1]:8666");
    }
    ReadSecrets();
    if (mOptions.plainAllowed && !mOptions.certificateFile.empty()) {
        throw OptionError("--allow-plain-http would do nothing: --certificate serves with TLS");
    }
    const std::string refusal = Refusal(mOptions);
    if (!refusal.empty()) {
        throw OptionError(refusal);
    }
    mServer = std::make_unique<Server>(hub, figures, mOptions);
    std::printf("The page is at %s\n", mServer->Url().c_str());
    std::fflush(stdout);
}

// The server reports a key that cannot be read.
void WebFace::ReadSecrets() {
    if (!mTokenFile.empty()) {
        mOptions.token = ReadSecretLine(mTokenFile);
        if (mOptions.token.empty()) {
            throw OptionError("the first line of " + mTokenFile + " is empty: it must be the token");
        }
    }
    struct stat about = {};
    if (!mOptions.keyFile.empty() && stat(mOptions.keyFile.c_str(), &about) == 0) {
        RequireSecret(about, mOptions.keyFile);
    }
}

}  // namespace
}  // namespace lumora_hub::web

namespace lumora_hub {

std::unique_ptr<Face> MakeWebFace() { return std::make_unique<web::WebFace>(); }

}  // namespace lumora_hub
