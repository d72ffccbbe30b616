// The control documents that clients and servers exchange in link requests, built and parsed in one place
// for both ends. Keys of JSON members are matched without regard to case: the two ends spell some of them
// differently.
#pragma once

#include <string>
#include <vector>

#include "base/json.h"
#include "lumora.h"

namespace lumoraAiModule {

// Request keys.
extern const char* const COMMAND_KEY;
extern const char* const SERVICE_INFO_KEY;
extern const char* const TRANS_STATUS_KEY;
extern const char* const STOP_TRANSPORT_KEY;
extern const char* const CONNECT_KEY;
extern const char* const DESTROY_KEY;
extern const char* const GET_VERSION_KEY;

// Commands that the server handles itself; every other one is the application's.
extern const char* const SUBSCRIBE_COMMAND;
extern const char* const UNSUBSCRIBE_COMMAND;

// What a client sends as the value of a service query. The device does not read it.
extern const char* const SERVICE_INFO_VALUE;

// Replies.
extern const char* const TRANSPORT_BUSY_REPLY;
extern const char* const TRANSPORT_FREE_REPLY;
extern const char* const SETUP_SUCCESS_REPLY;

constexpr unsigned int MAX_SERVICE_INFO_LENGTH = 1024;
constexpr unsigned int COMMAND_PARAM_SIZE = LUM_MAX_CMD_LENGTH + 1;

// What a command carries besides its name: the text of its parameter, or the subscription that "subscribe"
// and "unsubscribe" are about (of which the latter fills only the name).
union CommandParam {
    char text[COMMAND_PARAM_SIZE];
    LUM_SUBSCRIBE_SERVICE_S subscription;
};

// Every function below returns 0 or -1. A failure is logged unless its description says otherwise, or memory
// ran out while a member was added.

// The command document: {"ClientID":3,"cmd":"SetMode","param":"night"}. For "subscribe", param is a
// LUM_SUBSCRIBE_SERVICE_S, whose fields are checked.
int GetJsonCmd(int clientID, const char* cmd, const char* param, std::string& document);

// param comes zeroed. A missing parameter leaves it so; a document without a command or a client ID fails
// without a message.
int ParseJsonCmd(const std::string& value, int* clientID, std::string* cmd, CommandParam* param);
int ParseSubscribeJson(const cJSON* root, const std::string& cmd, LUM_SUBSCRIBE_SERVICE_S* subscription);

// The reply to a setup request: "Succ", or {"r":"Succ","sec":ANSWER} if the device takes the offer of a
// private channel. The answer is a JSON object.
std::string SetupReply(const std::string& answer);
// The answer in such a reply; empty if there is none. No message.
std::string AnswerInReply(const std::string& reply);

// The service-information document of a device; no message.
int GetServiceInfoString(const std::string& devServiceType, const std::vector<LUM_SERVICE_INFO_S>& services,
                         std::string& document);

// Fills the type and the services. What was read before a failure stays in the record.
int ParseServiceInfoString(const std::string& document, LUM_DEVICE_INFO_S* devInfo);
int GetServiceString(const cJSON* root, LUM_DEVICE_INFO_S* devInfo);

}  // namespace lumoraAiModule
