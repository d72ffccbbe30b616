// The web face over a hub without devices, for the tests in Python. They write lines to its standard input:
//
//   appear ID SERVICE...       leave ID              file ID SERVICE PATH   a block with the file's bytes
//   text ID SERVICE TEXT       burst ID SERVICE COUNT BYTES
//   outcome NUMBER             of what is sent to devices: an Outcome; -1 lets it wait
//   answer NUMBER              to all that waits
//
// It prints "at URL" first, each command and block that is sent to a device, and "did LINE" after each line.
#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "hub/web/server.h"
#include "tests/hub/support/fake_hub.h"

namespace {

using lumora_hub::Outcome;
using lumora_hub_test::FakeHub;

std::mutex output;

void Print(const std::string& line) {
    const std::lock_guard<std::mutex> lock(output);
    std::cout << line << std::endl;
}

std::string BytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void SendWhat(FakeHub& hub, const std::string& verb, std::istringstream& words) {
    std::string id;
    std::string service;
    words >> id >> service;
    if (verb == "burst") {
        std::size_t count = 0;
        std::size_t size = 0;
        words >> count >> size;
        for (std::size_t at = 0; at < count; ++at) {
            hub.SendFromDevice(id, service, std::string(size, '\x01'));
        }
        return;
    }
    std::string rest;
    std::getline(words >> std::ws, rest);
    hub.SendFromDevice(id, service, verb == "file" ? BytesOf(rest) : rest);
}

void Do(FakeHub& hub, const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "appear" || verb == "leave") {
        std::string id;
        words >> id;
        const std::vector<std::string> services{std::istream_iterator<std::string>(words), {}};
        verb == "appear" ? hub.Appear(id, services) : hub.Leave(id);
    } else if (verb == "outcome" || verb == "answer") {
        int number = 0;
        words >> number;
        const auto outcome = number < 0 ? std::nullopt : std::optional(static_cast<Outcome>(number));
        verb == "outcome" ? hub.AnswerWith(outcome) : hub.AnswerAll(outcome.value());
    } else {
        SendWhat(hub, verb, words);
    }
}

}  // namespace

int main(int count, char** words) {
    lumora_hub::web::WebOptions options;
    std::string listen = "127.0.0.1:0";
    int timeMs = 0;
    CLI::App app;
    app.add_option("--listen", listen);
    app.add_option("--token", options.token);
    app.add_option("--certificate", options.certificateFile);
    app.add_option("--key", options.keyFile);
    app.add_option("--host-name", options.hostNames);
    app.add_flag("--allow-plain-http", options.plainAllowed);
    app.add_option("--connections", options.limits.connections);
    app.add_option("--connections-of-address", options.limits.connectionsOfAddress);
    app.add_option("--streams", options.limits.streams);
    app.add_option("--times-ms", timeMs);
    app.add_option("--pending", options.limits.pendingRequests);
    CLI11_PARSE(app, count, words);
    if (timeMs > 0) {  // all times that a test would wait for
        const std::chrono::milliseconds time(timeMs);
        auto& limits = options.limits;
        limits.head = limits.idle = limits.body = limits.outcome = limits.latest = limits.reading = time;
    }
    try {
        FakeHub hub;
        if (!lumora_hub::web::ReadListenAddress(listen, options)) {
            throw std::runtime_error("bad --listen");
        }
        hub.OnSent(Print);
        lumora_hub::web::Server server(hub, options);
        Print("at " + server.Url());
        for (std::string line; std::getline(std::cin, line);) {
            Do(hub, line);
            Print("did " + line.substr(0, 60));
        }
    } catch (const std::runtime_error& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
