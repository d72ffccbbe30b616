// The CoAP codec and what is read out of messages.
#include "platform/link/wire/coap_message.h"

#include "platform/link/wire/messages.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Require;
using namespace lumora_link;

namespace {

bool IsSame(const CoapMessage& a, const CoapMessage& b) {
    return a.type == b.type && a.code == b.code && a.messageId == b.messageId && a.token == b.token &&
           a.options == b.options && a.payload == b.payload;
}

void RequireRequesterSurvives(const CoapMessage& message) {
    if (const auto requester = DecodeRequester(message)) {
        // Without the last 8 bytes if the secret is 0, and without what follows them.
        const std::string again = EncodeRequester(*requester);
        Require(message.Find(option::REQUESTER)->compare(0, again.size(), again) == 0,
                "a requester is written as it was read");
    }
}

void RequireBlockSurvives(const CoapMessage& message) {
    const auto block = FindBlock(message);
    if (block && block->number < 1U << 28) {
        CoapMessage again;
        again.Add(option::BLOCK1, EncodeBlock(*block));
        const auto same = FindBlock(again);
        Require(same && same->number == block->number && same->more == block->more &&
                    same->sizeExponent == block->sizeExponent,
                "a block is read as it was written");
    }
}

void RequireKeySurvives(const CoapMessage& message) {
    CoapMessage again;
    AddKey(again, KeyOf(message));
    Require(KeyOf(again) == KeyOf(message) && PathOf(again) == RESOURCE_PATH,
            "a key is read as it was written");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto message = ParseMessage(std::string(data, data + size));
    if (!message) {
        return 0;
    }
    const std::string written = SerializeMessage(*message);
    Require(written.size() <= size, "nothing is written at greater length than it can be read");
    const auto again = ParseMessage(written);
    Require(again && IsSame(*message, *again), "a message is read as it was written");
    RequireRequesterSurvives(*message);
    RequireBlockSurvives(*message);
    RequireKeySurvives(*message);
    KnownNodes(*message);
    Require(IsAskedFor(MakeProbe(KeyOf(*message), message->token, {}), KeyOf(*message)),
            "a probe for a type asks for it");
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateDocument(data, size, most, seed, lumora_fuzz::MutateDatagram);
}
