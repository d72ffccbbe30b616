// The setup string: the JSON text that tells a device on which port a client wants its data channel.
#pragma once

#include <string>
#include <utility>

namespace lumora {

// {"p":2,"ep":{"addr":"192.168.1.20","port":6666}}
class LumoraTransportConfig {
public:
    void SetEndpoint(std::string address, int portNumber);

    // The offer of a private channel, a JSON object, that goes along as the member "sec".
    void SetOffer(std::string text) { offer = std::move(text); }

    // Empty when memory ran out.
    std::string GetSetupString();

    // 1 for success, 0 for failure, which leaves address and port as they were.
    int ParseSetupString(const std::string& setupString);

    const std::string& GetAddr() const { return addr; }
    // Not checked for its range.
    int GetPort() const { return port; }

private:
    std::string addr = "0";
    int port = 0;
    std::string offer;
};

// Takes the offer of a private channel out of a setup string, so that the keys in it reach no log. Empty,
// with the string as it was, if it has none.
std::string TakeOffer(std::string& setupString);

}  // namespace lumora
