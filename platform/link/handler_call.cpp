#include "handler_call.h"

#include <array>
#include <cstring>

namespace lumora_link {

namespace {

using ChangeHandler = decltype(AppResource::DoPUT);

Outcome CallGet(const Registration& registration, const RemoteEndpoint& requester, const HandlerCall& call) {
    if (registration.handlers.DoGET == nullptr) {
        return {code::kNotAllowed, {}};
    }
    // The value goes in and the reply comes out by the same buffer.
    std::array<char, kMaxTextBytes + 1> buffer = {};
    std::memcpy(buffer.data(), call.value.data(), call.value.size());
    const int result = registration.handlers.DoGET(registration.resource, &requester, call.key.c_str(),
                                                   buffer.data(), static_cast<unsigned>(buffer.size()));
    if (result != 0) {
        return {code::kInternalError, {}};
    }
    return {code::kContent, std::string(buffer.data(), strnlen(buffer.data(), kMaxTextBytes))};
}

Outcome CallChange(ChangeHandler handler, std::uint8_t success, const Registration& registration,
                   const RemoteEndpoint& requester, const HandlerCall& call) {
    if (handler == nullptr) {
        return {code::kNotAllowed, {}};
    }
    const int result = handler(registration.resource, &requester, call.key.c_str(), call.value.c_str(),
                               static_cast<unsigned>(call.value.size()));
    return {result == 0 ? success : code::kInternalError, {}};
}

}  // namespace

Outcome CallHandler(const Registration& registration, const HandlerCall& call) {
    if (registration.resource == nullptr) {
        return {code::kNotFound, {}};
    }
    RemoteEndpoint requester = {};
    requester.address.s_addr = call.requester.host;
    requester.port = call.requester.port;
    const AppResource& handlers = registration.handlers;
    switch (call.method) {
        case code::kGet:
            return CallGet(registration, requester, call);
        case code::kPut:
            return CallChange(handlers.DoPUT, code::kChanged, registration, requester, call);
        case code::kPost:
            return CallChange(handlers.DoPOST, code::kChanged, registration, requester, call);
        case code::kDelete:
            return CallChange(handlers.DoDELETE, code::kDeleted, registration, requester, call);
        default:
            return {code::kNotAllowed, {}};
    }
}

void CallDeviceEvent(const Registration& registration, const DeviceEvent& event) {
    if (registration.onDeviceEvent == nullptr) {
        return;
    }
    const std::string address = HostText(event.node.endpoint.host);
    const std::string deviceType = event.node.deviceType.value_or("");
    NotifyDeviceInfo info = {};
    info.event = event.added ? NOTIFY_DEVICE_ADDED : NOTIFY_DEVICE_REMOVED;
    info.id = event.number;
    info.addr = address.c_str();
    info.port = event.node.endpoint.port;
    info.devType = deviceType.c_str();
    registration.onDeviceEvent(&info);
}

}  // namespace lumora_link
