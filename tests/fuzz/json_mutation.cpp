#include <vector>

#include "base/json.h"
#include "tests/fuzz/mutation.h"

namespace lumora_fuzz {

namespace {

const char* const KEYS[] = {
    "cmd",      "param",      "clientID", "ClientID",         "CLIENTid",   "subscribe",
    "Service",  "DataSource", "TrasType", "DevServiceType",   "ServiceNum", "service0",
    "service7", "Name",       "name",     "output-len-bytes", "transport",  "p",
    "ep",       "addr",       "port",     "unsubscribe",      "SetMode"};
const double NUMBERS[] = {0,   1,   2,     3,          7,          8,          9,     -1,
                          255, 256, 65535, 2147483647, 2147483648, 4294967296, 1e300, 0.5};
const char* const TEXTS[] = {"",
                             "subscribe",
                             "unsubscribe",
                             "face",
                             "camera",
                             "192.168.1.20",
                             "\xc3\xa4\x01\xff",
                             "\"\\",
                             "abcdefghijklmnopqrstuvwxyz0123456789012",
                             "abcdefghijklmnopqrstuvwxyz01234567890123"};

// Every object and array, the root first.
void Collect(cJSON* item, std::vector<cJSON*>& containers) {
    if (cJSON_IsObject(item) || cJSON_IsArray(item)) {
        containers.push_back(item);
    }
    for (cJSON* child = item->child; child != nullptr; child = child->next) {
        Collect(child, containers);
    }
}

cJSON* MakeValue(Dice& dice) {
    switch (dice.Below(8)) {
        case 0:
            return cJSON_CreateObject();
        case 1:
            return cJSON_CreateArray();
        case 2:
            return cJSON_CreateBool(dice.OneIn(2) ? 1 : 0);
        case 3:
            return cJSON_CreateNull();
        case 4:
            return cJSON_CreateString(std::string(dice.Below(450), 'x').c_str());
        case 5:
            return cJSON_CreateString(dice.Pick(TEXTS));
        default:
            return cJSON_CreateNumber(dice.Pick(NUMBERS));
    }
}

void Add(cJSON* container, cJSON* item, Dice& dice) {
    if (cJSON_IsObject(container)) {
        cJSON_AddItemToObject(container, dice.Pick(KEYS), item);
    } else {
        cJSON_AddItemToArray(container, item);
    }
}

void Change(cJSON* container, int index, Dice& dice) {
    cJSON* item = cJSON_DetachItemFromArray(container, index);
    switch (dice.Below(5)) {
        case 0:  // gone
            cJSON_Delete(item);
            return;
        case 1:  // renamed
            Add(container, item, dice);
            return;
        case 2:  // twice
            Add(container, cJSON_Duplicate(item, 1), dice);
            cJSON_AddItemToObject(container, std::string(item->string != nullptr ? item->string : "").c_str(),
                                  item);
            return;
        case 3:
            if (cJSON_IsString(item)) {
                const std::string text = MutateBytes(item->valuestring, dice);
                cJSON_AddStringToObject(container, item->string != nullptr ? item->string : "", text.c_str());
                cJSON_Delete(item);
                return;
            }
            [[fallthrough]];
        default:
            cJSON_AddItemToObject(container, item->string != nullptr ? item->string : "", MakeValue(dice));
            cJSON_Delete(item);
    }
}

}  // namespace

std::string MutateJson(const std::string& text, Dice& dice) {
    const lumora::JsonTree root = lumora::ParseJson(text);
    std::vector<cJSON*> containers;
    if (root != nullptr) {
        Collect(root.get(), containers);
    }
    if (containers.empty()) {
        return MutateBytes(text, dice);
    }
    cJSON* container = dice.Pick(containers);
    const int count = cJSON_GetArraySize(container);
    if (count == 0 || dice.OneIn(4)) {
        Add(container, MakeValue(dice), dice);
    } else {
        Change(container, static_cast<int>(dice.Below(static_cast<std::size_t>(count))), dice);
    }
    std::string changed = text;
    lumora::PrintJson(root.get(), changed);
    return changed;
}

}  // namespace lumora_fuzz
