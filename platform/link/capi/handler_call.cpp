#include "platform/link/capi/handler_call.h"

#include <array>
#include <cstring>

namespace lumora_link {

namespace {

using ChangeHandler = decltype(AppResource::DoPUT);

Outcome CallGet(const Registration& registration, const RemoteEndpoint& requester, const HandlerCall& call) {
    if (registration.handlers.DoGET == nullptr) {
        return {code::NOT_ALLOWED, {}};
    }
    // The handler reads the value from the buffer and writes the reply into the same buffer. The buffer is
    // one byte longer than any text, so the reply is terminated even if a handler fills it.
    std::array<char, MAX_TEXT_BYTES + 1> buffer = {};
    std::memcpy(buffer.data(), call.value.data(), call.value.size());
    const int result = registration.handlers.DoGET(registration.resource, &requester, call.key.c_str(),
                                                   buffer.data(), static_cast<unsigned>(buffer.size()));
    if (result != 0) {
        return {code::INTERNAL_ERROR, {}};
    }
    return {code::CONTENT, std::string(buffer.data(), strnlen(buffer.data(), MAX_TEXT_BYTES))};
}

Outcome CallChange(ChangeHandler handler, std::uint8_t success, const Registration& registration,
                   const RemoteEndpoint& requester, const HandlerCall& call) {
    if (handler == nullptr) {
        return {code::NOT_ALLOWED, {}};
    }
    const int result = handler(registration.resource, &requester, call.key.c_str(), call.value.c_str(),
                               static_cast<unsigned>(call.value.size()));
    return {result == 0 ? success : code::INTERNAL_ERROR, {}};
}

}  // namespace

Outcome CallHandler(const Registration& registration, const HandlerCall& call) {
    if (registration.resource == nullptr) {
        return {code::NOT_FOUND, {}};
    }
    RemoteEndpoint requester = {};
    requester.address.s_addr = call.requester.host;
    requester.port = call.requester.port;
    const AppResource& handlers = registration.handlers;
    switch (call.method) {
        case code::GET:
            return CallGet(registration, requester, call);
        case code::PUT:
            return CallChange(handlers.DoPUT, code::CHANGED, registration, requester, call);
        case code::POST:
            return CallChange(handlers.DoPOST, code::CHANGED, registration, requester, call);
        case code::DELETE:
            return CallChange(handlers.DoDELETE, code::DELETED, registration, requester, call);
        default:
            return {code::NOT_ALLOWED, {}};
    }
}

void CallDeviceEvent(const Registration& registration, const DeviceEvent& event) {
    if (registration.onDeviceEvent == nullptr) {
        return;
    }
    // These texts live until the call returns. An application that wants them longer copies them.
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
