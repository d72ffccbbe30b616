#include "protocol/setup_string.h"

#include <utility>

#include "base/json.h"
#include "library/log.h"
#include "lumora.h"

namespace lumora {

namespace {

constexpr char OFFER_KEY[] = "sec";

// cJSON's type code, 0 for a member that is missing.
int TypeOf(const cJSON* item) { return item != nullptr ? item->type : 0; }

}  // namespace

void LumoraTransportConfig::SetEndpoint(std::string address, int portNumber) {
    addr = std::move(address);
    port = portNumber;
}

// The address is the device's own and is not used there: the device connects back to where the request came
// from. It is written because devices expect the member.
std::string LumoraTransportConfig::GetSetupString() {
    std::string text;
    const JsonTree root(cJSON_CreateObject());
    if (root == nullptr || cJSON_AddNumberToObject(root.get(), "p", LUM_TRANSPORT_TCP) == nullptr) {
        return text;
    }
    cJSON* endpoint = AddJsonObject(root.get(), "ep");
    if (endpoint == nullptr || cJSON_AddStringToObject(endpoint, "addr", addr.c_str()) == nullptr ||
        cJSON_AddNumberToObject(endpoint, "port", port) == nullptr) {
        return text;
    }
    if (!offer.empty() && cJSON_AddRawToObject(root.get(), OFFER_KEY, offer.c_str()) == nullptr) {
        return text;
    }
    PrintJson(root.get(), text);
    return text;
}

// The text comes from any host. Members are stored only after all of them were checked. The port may be any
// int: FillAddress takes its lower 16 bits.
int LumoraTransportConfig::ParseSetupString(const std::string& setupString) {
    const JsonTree root = ParseJson(setupString);
    if (root == nullptr) {
        LUMORA_DETAIL("root == nullptr, setupString=  %s\n", setupString.c_str());
        return 0;
    }
    const cJSON* p = cJSON_GetObjectItem(root.get(), "p");
    if (p == nullptr) {
        LUMORA_DETAIL("p == nullptr\n");
        return 0;
    }
    if (!cJSON_IsNumber(p)) {
        LUMORA_DETAIL("type is not cJSON_Number = %d\n", p->type);
        return 0;
    }
    const cJSON* endpoint = cJSON_GetObjectItem(root.get(), "ep");
    if (endpoint == nullptr) {
        LUMORA_DETAIL("ep == nullptr\n");
        return 0;
    }
    if (!cJSON_IsObject(endpoint)) {
        LUMORA_DETAIL("type is not cJSON_Object \n");
        return 0;
    }
    const cJSON* addrItem = cJSON_GetObjectItem(endpoint, "addr");
    const cJSON* portItem = cJSON_GetObjectItem(endpoint, "port");
    if (!cJSON_IsString(addrItem) || !cJSON_IsNumber(portItem)) {
        LUMORA_DETAIL("addr->type = %d\n", TypeOf(addrItem));
        LUMORA_DETAIL("port->type = %d\n", TypeOf(portItem));
        return 0;
    }
    addr = addrItem->valuestring;
    port = portItem->valueint;
    return 1;
}

std::string TakeOffer(std::string& setupString) {
    std::string offer;
    const JsonTree root = ParseJson(setupString);
    if (root == nullptr || !cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(root.get(), OFFER_KEY))) {
        return offer;
    }
    const JsonTree taken(cJSON_DetachItemFromObjectCaseSensitive(root.get(), OFFER_KEY));
    std::string rest;
    if (PrintJson(taken.get(), offer) && PrintJson(root.get(), rest)) {
        setupString = rest;
    }
    return offer;
}

}  // namespace lumora
