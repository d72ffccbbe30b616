#include "bench/records.h"

namespace lumora_bench {

namespace {

void CopyName(const std::string& name, char (&field)[LUM_NAME_SIZE]) {
    field[name.copy(field, LUM_NAME_SIZE - 1)] = '\0';
}

int OnCommand(const char*, const char*) { return 0; }

}  // namespace

const char* const SERVICE = "bench";

LUM_DEVICE_INFO_S DeviceRecord(const std::string& type, LUM_NOTIFY_CALLBACK onNotify,
                               LUM_DATA_CALLBACK onData) {
    LUM_DEVICE_INFO_S device = {};
    device.serviceNum = 1;
    CopyName(type, device.devServiceType);
    CopyName(SERVICE, device.serviceInfo[0].serviceName);
    device.serviceInfo[0].outputLenBytes = LUM_MAX_SERVER_DATA_LENGTH;
    device.serviceInfo[0].transport = LUM_TRANSPORT_TCP;
    device.OnCommand = OnCommand;
    device.OnEventNotify = onNotify;
    device.OnData = onData;
    return device;
}

LUM_SUBSCRIBE_SERVICE_S Subscription() {
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    CopyName(SERVICE, subscription.serviceName);
    subscription.transport = LUM_TRANSPORT_TCP;
    return subscription;
}

}  // namespace lumora_bench
