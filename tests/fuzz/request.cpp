#include "tests/fuzz/request.h"

#include <cstring>

namespace lumora_fuzz {

Request ReadRequest(const std::string& bytes) {
    Request request;
    std::string head = bytes.substr(0, 8);
    head.resize(8);
    const auto number = [&head](std::size_t at) {
        return static_cast<unsigned char>(head[at]) +
               (static_cast<unsigned int>(static_cast<unsigned char>(head[at + 1])) << 8);
    };
    std::memcpy(&request.requester.address, head.data(), sizeof(request.requester.address));
    request.requester.port = static_cast<int>(number(4));
    request.size = number(6);
    if (bytes.size() > head.size()) {
        const char* text = bytes.c_str() + head.size();
        request.key = text;
        const std::size_t value = head.size() + request.key.size() + 1;
        request.value = value < bytes.size() ? bytes.c_str() + value : "";
    }
    return request;
}

std::string WriteRequest(const Request& request) {
    std::string bytes(sizeof(request.requester.address), '\0');
    std::memcpy(bytes.data(), &request.requester.address, bytes.size());
    for (const unsigned int number : {static_cast<unsigned int>(request.requester.port), request.size}) {
        bytes.push_back(static_cast<char>(number & 0xff));
        bytes.push_back(static_cast<char>(number >> 8 & 0xff));
    }
    return bytes + request.key + '\0' + request.value;
}

}  // namespace lumora_fuzz
