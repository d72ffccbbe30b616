// The web face over a hub without devices, for the tests in Python. They write lines to its standard input:
//
//   appear ID SERVICE...       leave ID              file ID SERVICE PATH   a block with the file's bytes
//   text ID SERVICE TEXT       burst ID SERVICE COUNT BYTES
//   outcome NUMBER             of what waits and of what is sent to devices: an Outcome; -1 lets it wait
//   pass                       does nothing; what was printed before its answer is whole
//
// It prints "at URL" first, each command and block that is sent to a device, and "did LINE" after each line.
#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "hub/web/server.h"
#include "tests/hub/support/scripted_hub.h"

namespace {

using lumora_hub::Outcome;
using lumora_hub_test::ScriptedHub;

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

void PrintRequest(const ScriptedHub::Request& request) {
    Print(request.isCommand ? "command " + request.device + " " + request.command + " " + request.bytes
                            : "block " + request.device + " " + std::to_string(request.bytes.size()) + " " +
                                  request.bytes.substr(0, 40));
}

lumora_hub::DeviceState ConnectedDevice(const std::string& id, const std::vector<std::string>& services) {
    const std::size_t at = id.find('@');
    const std::string address = at == std::string::npos ? "192.0.2.1" : id.substr(at + 1);
    lumora_hub::DeviceState device = lumora_hub_test::MakeDevice(id.substr(0, at), address, services);
    device.id = id;
    device.channel = lumora_hub::ChannelState::CONNECTED;
    return device;
}

void SetOutcome(ScriptedHub& hub, int number) {
    if (number < 0) {
        hub.HoldAnswers();
    } else {
        hub.AnswerWith(static_cast<Outcome>(number));
        hub.ReleaseAnswers();
    }
}

void SendWhat(ScriptedHub& hub, const std::string& verb, std::istringstream& words) {
    std::string id;
    std::string service;
    words >> id >> service;
    if (verb == "burst") {
        std::size_t count = 0;
        std::size_t size = 0;
        words >> count >> size;
        for (std::size_t at = 0; at < count; ++at) {
            hub.Send(id, service, std::string(size, '\x01'));
        }
        return;
    }
    std::string rest;
    std::getline(words >> std::ws, rest);
    hub.Send(id, service, verb == "file" ? BytesOf(rest) : rest);
}

void Do(ScriptedHub& hub, const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "appear" || verb == "leave") {
        std::string id;
        words >> id;
        const std::vector<std::string> services{std::istream_iterator<std::string>(words), {}};
        verb == "appear" ? hub.Appear(ConnectedDevice(id, services)) : hub.Leave(id);
    } else if (verb == "outcome") {
        int number = 0;
        words >> number;
        SetOutcome(hub, number);
    } else if (verb != "pass") {
        SendWhat(hub, verb, words);
    }
}

}  // namespace

int main(int count, char** words) {
    lumora_hub::web::WebOptions options;
    std::string listen = "127.0.0.1:0";
    int timeMs = 0;
    std::size_t ofAddress = 0;
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
    app.add_option("--news-streams", options.limits.newsStreams);
    app.add_option("--latest-services", options.limits.latestServices);
    app.add_option("--uploading", options.limits.uploadingBytes);
    app.add_option("--uploading-of-address", options.limits.uploadingBytesOfAddress);
    app.add_option("--of-address", ofAddress);
    CLI11_PARSE(app, count, words);
    if (ofAddress > 0) {
        auto& limits = options.limits;
        limits.pendingRequestsOfAddress = limits.streamsOfAddress = limits.newsStreamsOfAddress =
            limits.latestServicesOfAddress = ofAddress;
    }
    if (timeMs > 0) {  // all times that a test would wait for
        const std::chrono::milliseconds time(timeMs);
        auto& limits = options.limits;
        limits.head = limits.idle = limits.body = limits.outcome = limits.latest = limits.reading = time;
    }
    try {
        ScriptedHub hub;
        if (!lumora_hub::web::ReadListenAddress(listen, options)) {
            throw std::runtime_error("bad --listen");
        }
        hub.OnRequest(PrintRequest);
        const lumora_hub::FigureBoard figures;
        lumora_hub::web::Server server(hub, figures, options);
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
