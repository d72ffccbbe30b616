// The setup string, through both of its readers.
#include "protocol/setup_string.h"

#include "protocol/control_documents.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"
#include "transport/transport_manager.h"

using lumora_fuzz::Require;
using namespace lumoraAiModule;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    LumoraTransManagerFactory factory;
    LUM_TRANSPORT_E protocol = LUM_TRANSPORT_NONE;
    if (factory.ParseTransportsProtocol(text, protocol) == 0) {
        Require(protocol >= LUM_TRANSPORT_NONE && protocol <= LUM_TRANSPORT_RESERVED_5,
                "the protocol is one");
    } else {
        Require(protocol == LUM_TRANSPORT_NONE, "a failure changes nothing");
    }
    std::string rest = text;
    const std::string offer = lumora::TakeOffer(rest);
    Require(!offer.empty() || rest == text, "a string without an offer stays");
    Require(offer.empty() || AnswerInReply(SetupReply(offer)) == offer, "what was taken out can be sent");
    lumora::LumoraTransportConfig config;
    if (config.ParseSetupString(text) == 0) {
        Require(config.GetAddr() == "0" && config.GetPort() == 0, "a failure changes nothing");
        return 0;
    }
    const std::string written = config.GetSetupString();
    lumora::LumoraTransportConfig again;
    Require(again.ParseSetupString(written) == 1, "what was written can be read");
    Require(again.GetAddr() == config.GetAddr() && again.GetPort() == config.GetPort(), "and is the same");
    Require(factory.ParseTransportsProtocol(written, protocol) == 0 && protocol == LUM_TRANSPORT_TCP,
            "by the other reader too");
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateJson);
}
