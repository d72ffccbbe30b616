// A foreign program: sends exact bytes to a node and hears what comes back.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "link_platform.h"
#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/messages.h"

namespace lumora_link::test {

class RawPeer {
public:
    explicit RawPeer(AppResourceProxy* to) : mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(to->GetPort(to)));
        inet_pton(AF_INET, to->GetAddress(to), &address.sin_addr);
        EXPECT_EQ(connect(mSocket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const timeval limit = {10, 0};
        setsockopt(mSocket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    void Send(const CoapMessage& message) { SendBytes(SerializeMessage(message)); }
    void SendBytes(const std::string& bytes) {
        EXPECT_GE(send(mSocket.Get(), bytes.data(), bytes.size(), 0), 0);
    }
    std::optional<CoapMessage> Receive() {
        char buffer[2000];
        const ssize_t bytes = recv(mSocket.Get(), buffer, sizeof buffer, 0);
        return bytes < 0 ? std::nullopt : ParseMessage({buffer, static_cast<std::size_t>(bytes)});
    }

private:
    lumora::UniqueFd mSocket;
};

inline CoapMessage RawPost(const std::string& key, const std::string& value) {
    CoapMessage message;
    message.type = MessageType::Confirmable;
    message.code = code::POST;
    message.messageId = 77;
    message.token = "raw";
    AddKey(message, key);
    message.payload = value;
    return message;
}

}  // namespace lumora_link::test
