// The client's receive path: server frames in whatever pieces they come.
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/read_replay.h"

using lumora_fuzz::FuzzedTransport;
using lumoraAiModule::LumoraTCPTransClient;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static lumora_test::RecordingCallback callback;
    static const auto transport = [] {
        auto made = std::make_shared<FuzzedTransport<LumoraTCPTransClient>>(callback, 1U);
        lumora_fuzz::Require(made->AllocateReassembly(), "there is memory");
        return made;
    }();
    lumora_fuzz::ReplayReads<lumora_test::ClientStreamModel>(lumora_fuzz::ReadScript(data, size), *transport,
                                                             callback.mFrames);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, lumora_fuzz::READ_KINDS,
                                          lumora_fuzz::MutateServerFrames);
}
