// Subscriptions: what stands under "subscribe", as the server reads it, and the application's record, in
// which any bytes may stand.
#include <cstring>

#include "library/bounded_text.h"
#include "protocol/control_documents.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumoraAiModule;

namespace {

void RequireInBounds(const LUM_SUBSCRIBE_SERVICE_S& subscription) {
    Require(std::memchr(subscription.serviceName, '\0', LUM_NAME_SIZE) != nullptr, "the name is terminated");
    Require(subscription.dataSource >= 0 && subscription.dataSource <= 1, "the data source is one");
    Require(subscription.transport >= 0 && subscription.transport <= 5, "the transport is one");
}

void Read(const std::string& text) {
    const lumora::JsonTree root = lumora::ParseJson(text);
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    if (root != nullptr && ParseSubscribeJson(root.get(), SUBSCRIBE_COMMAND, &subscription) == 0) {
        RequireInBounds(subscription);
    }
}

void WriteAndRead(const char* record) {
    LUM_SUBSCRIBE_SERVICE_S sent;
    std::memcpy(&sent, record, sizeof(sent));
    std::string document;
    if (GetJsonCmd(7, SUBSCRIBE_COMMAND, record, document) != 0) {
        return;
    }
    int clientID = 0;
    std::string command;
    CommandParam received = {};
    const std::string name = lumora::NameText(sent.serviceName);
    if (ParseJsonCmd(document, &clientID, &command, &received) != 0) {
        Require(name.size() == LUM_NAME_SIZE, "only a name that fills its field is refused");
        return;
    }
    Require(clientID == 7 && command == SUBSCRIBE_COMMAND, "it is the same command");
    Require(name == received.subscription.serviceName, "for the same service");
    Require(sent.dataSource == received.subscription.dataSource, "from the same source");
    Require(sent.transport == received.subscription.transport, "over the same transport");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(data, data + size);
    if (input.compare(0, 1, "{") == 0) {
        Read(input);
    } else if (size >= sizeof(LUM_SUBSCRIBE_SERVICE_S)) {
        WriteAndRead(input.data());
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateJson);
}
