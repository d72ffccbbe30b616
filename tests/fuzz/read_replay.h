// A stream that arrives in given pieces, played through a transport's receive path, where an independent
// model says what has to come out.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "tests/fuzz/require.h"
#include "tests/fuzz/script.h"
#include "tests/transport/open_transport.h"
#include "tests/transport/stream_models.h"

namespace lumora_fuzz {

// The kinds of records: one read each, into the place where the rest of a pending frame is needed if there
// is one, or into the read buffer, as when that place has no room for a whole read.
enum ReadKind : std::uint8_t { READ_INTO_PLACE, READ_ASIDE, READ_KINDS };

template <typename Transport>
class FuzzedTransport : public lumora_test::OpenTransport<Transport> {
public:
    using lumora_test::OpenTransport<Transport>::OpenTransport;

    void Reset() {
        this->Held().Consume(this->Held().Length());
        this->Pending() = false;
    }
    bool Holds(const std::string& bytes) {
        return std::string_view(this->Held().Data(), this->Held().Length()) == bytes;
    }
    // Puts the bytes where a read would have put them.
    int Receive(const std::string& bytes, bool aside) {
        const bool continues = this->Pending() && !aside;
        const auto length = static_cast<unsigned int>(bytes.size());
        if (!continues) {
            lumora_test::ReceivedBytes received(bytes);
            return this->ParseAndSendData(received.Data(), length);
        }
        char* data = this->Held().End();
        std::copy(bytes.begin(), bytes.end(), data);
        std::fill_n(data + length, lumoraAiModule::FRAME_SPARE_LENGTH, '\0');
        return this->ParseAndSendData(data, length);
    }
};

// delivered: what the transport has handed upward.
template <typename Model, typename Transport>
void ReplayReads(const Script& reads, Transport& transport, lumora_test::Inbox& delivered) {
    Model model;
    transport.Reset();
    for (const auto& [kind, bytes] : reads) {
        if (bytes.empty()) {
            continue;
        }
        const bool fits = model.Feed(bytes);
        const int result = transport.Receive(bytes, kind % READ_KINDS == READ_ASIDE);
        Require(result == (fits ? 0 : -1), "bytes are refused if they do not fit");
        Require(transport.Holds(model.Held()), "the rest is what the model keeps");
    }
    Require(delivered.Take() == model.Delivered(), "what is delivered is what the model delivers");
}

}  // namespace lumora_fuzz
