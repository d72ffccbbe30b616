// The command document, as the server reads it.
#include <cstring>

#include "protocol/control_documents.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumoraAiModule;

namespace {

struct Command {
    int clientID = 0;
    std::string name;
    CommandParam param = {};

    bool Parse(const std::string& document) { return ParseJsonCmd(document, &clientID, &name, &param) == 0; }
    bool IsSubscription() const { return name == SUBSCRIBE_COMMAND || name == UNSUBSCRIBE_COMMAND; }
    // As the client's side takes it.
    const char* Argument() const {
        return name == SUBSCRIBE_COMMAND ? reinterpret_cast<const char*>(&param.subscription) : param.text;
    }
};

bool IsSame(const Command& a, const Command& b) {
    const LUM_SUBSCRIBE_SERVICE_S& one = a.param.subscription;
    const LUM_SUBSCRIBE_SERVICE_S& other = b.param.subscription;
    if (a.clientID != b.clientID || a.name != b.name) {
        return false;
    }
    if (!a.IsSubscription()) {
        return std::strcmp(a.param.text, b.param.text) == 0;
    }
    return std::strcmp(one.serviceName, other.serviceName) == 0 &&
           (a.name == UNSUBSCRIBE_COMMAND ||
            (one.dataSource == other.dataSource && one.transport == other.transport));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Command command;
    if (!command.Parse(std::string(data, data + size))) {
        return 0;
    }
    const bool hasText = std::memchr(&command.param, '\0', sizeof(command.param)) != nullptr;
    Require(hasText, "the parameter is terminated");
    std::string document;
    const int built = GetJsonCmd(command.clientID, command.name.c_str(), command.Argument(), document);
    if (built != 0) {
        Require(command.name == SUBSCRIBE_COMMAND && command.param.subscription.serviceName[0] == '\0',
                "what was read can be written");
        return 0;
    }
    Command again;
    Require(again.Parse(document), "what was written can be read");
    Require(IsSame(command, again), "and is the same");
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateJson);
}
