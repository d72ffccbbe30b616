#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/messages.h"
#include "tests/fuzz/mutation.h"

namespace lumora_fuzz {

namespace {

using namespace lumora_link;

const std::uint8_t CODES[] = {code::EMPTY,       code::GET,       code::POST,      code::PUT,
                              code::DELETE,      code::CONTENT,   code::CONTINUE,  code::CHANGED,
                              code::DELETED,     code::NOT_FOUND, code::TOO_LARGE, code::INCOMPLETE,
                              code::UNAVAILABLE, MakeCode(7, 31)};
const std::uint16_t OPTIONS[] = {option::URI_PATH,
                                 option::URI_QUERY,
                                 option::CONTENT_FORMAT,
                                 option::BLOCK1,
                                 option::REQUESTER,
                                 option::KNOWN_NODES,
                                 option::LOOK_ROUND,
                                 1,
                                 65535};
const char* const VALUES[] = {"lumora", "hello",     "goodbye", ".well-known",
                              "core",   "rt=camera", "rt=cam*", "Command"};
const char* const LINKS[] = {
    "<coap://10.0.0.9:40009/lumora>;rt=\"camera\";ep=\"0000000000001009\";ins=1",
    "<coap://10.0.0.9:40009/lumora>;ep=\"0000000000001009\";ins=2",
    "<coap://127.0.0.1/lumora>;rt=camera;ep=1;ins=4294967295",
    "<coaps://10.0.0.9:40010/lumora>;rt=\"a\\\"b\";ep=\"00000000000010ff\";ins=7",
};

void ChangeOptions(CoapMessage& message, Dice& dice) {
    if (message.options.empty() || dice.OneIn(3)) {
        message.Add(dice.Pick(OPTIONS), dice.Pick(VALUES));
        return;
    }
    const std::size_t at = dice.Below(message.options.size());
    switch (dice.Below(4)) {
        case 0:
            message.options.erase(message.options.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        case 1:
            message.options[at].number = dice.Pick(OPTIONS);
            break;
        case 2:
            message.options[at].value = dice.Pick(VALUES);
            break;
        default:
            message.options[at].value = MutateBytes(message.options[at].value, dice);
    }
}

void ChangeHead(CoapMessage& message, Dice& dice) {
    switch (dice.Below(4)) {
        case 0:
            message.type = static_cast<MessageType>(dice.Below(4));
            break;
        case 1:
            message.code = dice.Pick(CODES);
            break;
        case 2:
            message.messageId = static_cast<std::uint16_t>(dice.Below(4));
            break;
        default:
            message.token.resize(dice.Below(9));
    }
}

}  // namespace

std::string MutateDatagram(const std::string& datagram, Dice& dice) {
    auto message = ParseMessage(datagram);
    if (!message || dice.OneIn(6)) {
        return MutateBytes(datagram, dice);
    }
    switch (dice.Below(5)) {
        case 0:
            ChangeHead(*message, dice);
            break;
        case 1:
            message->payload = dice.Pick(LINKS);
            break;
        case 2:
            message->payload = MutateBytes(message->payload, dice);
            break;
        default:
            ChangeOptions(*message, dice);
    }
    return SerializeMessage(*message);
}

}  // namespace lumora_fuzz
